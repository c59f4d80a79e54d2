#include "demo/consumer.h"

#include "cli/clock.h"

#include <avpool/common.h>

#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace avpool::demo {

namespace {

constexpr int REPORTED_ERRORS = 5;  // lines on stderr per consumer; the rest are only counted
constexpr int WRITER_WAIT_MS = 500;

}  // namespace

unsigned long long prefixOf(const unsigned char* bytes, int prefixSize) {
    const volatile uint32_t* words = reinterpret_cast<const volatile uint32_t*>(bytes - prefixSize);
    return (static_cast<unsigned long long>(words[1]) << 32) | words[0];
}

ConsumerCore::ConsumerCore(const ConsumerJob& job)
    : plan_(*job.plan), pool_(*job.pool), board_(*job.board), counters_(*job.counters) {}

bool ConsumerCore::waitForPools() {
    if (!waitUntil([&] { return board_.ready.load(std::memory_order_acquire) != 0; })) return false;
    // Slats are for the streams of a profile, not for the audio and analysis pools.
    if (board_.published.load(std::memory_order_relaxed) == 0 || !avpool::cli::hasProfile(*pool_.kind)) return true;
    // As a server takes a slat for a client: named after the consumer, the
    // pool and the process in userInfo, returned automatically.
    char info[sizeof(UserSlat::userInfo)];
    snprintf(info, sizeof info, "%s %d, pid %d", pool_.kind->name, pool_.channel, static_cast<int>(getpid()));
    infos_.init(INFOS_KEY);
    infos_.takeConn(plan_.name, info, CONSUMER_USER_TYPE, CONSUMER_WEIGHT, true);
    return true;
}

void ConsumerCore::pause() const {
    for (int paused = 0; paused < plan_.pauseMs && !stopping(); paused += 10)
        avpool::cli::sleepMs(plan_.pauseMs - paused < 10 ? plan_.pauseMs - paused : 10);
}

bool ConsumerCore::writerBeyond(unsigned long long id) const {
    std::atomic_thread_fence(std::memory_order_seq_cst);
    return poolBoard().started.load() > id;
}

// A frame that failed its check while looking untouched: the writer may be in
// the middle of a later frame whose bytes reach into this one before its prefix
// (a copy need not store in address order). Once the frame it is putting now is
// complete, any such overlap shows in the prefix.
void ConsumerCore::waitForWriter() const {
    const PoolBoard& pool = poolBoard();
    unsigned long long started = pool.started.load(std::memory_order_acquire);
    for (int waited = 0; pool.completed.load(std::memory_order_acquire) < started && waited < WRITER_WAIT_MS;
         ++waited)
        avpool::cli::sleepMs(1);
}

void ConsumerCore::damaged() {
    unsigned long long errors = counters_.errors.load(std::memory_order_relaxed);
    if (errors == 0) memcpy(counters_.firstError, why_, sizeof why_);
    counters_.errors.store(errors + 1, std::memory_order_release);
    if (errors < REPORTED_ERRORS) fprintf(stderr, "avpool demo: %s: %s\n", plan_.name, why_);
}

void ConsumerCore::account(Outcome outcome, unsigned long long id, long long captureUs) {
    switch (outcome) {
    case Outcome::Overwritten:
        counters_.overwritten.fetch_add(1, std::memory_order_relaxed);
        return;
    case Outcome::Damaged:
        damaged();
        return;
    case Outcome::Read:
        break;
    }
    if (id <= lastId_) {
        snprintf(why_, sizeof why_, "frame %llu read after frame %llu", id, lastId_);
        damaged();
        return;
    }
    if (lastId_ != 0 && captureUs < lastCaptureUs_) {
        snprintf(why_, sizeof why_, "frame %llu captured %lld us before frame %llu", id, lastCaptureUs_ - captureUs,
                 lastId_);
        damaged();
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
    lastCaptureUs_ = captureUs;
    counters_.lastCaptureUs.store(captureUs, std::memory_order_relaxed);
    counters_.lastId.store(id, std::memory_order_relaxed);
    counters_.read.fetch_add(1, std::memory_order_relaxed);
}

int runConsumer(void* argument) {
    const ConsumerJob& job = *static_cast<const ConsumerJob*>(argument);
    try {
        return job.pool->kind->consume(job);
    } catch (const std::exception& error) {
        // The producer removes its pools at the end; a reader blocked waiting
        // for a lock then fails with "semop failed.", which is its cue to stop.
        bool poolError = dynamic_cast<const avpool::PoolError*>(&error) != nullptr;
        if (poolError && job.board->stop.load(std::memory_order_acquire) != 0) return 0;
        fprintf(stderr, "avpool demo: %s: %s\n", job.plan->name, error.what());
        return 1;
    }
}

}  // namespace avpool::demo
