// Every kind of shared segment the device may hold, as the surveying verbs
// (ls, watch, clean) see it: where its keys lie, how its locks are keyed, and
// how to read the newest element and the working parameters from its header.
// A kind joins by adding one row to the table in pool_kinds.cpp.
#pragma once

#include "kinds/shm_view.h"

#include <avpool/lum.h>
#include <avpool/md.h>
#include <avpool/mp4.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

namespace avpool::cli {

constexpr int MAX_CHANNEL = 255;  // the kinds' base keys are 0x100 apart

enum class LockKeys {
    None,     // no semaphores (the information area)
    Single,   // one set under the segment's key
    Grouped,  // sets under base + channel * 16 + g
};

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

struct PoolKindInfo {
    const char* name;  // "jpg"; "infos" for the information area
    int baseKey;
    bool perChannel;   // key = baseKey + channel; otherwise baseKey alone
    LockKeys locks;
    // Reads the state from an attached segment; elements numbered above since
    // count into bytesSince.
    void (*read)(const SegmentView& view, unsigned long long since, PoolState& state);
};

// The start of every luminance and motion slot.
struct AnalysisHead {
    avpool::Word64 frameID;
    int32_t lockIndex;
    int32_t frameLength;  // elements
    int32_t tv_sec;
    int32_t tv_usec;
};
static_assert(sizeof(AnalysisHead) == offsetof(LUMFrameInfo, samples), "analysis slot head");
static_assert(sizeof(AnalysisHead) == offsetof(MDFrameInfo, firstArray), "analysis slot head");

// Every row, in the order the surveying verbs list the kinds.
const std::vector<PoolKindInfo>& poolKinds();

// The row of the kind called name, or null.
const PoolKindInfo* findPoolKind(const std::string& name);

// The frame slots an mp4 pool's header gives it, 0 when its GOP count or size
// is out of range (a damaged header, or one not yet written).
int mp4SlotCount(const MP4PoolHeader& header);

// The segment key of a kind's pool on a channel (fixed-key kinds ignore it).
int segmentKey(const PoolKindInfo& kind, int channel);

// The key of the first semaphore set of a kind's pool on a channel; further
// sets of a grouped pool follow it.
int firstLockKey(const PoolKindInfo& kind, int channel);

// The words of the usage error for a channel other than 0 given to a verb on
// a kind with one pool under a fixed key.
using FixedKeyRefusal = std::string (*)(const char* verb, const PoolKindInfo& kind, const std::string& text,
                                        int channel);

// The channel argument of a verb on a kind: a usage error when it is not a
// channel number, or when it is not 0 for a kind with one pool under a fixed
// key (worded by refusal).
int parseChannel(const PoolKindInfo& kind, const std::string& text, const char* verb, FixedKeyRefusal refusal);

}  // namespace avpool::cli
