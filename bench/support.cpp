#include "support.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

namespace avpool_bench {

void AllocationCheck::report(benchmark::State& state, const char* name) const {
    unsigned long long allocations = allocationCount() - start_;
    double iterations = state.iterations() > 0 ? static_cast<double>(state.iterations()) : 1.0;
    state.counters[name] = static_cast<double>(allocations) / iterations;
    if (allocations != 0) state.SkipWithError("memory allocated on the write path");
}

namespace {
int silence(int fd) {
    int saved = dup(fd);
    int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (saved >= 0 && null >= 0) dup2(null, fd);
    if (null >= 0) close(null);
    return saved;
}

void restore(int fd, int saved) {
    if (saved < 0) return;
    dup2(saved, fd);
    close(saved);
}
}  // namespace

QuietSetup::QuietSetup() {
    fflush(stdout);
    fflush(stderr);
    savedOut_ = silence(STDOUT_FILENO);
    savedErr_ = silence(STDERR_FILENO);
}

QuietSetup::~QuietSetup() {
    fflush(stdout);
    fflush(stderr);
    restore(STDOUT_FILENO, savedOut_);
    restore(STDERR_FILENO, savedErr_);
}

bool setUpQuietly(benchmark::State& state, const std::function<void()>& setUp) {
    try {
        QuietSetup quiet;
        setUp();
    } catch (const std::exception& e) {
        state.SkipWithError(e.what());
        return false;
    }
    return true;
}

std::unique_ptr<unsigned char[]> makePayload(int length) {
    int size = std::max(length, 8);
    std::unique_ptr<unsigned char[]> payload(new unsigned char[size]);
    for (int i = 0; i < size; ++i) payload[i] = static_cast<unsigned char>(i * 131 + 7);
    return payload;
}

void runCopyBaseline(benchmark::State& state, int ringBytes) {
    const int length = static_cast<int>(state.range(0));
    const int entry = (length + 3) & ~3;
    if (entry > ringBytes) {
        state.SkipWithError("element larger than the ring");
        return;
    }
    std::unique_ptr<unsigned char[]> source = makePayload(length);
    std::unique_ptr<unsigned char[]> ring(new unsigned char[ringBytes]);
    memset(ring.get(), 0, ringBytes);  // touch every page, as creating a pool does
    int position = 0;
    for (auto _ : state) {
        if (position + entry > ringBytes) position = 0;
        memcpy(ring.get() + position, source.get(), length);
        benchmark::ClobberMemory();
        position += entry;
    }
    state.SetBytesProcessed(state.iterations() * length);
}

long long monotonicNs() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000000000LL + now.tv_nsec;
}

void writeStamp(void* payload, long long ns) {
    memcpy(payload, &ns, sizeof ns);
}

long long readStamp(const void* payload) {
    long long ns;
    memcpy(&ns, payload, sizeof ns);
    return ns;
}

int reapWithin(pid_t pid, int timeoutMs) {
    const long long deadline = monotonicNs() + static_cast<long long>(timeoutMs) * 1000000LL;
    for (;;) {
        int status = 0;
        pid_t reaped = waitpid(pid, &status, WNOHANG);
        if (reaped == pid) return status;
        if (reaped == -1 && errno != EINTR) return -1;
        if (monotonicNs() >= deadline) break;
        usleep(1000);
    }
    kill(pid, SIGKILL);
    int status = 0;
    while (waitpid(pid, &status, 0) == -1 && errno == EINTR) {
    }
    return -1;
}

namespace {

// The consumer process: log[0] counts the elements done, log[1 + i] holds the
// wake-up delay of element i in nanoseconds. Never returns into the benchmark.
[[noreturn]] void consume(int readyFd, long long* log, int elements,
                          const std::function<std::unique_ptr<LatencyConsumer>()>& attach, pid_t parent) {
    // Never outlive the producer: a consumer left waiting on a lock would hang.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(5);
    int code = 0;
    try {
        std::unique_ptr<LatencyConsumer> consumer = attach();
        for (int i = 0; i < elements; ++i) {
            const char ready = 1;
            if (write(readyFd, &ready, 1) != 1) {
                code = 4;
                break;
            }
            consumer->waitNext();
            long long woke = monotonicNs();
            log[1 + i] = woke - consumer->stamp();
            log[0] = i + 1;
        }
    } catch (const std::exception& e) {
        fprintf(stderr, "latency consumer: %s\n", e.what());
        code = 3;
    }
    _exit(code);
}

void pauseFor(int microseconds) {
    timespec pause{0, static_cast<long>(microseconds) * 1000L};
    while (nanosleep(&pause, &pause) == -1 && errno == EINTR) {
    }
}

// The producer's side: one put per ready signal. Returns an error text, or "".
std::string produce(int readyFd, const LatencyOptions& options, const std::function<void(long long)>& put) {
    for (int i = 0; i < options.elements; ++i) {
        pollfd waitFor{readyFd, POLLIN, 0};
        int polled;
        while ((polled = poll(&waitFor, 1, options.deadlineMs)) == -1 && errno == EINTR) {
        }
        if (polled == 0) return "consumer not ready in time";
        char ready;
        if (polled < 0 || read(readyFd, &ready, 1) != 1) return "consumer ended early";
        pauseFor(options.pauseUs);
        try {
            put(monotonicNs());
        } catch (const std::exception& e) {
            return std::string("put failed: ") + e.what();
        }
    }
    return "";
}

// Why a reaped consumer's run does not count, or "".
std::string consumerOutcome(int status, long long done, int elements) {
    if (status == -1) return "consumer did not finish in time";
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return "consumer failed";
    if (done != elements) return "consumer missed elements";
    return "";
}

// Nearest-rank percentile of sorted samples, in microseconds.
double percentileUs(const long long* sorted, int count, double fraction) {
    int rank = static_cast<int>(std::ceil(fraction * count));
    rank = std::min(std::max(rank, 1), count);
    return static_cast<double>(sorted[rank - 1]) / 1000.0;
}

}  // namespace

void runWakeLatency(benchmark::State& state, const LatencyOptions& options,
                    const std::function<void(long long stampNs)>& put,
                    const std::function<std::unique_ptr<LatencyConsumer>()>& attach) {
    const int elements = options.elements;
    const size_t bytes = sizeof(long long) * (static_cast<size_t>(elements) + 1);
    void* shared = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED) {
        state.SkipWithError("mmap failed");
        return;
    }
    long long* log = static_cast<long long*>(shared);
    log[0] = 0;

    int ready[2];
    if (pipe(ready) != 0) {
        munmap(shared, bytes);
        state.SkipWithError("pipe failed");
        return;
    }
    fflush(stdout);
    fflush(stderr);
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        close(ready[0]);
        consume(ready[1], log, elements, attach, parent);
    }
    close(ready[1]);
    std::string error = pid == -1 ? "fork failed" : produce(ready[0], options, put);
    close(ready[0]);

    if (pid != -1) {
        // After a failure the consumer may be blocked in its wait: stop it at once.
        int status = reapWithin(pid, error.empty() ? options.deadlineMs : 0);
        if (error.empty()) error = consumerOutcome(status, log[0], elements);
    }

    if (error.empty()) {
        long long* samples = log + 1;
        std::sort(samples, samples + elements);
        state.counters["p50_us"] = percentileUs(samples, elements, 0.50);
        state.counters["p99_us"] = percentileUs(samples, elements, 0.99);
        state.counters["max_us"] = percentileUs(samples, elements, 1.0);
        state.counters["elements"] = elements;
    }
    munmap(shared, bytes);
    if (!error.empty()) state.SkipWithError(error.c_str());
}

}  // namespace avpool_bench
