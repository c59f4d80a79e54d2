// avpool demo: a producer and several consumer processes on two JPEG pools and
// a video pool, every frame checked, with a live summary. The producer (this
// process) creates the pools and writes frames at their rates; the consumers
// are forked children that publish their counters on a board in shared
// anonymous memory.

#include "clock.h"
#include "demo.h"
#include "frame_stamp.h"
#include "interrupt.h"
#include "shm_view.h"
#include "verbs.h"

#include <avpool/jpg.h>
#include <avpool/mp4.h>

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

const char* kindName(PoolKind kind) {
    return kind == PoolKind::Mp4 ? "mp4" : "jpg";
}

int baseKey(PoolKind kind) {
    return kind == PoolKind::Mp4 ? MP4_BASE_KEY : JPG_BASE_KEY;
}

int maxFrameSize(const PoolPlan& plan) {
    return plan.kind == PoolKind::Mp4 ? plan.maxKey : plan.maxFrame;
}

// Per slot a frame record and a safe time, then the ring.
int dataSize(const PoolPlan& plan) {
    if (plan.kind == PoolKind::Mp4)
        return static_cast<int>(sizeof(MP4FrameInfo) + 4) * plan.slots * plan.framesPerGop + plan.ringBytes;
    return static_cast<int>(sizeof(JPGFrameInfo) + 4) * plan.slots + plan.ringBytes;
}

int segmentSize(const PoolPlan& plan) {
    return dataSize(plan) + (plan.kind == PoolKind::Mp4 ? MP4_HEADER_SIZE : JPG_HEADER_SIZE);
}

namespace {

using avpool::cli::Child;
using avpool::cli::CliError;
using avpool::cli::catchInterrupts;
using avpool::cli::interrupted;
using avpool::cli::sleepUntilNs;
using avpool::cli::monotonicNs;
using avpool::cli::NS_PER_S;

// Two JPEG pools of different geometry and rate. Each data ring holds several
// average frames and always more than one maximal frame (prefix and padding
// included), but fewer than it has slots on channel 0, so there a lagging
// reader sees frame bytes overwritten before their slots are reused.
//
// One video pool of 8 GOPs of 30 frames at 30 fps: an I frame of 30 to 60 KB,
// then P frames of 2 to 12 KB; every fifth GOP ends early, after 18 frames, as
// at a scene cut. Its ring holds about two and a half average GOPs, so a reader
// more than about two seconds behind finds frame bytes reused long before the
// writer comes round to its GOP's slots.
const PoolPlan poolPlans[] = {
    // kind, channel, slots, frames per GOP, fps, width, height, quality, frame
    // sizes, I frame sizes, short GOPs, ring bytes
    {PoolKind::Jpg, 0, 12, 1, 25, 640, 480, 80, 2048, 65536, 0, 0, 0, 0, 256 * 1024},
    {PoolKind::Jpg, 1, 8, 1, 10, 320, 240, 60, 512, 16384, 0, 0, 0, 0, 96 * 1024},
    {PoolKind::Mp4, 0, 8, 30, 30, 1280, 720, 0, 2048, 12288, 30720, 61440, 5, 18, 640 * 1024},
};
constexpr int POOL_COUNT = sizeof poolPlans / sizeof poolPlans[0];
constexpr int MAX_CHANNEL_OFFSET = 1;  // the plans' largest channel

// Readers at different paces: the live ones follow the newest frame, the slow
// ones spend more time on a frame than the producer gives them and get
// overtaken.
const ConsumerPlan consumerPlans[] = {
    {"live-0", 0, 0, Catchup::Newest},
    {"slow-0", 0, 100, Catchup::Newest},
    {"live-1", 1, 0, Catchup::Newest},
    {"slow-1", 1, 250, Catchup::Oldest},
    {"live-mp4", 2, 0, Catchup::Newest},
    {"slow-mp4", 2, 100, Catchup::Newest},
};
constexpr int CONSUMER_COUNT = sizeof consumerPlans / sizeof consumerPlans[0];

static_assert(POOL_COUNT <= MAX_POOLS && CONSUMER_COUNT <= MAX_CONSUMERS, "board too small");

constexpr int DEFAULT_SECONDS = 10;
constexpr int MAX_SECONDS = 24 * 3600;
constexpr int MAX_FIRST_CHANNEL = 255 - MAX_CHANNEL_OFFSET;
constexpr long long STOP_GRACE_NS = 2 * NS_PER_S;  // producing on while consumers finish
constexpr int END_GRACE_MS = 1000;                 // per step once the pools are gone

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
void refuseLivePools(const PoolPlan* plans) {
    for (int p = 0; p < POOL_COUNT; ++p) {
        int channel = plans[p].channel;
        pid_t creator = avpool::cli::runningCreator(baseKey(plans[p].kind) + channel);
        if (creator != 0)
            throw CliError(std::string("demo: the ") + kindName(plans[p].kind) + " pool on channel " +
                           std::to_string(channel) + " belongs to running pid " + std::to_string(creator) +
                           "; choose other channels with --channel");
    }
}

// A pool's putter behind one call per frame.
class PoolWriter {
public:
    virtual ~PoolWriter() = default;
    // False when the pool refused the frame. key: the frame opens a GOP.
    virtual bool put(unsigned char* data, int length, bool key, const timeval& captured) = 0;
    virtual void release() = 0;
};

class JpgWriter : public PoolWriter {
public:
    explicit JpgWriter(const PoolPlan& plan) {
        putter_.init(plan.channel, plan.slots, plan.maxFrame, dataSize(plan));
        putter_.reset(plan.width, plan.height, plan.fps, plan.quality);
    }
    bool put(unsigned char* data, int length, bool, const timeval& captured) override {
        return putter_.putFrame(data, length, captured) == 1;
    }
    void release() override { putter_.release(); }

private:
    JPGPutter putter_;
};

class Mp4Writer : public PoolWriter {
public:
    explicit Mp4Writer(const PoolPlan& plan) {
        putter_.init(plan.channel, plan.slots, plan.framesPerGop, maxFrameSize(plan), dataSize(plan));
        putter_.reset(plan.width, plan.height, plan.fps);
    }
    bool put(unsigned char* data, int length, bool key, const timeval& captured) override {
        if (key) return putter_.putIFrame(data, length, captured) != 1;
        putter_.putPFrame(data, length, captured);
        return true;
    }
    void release() override { putter_.release(); }

private:
    MP4Putter putter_;
};

// One pool as its producer sees it: the writer, the frame buffer and the clock.
struct ProducedPool {
    PoolPlan plan;
    std::unique_ptr<PoolWriter> writer;
    std::vector<unsigned char> buffer;  // one maximal frame, allocated before the first put
    unsigned long long number = 0;
    unsigned long long gop = 0;  // GOPs begun
    int inGop = 0;               // frames put in the current GOP
    long long periodNs = 0;
    long long dueNs = 0;
};

void createPool(ProducedPool& pool, const PoolPlan& plan) {
    pool.plan = plan;
    if (plan.kind == PoolKind::Mp4)
        pool.writer.reset(new Mp4Writer(plan));
    else
        pool.writer.reset(new JpgWriter(plan));
    pool.buffer.resize(maxFrameSize(plan));
    pool.periodNs = NS_PER_S / plan.fps;
}

// Whether the next frame of a video pool is an I frame: the current GOP has
// all its frames, or all that a short GOP gets.
bool opensGop(const ProducedPool& pool) {
    const PoolPlan& plan = pool.plan;
    if (plan.kind != PoolKind::Mp4) return false;
    if (pool.gop == 0) return true;
    bool isShort = plan.shortGop > 0 && pool.gop % static_cast<unsigned long long>(plan.shortGop) == 0;
    return pool.inGop >= (isShort ? plan.shortLength : plan.framesPerGop);
}

void putNextFrame(ProducedPool& pool, PoolBoard& published) {
    const PoolPlan& plan = pool.plan;
    unsigned long long number = pool.number + 1;
    bool key = opensGop(pool);
    uint32_t stream = static_cast<uint32_t>(plan.channel) | static_cast<uint32_t>(plan.kind) << 8;
    int length = key ? stampedLength(number, stream, plan.minKey, plan.maxKey)
                     : stampedLength(number, stream, plan.minFrame, plan.maxFrame);
    stampFrame(pool.buffer.data(), length, number, stream);
    timeval captured;
    gettimeofday(&captured, nullptr);
    if (key) published.gopFirst[(pool.gop + 1) % GOP_HISTORY].store(number, std::memory_order_seq_cst);
    // Before any byte of the frame is stored, so a reader that finds bytes of
    // this frame over an older one also finds this number here.
    published.started.store(number, std::memory_order_seq_cst);
    if (!pool.writer->put(pool.buffer.data(), length, key, captured))
        throw CliError(std::string("demo: the ") + kindName(plan.kind) + " pool on channel " +
                       std::to_string(plan.channel) + " refused frame " + std::to_string(number));
    if (key) {
        ++pool.gop;
        pool.inGop = 0;
    }
    ++pool.inGop;
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
    ConsumerTeam(Board& board, const PoolPlan* plans) : board_(board) {
        try {
            for (int i = 0; i < CONSUMER_COUNT; ++i) {
                const ConsumerPlan& plan = consumerPlans[i];
                jobs_[i] = ConsumerJob{&plan, &plans[plan.pool], &board, &board.consumers[i]};
                avpool::cli::startChild(children_[i], runConsumer, &jobs_[i]);
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

    PoolPlan plans[POOL_COUNT];
    for (int p = 0; p < POOL_COUNT; ++p) {
        plans[p] = poolPlans[p];
        plans[p].channel += firstChannel;
    }
    refuseLivePools(plans);

    SharedBoard shared;
    Board& board = *shared.get();
    catchInterrupts();

    // The consumers are forked before the pools exist, so that each holds only
    // its own attachment, and wait until the board says the pools are ready.
    // Declared before the pools: on any way out, the pools are removed first.
    // The information area comes before the pools, as on a device; its
    // profiles say streaming once the pools exist.
    ConsumerTeam team(board, plans);
    ProfilePublisher profiles(plans, POOL_COUNT);
    std::unique_ptr<ProducedPool[]> pools(new ProducedPool[POOL_COUNT]);
    for (int p = 0; p < POOL_COUNT; ++p) createPool(pools[p], plans[p]);
    profiles.streaming();
    board.published.store(profiles.published() ? 1 : 0, std::memory_order_relaxed);
    board.ready.store(1, std::memory_order_release);

    RunView run{plans, POOL_COUNT, consumerPlans, CONSUMER_COUNT, &board, team.children(), seconds,
                &profiles.connections()};
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
            profiles.sample();
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
    for (int p = 0; p < POOL_COUNT; ++p) pools[p].writer->release();
    team.finish();
    profiles.finish();

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
    "run a producer and checking consumers on two JPEG pools and a video pool",
    "Creates two JPEG pools (channels 0 and 1: 12 slots at 25 fps and 8 slots at\n"
    "10 fps) and a video pool (mp4 channel 0: 8 GOPs of 30 frames at 30 fps, an\n"
    "I frame of 30 to 60 KB and P frames of 2 to 12 KB, every fifth GOP cut short\n"
    "after 18 frames) and writes frames of varying size into them at their rates.\n"
    "Every frame carries its number, length and a checksum of its bytes.\n"
    "\n"
    "Six consumer processes follow the pools: live-0, live-1 and live-mp4 read\n"
    "every frame as it comes; slow-0, slow-1 and slow-mp4 spend longer on each\n"
    "frame than the producer allows, get overtaken and catch up again, slow-0 on\n"
    "the newest frame, slow-1 on the oldest frame still safe from the writer and\n"
    "slow-mp4 on the GOP being written. The video consumers read GOP by GOP; they\n"
    "count the GOPs they read, how the writer overtook them (frame bytes reused,\n"
    "the GOP older than 2 s, a GOP ID that is not the next one) and their jumps\n"
    "back to the GOP being written.\n"
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
        {"--channel", "N", "first pool channel: jpg N and N + 1, mp4 N (default 0)"},
        {"--quiet", nullptr, "no live summary, only the final table"},
    },
    avpool::demo::runDemo,
};

}  // namespace avpool::cli
