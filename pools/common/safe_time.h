// Safe times: per slot, the milliseconds the writer needs at its nominal rate
// before it comes back to that slot. 0 tells a reader to wait on the lock first.
#pragma once

#include <cstdint>

namespace avpool::detail {

// Frame form (JPEG, MP4, LUM): the slot k ahead of the writer gets k intervals for
// k < slots - 1, and the slot just behind it, the newest complete one, gets 0.
// MP4 writes each value into all `stride` slots of a GOP.
inline void setSafeTimesFrameForm(int32_t* table, int slots, int current, int interval, int stride = 1) {
    auto put = [&](int slot, int32_t value) {
        for (int k = 0; k < stride; ++k) table[slot * stride + k] = value;
    };
    for (int k = 0; k <= slots - 2; ++k) put((current + k) % slots, interval * k);
    put((current + slots - 1) % slots, 0);
}

// Fragment form (the audio kinds and MD): the slot k ahead gets k intervals for
// every k, then the slot being written is set back to 0.
inline void setSafeTimesFragmentForm(int32_t* table, int slots, int current, int interval) {
    for (int k = 0; k < slots; ++k) table[(current + k) % slots] = interval * k;
    table[current] = 0;
}

}  // namespace avpool::detail
