#include "slot_wait.h"

#include <cerrno>
#include <ctime>
#include <sys/ipc.h>
#include <sys/sem.h>

namespace avpool::gst {

namespace {

// How long one slice of a wait lasts: the longest unlock() waits for the
// streaming thread to notice.
constexpr long SLICE_MS = 20;
// Slices between two looks at the creator.
constexpr int LIVENESS_SLICES = 50;

}  // namespace

bool SlotLocks::open(const PoolKeys& keys, int slotCount) {
    sets_.clear();
    groupSize_ = keys.groupSize;
    for (int first = 0; first < slotCount; first += groupSize_) {
        int id = semget(keys.firstLockKey + first / groupSize_, 0, 0400);
        if (id == -1) return false;
        sets_.push_back(id);
    }
    return !sets_.empty();
}

Wait SlotLocks::waitOpen(int slot, const std::atomic<bool>& stop, pid_t creator) const {
    size_t set = static_cast<size_t>(slot / groupSize_);
    if (slot < 0 || set >= sets_.size()) return Wait::Gone;
    sembuf zero{static_cast<unsigned short>(slot % groupSize_), 0, 0};
    timespec slice{0, SLICE_MS * 1000000L};
    for (int slices = 1;; ++slices) {
        if (stop.load(std::memory_order_relaxed)) return Wait::Stopped;
        if (semtimedop(sets_[set], &zero, 1, &slice) == 0) return Wait::Open;
        if (errno != EAGAIN && errno != EINTR) return Wait::Gone;  // EIDRM, EINVAL: the set was removed
        if (slices % LIVENESS_SLICES == 0 && !processAlive(creator)) return Wait::Gone;
    }
}

bool pause(int ms, const std::atomic<bool>& stop) {
    for (int left = ms; left > 0; left -= SLICE_MS) {
        if (stop.load(std::memory_order_relaxed)) return false;
        long slice = left < SLICE_MS ? left : SLICE_MS;
        timespec delay{0, slice * 1000000L};
        nanosleep(&delay, nullptr);
    }
    return !stop.load(std::memory_order_relaxed);
}

}  // namespace avpool::gst
