// JPEG section of the interop peer. The producer fills a pool with a fixed
// sequence of frames; the consumer, built for the other machine, rebuilds the
// segment image those frames must give from the layout alone (explicit offsets,
// little-endian words), compares it byte for byte with the live segment, then
// reads the same frames through JPGGetter and follows a live writer.
#include "peer.h"

#include "ipc_harness.h"

#include <avpool/jpg.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <vector>

namespace interop {
namespace {

using namespace avpool::test;
using FrameId = unsigned long long;

// The scenario, known to both sides in advance.
constexpr int CHANNEL = 23;
constexpr int KEY = JPG_BASE_KEY + CHANNEL;
constexpr int SLOTS = 7;
constexpr int MAX_FRAME = 233;
constexpr int RING = 900;  // data ring: about six average frames, so old slots lose their bytes
constexpr int DATA_SIZE = RING + 52 * SLOTS;
constexpr int SEGMENT_SIZE = 172 + DATA_SIZE;
constexpr FrameId STATIC_FRAMES = 20;  // written before the consumer looks
constexpr FrameId LIVE_FRAMES = 9;     // each written once the consumer waits for it
constexpr FrameId RESIZE_AT = 10;      // reset(320, 240, 25, -1) comes before this frame
constexpr FrameId REFUSED_AFTER = 5;   // an over-long frame is offered after this one
constexpr int REAL_FPS = 24;           // putRealFPS after the static frames

// Segment offsets, straight from the layout tables.
constexpr size_t SAFE_AT = 172;
constexpr size_t INFO_AT = SAFE_AT + 4 * SLOTS;
constexpr size_t DATA_AT = INFO_AT + 48 * SLOTS;
constexpr size_t RECORD_SIZE = 48;

// What the producer writes as frame `id`: lengths 1..233, all four paddings,
// one of exactly maxFrameSize (frame 12); microseconds jump up and down.
int frameLength(FrameId id) {
    return 1 + static_cast<int>(id * 97 % MAX_FRAME);
}
unsigned char frameByte(FrameId id, int j) {
    return static_cast<unsigned char>(id * 31 + j * 7 + (j >> 3));
}
int captureSec(FrameId id) {
    return 1000 + static_cast<int>(id);
}
int captureUsec(FrameId id) {
    return static_cast<int>(id * 479001 % 1000000);
}
int quality(FrameId id) {
    return 40 + static_cast<int>(id % 9);
}
int width(FrameId id) {
    return id < RESIZE_AT ? 640 : 320;
}
int height(FrameId id) {
    return id < RESIZE_AT ? 480 : 240;
}
int fps(FrameId id) {
    return id < RESIZE_AT ? 10 : 25;
}
unsigned char lumEntry(int k) {
    return static_cast<unsigned char>(3 * k + 1);
}
unsigned char chromEntry(int k) {
    return static_cast<unsigned char>(255 - 2 * k);
}
int slotOf(FrameId id) {
    return static_cast<int>(id % SLOTS);  // the first frame goes to slot 1
}

// ---------------------------------------------------------------- producer

void produce(const Rendezvous& meet, Checks& checks) {
    JPGPutter putter;
    std::vector<unsigned char> buffer(MAX_FRAME + 1);
    auto put = [&](FrameId id) {
        if (id == RESIZE_AT) putter.reset(width(id), height(id), fps(id), -1);
        putter.changeQuality(quality(id));
        for (int j = 0; j < frameLength(id); ++j) buffer[j] = frameByte(id, j);
        timeval at{captureSec(id), captureUsec(id)};
        checks.equal(str("putFrame of frame ", id), 1, putter.putFrame(buffer.data(), frameLength(id), at));
    };

    putter.init(CHANNEL, SLOTS, MAX_FRAME, DATA_SIZE);
    putter.reset(width(1), height(1), fps(1), quality(1));
    unsigned char lum[64], chrom[64];
    for (int k = 0; k < 64; ++k) {
        lum[k] = lumEntry(k);
        chrom[k] = chromEntry(k);
    }
    putter.putQuantTables(lum, chrom);
    for (FrameId id = 1; id <= STATIC_FRAMES; ++id) {
        put(id);
        if (id == REFUSED_AFTER) {
            timeval at{1, 1};
            checks.equal("putFrame of maxFrameSize + 1 bytes", 0, putter.putFrame(buffer.data(), MAX_FRAME + 1, at));
        }
    }
    putter.putRealFPS(REAL_FPS);
    meet.mark("ready");

    // Each live frame goes out only once the consumer is blocked on its slot, so
    // the wake-up it gets crosses from this process to the other build.
    for (FrameId id = STATIC_FRAMES + 1; id <= STATIC_FRAMES + LIVE_FRAMES; ++id) {
        if (!awaitLockWaiter(meet, checks, KEY, slotOf(id), str("consumer waiting on the slot of frame ", id))) return;
        put(id);
    }
    checks.expect(meet.waitFor("done", WAIT_SECONDS), "consumer finished");

    putter.release();
    expectReleased(checks, KEY);
}

// ---------------------------------------------------------------- consumer

// The segment as the frames written so far must have left it, built from the
// documented layout without the library's structs.
class Model : public SegmentImage {
public:
    Model() : SegmentImage(SEGMENT_SIZE, 0), position_(1, 0) {
        setWord(0, SLOTS);
        setWord(4, MAX_FRAME);
        setWord(28, 8);
        for (int k = 0; k < 64; ++k) {
            image_[32 + k] = lumEntry(k);
            image_[96 + k] = chromEntry(k);
        }
        setWord(160, SAFE_AT);
        setWord(164, INFO_AT);
        setWord(168, DATA_AT);
        for (int s = 0; s < SLOTS; ++s) setWord(INFO_AT + RECORD_SIZE * s + 8, s);
        resize(1);
    }

    void write(FrameId id) {
        if (id == RESIZE_AT) resize(id);
        int c = slotOf(id);
        setSafeTimes(SAFE_AT, SLOTS, c, 1000 / fps(id), false);

        int length = frameLength(id);
        int padding = (4 - length % 4) % 4;
        if (writePosition_ + 8 + length + padding > RING) writePosition_ = 0;
        size_t record = INFO_AT + RECORD_SIZE * c;
        setU64(record, id);
        setWord(record + 12, length);
        setWord(record + 16, captureSec(id));
        setWord(record + 20, captureUsec(id));
        setWord(record + 24, width(id));
        setWord(record + 28, height(id));
        setWord(record + 32, fps(id));
        setWord(record + 36, quality(id));
        setWord(record + 40, writePosition_);
        setWord(8, c);

        size_t at = DATA_AT + writePosition_;
        setU64(at, id);
        for (int j = 0; j < length; ++j) image_[at + 8 + j] = frameByte(id, j);
        memset(&image_[at + 8 + length], 0, padding);
        position_.push_back(writePosition_);
        writePosition_ += 8 + length + padding;
        last_ = id;
    }

    void setRealFPS(int value) { setWord(12, value); }

    FrameId last() const { return last_; }
    int current() const { return slotOf(last_); }
    int dataPosition(FrameId id) const { return position_[id]; }
    int safe(int slot) const { return i32(SAFE_AT + 4 * slot); }
    FrameId inSlot(int slot) const { return last_ - (last_ + SLOTS - slot) % SLOTS; }
    // The frame's id prefix is still in the ring in front of its bytes.
    bool intact(FrameId id) const { return u64(DATA_AT + position_[id]) == id; }
    // Slot after slot, the first whose frame is intact.
    FrameId firstIntactFrom(int slot) const {
        while (!intact(inSlot(slot))) slot = (slot + 1) % SLOTS;
        return inSlot(slot);
    }

private:
    void resize(FrameId id) {
        setWord(12, fps(id));
        setWord(16, fps(id));
        setWord(20, width(id));
        setWord(24, height(id));
    }

    std::vector<int> position_;  // data position of each frame, by id
    int writePosition_ = 0;
    FrameId last_ = 0;
};

std::string fieldAt(size_t offset) {
    static const char* const header[] = {"frameCount", "maxFrameSize", "current", "realFPS",
                                         "workingFPS", "workingWidth", "workingHeight", "framePrefixSize"};
    static const char* const record[] = {"frameID.low", "frameID.high", "lockIndex", "frameLength",
                                         "tv_sec",      "tv_usec",      "width",     "height",
                                         "fps",         "quality",      "dataPosition", "reserved"};
    if (offset < 32) return std::string("header.") + header[offset / 4];
    if (offset < 96) return str("header.lumQT+", offset - 32);
    if (offset < 160) return str("header.chromQT+", offset - 96);
    if (offset < 172) return std::string("header.") + (offset < 164 ? "safeTimeOffset" : offset < 168 ? "frameInfoOffset" : "dataOffset");
    if (offset < INFO_AT) return str("safe[", (offset - SAFE_AT) / 4) + "]";
    if (offset < DATA_AT) {
        size_t r = (offset - INFO_AT) / RECORD_SIZE;
        return str("info[", r) + "]." + record[(offset - INFO_AT) % RECORD_SIZE / 4];
    }
    return str("ring+", offset - DATA_AT);
}

class Consumer {
public:
    Consumer(Checks& checks, Model& model) : checks_(checks), model_(model), raw_(KEY) {}

    void run() {
        if (!checks_.expect(raw_.attached(), "raw read-only attach of the segment")) return;
        getter_.init(CHANNEL);

        checkSegment("static");
        checkAccessors();
        checkRingWalk(checks_, getter_, model_, SLOTS);
        checkFrames();
        checkSearches();
        checkProbeAge();
        followLiveWriter();
        checkSegment("after live frames");
    }

private:
    // Everything in the segment, and every slot lock.
    void checkSegment(const std::string& phase) {
        checkImage(checks_, phase, raw_, model_, fieldAt);
        checks_.equal(phase + ": semaphores in the set", SLOTS, semCountOf(semIdOf(KEY)));
        int next = (model_.current() + 1) % SLOTS;
        for (int s = 0; s < SLOTS; ++s)
            checks_.equal(phase + str(": lock of slot ", s), s == next ? 1 : 0, lockValue(KEY, s));
    }

    void checkAccessors() {
        checks_.equal("getWorkingWidth", width(STATIC_FRAMES), getter_.getWorkingWidth());
        checks_.equal("getWorkingHeight", height(STATIC_FRAMES), getter_.getWorkingHeight());
        checks_.equal("getWorkingFPS", fps(STATIC_FRAMES), getter_.getWorkingFPS());
        checks_.equal("getRealFPS", REAL_FPS, getter_.getRealFPS());
        checks_.bytes("getLumQT", model_.image().data() + 32, getter_.getLumQT(), 64, 32, fieldAt);
        checks_.bytes("getChromQT", model_.image().data() + 96, getter_.getChromQT(), 64, 96, fieldAt);
    }

    void moveTo(int slot) { moveRingTo(getter_, model_, SLOTS, slot); }

    void checkFrame(const std::string& what, FrameId id) {
        const JPGFrame& f = getter_.frame;
        checks_.equal(what + " frameLength", frameLength(id), f.frameLength);
        checks_.equal(what + " tv_sec", captureSec(id), f.tv_sec);
        checks_.equal(what + " tv_usec", captureUsec(id), f.tv_usec);
        checks_.equal(what + " width", width(id), f.width);
        checks_.equal(what + " height", height(id), f.height);
        checks_.equal(what + " fps", fps(id), f.fps);
        checks_.equal(what + " quality", quality(id), f.quality);
        // The getter's own mapping: the header starts 32 bytes before lumQT.
        const unsigned char* segment = getter_.getLumQT() - 32;
        long long expectedAt = DATA_AT + model_.dataPosition(id) + 8;
        checks_.equal(what + " data offset in the segment", expectedAt, static_cast<long long>(f.data - segment));
        if (f.frameLength != frameLength(id) || f.data - segment != expectedAt) return;
        std::vector<unsigned char> expected(frameLength(id));
        for (int j = 0; j < frameLength(id); ++j) expected[j] = frameByte(id, j);
        checks_.bytes(what + " payload", expected.data(), f.data, expected.size(), static_cast<size_t>(expectedAt),
                      fieldAt);
    }

    // getFrame on every slot: intact slots give their own frame, overwritten
    // ones the next intact one.
    void checkFrames() {
        int skipped = 0;
        for (int s = 0; s < SLOTS; ++s) {
            moveTo(s);
            FrameId id = model_.firstIntactFrom(s);
            if (id != model_.inSlot(s)) ++skipped;
            getter_.getFrame();
            std::string what = str("getFrame on slot ", s);
            checks_.equal(what + " lands on frame", id, getter_.getFrameID());
            checkFrame(what, id);
        }
        checks_.expect(skipped > 0, "scenario has slots whose bytes were overwritten");
    }

    // Frames the searches look at: oldest from three slots ahead of the writer;
    // toOldestWorking stops before the newest, toExactWorking includes it.
    FrameId firstCandidate() const { return model_.last() - SLOTS + 3; }

    FrameId expectOldest(const std::function<bool(FrameId)>& qualifies) const {
        for (FrameId id = firstCandidate(); id < model_.last(); ++id)
            if (qualifies(id) && model_.intact(id)) return id;
        return model_.last();
    }

    FrameId expectExact(const std::function<bool(FrameId)>& matches) const {
        for (FrameId id = firstCandidate(); id <= model_.last(); ++id)
            if (matches(id) && model_.intact(id)) return id;
        return NOT_FOUND_ID;
    }

    void checkSearch(const std::string& what, FrameId expected, FrameId got, int safe, FrameId stayedOn) {
        checks_.equal(what, expected, got);
        if (expected != NOT_FOUND_ID) {
            checks_.equal(what + " safe time", model_.safe(slotOf(expected)), safe);
            checks_.equal(what + " getFrameID", expected, getter_.getFrameID());
        } else {
            checks_.equal(what + " leaves safe time alone", UNTOUCHED, safe);
            checks_.equal(what + " getFrameID", stayedOn, getter_.getFrameID());
        }
    }

    void checkSearches() {
        FrameId last = model_.last();
        // An early miss stays on the first candidate, a miss after the scan on
        // the slot after the newest.
        auto missAt = [&](int second) { return captureSec(firstCandidate()) > second ? firstCandidate() : last - SLOTS + 1; };
        std::vector<int> seconds{0, captureSec(last) + 1, 5000};
        for (FrameId id = last - SLOTS; id <= last; ++id) seconds.push_back(captureSec(id));
        int found = 0, notFound = 0;
        for (int second : seconds) {
            std::string at = str("(", second);
            int safe = UNTOUCHED;
            FrameId got = getter_.toOldestWorking(safe, second);
            FrameId want = expectOldest([&](FrameId id) { return captureSec(id) >= second; });
            checkSearch("toOldestWorking" + at + ")", want, got, safe, 0);

            safe = UNTOUCHED;
            got = getter_.toExactWorking(safe, second);
            want = expectExact([&](FrameId id) { return captureSec(id) == second; });
            checkSearch("toExactWorking" + at + ")", want, got, safe, missAt(second));
            (want == NOT_FOUND_ID ? notFound : found) += 1;

            // Microseconds around those of the frame stamped in this second, and
            // the extremes; each field is compared on its own.
            int usec = captureUsec(static_cast<FrameId>(second > 1000 ? second - 1000 : 0));
            for (int microsecond : {0, usec - 1, usec, usec + 1, 999999}) {
                std::string both = at + str(", ", microsecond) + ")";
                safe = UNTOUCHED;
                got = getter_.toOldestWorking(safe, second, microsecond);
                want = expectOldest([&](FrameId id) { return captureSec(id) >= second && captureUsec(id) >= microsecond; });
                checkSearch("toOldestWorking" + both, want, got, safe, 0);

                safe = UNTOUCHED;
                got = getter_.toExactWorking(safe, second, microsecond);
                want = expectExact([&](FrameId id) { return captureSec(id) == second && captureUsec(id) <= microsecond; });
                checkSearch("toExactWorking" + both, want, got, safe, missAt(second));
                (want == NOT_FOUND_ID ? notFound : found) += 1;
            }
        }
        checks_.expect(found > 0 && notFound > 0, "scenario has exact searches that find and that miss");
    }

    void checkProbeAge() {
        int safe;
        getter_.toWorking(safe);
        try {
            getter_.probeAge(2000000000);
            checks_.expect(true, "probeAge within the limit");
        } catch (const JPGGetterError& e) {
            checks_.fail("probeAge within the limit", e.what());
        }
        try {
            getter_.probeAge(60);
            checks_.fail("probeAge of a frame stamped at second " + std::to_string(captureSec(model_.last())),
                         "no exception");
        } catch (const JPGGetterError& e) {
            checks_.expect(std::string(e.what()) == "age too old", "probeAge message", e.what());
        }
    }

    // Step onto the closed slot after the newest, block in waitReady until the
    // producer writes it, and read it; LIVE_FRAMES times, round the ring.
    void followLiveWriter() {
        followRingWriter(checks_, getter_, model_, SLOTS, LIVE_FRAMES, KEY, raw_, 8,
                         [this](const std::string& what, int, FrameId id) {
                             getter_.getFrame();
                             checkFrame(what, id);
                         });
    }

    Checks& checks_;
    Model& model_;
    RawSegment raw_;
    JPGGetter getter_;
};

void consume(const Rendezvous& meet, Checks& checks) {
    if (!checks.expect(meet.waitFor("ready", WAIT_SECONDS), "producer ready")) return;
    Model model;
    for (FrameId id = 1; id <= STATIC_FRAMES; ++id) model.write(id);
    model.setRealFPS(REAL_FPS);
    Consumer(checks, model).run();
}

// ---------------------------------------------------------------- layout

void layout() {
    printf("JPG constants JPG_BASE_KEY=%d JPG_HEADER_SIZE=%d JPG_FRAME_PREFIX_SIZE=%d JPG_MAX_FRAME_COUNT=%d\n",
           JPG_BASE_KEY, JPG_HEADER_SIZE, JPG_FRAME_PREFIX_SIZE, JPG_MAX_FRAME_COUNT);
    printLayout("JPGPoolHeader", sizeof(JPGPoolHeader), alignof(JPGPoolHeader),
                {INTEROP_FIELD(JPGPoolHeader, frameCount), INTEROP_FIELD(JPGPoolHeader, maxFrameSize),
                 INTEROP_FIELD(JPGPoolHeader, current), INTEROP_FIELD(JPGPoolHeader, realFPS),
                 INTEROP_FIELD(JPGPoolHeader, workingFPS), INTEROP_FIELD(JPGPoolHeader, workingWidth),
                 INTEROP_FIELD(JPGPoolHeader, workingHeight), INTEROP_FIELD(JPGPoolHeader, framePrefixSize),
                 INTEROP_FIELD(JPGPoolHeader, lumQT), INTEROP_FIELD(JPGPoolHeader, chromQT),
                 INTEROP_FIELD(JPGPoolHeader, safeTimeOffset), INTEROP_FIELD(JPGPoolHeader, frameInfoOffset),
                 INTEROP_FIELD(JPGPoolHeader, dataOffset)});
    printLayout("JPGFrameInfo", sizeof(JPGFrameInfo), alignof(JPGFrameInfo),
                {INTEROP_FIELD(JPGFrameInfo, frameID), INTEROP_FIELD(JPGFrameInfo, lockIndex),
                 INTEROP_FIELD(JPGFrameInfo, frameLength), INTEROP_FIELD(JPGFrameInfo, tv_sec),
                 INTEROP_FIELD(JPGFrameInfo, tv_usec), INTEROP_FIELD(JPGFrameInfo, width),
                 INTEROP_FIELD(JPGFrameInfo, height), INTEROP_FIELD(JPGFrameInfo, fps),
                 INTEROP_FIELD(JPGFrameInfo, quality), INTEROP_FIELD(JPGFrameInfo, dataPosition),
                 INTEROP_FIELD(JPGFrameInfo, reserved)});
}

}  // namespace

const PoolKind jpgKind{"jpg", layout, produce, consume};

}  // namespace interop
