// Time as the tool's verbs need it: a monotonic clock for pacing and
// deadlines, wall-clock microseconds to compare with capture times.
#pragma once

#include <ctime>
#include <sys/time.h>

namespace avpool::cli {

constexpr long long NS_PER_S = 1000000000LL;

inline long long monotonicNs() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * NS_PER_S + now.tv_nsec;
}

// A time given as seconds and microseconds (a timeval's, a capture time's),
// in microseconds.
inline long long microseconds(long long sec, long long usec) {
    return sec * 1000000 + usec;
}

inline long long wallClockUs() {
    timeval now;
    gettimeofday(&now, nullptr);
    return microseconds(now.tv_sec, now.tv_usec);
}

// Sleeps; a signal may end it early.
inline void sleepMs(int ms) {
    timespec delay{ms / 1000, (ms % 1000) * 1000000L};
    nanosleep(&delay, nullptr);
}

// Sleeps until the monotonic clock reads when (ns); a signal ends it early.
inline void sleepUntilNs(long long when) {
    timespec until{static_cast<time_t>(when / NS_PER_S), static_cast<long>(when % NS_PER_S)};
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
}

}  // namespace avpool::cli
