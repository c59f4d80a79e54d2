// A lock between processes: one System V semaphore, 1 = free, 0 = held. Holders
// take it with SEM_UNDO, so the kernel gives it back when a holder dies inside.
#pragma once

#include "errors.h"

#include <sys/types.h>

namespace avpool::detail {

// Removes a set left under key by an earlier run, then creates a set of count
// semaphores (all 0) whose first is the lock, free. Failure: perror with
// failText and throw it as it is.
int createProcessLock(key_t key, int count, const char* failText, Raise raise);
// The lock under key, or -1 when nobody created one.
int findProcessLock(key_t key);
void removeProcessLock(int& id);

// Holds the lock for its lifetime. With id -1, or when the set has gone away
// meanwhile, it holds nothing and the caller runs unlocked.
class ProcessLockGuard {
public:
    explicit ProcessLockGuard(int id);
    ~ProcessLockGuard();
    bool held() const { return held_ != -1; }
    ProcessLockGuard(const ProcessLockGuard&) = delete;
    ProcessLockGuard& operator=(const ProcessLockGuard&) = delete;

private:
    int held_ = -1;
};

}  // namespace avpool::detail
