// Video (GOP) section of the interop peer. The producer fills two pools with a
// fixed sequence of I and P frames: a small ring whose byte ring holds more than
// one lap of GOPs, and a 300-slot ring (two semaphore groups) whose byte ring
// holds only a few GOPs. The consumer, built for the other machine, replays the
// same sequence on a model of the segment built from the layout alone (explicit
// offsets, little-endian words), compares it byte for byte and lock by lock with
// the live pool, reads every slot and runs the searches through MP4Getter, then
// follows the writer live, blocked in waitFrameReady until the producer's next
// frame releases it.
#include "peer.h"

#include "ipc_harness.h"

#include <avpool/mp4.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
#include <set>
#include <vector>

namespace interop {
namespace {

using namespace avpool::test;
using Id = unsigned long long;

constexpr int REAL_FPS = 23;  // putRealFPS after the static frames

// Segment offsets, straight from the layout tables.
constexpr size_t HEADER_SIZE = 52;
constexpr size_t RECORD_SIZE = 48;
constexpr size_t PREFIX_SIZE = 8;

// One pool of the scenario. GOPs are numbered by offer, 1..lastGop+2; the last
// static offer is the first P frame of GOP lastGop, the rest comes live.
struct Pool {
    const char* name;
    int channel;
    int gopCount;
    int framesPerGop;
    int maxFrame;
    int ring;  // bytes of the data ring
    int lastGop;

    int slots() const { return gopCount * framesPerGop; }
    int segmentSize() const { return static_cast<int>(HEADER_SIZE) + slots() * 52 + ring; }
    size_t safeAt() const { return HEADER_SIZE; }
    size_t infoAt() const { return HEADER_SIZE + 4 * slots(); }
    size_t dataAt() const { return infoAt() + RECORD_SIZE * slots(); }
    key_t segmentKey() const { return MP4_BASE_KEY + channel; }
    key_t groupKey(int g) const { return MP4_BASE_KEY + channel * 16 + g; }
    int groups() const { return (slots() + 249) / 250; }

    // The GOPs with something particular, counted back from the last one.
    int refusedGop() const { return lastGop - 4; }    // I frame one byte over the limit
    int fullSizeGop() const { return lastGop - 5; }   // I frame of exactly the limit
    int truncatedGop() const { return lastGop - 3; }  // its second P frame is over the limit
    int resizeGop() const { return lastGop - 2; }     // reset(352, 288, 30) before it
    int earlyGop() const { return lastGop - 1; }      // only two P frames
};

// The small ring laps three times and its byte ring keeps more than a lap, so
// GOPs that end early still show intact frames of the lap before; its writer ends
// on the ring's last GOP, where only the step count ends an exact search, and the
// live phase wraps the ring. The large ring ends with the writer in GOP 43, whose
// slots (258..) are locked in the second group.
const Pool POOLS[] = {
    {"small", 5, 5, 6, 301, 4000, 15},
    {"large", 6, 50, 6, 301, 4000, 94},
};

// ---------------------------------------------------------------- the frames

struct Offer {
    int gop;    // offer number of its GOP
    int frame;  // 0 for the I frame, 1.. for P frames
    int length;
    int sec;
    int usec;
};

int pFrames(const Pool& pool, int gop) {
    if (gop == pool.earlyGop()) return 2;
    if (gop == pool.lastGop) return 3;
    if (gop == pool.lastGop + 1) return 2;
    if (gop == pool.lastGop + 2) return 1;
    return pool.framesPerGop - 1;
}

// Odd and even lengths of all four paddings; two GOPs a second, microseconds
// up and down so that the field-by-field comparisons differ from time order.
Offer offer(const Pool& pool, int gop, int frame) {
    Offer o{gop, frame, 0, 3000 + gop / 2, 0};
    int usec = static_cast<int>(static_cast<long long>(gop) * 370001 % 1000000);
    if (frame == 0) {
        o.length = 120 + gop * 53 % (pool.maxFrame - 120);
        if (gop == pool.fullSizeGop()) o.length = pool.maxFrame;
        if (gop == pool.refusedGop()) o.length = pool.maxFrame + 1;
        o.usec = usec;
    } else {
        o.length = 1 + (gop * 29 + frame * 17) % 90;
        if (gop == pool.truncatedGop() && frame == 2) o.length = pool.maxFrame + 37;
        o.usec = (usec + frame * 40000) % 1000000;
    }
    return o;
}

unsigned char offerByte(const Offer& o, int i) {
    return static_cast<unsigned char>(o.gop * 31 + o.frame * 101 + i * 7 + (i >> 5));
}

std::vector<Offer> script(const Pool& pool) {
    std::vector<Offer> offers;
    for (int gop = 1; gop <= pool.lastGop + 2; ++gop)
        for (int frame = 0; frame <= pFrames(pool, gop); ++frame) offers.push_back(offer(pool, gop, frame));
    return offers;
}

// Offers before the live phase: everything up to the first P frame of lastGop.
size_t staticOffers(const Pool& pool) {
    std::vector<Offer> offers = script(pool);
    size_t n = 0;
    while (!(offers[n].gop == pool.lastGop && offers[n].frame == 1)) ++n;
    return n + 1;
}

// The live phase, one offer per step, sent once the consumer is blocked on frame
// `frame` of its GOP (after stepping to the next GOP when `nextGop`). Step 3 is
// released by the I frame that ends its GOP early, not by a frame of its own.
struct LiveStep {
    bool nextGop;
    int frame;
};
const LiveStep LIVE[] = {{false, 2}, {false, 3}, {false, 4}, {true, 1}, {false, 2}, {true, 0}, {false, 1}};
constexpr int LIVE_STEPS = sizeof LIVE / sizeof LIVE[0];

struct Format {
    int width, height, fps;
};
constexpr Format FIRST_FORMAT{704, 576, 25};
constexpr Format SECOND_FORMAT{352, 288, 30};

// ---------------------------------------------------------------- the model

// The segment and its locks as the offers so far must have left them, following
// the documented write steps without the library's structs.
class Model : public SegmentImage {
public:
    explicit Model(const Pool& pool) : SegmentImage(pool.segmentSize(), 0), p_(pool), locks_(pool.slots(), 1) {
        setWord(0, p_.gopCount);
        setWord(4, p_.framesPerGop);
        setWord(8, p_.maxFrame);
        setWord(36, 8);
        setWord(40, p_.safeAt());
        setWord(44, p_.infoAt());
        setWord(48, p_.dataAt());
        for (int s = 0; s < p_.slots(); ++s) setWord(record(s) + 28, s);
    }

    // The header's format words, which every frame stored afterwards copies.
    void reset(const Format& f) {
        setWord(16, f.fps);
        setWord(20, f.fps);
        setWord(24, f.width);
        setWord(28, f.height);
        setWord(32, p_.framesPerGop * 1000 / f.fps);
    }
    void setRealFPS(int fps) { setWord(16, fps); }

    // What putIFrame returns, or 0 for a P frame.
    int put(const Offer& o) {
        if (o.frame == 0) {
            if (o.length > p_.maxFrame) {
                skipping_ = true;
                return 1;
            }
            skipping_ = false;
            for (++frame_; frame_ < p_.framesPerGop; ++frame_) locks_[slot(gop_, frame_)] = 0;
            ++gopCounter_;
            gop_ = (gop_ + 1) % p_.gopCount;
            frame_ = 0;
            int after = (gop_ + 1) % p_.gopCount;
            for (int k = 0; k < p_.framesPerGop; ++k) locks_[slot(after, k)] = 1;
            for (int i = 0; i <= p_.gopCount - 2; ++i) setGopSafe((gop_ + i) % p_.gopCount, i32(32) * i);
            setGopSafe((gop_ + p_.gopCount - 1) % p_.gopCount, 0);
            setWord(12, gop_);
            store(slot(gop_, 0), o, o.length);
            return 0;
        }
        if (skipping_) return 0;
        if (++frame_ >= p_.framesPerGop) return 0;  // the scenario never overfills a GOP
        store(slot(gop_, frame_), o, std::min(p_.maxFrame, o.length));
        return 0;
    }

    int slot(int gop, int frame) const { return gop * p_.framesPerGop + frame; }
    size_t record(int s) const { return p_.infoAt() + RECORD_SIZE * s; }

    int lock(int s) const { return locks_[s]; }
    int writerGop() const { return gop_; }
    // The slot the last stored frame went to; its lock opens last.
    int lastSlot() const { return lastSlot_; }
    Id frameID(int s) const { return u64(record(s) + 8); }
    Id gopID(int gop) const { return u64(record(slot(gop, 0))); }
    int sec(int gop) const { return i32(record(slot(gop, 0)) + 36); }
    int usec(int gop) const { return i32(record(slot(gop, 0)) + 40); }
    int safe(int gop) const { return i32(p_.safeAt() + 4 * slot(gop, 0)); }
    int length(int s) const { return i32(record(s) + 32); }
    int position(int s) const { return i32(record(s) + 44); }
    // The frame's ID prefix still stands in front of its bytes.
    bool intact(int s) const { return u64(p_.dataAt() + position(s)) == frameID(s); }
    bool valid(int gop) const { return intact(slot(gop, 0)); }
    // The offer each stored frame came from, by frame ID.
    const Offer& source(Id id) const { return sources_[id]; }

private:
    void setGopSafe(int gop, int value) {
        for (int k = 0; k < p_.framesPerGop; ++k) setWord(p_.safeAt() + 4 * slot(gop, k), value);
    }
    void store(int s, const Offer& o, int length) {
        Id id = ++frameCounter_;
        int padding = (4 - length % 4) % 4;
        if (p_.ring < writePosition_ + 8 + length + padding) writePosition_ = 0;
        size_t r = record(s);
        setU64(r, gopCounter_);
        setU64(r + 8, id);
        setWord(r + 16, i32(24));
        setWord(r + 20, i32(28));
        setWord(r + 24, i32(20));
        setWord(r + 32, length);
        setWord(r + 36, o.sec);
        setWord(r + 40, o.usec);
        setWord(r + 44, writePosition_);
        size_t at = p_.dataAt() + writePosition_;
        setU64(at, id);
        for (int i = 0; i < length; ++i) image_[at + 8 + i] = offerByte(o, i);
        memset(&image_[at + 8 + length], 0, padding);
        writePosition_ += 8 + length + padding;
        sources_.resize(id + 1, o);
        sources_[id] = o;
        locks_[s] = 0;
        lastSlot_ = s;
    }

    const Pool& p_;
    std::vector<int> locks_;
    std::vector<Offer> sources_;
    int gop_ = 0, frame_ = 0, writePosition_ = 0, lastSlot_ = 0;
    Id gopCounter_ = 0, frameCounter_ = 0;
    bool skipping_ = false;
};

// Plays offers on the model, with the format change where the scenario has it.
void replay(const Pool& pool, Model& model, const Offer& o) {
    if (o.gop == pool.resizeGop() && o.frame == 0) model.reset(SECOND_FORMAT);
    model.put(o);
}

Model staticModel(const Pool& pool) {
    Model model(pool);
    model.reset(FIRST_FORMAT);
    std::vector<Offer> offers = script(pool);
    for (size_t n = 0; n < staticOffers(pool); ++n) replay(pool, model, offers[n]);
    model.setRealFPS(REAL_FPS);
    return model;
}

// ---------------------------------------------------------------- producer

class Producer {
public:
    Producer(const Pool& pool, Checks& checks) : pool_(pool), checks_(checks), buffer_(pool.maxFrame + 64) {}

    void open() {
        putter_.init(pool_.channel, pool_.gopCount, pool_.framesPerGop, pool_.maxFrame,
                     pool_.segmentSize() - static_cast<int>(HEADER_SIZE));
        putter_.reset(FIRST_FORMAT.width, FIRST_FORMAT.height, FIRST_FORMAT.fps);
        std::vector<Offer> offers = script(pool_);
        for (size_t n = 0; n < staticOffers(pool_); ++n) put(offers[n]);
        checks_.equal(std::string(pool_.name) + ": putRealFPS", REAL_FPS, putter_.putRealFPS(REAL_FPS));
    }

    // Each live offer goes out only once the consumer is blocked where the step
    // says, so the wake-up it gets crosses from this process to the other build.
    bool serveLive(const Rendezvous& meet) {
        Model model = staticModel(pool_);
        std::vector<Offer> offers = script(pool_);
        int gop = model.writerGop();
        for (int step = 0; step < LIVE_STEPS; ++step) {
            if (LIVE[step].nextGop) gop = (gop + 1) % pool_.gopCount;
            int s = model.slot(gop, LIVE[step].frame);
            if (!awaitLockWaiter(meet, checks_, pool_.groupKey(s / 250), s % 250,
                                 std::string(pool_.name) + str(": consumer waiting on slot ", s)))
                return false;
            put(offers[staticOffers(pool_) + step]);
        }
        return true;
    }

    void release() {
        putter_.release();
        for (int g = 0; g < 4; ++g)
            checks_.expect(semIdOf(pool_.groupKey(g)) == -1, std::string(pool_.name) + str(": no set left in group ", g));
        checks_.expect(shmIdOf(pool_.segmentKey()) == -1, std::string(pool_.name) + ": segment removed by release");
    }

private:
    void put(const Offer& o) {
        if (o.gop == pool_.resizeGop() && o.frame == 0)
            putter_.reset(SECOND_FORMAT.width, SECOND_FORMAT.height, SECOND_FORMAT.fps);
        for (int i = 0; i < o.length; ++i) buffer_[i] = offerByte(o, i);
        timeval at{o.sec, o.usec};
        std::string what = std::string(pool_.name) + str(": GOP ", o.gop) + str(" frame ", o.frame);
        if (o.frame == 0)
            checks_.equal("putIFrame of " + what, o.length > pool_.maxFrame ? 1 : 0,
                          putter_.putIFrame(buffer_.data(), o.length, at));
        else
            putter_.putPFrame(buffer_.data(), o.length, at);
    }

    const Pool& pool_;
    Checks& checks_;
    std::vector<unsigned char> buffer_;
    MP4Putter putter_;
};

void produce(const Rendezvous& meet, Checks& checks) {
    Producer small(POOLS[0], checks), large(POOLS[1], checks);
    small.open();
    large.open();
    meet.mark("ready");
    if (small.serveLive(meet)) large.serveLive(meet);
    checks.expect(meet.waitFor("done", WAIT_SECONDS), "consumer finished");
    small.release();
    large.release();
}

// ---------------------------------------------------------------- consumer

class Consumer {
public:
    // Scenario coverage, summed over both pools.
    struct Seen {
        int staleIntact = 0, overwritten = 0, invalidGops = 0, found = 0, notFound = 0;
    };

    Consumer(const Pool& pool, Checks& checks, Seen& seen)
        : p_(pool), checks_(checks), seen_(seen), model_(staticModel(pool)), raw_(pool.segmentKey()) {}

    bool attach() {
        if (!checks_.expect(raw_.attached(), name(": raw read-only attach of the segment"))) return false;
        getter_.init(p_.channel);
        return true;
    }

    void checkStatic() {
        checkSegment("static");
        checkAccessors();
        checkWalk();
        checkFrames();
        checkSearches();
        checkProbeAge();
    }

    void followLiveWriter() {
        std::vector<Offer> offers = script(p_);
        size_t next = staticOffers(p_);
        int safe = UNTOUCHED;
        int gop = model_.writerGop();
        checks_.equal(name(": live: toWorkingGop"), model_.gopID(gop), getter_.toWorkingGop(safe));
        int unread = 0;
        for (int step = 0; step < LIVE_STEPS; ++step) {
            std::string what = name(str(": live step ", step + 1));
            if (LIVE[step].nextGop) {
                gop = (gop + 1) % p_.gopCount;
                safe = UNTOUCHED;
                checks_.equal(what + " toNextGop", model_.gopID(gop), getter_.toNextGop(safe));
                checks_.equal(what + " toNextGop safe time", model_.safe(gop), safe);
                unread = 0;
            }
            // Frames already written come at once.
            for (; unread < LIVE[step].frame; ++unread) {
                getter_.waitFrameReady(unread);
                checkFetch(what + str(" frame ", unread), gop, unread);
            }
            int s = model_.slot(gop, LIVE[step].frame);
            checks_.equal(what + str(": lock closed before, slot ", s), 1, lockOf(s));
            getter_.waitFrameReady(LIVE[step].frame);
            replay(p_, model_, offers[next++]);
            // An I frame opens the rest of the GOP before it writes itself.
            eventually([&] { return lockOf(model_.lastSlot()) == 0; }, WAIT_SECONDS * 1000);
            checks_.equal(what + ": lock open after", 0, lockOf(s));
            checks_.equal(what + ": header workingGop", model_.writerGop(), raw_.i32(12));
            checkFetch(what + str(" frame ", LIVE[step].frame), gop, LIVE[step].frame);
            unread = LIVE[step].frame + 1;
        }
        checkSegment("after live frames");
    }

private:
    std::string name(const std::string& rest) const { return p_.name + rest; }
    int lockOf(int s) const { return lockValue(p_.groupKey(s / 250), s % 250); }

    std::string fieldAt(size_t offset) const {
        static const char* const header[] = {"gopCount",   "framesPerGop", "maxFrameSize", "workingGop", "realFPS",
                                             "workingFPS", "width",        "height",       "oneSafeTime",
                                             "framePrefixSize", "safeTimeOffset", "frameInfoOffset", "dataOffset"};
        static const char* const record[] = {"gopID.low",   "gopID.high", "frameID.low", "frameID.high",
                                             "width",       "height",     "fps",         "lockIndex",
                                             "frameLength", "tv_sec",     "tv_usec",     "dataPosition"};
        if (offset < HEADER_SIZE) return std::string("header.") + header[offset / 4];
        if (offset < p_.infoAt()) return str("safe[", (offset - p_.safeAt()) / 4) + "]";
        if (offset < p_.dataAt()) {
            size_t r = (offset - p_.infoAt()) / RECORD_SIZE;
            return str("info[", r) + "]." + record[(offset - p_.infoAt()) % RECORD_SIZE / 4];
        }
        return str("ring+", offset - p_.dataAt());
    }

    // Everything in the segment, the semaphore groups and every slot lock.
    void checkSegment(const std::string& phase) {
        std::string what = name(": " + phase);
        checkImage(checks_, what, raw_, model_, [this](size_t offset) { return fieldAt(offset); });
        for (int g = 0; g < 4; ++g) {
            int expected = g < p_.groups() ? std::min(250, p_.slots() - 250 * g) : -1;
            int id = semIdOf(p_.groupKey(g));
            checks_.equal(what + str(": semaphores in group ", g), expected, id == -1 ? -1 : semCountOf(id));
        }
        int wrong = 0;
        for (int s = 0; s < p_.slots(); ++s)
            if (!checks_.equal(what + str(": lock of slot ", s), model_.lock(s), lockOf(s)) && ++wrong > 8) break;
    }

    void checkAccessors() {
        checks_.equal(name(": getOneSafeTime"), p_.framesPerGop * 1000 / SECOND_FORMAT.fps, getter_.getOneSafeTime());
        checks_.equal(name(": getWorkingFPS"), SECOND_FORMAT.fps, getter_.getWorkingFPS());
        checks_.equal(name(": getWorkingWidth"), SECOND_FORMAT.width, getter_.getWorkingWidth());
        checks_.equal(name(": getWorkingHeight"), SECOND_FORMAT.height, getter_.getWorkingHeight());
        checks_.equal(name(": getRealFPS"), REAL_FPS, getter_.getRealFPS());
    }

    // What every move ends with: the GOP's ID, safe time and picture format.
    void checkArrival(const std::string& what, int gop, Id got, int safe) {
        checks_.equal(what, model_.gopID(gop), got);
        checks_.equal(what + " safe time", model_.safe(gop), safe);
        checks_.equal(what + " getSafeTime", model_.safe(gop), getter_.getSafeTime());
        checks_.equal(what + " getGopID", model_.gopID(gop), getter_.getGopID());
        size_t first = model_.record(model_.slot(gop, 0));
        checks_.equal(what + " gopWidth", model_.i32(first + 16), getter_.gopWidth);
        checks_.equal(what + " gopHeight", model_.i32(first + 20), getter_.gopHeight);
        checks_.equal(what + " gopFPS", model_.i32(first + 24), getter_.gopFPS);
    }

    // From the writer's GOP once round the ring with toNextGop.
    void checkWalk() {
        int safe = UNTOUCHED;
        int gop = model_.writerGop();
        Id got = getter_.toWorkingGop(safe);
        checkArrival(name(": toWorkingGop"), gop, got, safe);
        for (int k = 1; k <= p_.gopCount; ++k) {
            gop = (gop + 1) % p_.gopCount;
            safe = UNTOUCHED;
            got = getter_.toNextGop(safe);
            checkArrival(name(str(": toNextGop #", k)), gop, got, safe);
        }
    }

    void moveTo(int gop) {
        int safe;
        getter_.toWorkingGop(safe);
        for (int g = model_.writerGop(); g != gop; g = (g + 1) % p_.gopCount) getter_.toNextGop(safe);
    }

    // getFrameData(k) on the working GOP, which is `gop`: an intact frame with its
    // time, length, bytes and place in the ring; an overwritten one as 0 with the
    // members of the previous fetch left as they were.
    void checkFetch(const std::string& what, int gop, int k) {
        int s = model_.slot(gop, k);
        timeval before = getter_.frameTime;
        unsigned char* beforeData = getter_.frameData;
        int beforeLength = getter_.frameLength;
        Id got = getter_.getFrameData(k);
        if (!model_.intact(s)) {
            checks_.equal(what + " getFrameData of an overwritten frame", 0ULL, got);
            checks_.expect(getter_.frameData == beforeData && getter_.frameLength == beforeLength &&
                               getter_.frameTime.tv_sec == before.tv_sec && getter_.frameTime.tv_usec == before.tv_usec,
                           what + " members kept after a miss");
            return;
        }
        Id id = model_.frameID(s);
        if (!checks_.equal(what + " getFrameData", id, got)) return;
        const Offer& o = model_.source(id);
        checks_.equal(what + " frameTime.tv_sec", static_cast<long long>(o.sec), static_cast<long long>(getter_.frameTime.tv_sec));
        checks_.equal(what + " frameTime.tv_usec", static_cast<long long>(o.usec), static_cast<long long>(getter_.frameTime.tv_usec));
        int length = model_.length(s);
        checks_.equal(what + " frameLength", length, getter_.frameLength);
        // Where the payload lies, relative to the first one fetched: prefix and
        // record positions must agree with the model's ring.
        long long at = static_cast<long long>(model_.position(s) + PREFIX_SIZE);
        if (referenceData_ == nullptr) {
            referenceData_ = getter_.frameData;
            referenceAt_ = at;
        }
        checks_.equal(what + " payload offset in the ring", at - referenceAt_,
                      static_cast<long long>(getter_.frameData - referenceData_));
        unsigned char prefix[8];
        putLE32(prefix, static_cast<unsigned>(id));
        putLE32(prefix + 4, static_cast<unsigned>(id >> 32));
        checks_.expect(memcmp(prefix, getter_.frameData - PREFIX_SIZE, 8) == 0, what + " ID prefix before the payload");
        if (getter_.frameLength != length) return;
        std::vector<unsigned char> expected(length);
        for (int i = 0; i < length; ++i) expected[i] = offerByte(o, i);
        checks_.expect(memcmp(expected.data(), getter_.frameData, length) == 0, what + " payload bytes");
    }

    // Every slot of every GOP.
    void checkFrames() {
        for (int gop = 0; gop < p_.gopCount; ++gop) {
            moveTo(gop);
            if (!model_.valid(gop)) ++seen_.invalidGops;
            for (int k = 0; k < p_.framesPerGop; ++k) {
                int s = model_.slot(gop, k);
                if (!model_.intact(s))
                    ++seen_.overwritten;
                else if (k > 0 && model_.frameID(s) < model_.frameID(model_.slot(gop, 0)))
                    ++seen_.staleIntact;
                checkFetch(name(str(": slot ", s)), gop, k);
            }
        }
    }

    // The searches as documented, on the model.
    int expectOldest(const std::function<bool(int gop)>& qualifies) const {
        int n = p_.gopCount, writer = model_.writerGop();
        int gop = (writer + 3) % n;
        for (int tries = 1;; ++tries) {
            if (qualifies(gop) && model_.valid(gop)) return gop;
            gop = (gop + 1) % n;
            if (gop == writer || tries == n) return gop;
        }
    }

    // The GOP found, or -1 with `stop` where the search gave up.
    int expectExact(int sec, const std::function<bool(int gop)>& matches, int& stop) const {
        int n = p_.gopCount, writer = model_.writerGop();
        stop = (writer + 3) % n;
        if (sec < model_.sec(stop)) return -1;
        for (int count = 0;;) {
            if (matches(stop) && model_.valid(stop)) return stop;
            stop = (stop + 1) % n;
            ++count;
            if (stop == (writer + 1) % p_.slots() || count >= n) return -1;
        }
    }

    void checkExact(const std::string& what, int expected, int stop, Id got, int safe) {
        if (expected >= 0) {
            ++seen_.found;
            checkArrival(what, expected, got, safe);
            return;
        }
        ++seen_.notFound;
        checks_.equal(what + " not found", NOT_FOUND_ID, got);
        checks_.equal(what + " leaves safe time alone", UNTOUCHED, safe);
        checks_.equal(what + " stays where it stopped", model_.gopID(stop), getter_.getGopID());
    }

    void checkSearches() {
        std::set<int> seconds{0, 99999};
        for (int gop = 0; gop < p_.gopCount; ++gop) {
            seconds.insert(model_.sec(gop));
            seconds.insert(model_.sec(gop) + 1);
        }
        for (int sec : seconds) {
            std::string at = str("(", sec);
            int safe = UNTOUCHED;
            Id got = getter_.toOldestWorkingGop(safe, sec);
            checkArrival(name(": toOldestWorkingGop" + at + ")"), expectOldest([&](int g) { return model_.sec(g) >= sec; }),
                         got, safe);
            safe = UNTOUCHED;
            got = getter_.toExactWorkingGop(safe, sec);
            int stop;
            int want = expectExact(sec, [&](int g) { return model_.sec(g) == sec; }, stop);
            checkExact(name(": toExactWorkingGop" + at + ")"), want, stop, got, safe);

            // Microseconds around those of the GOPs that start in this second.
            std::set<int> micros{0, 999999};
            for (int gop = 0; gop < p_.gopCount; ++gop)
                if (model_.sec(gop) == sec)
                    for (int d = -1; d <= 1; ++d) micros.insert(model_.usec(gop) + d);
            for (int usec : micros) {
                std::string both = at + str(", ", usec) + ")";
                safe = UNTOUCHED;
                got = getter_.toOldestWorkingGop(safe, sec, usec);
                checkArrival(name(": toOldestWorkingGop" + both),
                             expectOldest([&](int g) { return model_.sec(g) >= sec && model_.usec(g) >= usec; }), got,
                             safe);
                safe = UNTOUCHED;
                got = getter_.toExactWorkingGop(safe, sec, usec);
                want = expectExact(sec, [&](int g) { return model_.sec(g) == sec && usec >= model_.usec(g); }, stop);
                checkExact(name(": toExactWorkingGop" + both), want, stop, got, safe);
            }
        }
    }

    void checkProbeAge() {
        int safe;
        getter_.toWorkingGop(safe);
        long long expected = static_cast<long long>(time(nullptr)) - model_.sec(model_.writerGop());
        try {
            long long age = getter_.probeAge(2000000000);
            checks_.expect(age >= expected && age <= expected + 2, name(": probeAge value"),
                           "expected about " + std::to_string(expected) + ", got " + std::to_string(age));
        } catch (const MP4GetterError& e) {
            checks_.fail(name(": probeAge within the limit"), e.what());
        }
        try {
            getter_.probeAge(60);
            checks_.fail(name(": probeAge(60)"), "no exception");
        } catch (const MP4GetterError& e) {
            checks_.expect(std::string(e.what()) == "age too old", name(": probeAge message"), e.what());
        }
    }

    const Pool& p_;
    Checks& checks_;
    Seen& seen_;
    Model model_;
    RawSegment raw_;
    MP4Getter getter_;
    const unsigned char* referenceData_ = nullptr;
    long long referenceAt_ = 0;
};

void consume(const Rendezvous& meet, Checks& checks) {
    if (!checks.expect(meet.waitFor("ready", WAIT_SECONDS), "producer ready")) return;
    Consumer::Seen seen;
    Consumer small(POOLS[0], checks, seen), large(POOLS[1], checks, seen);
    if (!small.attach() || !large.attach()) return;
    small.checkStatic();
    large.checkStatic();
    checks.expect(seen.staleIntact > 0, "scenario has a GOP that ended early over intact older frames");
    checks.expect(seen.overwritten > 0 && seen.invalidGops > 0, "scenario has overwritten frames and GOPs");
    checks.expect(seen.found > 0 && seen.notFound > 0, "scenario has exact searches that find and that miss");
    small.followLiveWriter();
    large.followLiveWriter();
}

// ---------------------------------------------------------------- layout

void layout() {
    printf("MP4 constants MP4_BASE_KEY=%d MP4_HEADER_SIZE=%d MP4_MAX_FRAME_COUNT=%d\n", MP4_BASE_KEY, MP4_HEADER_SIZE,
           MP4_MAX_FRAME_COUNT);
    printLayout("MP4PoolHeader", sizeof(MP4PoolHeader), alignof(MP4PoolHeader),
                {INTEROP_FIELD(MP4PoolHeader, gopCount), INTEROP_FIELD(MP4PoolHeader, framesPerGop),
                 INTEROP_FIELD(MP4PoolHeader, maxFrameSize), INTEROP_FIELD(MP4PoolHeader, workingGop),
                 INTEROP_FIELD(MP4PoolHeader, realFPS), INTEROP_FIELD(MP4PoolHeader, workingFPS),
                 INTEROP_FIELD(MP4PoolHeader, width), INTEROP_FIELD(MP4PoolHeader, height),
                 INTEROP_FIELD(MP4PoolHeader, oneSafeTime), INTEROP_FIELD(MP4PoolHeader, framePrefixSize),
                 INTEROP_FIELD(MP4PoolHeader, safeTimeOffset), INTEROP_FIELD(MP4PoolHeader, frameInfoOffset),
                 INTEROP_FIELD(MP4PoolHeader, dataOffset)});
    printLayout("MP4FrameInfo", sizeof(MP4FrameInfo), alignof(MP4FrameInfo),
                {INTEROP_FIELD(MP4FrameInfo, gopID), INTEROP_FIELD(MP4FrameInfo, frameID),
                 INTEROP_FIELD(MP4FrameInfo, width), INTEROP_FIELD(MP4FrameInfo, height),
                 INTEROP_FIELD(MP4FrameInfo, fps), INTEROP_FIELD(MP4FrameInfo, lockIndex),
                 INTEROP_FIELD(MP4FrameInfo, frameLength), INTEROP_FIELD(MP4FrameInfo, tv_sec),
                 INTEROP_FIELD(MP4FrameInfo, tv_usec), INTEROP_FIELD(MP4FrameInfo, dataPosition)});
}

}  // namespace

const PoolKind mp4Kind{"mp4", layout, produce, consume};

}  // namespace interop
