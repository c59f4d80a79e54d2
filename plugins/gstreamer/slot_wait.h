// Waiting for a slot's lock in a way that a GStreamer element can stop.
//
// The getters' own waits (waitReady, waitFrameReady) are a semop wait-for-zero
// without a time-out, and the JPEG and video getters resume it after a signal,
// so a streaming thread blocked there could be freed only by the writer. The
// readers here wait on the same semaphore instead with semtimedop in short
// slices: the kernel wakes the wait the moment the writer opens the lock (no
// polling delay, no busy loop), and between slices the wait looks at the stop
// flag that unlock() sets and, about once a second, at whether the pool's
// creator still runs. A removed semaphore set (the writer released its pool,
// or a new writer replaced it) ends the wait at once as Gone.
//
// Waiting on the lock directly changes nothing for the getter: its own wait
// is nothing but this wait-for-zero, and the getter keeps every position.
#pragma once

#include "pool_kinds.h"

#include <atomic>
#include <sys/types.h>
#include <vector>

namespace avpool::gst {

enum class Wait { Open, Stopped, Gone };

class SlotLocks {
public:
    SlotLocks() = default;
    // Opens the sets of a pool of slotCount slots, read-only. False when one
    // of them is missing.
    bool open(const PoolKeys& keys, int slotCount);
    // Waits until slot's lock is open, stop is set, or the pool went away
    // (its sets removed, or creator no longer running).
    Wait waitOpen(int slot, const std::atomic<bool>& stop, pid_t creator) const;

private:
    std::vector<int> sets_;
    int groupSize_ = 1;
};

// Sleeps ms milliseconds in slices, returning false early when stop is set.
bool pause(int ms, const std::atomic<bool>& stop);

}  // namespace avpool::gst
