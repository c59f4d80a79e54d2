// Words of a segment that another process changes while we run: the writer's
// slot index, the header's commit word, the words a reader reads while the
// writer runs. They go through these two calls only.
//
// The semaphore calls already order everything around a slot: a reader that
// returns from its wait on slot c sees every store the writer made before it
// opened c. These words are read outside such a wait (a search reads the
// writer's index while the writer moves it; init reads a header the writer may
// still be filling in), so they get acquire loads, and the writer publishes
// them with release stores: a reader that sees the new value also sees what the
// writer stored before it. On x86 both compile to plain moves; on ARM they add
// one barrier each.
#pragma once

#include <cstdint>
#include <cstring>

namespace avpool::detail {

inline int32_t loadShared(const int32_t& word) {
    return __atomic_load_n(&word, __ATOMIC_ACQUIRE);
}

inline void storeShared(int32_t& word, int32_t value) {
    __atomic_store_n(&word, value, __ATOMIC_RELEASE);
}

// A copy of a record another process may change while we look at it: every
// check and every use then sees the same values. The fence keeps the compiler
// from reading the shared record again in place of the copy.
template <class T>
T readShared(const T& shared) {
    T copy;
    memcpy(&copy, &shared, sizeof copy);
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
    return copy;
}

}  // namespace avpool::detail
