// The demo's producer: a producer and several consumer processes on two JPEG
// pools, a video pool, the four audio pools and the two analysis pools, every
// element checked, with a live summary. The producer (this process) creates the
// pools and writes into them at their rates; the consumers are forked children
// that publish their counters on a board in shared anonymous memory.

#include "demo/demo.h"

#include "cli/clock.h"
#include "cli/interrupt.h"
#include "demo/frame_stamp.h"
#include "demo/writers.h"
#include "kinds/pool_kinds.h"
#include "kinds/shm_view.h"

#include <avpool/aac.h>
#include <avpool/amr.h>
#include <avpool/jpg.h>
#include <avpool/lum.h>
#include <avpool/md.h>
#include <avpool/mp4.h>
#include <avpool/opus.h>
#include <avpool/pcm.h>

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

using avpool::cli::Family;
namespace kinds = avpool::cli::kinds;

int amrMode(unsigned long long number) {
    return static_cast<int>(number % 8);
}

int segmentKey(const PoolPlan& plan) {
    return avpool::cli::segmentKey(*plan.kind, plan.channel);
}

int lockKey(const PoolPlan& plan) {
    return avpool::cli::firstLockKey(*plan.kind, plan.channel);
}

const char* poolLabel(const PoolPlan& plan, char* text, int size) {
    if (!plan.kind->perChannel)
        snprintf(text, size, "%s -", plan.kind->name);
    else
        snprintf(text, size, "%s %d", plan.kind->name, plan.channel);
    return text;
}

long long periodNs(const PoolPlan& plan) {
    if (plan.kind->family == Family::Audio) return plan.fragmentMs * avpool::cli::NS_PER_S / 1000;
    return avpool::cli::NS_PER_S / plan.fps;
}

int maxFrameSize(const PoolPlan& plan) {
    return plan.kind->family == Family::Video ? plan.maxKey : plan.maxFrame;
}

// Per slot a frame record and a safe time, then the ring.
int dataSize(const PoolPlan& plan) {
    if (plan.kind->family == Family::Video)
        return static_cast<int>(sizeof(MP4FrameInfo) + 4) * plan.slots * plan.framesPerGop + plan.ringBytes;
    return static_cast<int>(sizeof(JPGFrameInfo) + 4) * plan.slots + plan.ringBytes;
}

int segmentSize(const PoolPlan& plan) {
    return dataSize(plan) + (plan.kind->family == Family::Video ? MP4_HEADER_SIZE : JPG_HEADER_SIZE);
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
//
// A PCM pool (its one fixed key) of 16-bit mono at 8 kHz: 2048-byte fragments
// of 1024 samples every 128 ms; an AAC pool of encoded fragments of 64 to 512
// bytes, counted by the pool as 2048 samples and 256 ms each, with the stream's
// AudioSpecificConfig (AAC LC, 8 kHz, mono) as streamParam. The Opus pool (its
// one fixed key) is given 8-bit mono at 8 kHz, which the pool counts as 512
// samples and 64 ms a fragment; it always copies 512 bytes and records the
// length given, 20 to 512. An AMR pool takes fragments of 32 to 1024 bytes,
// counted like AAC's, with the mode set (all eight modes) as streamParam and
// each fragment's mode as fragmentParam. Every ring holds 200 fragments, far
// more than a live reader ever lags.
//
// The analysis pools at the video rate: luminance pictures of 80 x 64 16-bit
// samples in a ring of 6, and motion maps of two 64 x 48 arrays in a ring of 5
// with a vibration level in the header.
const PoolPlan poolPlans[] = {
    // kind, channel, slots, frames per GOP, fps, width, height, quality, frame
    // sizes, I frame sizes, short GOPs, ring bytes; audio format, channels,
    // rate, streamParam, fragment ms, samples; vibration, stamped parts
    {&kinds::jpg, 0, 12, 1, 25, 640, 480, 80, 2048, 65536, 0, 0, 0, 0, 256 * 1024, 0, 0, 0, 0, 0, 0, 0, 1},
    {&kinds::jpg, 1, 8, 1, 10, 320, 240, 60, 512, 16384, 0, 0, 0, 0, 96 * 1024, 0, 0, 0, 0, 0, 0, 0, 1},
    {&kinds::mp4, 0, 8, 30, 30, 1280, 720, 0, 2048, 12288, 30720, 61440, 5, 18, 640 * 1024, 0, 0, 0, 0, 0, 0, 0,
     1},
    {&kinds::pcm, 0, AUDIO_SLOT_COUNT, 1, 0, 0, 0, 0, PCM_FRAGMENT_SIZE, PCM_FRAGMENT_SIZE, 0, 0, 0, 0, 0, 16, 1,
     8000, 0, 128, 1024, 0, 1},
    {&kinds::aac, 0, AUDIO_SLOT_COUNT, 1, 0, 0, 0, 0, 64, AAC_MAX_FRAGMENT_SIZE, 0, 0, 0, 0, 0, 16, 1, 8000, 0x1588,
     256, 2048, 0, 1},
    {&kinds::opus, 0, AUDIO_SLOT_COUNT, 1, 0, 0, 0, 0, STAMP_SIZE, OPUS_FRAGMENT_SIZE, 0, 0, 0, 0, 0, 8, 1, 8000, 0,
     64, 512, 0, 1},
    {&kinds::amr, 0, AUDIO_SLOT_COUNT, 1, 0, 0, 0, 0, 32, AMR_MAX_FRAGMENT_SIZE, 0, 0, 0, 0, 0, 16, 1, 8000, 0xff,
     256, 2048, 0, 1},
    {&kinds::lum, 0, LUM_FRAME_COUNT, 1, 30, 80, 64, 0, 80 * 64 * 2, 80 * 64 * 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
     0, 1},
    {&kinds::md, 0, MD_FRAME_COUNT, 1, 30, 64, 48, 0, 64 * 48 * 4, 64 * 48 * 4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 42,
     2},
};
constexpr int POOL_COUNT = sizeof poolPlans / sizeof poolPlans[0];

static_assert(80 * 64 <= LUM_MAX_SAMPLES && 64 * 48 <= MD_MAX_ELEMENTS, "analysis plans exceed their slots");

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
    {"live-pcm", 3, 0, Catchup::Newest},
    {"live-aac", 4, 0, Catchup::Newest},
    {"live-opus", 5, 0, Catchup::Newest},
    {"live-amr", 6, 0, Catchup::Newest},
    {"live-lum", 7, 0, Catchup::Newest},
    {"live-md", 8, 0, Catchup::Newest},
};
constexpr int CONSUMER_COUNT = sizeof consumerPlans / sizeof consumerPlans[0];

static_assert(POOL_COUNT <= MAX_POOLS && CONSUMER_COUNT <= MAX_CONSUMERS, "board too small");

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

// The pools of one run and the consumers that follow them, indexed alike on
// the board.
struct Cast {
    PoolPlan pools[MAX_POOLS];
    int poolCount = 0;
    ConsumerPlan consumers[MAX_CONSUMERS];
    int consumerCount = 0;
    // Fixed-key pools of another running process, not run.
    PoolPlan leftAlone[MAX_POOLS];
    pid_t owners[MAX_POOLS];
    int leftAloneCount = 0;
};

// Refuses channels whose pool belongs to a running process: creating a pool
// removes whatever is under its key, and that may be a device's live stream.
// A pool under a fixed key cannot move to other channels: one of another
// running process (a second demo beside the first) is left to it, and so are
// its consumers.
void castPools(int firstChannel, Cast& cast) {
    int index[POOL_COUNT];
    for (int p = 0; p < POOL_COUNT; ++p) {
        PoolPlan plan = poolPlans[p];
        plan.channel += firstChannel;
        index[p] = -1;
        pid_t creator = avpool::cli::runningCreator(segmentKey(plan));
        if (creator != 0 && !plan.kind->perChannel) {
            cast.owners[cast.leftAloneCount] = creator;
            cast.leftAlone[cast.leftAloneCount++] = plan;
            continue;
        }
        if (creator != 0)
            throw CliError("demo: the " + avpool::cli::poolName(plan.kind->name, plan.channel) +
                           " belongs to running pid " + std::to_string(creator) + "; choose other channels with --channel");
        index[p] = cast.poolCount;
        cast.pools[cast.poolCount++] = plan;
    }
    // The kinds' semaphore keys overlap across channels: on some channels one
    // pool's putter would remove the locks of another.
    for (int p = 0; p < cast.poolCount; ++p) {
        const PoolPlan& plan = cast.pools[p];
        for (int q = 0; q < cast.poolCount + cast.leftAloneCount; ++q) {
            const PoolPlan& other = q < cast.poolCount ? cast.pools[q] : cast.leftAlone[q - cast.poolCount];
            if (q == p || lockKey(other) != lockKey(plan)) continue;
            throw CliError(std::string("demo: on channel ") + std::to_string(firstChannel) + " the " +
                           plan.kind->name + " and " + other.kind->name +
                           " pools would keep their locks under one key, " + avpool::cli::hexKey(lockKey(plan)) +
                           "; choose other channels with --channel");
        }
    }
    for (const ConsumerPlan& consumer : consumerPlans) {
        if (index[consumer.pool] < 0) continue;
        ConsumerPlan& cast_ = cast.consumers[cast.consumerCount++];
        cast_ = consumer;
        cast_.pool = index[consumer.pool];
    }
}

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
    pool.writer = plan.kind->writer(plan);
    pool.buffer.resize(static_cast<size_t>(maxFrameSize(plan)) * plan.parts);
    pool.periodNs = periodNs(plan);
}

// Whether the next frame of a video pool is an I frame: the current GOP has
// all its frames, or all that a short GOP gets.
bool opensGop(const ProducedPool& pool) {
    const PoolPlan& plan = pool.plan;
    if (plan.kind->family != Family::Video) return false;
    if (pool.gop == 0) return true;
    bool isShort = plan.shortGop > 0 && pool.gop % static_cast<unsigned long long>(plan.shortGop) == 0;
    return pool.inGop >= (isShort ? plan.shortLength : plan.framesPerGop);
}

// The stream seed of array `part` of an element.
uint32_t partStream(uint32_t stream, int part) {
    return stream | static_cast<uint32_t>(part) << 16;
}

void putNextFrame(ProducedPool& pool, PoolBoard& published) {
    const PoolPlan& plan = pool.plan;
    unsigned long long number = pool.number + 1;
    bool key = opensGop(pool);
    uint32_t stream = static_cast<uint32_t>(plan.channel) | static_cast<uint32_t>(plan.kind->demoStream) << 8;
    int length = key ? stampedLength(number, stream, plan.minKey, plan.maxKey)
                     : stampedLength(number, stream, plan.minFrame, plan.maxFrame);
    // Each array of an element carries its own stamp.
    for (int part = 0; part < plan.parts; ++part)
        stampFrame(pool.buffer.data() + static_cast<size_t>(part) * length, length, number, partStream(stream, part));
    timeval captured;
    gettimeofday(&captured, nullptr);
    if (key) published.gopFirst[(pool.gop + 1) % GOP_HISTORY].store(number, std::memory_order_seq_cst);
    // Before any byte of the frame is stored, so a reader that finds bytes of
    // this frame over an older one also finds this number here.
    published.started.store(number, std::memory_order_seq_cst);
    if (!pool.writer->put(pool.buffer.data(), length, number, key, captured))
        throw CliError("demo: the " + avpool::cli::poolName(plan.kind->name, plan.channel) + " refused frame " +
                       std::to_string(number));
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
void putDueFrames(ProducedPool* pools, int count, Board& board, long long now) {
    for (int p = 0; p < count; ++p) {
        ProducedPool& pool = pools[p];
        if (now - pool.dueNs > NS_PER_S / 2) pool.dueNs = now;
        while (pool.dueNs <= now) {
            putNextFrame(pool, board.pools[p]);
            pool.dueNs += pool.periodNs;
        }
    }
}

long long nextDue(const ProducedPool* pools, int count, long long limit) {
    for (int p = 0; p < count; ++p)
        if (pools[p].dueNs < limit) limit = pools[p].dueNs;
    return limit;
}

// The consumer processes. However the demo ends, they are asked to stop and
// every one is reaped before it returns.
class ConsumerTeam {
public:
    ConsumerTeam(Board& board, const Cast& cast) : board_(board), count_(cast.consumerCount) {
        const PoolPlan* plans = cast.pools;
        try {
            for (int i = 0; i < count_; ++i) {
                const ConsumerPlan& plan = cast.consumers[i];
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
    int reap() { return avpool::cli::reapEnded(children_, count_); }
    void finish() {
        board_.stop.store(1, std::memory_order_release);
        avpool::cli::endChildren(children_, count_, END_GRACE_MS);
    }

private:
    Board& board_;
    int count_;
    Child children_[MAX_CONSUMERS];
    ConsumerJob jobs_[MAX_CONSUMERS];
};

}  // namespace

int runDemo(int seconds, int firstChannel, bool quiet) {
    Cast cast;
    castPools(firstChannel, cast);
    const PoolPlan* plans = cast.pools;
    int poolCount = cast.poolCount;

    SharedBoard shared;
    Board& board = *shared.get();
    catchInterrupts();

    // The consumers are forked before the pools exist, so that each holds only
    // its own attachment, and wait until the board says the pools are ready.
    // Declared before the pools: on any way out, the pools are removed first.
    // The information area comes before the pools, as on a device; its
    // profiles say streaming once the pools exist.
    ConsumerTeam team(board, cast);
    ProfilePublisher profiles(plans, poolCount);
    std::unique_ptr<ProducedPool[]> pools(new ProducedPool[poolCount]);
    for (int p = 0; p < poolCount; ++p) createPool(pools[p], plans[p]);
    profiles.streaming();
    board.published.store(profiles.published() ? 1 : 0, std::memory_order_relaxed);
    board.ready.store(1, std::memory_order_release);

    RunView run{plans, poolCount, cast.consumers, cast.consumerCount, &board, team.children(), seconds,
                &profiles.connections(), cast.leftAlone, cast.owners, cast.leftAloneCount};
    LiveSummary summary(run);
    long long start = monotonicNs();
    long long end = start + seconds * NS_PER_S;
    long long nextReport = start + NS_PER_S;
    for (int p = 0; p < poolCount; ++p) pools[p].dueNs = start;
    std::string producerError;
    long long now = start;
    double elapsed = 0;
    try {
        while (!interrupted && now < end) {
            putDueFrames(pools.get(), poolCount, board, now);
            profiles.sample();
            team.reap();
            if (now >= nextReport) {
                if (!quiet) summary.show(static_cast<double>(now - start) / NS_PER_S);
                nextReport += NS_PER_S;
            }
            sleepUntilNs(nextDue(pools.get(), poolCount, nextReport < end ? nextReport : end));
            now = monotonicNs();
        }
        elapsed = static_cast<double>(now - start) / NS_PER_S;

        // Ask the consumers to stop and keep producing a little while, so that
        // one waiting for its next frame wakes up and sees the request.
        board.stop.store(1, std::memory_order_release);
        long long graceEnd = monotonicNs() + STOP_GRACE_NS;
        while (team.reap() > 0 && (now = monotonicNs()) < graceEnd) {
            putDueFrames(pools.get(), poolCount, board, now);
            sleepUntilNs(nextDue(pools.get(), poolCount, now + NS_PER_S / 100));
        }
    } catch (const std::exception& error) {
        producerError = error.what();
        elapsed = static_cast<double>(monotonicNs() - start) / NS_PER_S;
    }

    // Removing the pools wakes any consumer still blocked on a lock: its wait
    // fails, which it takes as the end. Whatever is left is then terminated.
    for (int p = 0; p < poolCount; ++p) pools[p].writer->release();
    team.finish();
    profiles.finish();

    int failures = printFinalReport(run, elapsed, interrupted);
    if (!producerError.empty()) throw CliError(producerError);
    if (interrupted) return 128 + interrupted;
    return failures == 0 ? 0 : avpool::cli::EXIT_FAILED;
}

}  // namespace avpool::demo
