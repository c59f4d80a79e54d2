// Encoded video pool: per channel a ring of GOPs of fixed frame slots, locked one
// semaphore per slot in up to four groups, plus a byte ring of frames. Also the
// MPEG-4 configuration header builder.
#pragma once

#include <avpool/common.h>

#include <cstddef>
#include <cstdint>
#include <sys/time.h>

constexpr int MP4_MAX_FRAME_COUNT = 1000;
constexpr int MP4_BASE_KEY = 0x4B00;  // 19200; semaphore group g: 19200 + channel * 16 + g
constexpr int MP4_HEADER_SIZE = 52;

/*
 * Segment (size argument + 52 bytes), poolSize = gopCount * framesPerGop slots,
 * slot = gop * framesPerGop + frame:
 *
 *   0               52               52+4p               52+52p
 *   +---------------+----------------+-------------------+---------------------------+
 *   | MP4PoolHeader | safe times     | MP4FrameInfo x p  | data ring (RawDataLen)    |
 *   |               | int32 x p      | 48 bytes each     | [id:8][bytes][pad 0..3].. |
 *   +---------------+----------------+-------------------+---------------------------+
 */
struct MP4PoolHeader {
    int32_t gopCount;
    int32_t framesPerGop;
    int32_t maxFrameSize;
    int32_t workingGop;
    int32_t realFPS;
    int32_t workingFPS;
    int32_t width;
    int32_t height;
    int32_t oneSafeTime;  // one GOP's duration, ms
    int32_t framePrefixSize;
    int32_t safeTimeOffset;
    int32_t frameInfoOffset;
    int32_t dataOffset;
};
static_assert(sizeof(MP4PoolHeader) == 52, "MP4PoolHeader is not 52 bytes");
static_assert(offsetof(MP4PoolHeader, gopCount) == 0, "MP4PoolHeader.gopCount is not at 0");
static_assert(offsetof(MP4PoolHeader, framesPerGop) == 4, "MP4PoolHeader.framesPerGop is not at 4");
static_assert(offsetof(MP4PoolHeader, maxFrameSize) == 8, "MP4PoolHeader.maxFrameSize is not at 8");
static_assert(offsetof(MP4PoolHeader, workingGop) == 12, "MP4PoolHeader.workingGop is not at 12");
static_assert(offsetof(MP4PoolHeader, realFPS) == 16, "MP4PoolHeader.realFPS is not at 16");
static_assert(offsetof(MP4PoolHeader, workingFPS) == 20, "MP4PoolHeader.workingFPS is not at 20");
static_assert(offsetof(MP4PoolHeader, width) == 24, "MP4PoolHeader.width is not at 24");
static_assert(offsetof(MP4PoolHeader, height) == 28, "MP4PoolHeader.height is not at 28");
static_assert(offsetof(MP4PoolHeader, oneSafeTime) == 32, "MP4PoolHeader.oneSafeTime is not at 32");
static_assert(offsetof(MP4PoolHeader, framePrefixSize) == 36, "MP4PoolHeader.framePrefixSize is not at 36");
static_assert(offsetof(MP4PoolHeader, safeTimeOffset) == 40, "MP4PoolHeader.safeTimeOffset is not at 40");
static_assert(offsetof(MP4PoolHeader, frameInfoOffset) == 44, "MP4PoolHeader.frameInfoOffset is not at 44");
static_assert(offsetof(MP4PoolHeader, dataOffset) == 48, "MP4PoolHeader.dataOffset is not at 48");

struct MP4FrameInfo {
    avpool::Word64 gopID;
    avpool::Word64 frameID;
    int32_t width;
    int32_t height;
    int32_t fps;
    int32_t lockIndex;
    int32_t frameLength;
    int32_t tv_sec;
    int32_t tv_usec;
    int32_t dataPosition;
};
static_assert(sizeof(MP4FrameInfo) == 48, "MP4FrameInfo is not 48 bytes");
static_assert(offsetof(MP4FrameInfo, gopID) == 0, "MP4FrameInfo.gopID is not at 0");
static_assert(offsetof(MP4FrameInfo, frameID) == 8, "MP4FrameInfo.frameID is not at 8");
static_assert(offsetof(MP4FrameInfo, width) == 16, "MP4FrameInfo.width is not at 16");
static_assert(offsetof(MP4FrameInfo, height) == 20, "MP4FrameInfo.height is not at 20");
static_assert(offsetof(MP4FrameInfo, fps) == 24, "MP4FrameInfo.fps is not at 24");
static_assert(offsetof(MP4FrameInfo, lockIndex) == 28, "MP4FrameInfo.lockIndex is not at 28");
static_assert(offsetof(MP4FrameInfo, frameLength) == 32, "MP4FrameInfo.frameLength is not at 32");
static_assert(offsetof(MP4FrameInfo, tv_sec) == 36, "MP4FrameInfo.tv_sec is not at 36");
static_assert(offsetof(MP4FrameInfo, tv_usec) == 40, "MP4FrameInfo.tv_usec is not at 40");
static_assert(offsetof(MP4FrameInfo, dataPosition) == 44, "MP4FrameInfo.dataPosition is not at 44");

class AVPOOL_API MP4PutterError : public avpool::PoolError {
public:
    using avpool::PoolError::PoolError;
};

class AVPOOL_API MP4GetterError : public avpool::PoolError {
public:
    using avpool::PoolError::PoolError;
};

// The smaller of a and b (a when they are equal).
AVPOOL_API int min(int a, int b);

class AVPOOL_API MP4Putter {
public:
    MP4Putter();
    virtual ~MP4Putter();
    MP4Putter(const MP4Putter&) = delete;
    MP4Putter& operator=(const MP4Putter&) = delete;

    void init(int channel, int gopCount, int framesPerGop, int maxFrameSize, int size);
    void reset(int width, int height, int fps);
    int putRealFPS(int fps);
    // 1 when the frame is refused as too large (and P frames are skipped until the
    // next accepted I frame); otherwise the result of opening its lock (0).
    int putIFrame(void* data, int length, const timeval& tv);
    void putPFrame(void* data, int length, const timeval& tv);

    void setSafeTime();
    void closeGopLocks(int gop);
    int nextGop(int gop);
    void initLock();
    int closeLock(int slot);
    int openLock(int slot);
    void getSemPosition(int slot, int& group, int& index);
    void release();
    void forceReleaseShm(int channel);
    void forceReleaseSem(int keyOffset);

private:
    void storeFrame(int slot, void* data, int length, const timeval& tv);

    int channel_ = -1;
    int gopCount_ = 0;
    int framesPerGop_ = 0;
    int poolSize_ = 0;
    int maxFrameSize_ = 0;
    int width_ = 0;
    int height_ = 0;
    int workingFPS_ = 0;
    int oneSafeTime_ = 0;
    int shmId_ = -1;
    avpool::SemGroups sems_;
    MP4PoolHeader* pool_ = nullptr;
    int32_t* safeTime_ = nullptr;
    MP4FrameInfo* frameInfo_ = nullptr;
    unsigned char* data_ = nullptr;
    int rawDataLen_ = 0;
    int writePosition_ = 0;
    int currentGop_ = 0;
    int frameIndex_ = 0;
    unsigned long long gopCounter_ = 0;
    unsigned long long frameCounter_ = 0;
    bool skipUntilIFrame_ = false;
};

class AVPOOL_API MP4Getter {
public:
    MP4Getter();
    virtual ~MP4Getter();
    MP4Getter(const MP4Getter&) = delete;
    MP4Getter& operator=(const MP4Getter&) = delete;

    void init(int channel);
    unsigned long long toWorkingGop(int& safeTime);
    unsigned long long toOldestWorkingGop(int& safeTime, int sec);
    unsigned long long toOldestWorkingGop(int& safeTime, int sec, int usec);
    unsigned long long toExactWorkingGop(int& safeTime, int sec);
    unsigned long long toExactWorkingGop(int& safeTime, int sec, int usec);
    unsigned long long toNextGop(int& safeTime);
    unsigned long long getGopID();
    int getSafeTime();
    int getOneSafeTime();
    int getWorkingFPS();
    int getWorkingWidth();
    int getWorkingHeight();
    int getRealFPS();
    // Seconds between now and the working GOP's capture time; throws "age too old".
    int probeAge(int maxAge);
    int waitFrameReady(int k);
    // The frame's ID, or 0 when its bytes have been reused (the members keep the
    // previous frame then).
    unsigned long long getFrameData(int k);
    void getSemPosition(int slot, int& group, int& index);
    void release();

    // The working GOP, from its first frame record.
    int gopWidth = 0;
    int gopHeight = 0;
    int gopFPS = 0;
    // The frame fetched last by getFrameData; frameData points into the shared ring.
    timeval frameTime{};
    unsigned char* frameData = nullptr;
    int frameLength = 0;

private:
    template <class Qualifies>
    unsigned long long scanOldest(int& safeTime, Qualifies qualifies);
    template <class Matches>
    unsigned long long scanExact(int& safeTime, int sec, Matches matches);
    unsigned long long enterGop(int& safeTime);
    bool gopValid(int gop) const;
    const MP4FrameInfo& first(int gop) const;
    void requireAttached() const;

    int channel_ = 0;
    int shmId_ = -1;
    MP4PoolHeader* pool_ = nullptr;
    avpool::SemGroups sems_;
    int workingGop_ = 0;
    unsigned char* data_ = nullptr;
    int32_t* safeTime_ = nullptr;
    MP4FrameInfo* frameInfo_ = nullptr;
    int gopCount_ = 0;
    int framesPerGop_ = 0;
    int poolSize_ = 0;
    int maxFrameSize_ = 0;
};

// MPEG-4 visual configuration header (Simple profile). Bits are written most
// significant first through one process-wide bit writer: callers serialise.
AVPOOL_API int count_min_bits(unsigned int value);
AVPOOL_API int gen_mpeg4_header(unsigned char* out, int width, int height, int timeIncrementResolution,
                                int fixedVopRate, int fixedVopTimeIncrement, bool resyncMarkerDisable);
AVPOOL_API int fill_mpeg4_vol_header(unsigned char* out, unsigned char profileLevel, int width, int height,
                                     int timeIncrementResolution, bool fixedVopRate, int fixedVopTimeIncrement);
AVPOOL_API int fill_mpeg4_vol_hex(char* out, unsigned char profileLevel, int width, int height,
                                  int timeIncrementResolution, bool fixedVopRate, int fixedVopTimeIncrement);
