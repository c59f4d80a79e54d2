// Every pool of the host at once, as ls, watch and clean see it: each segment
// found under the keys of the kinds table, attached read-only, with what its
// header tells at that moment.
#pragma once

#include "kinds/pool_kinds.h"

#include <cstddef>
#include <string>
#include <sys/types.h>
#include <vector>

namespace avpool::cli {

struct FoundPool {
    const PoolKindInfo* kind;
    int channel;  // 0 for the fixed-key kinds
    int key;
    int id;
    size_t size;
    unsigned long attached;
    pid_t creator;
    bool creatorAlive;
    // Whether the earlier call found this very segment (same key and id), and
    // then its newest running number there; 0 otherwise.
    bool seenBefore;
    unsigned long long since;
    PoolState state;
};

// Every segment present under a kind's keys, attached read-only one at a time.
// since (may be null) gives, per found pool in the order of an earlier call,
// the number below which bytes are not counted; it is matched by key.
std::vector<FoundPool> findPools(const std::vector<FoundPool>* earlier = nullptr);

// The semaphore-set keys of a found pool.
std::vector<int> lockKeys(const FoundPool& pool);

// "jpg 0", "pcm", "infos"
std::string poolName(const FoundPool& pool);

// The columns ls and watch share: the channel ("-" for a fixed-key kind),
// "live" or "stale" (the creator is gone), and the seconds since the newest
// element was captured ("-" before the first).
std::string channelText(const FoundPool& pool);
const char* stateText(const FoundPool& pool);
std::string ageText(const FoundPool& pool, long long nowUs);

}  // namespace avpool::cli
