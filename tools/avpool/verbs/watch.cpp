// avpool watch: every pool of the host refreshed every interval, with its
// element rate and bitrate since the refresh before.

#include "cli/clock.h"
#include "cli/interrupt.h"
#include "kinds/shm_view.h"
#include "kinds/survey.h"
#include "verbs/verbs.h"

#include <cstdio>
#include <ctime>
#include <string>
#include <unistd.h>
#include <vector>

namespace avpool::cli {

namespace {

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

}  // namespace

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

}  // namespace avpool::cli
