// PCM pool: one per machine under key 18944, 200 slots of exactly 2048 bytes of
// uncompressed audio, one lock semaphore per slot (set key 18944 + group).
#pragma once

#include <avpool/audio.h>

constexpr int PCM_KEY = 0x4A00;  // 18944
constexpr int PCM_FRAGMENT_SIZE = 2048;
constexpr int PCM_SEGMENT_SIZE = 420016;

/*
 * Segment: AudioPoolHeader (816 bytes), then 200 slots of 2096 bytes:
 *
 *   0                 44                                        2092   2096
 *   +-----------------+-----------------------------------------+------+
 *   | head            | data: 2048 bytes, always all written    | 0xCC |
 *   +-----------------+-----------------------------------------+------+
 */
using PCMPoolHeader = avpool::AudioPoolHeader;

struct AVPOOL_API PCMFragmentInfo {
    avpool::AudioFragmentHead head;
    uint8_t data[PCM_FRAGMENT_SIZE];
    uint32_t unused;  // never written
};
static_assert(sizeof(PCMFragmentInfo) == 2096, "PCMFragmentInfo is not 2096 bytes");
static_assert(offsetof(PCMFragmentInfo, head) == 0, "PCMFragmentInfo.head is not at 0");
static_assert(offsetof(PCMFragmentInfo, data) == 44, "PCMFragmentInfo.data is not at 44");
static_assert(offsetof(PCMFragmentInfo, unused) == 2092, "PCMFragmentInfo.unused is not at 2092");
static_assert(AUDIO_HEADER_SIZE + AUDIO_SLOT_COUNT * sizeof(PCMFragmentInfo) == PCM_SEGMENT_SIZE,
              "the PCM segment is not PCM_SEGMENT_SIZE (420016) bytes");

using PCMFragment = avpool::AudioFragment;

class AVPOOL_API PCMPutterError : public avpool::PoolError {
public:
    using avpool::PoolError::PoolError;
};

class AVPOOL_API PCMGetterError : public avpool::PoolError {
public:
    using avpool::PoolError::PoolError;
};

// The one writer of the machine's PCM pool; errors are PCMPutterError.
class AVPOOL_API PCMPutter : public avpool::AudioPutter<PCMFragmentInfo> {
public:
    // Creates the pool under key 18944, its 200 locks in one set under the
    // same key, every lock closed, and prints "Create PCM sem:200" on standard
    // output. A segment or set left under the key is removed and creation
    // tried once more. Throws "shmget failed.", "shmat failed.", "semget
    // failed." or "semctl failed.".
    void init();
    // Sets the working format code (1, 4, 8 or 16), channels and rate, in the
    // header and on the following fragments; a fragment's samples and duration
    // follow from them. Call it after init and before the first fragment.
    // Throws "programming error" before init and "not supported format" for
    // another format code (the header keeps what was given).
    void reset(int format, int channels, int rate);
    // Writes one fragment, stamped with timestamp, into the next slot and
    // opens its lock: PCM_FRAGMENT_SIZE bytes are copied from data whatever
    // length says. Throws "semctl failed." when a lock cannot be set.
    void putFragment(void* data, int length, const timeval& timestamp);
    // Removes a segment left under the key by a writer that died.
    void forceReleaseShm();
};

// A reader of the machine's PCM pool; errors are PCMGetterError.
class AVPOOL_API PCMGetter : public avpool::AudioGetter<PCMFragmentInfo, PCMFragment> {
public:
    // Attaches to the pool of key 18944; see AudioGetter for what it throws.
    void init();
};
