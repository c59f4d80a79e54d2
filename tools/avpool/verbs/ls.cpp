// avpool ls: one line per pool of the host (and the information area), found
// through the kinds table and attached read-only.

#include "cli/clock.h"
#include "kinds/shm_view.h"
#include "kinds/survey.h"
#include "verbs/verbs.h"

#include <cstdio>
#include <string>
#include <vector>

namespace avpool::cli {

namespace {

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

}  // namespace avpool::cli
