// JPEG pool: what a putFrame costs beside a bare copy of the same picture, whether
// it allocates, and how soon a reader blocked on the slot lock wakes after it.
#include "support.h"

#include <avpool/jpg.h>

#include <memory>

using namespace avpool_bench;

namespace {

constexpr int COST_CHANNEL = 0;
constexpr int LATENCY_CHANNEL = 1;
constexpr int FRAME_COUNT = JPG_MAX_FRAME_COUNT;
constexpr int MAX_FRAME_SIZE = 512 * 1024;
// The data ring holds eight maximal frames, each with its id prefix.
constexpr int RING_BYTES = 8 * (JPG_FRAME_PREFIX_SIZE + MAX_FRAME_SIZE);
constexpr int DATA_SIZE = (4 + static_cast<int>(sizeof(JPGFrameInfo))) * FRAME_COUNT + RING_BYTES;

// Creates the pool with working parameters; on failure the benchmark fails.
bool openPool(JPGPutter& putter, int channel, benchmark::State& state) {
    return setUpQuietly(state, [&] {
        putter.init(channel, FRAME_COUNT, MAX_FRAME_SIZE, DATA_SIZE);
        putter.reset(1280, 720, 30, 80);
    });
}

void BM_JpegPutFrame(benchmark::State& state) {
    const int length = static_cast<int>(state.range(0));
    JPGPutter putter;
    if (!openPool(putter, COST_CHANNEL, state)) return;
    std::unique_ptr<unsigned char[]> picture = makePayload(length);
    const timeval captured{1700000000, 0};

    AllocationCheck allocations;
    for (auto _ : state) {
        if (putter.putFrame(picture.get(), length, captured) != 1) {
            state.SkipWithError("putFrame refused the frame");
            break;
        }
    }
    allocations.report(state, "allocs_per_put");
    state.SetBytesProcessed(state.iterations() * length);
}
BENCHMARK(BM_JpegPutFrame)->Arg(1 << 10)->Arg(64 << 10)->Arg(512 << 10);

void BM_JpegMemcpy(benchmark::State& state) {
    runCopyBaseline(state, RING_BYTES);
}
BENCHMARK(BM_JpegMemcpy)->Arg(1 << 10)->Arg(64 << 10)->Arg(512 << 10);

// A reader that follows the writer frame by frame, as a streaming server does.
class JpegConsumer : public LatencyConsumer {
public:
    explicit JpegConsumer(int channel) {
        getter_.init(channel);
        getter_.toWorking(safeTime_);
    }
    void waitNext() override {
        getter_.toNext(safeTime_);
        getter_.waitReady();
    }
    long long stamp() override {
        getter_.getFrame();
        return readStamp(getter_.frame.data);
    }

private:
    JPGGetter getter_;
    int safeTime_ = 0;
};

void BM_JpegWakeLatency(benchmark::State& state) {
    const int length = static_cast<int>(state.range(0));
    JPGPutter putter;
    if (!openPool(putter, LATENCY_CHANNEL, state)) return;
    std::unique_ptr<unsigned char[]> picture = makePayload(length);
    const timeval captured{1700000000, 0};

    for (auto _ : state) {
        runWakeLatency(
            state, LatencyOptions{},
            [&](long long stampNs) {
                writeStamp(picture.get(), stampNs);
                putter.putFrame(picture.get(), length, captured);
            },
            [] { return std::unique_ptr<LatencyConsumer>(new JpegConsumer(LATENCY_CHANNEL)); });
    }
}
BENCHMARK(BM_JpegWakeLatency)
    ->Arg(1 << 10)
    ->Arg(64 << 10)
    ->Arg(512 << 10)
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
