// The pool kinds the GStreamer elements read and write, with the System V keys
// of each kind's segment and slot locks, and what a reader can learn about a
// pool before it attaches. Nothing here depends on GStreamer.
#pragma once

#include <string>
#include <sys/types.h>

namespace avpool::gst {

// Lum (luminance pictures) is only read: its writer is the encoder's analysis.
enum class Kind { Jpg, Mp4, Pcm, Aac, Opus, Lum };

// "jpg", "mp4", ...
const char* kindName(Kind kind);
// Whether the kind has one pool per channel (pcm and opus have one per machine).
bool perChannel(Kind kind);
// "jpg pool on channel 2", "pcm pool": how messages name a pool.
std::string poolName(Kind kind, int channel);

// Where a pool's segment and its slot locks are. Slot i's lock is semaphore
// i % groupSize of the set under firstLockKey + i / groupSize; the JPEG pool
// has a single set (groupSize is then its whole ring).
struct PoolKeys {
    int segment;
    int firstLockKey;
    int groupSize;
};
PoolKeys keysOf(Kind kind, int channel);

// "0x4c02"
std::string hexKey(int key);

enum class Presence { Missing, Stale, Live };

// Whether a segment is under the pool's key and whether the process that
// created it still runs; creator receives its pid when there is a segment.
Presence probePool(Kind kind, int channel, pid_t& creator);

// Whether the process pid still runs (one of another user's counts as running).
bool processAlive(pid_t pid);

// One line that says why a pool cannot be read: "no jpg pool on channel 3
// (key 0x4c03)", "the jpg pool on channel 3 is stale: its creator 123 is gone".
std::string absenceText(Kind kind, int channel, Presence presence, pid_t creator);

}  // namespace avpool::gst
