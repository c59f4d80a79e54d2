// Child processes of a verb that runs several pool users at once: start them,
// reap them without blocking, and end them with a deadline, never waiting
// forever on one that hangs.
#pragma once

#include <sys/types.h>

namespace avpool::cli {

struct Child {
    pid_t pid = -1;
    bool running = false;
    int status = 0;  // as waitpid reports it, once ended
};

// Forks a child that runs body(argument) and exits with its result, never
// returning into the caller's code (so no destructor of the parent's objects
// runs in the child). The child dies with its parent, ignores SIGINT (the
// parent decides when it ends) and takes SIGTERM's default action.
void startChild(Child& child, int (*body)(void* argument), void* argument);

// Reaps every listed child that has ended; returns how many still run.
int reapEnded(Child* children, int count);

// Reaps until none runs or timeoutMs passed; returns how many still run.
int waitChildren(Child* children, int count, int timeoutMs);

// Sends sig to every listed child that still runs.
void signalChildren(Child* children, int count, int sig);

// Ends the remaining children: waits graceMs, then SIGTERM and graceMs more,
// then SIGKILL and a blocking reap. Every child is reaped on return.
void endChildren(Child* children, int count, int graceMs);

// "exit 0", "exit 3", "killed by signal 15", "running".
const char* childOutcome(const Child& child, char* text, int size);

}  // namespace avpool::cli
