// avpool demo: a producer and several consumer processes on JPEG pools, every
// frame checked, with a live summary. The producer (this process) creates the
// pools and writes frames at their rates; the consumers are forked children
// that publish their counters on a board in shared anonymous memory.

#include "clock.h"
#include "demo.h"
#include "frame_stamp.h"
#include "shm_view.h"
#include "verbs.h"

#include <avpool/jpg.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <string>
#include <sys/mman.h>
#include <sys/time.h>
#include <vector>

namespace avpool::demo {

namespace {

using avpool::cli::Child;
using avpool::cli::CliError;
using avpool::cli::monotonicNs;
using avpool::cli::NS_PER_S;

// Two pools of different geometry and rate. Each data ring holds several
// average frames and always more than one maximal frame (prefix and padding
// included), but fewer than it has slots on channel 0, so there a lagging
// reader sees frame bytes overwritten before their slots are reused.
const JpgPoolPlan jpgPools[] = {
    // channel, slots, fps, width, height, quality, frame sizes, ring bytes
    {0, 12, 25, 640, 480, 80, 2048, 65536, 256 * 1024},
    {1, 8, 10, 320, 240, 60, 512, 16384, 96 * 1024},
};
constexpr int POOL_COUNT = sizeof jpgPools / sizeof jpgPools[0];

// Readers at different paces: two follow the newest frame, two spend more
// time on a frame than the producer gives them and get overtaken.
const ConsumerPlan consumerPlans[] = {
    {"live-0", 0, 0, Catchup::Newest},
    {"slow-0", 0, 100, Catchup::Newest},
    {"live-1", 1, 0, Catchup::Newest},
    {"slow-1", 1, 250, Catchup::Oldest},
};
constexpr int CONSUMER_COUNT = sizeof consumerPlans / sizeof consumerPlans[0];

static_assert(POOL_COUNT <= MAX_POOLS && CONSUMER_COUNT <= MAX_CONSUMERS, "board too small");

constexpr int DEFAULT_SECONDS = 10;
constexpr int MAX_SECONDS = 24 * 3600;
constexpr int MAX_FIRST_CHANNEL = 255 - (POOL_COUNT - 1);
constexpr long long STOP_GRACE_NS = 2 * NS_PER_S;  // producing on while consumers finish
constexpr int END_GRACE_MS = 1000;                 // per step once the pools are gone

volatile sig_atomic_t interrupted = 0;

void onInterrupt(int sig) {
    interrupted = sig;
}

void catchInterrupts() {
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGHUP, &action, nullptr);
}

void sleepUntilNs(long long when) {
    timespec until{static_cast<time_t>(when / NS_PER_S), static_cast<long>(when % NS_PER_S)};
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);  // a signal ends it early
}

// The board lives in anonymous shared memory mapped before the fork, so the
// parent sees the children's counters.
class SharedBoard {
public:
    SharedBoard() {
        void* memory = mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) throw CliError(std::string("demo: mmap failed: ") + strerror(errno));
        board_ = new (memory) Board();
    }
    ~SharedBoard() {
        board_->~Board();
        munmap(board_, sizeof(Board));
    }
    SharedBoard(const SharedBoard&) = delete;
    SharedBoard& operator=(const SharedBoard&) = delete;
    Board* get() const { return board_; }

private:
    Board* board_;
};

// Refuses channels whose pool belongs to a running process: creating a pool
// removes whatever is under its key, and that may be a device's live stream.
void refuseLivePools(const JpgPoolPlan* plans) {
    for (int p = 0; p < POOL_COUNT; ++p) {
        int channel = plans[p].channel;
        pid_t creator = 0;
        if (!avpool::cli::findSegment(JPG_BASE_KEY + channel, creator)) continue;
        if (creator > 0 && (kill(creator, 0) == 0 || errno == EPERM))
            throw CliError("demo: the jpg pool on channel " + std::to_string(channel) + " belongs to running pid " +
                           std::to_string(creator) + "; choose other channels with --channel");
    }
}

// One pool as its producer sees it: the putter, the frame buffer and the clock.
struct ProducedPool {
    JpgPoolPlan plan;
    JPGPutter putter;
    std::vector<unsigned char> buffer;  // one maximal frame, allocated before the first put
    unsigned long long number = 0;
    long long periodNs = 0;
    long long dueNs = 0;
};

void createPool(ProducedPool& pool, const JpgPoolPlan& plan) {
    pool.plan = plan;
    int dataSize = static_cast<int>(sizeof(JPGFrameInfo) + 4) * plan.frameCount + plan.ringBytes;
    pool.putter.init(plan.channel, plan.frameCount, plan.maxFrame, dataSize);
    pool.putter.reset(plan.width, plan.height, plan.fps, plan.quality);
    pool.buffer.resize(plan.maxFrame);
    pool.periodNs = NS_PER_S / plan.fps;
}

void putNextFrame(ProducedPool& pool, PoolBoard& published) {
    unsigned long long number = pool.number + 1;
    uint32_t stream = static_cast<uint32_t>(pool.plan.channel);
    int length = stampedLength(number, stream, pool.plan.minFrame, pool.plan.maxFrame);
    stampFrame(pool.buffer.data(), length, number, stream);
    timeval captured;
    gettimeofday(&captured, nullptr);
    // Before any byte of the frame is stored, so a reader that finds bytes of
    // this frame over an older one also finds this number here.
    published.started.store(number, std::memory_order_seq_cst);
    if (pool.putter.putFrame(pool.buffer.data(), length, captured) != 1)
        throw CliError("demo: the jpg pool on channel " + std::to_string(pool.plan.channel) + " refused frame " +
                       std::to_string(number));
    pool.number = number;
    published.completed.store(number, std::memory_order_release);
}

// Puts every frame that is due; a producer that fell far behind (a loaded
// machine) drops the backlog rather than bursting.
void putDueFrames(ProducedPool* pools, Board& board, long long now) {
    for (int p = 0; p < POOL_COUNT; ++p) {
        ProducedPool& pool = pools[p];
        if (now - pool.dueNs > NS_PER_S / 2) pool.dueNs = now;
        while (pool.dueNs <= now) {
            putNextFrame(pool, board.pools[p]);
            pool.dueNs += pool.periodNs;
        }
    }
}

long long nextDue(const ProducedPool* pools, long long limit) {
    for (int p = 0; p < POOL_COUNT; ++p)
        if (pools[p].dueNs < limit) limit = pools[p].dueNs;
    return limit;
}

// The consumer processes. However the demo ends, they are asked to stop and
// every one is reaped before it returns.
class ConsumerTeam {
public:
    ConsumerTeam(Board& board, const JpgPoolPlan* plans) : board_(board) {
        try {
            for (int i = 0; i < CONSUMER_COUNT; ++i) {
                const ConsumerPlan& plan = consumerPlans[i];
                jobs_[i] = ConsumerJob{&plan, &plans[plan.pool], &board, &board.consumers[i]};
                avpool::cli::startChild(children_[i], runJpgConsumer, &jobs_[i]);
            }
        } catch (...) {
            finish();
            throw;
        }
    }
    ~ConsumerTeam() { finish(); }
    ConsumerTeam(const ConsumerTeam&) = delete;
    ConsumerTeam& operator=(const ConsumerTeam&) = delete;

    const Child* children() const { return children_; }
    // Reaps those that ended; returns how many still run.
    int reap() { return avpool::cli::reapEnded(children_, CONSUMER_COUNT); }
    void finish() {
        board_.stop.store(1, std::memory_order_release);
        avpool::cli::endChildren(children_, CONSUMER_COUNT, END_GRACE_MS);
    }

private:
    Board& board_;
    Child children_[CONSUMER_COUNT];
    ConsumerJob jobs_[CONSUMER_COUNT];
};

int runDemo(const avpool::cli::ParsedArgs& args) {
    args.expectPositional(0, "no arguments besides options");
    int seconds = args.intOption("--seconds", DEFAULT_SECONDS, 1, MAX_SECONDS);
    int firstChannel = args.intOption("--channel", 0, 0, MAX_FIRST_CHANNEL);
    bool quiet = args.has("--quiet");

    JpgPoolPlan plans[POOL_COUNT];
    for (int p = 0; p < POOL_COUNT; ++p) {
        plans[p] = jpgPools[p];
        plans[p].channel += firstChannel;
    }
    refuseLivePools(plans);

    SharedBoard shared;
    Board& board = *shared.get();
    catchInterrupts();

    // The consumers are forked before the pools exist, so that each holds only
    // its own attachment, and wait until the board says the pools are ready.
    // Declared before the pools: on any way out, the pools are removed first.
    ConsumerTeam team(board, plans);
    std::unique_ptr<ProducedPool[]> pools(new ProducedPool[POOL_COUNT]);
    for (int p = 0; p < POOL_COUNT; ++p) createPool(pools[p], plans[p]);
    board.ready.store(1, std::memory_order_release);

    RunView run{plans, POOL_COUNT, consumerPlans, CONSUMER_COUNT, &board, team.children(), seconds};
    LiveSummary summary(run);
    long long start = monotonicNs();
    long long end = start + seconds * NS_PER_S;
    long long nextReport = start + NS_PER_S;
    for (int p = 0; p < POOL_COUNT; ++p) pools[p].dueNs = start;
    std::string producerError;
    long long now = start;
    double elapsed = 0;
    try {
        while (!interrupted && now < end) {
            putDueFrames(pools.get(), board, now);
            team.reap();
            if (now >= nextReport) {
                if (!quiet) summary.show(static_cast<double>(now - start) / NS_PER_S);
                nextReport += NS_PER_S;
            }
            sleepUntilNs(nextDue(pools.get(), nextReport < end ? nextReport : end));
            now = monotonicNs();
        }
        elapsed = static_cast<double>(now - start) / NS_PER_S;

        // Ask the consumers to stop and keep producing a little while, so that
        // one waiting for its next frame wakes up and sees the request.
        board.stop.store(1, std::memory_order_release);
        long long graceEnd = monotonicNs() + STOP_GRACE_NS;
        while (team.reap() > 0 && (now = monotonicNs()) < graceEnd) {
            putDueFrames(pools.get(), board, now);
            sleepUntilNs(nextDue(pools.get(), now + NS_PER_S / 100));
        }
    } catch (const std::exception& error) {
        producerError = error.what();
        elapsed = static_cast<double>(monotonicNs() - start) / NS_PER_S;
    }

    // Removing the pools wakes any consumer still blocked on a lock: its wait
    // fails, which it takes as the end. Whatever is left is then terminated.
    for (int p = 0; p < POOL_COUNT; ++p) pools[p].putter.release();
    team.finish();

    int failures = printFinalReport(run, elapsed, interrupted);
    if (!producerError.empty()) throw CliError(producerError);
    if (interrupted) return 128 + interrupted;
    return failures == 0 ? 0 : avpool::cli::EXIT_FAILED;
}

}  // namespace

}  // namespace avpool::demo

namespace avpool::cli {

const Verb demoVerb = {
    "demo",
    "[--seconds N] [--channel N] [--quiet]",
    "run a producer and checking consumers on two JPEG pools",
    "Creates two JPEG pools (channels 0 and 1: 12 slots at 25 fps and 8 slots at\n"
    "10 fps) and writes frames of varying size into them at their rates. Every\n"
    "frame carries its number, length and a checksum of its bytes. Four consumer\n"
    "processes follow the pools: live-0 and live-1 read every frame as it comes;\n"
    "slow-0 and slow-1 spend longer on each frame than the producer allows, get\n"
    "overtaken and catch up again, slow-0 on the newest frame and slow-1 on the\n"
    "oldest frame still safe from the writer.\n"
    "\n"
    "Each consumer checks every frame it reads. A frame the writer overwrote\n"
    "while it was being read counts as overwritten; a frame that stayed untouched\n"
    "and is still wrong counts as an error. A summary is shown about once a\n"
    "second (a table on a terminal, one line per consumer otherwise) and a final\n"
    "table at the end. The pools are removed when the demo ends, also on SIGINT\n"
    "or SIGTERM.\n"
    "\n"
    "Exits 0 when every consumer read frames and none was damaged, 1 otherwise,\n"
    "and 128 + the signal number when interrupted.\n",
    {
        {"--seconds", "N", "how long to run (default 10)"},
        {"--channel", "N", "first pool channel; the second is N + 1 (default 0)"},
        {"--quiet", nullptr, "no live summary, only the final table"},
    },
    avpool::demo::runDemo,
};

}  // namespace avpool::cli
