#include "ipc_harness.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <thread>

#include <poll.h>
#include <signal.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

namespace avpool::test {

namespace {

using Clock = std::chrono::steady_clock;

void writeAll(int fd, const char* data, size_t size) {
    for (ssize_t n = 0; size > 0; data += n, size -= static_cast<size_t>(n)) {
        if ((n = ::write(fd, data, size)) < 0 && errno == EINTR) n = 0;
        else if (n <= 0) return;
    }
}

void removeKey(key_t key) {
    shmctl(shmget(key, 0, 0), IPC_RMID, nullptr);  // an id of -1 fails harmlessly
    semctl(semget(key, 0, 0), 0, IPC_RMID);
}

int signalReportFd = -1;
void sayOnSignal(int) { (void)!::write(signalReportFd, "signal\n", 7); }

}  // namespace

std::string ExitStatus::describe() const {
    if (timedOut) return "timed out and killed";
    return exited ? "exited with " + std::to_string(code) : "killed by signal " + std::to_string(signal);
}

void ChildLink::say(const std::string& line) const {
    std::string out = line + "\n";
    writeAll(toParent_, out.data(), out.size());
}

bool ChildLink::awaitGo() const {
    char byte;
    ssize_t n;
    while ((n = ::read(fromParent_, &byte, 1)) < 0 && errno == EINTR) {
    }
    return n == 1;
}

void ChildLink::reportSignal(int sig) const {
    signalReportFd = toParent_;
    struct sigaction action {};
    action.sa_handler = sayOnSignal;
    sigemptyset(&action.sa_mask);
    sigaction(sig, &action, nullptr);
}

ForkedChild::ForkedChild(std::function<int(ChildLink&)> body) {
    int up[2], down[2];
    if (pipe(up) != 0 || pipe(down) != 0) throw std::runtime_error("pipe failed");
    fflush(nullptr);  // nothing buffered may be written twice
    pid_ = fork();
    if (pid_ < 0) throw std::runtime_error("fork failed");
    if (pid_ == 0) {
        close(up[0]);
        close(down[1]);
        ChildLink link(up[1], down[0]);
        int code = 99;
        try {
            code = body(link);
        } catch (const std::exception& e) {
            link.say(std::string("threw: ") + e.what());
        } catch (...) {
            link.say("threw: unknown");
        }
        fflush(nullptr);
        _exit(code);
    }
    close(up[1]);
    close(down[0]);
    fromChild_ = up[0];
    toChild_ = down[1];
}

ForkedChild::~ForkedChild() {
    if (!reaped_) wait(0);
    close(fromChild_);
    close(toChild_);
}

bool ForkedChild::readLine(std::string& line, int timeoutMs) {
    auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        size_t end = pending_.find('\n');
        if (end != std::string::npos) {
            line = pending_.substr(0, end);
            pending_.erase(0, end + 1);
            return true;
        }
        pollfd p{fromChild_, POLLIN, 0};
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        int ready = ::poll(&p, 1, left > 0 ? static_cast<int>(left) : 0);
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return false;
        char buffer[256];
        ssize_t n = ::read(fromChild_, buffer, sizeof buffer);
        if (n <= 0 && !(n < 0 && errno == EINTR)) return false;
        pending_.append(buffer, static_cast<size_t>(n > 0 ? n : 0));
    }
}

void ForkedChild::go() { writeAll(toChild_, "g", 1); }

void ForkedChild::signal(int sig) {
    if (!reaped_) ::kill(pid_, sig);
}

ExitStatus ForkedChild::wait(int timeoutMs) {
    if (reaped_) return status_;
    int raw = 0;
    if (!eventually([&] { return waitpid(pid_, &raw, WNOHANG) == pid_; }, timeoutMs)) {
        ::kill(pid_, SIGKILL);
        while (waitpid(pid_, &raw, 0) < 0 && errno == EINTR) {
        }
        status_.timedOut = true;
    }
    reaped_ = true;
    status_.exited = WIFEXITED(raw);
    status_.code = status_.exited ? WEXITSTATUS(raw) : -1;
    status_.signal = WIFSIGNALED(raw) ? WTERMSIG(raw) : 0;
    return status_;
}

bool eventually(const std::function<bool()>& condition, int timeoutMs) {
    auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        if (condition()) return true;
        if (Clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

// The second is read the way the age probe reads it: time() follows the coarse
// clock and can still show the old second a few milliseconds after the probe's
// gettimeofday has moved on.
static time_t preciseSecond() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return now.tv_sec;
}

bool withinOneSecond(const std::function<bool(time_t now)>& attempt) {
    for (;;) {
        const time_t before = preciseSecond();
        const bool result = attempt(before);
        if (preciseSecond() == before) return result;
    }
}

RawSegment::RawSegment(key_t key) {
    const int id = shmget(key, 0, 0);
    shmid_ds ds{};
    if (id == -1 || shmctl(id, IPC_STAT, &ds) != 0) return;
    size_ = ds.shm_segsz;
    void* address = shmat(id, nullptr, SHM_RDONLY);
    if (address != reinterpret_cast<void*>(-1)) base_ = static_cast<const unsigned char*>(address);
}

RawSegment::~RawSegment() {
    if (base_ != nullptr) shmdt(base_);
}

int32_t RawSegment::i32(size_t offset) const {
    int32_t value;
    memcpy(&value, base_ + offset, sizeof value);
    return value;
}

uint64_t RawSegment::u64(size_t offset) const {
    return static_cast<uint64_t>(static_cast<uint32_t>(i32(offset + 4))) << 32 | static_cast<uint32_t>(i32(offset));
}

std::vector<int> RawSegment::words(size_t offset, size_t count, size_t stride) const {
    std::vector<int> values;
    for (size_t k = 0; k < count; ++k) values.push_back(i32(offset + k * stride));
    return values;
}

std::vector<unsigned char> RawSegment::bytes(size_t offset, size_t count) const {
    return std::vector<unsigned char>(base_ + offset, base_ + offset + count);
}

int shmIdOf(key_t key) { return shmget(key, 0, 0); }
int semIdOf(key_t key) { return semget(key, 0, 0); }

static int semCountOf(int semId) {  // sem_nsems, -1 on failure
    semid_ds ds{};
    union {
        int val;
        semid_ds* buf;
    } arg;
    arg.buf = &ds;
    return semctl(semId, 0, IPC_STAT, arg) != 0 ? -1 : static_cast<int>(ds.sem_nsems);
}

bool shmIdAlive(int shmId) {
    shmid_ds ds{};
    return shmctl(shmId, IPC_STAT, &ds) == 0;
}

bool semIdAlive(int semId) { return semCountOf(semId) != -1; }
int semCountAt(key_t key) { return semCountOf(semIdOf(key)); }

int attachmentsOf(key_t key) {
    shmid_ds ds{};
    return shmctl(shmIdOf(key), IPC_STAT, &ds) != 0 ? -1 : static_cast<int>(ds.shm_nattch);
}

int lockValue(key_t key, int index) { return semctl(semIdOf(key), index, GETVAL); }  // -1 when no set
int lockWaiters(key_t key, int index) { return semctl(semIdOf(key), index, GETZCNT); }

std::vector<int> lockValues(key_t key, int count) {
    std::vector<int> values;
    for (int i = 0; i < count; ++i) values.push_back(lockValue(key, i));
    return values;
}

int plantSemSet(key_t key, int count) { return semget(key, count, IPC_CREAT | IPC_EXCL | 0600); }

int plantSegment(key_t key, size_t size, unsigned char fill) {
    int id = shmget(key, size, IPC_CREAT | IPC_EXCL | 0600);
    void* address = id == -1 ? reinterpret_cast<void*>(-1) : shmat(id, nullptr, 0);
    if (address == reinterpret_cast<void*>(-1)) return -1;
    memset(address, fill, size);
    shmdt(address);
    return id;
}

bool pokeWord(key_t key, size_t offset, int32_t value) {
    int id = shmIdOf(key);
    void* address = id == -1 ? reinterpret_cast<void*>(-1) : shmat(id, nullptr, 0);
    if (address == reinterpret_cast<void*>(-1)) return false;
    memcpy(static_cast<unsigned char*>(address) + offset, &value, sizeof value);
    shmdt(address);
    return true;
}

bool setLockValue(key_t key, int index, int value) { return semctl(semIdOf(key), index, SETVAL, value) == 0; }

int faultCycles(int shortDefault) {
    const char* cycles = getenv("AVPOOL_FAULT_CYCLES");
    return cycles != nullptr && atoi(cycles) > 0 ? atoi(cycles) : shortDefault;
}

int ipcObjectsLeft() {
    int count = 0;
    for (const char* table : {"/proc/sysvipc/shm", "/proc/sysvipc/sem"}) {
        FILE* file = fopen(table, "r");
        char line[512];
        for (int n = 0; file != nullptr && fgets(line, sizeof line, file) != nullptr; ++n) count += n > 0;
        if (file != nullptr) fclose(file);
    }
    return count;
}

bool adjustWithUndo(key_t key, int index, short delta) {
    sembuf op{static_cast<unsigned short>(index), delta, SEM_UNDO};
    int id = semIdOf(key), result;
    while ((result = semop(id, &op, 1)) != 0 && errno == EINTR) {
    }
    return result == 0;
}

IpcKeys::IpcKeys(std::initializer_list<key_t> keys) : keys_(keys) { removeAll(); }
IpcKeys::~IpcKeys() { removeAll(); }
void IpcKeys::add(key_t key) { keys_.push_back(key), removeKey(key); }
void IpcKeys::removeAll() const {
    for (key_t key : keys_) removeKey(key);
}

}  // namespace avpool::test
