// Opus pool: one per machine under key 23040, 200 slots of 512 encoded bytes,
// one lock semaphore per slot (set key 23040 + group).
#pragma once

#include <avpool/audio.h>

constexpr int OPUS_KEY = 0x5A00;  // 23040
constexpr int OPUS_FRAGMENT_SIZE = 512;
constexpr int OPUS_SEGMENT_SIZE = 112816;

/*
 * Segment: AudioPoolHeader (816 bytes), then 200 slots of 560 bytes:
 *
 *   0                 44     48                                          560
 *   +-----------------+------+-------------------------------------------+
 *   | head            | 0xCC | data: 512 bytes copied, `length` as given |
 *   +-----------------+------+-------------------------------------------+
 */
using OPUSPoolHeader = avpool::AudioPoolHeader;

struct AVPOOL_API OPUSFragmentInfo {
    avpool::AudioFragmentHead head;
    uint32_t unused;  // never written
    uint8_t data[OPUS_FRAGMENT_SIZE];
};
static_assert(sizeof(OPUSFragmentInfo) == 560, "OPUSFragmentInfo is not 560 bytes");
static_assert(offsetof(OPUSFragmentInfo, head) == 0, "OPUSFragmentInfo.head is not at 0");
static_assert(offsetof(OPUSFragmentInfo, unused) == 44, "OPUSFragmentInfo.unused is not at 44");
static_assert(offsetof(OPUSFragmentInfo, data) == 48, "OPUSFragmentInfo.data is not at 48");
static_assert(AUDIO_HEADER_SIZE + AUDIO_SLOT_COUNT * sizeof(OPUSFragmentInfo) == OPUS_SEGMENT_SIZE,
              "the Opus segment is not OPUS_SEGMENT_SIZE (112816) bytes");

using OPUSFragment = avpool::AudioFragment;

class AVPOOL_API OPUSPutterError : public avpool::PoolError {
public:
    using avpool::PoolError::PoolError;
};

class AVPOOL_API OPUSGetterError : public avpool::PoolError {
public:
    using avpool::PoolError::PoolError;
};

// The one writer of the machine's Opus pool; errors are OPUSPutterError.
class AVPOOL_API OPUSPutter : public avpool::AudioPutter<OPUSFragmentInfo> {
public:
    // Creates the pool under key 23040, its 200 locks in one set under the
    // same key, every lock closed, and prints "Create OPUS sem:200" on standard
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
    // opens its lock: OPUS_FRAGMENT_SIZE bytes are copied from data and length
    // is recorded as given. Throws "semctl failed." when a lock cannot be set.
    void putFragment(void* data, int length, const timeval& timestamp);
    // Removes a segment left under the key by a writer that died.
    void forceReleaseShm();
};

// A reader of the machine's Opus pool; errors are OPUSGetterError.
class AVPOOL_API OPUSGetter : public avpool::AudioGetter<OPUSFragmentInfo, OPUSFragment> {
public:
    // Attaches to the pool of key 23040; see AudioGetter for what it throws.
    void init();
};
