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

class AVPOOL_API AACPutter : public avpool::AudioPutter<AACFragmentInfo> {
public:
    void init(int channel);
    void reset(int format, int channels, int rate, int streamParam);
    // Stores min(length, AAC_MAX_FRAGMENT_SIZE) bytes.
    void putFragment(void* data, int length, const timeval& timestamp);
    void forceReleaseShm(int channel);
};

class AVPOOL_API AACGetter : public avpool::AudioGetter<AACFragmentInfo, AACFragment> {
public:
    void init(int channel);
};
