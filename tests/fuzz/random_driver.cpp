// Runs a fuzz target without libFuzzer: seeded random inputs for a bounded
// number of runs and seconds, or the files given (to replay a reproducer). The
// getters' own lines on stderr are silenced while it runs; a fault or a hang
// prints the input that caused it, in hex, before the process dies.
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" int avpool_fuzz_report_fd;
int avpool_fuzz_report_fd = 2;

namespace {
constexpr int HANG_SECONDS = 10;
std::vector<uint8_t> input;
int& reportFd = avpool_fuzz_report_fd;

void report(int sig) {
    char line[64];
    int n = snprintf(line, sizeof line, "\nsignal %d on input of %zu bytes:\n", sig, input.size());
    if (write(reportFd, line, n) < 0) _exit(1);
    for (uint8_t b : input) {
        n = snprintf(line, sizeof line, "%02x", b);
        if (write(reportFd, line, n) < 0) break;
    }
    if (write(reportFd, "\n", 1) < 0) _exit(1);
    signal(sig == SIGALRM ? SIGABRT : sig, SIG_DFL);
    raise(sig == SIGALRM ? SIGABRT : sig);
}

int run(const std::vector<uint8_t>& bytes) {
    input = bytes;
    alarm(HANG_SECONDS);
    LLVMFuzzerTestOneInput(input.data(), input.size());
    alarm(0);
    return 0;
}
}  // namespace

int main(int argc, char** argv) {
    long runs = 10000;
    double seconds = 10;
    unsigned seed = 1;
    std::vector<std::string> files;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--runs" && i + 1 < argc) runs = atol(argv[++i]);
        else if (arg == "--seconds" && i + 1 < argc) seconds = atof(argv[++i]);
        else if (arg == "--seed" && i + 1 < argc) seed = static_cast<unsigned>(atol(argv[++i]));
        else files.push_back(arg);
    }
    for (int sig : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGALRM}) signal(sig, report);

    if (!files.empty()) {
        for (const std::string& file : files) {
            std::ifstream in(file, std::ios::binary);
            run(std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {}));
        }
        printf("replayed %zu inputs\n", files.size());
        return 0;
    }

    reportFd = dup(2);
    int null = open("/dev/null", O_WRONLY);
    dup2(null, 2);
    std::mt19937 random(seed);
    auto start = std::chrono::steady_clock::now();
    long done = 0;
    for (; done < runs; ++done) {
        if (std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() > seconds) break;
        std::vector<uint8_t> bytes(random() % 512);
        for (uint8_t& b : bytes) b = static_cast<uint8_t>(random());
        run(bytes);
    }
    double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    dprintf(reportFd, "%ld random inputs in %.1f s (seed %u), no fault\n", done, took, seed);
    return 0;
}
