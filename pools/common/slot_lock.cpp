#include "slot_lock.h"

#include <cerrno>
#include <sys/sem.h>

namespace avpool::detail {

int setValue(int semId, int index, int value) {
    SemArg arg;
    arg.val = value;
    return semctl(semId, index, SETVAL, arg);
}

int setLock(int semId, int index, int value, Raise raise) {
    int result = setValue(semId, index, value);
    if (result == -1) systemFailure("semctl failed", raise);
    return result;
}

void waitForOpen(int semId, int index, OnSignal onSignal, Raise raise) {
    sembuf op;
    op.sem_num = static_cast<unsigned short>(index);
    op.sem_op = 0;
    op.sem_flg = 0;
    for (;;) {
        if (semop(semId, &op, 1) == 0) return;
        if (errno == EINTR && onSignal == OnSignal::Retry) continue;
        systemFailure("semop failed", raise);
    }
}

namespace {
void requireSlot(int lockIndex, int slots, Raise raise) {
    if (lockIndex >= 0 && lockIndex < slots) return;
    errno = EFBIG;
    systemFailure("semop failed", raise);
}
}  // namespace

void waitForSlotLock(int semId, int lockIndex, int slots, OnSignal onSignal, Raise raise) {
    requireSlot(lockIndex, slots, raise);
    waitForOpen(semId, lockIndex, onSignal, raise);
}

void semPosition(int slot, int& group, int& index, Raise raise) {
    group = slot / SEM_GROUP_SIZE;
    index = slot % SEM_GROUP_SIZE;
    if (group >= SEM_MAX_GROUPS) raise("Over Max Semaphore Group.");
}

// A slot of -250 or below lands in a negative group: no set, so the system call
// fails as it does for any other slot that has no lock.
static int groupSet(const SemGroups& groups, int group) {
    return group < 0 ? -1 : groups.id[group];
}

int setGroupedLock(const SemGroups& groups, int slot, int value, Raise raise) {
    int group, index;
    semPosition(slot, group, index, raise);
    return setLock(groupSet(groups, group), index, value, raise);
}

void waitForSlotLock(const SemGroups& groups, int lockIndex, int slots, OnSignal onSignal, Raise raise) {
    requireSlot(lockIndex, slots, raise);
    int group, index;
    semPosition(lockIndex, group, index, raise);
    waitForOpen(groupSet(groups, group), index, onSignal, raise);
}

int semGroupCount(int slotCount, int counts[SEM_MAX_GROUPS]) {
    int remaining = slotCount;
    int groups = 0;
    for (int g = 0; g < SEM_MAX_GROUPS; ++g) {
        counts[g] = remaining < SEM_GROUP_SIZE ? remaining : SEM_GROUP_SIZE;
        remaining -= counts[g];
        ++groups;
        if (remaining < 1) break;
    }
    for (int g = groups; g < SEM_MAX_GROUPS; ++g) counts[g] = 0;
    return groups;
}

}  // namespace avpool::detail
