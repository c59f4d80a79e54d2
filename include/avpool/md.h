// Motion-detection pool: per channel a ring of 5 records of two equally sized
// arrays of 32-bit values under key 19968 + channel, one semaphore set of 5 under
// the same key, and one vibration level in the header.
#pragma once

#include <avpool/analysis.h>
#include <avpool/common.h>

#include <cstddef>
#include <cstdint>
#include <sys/time.h>

constexpr int MD_BASE_KEY = 0x4E00;  // 19968
constexpr int MD_FRAME_COUNT = 5;
constexpr int MD_MAX_ELEMENTS = 3072;  // 12288 bytes an array, e.g. 64 x 48
constexpr int MD_POOL_SIZE = 123040;

/*
 * Segment (123040 bytes), filled with 0xCC at creation:
 *
 *   0         4     8      12      16          20            40              40+24600        123040
 *   +---------+-----+------+-------+-----------+-------------+---------------+-- .. --+------+
 *   | current | fps | width| height| vibration | safe times  | MDFrameInfo 0 | 1 .. 3  |  4   |
 *   |         |     |      |       | 0..100    | int32 x 5   | 24 + 2 x 12288|         |      |
 *   +---------+-----+------+-------+-----------+-------------+---------------+-- .. --+------+
 *
 *   MDFrameInfo:  [frameID:8][lockIndex][frameLength][tv_sec][tv_usec][first:12288][second:12288]
 *   A frame writes 4 x frameLength bytes into each array; the rest keeps older contents.
 *   fps, width, height and vibration keep the fill pattern until reset and putVibration.
 */
struct MDPoolHeader {
    int32_t current;
    int32_t workingFPS;
    int32_t workingWidth;
    int32_t workingHeight;
    int32_t vibration;
    int32_t safeTime[MD_FRAME_COUNT];  // ms, slot 0 first
};
static_assert(sizeof(MDPoolHeader) == 40, "MDPoolHeader is not 40 bytes");
static_assert(offsetof(MDPoolHeader, current) == 0, "MDPoolHeader.current is not at 0");
static_assert(offsetof(MDPoolHeader, workingFPS) == 4, "MDPoolHeader.workingFPS is not at 4");
static_assert(offsetof(MDPoolHeader, workingWidth) == 8, "MDPoolHeader.workingWidth is not at 8");
static_assert(offsetof(MDPoolHeader, workingHeight) == 12, "MDPoolHeader.workingHeight is not at 12");
static_assert(offsetof(MDPoolHeader, vibration) == 16, "MDPoolHeader.vibration is not at 16");
static_assert(offsetof(MDPoolHeader, safeTime) == 20, "MDPoolHeader.safeTime is not at 20");

struct MDFrameInfo {
    avpool::Word64 frameID;  // 0: never written
    int32_t lockIndex;
    int32_t frameLength;  // elements per array, width x height
    int32_t tv_sec;
    int32_t tv_usec;
    int32_t firstArray[MD_MAX_ELEMENTS];
    int32_t secondArray[MD_MAX_ELEMENTS];
};
static_assert(sizeof(MDFrameInfo) == 24600, "MDFrameInfo is not 24600 bytes");
static_assert(offsetof(MDFrameInfo, frameID) == 0, "MDFrameInfo.frameID is not at 0");
static_assert(offsetof(MDFrameInfo, lockIndex) == 8, "MDFrameInfo.lockIndex is not at 8");
static_assert(offsetof(MDFrameInfo, frameLength) == 12, "MDFrameInfo.frameLength is not at 12");
static_assert(offsetof(MDFrameInfo, tv_sec) == 16, "MDFrameInfo.tv_sec is not at 16");
static_assert(offsetof(MDFrameInfo, tv_usec) == 20, "MDFrameInfo.tv_usec is not at 20");
static_assert(offsetof(MDFrameInfo, firstArray) == 24, "MDFrameInfo.firstArray is not at 24");
static_assert(offsetof(MDFrameInfo, secondArray) == 12312, "MDFrameInfo.secondArray is not at 12312");
static_assert(sizeof(MDPoolHeader) + MD_FRAME_COUNT * sizeof(MDFrameInfo) == MD_POOL_SIZE,
              "the MD segment is not MD_POOL_SIZE (123040) bytes");

extern template class AVPOOL_API avpool::AnalysisPutter<MDFrameInfo>;
extern template class AVPOOL_API avpool::AnalysisGetter<MDFrameInfo>;

class AVPOOL_API MDPutterError : public avpool::PoolError {
public:
    using avpool::PoolError::PoolError;
};

class AVPOOL_API MDGetterError : public avpool::PoolError {
public:
    using avpool::PoolError::PoolError;
};

// The slot after i in the ring of 5.
AVPOOL_API int nextMDFrame(int i);

// The one writer of a channel's motion-detection pool (key 19968 + channel);
// init, reset and the rest are AnalysisPutter's, its errors MDPutterError.
class AVPOOL_API MDPutter : public avpool::AnalysisPutter<MDFrameInfo> {
public:
    MDPutter();
    ~MDPutter() override;

    // level is clamped to 0..100 and stored in the header word 16 + 4 x index.
    // Only 0 is the vibration field: 1 to 5 land on the safe times of slots 0
    // to 4 (callers pass 0); any other index writes nothing. Throws
    // "programming error" before init.
    void putVibration(int index, int level);
    // Writes one record, stamped with captureTime, into the next slot and
    // opens its lock. length elements per array, equal to width x height of
    // the last reset; 4 x length bytes are taken from each of first and
    // second. Throws "frameLength is not equal to elementSize" (nothing
    // written) for another length, and before reset; "semctl failed." when a
    // lock cannot be set.
    void putFrame(void* first, void* second, int length, const timeval& captureTime);
};

// A reader of a channel's motion-detection pool (key 19968 + channel); the
// cursor calls are AnalysisGetter's, its errors MDGetterError.
class AVPOOL_API MDGetter : public avpool::AnalysisGetter<MDFrameInfo> {
public:
    MDGetter();
    ~MDGetter() override;

    // The header word 16 + 4 x index, for index 0 to 5 as putVibration writes
    // them; "programming error." (nothing on stderr) without an attached pool
    // or for another index.
    int getVibration(int index);
    // Fills tv_sec, tv_usec, frameLength and points both arrays into the
    // cursor's slot. Throws "programming error" before init.
    void getFrame();

    int* firstArray = nullptr;
    int* secondArray = nullptr;
};
