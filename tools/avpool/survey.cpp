// The verbs that look at every pool of the host at once: ls lists them, watch
// follows them, clean removes those whose creator has died. All of them find
// the pools through the kinds table (pool_kinds.h) and attach read-only.

#include "clock.h"
#include "interrupt.h"
#include "pool_kinds.h"
#include "verbs.h"

#include <cstdio>
#include <ctime>
#include <string>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

namespace avpool::cli {

namespace {

// Seconds since the newest element was captured, "-" before the first.
std::string ageText(const FoundPool& pool, long long nowUs) {
    if (pool.state.newest == 0) return "-";
    char text[32];
    snprintf(text, sizeof text, "%.2f s", static_cast<double>(nowUs - pool.state.newestUs) / 1e6);
    return text;
}

const char* stateText(const FoundPool& pool) {
    return pool.creatorAlive ? "live" : "stale";
}

std::string channelText(const FoundPool& pool) {
    return pool.kind->perChannel ? std::to_string(pool.channel) : "-";
}

void printTable(const std::vector<FoundPool>& pools) {
    long long now = wallClockUs();
    printf("%-5s %3s %-7s %8s %3s %7s %-5s %8s %9s  %s\n", "KIND", "CH", "KEY", "SIZE", "ATT", "CREATOR", "STATE",
           "NEWEST", "AGE", "PARAMETERS");
    for (const FoundPool& pool : pools)
        printf("%-5s %3s %-7s %8zu %3lu %7d %-5s %8llu %9s  %s\n", pool.kind->name, channelText(pool).c_str(),
               hexKey(pool.key).c_str(), pool.size, pool.attached, static_cast<int>(pool.creator), stateText(pool),
               pool.state.newest, ageText(pool, now).c_str(), pool.state.params.c_str());
}

void printJson(const std::vector<FoundPool>& pools) {
    long long now = wallClockUs();
    printf("{\"pools\": [");
    for (size_t i = 0; i < pools.size(); ++i) {
        const FoundPool& pool = pools[i];
        std::string age = "null";
        if (pool.state.newest != 0) {
            char text[32];
            snprintf(text, sizeof text, "%.3f", static_cast<double>(now - pool.state.newestUs) / 1e6);
            age = text;
        }
        std::string channel = pool.kind->perChannel ? std::to_string(pool.channel) : "null";
        printf("%s\n  {\"kind\": \"%s\", \"channel\": %s, \"key\": %d, \"id\": %d, \"size\": %zu, \"attached\": %lu, "
               "\"creator\": %d, \"stale\": %s, \"slots\": %d, \"newest\": %llu, \"ageSeconds\": %s, "
               "\"parameters\": {%s}}",
               i == 0 ? "" : ",", pool.kind->name, channel.c_str(), pool.key, pool.id, pool.size, pool.attached,
               static_cast<int>(pool.creator), pool.creatorAlive ? "false" : "true", pool.state.slots,
               pool.state.newest, age.c_str(), pool.state.paramsJson.c_str());
    }
    printf("%s]}\n", pools.empty() ? "" : "\n");
}

int runLs(const ParsedArgs& args) {
    args.expectPositional(0, "no arguments");
    std::vector<FoundPool> pools = findPools();
    if (args.has("--json"))
        printJson(pools);
    else if (pools.empty())
        printf("no pools on this host\n");
    else
        printTable(pools);
    return 0;
}

// One refresh of watch: rates over the time since the one before (pools
// found then too); seconds is 0 on the first.
void printWatch(const std::vector<FoundPool>& pools, double seconds) {
    long long now = wallClockUs();
    time_t clock = static_cast<time_t>(now / 1000000);
    char stamp[16];
    strftime(stamp, sizeof stamp, "%H:%M:%S", localtime(&clock));
    printf("avpool watch %s, %zu pools\n", stamp, pools.size());
    printf("%-5s %3s %-7s %8s %9s %8s %9s %3s %s\n", "KIND", "CH", "KEY", "RATE/s", "KBIT/s", "NEWEST", "AGE", "ATT",
           "STATE");
    for (const FoundPool& pool : pools) {
        unsigned long long earlier = pool.seenBefore ? pool.since : pool.state.newest;
        double rate = seconds > 0 ? static_cast<double>(pool.state.newest - earlier) / seconds : 0;
        double kbits = seconds > 0 && earlier != pool.state.newest
                           ? static_cast<double>(pool.state.bytesSince) * 8 / 1000 / seconds
                           : 0;
        printf("%-5s %3s %-7s %8.1f %9.1f %8llu %9s %3lu %s\n", pool.kind->name, channelText(pool).c_str(),
               hexKey(pool.key).c_str(), rate, kbits, pool.state.newest, ageText(pool, now).c_str(), pool.attached,
               stateText(pool));
    }
}

int runWatch(const ParsedArgs& args) {
    args.expectPositional(0, "no arguments");
    int interval = args.intOption("--interval", 1, 1, 3600);
    int count = args.intOption("--count", 0, 0, 1000000000);
    bool terminal = isatty(STDOUT_FILENO) != 0;
    catchInterrupts();
    std::vector<FoundPool> before = findPools();
    long long last = monotonicNs();
    long long next = last + interval * NS_PER_S;
    for (int shown = 0; !interrupted && (count == 0 || shown < count); ++shown) {
        if (shown > 0) {
            sleepUntilNs(next);
            if (interrupted) break;
            next += interval * NS_PER_S;
        }
        long long now = monotonicNs();
        std::vector<FoundPool> pools = findPools(&before);
        if (terminal) printf("\033[H\033[J");
        else if (shown > 0) printf("\n");
        printWatch(pools, shown == 0 ? 0 : static_cast<double>(now - last) / NS_PER_S);
        fflush(stdout);
        before = pools;
        last = now;
    }
    return 0;
}

int runClean(const ParsedArgs& args) {
    args.expectPositional(0, "no arguments");
    int removed = 0;
    for (const FoundPool& pool : findPools()) {
        if (pool.creatorAlive) continue;
        std::string what = "removed " + poolName(pool) + ": segment " + hexKey(pool.key) + " (creator " +
                           std::to_string(pool.creator) + " is gone)";
        if (shmctl(pool.id, IPC_RMID, nullptr) == -1) continue;  // someone else removed it first
        for (int key : lockKeys(pool)) {
            int id = semget(key, 0, 0);
            if (id != -1 && semctl(id, 0, IPC_RMID) == 0) what += ", semaphore set " + hexKey(key);
        }
        printf("%s\n", what.c_str());
        ++removed;
    }
    if (removed == 0) printf("nothing to clean\n");
    return 0;
}

}  // namespace

const Verb lsVerb = {
    "ls",
    "[--json]",
    "list every pool and the information area on this host",
    "Probes the fixed keys of every pool kind over the channel range (jpg, mp4,\n"
    "aac, amr, lum and md per channel 0..255; pcm, opus and the information area\n"
    "under their one key) and prints one line per segment found: kind, channel,\n"
    "key, size, attached processes, creator PID and whether the creator still\n"
    "runs (\"stale\" when it does not), the newest running number, its age and\n"
    "the working parameters. Segments are attached read-only.\n",
    {{"--json", nullptr, "print a JSON document instead of the table"}},
    runLs,
};

const Verb watchVerb = {
    "watch",
    "[--interval S] [--count N]",
    "follow every pool live: rates, newest element, age",
    "Shows every pool of the host, refreshed every interval: elements and\n"
    "kilobits per second since the refresh before, the newest running number,\n"
    "its age, attached processes and whether the creator still runs. On a\n"
    "terminal the view is redrawn in place; otherwise each refresh prints one\n"
    "block. Ends after --count refreshes or on SIGINT.\n",
    {{"--interval", "S", "seconds between refreshes (default 1)"},
     {"--count", "N", "stop after N refreshes (default: until interrupted)"}},
    runWatch,
};

const Verb cleanVerb = {
    "clean",
    "",
    "remove pools whose creator has died",
    "Removes the segment and the semaphore sets of every pool (and the\n"
    "information area) whose creating process no longer runs, one line per pool\n"
    "removed. Pools whose creator still runs are left alone.\n",
    {},
    runClean,
};

}  // namespace avpool::cli
