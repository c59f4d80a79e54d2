// What the encoder's and the servers' classes share about the area: the
// budget arithmetic and where a profile's record lies.
#pragma once

#include <avpool/infos.h>

#include <cstdint>

namespace avpool::detail {

// Weights are not validated, so sums of them are taken as the 32-bit machine
// arithmetic the area has always used, wrapping instead of overflowing.
inline int32_t wrappingAdd(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}
inline int32_t wrappingSub(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}

// Profile IDs are only partly bounded by the callers' checks (some accessors
// take them on trust, and a negative ID passes a signed bound). The record is
// addressed by the layout's arithmetic, so ID -1 lands on the slat table as it
// always has; an ID whose record would lie outside the segment gets null.
inline MediaProfileInfo* profileRecord(InfoArea* area, int profileID) {
    constexpr int64_t first = offsetof(InfoArea, profiles);
    constexpr int64_t size = sizeof(MediaProfileInfo);
    int64_t offset = first + size * profileID;
    if (offset < 0 || offset + size > INFOS_AREA_SIZE) return nullptr;
    return reinterpret_cast<MediaProfileInfo*>(reinterpret_cast<unsigned char*>(area) + offset);
}

}  // namespace avpool::detail
