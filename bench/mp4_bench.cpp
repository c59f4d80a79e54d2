// GOP video pool: what putIFrame and putPFrame cost beside a bare copy of the same
// frame, whether they allocate, and how soon a reader blocked in waitFrameReady
// wakes after the frame it waits for is put.
#include "support.h"

#include <avpool/mp4.h>

#include <memory>

using namespace avpool_bench;

namespace {

constexpr int COST_CHANNEL = 2;
constexpr int LATENCY_CHANNEL = 3;
// 900 slots: four semaphore groups (250, 250, 250, 150), as a long ring has.
constexpr int GOP_COUNT = 60;
constexpr int FRAMES_PER_GOP = 15;
constexpr int SLOTS = GOP_COUNT * FRAMES_PER_GOP;
constexpr int MAX_FRAME_SIZE = 512 * 1024;
// The data ring holds eight maximal frames, each with its id prefix.
constexpr int RING_BYTES = 8 * (8 + MAX_FRAME_SIZE);
constexpr int DATA_SIZE = (4 + static_cast<int>(sizeof(MP4FrameInfo))) * SLOTS + RING_BYTES;
const timeval CAPTURED{1700000000, 0};

// Creates the pool with working parameters; on failure the benchmark fails.
bool openPool(MP4Putter& putter, int channel, benchmark::State& state) {
    return setUpQuietly(state, [&] {
        putter.init(channel, GOP_COUNT, FRAMES_PER_GOP, MAX_FRAME_SIZE, DATA_SIZE);
        putter.reset(1920, 1080, 30);
    });
}

// Runs put as the timed part of one iteration (manual time), so the untimed frames
// around it cost nothing and no pause of the timer is counted.
template <class Put>
void timed(benchmark::State& state, Put put) {
    long long start = monotonicNs();
    put();
    state.SetIterationTime(static_cast<double>(monotonicNs() - start) * 1e-9);
}

// range(0): I frame bytes; range(1): P frames (of 8 KB, untimed) after each I
// frame. With 14 the GOPs are full and an I frame opens its own slot and closes
// the GOP after it; with 0 each I frame also ends the GOP before it early, opening
// its framesPerGop - 1 unwritten slots: the dearest an I frame gets.
void BM_Mp4PutIFrame(benchmark::State& state) {
    const int length = static_cast<int>(state.range(0));
    const int pFrames = static_cast<int>(state.range(1));
    MP4Putter putter;
    if (!openPool(putter, COST_CHANNEL, state)) return;
    std::unique_ptr<unsigned char[]> frame = makePayload(length);
    std::unique_ptr<unsigned char[]> pFrame = makePayload(8 << 10);

    AllocationCheck allocations;
    for (auto _ : state) {
        int result = 0;
        timed(state, [&] { result = putter.putIFrame(frame.get(), length, CAPTURED); });
        if (result != 0) {
            state.SkipWithError("putIFrame refused the frame");
            break;
        }
        for (int k = 0; k < pFrames; ++k) putter.putPFrame(pFrame.get(), 8 << 10, CAPTURED);
    }
    allocations.report(state, "allocs_per_put");
    state.SetBytesProcessed(state.iterations() * length);
}
BENCHMARK(BM_Mp4PutIFrame)
    ->Args({64 << 10, FRAMES_PER_GOP - 1})
    ->Args({512 << 10, FRAMES_PER_GOP - 1})
    ->Args({64 << 10, 0})
    ->UseManualTime();

// P frames; when a GOP is full an untimed I frame starts the next one.
void BM_Mp4PutPFrame(benchmark::State& state) {
    const int length = static_cast<int>(state.range(0));
    MP4Putter putter;
    if (!openPool(putter, COST_CHANNEL, state)) return;
    std::unique_ptr<unsigned char[]> frame = makePayload(length);
    putter.putIFrame(frame.get(), length, CAPTURED);

    AllocationCheck allocations;
    int inGop = 1;
    for (auto _ : state) {
        if (inGop == FRAMES_PER_GOP) {
            putter.putIFrame(frame.get(), length, CAPTURED);
            inGop = 1;
        }
        timed(state, [&] { putter.putPFrame(frame.get(), length, CAPTURED); });
        ++inGop;
    }
    allocations.report(state, "allocs_per_put");
    state.SetBytesProcessed(state.iterations() * length);
}
BENCHMARK(BM_Mp4PutPFrame)->Arg(8 << 10)->Arg(64 << 10)->UseManualTime();

void BM_Mp4Memcpy(benchmark::State& state) {
    runCopyBaseline(state, RING_BYTES);
}
BENCHMARK(BM_Mp4Memcpy)->Arg(8 << 10)->Arg(64 << 10)->Arg(512 << 10);

// A reader that follows the writer frame by frame and GOP by GOP, as a streaming
// server does. It starts on the writer's GOP, which the producer has filled.
class Mp4Consumer : public LatencyConsumer {
public:
    explicit Mp4Consumer(int channel) {
        {
            QuietSetup quiet;  // init prints the getter's addresses
            getter_.init(channel);
        }
        getter_.toWorkingGop(safeTime_);
    }
    void waitNext() override {
        if (++frame_ == FRAMES_PER_GOP) {
            getter_.toNextGop(safeTime_);
            frame_ = 0;
        }
        getter_.waitFrameReady(frame_);
    }
    long long stamp() override {
        if (getter_.getFrameData(frame_) == 0) return 0;  // overtaken: counts as a huge delay
        return readStamp(getter_.frameData);
    }

private:
    MP4Getter getter_;
    int safeTime_ = 0;
    int frame_ = FRAMES_PER_GOP - 1;
};

// range(0): I frame bytes, range(1): P frame bytes; GOPs of FRAMES_PER_GOP frames.
void BM_Mp4WakeLatency(benchmark::State& state) {
    const int iLength = static_cast<int>(state.range(0));
    const int pLength = static_cast<int>(state.range(1));
    MP4Putter putter;
    if (!openPool(putter, LATENCY_CHANNEL, state)) return;
    std::unique_ptr<unsigned char[]> iFrame = makePayload(iLength);
    std::unique_ptr<unsigned char[]> pFrame = makePayload(pLength);
    // One full GOP before the reader comes: it starts at that GOP's end.
    putter.putIFrame(iFrame.get(), iLength, CAPTURED);
    for (int k = 1; k < FRAMES_PER_GOP; ++k) putter.putPFrame(pFrame.get(), pLength, CAPTURED);

    for (auto _ : state) {
        int put = 0;
        runWakeLatency(
            state, LatencyOptions{},
            [&](long long stampNs) {
                if (put++ % FRAMES_PER_GOP == 0) {
                    writeStamp(iFrame.get(), stampNs);
                    putter.putIFrame(iFrame.get(), iLength, CAPTURED);
                } else {
                    writeStamp(pFrame.get(), stampNs);
                    putter.putPFrame(pFrame.get(), pLength, CAPTURED);
                }
            },
            [] { return std::unique_ptr<LatencyConsumer>(new Mp4Consumer(LATENCY_CHANNEL)); });
    }
}
BENCHMARK(BM_Mp4WakeLatency)
    ->Args({64 << 10, 8 << 10})
    ->Args({512 << 10, 64 << 10})
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
