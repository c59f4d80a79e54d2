// The one table of pool kinds: a row per kind of shared segment the device may
// hold, with everything the verbs and the demo need of it: where its keys lie,
// how its locks are keyed, the geometry its kind fixes, and the kind's part of
// each verb (reading its header for ls and watch, printing it for stat,
// feeding and reading it for put and get, writing and checking it in the
// demo). A kind joins by adding one row in pool_kinds.cpp; a verb that does
// not take a kind has no part in its row.
#pragma once

#include "cli/cli.h"

#include <avpool/mp4.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace avpool::demo {
class PoolWriter;
struct PoolPlan;
struct ConsumerJob;
}  // namespace avpool::demo

namespace avpool::cli {

class SegmentView;
struct PoolState;
struct StatRequest;
struct PutJob;
struct GetJob;

constexpr int MAX_CHANNEL = 255;  // the kinds' base keys are 0x100 apart

enum class LockKeys {
    Single,   // one set under the segment's key (the information area: its budget's set)
    Grouped,  // sets under base + channel * 16 + g
};

// What a kind's elements are; the verbs treat the kinds of one family alike.
enum class Family {
    Pictures,  // jpg: frames of any size in a data ring
    Video,     // mp4: GOPs of frame slots over a data ring
    Audio,     // pcm, aac, amr, opus: 200 fragment slots after one shared header
    Analysis,  // lum, md: a few records with their payload inline
    InfoArea,  // the information area: no ring
};

struct PoolKind {
    const char* name;  // "jpg"; "infos" for the information area
    int baseKey;
    bool perChannel;   // key = baseKey + channel; otherwise baseKey alone
    LockKeys locks;
    Family family;

    // The geometry the kind fixes (audio and analysis): slots in the ring, the
    // header and slot sizes, where the header keeps the safe times and the
    // segment's whole size. 0 for jpg and mp4, whose header tells.
    int slots;
    size_t headerSize;
    size_t slotSize;
    size_t safeTimeOffset;
    size_t segmentSize;
    // Audio: the int32 fields after the 44-byte fragment head, in this order:
    // streamParam (1), then fragmentParam (2).
    int extras;
    // Analysis: payload bytes per element that frameLength counts (md: both
    // arrays), and whether the header keeps a vibration level.
    int elementBytes;
    bool vibration;

    // ls, watch: the state of an attached segment; elements numbered above
    // since count into bytesSince.
    void (*read)(const PoolKind& kind, const SegmentView& view, unsigned long long since, PoolState& state);
    // The kind's part of stat, put and get; null where the verb does not take it.
    int (*stat)(const StatRequest& request);
    int (*put)(const PutJob& job);
    int (*get)(const GetJob& job);
    // The demo's producer and checking consumer of a pool of this kind; null
    // for a kind the demo does not run. Its frames are generated from the
    // stream channel | demoStream << 8, one stream per pool.
    std::unique_ptr<avpool::demo::PoolWriter> (*writer)(const avpool::demo::PoolPlan& plan);
    int (*consume)(const avpool::demo::ConsumerJob& job);
    int demoStream;
};

// The rows, by name.
namespace kinds {
extern const PoolKind jpg;
extern const PoolKind mp4;
extern const PoolKind pcm;
extern const PoolKind aac;
extern const PoolKind amr;
extern const PoolKind opus;
extern const PoolKind lum;
extern const PoolKind md;
extern const PoolKind infos;
}  // namespace kinds

// Every row, in the order the verbs list the kinds.
const std::vector<const PoolKind*>& poolKinds();

// The row called name among those with a part in the verb (&PoolKind::stat,
// &PoolKind::put, ...); otherwise the usage error "<verb>: unknown pool kind
// 'name' (known: jpg, mp4, ...)" naming those rows.
template <class Member>
const PoolKind& findKind(const std::string& name, const char* verb, Member PoolKind::*part) {
    std::string names;
    for (const PoolKind* kind : poolKinds()) {
        if (kind->*part == nullptr) continue;
        if (name == kind->name) return *kind;
        names += (names.empty() ? "" : ", ") + std::string(kind->name);
    }
    throw UsageError(std::string(verb) + ": unknown pool kind '" + name + "' (known: " + names + ")");
}

// Pictures and video, which a client streams: the encoder announces each such
// pool as a profile of the information area.
inline bool hasProfile(const PoolKind& kind) {
    return kind.family == Family::Pictures || kind.family == Family::Video;
}

// The frame slots an mp4 pool's header gives it, 0 when its GOP count or size
// is out of range (a damaged header, or one not yet written).
int mp4SlotCount(const MP4PoolHeader& header);

// The segment key of a kind's pool on a channel (fixed-key kinds ignore it).
int segmentKey(const PoolKind& kind, int channel);

// The key of the first semaphore set of a kind's pool on a channel; further
// sets of a grouped pool follow it.
int firstLockKey(const PoolKind& kind, int channel);

// The words of the usage error for a channel other than 0 given to a verb on
// a kind with one pool under a fixed key.
using FixedKeyRefusal = std::string (*)(const char* verb, const PoolKind& kind, const std::string& text,
                                        int channel);

// The channel argument of a verb on a kind: a usage error when it is not a
// channel number, or when it is not 0 for a kind with one pool under a fixed
// key (worded by refusal).
int parseChannel(const PoolKind& kind, const std::string& text, const char* verb, FixedKeyRefusal refusal);

}  // namespace avpool::cli
