// Test harness for pools in System V IPC: forked children that are always reaped
// within a deadline, raw read-only views of segments by key, semaphore probes and
// a guard that removes everything left under the keys a test used.
#pragma once

#include <sys/ipc.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

namespace avpool::test {

// ---------------------------------------------------------------- children

// How a child ended. A child that outlived its deadline was killed with SIGKILL.
struct ExitStatus {
    bool timedOut = false;
    bool exited = false;
    int code = -1;    // exit code when exited
    int signal = 0;   // terminating signal otherwise

    bool ok() const { return exited && code == 0; }
    std::string describe() const;
};

// The child's end of the two pipes between parent and child.
class ChildLink {
public:
    ChildLink(int toParent, int fromParent) : toParent_(toParent), fromParent_(fromParent) {}
    // One line to the parent (a newline is appended).
    void say(const std::string& line) const;
    // Blocks until the parent sends one byte; false if the parent went away.
    bool awaitGo() const;
    // Installs a handler for sig, without SA_RESTART, that says "signal" to the
    // parent: the parent learns that the signal has interrupted whatever the
    // child was blocked in.
    void reportSignal(int sig) const;

private:
    int toParent_;
    int fromParent_;
};

// Runs body in a forked child. The body's result becomes the exit code; an
// exception escaping it is reported as the line "threw: <what>" and exit code 99.
// The child leaves through _exit, so nothing of the parent (test framework,
// pool objects copied by the fork) is torn down twice.
class ForkedChild {
public:
    explicit ForkedChild(std::function<int(ChildLink&)> body);
    ~ForkedChild();  // kills and reaps a child still running
    ForkedChild(const ForkedChild&) = delete;
    ForkedChild& operator=(const ForkedChild&) = delete;

    pid_t pid() const { return pid_; }
    // Next line from the child, without its newline; false on deadline or EOF.
    bool readLine(std::string& line, int timeoutMs = 10000);
    // Lets a child waiting in awaitGo() continue.
    void go();
    // True while the child has not ended (it is not reaped by this).
    bool running();
    void signal(int sig);
    // Reaps the child; after timeoutMs it is killed with SIGKILL and reaped.
    ExitStatus wait(int timeoutMs = 10000);

private:
    pid_t pid_ = -1;
    int fromChild_ = -1;
    int toChild_ = -1;
    bool reaped_ = false;
    ExitStatus status_;
    std::string pending_;
};

// Polls condition every millisecond until it holds or timeoutMs passed.
bool eventually(const std::function<bool()>& condition, int timeoutMs = 10000);

// Runs attempt with the current wall-clock second until the second has not
// changed while it ran, and returns that run's result: for checks of ages in
// whole seconds that must not straddle a tick.
bool withinOneSecond(const std::function<bool(time_t now)>& attempt);

// --------------------------------------------------------------- raw access

// A segment found by key and attached read-only: the oracle for layout tests,
// independent of the library's own record types.
class RawSegment {
public:
    explicit RawSegment(key_t key);
    ~RawSegment();
    RawSegment(const RawSegment&) = delete;
    RawSegment& operator=(const RawSegment&) = delete;

    bool attached() const { return base_ != nullptr; }
    size_t size() const { return size_; }
    // 32-bit words in the machine's byte order at a byte offset.
    int32_t i32(size_t offset) const;
    uint32_t u32(size_t offset) const;
    // A 64-bit number stored as two words, low word first.
    uint64_t u64(size_t offset) const;
    std::vector<unsigned char> bytes(size_t offset, size_t count) const;
    const unsigned char* at(size_t offset) const { return base_ + offset; }

private:
    size_t size_ = 0;
    const unsigned char* base_ = nullptr;
};

int shmIdOf(key_t key);  // -1 when no segment is under key
int semIdOf(key_t key);  // -1 when no semaphore set is under key
int semCountOf(int semId);  // sem_nsems from IPC_STAT, -1 on failure
bool shmIdAlive(int shmId);   // IPC_STAT still succeeds on this id
int attachmentsOf(key_t key);  // shm_nattch of the segment under key, -1 when none
bool semIdAlive(int semId);

// GETVAL / GETZCNT of one semaphore of the set under key (-1 on failure).
int lockValue(key_t key, int index);
int lockWaiters(key_t key, int index);
// All values of the first count semaphores under key.
std::vector<int> lockValues(key_t key, int count);

// Creates a set of count semaphores under key, for tests that plant leftovers.
int plantSemSet(key_t key, int count);
// Likewise a segment of size bytes, every byte set to fill; its id, or -1.
int plantSegment(key_t key, size_t size, unsigned char fill);

// What a stray process does: one 32-bit word written at a byte offset of the
// segment under key, and one semaphore set to a value. False on failure.
bool pokeWord(key_t key, size_t offset, int32_t value);
bool setLockValue(key_t key, int index, int value);

// Kill cycles of the fault-injection tests: AVPOOL_FAULT_CYCLES when set (the
// long runs of `./dev faults`), otherwise the short default of a test run.
int faultCycles(int shortDefault);

// The System V objects of this IPC namespace: segments plus semaphore sets.
int ipcObjectsLeft();

// One semop of delta on semaphore index of the set under key, with SEM_UNDO (the
// kernel takes it back when the process dies), retried on EINTR. False when
// there is no set under key or the operation failed.
bool adjustWithUndo(key_t key, int index, short delta);

// ------------------------------------------------------ memory across fork

// A zero-filled T in an anonymous shared mapping: a forked child and its parent
// see the same object, and no IPC key is used. T must be trivially copyable;
// it is neither constructed nor destroyed.
void* mapShared(size_t size);
void unmapShared(void* address, size_t size);

template <class T>
class SharedMemory {
public:
    SharedMemory() : value_(static_cast<T*>(mapShared(sizeof(T)))) {}
    ~SharedMemory() { unmapShared(value_, sizeof(T)); }
    SharedMemory(const SharedMemory&) = delete;
    SharedMemory& operator=(const SharedMemory&) = delete;

    T* operator->() const { return value_; }
    T& operator*() const { return *value_; }

private:
    T* value_;
};

// Removes every segment and semaphore set under the given keys, at construction
// (leftovers of an earlier run in a shared namespace) and at destruction.
class IpcKeys {
public:
    IpcKeys(std::initializer_list<key_t> keys);
    ~IpcKeys();
    void add(key_t key);

private:
    void removeAll() const;

    std::vector<key_t> keys_;
};

}  // namespace avpool::test
