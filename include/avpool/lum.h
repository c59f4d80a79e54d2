// Luminance pool: per channel a ring of 6 small brightness pictures of 16-bit
// samples under key 19712 + channel, one semaphore set of 6 under the same key.
#pragma once

#include <avpool/analysis.h>
#include <avpool/common.h>

#include <cstddef>
#include <cstdint>
#include <sys/time.h>

constexpr int LUM_BASE_KEY = 0x4D00;  // 19712
constexpr int LUM_FRAME_COUNT = 6;
constexpr int LUM_MAX_SAMPLES = 5120;  // 10240 bytes a slot, e.g. 80 x 64
constexpr int LUM_POOL_SIZE = 61624;

/*
 * Segment (61624 bytes), filled with 0xCC at creation:
 *
 *   0         4     8      12      16            40               40+10264         61624
 *   +---------+-----+------+-------+-------------+----------------+-- .. --+-------+
 *   | current | fps | width| height| safe times  | LUMFrameInfo 0 |  1 .. 4 |   5   |
 *   |         |     |      |       | int32 x 6   | 24 + 10240     |         |       |
 *   +---------+-----+------+-------+-------------+----------------+-- .. --+-------+
 *
 *   LUMFrameInfo:  [frameID:8][lockIndex][frameLength][tv_sec][tv_usec][samples:10240]
 *   A frame writes 2 x frameLength sample bytes; the rest keeps older contents.
 */
struct LUMPoolHeader {
    int32_t current;
    int32_t workingFPS;
    int32_t workingWidth;
    int32_t workingHeight;
    int32_t safeTime[LUM_FRAME_COUNT];  // ms, slot 0 first
};
static_assert(sizeof(LUMPoolHeader) == 40, "LUMPoolHeader is not 40 bytes");
static_assert(offsetof(LUMPoolHeader, current) == 0, "LUMPoolHeader.current is not at 0");
static_assert(offsetof(LUMPoolHeader, workingFPS) == 4, "LUMPoolHeader.workingFPS is not at 4");
static_assert(offsetof(LUMPoolHeader, workingWidth) == 8, "LUMPoolHeader.workingWidth is not at 8");
static_assert(offsetof(LUMPoolHeader, workingHeight) == 12, "LUMPoolHeader.workingHeight is not at 12");
static_assert(offsetof(LUMPoolHeader, safeTime) == 16, "LUMPoolHeader.safeTime is not at 16");

struct LUMFrameInfo {
    avpool::Word64 frameID;  // 0: never written
    int32_t lockIndex;
    int32_t frameLength;  // samples, width x height
    int32_t tv_sec;
    int32_t tv_usec;
    uint16_t samples[LUM_MAX_SAMPLES];
};
static_assert(sizeof(LUMFrameInfo) == 10264, "LUMFrameInfo is not 10264 bytes");
static_assert(offsetof(LUMFrameInfo, frameID) == 0, "LUMFrameInfo.frameID is not at 0");
static_assert(offsetof(LUMFrameInfo, lockIndex) == 8, "LUMFrameInfo.lockIndex is not at 8");
static_assert(offsetof(LUMFrameInfo, frameLength) == 12, "LUMFrameInfo.frameLength is not at 12");
static_assert(offsetof(LUMFrameInfo, tv_sec) == 16, "LUMFrameInfo.tv_sec is not at 16");
static_assert(offsetof(LUMFrameInfo, tv_usec) == 20, "LUMFrameInfo.tv_usec is not at 20");
static_assert(offsetof(LUMFrameInfo, samples) == 24, "LUMFrameInfo.samples is not at 24");
static_assert(sizeof(LUMPoolHeader) + LUM_FRAME_COUNT * sizeof(LUMFrameInfo) == LUM_POOL_SIZE,
              "the LUM segment is not LUM_POOL_SIZE (61624) bytes");

extern template class AVPOOL_API avpool::AnalysisPutter<LUMFrameInfo>;
extern template class AVPOOL_API avpool::AnalysisGetter<LUMFrameInfo>;

class AVPOOL_API LUMPutterError : public avpool::PoolError {
public:
    using avpool::PoolError::PoolError;
};

class AVPOOL_API LUMGetterError : public avpool::PoolError {
public:
    using avpool::PoolError::PoolError;
};

// The slot after i in the ring of 6.
AVPOOL_API int nextLUMFrame(int i);

// The one writer of a channel's luminance pool (key 19712 + channel); init,
// reset and the rest are AnalysisPutter's, its errors LUMPutterError.
class AVPOOL_API LUMPutter : public avpool::AnalysisPutter<LUMFrameInfo> {
public:
    LUMPutter();
    ~LUMPutter() override;

    // Writes one picture, stamped with captureTime, into the next slot and
    // opens its lock. length is the number of samples and must equal width x
    // height of the last reset; 2 x length bytes are taken from samples.
    // Throws "frameLength is not equal to elementSize" (nothing written) for
    // another length, and before reset; "semctl failed." when a lock cannot
    // be set.
    void putFrame(void* samples, int length, const timeval& captureTime);
};

// A reader of a channel's luminance pool (key 19712 + channel); the cursor
// calls are AnalysisGetter's, its errors LUMGetterError.
class AVPOOL_API LUMGetter : public avpool::AnalysisGetter<LUMFrameInfo> {
public:
    LUMGetter();
    ~LUMGetter() override;

    // Fills tv_sec, tv_usec, frameLength and points samples into the cursor's
    // slot. Throws "programming error" before init.
    void getFrame();

    unsigned short* samples = nullptr;
};
