#include "cli/interrupt.h"

namespace avpool::cli {

volatile sig_atomic_t interrupted = 0;

namespace {

void onInterrupt(int sig) {
    interrupted = sig;
}

}  // namespace

void catchInterrupts() {
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGHUP, &action, nullptr);
}

}  // namespace avpool::cli
