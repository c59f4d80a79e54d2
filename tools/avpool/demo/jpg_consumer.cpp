// A demo consumer of a JPEG pool: follows it frame by frame at its own pace
// and checks every frame it reads.

#include "cli/clock.h"
#include "demo/consumer.h"
#include "demo/frame_stamp.h"
#include "kinds/shm_view.h"

#include <avpool/jpg.h>

#include <cstdio>
#include <sys/time.h>

namespace avpool::demo {

namespace {

class JpgConsumer {
public:
    explicit JpgConsumer(const ConsumerJob& job) : core_(job), pool_(*job.pool) {}

    int run();

private:
    Outcome readCurrent(unsigned long long& id);
    bool stillUntouched(const unsigned char* bytes, unsigned long long id, int slot);
    void catchUp();

    ConsumerCore core_;
    const PoolPlan& pool_;
    JPGGetter getter_;
    const avpool::cli::LockView* locks_ = nullptr;
    long long captureUs_ = 0;
};

// Untouched: the prefix still names the frame, the slot still holds it, and the
// slot's lock is open, so the writer is not in it (it closes a slot one frame
// before it overwrites it and opens it only when done).
bool JpgConsumer::stillUntouched(const unsigned char* bytes, unsigned long long id, int slot) {
    return prefixOf(bytes, JPG_FRAME_PREFIX_SIZE) == id && getter_.getFrameID() == id && locks_->value(slot) == 0;
}

Outcome JpgConsumer::readCurrent(unsigned long long& id) {
    getter_.waitReady();
    id = getter_.getFrameID();
    int slot = static_cast<int>(id % static_cast<unsigned long long>(pool_.slots));
    // The writer closes a slot one frame ahead of overwriting it: a closed lock
    // after the wait means it has come round to this slot again.
    if (locks_->value(slot) != 0) return Outcome::Overwritten;
    getter_.getFrame();
    const JPGFrame& frame = getter_.frame;
    // getFrame steps past slots whose bytes were overwritten; then it no longer
    // shows the frame this reader was positioned on. Only a later frame can
    // overwrite them: if the writer has not started one, the lock was open
    // before the bytes were in place.
    if (prefixOf(frame.data, JPG_FRAME_PREFIX_SIZE) != id) {
        if (core_.writerBeyond(id)) return Outcome::Overwritten;
        snprintf(core_.why(), core_.whySize(), "frame %llu: lock open before its bytes were in place", id);
        return Outcome::Damaged;
    }

    bool whole = checkStamp(frame.data, frame.frameLength, id, core_.why(), core_.whySize());
    if (whole && (frame.width != pool_.width || frame.height != pool_.height || frame.fps != pool_.fps ||
                  frame.quality != pool_.quality)) {
        snprintf(core_.why(), core_.whySize(), "frame %llu: described as %dx%d %d fps quality %d", id, frame.width,
                 frame.height, frame.fps, frame.quality);
        whole = false;
    }
    captureUs_ = avpool::cli::microseconds(frame.tv_sec, frame.tv_usec);
    return core_.settle(whole, [&] { return stillUntouched(frame.data, id, slot); });
}

// Back into step after the writer went past: to the newest frame, or to the
// oldest one still safe. Never back to a frame already read.
void JpgConsumer::catchUp() {
    int safeTime = 0;
    unsigned long long id;
    if (core_.plan().catchup == Catchup::Oldest) {
        timeval now;
        gettimeofday(&now, nullptr);
        id = getter_.toOldestWorking(safeTime, static_cast<int>(now.tv_sec) - 1);
        if (id > core_.lastId()) return;
    }
    id = getter_.toWorking(safeTime);
    if (id <= core_.lastId()) getter_.toNext(safeTime);
}

int JpgConsumer::run() {
    if (!core_.waitForPools()) return 0;
    getter_.init(pool_.channel);
    avpool::cli::LockView locks(lockKey(pool_), pool_.slots);
    locks_ = &locks;

    // A fresh pool's newest slot is slot 0, which the writer fills only when the
    // ring wraps; wait for a first frame instead of blocking on it.
    int safeTime = 0;
    if (!core_.waitUntil([&] { return getter_.toWorking(safeTime) != 0; })) return 0;
    while (!core_.stopping()) {
        unsigned long long id = 0;
        Outcome outcome = readCurrent(id);
        core_.account(outcome, id, captureUs_);
        core_.pause();

        // Fell behind: the read was overtaken, the next slot already holds a
        // later lap's frame, or the next frame is older than a reader may lag.
        unsigned long long last = core_.lastId();
        bool behind = outcome == Outcome::Overwritten;
        unsigned long long next = getter_.toNext(safeTime);
        if (!behind && last != 0 && next > last + 1) behind = true;
        if (!behind && next == last + 1) {
            try {
                getter_.probeAge(MAX_AGE_SECONDS);
            } catch (const JPGGetterError&) {  // "age too old"
                behind = true;
            }
        }
        if (behind) catchUp();
    }
    return 0;
}

}  // namespace

int consumeJpg(const ConsumerJob& job) {
    JpgConsumer consumer(job);
    return consumer.run();
}

}  // namespace avpool::demo
