// Runs a fuzz target without libFuzzer: seeded random inputs for a bounded number
// of runs and seconds (--runs N --seconds S --seed N). The getters' own lines on
// stderr are silenced; a fault or a hang prints the input that caused it, in hex,
// before the process dies.
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" int avpool_fuzz_report_fd;
int avpool_fuzz_report_fd = 2;

namespace {
std::vector<uint8_t> input;

void report(int sig) {
    dprintf(avpool_fuzz_report_fd, "\nsignal %d on input of %zu bytes:\n", sig, input.size());
    for (uint8_t b : input) dprintf(avpool_fuzz_report_fd, "%02x", b);
    dprintf(avpool_fuzz_report_fd, "\n");
    signal(sig == SIGALRM ? SIGABRT : sig, SIG_DFL);  // a hang ends as an abort
    raise(sig == SIGALRM ? SIGABRT : sig);
}
}  // namespace

int main(int argc, char** argv) {
    long runs = 10000;
    double seconds = 10;
    unsigned seed = 1;
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string arg = argv[i];
        if (arg == "--runs") runs = atol(argv[i + 1]);
        if (arg == "--seconds") seconds = atof(argv[i + 1]);
        if (arg == "--seed") seed = static_cast<unsigned>(atol(argv[i + 1]));
    }
    for (int sig : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGALRM}) signal(sig, report);
    avpool_fuzz_report_fd = dup(2);
    dup2(open("/dev/null", O_WRONLY), 2);
    std::mt19937 random(seed);
    auto start = std::chrono::steady_clock::now();
    auto took = [&] { return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(); };
    long done = 0;
    for (; done < runs && took() <= seconds; ++done) {
        input.resize(random() % 512);
        for (uint8_t& b : input) b = static_cast<uint8_t>(random());
        alarm(10);
        LLVMFuzzerTestOneInput(input.data(), input.size());
        alarm(0);
    }
    dprintf(avpool_fuzz_report_fd, "%ld random inputs in %.1f s (seed %u), no fault\n", done, took(), seed);
    return 0;
}
