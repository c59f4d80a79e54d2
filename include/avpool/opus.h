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

class AVPOOL_API OPUSPutter : public avpool::AudioPutter<OPUSFragmentInfo> {
public:
    void init();
    void reset(int format, int channels, int rate);
    // Copies OPUS_FRAGMENT_SIZE bytes from data and records length as given.
    void putFragment(void* data, int length, const timeval& timestamp);
    void forceReleaseShm();
};

class AVPOOL_API OPUSGetter : public avpool::AudioGetter<OPUSFragmentInfo, OPUSFragment> {
public:
    void init();
};
