// System V shared-memory segments and semaphore sets as every pool uses them:
// exclusive creation with one forced release and retry, read-only opening by
// getters, and removal that reports nothing.
#pragma once

#include "errors.h"
#include "slot_lock.h"

#include <cstdio>
#include <cstring>

#include <cstddef>
#include <cstdint>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <type_traits>

namespace avpool::detail {

constexpr int CREATE_EXCLUSIVE = IPC_CREAT | IPC_EXCL | 0600;
constexpr int CREATE_OR_OPEN = IPC_CREAT | 0600;
constexpr int OPEN_READ = 0400;

// The all-ones address: what shmat returns on failure, and what the kinds other
// than JPEG and MP4 hold while they are not attached.
template <class T = void>
T* notAttached() {
    return reinterpret_cast<T*>(~uintptr_t{0});
}
template <class T>
bool isAttached(const T* address) {
    return address != nullptr && address != notAttached<T>();
}

// JPEG and MP4 only treat a null address from shmat as failure; the other kinds
// test for the documented (void*)-1.
enum class AttachFailure { Null, MinusOne };

// Runs create(); when it fails (usually a leftover of a crashed run under the
// key), runs forceRelease() and create() once more. A second failure is fatal.
template <class Create, class ForceRelease>
int createWithRetry(Create create, ForceRelease forceRelease, const char* failText, Raise raise,
                    const char* suffix = ".") {
    int id = create();
    if (id == -1) {
        forceRelease();
        id = create();
    }
    if (id == -1) systemFailure(failText, raise, suffix);
    return id;
}

int createSegment(key_t key, size_t size);  // exclusive; -1 on failure
template <class ForceRelease>
int createSegment(key_t key, size_t size, ForceRelease forceRelease, Raise raise) {
    return createWithRetry([&] { return createSegment(key, size); }, forceRelease, "shmget failed", raise);
}
int openSegment(key_t key, size_t size, Raise raise);
void* attachSegment(int id, AttachFailure rule, Raise raise);

// A putter's segment: created (with the one forced retry), attached, and every
// byte set to the kind's fill byte.
template <class ForceRelease>
void* createPoolSegment(int& id, key_t key, size_t size, AttachFailure rule, unsigned char fill,
                        ForceRelease forceRelease, Raise raise) {
    id = createSegment(key, size, forceRelease, raise);
    void* address = attachSegment(id, rule, raise);
    memset(address, fill, size);
    return address;
}
// The segment's real size (IPC_STAT), what a getter bounds what it reads by; 0
// when the id is gone.
size_t segmentSize(int id);
// A getter's segment: opened read-only asking for size bytes (the whole segment
// is mapped whatever that size), then attached.
void* openPoolSegment(int& id, key_t key, size_t size, AttachFailure rule, Raise raise);

// Removes whatever segment is under key; size 0 only finds an existing one.
void forceRemoveSegment(key_t key, size_t size);
// Getter release: detach only, leaving address at the kind's "not attached"
// value (null, or (void*)-1 for the kinds that test for it) and the id at -1.
template <class T>
void detachSegment(int& id, T*& address, typename std::common_type<T*>::type detached = nullptr) {
    if (address != detached) {
        shmdt(address);
        address = detached;
    }
    id = -1;
}

// A getter that found a header describing no pool: detach (release is the
// getter's own), so that nothing is read through it, and say so.
template <class Header, class Release>
[[noreturn]] void refuseHeader(Header*& pool, Release release, Raise raise) {
    if (pool == notAttached<Header>()) pool = nullptr;
    release();
    raise(POOL_NOT_READY);
    __builtin_unreachable();
}

// Putter release: detach, then remove the segment it owns.
template <class T>
void removeSegment(int& id, T*& address, typename std::common_type<T*>::type detached = nullptr) {
    int owned = id;
    detachSegment(id, address, detached);
    if (owned != -1) shmctl(owned, IPC_RMID, nullptr);
}

int createSemSet(key_t key, int count);  // exclusive; -1 on failure
template <class ForceRelease>
int createSemSet(key_t key, int count, ForceRelease forceRelease, Raise raise) {
    return createWithRetry([&] { return createSemSet(key, count); }, forceRelease, "semget failed", raise);
}
int openSemSet(key_t key, int count, Raise raise);
// One IPC_RMID per semaphore: the first removes the set, the rest fail quietly.
void removeSemSet(int& id, int count);
void forceRemoveSemSet(key_t key, int lookupCount, int removeCalls);

// Grouped kinds: group g lives under firstKey + g and holds min(remaining, 250)
// locks. forceRelease(g) removes a leftover set of group g before the one retry.
template <class ForceRelease>
void createSemGroups(key_t firstKey, int slotCount, SemGroups& groups, ForceRelease forceRelease, Raise raise,
                     const char* createLog = nullptr) {
    int groupCount = semGroupCount(slotCount, groups.count);
    for (int g = 0; g < groupCount; ++g) {
        if (createLog != nullptr) printf(createLog, groups.count[g]);
        groups.id[g] = createSemSet(firstKey + g, groups.count[g], [&] { forceRelease(g); }, raise);
    }
}
void openSemGroups(key_t firstKey, int slotCount, SemGroups& groups, Raise raise);
// Removes group 0 and each following group while it exists, at most four.
void removeSemGroups(SemGroups& groups);
// Getters only forget their sets.
void forgetSemGroups(SemGroups& groups);

}  // namespace avpool::detail
