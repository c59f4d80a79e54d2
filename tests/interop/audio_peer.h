// The audio pools' sections of the interop peer (PCM, AAC, AMR, Opus), written
// once over a small kind description. All four are a ring of 200 fixed-size
// fragment slots behind the same 816-byte header; they differ in keys, slot
// size, where the data start, how a fragment's length becomes bytes copied and
// the length stored, the extra words a slot carries and the fragment
// arithmetic. The producer writes 230 fragments (round the ring and 30 further)
// with lengths around each kind's limits, for some kinds with a reset between
// them; the consumer, built for the other machine, rebuilds the segment from the
// layout alone (explicit offsets, little-endian words, the 0xCC fill wherever
// nothing was written), compares it byte for byte and lock by lock, reads every
// slot and runs the searches through the getter where the kind has one, then
// follows the writer live: blocked on the slot after the newest until the
// producer's next fragment releases it.
//
// A kind supplies (see audio_kinds_peer.cpp):
//   Putter, Getter (void: no getter; the consumer reads by the layout only)
//   static constexpr AudioGeometry geometry
//   init(Putter&, int channel), reset(Putter&, const AudioFormat&)
//   put(Putter&, void* data, int length, const timeval&, int fragmentParam)
//   init(Getter&, int channel) where there is a getter
#pragma once

#include "peer.h"

#include "ipc_harness.h"

#include <sys/time.h>
#include <sys/types.h>

#include <string>
#include <type_traits>
#include <vector>

namespace interop {

// How putFragment turns the caller's length into the bytes copied and the
// length stored in the slot.
enum class AudioCopy {
    Whole,     // the whole data area copied, its size stored, the length ignored
    AsGiven,   // the whole data area copied, the caller's length stored
    UpToSize,  // min(length, data area) copied and stored
};

struct AudioFormat {
    int format, channels, rate, streamParam;
};

// What differs between the audio pools, straight from their layout tables.
struct AudioGeometry {
    const char* name;
    key_t baseKey;
    int channel;  // 0 for the kinds with one fixed key
    size_t recordSize;
    size_t dataAt;     // offset of the data in a slot
    size_t dataBytes;  // room of the data
    AudioCopy copy;
    bool streamParam;    // the last reset's fourth value at slot offset 44
    bool fragmentParam;  // the fragment's own value at slot offset 48
    int bitBudget;       // bits in a fragment for the arithmetic
    int factor;          // applied after the truncating divisions
    AudioFormat first;
    AudioFormat second;  // from the fragment resetAt on
    unsigned long long resetAt;  // 0: no reset between fragments

    key_t segmentKey() const { return baseKey + channel; }
    key_t setKey() const { return baseKey + channel * 16; }
    size_t record(int slot) const { return HEADER_SIZE + recordSize * slot; }
    size_t segmentSize() const { return record(SLOTS); }

    static constexpr int SLOTS = 200;
    static constexpr size_t HEADER_SIZE = 816;
    static constexpr size_t SAFE_AT = 16;
};

using FragmentId = unsigned long long;

// The stream parameter of a getter's fragment, for the kinds whose fragment has one.
template <class Fragment>
auto streamParamOf(const Fragment& f, int) -> decltype(f.streamParam) {
    return f.streamParam;
}
template <class Fragment>
int streamParamOf(const Fragment&, long) {
    return 0;
}

// The scenario, the same for every audio kind.
constexpr FragmentId AUDIO_STATIC_FRAGMENTS = 230;  // the ring once round and 30 further
constexpr FragmentId AUDIO_LIVE_FRAGMENTS = 3;

const AudioFormat& audioFormat(const AudioGeometry& g, FragmentId id);
int audioSec(FragmentId id);
int audioUsec(FragmentId id);
int audioLength(const AudioGeometry& g, FragmentId id);  // the length argument of putFragment
int audioFragmentParam(FragmentId id);
unsigned char audioByte(FragmentId id, size_t j);
inline int audioSlotOf(FragmentId id) {
    return static_cast<int>(id % AudioGeometry::SLOTS);  // the first fragment goes to slot 1
}
// The kind's fragment duration in milliseconds and samples per channel.
int audioFragmentTime(const AudioGeometry& g, const AudioFormat& f);
int audioSampleNumber(const AudioGeometry& g, const AudioFormat& f);

// The segment and its locks as the fragments so far must have left them,
// following the documented write steps without the library's structs.
class AudioModel : public SegmentImage {
public:
    explicit AudioModel(const AudioGeometry& g);

    void write(FragmentId id);

    FragmentId last() const { return last_; }
    int current() const { return i32(0); }
    int safe(int slot) const { return i32(AudioGeometry::SAFE_AT + 4 * slot); }
    FragmentId inSlot(int slot) const;
    int lock(int slot) const { return locks_[slot]; }
    std::string fieldAt(size_t offset) const;

private:
    void reset(const AudioFormat& f);

    const AudioGeometry& g_;
    std::vector<int> locks_;
    int fragmentTime_ = 0;
    int sampleNumber_ = 0;
    int streamParam_ = 0;
    FragmentId last_ = 0;
};

// The non-kind parts of both sides.
void audioCheckSegment(const AudioGeometry& g, const avpool::test::RawSegment& raw, const AudioModel& model,
                       Checks& checks, const std::string& phase);
// A reader without a getter: wait-for-zero on lock `index` of the set under key,
// given up after `seconds`. False on the deadline or any other failure.
bool audioWaitOpen(key_t key, int index, int seconds);

template <class Kind>
void audioProduce(const Rendezvous& meet, Checks& checks) {
    const AudioGeometry& g = Kind::geometry;
    typename Kind::Putter putter;
    // Exactly the room of a slot: a putter that reads past it trips the sanitizer.
    std::vector<unsigned char> data(g.dataBytes);
    auto put = [&](FragmentId id) {
        if (id == g.resetAt) Kind::reset(putter, g.second);
        for (size_t j = 0; j < data.size(); ++j) data[j] = audioByte(id, j);
        timeval at{audioSec(id), audioUsec(id)};
        Kind::put(putter, data.data(), audioLength(g, id), at, audioFragmentParam(id));
    };

    Kind::init(putter, g.channel);
    Kind::reset(putter, g.first);
    for (FragmentId id = 1; id <= AUDIO_STATIC_FRAGMENTS; ++id) put(id);
    meet.mark("ready");

    // Each live fragment goes out only once the consumer is blocked on its slot.
    for (FragmentId id = AUDIO_STATIC_FRAGMENTS + 1; id <= AUDIO_STATIC_FRAGMENTS + AUDIO_LIVE_FRAGMENTS; ++id) {
        std::string what = "consumer waiting on the slot of fragment " + std::to_string(id);
        if (!awaitLockWaiter(meet, checks, g.setKey(), audioSlotOf(id), what)) return;
        put(id);
    }
    checks.expect(meet.waitFor("done", WAIT_SECONDS), "consumer finished");
    putter.release();
    expectReleased(checks, g.segmentKey(), g.setKey());
}

// The getter's reading of the pool: the working format, every slot by a walk
// round the ring, and the time searches.
class AudioReading {
public:
    AudioReading(const AudioGeometry& g, const AudioModel& model, Checks& checks)
        : g_(g), model_(model), checks_(checks) {}

    // The fields getFragment gave for the cursor's slot.
    struct Seen {
        int format, channels, rate, sampleNumber, streamParam;
        long long sec, usec;
        const unsigned char* data;
        int length;
    };
    void checkFragment(const std::string& what, int slot, const Seen& seen);
    // One positioning call's result; the cursor is then asked for its fragment ID.
    void checkMove(const std::string& what, FragmentId expected, FragmentId got, int safe, int slot,
                   FragmentId idAfter);

    template <class Getter, class Kind>
    void run(Getter& getter) {
        checkWorking(getter.getWorkingFormat(), getter.getWorkingChannels(), getter.getWorkingRate());
        int safe = UNTOUCHED;
        int slot = model_.current();
        FragmentId got = getter.toWorking(safe);
        checkMove("toWorking", model_.last(), got, safe, slot, getter.getFragmentID());
        checkFragment("toWorking", slot, seen<Kind>(getter));
        for (int k = 1; k <= AudioGeometry::SLOTS; ++k) {
            int from = slot;
            slot = (slot + 1) % AudioGeometry::SLOTS;
            std::string step = "toNext from slot " + std::to_string(from);
            got = getter.toNext(safe);
            checkMove(step, model_.inSlot(slot), got, safe, slot, getter.getFragmentID());
            checkFragment(step, slot, seen<Kind>(getter));
        }
        for (const Search& search : searches()) {
            safe = UNTOUCHED;
            if (search.exact)
                got = search.usec < 0 ? getter.toExactWorking(safe, search.sec)
                                      : getter.toExactWorking(safe, search.sec, search.usec);
            else
                got = search.usec < 0 ? getter.toOldestWorking(safe, search.sec)
                                      : getter.toOldestWorking(safe, search.sec, search.usec);
            checkSearch(search, got, safe, getter.getFragmentID());
        }
        checkSearchCoverage();
    }

    template <class Kind, class Getter>
    static Seen seen(Getter& getter) {
        getter.getFragment();
        const auto& f = getter.fragment;
        return {f.format,
                f.channels,
                f.rate,
                f.sampleNumber,
                streamParamOf(f, 0),
                static_cast<long long>(f.timestamp.tv_sec),
                static_cast<long long>(f.timestamp.tv_usec),
                f.data,
                f.length};
    }

private:
    struct Search {
        bool exact;
        int sec;
        int usec;  // -1: the seconds-only form
    };
    std::vector<Search> searches() const;
    void checkWorking(int format, int channels, int rate);
    void checkSearch(const Search& search, FragmentId got, int safe, FragmentId idAfter);
    void checkSearchCoverage();

    const AudioGeometry& g_;
    const AudioModel& model_;
    Checks& checks_;
    const unsigned char* reference_ = nullptr;
    size_t referenceAt_ = 0;
    int found_ = 0, missed_ = 0, earlyMisses_ = 0, perFieldSkips_ = 0;
};

template <class Kind>
class AudioConsumer {
public:
    explicit AudioConsumer(Checks& checks) : checks_(checks), model_(g_), raw_(g_.segmentKey()) {
        for (FragmentId id = 1; id <= AUDIO_STATIC_FRAGMENTS; ++id) model_.write(id);
    }

    void run() {
        if (!checks_.expect(raw_.attached(), "raw read-only attach of the segment")) return;
        audioCheckSegment(g_, raw_, model_, checks_, "static");
        if constexpr (HAS_GETTER) {
            Getter getter;
            Kind::init(getter, g_.channel);
            AudioReading reading(g_, model_, checks_);
            reading.run<Getter, Kind>(getter);
            followLiveWriter(&getter, reading);
        } else {
            AudioReading reading(g_, model_, checks_);
            followLiveWriter(nullptr, reading);
        }
        audioCheckSegment(g_, raw_, model_, checks_, "after live fragments");
    }

private:
    using Getter = typename Kind::Getter;
    static constexpr bool HAS_GETTER = !std::is_void<Getter>::value;
    using GetterPtr = std::conditional_t<HAS_GETTER, Getter*, void*>;

    // Step onto the closed slot after the newest, block until the producer
    // writes it, and read it; AUDIO_LIVE_FRAGMENTS times.
    void followLiveWriter(GetterPtr getter, AudioReading& reading) {
        int safe = UNTOUCHED;
        if constexpr (HAS_GETTER) checks_.equal("live: toWorking", model_.last(), getter->toWorking(safe));
        for (FragmentId k = 1; k <= AUDIO_LIVE_FRAGMENTS; ++k) {
            FragmentId id = model_.last() + 1;
            int slot = audioSlotOf(id);
            std::string what = "live fragment " + std::to_string(id);
            checks_.equal(what + ": lock closed before", 1, avpool::test::lockValue(g_.setKey(), slot));
            if constexpr (HAS_GETTER) {
                checks_.equal(what + ": toNext", model_.inSlot(slot), getter->toNext(safe));
                checks_.equal(what + ": safe time before", model_.safe(slot), safe);
                getter->waitReady();
            } else {
                // Where a reader finds the slot to wait on: after the header's newest.
                int next = (raw_.i32(0) + 1) % AudioGeometry::SLOTS;
                checks_.equal(what + ": slot after the newest", slot, next);
                int index = raw_.i32(g_.record(next));
                if (!checks_.expect(audioWaitOpen(g_.setKey(), index, WAIT_SECONDS), what + ": wait for zero"))
                    return;
            }
            model_.write(id);
            checks_.equal(what + ": lock open", 0, avpool::test::lockValue(g_.setKey(), slot));
            checks_.equal(what + ": next lock closed", 1,
                          avpool::test::lockValue(g_.setKey(), (slot + 1) % AudioGeometry::SLOTS));
            checks_.equal(what + ": header current", slot, raw_.i32(0));
            if constexpr (HAS_GETTER) {
                checks_.equal(what + ": getFragmentID", id, getter->getFragmentID());
                reading.checkFragment(what, slot, AudioReading::seen<Kind>(*getter));
            }
        }
    }

    static constexpr const AudioGeometry& g_ = Kind::geometry;
    Checks& checks_;
    AudioModel model_;
    avpool::test::RawSegment raw_;
};

template <class Kind>
void audioConsume(const Rendezvous& meet, Checks& checks) {
    if (!checks.expect(meet.waitFor("ready", WAIT_SECONDS), "producer ready")) return;
    AudioConsumer<Kind>(checks).run();
}

// Layout fingerprints of the records every audio kind shares.
void audioSharedLayout();

}  // namespace interop
