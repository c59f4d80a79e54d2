// Helpers shared by the pool benchmarks: allocation counting around a write path,
// a bare-copy baseline to set a put's cost against, and a two-process harness that
// measures how long a consumer blocked in its slot wait takes to wake after a put.
#pragma once

#include "counting_new.h"

#include <benchmark/benchmark.h>

#include <functional>
#include <memory>
#include <sys/types.h>

namespace avpool_bench {

// Calls of any global operator new in this process so far (the bench binary is
// linked with counting versions).
using avpool::testing::allocationCount;

// Counts the allocations from construction to report(), which publishes them per
// iteration as counter `name` and fails the benchmark when there were any.
class AllocationCheck {
public:
    AllocationCheck() : start_(allocationCount()) {}
    void report(benchmark::State& state, const char* name) const;

private:
    unsigned long long start_;
};

// Silences standard output and error for its lifetime: pool set-up prints its
// geometry on every run, which would otherwise land between (or inside, with
// --benchmark_format=json) the results.
class QuietSetup {
public:
    QuietSetup();
    ~QuietSetup();
    QuietSetup(const QuietSetup&) = delete;
    QuietSetup& operator=(const QuietSetup&) = delete;

private:
    int savedOut_;
    int savedErr_;
};

// Runs a pool's set-up inside a QuietSetup. When it throws, the benchmark fails
// with the exception's message and the result is false.
bool setUpQuietly(benchmark::State& state, const std::function<void()>& setUp);

// A payload buffer of `length` bytes (at least 8, for a stamp) with varied content.
std::unique_ptr<unsigned char[]> makePayload(int length);

// The baseline for a put of range(0) bytes: one memcpy per iteration from a buffer
// of that size into a destination of ringBytes, walked and wrapped as a data ring
// is, with the same bytes-processed accounting as the put benchmarks.
void runCopyBaseline(benchmark::State& state, int ringBytes);

// CLOCK_MONOTONIC in nanoseconds: one clock for both processes of a latency run.
long long monotonicNs();

// A producer's clock value carried in the first 8 bytes of an element's payload.
void writeStamp(void* payload, long long ns);
long long readStamp(const void* payload);

// Waits up to timeoutMs for the child to end; kills it when it does not. Returns
// its wait status, or -1 when it had to be killed.
int reapWithin(pid_t pid, int timeoutMs);

// The consumer side of a latency run, created in the consumer process.
class LatencyConsumer {
public:
    virtual ~LatencyConsumer() = default;
    // Step to the next element and block until its slot lock opens.
    virtual void waitNext() = 0;
    // The producer's stamp in the element waitNext() ended on.
    virtual long long stamp() = 0;
};

struct LatencyOptions {
    int elements = 3000;
    // The producer's pause between the consumer's ready signal and the put, so the
    // consumer is blocked in its wait when the element arrives.
    int pauseUs = 150;
    // The longest the producer waits for any one step of the consumer.
    int deadlineMs = 5000;
};

// One run: the pool must exist (the putter initialised) before the call. A forked
// consumer attaches through `attach`, then, element by element, tells the producer
// it is about to wait, waits, and notes its clock minus the stamp it reads. The
// producer calls put(stamp) with its clock taken just before the put. Reports the
// counters p50_us, p99_us and max_us, or fails the benchmark; the consumer is always
// reaped, killed if it overruns.
void runWakeLatency(benchmark::State& state, const LatencyOptions& options,
                    const std::function<void(long long stampNs)>& put,
                    const std::function<std::unique_ptr<LatencyConsumer>()>& attach);

}  // namespace avpool_bench
