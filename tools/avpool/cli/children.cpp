#include "cli/children.h"

#include "cli/cli.h"
#include "cli/clock.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace avpool::cli {

namespace {

long long monotonicMs() {
    return monotonicNs() / 1000000;
}

}  // namespace

void startChild(Child& child, int (*body)(void* argument), void* argument) {
    fflush(stdout);
    fflush(stderr);
    pid_t parent = getpid();
    pid_t pid = fork();
    if (pid == -1) throw CliError(std::string("fork failed: ") + strerror(errno));
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != parent) _exit(EXIT_FAILED);  // the parent died before prctl took effect
        signal(SIGINT, SIG_IGN);
        signal(SIGTERM, SIG_DFL);
        int result = EXIT_FAILED;
        try {
            result = body(argument);
        } catch (...) {
        }
        fflush(stdout);
        fflush(stderr);
        _exit(result);
    }
    child.pid = pid;
    child.running = true;
    child.status = 0;
}

int reapEnded(Child* children, int count) {
    int running = 0;
    for (int i = 0; i < count; ++i) {
        Child& child = children[i];
        if (!child.running) continue;
        int status = 0;
        pid_t result = waitpid(child.pid, &status, WNOHANG);
        if (result == child.pid || (result == -1 && errno == ECHILD)) {
            child.running = false;
            child.status = result == child.pid ? status : 0;
        } else {
            ++running;
        }
    }
    return running;
}

int waitChildren(Child* children, int count, int timeoutMs) {
    long long deadline = monotonicMs() + timeoutMs;
    int running = reapEnded(children, count);
    while (running > 0 && monotonicMs() < deadline) {
        sleepMs(10);
        running = reapEnded(children, count);
    }
    return running;
}

void signalChildren(Child* children, int count, int sig) {
    for (int i = 0; i < count; ++i)
        if (children[i].running) kill(children[i].pid, sig);
}

void endChildren(Child* children, int count, int graceMs) {
    if (waitChildren(children, count, graceMs) == 0) return;
    signalChildren(children, count, SIGTERM);
    if (waitChildren(children, count, graceMs) == 0) return;
    signalChildren(children, count, SIGKILL);
    for (int i = 0; i < count; ++i) {
        Child& child = children[i];
        if (!child.running) continue;
        while (waitpid(child.pid, &child.status, 0) == -1 && errno == EINTR) {
        }
        child.running = false;
    }
}

const char* childOutcome(const Child& child, char* text, int size) {
    if (child.running)
        snprintf(text, size, "running");
    else if (WIFEXITED(child.status))
        snprintf(text, size, "exit %d", WEXITSTATUS(child.status));
    else if (WIFSIGNALED(child.status))
        snprintf(text, size, "killed by signal %d", WTERMSIG(child.status));
    else
        snprintf(text, size, "ended");
    return text;
}

}  // namespace avpool::cli
