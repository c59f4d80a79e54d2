#include "kinds/shm_view.h"

#include "cli/cli.h"

#include <cerrno>
#include <cstdio>
#include <csignal>
#include <cstring>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

namespace avpool::cli {

std::string hexKey(int key) {
    char text[16];
    snprintf(text, sizeof text, "0x%x", static_cast<unsigned>(key));
    return text;
}

std::string keyText(int key) {
    return hexKey(key) + " (" + std::to_string(key) + ")";
}

std::string poolName(const char* kind, int channel) {
    return std::string(kind) + " pool on channel " + std::to_string(channel);
}

bool findSegment(int key, pid_t& creator) {
    int id = shmget(key, 0, 0400);
    shmid_ds status;
    if (id == -1 || shmctl(id, IPC_STAT, &status) == -1) return false;
    creator = status.shm_cpid;
    return true;
}

bool processAlive(pid_t pid) {
    return pid > 0 && (kill(pid, 0) == 0 || errno == EPERM);
}

pid_t runningCreator(int key) {
    pid_t creator = 0;
    return findSegment(key, creator) && processAlive(creator) ? creator : 0;
}

SegmentView::SegmentView(int key, size_t headerSize, const std::string& what) : key_(key) {
    id_ = shmget(key, headerSize, 0400);
    if (id_ == -1) {
        if (errno == ENOENT) throw CliError("no " + what + " (key " + hexKey(key) + ")");
        throw CliError("cannot open " + what + " (key " + hexKey(key) + "): " + strerror(errno));
    }
    shmid_ds status;
    if (shmctl(id_, IPC_STAT, &status) == -1)
        throw CliError("cannot read the status of " + what + " (key " + hexKey(key) + "): " + strerror(errno));
    size_ = status.shm_segsz;
    creator_ = status.shm_cpid;
    attached_ = status.shm_nattch;
    void* address = shmat(id_, nullptr, SHM_RDONLY);
    if (address == reinterpret_cast<void*>(-1))
        throw CliError("cannot attach " + what + " (key " + hexKey(key) + "): " + strerror(errno));
    base_ = static_cast<const unsigned char*>(address);
}

SegmentView::~SegmentView() {
    if (base_ != nullptr) shmdt(base_);
}

bool SegmentView::read(size_t offset, void* out, size_t size) const {
    if (offset > size_ || size > size_ - offset) return false;
    memcpy(out, base_ + offset, size);
    return true;
}

LockView::LockView(int key, int count) {
    id_ = semget(key, count, 0400);
    if (id_ == -1) error_ = errno;
}

int LockView::value(int index) const {
    if (id_ == -1) return -1;
    return semctl(id_, index, GETVAL);
}

GroupedLockView::GroupedLockView(int firstKey, int slotCount) : firstKey_(firstKey) {
    for (int remaining = slotCount; remaining > 0 && groups() < MAX_GROUPS; remaining -= GROUP_SIZE) {
        int count = remaining < GROUP_SIZE ? remaining : GROUP_SIZE;
        groups_.emplace_back(firstKey + groups(), count);
        counts_.push_back(count);
    }
}

int GroupedLockView::value(int slot) const {
    int group = slot / GROUP_SIZE;
    if (slot < 0 || group >= groups()) return -1;
    return groups_[group].value(slot % GROUP_SIZE);
}

}  // namespace avpool::cli
