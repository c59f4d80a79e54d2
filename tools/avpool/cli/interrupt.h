// SIGINT, SIGTERM and SIGHUP as a request to stop: the long-running verbs
// catch them, finish the element in hand and end cleanly.
#pragma once

#include <csignal>

namespace avpool::cli {

// The signal that asked to stop, 0 while none has.
extern volatile sig_atomic_t interrupted;

// Installs the handler (without SA_RESTART, so a sleep ends early).
void catchInterrupts();

}  // namespace avpool::cli
