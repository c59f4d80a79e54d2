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

class AVPOOL_API PCMPutter : public avpool::AudioPutter<PCMFragmentInfo> {
public:
    void init();
    void reset(int format, int channels, int rate);
    // Copies PCM_FRAGMENT_SIZE bytes from data whatever length says.
    void putFragment(void* data, int length, const timeval& timestamp);
    void forceReleaseShm();
};

class AVPOOL_API PCMGetter : public avpool::AudioGetter<PCMFragmentInfo, PCMFragment> {
public:
    void init();
};
