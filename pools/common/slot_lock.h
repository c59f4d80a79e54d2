// The per-slot lock: value 1 = closed (being written or next to be written),
// 0 = open. Only the putter sets values; readers only wait for zero.
#pragma once

#include "errors.h"

#include <avpool/common.h>

#include <sys/ipc.h>
#include <sys/sem.h>

namespace avpool::detail {

constexpr int LOCK_CLOSED = 1;
constexpr int LOCK_OPEN = 0;

// The fourth argument of semctl, which the caller declares.
union SemArg {
    int val;
    semid_ds* buf;
    unsigned short* array;
};

// SETVAL, reporting nothing; semctl's result.
int setValue(int semId, int index, int value);
// SETVAL; failure is "semctl failed.". Returns semctl's result (0).
int setLock(int semId, int index, int value, Raise raise);

// Waits, without time-out, until the semaphore is zero. JPEG and MP4 readers go
// back to waiting after a signal; the other kinds let the signal end the wait.
enum class OnSignal { Retry, Fail };
void waitForOpen(int semId, int index, OnSignal onSignal, Raise raise);
// The wait on a slot's lock as its record names it. The index comes from shared
// memory: one outside the pool's slots fails as the kernel fails a wait on a
// semaphore the set does not have ("semop failed.", errno EFBIG).
void waitForSlotLock(int semId, int lockIndex, int slots, OnSignal onSignal, Raise raise);

// Locks of pools that may exceed one set are spread over at most four sets
// ("groups") of at most 250 semaphores.
constexpr int SEM_GROUP_SIZE = 250;
constexpr int SEM_MAX_GROUPS = 4;

using avpool::SemGroups;

// group = slot / 250, index = slot % 250; group 4 and up: "Over Max Semaphore Group.".
void semPosition(int slot, int& group, int& index, Raise raise);

// The same lock operations for a slot of a grouped pool.
int setGroupedLock(const SemGroups& groups, int slot, int value, Raise raise);
void waitForSlotLock(const SemGroups& groups, int lockIndex, int slots, OnSignal onSignal, Raise raise);

// The group sizes for slotCount locks, filled in order, at most four groups.
int semGroupCount(int slotCount, int counts[SEM_MAX_GROUPS]);

}  // namespace avpool::detail
