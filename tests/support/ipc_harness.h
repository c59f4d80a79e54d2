// Test harness for pools in System V IPC: forked children reaped within a deadline,
// raw read-only views of segments by key, semaphore probes, and a guard that
// removes everything left under the keys a test used.
#pragma once

#include <sys/ipc.h>
#include <sys/time.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

namespace avpool::test {

// How a child ended; one that outlived its deadline was killed with SIGKILL.
struct ExitStatus {
    bool timedOut = false, exited = false;
    int code = -1, signal = 0;
    bool ok() const { return exited && code == 0; }
    std::string describe() const;
};

// The child's end of the two pipes between parent and child.
class ChildLink {
public:
    ChildLink(int toParent, int fromParent) : toParent_(toParent), fromParent_(fromParent) {}
    void say(const std::string& line) const;  // one line to the parent
    bool awaitGo() const;                     // blocks for the parent's go(); false if it went away
    // A handler for sig, without SA_RESTART, that says "signal" to the parent.
    void reportSignal(int sig) const;

private:
    int toParent_, fromParent_;
};

// Runs body in a forked child; its result is the exit code, an escaping exception
// is the line "threw: <what>" and exit code 99. The child leaves through _exit.
class ForkedChild {
public:
    explicit ForkedChild(std::function<int(ChildLink&)> body);
    ~ForkedChild();  // kills and reaps a child still running
    ForkedChild(const ForkedChild&) = delete;
    ForkedChild& operator=(const ForkedChild&) = delete;

    bool readLine(std::string& line, int timeoutMs = 10000);  // false on deadline or EOF
    void go();
    void signal(int sig);
    ExitStatus wait(int timeoutMs = 10000);  // killed with SIGKILL after timeoutMs

private:
    pid_t pid_ = -1;
    int fromChild_ = -1, toChild_ = -1;
    bool reaped_ = false;
    ExitStatus status_;
    std::string pending_;
};

// Polls condition every millisecond until it holds or timeoutMs passed.
bool eventually(const std::function<bool()>& condition, int timeoutMs = 10000);
// Runs attempt with the current second until the second did not change meanwhile.
bool withinOneSecond(const std::function<bool(time_t now)>& attempt);

inline timeval at(int second, int microsecond = 0) { return timeval{second, microsecond}; }

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
    int32_t i32(size_t offset) const;
    uint64_t u64(size_t offset) const;                                             // low word first
    std::vector<int> words(size_t offset, size_t count, size_t stride = 4) const;  // every stride bytes
    std::vector<unsigned char> bytes(size_t offset, size_t count) const;
    std::vector<unsigned char> all() const { return bytes(0, size_); }
    const unsigned char* at(size_t offset) const { return base_ + offset; }

private:
    size_t size_ = 0;
    const unsigned char* base_ = nullptr;
};

int shmIdOf(key_t key);     // -1 when no segment is under key
int semIdOf(key_t key);     // -1 when no semaphore set is under key
bool shmIdAlive(int shmId);
bool semIdAlive(int semId);
int semCountAt(key_t key);     // sem_nsems of the set under key, -1 when none
int attachmentsOf(key_t key);  // shm_nattch, -1 when none
int lockValue(key_t key, int index);    // GETVAL, -1 on failure
int lockWaiters(key_t key, int index);  // GETZCNT, -1 on failure
std::vector<int> lockValues(key_t key, int count);
int plantSemSet(key_t key, int count);                          // a leftover set; its id or -1
int plantSegment(key_t key, size_t size, unsigned char fill);  // a leftover segment; its id or -1
bool pokeWord(key_t key, size_t offset, int32_t value);        // a stray process's write
bool setLockValue(key_t key, int index, int value);
// AVPOOL_FAULT_CYCLES when set (the long runs of `./dev faults`), else shortDefault.
int faultCycles(int shortDefault);
int ipcObjectsLeft();  // segments plus semaphore sets of this IPC namespace
// One semop of delta with SEM_UNDO, retried on EINTR; false on failure.
bool adjustWithUndo(key_t key, int index, short delta);

// Removes every segment and semaphore set under the keys at construction (an
// earlier run's leftovers) and at destruction.
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
