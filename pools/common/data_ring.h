// The byte ring of the pools with variable-sized elements (JPEG, MP4). Each entry
// is an 8-byte copy of the element's running number, its bytes, and 0..3 zero
// bytes so the next entry starts on a 4-byte boundary. Entries never wrap: one
// that would pass the end starts again at offset 0.
#pragma once

#include <avpool/common.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace avpool::detail {

constexpr int FRAME_PREFIX_SIZE = 8;

// Appends one entry to the ring of ringLength bytes at base, advancing
// writePosition past it; returns the offset of the entry's prefix.
inline int appendEntry(unsigned char* base, int ringLength, int& writePosition, unsigned long long id,
                       const void* bytes, int count) {
    int padding = (4 - count % 4) % 4;
    if (writePosition + FRAME_PREFIX_SIZE + count + padding > ringLength) writePosition = 0;
    int position = writePosition;
    Word64 prefix;
    prefix.set(id);
    memcpy(base + position, &prefix, sizeof prefix);
    memcpy(base + position + FRAME_PREFIX_SIZE, bytes, count);
    if (padding > 0) memset(base + position + FRAME_PREFIX_SIZE + count, 0, padding);
    writePosition = position + FRAME_PREFIX_SIZE + count + padding;
    return position;
}

// Where a record says its entry lies, checked against the ring before a byte
// there is read: position and length come from shared memory and may be
// anything. Written entries always pass; so does a record never written
// (position 0, length 0) in a ring that has room for a prefix.
inline bool entryInRing(int64_t ringLength, int32_t position, int32_t length) {
    return position >= 0 && length >= 0 && int64_t{position} + FRAME_PREFIX_SIZE + length <= ringLength;
}

// An entry is intact while it lies inside the ring and the prefix at its
// position still names it; a record that was never written (id 0 at position 0
// of a zeroed ring) passes too.
inline bool entryIntact(const unsigned char* base, int64_t ringLength, int32_t position, int32_t length,
                        const Word64& id) {
    if (!entryInRing(ringLength, position, length)) return false;
    Word64 prefix;
    memcpy(&prefix, base + position, sizeof prefix);
    return prefix.low == id.low && prefix.high == id.high;
}

// The tables of a pool with a data ring, as its header describes them: the
// header, one safe-time word per slot, one record per slot, then the ring.
struct FrameTables {
    int32_t headerSize;
    int32_t recordSize;
    int32_t slots;
    int32_t framePrefixSize;
    int32_t safeTimeOffset;
    int32_t frameInfoOffset;
    int32_t dataOffset;
};

// A reader takes a header's geometry only when it is exactly what a writer
// writes for that many slots and it fits the segment: anything else is a pool
// whose writer is still filling the header in, or no pool at all. Returns the
// ring's length in bytes, or -1.
inline int64_t ringLengthOf(const FrameTables& t, size_t segmentSize, int32_t maxSlots) {
    if (t.slots < 1 || t.slots > maxSlots || t.framePrefixSize != FRAME_PREFIX_SIZE) return -1;
    int64_t safeTimes = t.headerSize;
    int64_t records = safeTimes + 4 * int64_t{t.slots};
    int64_t ring = records + int64_t{t.recordSize} * t.slots;
    if (t.safeTimeOffset != safeTimes || t.frameInfoOffset != records || t.dataOffset != ring) return -1;
    if (ring > static_cast<int64_t>(segmentSize)) return -1;
    return static_cast<int64_t>(segmentSize) - ring;
}

}  // namespace avpool::detail
