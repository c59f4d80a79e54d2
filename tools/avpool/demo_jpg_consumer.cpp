// A demo consumer: follows one JPEG pool at its own pace and checks every frame
// it reads. The writer never waits for readers, so a frame can be overwritten
// while it is being read; a frame only counts as damaged when it was complete
// and untouched both before and after the check.

#include "clock.h"
#include "demo.h"
#include "frame_stamp.h"
#include "shm_view.h"

#include <avpool/jpg.h>

#include <cstdio>
#include <cstring>
#include <sys/time.h>

namespace avpool::demo {

namespace {

using avpool::cli::sleepMs;

constexpr int MAX_AGE_SECONDS = 2;
constexpr int REPORTED_ERRORS = 5;  // lines on stderr per consumer; the rest are only counted

enum class Outcome { Read, Overwritten, Damaged };

// The frame-ID prefix in front of a frame's bytes, read from memory each time.
unsigned long long prefixOf(const unsigned char* bytes) {
    const volatile uint32_t* words = reinterpret_cast<const volatile uint32_t*>(bytes - JPG_FRAME_PREFIX_SIZE);
    return (static_cast<unsigned long long>(words[1]) << 32) | words[0];
}

class Consumer {
public:
    explicit Consumer(const ConsumerJob& job)
        : plan_(*job.plan), pool_(*job.pool), board_(*job.board), counters_(*job.counters) {}

    int run();

private:
    Outcome readCurrent(unsigned long long& id);
    bool stillUntouched(const unsigned char* bytes, unsigned long long id, int slot);
    bool writerLeftItAlone(const unsigned char* bytes, unsigned long long id, int slot);
    void account(Outcome outcome, unsigned long long id);
    void reportDamage();
    void catchUp();
    bool stopping() const { return board_.stop.load(std::memory_order_acquire) != 0; }

    const ConsumerPlan& plan_;
    const JpgPoolPlan& pool_;
    Board& board_;
    ConsumerBoard& counters_;
    JPGGetter getter_;
    const avpool::cli::LockView* locks_ = nullptr;
    unsigned long long lastId_ = 0;
    char why_[ERROR_TEXT] = {};
};

// Untouched: the prefix still names the frame, the slot still holds it, and the
// slot's lock is open, so the writer is not in it (it closes a slot one frame
// before it overwrites it and opens it only when done).
bool Consumer::stillUntouched(const unsigned char* bytes, unsigned long long id, int slot) {
    return prefixOf(bytes) == id && getter_.getFrameID() == id && locks_->value(slot) == 0;
}

// A frame that failed its check while looking untouched: the writer may be in
// the middle of a later frame whose bytes reach into this one before its prefix
// (a copy need not store in address order). Once the frame it is putting now is
// complete, any such overlap shows in the prefix.
bool Consumer::writerLeftItAlone(const unsigned char* bytes, unsigned long long id, int slot) {
    const PoolBoard& pool = board_.pools[plan_.pool];
    unsigned long long started = pool.started.load(std::memory_order_acquire);
    for (int waited = 0; pool.completed.load(std::memory_order_acquire) < started && waited < 500; ++waited)
        sleepMs(1);
    return stillUntouched(bytes, id, slot);
}

Outcome Consumer::readCurrent(unsigned long long& id) {
    getter_.waitReady();
    id = getter_.getFrameID();
    int slot = static_cast<int>(id % static_cast<unsigned long long>(pool_.frameCount));
    // The writer closes a slot one frame ahead of overwriting it: a closed lock
    // after the wait means it has come round to this slot again.
    if (locks_->value(slot) != 0) return Outcome::Overwritten;
    getter_.getFrame();
    const JPGFrame& frame = getter_.frame;
    // getFrame steps past slots whose bytes were overwritten; then it no longer
    // shows the frame this reader was positioned on. Only a later frame can
    // overwrite them: if the writer has not started one, the lock was open
    // before the bytes were in place.
    if (prefixOf(frame.data) != id) {
        std::atomic_thread_fence(std::memory_order_seq_cst);
        if (board_.pools[plan_.pool].started.load() > id) return Outcome::Overwritten;
        snprintf(why_, sizeof why_, "frame %llu: lock open before its bytes were in place", id);
        return Outcome::Damaged;
    }

    bool whole = checkStamp(frame.data, frame.frameLength, id, why_, sizeof why_);
    if (whole && (frame.width != pool_.width || frame.height != pool_.height || frame.fps != pool_.fps ||
                  frame.quality != pool_.quality)) {
        snprintf(why_, sizeof why_, "frame %llu: described as %dx%d %d fps quality %d", id, frame.width,
                 frame.height, frame.fps, frame.quality);
        whole = false;
    }
    std::atomic_thread_fence(std::memory_order_acquire);
    if (!stillUntouched(frame.data, id, slot)) return Outcome::Overwritten;
    if (whole) {
        counters_.lastCaptureUs.store(static_cast<long long>(frame.tv_sec) * 1000000 + frame.tv_usec,
                                      std::memory_order_relaxed);
        return Outcome::Read;
    }
    return writerLeftItAlone(frame.data, id, slot) ? Outcome::Damaged : Outcome::Overwritten;
}

void Consumer::reportDamage() {
    unsigned long long errors = counters_.errors.load(std::memory_order_relaxed);
    if (errors == 0) memcpy(counters_.firstError, why_, sizeof why_);
    counters_.errors.store(errors + 1, std::memory_order_release);
    if (errors < REPORTED_ERRORS) fprintf(stderr, "avpool demo: %s: %s\n", plan_.name, why_);
}

void Consumer::account(Outcome outcome, unsigned long long id) {
    switch (outcome) {
    case Outcome::Overwritten:
        counters_.overwritten.fetch_add(1, std::memory_order_relaxed);
        return;
    case Outcome::Damaged:
        reportDamage();
        return;
    case Outcome::Read:
        break;
    }
    if (id <= lastId_) {
        snprintf(why_, sizeof why_, "frame %llu read after frame %llu", id, lastId_);
        reportDamage();
        return;
    }
    // A gap means the writer went past this reader: counted once per gap,
    // however it was noticed (a jump in the ring, an overwritten read, a lock
    // that had to be waited for while the writer lapped the ring).
    if (lastId_ != 0 && id > lastId_ + 1) {
        counters_.skipped.fetch_add(id - lastId_ - 1, std::memory_order_relaxed);
        counters_.overtaken.fetch_add(1, std::memory_order_relaxed);
    }
    lastId_ = id;
    counters_.lastId.store(id, std::memory_order_relaxed);
    counters_.read.fetch_add(1, std::memory_order_relaxed);
}

// Back into step after the writer went past: to the newest frame, or to the
// oldest one still safe. Never back to a frame already read.
void Consumer::catchUp() {
    int safeTime = 0;
    unsigned long long id;
    if (plan_.catchup == Catchup::Oldest) {
        timeval now;
        gettimeofday(&now, nullptr);
        id = getter_.toOldestWorking(safeTime, static_cast<int>(now.tv_sec) - 1);
        if (id > lastId_) return;
    }
    id = getter_.toWorking(safeTime);
    if (id <= lastId_) getter_.toNext(safeTime);
}

int Consumer::run() {
    while (board_.ready.load(std::memory_order_acquire) == 0) {
        if (stopping()) return 0;
        sleepMs(5);
    }
    getter_.init(pool_.channel);
    avpool::cli::LockView locks(JPG_BASE_KEY + pool_.channel, pool_.frameCount);
    locks_ = &locks;

    // A fresh pool's newest slot is slot 0, which the writer fills only when the
    // ring wraps; wait for a first frame instead of blocking on it.
    int safeTime = 0;
    while (getter_.toWorking(safeTime) == 0) {
        if (stopping()) return 0;
        sleepMs(5);
    }
    while (!stopping()) {
        unsigned long long id = 0;
        Outcome outcome = readCurrent(id);
        account(outcome, id);
        for (int paused = 0; paused < plan_.pauseMs && !stopping(); paused += 10)
            sleepMs(plan_.pauseMs - paused < 10 ? plan_.pauseMs - paused : 10);

        // Fell behind: the read was overtaken, the next slot already holds a
        // later lap's frame, or the next frame is older than a reader may lag.
        bool behind = outcome == Outcome::Overwritten;
        unsigned long long next = getter_.toNext(safeTime);
        if (!behind && lastId_ != 0 && next > lastId_ + 1) behind = true;
        if (!behind && next == lastId_ + 1) {
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

int runJpgConsumer(void* argument) {
    const ConsumerJob& job = *static_cast<const ConsumerJob*>(argument);
    Consumer consumer(job);
    try {
        return consumer.run();
    } catch (const JPGGetterError& error) {
        // The producer removes its pools at the end; a reader blocked in
        // waitReady then fails with "semop failed.", which is its cue to stop.
        if (job.board->stop.load(std::memory_order_acquire) != 0) return 0;
        fprintf(stderr, "avpool demo: %s: %s\n", job.plan->name, error.what());
        return 1;
    }
}

}  // namespace avpool::demo
