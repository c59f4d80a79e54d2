// AMR pool: one per channel under key 20480 + channel, 200 slots of up to 1024
// encoded bytes; the locks of channel c are in the set 20480 + 16c + group. The
// library has no reader for it: consumers read the segment by this layout.
#pragma once

#include <avpool/audio.h>

constexpr int AMR_BASE_KEY = 0x5000;  // 20480
constexpr int AMR_MAX_FRAGMENT_SIZE = 1024;
constexpr int AMR_SEGMENT_SIZE = 216816;

/*
 * Segment: AudioPoolHeader (816 bytes), then 200 slots of 1080 bytes:
 *
 *   0           44            48              52                           1076   1080
 *   +-----------+-------------+---------------+----------------------------+------+
 *   | head      | streamParam | fragmentParam | data: length bytes of 1024 | 0xCC |
 *   +-----------+-------------+---------------+----------------------------+------+
 */
using AMRPoolHeader = avpool::AudioPoolHeader;

struct AVPOOL_API AMRFragmentInfo {
    avpool::AudioFragmentHead head;
    int32_t streamParam;    // the putter's last reset
    int32_t fragmentParam;  // given with this fragment
    uint8_t data[AMR_MAX_FRAGMENT_SIZE];
    uint32_t unused;  // never written
};
static_assert(sizeof(AMRFragmentInfo) == 1080, "AMRFragmentInfo is not 1080 bytes");
static_assert(offsetof(AMRFragmentInfo, head) == 0, "AMRFragmentInfo.head is not at 0");
static_assert(offsetof(AMRFragmentInfo, streamParam) == 44, "AMRFragmentInfo.streamParam is not at 44");
static_assert(offsetof(AMRFragmentInfo, fragmentParam) == 48, "AMRFragmentInfo.fragmentParam is not at 48");
static_assert(offsetof(AMRFragmentInfo, data) == 52, "AMRFragmentInfo.data is not at 52");
static_assert(offsetof(AMRFragmentInfo, unused) == 1076, "AMRFragmentInfo.unused is not at 1076");
static_assert(AUDIO_HEADER_SIZE + AUDIO_SLOT_COUNT * sizeof(AMRFragmentInfo) == AMR_SEGMENT_SIZE,
              "the AMR segment is not AMR_SEGMENT_SIZE (216816) bytes");

class AVPOOL_API AMRPutterError : public avpool::PoolError {
public:
    using avpool::PoolError::PoolError;
};

// The one writer of a channel's AMR pool; errors are AMRPutterError.
class AVPOOL_API AMRPutter : public avpool::AudioPutter<AMRFragmentInfo> {
public:
    // Creates the pool under key 20480 + channel, its 200 locks in one set under
    // 20480 + 16 x channel, every lock closed, and prints "Create AMR sem:200" on
    // standard output. A segment or set left under the keys is removed and
    // creation tried once more. Throws "shmget failed.", "shmat failed.",
    // "semget failed." or "semctl failed.".
    void init(int channel);
    // Sets the working format code (1, 4, 8 or 16), channels and rate, in the
    // header and on the following fragments, and the streamParam of the
    // following fragments; a fragment's samples and duration follow from them.
    // Call it after init and before the first fragment. Throws "programming
    // error" before init and "not supported format" for another format code
    // (the header keeps what was given).
    void reset(int format, int channels, int rate, int streamParam);
    // Writes one fragment, stamped with timestamp, into the next slot and
    // opens its lock: min(length, AMR_MAX_FRAGMENT_SIZE) bytes are stored
    // (none for a negative length), and fragmentParam beside them. Throws
    // "semctl failed." when a lock cannot be set.
    void putFragment(void* data, int length, const timeval& timestamp, int fragmentParam);
    // Removes a segment left under the channel's key by a writer that died.
    void forceReleaseShm(int channel);
};
