// A demo consumer of a video pool: follows it GOP by GOP at its own pace and
// checks every frame it reads. It waits for each frame of a GOP, then steps to
// the next GOP; once the writer has overtaken it (bytes reused, the GOP too
// old, a GOP ID that is not the next one) it jumps back to the GOP being
// written.

#include "cli/clock.h"
#include "demo/consumer.h"
#include "demo/frame_stamp.h"
#include "kinds/shm_view.h"

#include <avpool/mp4.h>

#include <cstdio>

namespace avpool::demo {

namespace {

constexpr int FRAME_PREFIX_SIZE = 8;  // the header's framePrefixSize

enum class GopEnd { Done, Behind };

class Mp4Consumer {
public:
    explicit Mp4Consumer(const ConsumerJob& job) : core_(job), pool_(*job.pool) {}

    int run();

private:
    void checkStream();
    GopEnd readGop();
    bool enterGop(unsigned long long gopId);
    bool gopEndedBefore(unsigned long long gopId, unsigned long long first, int k) const;
    Outcome checkFrame(int k, unsigned long long gopId, unsigned long long id);
    bool rightFrame(int k, unsigned long long gopId, unsigned long long id, int length);
    bool agedOut();
    int slotOf(unsigned long long gopId, int k) const {
        return static_cast<int>(gopId % static_cast<unsigned long long>(pool_.slots)) * pool_.framesPerGop + k;
    }

    ConsumerCore core_;
    const PoolPlan& pool_;
    MP4Getter getter_;
    const avpool::cli::GroupedLockView* locks_ = nullptr;
    unsigned long long lastGop_ = 0;
    bool jumped_ = true;  // no GOP read yet to compare the next one's ID with
    long long captureUs_ = 0;
};

void Mp4Consumer::checkStream() {
    int oneGopMs = pool_.framesPerGop * 1000 / pool_.fps;
    if (getter_.getWorkingWidth() == pool_.width && getter_.getWorkingHeight() == pool_.height &&
        getter_.getWorkingFPS() == pool_.fps && getter_.getOneSafeTime() == oneGopMs)
        return;
    snprintf(core_.why(), core_.whySize(), "pool describes %dx%d %d fps, %d ms per GOP", getter_.getWorkingWidth(),
             getter_.getWorkingHeight(), getter_.getWorkingFPS(), getter_.getOneSafeTime());
    core_.damaged();
}

// A GOP that ended early: its remaining slots were opened when the next GOP
// began, and hold older frames or none. Frame k of GOP gopId (first frame
// `first`) lies beyond its end once the producer started the next GOP at or
// before frame first + k.
bool Mp4Consumer::gopEndedBefore(unsigned long long gopId, unsigned long long first, int k) const {
    unsigned long long next = core_.poolBoard().gopFirst[(gopId + 1) % GOP_HISTORY].load(std::memory_order_acquire);
    return next > first && first + k >= next;
}

// The GOP's ID must follow the last one's, unless this reader just jumped.
bool Mp4Consumer::enterGop(unsigned long long gopId) {
    bool jumped = jumped_;
    unsigned long long last = lastGop_;
    jumped_ = false;
    lastGop_ = gopId;
    if (jumped || gopId == last + 1) return true;
    if (gopId > last + 1) {
        core_.counters().gopJumps.fetch_add(1, std::memory_order_relaxed);
        return false;
    }
    snprintf(core_.why(), core_.whySize(), "GOP %llu came after GOP %llu", gopId, last);
    core_.damaged();
    return true;
}

// Slot 0 holds an I frame and starts the GOP the producer numbered gopId; the
// other slots hold P frames. Their lengths come from separate ranges.
bool Mp4Consumer::rightFrame(int k, unsigned long long gopId, unsigned long long id, int length) {
    bool key = length >= pool_.minKey && length <= pool_.maxKey;
    if (k == 0 && !key) {
        snprintf(core_.why(), core_.whySize(), "frame %llu: %d bytes, not an I frame, first in GOP %llu", id,
                 length, gopId);
        return false;
    }
    if (k > 0 && key) {
        snprintf(core_.why(), core_.whySize(), "frame %llu: %d bytes, an I frame, at %d in GOP %llu", id, length,
                 k, gopId);
        return false;
    }
    if (k > 0) return true;
    // An entry above id belongs to a GOP put since; then there is nothing to compare.
    unsigned long long started = core_.poolBoard().gopFirst[gopId % GOP_HISTORY].load(std::memory_order_acquire);
    if (started > id || started == id) return true;
    snprintf(core_.why(), core_.whySize(), "frame %llu: first of GOP %llu, which began with frame %llu", id, gopId,
             started);
    return false;
}

Outcome Mp4Consumer::checkFrame(int k, unsigned long long gopId, unsigned long long id) {
    const unsigned char* bytes = getter_.frameData;
    int length = getter_.frameLength;
    captureUs_ = avpool::cli::microseconds(getter_.frameTime.tv_sec, getter_.frameTime.tv_usec);
    bool whole = checkStamp(bytes, length, id, core_.why(), core_.whySize()) && rightFrame(k, gopId, id, length);
    // Untouched: the prefix still names the frame, the slot still holds it with
    // its bytes, and its lock is open (the writer closes a whole GOP before it
    // comes round to it again).
    int slot = slotOf(gopId, k);
    return core_.settle(whole, [&] {
        return prefixOf(bytes, FRAME_PREFIX_SIZE) == id && getter_.getFrameData(k) == id &&
               locks_->value(slot) == 0;
    });
}

bool Mp4Consumer::agedOut() {
    try {
        getter_.probeAge(MAX_AGE_SECONDS);
        return false;
    } catch (const MP4GetterError&) {  // "age too old"
        core_.counters().agedOut.fetch_add(1, std::memory_order_relaxed);
        return true;
    }
}

GopEnd Mp4Consumer::readGop() {
    unsigned long long gopId = 0;
    unsigned long long first = 0;
    unsigned long long previous = 0;
    for (int k = 0; k < pool_.framesPerGop && !core_.stopping(); ++k) {
        getter_.waitFrameReady(k);
        unsigned long long id = getter_.getFrameData(k);
        if (k == 0) gopId = getter_.getGopID();
        if (id == 0) {
            if (k > 0 && gopEndedBefore(gopId, first, k)) return GopEnd::Done;
            core_.account(Outcome::Overwritten, 0, 0);  // the writer reused its bytes
            return GopEnd::Behind;
        }
        // A frame not above the one before it was left in its slot by an
        // earlier GOP: this one ended early.
        if (k > 0 && id <= previous) return GopEnd::Done;
        if (k == 0) {
            first = id;
            if (!enterGop(gopId)) return GopEnd::Behind;
        }
        // Above the next number: the writer came round to this GOP again.
        bool rewritten = k > 0 && id != previous + 1;
        previous = id;
        if (id > core_.lastId()) {  // frames read before a jump back are passed over
            Outcome outcome = checkFrame(k, gopId, id);
            core_.account(outcome, id, captureUs_);
            if (outcome == Outcome::Overwritten) return GopEnd::Behind;
            if (k == 0 && outcome == Outcome::Read) core_.counters().gops.fetch_add(1, std::memory_order_relaxed);
            core_.pause();
            // Only after a frame read: passing over frames read before a jump
            // back must not count the same age again.
            if (agedOut()) return GopEnd::Behind;
        }
        if (rewritten) return GopEnd::Behind;
    }
    return GopEnd::Done;
}

int Mp4Consumer::run() {
    if (!core_.waitForPools()) return 0;
    getter_.init(pool_.channel);
    avpool::cli::GroupedLockView locks(lockKey(pool_), pool_.slots * pool_.framesPerGop);
    locks_ = &locks;
    checkStream();

    // Until the first I frame the writer's GOP has never been written.
    int safeTime = 0;
    if (!core_.waitUntil([&] { return getter_.toWorkingGop(safeTime) != 0; })) return 0;
    while (!core_.stopping()) {
        if (readGop() == GopEnd::Done) {
            getter_.toNextGop(safeTime);
            continue;
        }
        getter_.toWorkingGop(safeTime);
        jumped_ = true;
        core_.counters().jumps.fetch_add(1, std::memory_order_relaxed);
    }
    return 0;
}

}  // namespace

int consumeMp4(const ConsumerJob& job) {
    Mp4Consumer consumer(job);
    return consumer.run();
}

}  // namespace avpool::demo
