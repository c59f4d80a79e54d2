// AAC pool: one per channel under key 20224 + channel, 200 slots of up to 512
// encoded bytes; the locks of channel c are in the set 20224 + 16c + group.
#pragma once

#include <avpool/audio.h>

constexpr int AAC_BASE_KEY = 0x4F00;  // 20224
constexpr int AAC_MAX_FRAGMENT_SIZE = 512;
constexpr int AAC_SEGMENT_SIZE = 112816;

/*
 * Segment: AudioPoolHeader (816 bytes), then 200 slots of 560 bytes:
 *
 *   0                 44            48                                  560
 *   +-----------------+-------------+-----------------------------------+
 *   | head            | streamParam | data: length bytes of 512         |
 *   +-----------------+-------------+-----------------------------------+
 */
using AACPoolHeader = avpool::AudioPoolHeader;

struct AVPOOL_API AACFragmentInfo {
    avpool::AudioFragmentHead head;
    int32_t streamParam;  // the putter's last reset
    uint8_t data[AAC_MAX_FRAGMENT_SIZE];
};
static_assert(sizeof(AACFragmentInfo) == 560, "AACFragmentInfo is not 560 bytes");
static_assert(offsetof(AACFragmentInfo, head) == 0, "AACFragmentInfo.head is not at 0");
static_assert(offsetof(AACFragmentInfo, streamParam) == 44, "AACFragmentInfo.streamParam is not at 44");
static_assert(offsetof(AACFragmentInfo, data) == 48, "AACFragmentInfo.data is not at 48");
static_assert(AUDIO_HEADER_SIZE + AUDIO_SLOT_COUNT * sizeof(AACFragmentInfo) == AAC_SEGMENT_SIZE,
              "the AAC segment is not AAC_SEGMENT_SIZE (112816) bytes");

// The fragment under an AACGetter's cursor; data points into the segment.
struct AVPOOL_API AACFragment {
    int format;
    int channels;
    int rate;
    int sampleNumber;
    int streamParam;
    timeval timestamp;
    unsigned char* data;
    int length;
};

class AVPOOL_API AACPutterError : public avpool::PoolError {
public:
    using avpool::PoolError::PoolError;
};

class AVPOOL_API AACGetterError : public avpool::PoolError {
public:
    using avpool::PoolError::PoolError;
};

// The one writer of a channel's AAC pool; errors are AACPutterError.
class AVPOOL_API AACPutter : public avpool::AudioPutter<AACFragmentInfo> {
public:
    // Creates the pool under key 20224 + channel, its 200 locks in one set under
    // 20224 + 16 x channel, every lock closed, and prints "Create AAC sem:200" on
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
    // opens its lock: min(length, AAC_MAX_FRAGMENT_SIZE) bytes are stored
    // (none for a negative length). Throws "semctl failed." when a lock cannot
    // be set.
    void putFragment(void* data, int length, const timeval& timestamp);
    // Removes a segment left under the channel's key by a writer that died.
    void forceReleaseShm(int channel);
};

// A reader of a channel's AAC pool; errors are AACGetterError.
class AVPOOL_API AACGetter : public avpool::AudioGetter<AACFragmentInfo, AACFragment> {
public:
    // Attaches to the pool of key 20224 + channel; see AudioGetter for what it
    // throws.
    void init(int channel);
};
