#include "kinds/survey.h"

#include "kinds/shm_view.h"

#include <cstdio>

namespace avpool::cli {

namespace {

const FoundPool* earlierByKey(const std::vector<FoundPool>* earlier, int key) {
    if (earlier == nullptr) return nullptr;
    for (const FoundPool& pool : *earlier)
        if (pool.key == key) return &pool;
    return nullptr;
}

void probe(const PoolKindInfo& kind, int channel, const std::vector<FoundPool>* earlier,
           std::vector<FoundPool>& found) {
    int key = segmentKey(kind, channel);
    pid_t creator = 0;
    if (!findSegment(key, creator)) return;
    try {
        SegmentView view(key, 0, std::string(kind.name) + " pool");
        const FoundPool* before = earlierByKey(earlier, key);
        bool seen = before != nullptr && before->id == view.id();
        FoundPool pool{&kind,        channel, key, view.id(), view.size(), view.attached(), view.creator(),
                       processAlive(view.creator()), seen, seen ? before->state.newest : 0, {}};
        kind.read(view, pool.since, pool.state);
        found.push_back(pool);
    } catch (const CliError&) {
        // Removed between the lookup and the attach: it is gone, so not listed.
    }
}

}  // namespace

std::vector<FoundPool> findPools(const std::vector<FoundPool>* earlier) {
    std::vector<FoundPool> found;
    for (const PoolKindInfo& kind : poolKinds())
        for (int channel = 0; channel <= (kind.perChannel ? MAX_CHANNEL : 0); ++channel)
            probe(kind, channel, earlier, found);
    return found;
}

std::vector<int> lockKeys(const FoundPool& pool) {
    std::vector<int> keys;
    const PoolKindInfo& kind = *pool.kind;
    int sets = pool.state.lockSets > 0 ? pool.state.lockSets : 1;
    if (kind.locks == LockKeys::Single) keys.push_back(pool.key);
    if (kind.locks == LockKeys::Grouped)
        for (int g = 0; g < sets; ++g) keys.push_back(firstLockKey(kind, pool.channel) + g);
    return keys;
}

std::string poolName(const FoundPool& pool) {
    if (!pool.kind->perChannel) return pool.kind->name;
    return std::string(pool.kind->name) + " " + std::to_string(pool.channel);
}

std::string channelText(const FoundPool& pool) {
    return pool.kind->perChannel ? std::to_string(pool.channel) : "-";
}

const char* stateText(const FoundPool& pool) {
    return pool.creatorAlive ? "live" : "stale";
}

std::string ageText(const FoundPool& pool, long long nowUs) {
    if (pool.state.newest == 0) return "-";
    char text[32];
    snprintf(text, sizeof text, "%.2f s", static_cast<double>(nowUs - pool.state.newestUs) / 1e6);
    return text;
}

}  // namespace avpool::cli
