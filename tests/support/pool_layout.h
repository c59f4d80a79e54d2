// Plain helpers the pool fixtures share: a frame's time from whole numbers, and
// the offsets in a segment laid out as a header, one safe-time word per slot, one
// frame record per slot and then the data ring (the JPEG and the video pools).
#pragma once

#include "ipc_harness.h"

#include <cstddef>
#include <vector>

#include <sys/time.h>

namespace avpool::test {

inline timeval at(int second, int microsecond = 0) {
    timeval t{};
    t.tv_sec = second;
    t.tv_usec = microsecond;
    return t;
}

// Header and Record are the byte sizes of the segment's header and of one frame
// record; the offsets take the pool's number of slots where the tables' length
// matters.
template <size_t Header, size_t Record>
struct SlotTables {
    // What each slot adds to the tables in front of the ring: its safe-time
    // word and its record. The size passed at creation covers these too.
    static constexpr size_t PER_SLOT = 4 + Record;

    static size_t safeTime(int slot) { return Header + 4 * static_cast<size_t>(slot); }
    static size_t record(int slots, int slot) {
        return Header + 4 * static_cast<size_t>(slots) + Record * static_cast<size_t>(slot);
    }
    static size_t ring(int slots) { return Header + PER_SLOT * static_cast<size_t>(slots); }
    // The size to create a pool of slots with a ring of ringBytes.
    static int sizeFor(int slots, int ringBytes) { return ringBytes + static_cast<int>(PER_SLOT) * slots; }

    // The safe-time words of every slot of the pool under key.
    static std::vector<int> safeTimes(key_t key, int slots) {
        RawSegment raw(key);
        std::vector<int> values;
        for (int slot = 0; slot < slots; ++slot) values.push_back(raw.i32(safeTime(slot)));
        return values;
    }
};

}  // namespace avpool::test
