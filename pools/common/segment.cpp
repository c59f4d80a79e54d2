#include "segment.h"

#include <sys/sem.h>
#include <sys/shm.h>

namespace avpool::detail {

int createSegment(key_t key, size_t size) {
    return shmget(key, size, CREATE_EXCLUSIVE);
}

int openSegment(key_t key, size_t size, Raise raise) {
    int id = shmget(key, size, OPEN_READ);
    if (id == -1) systemFailure("shmget failed", raise);
    return id;
}

void* attachSegment(int id, AttachFailure rule, Raise raise) {
    void* address = shmat(id, nullptr, 0);
    bool failed = rule == AttachFailure::Null ? address == nullptr : address == notAttached();
    if (failed) systemFailure("shmat failed", raise);
    return address;
}

size_t segmentSize(int id) {
    shmid_ds status;
    if (shmctl(id, IPC_STAT, &status) == -1) return 0;
    return status.shm_segsz;
}

void* openPoolSegment(int& id, key_t key, size_t size, AttachFailure rule, Raise raise) {
    id = openSegment(key, size, raise);
    return attachSegment(id, rule, raise);
}

void forceRemoveSegment(key_t key, size_t size) {
    int id = shmget(key, size, CREATE_OR_OPEN);
    if (id != -1) shmctl(id, IPC_RMID, nullptr);
}

int createSemSet(key_t key, int count) {
    return semget(key, count, CREATE_EXCLUSIVE);
}

int openSemSet(key_t key, int count, Raise raise) {
    int id = semget(key, count, OPEN_READ);
    if (id == -1) systemFailure("semget failed", raise);
    return id;
}

void removeSemSet(int& id, int count) {
    for (int i = 0; i < count; ++i) semctl(id, i, IPC_RMID);
    id = -1;
}

void forceRemoveSemSet(key_t key, int lookupCount, int removeCalls) {
    int id = semget(key, lookupCount, CREATE_OR_OPEN);
    if (id != -1) removeSemSet(id, removeCalls);
}

void openSemGroups(key_t firstKey, int slotCount, SemGroups& groups, Raise raise) {
    int counts[SEM_MAX_GROUPS];
    int groupCount = semGroupCount(slotCount, counts);
    for (int g = 0; g < groupCount; ++g) groups.id[g] = openSemSet(firstKey + g, counts[g], raise);
}

void removeSemGroups(SemGroups& groups) {
    for (int g = 0; g < SEM_MAX_GROUPS; ++g) {
        if (g > 0 && (groups.id[g] == -1 || groups.count[g] == 0)) break;
        removeSemSet(groups.id[g], groups.count[g]);
        groups.count[g] = 0;
    }
}

void forgetSemGroups(SemGroups& groups) {
    for (int& id : groups.id) id = -1;
}

}  // namespace avpool::detail
