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

class SegmentView;

// What a header tells about a pool at one moment.
struct PoolState {
    int slots = 0;                      // elements the ring holds
    int lockSets = 0;                   // semaphore sets it uses
    unsigned long long newest = 0;      // running number of the newest element, 0 before the first
    long long newestUs = 0;             // its capture time
    unsigned long long bytesSince = 0;  // payload bytes of the elements numbered above `since`
    std::string params;                 // working parameters, e.g. "640x480 25 fps"
    std::string paramsJson;             // the same as JSON members, without braces
};

// The kinds' readers of an attached segment (PoolKind::read): elements
// numbered above since count into bytesSince. The four audio kinds share one,
// and so do the two analysis kinds, driven by their rows.
void readJpg(const PoolKind& kind, const SegmentView& view, unsigned long long since, PoolState& state);
void readMp4(const PoolKind& kind, const SegmentView& view, unsigned long long since, PoolState& state);
void readAudio(const PoolKind& kind, const SegmentView& view, unsigned long long since, PoolState& state);
void readAnalysis(const PoolKind& kind, const SegmentView& view, unsigned long long since, PoolState& state);
void readInfos(const PoolKind& kind, const SegmentView& view, unsigned long long since, PoolState& state);

struct FoundPool {
    const PoolKind* kind;
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
