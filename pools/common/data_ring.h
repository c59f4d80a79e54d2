// The byte ring of the pools with variable-sized elements (JPEG, MP4). Each entry
// is an 8-byte copy of the element's running number, its bytes, and 0..3 zero
// bytes so the next entry starts on a 4-byte boundary. Entries never wrap: one
// that would pass the end starts again at offset 0.
#pragma once

#include <avpool/common.h>

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

// An entry is intact while the prefix at its position still names it; a record
// that was never written (id 0 at position 0 of a zeroed ring) passes too.
inline bool entryIntact(const unsigned char* base, int position, const Word64& id) {
    Word64 prefix;
    memcpy(&prefix, base + position, sizeof prefix);
    return prefix.low == id.low && prefix.high == id.high;
}

}  // namespace avpool::detail
