// The two searches every pool with timed slots offers, written once over slot
// indices. The callers decide what qualifies (seconds alone, or seconds and
// microseconds compared field by field) and which slot counts as intact.
#pragma once

#include "shared_word.h"

#include <cstdint>

namespace avpool::detail {

// The writer's slot index as a reader finds it in the header: read anew every
// time (the writer moves it while a search runs), and kept inside the ring of n
// slots, since the header word may hold anything (the fill bytes of a pool still
// being set up, or whatever a stray process wrote there).
inline int writerSlot(const int32_t& current, int n) {
    uint32_t value = static_cast<uint32_t>(loadShared(current));
    return static_cast<int>(value % static_cast<uint32_t>(n));
}

// The slot after i in a ring of n, back to 0 after the last.
inline int nextSlot(int i, int n) {
    return i + 1 < n ? i + 1 : 0;
}

// Where both searches start: three entries ahead of the writer, the oldest one a
// reader may still use. The entry after the writer's is closed and about to be
// overwritten, and the one after that is the next to be closed.
inline int oldestUsable(int writer, int n) {
    return (writer + 3) % n;
}

// Oldest-first scan: from start, step through the ring of n entries until an
// entry is accepted, the step lands on the writer's entry (writer() is read anew
// at every step, it moves while we search), or n steps are done. Returns the
// entry it stopped on; it never reports not-found.
template <class Accept, class Writer>
int scanOldest(int start, int n, Accept accept, Writer writer) {
    int position = start;
    for (int steps = 0;;) {
        if (accept(position)) return position;
        position = (position + 1) % n;
        ++steps;
        if (position == writer() || steps >= n) return position;
    }
}

// Exact scan: from position, step until an entry matches (true), or the step
// lands on end or n steps are done (false). position is left where it stopped.
template <class Match>
bool scanExact(int& position, int end, int n, Match match) {
    for (int steps = 0;;) {
        if (match(position)) return true;
        position = (position + 1) % n;
        ++steps;
        if (position == end || steps >= n) return false;
    }
}

}  // namespace avpool::detail
