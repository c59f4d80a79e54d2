// The analysis pools' sections of the interop peer (luminance, motion
// detection), written once over a small kind description. Both pools are a
// fixed ring of records that carry their arrays inline, so one scenario serves
// both: the producer writes a fixed sequence of frames (full-size frames, then
// smaller ones after a reset, round the ring once and a bit); the consumer,
// built for the other machine, rebuilds the segment from the layout alone
// (explicit offsets, little-endian words, the 0xCC fill where no frame reached),
// compares it byte for byte and lock by lock, reads every slot through the
// getter, then follows the writer live, blocked in waitReady until the
// producer's next frame releases it.
//
// A kind supplies (see lum_peer.cpp, md_peer.cpp):
//   Putter, Getter                                 the library classes
//   static const AnalysisGeometry geometry
//   put(Putter&, unsigned char* first, unsigned char* second, int length, const timeval&)
//   payload(const Getter&, int array)              the getter's pointer to array 0 or 1
//   afterStatic(Putter&), afterStatic(AnalysisModel&)   written before "ready"
//   beforeLive(Putter&), beforeLive(AnalysisModel&)     written once the consumer waits for the
//                                                       first live frame, just before it (played
//                                                       on the model before the consumer follows)
//   checkExtras(Getter&, const AnalysisModel&, Checks&, const std::string& phase)
#pragma once

#include "peer.h"

#include "ipc_harness.h"

#include <sys/time.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace interop {

struct AnalysisFormat {
    int width, height, fps;
};

// What differs between the analysis pools, straight from their layout tables.
struct AnalysisGeometry {
    const char* name;
    key_t baseKey;
    int channel;
    int slots;
    std::vector<const char*> headerWords;  // the header's words before the safe-time table
    size_t recordSize;
    int arrays;           // payload arrays in a slot record, from offset 24
    size_t arrayBytes;    // room of each array
    size_t elementBytes;  // bytes of one element
    bool fragmentSafeTimes;  // the slot behind the writer keeps slots - 1 intervals
    AnalysisFormat first;    // full-size frames
    AnalysisFormat second;   // smaller frames, from the reset before frame RESIZE_AT on

    key_t key() const { return baseKey + channel; }
    size_t safeAt() const { return 4 * headerWords.size(); }
    size_t record(int slot) const { return HEADER_SIZE + recordSize * slot; }
    size_t segmentSize() const { return record(slots); }

    static constexpr size_t HEADER_SIZE = 40;
    static constexpr size_t PAYLOAD_AT = 24;
};

using FrameId = unsigned long long;

// The scenario, the same for every analysis kind.
constexpr FrameId ANALYSIS_RESIZE_AT = 4;
inline FrameId analysisStaticFrames(const AnalysisGeometry& g) {
    return g.slots + 2;  // round the ring once, so slots hold small frames over big ones
}
inline FrameId analysisLiveFrames(const AnalysisGeometry& g) {
    return g.slots + 1;
}
const AnalysisFormat& analysisFormat(const AnalysisGeometry& g, FrameId id);
int analysisSec(FrameId id);
int analysisUsec(FrameId id);
// Element j of array a of frame id, cut to the element's width.
unsigned int analysisElement(const AnalysisGeometry& g, FrameId id, int a, int j);
inline int analysisSlotOf(const AnalysisGeometry& g, FrameId id) {
    return static_cast<int>(id % g.slots);  // the first frame goes to slot 1
}

// The segment and its locks as the frames so far must have left them, following
// the documented write steps without the library's structs.
class AnalysisModel : public SegmentImage {
public:
    explicit AnalysisModel(const AnalysisGeometry& g);

    void write(FrameId id);
    FrameId last() const { return last_; }
    int current() const { return i32(0); }
    int safe(int slot) const { return i32(g_.safeAt() + 4 * slot); }
    FrameId inSlot(int slot) const { return u64(g_.record(slot)); }
    int lock(int slot) const { return locks_[slot]; }
    size_t payloadAt(int slot, int array) const {
        return g_.record(slot) + AnalysisGeometry::PAYLOAD_AT + g_.arrayBytes * array;
    }
    std::string fieldAt(size_t offset) const;

private:
    void reset(const AnalysisFormat& f);

    const AnalysisGeometry& g_;
    std::vector<int> locks_;
    int interval_ = 0;
    FrameId last_ = 0;
};

// The non-kind parts of both sides.
void analysisFill(const AnalysisGeometry& g, FrameId id, std::vector<unsigned char> (&arrays)[2]);
void analysisCheckSegment(const AnalysisGeometry& g, const avpool::test::RawSegment& raw, const AnalysisModel& model,
                          Checks& checks, const std::string& phase);

template <class Kind>
void analysisProduce(const Rendezvous& meet, Checks& checks) {
    const AnalysisGeometry& g = Kind::geometry;
    typename Kind::Putter putter;
    std::vector<unsigned char> arrays[2];
    auto put = [&](FrameId id) {
        if (id == ANALYSIS_RESIZE_AT) putter.reset(g.second.width, g.second.height, g.second.fps);
        analysisFill(g, id, arrays);
        const AnalysisFormat& f = analysisFormat(g, id);
        timeval at{analysisSec(id), analysisUsec(id)};
        Kind::put(putter, arrays[0].data(), arrays[1].data(), f.width * f.height, at);
    };

    putter.init(g.channel);
    putter.reset(g.first.width, g.first.height, g.first.fps);
    FrameId last = analysisStaticFrames(g);
    for (FrameId id = 1; id <= last; ++id) put(id);
    Kind::afterStatic(putter);
    meet.mark("ready");

    // Each live frame goes out only once the consumer is blocked on its slot.
    for (FrameId id = last + 1; id <= last + analysisLiveFrames(g); ++id) {
        std::string what = "consumer waiting on the slot of frame " + std::to_string(id);
        if (!awaitLockWaiter(meet, checks, g.key(), analysisSlotOf(g, id), what)) return;
        if (id == last + 1) Kind::beforeLive(putter);
        put(id);
    }
    checks.expect(meet.waitFor("done", WAIT_SECONDS), "consumer finished");
    putter.release();
    expectReleased(checks, g.key());
}

template <class Kind>
class AnalysisConsumer {
public:
    AnalysisConsumer(Checks& checks) : checks_(checks), model_(g_), raw_(g_.key()) {
        for (FrameId id = 1; id <= analysisStaticFrames(g_); ++id) model_.write(id);
        Kind::afterStatic(model_);
    }

    void run() {
        if (!checks_.expect(raw_.attached(), "raw read-only attach of the segment")) return;
        getter_.init(g_.channel);
        analysisCheckSegment(g_, raw_, model_, checks_, "static");
        checkAccessors("static");
        checkRingWalk(checks_, getter_, model_, g_.slots);
        for (int s = 0; s < g_.slots; ++s) {
            moveRingTo(getter_, model_, g_.slots, s);
            checkFrame(std::string("slot ") + std::to_string(s), s);
        }
        followLiveWriter();
        analysisCheckSegment(g_, raw_, model_, checks_, "after live frames");
        checkAccessors("after live frames");
    }

private:
    void checkAccessors(const std::string& phase) {
        const AnalysisFormat& f = analysisFormat(g_, model_.last());
        checks_.equal(phase + ": getWorkingFPS", f.fps, getter_.getWorkingFPS());
        checks_.equal(phase + ": getWorkingWidth", f.width, getter_.getWorkingWidth());
        checks_.equal(phase + ": getWorkingHeight", f.height, getter_.getWorkingHeight());
        Kind::checkExtras(getter_, model_, checks_, phase);
    }

    // getFrame on the getter's slot: time, length, where each array lies (relative
    // to the first array fetched) and the bytes the frame wrote into it.
    void checkFrame(const std::string& what, int slot) {
        getter_.getFrame();
        size_t record = g_.record(slot);
        checks_.equal(what + " tv_sec", model_.i32(record + 16), getter_.tv_sec);
        checks_.equal(what + " tv_usec", model_.i32(record + 20), getter_.tv_usec);
        int length = model_.i32(record + 12);
        checks_.equal(what + " frameLength", length, getter_.frameLength);
        for (int a = 0; a < g_.arrays; ++a) {
            const unsigned char* got = Kind::payload(getter_, a);
            if (reference_ == nullptr) {
                reference_ = got;
                referenceAt_ = model_.payloadAt(slot, a);
            }
            long long expectedAt = static_cast<long long>(model_.payloadAt(slot, a)) - static_cast<long long>(referenceAt_);
            std::string array = what + " array " + std::to_string(a);
            if (!checks_.equal(array + " offset in the segment", expectedAt, static_cast<long long>(got - reference_)))
                continue;
            if (getter_.frameLength != length) continue;
            checks_.bytes(array + " payload", model_.image().data() + model_.payloadAt(slot, a), got,
                          length * g_.elementBytes, model_.payloadAt(slot, a),
                          [this](size_t offset) { return model_.fieldAt(offset); });
        }
    }

    // Step onto the closed slot after the newest, block in waitReady until the
    // producer writes it, and read it; round the ring and one further.
    void followLiveWriter() {
        // What the producer writes before the first live frame; nothing checked
        // before that frame arrives reads it.
        Kind::beforeLive(model_);
        followRingWriter(checks_, getter_, model_, g_.slots, analysisLiveFrames(g_), g_.key(), raw_, 0,
                         [this](const std::string& what, int slot, FrameId) { checkFrame(what, slot); });
    }

    const AnalysisGeometry& g_ = Kind::geometry;
    Checks& checks_;
    AnalysisModel model_;
    avpool::test::RawSegment raw_;
    typename Kind::Getter getter_;
    const unsigned char* reference_ = nullptr;
    size_t referenceAt_ = 0;
};

template <class Kind>
void analysisConsume(const Rendezvous& meet, Checks& checks) {
    if (!checks.expect(meet.waitFor("ready", WAIT_SECONDS), "producer ready")) return;
    AnalysisConsumer<Kind>(checks).run();
}

}  // namespace interop
