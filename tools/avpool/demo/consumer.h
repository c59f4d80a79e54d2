// What every demo consumer does whatever the pool kind: wait for the pools,
// pace itself, decide whether a frame that failed its check was damaged or
// only overwritten under it, and count what it read on the board.
//
// The writer never waits for readers, so a frame can be overwritten while it
// is being read; a frame only counts as damaged when it was complete and
// untouched both before and after the check.
#pragma once

#include "cli/clock.h"
#include "demo/demo.h"

#include <atomic>
#include <cstddef>

namespace avpool::demo {

enum class Outcome { Read, Overwritten, Damaged };

// How far a picture or video consumer may fall behind the writer before it
// gives up its place and starts again from the newest element.
constexpr int MAX_AGE_SECONDS = 2;

// The frame-ID prefix in front of a frame's bytes, read from memory each time.
unsigned long long prefixOf(const unsigned char* bytes, int prefixSize);

class ConsumerCore {
public:
    explicit ConsumerCore(const ConsumerJob& job);

    bool stopping() const { return board_.stop.load(std::memory_order_acquire) != 0; }
    // Polls until ready() holds; false when asked to stop first.
    template <class Ready>
    bool waitUntil(Ready ready) const {
        while (!ready()) {
            if (stopping()) return false;
            avpool::cli::sleepMs(5);
        }
        return true;
    }
    // Waits until the pools exist; false when asked to stop first. Then takes
    // this consumer's connection slat, given back when the core goes, if the
    // demo published its profiles.
    bool waitForPools();
    // The plan's time on each frame, cut short by a stop request.
    void pause() const;
    // Whether the producer has begun putting a frame later than id.
    bool writerBeyond(unsigned long long id) const;

    // The verdict on a frame after its check: whole says whether its bytes and
    // description were right (why() tells what was not), untouched() whether
    // the writer left it alone meanwhile.
    template <class Untouched>
    Outcome settle(bool whole, Untouched untouched) {
        std::atomic_thread_fence(std::memory_order_acquire);
        if (!untouched()) return Outcome::Overwritten;
        if (whole) return Outcome::Read;
        waitForWriter();
        return untouched() ? Outcome::Damaged : Outcome::Overwritten;
    }

    // Counts a frame: read (its ID must be above the last one read and its
    // capture time not before that one's), given up or damaged. captureUs is
    // the capture time of a frame read.
    void account(Outcome outcome, unsigned long long id, long long captureUs);
    void damaged();  // counts why() as one damaged frame

    char* why() { return why_; }
    size_t whySize() const { return sizeof why_; }
    unsigned long long lastId() const { return lastId_; }
    const ConsumerPlan& plan() const { return plan_; }
    const PoolPlan& pool() const { return pool_; }
    const PoolBoard& poolBoard() const { return board_.pools[plan_.pool]; }
    ConsumerBoard& counters() { return counters_; }

private:
    void waitForWriter() const;

    const ConsumerPlan& plan_;
    const PoolPlan& pool_;
    Board& board_;
    ConsumerBoard& counters_;
    unsigned long long lastId_ = 0;
    long long lastCaptureUs_ = 0;
    char why_[ERROR_TEXT] = {};
    InfosGetter infos_;
};

// The kinds' consumers, which the kinds table names (PoolKind::consume); each
// runs until the board says stop or its pool goes. The audio and analysis
// consumers follow a ring of slots one after the other.
int consumeJpg(const ConsumerJob& job);
int consumeMp4(const ConsumerJob& job);
int consumePcm(const ConsumerJob& job);
int consumeAac(const ConsumerJob& job);
int consumeAmr(const ConsumerJob& job);
int consumeOpus(const ConsumerJob& job);
int consumeLum(const ConsumerJob& job);
int consumeMd(const ConsumerJob& job);

}  // namespace avpool::demo
