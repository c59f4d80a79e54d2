// JPEG picture pool: one segment per channel under key 19456 + channel, a ring of
// at most 30 frame slots locked by one semaphore each, and a byte ring of frames.
#pragma once

#include <avpool/common.h>

#include <cstddef>
#include <cstdint>
#include <sys/time.h>

constexpr int JPG_MAX_FRAME_COUNT = 30;
constexpr int JPG_BASE_KEY = 0x4C00;  // 19456
constexpr int JPG_HEADER_SIZE = 172;
constexpr int JPG_FRAME_PREFIX_SIZE = 8;

/*
 * Segment (172 + dataSize bytes):
 *
 *   0                      172             172+4n             172+52n
 *   +----------------------+---------------+------------------+---------------------------+
 *   | JPGPoolHeader        | safe times    | JPGFrameInfo x n | data ring (RawDataLen)    |
 *   |                      | int32 x n     | 48 bytes each    | [id:8][bytes][pad 0..3].. |
 *   +----------------------+---------------+------------------+---------------------------+
 */
struct JPGPoolHeader {
    int32_t frameCount;
    int32_t maxFrameSize;
    int32_t current;
    int32_t realFPS;
    int32_t workingFPS;
    int32_t workingWidth;
    int32_t workingHeight;
    int32_t framePrefixSize;
    uint8_t lumQT[64];
    uint8_t chromQT[64];
    int32_t safeTimeOffset;
    int32_t frameInfoOffset;
    int32_t dataOffset;
};
static_assert(sizeof(JPGPoolHeader) == 172, "JPGPoolHeader is not 172 bytes");
static_assert(offsetof(JPGPoolHeader, frameCount) == 0, "JPGPoolHeader.frameCount is not at 0");
static_assert(offsetof(JPGPoolHeader, maxFrameSize) == 4, "JPGPoolHeader.maxFrameSize is not at 4");
static_assert(offsetof(JPGPoolHeader, current) == 8, "JPGPoolHeader.current is not at 8");
static_assert(offsetof(JPGPoolHeader, realFPS) == 12, "JPGPoolHeader.realFPS is not at 12");
static_assert(offsetof(JPGPoolHeader, workingFPS) == 16, "JPGPoolHeader.workingFPS is not at 16");
static_assert(offsetof(JPGPoolHeader, workingWidth) == 20, "JPGPoolHeader.workingWidth is not at 20");
static_assert(offsetof(JPGPoolHeader, workingHeight) == 24, "JPGPoolHeader.workingHeight is not at 24");
static_assert(offsetof(JPGPoolHeader, framePrefixSize) == 28, "JPGPoolHeader.framePrefixSize is not at 28");
static_assert(offsetof(JPGPoolHeader, lumQT) == 32, "JPGPoolHeader.lumQT is not at 32");
static_assert(offsetof(JPGPoolHeader, chromQT) == 96, "JPGPoolHeader.chromQT is not at 96");
static_assert(offsetof(JPGPoolHeader, safeTimeOffset) == 160, "JPGPoolHeader.safeTimeOffset is not at 160");
static_assert(offsetof(JPGPoolHeader, frameInfoOffset) == 164, "JPGPoolHeader.frameInfoOffset is not at 164");
static_assert(offsetof(JPGPoolHeader, dataOffset) == 168, "JPGPoolHeader.dataOffset is not at 168");

struct JPGFrameInfo {
    avpool::Word64 frameID;  // 0: never written
    int32_t lockIndex;
    int32_t frameLength;
    int32_t tv_sec;
    int32_t tv_usec;
    int32_t width;
    int32_t height;
    int32_t fps;
    int32_t quality;
    int32_t dataPosition;  // offset of the frame's id prefix in the data ring
    int32_t reserved;
};
static_assert(sizeof(JPGFrameInfo) == 48, "JPGFrameInfo is not 48 bytes");
static_assert(offsetof(JPGFrameInfo, frameID) == 0, "JPGFrameInfo.frameID is not at 0");
static_assert(offsetof(JPGFrameInfo, lockIndex) == 8, "JPGFrameInfo.lockIndex is not at 8");
static_assert(offsetof(JPGFrameInfo, frameLength) == 12, "JPGFrameInfo.frameLength is not at 12");
static_assert(offsetof(JPGFrameInfo, tv_sec) == 16, "JPGFrameInfo.tv_sec is not at 16");
static_assert(offsetof(JPGFrameInfo, tv_usec) == 20, "JPGFrameInfo.tv_usec is not at 20");
static_assert(offsetof(JPGFrameInfo, width) == 24, "JPGFrameInfo.width is not at 24");
static_assert(offsetof(JPGFrameInfo, height) == 28, "JPGFrameInfo.height is not at 28");
static_assert(offsetof(JPGFrameInfo, fps) == 32, "JPGFrameInfo.fps is not at 32");
static_assert(offsetof(JPGFrameInfo, quality) == 36, "JPGFrameInfo.quality is not at 36");
static_assert(offsetof(JPGFrameInfo, dataPosition) == 40, "JPGFrameInfo.dataPosition is not at 40");
static_assert(offsetof(JPGFrameInfo, reserved) == 44, "JPGFrameInfo.reserved is not at 44");

class AVPOOL_API JPGPutterError : public avpool::PoolError {
public:
    using avpool::PoolError::PoolError;
};

class AVPOOL_API JPGGetterError : public avpool::PoolError {
public:
    using avpool::PoolError::PoolError;
};

// The one writer of a channel's JPEG pool. Every failing system call is first
// reported with perror ("shmget failed") and then thrown as JPGPutterError with
// a final point ("shmget failed.").
class AVPOOL_API JPGPutter {
public:
    JPGPutter();
    // Calls release(): the pool goes with its putter.
    virtual ~JPGPutter();
    JPGPutter(const JPGPutter&) = delete;
    JPGPutter& operator=(const JPGPutter&) = delete;

    // Creates the pool under key 19456 + channel: frameCount slots (at most 30),
    // frames of up to maxFrameSize bytes, and dataSize bytes after the header
    // for the tables and the data ring, which must hold one largest frame
    // (52 x frameCount + maxFrameSize + 11 at least; not checked). Every lock
    // starts closed. A segment or semaphore set left under the key is removed
    // and creation tried once more. Throws "programming error, frameCount
    // exceed JPG_MAX_FRAME_COUNT" above 30 slots, then "shmget failed.",
    // "shmat failed.", "semget failed." or "semctl failed.".
    void init(int channel, int frameCount, int maxFrameSize, int dataSize);
    // Sets the working picture parameters, in the header and on the following
    // frames; width, height and fps only when positive, quality when 0 or more.
    // Call it after init and before the first frame. Throws "programming error"
    // (with "programming error\n" on stderr) before init.
    void reset(int width, int height, int fps, int quality);
    // The quality stamped on the following frames, taken as it is.
    void changeQuality(int quality);
    // Stores the measured rate in the header's realFPS. Throws "programming
    // error" before init.
    void putRealFPS(int fps);
    // Writes one frame, stamped with captureTime, into the next slot and opens
    // its lock. Returns 1 when written, 0 (nothing changed) when length exceeds
    // maxFrameSize (or is negative). Throws "semctl failed." when a lock cannot
    // be set.
    int putFrame(void* data, int length, const timeval& captureTime);
    // Writes the encoder's 64-byte luminance and chrominance tables into the
    // header; a null table is left as it is. Throws "programming error" before
    // init.
    void putQuantTables(const unsigned char* lum64, const unsigned char* chrom64);
    // The maxFrameSize given to init.
    int getMaxFrameSize();
    // The slot after i: i + 1, or 0 after the last.
    int nextJPGFrame(int i);

    // The steps of the write protocol, which putFrame and init take: rewrite
    // the safe-time table around the current slot; close every lock; close
    // (value 1) or open (value 0) one slot's lock, throwing "semctl failed.".
    void setSafeTime();
    void initLock();
    void closeLock(int slot);
    void openLock(int slot);
    // Removes the semaphore set and the segment; reports nothing, and does
    // nothing once they are gone.
    void release();
    // Remove a segment or semaphore set left under the channel's key by a
    // writer that died (size is not used); what is not there is left alone.
    void forceReleaseShm(int channel, int size);
    void forceReleaseSem(int channel);

private:
    int channel_ = -1;
    int frameCount_ = 0;
    int maxFrameSize_ = 0;
    int width_ = 0;
    int height_ = 0;
    int fps_ = 0;
    int quality_ = 0;
    int frameInterval_ = 0;
    int shmId_ = -1;
    int semId_ = -1;
    JPGPoolHeader* pool_ = nullptr;
    int current_ = 0;
    unsigned long long frameCounter_ = 0;
    int rawDataLen_ = 0;
    unsigned char* data_ = nullptr;
    JPGFrameInfo* frameInfo_ = nullptr;
    int32_t* safeTime_ = nullptr;
    int writePosition_ = 0;
};

// The frame fetched last by JPGGetter::getFrame; data points into the shared ring.
struct JPGFrame {
    int width;
    int height;
    int fps;
    int quality;
    int tv_sec;
    int tv_usec;
    unsigned char* data;
    int frameLength;
};

// A reader of a channel's JPEG pool, with a cursor of its own on one slot.
// Errors are JPGGetterError; a failing system call is first reported with
// perror. Used before init, the calls on the pool (all but release and the
// static ones) write "programming error\n" on stderr and throw "programming
// error".
class AVPOOL_API JPGGetter {
public:
    JPGGetter();
    // Calls release(): detaches, never removes the pool.
    virtual ~JPGGetter();
    JPGGetter(const JPGGetter&) = delete;
    JPGGetter& operator=(const JPGGetter&) = delete;

    // Attaches to the pool of key 19456 + channel and puts the cursor on the
    // newest slot. Throws "shmget failed." when there is no such pool, else
    // "shmat failed." or "semget failed."; "pool not ready." (nothing on
    // stderr, the getter stays detached) when the header does not describe a
    // pool that fits the segment: its writer is still setting it up, or it is
    // not a pool.
    void init(int channel);
    // The header's workingFPS, workingWidth, workingHeight and realFPS, read
    // live, and the addresses of its 64-byte luminance and chrominance tables.
    int getWorkingFPS();
    int getWorkingWidth();
    int getWorkingHeight();
    int getRealFPS();
    unsigned char* getLumQT();
    unsigned char* getChromQT();

    // Throws "age too old" when the cursor's frame was captured more than
    // maxAge whole seconds from now (either way): the writer has left this
    // reader behind.
    void probeAge(int maxAge);
    // Fills `frame` from the cursor's slot, first stepping on past slots whose
    // bytes a later frame has overwritten (or whose record points outside the
    // ring); frame.data points into the ring. Looks once round the ring at
    // most: throws "frame overwritten." when no slot is intact.
    void getFrame();

    // The positioning calls return the frameID of the slot they end on (0 for
    // one never written) and store its safe time in safeTime: the milliseconds,
    // at the nominal rate, before the writer comes round to it again; 0 means
    // wait with waitReady first.
    // The newest slot.
    unsigned long long toWorking(int& safeTime);
    // The oldest intact frame captured in or after second (and, in the second
    // form, at or after microsecond, compared as a field of its own), leaving
    // out the two slots ahead of the writer; the newest slot when none is.
    unsigned long long toOldestWorking(int& safeTime, int second);
    unsigned long long toOldestWorking(int& safeTime, int second, int microsecond);
    // The earliest intact frame of that second (in the second form, not after
    // microsecond). NOT_FOUND (4294967295), safeTime untouched, when there is
    // none.
    unsigned long long toExactWorking(int& safeTime, int second);
    unsigned long long toExactWorking(int& safeTime, int second, int microsecond);
    // The slot after the cursor's.
    unsigned long long toNext(int& safeTime);
    // The cursor's frameID, without moving.
    unsigned long long getFrameID();

    // Blocks until the cursor's slot is open, that is complete; a signal does
    // not end the wait. Throws "semop failed." when the wait fails (the pool
    // was removed, or the slot's lock index is outside the set).
    void waitReady();
    // Detaches; the pool stays.
    void release();

    // Copies the newest picture of a media profile, found through the
    // information area, into buffer. Returns the bytes copied, or 0 when the
    // buffer is smaller than the pool's largest frame, the profile is not
    // streaming JPEG (state 2, infoParam3 1) or its pool cannot be read.
    // Errors of the information area itself are thrown as InfosGetterError
    // ("shmget failed." without an area, "programming error" for a profile
    // not below its sizeofPools).
    static int snapshot(unsigned char* buffer, unsigned int bufferSize, int profileID);
    // Kept for callers built against the older interface: does nothing, returns 0.
    static int snapshot(unsigned char* buffer, unsigned int bufferSize, int profileID, int);
    // The scale index (0 to 10) at which the device reports this picture size,
    // or -1.
    static int getScaleByWidthAndHeight(int width, int height);

    JPGFrame frame{};

private:
    template <class Qualifies>
    unsigned long long scanOldest(int& safeTime, Qualifies qualifies);
    template <class Matches>
    unsigned long long scanExact(int& safeTime, int second, Matches matches);
    bool intact(const JPGFrameInfo& info) const;
    int next(int slot) const;
    int writer() const;
    unsigned long long settle(int& safeTime);
    void requireAttached() const;
    [[noreturn]] void notReady();

    int channel_ = 0;
    int shmId_ = -1;
    JPGPoolHeader* pool_ = nullptr;
    int semId_ = -1;
    int current_ = 0;
    unsigned char* data_ = nullptr;
    int32_t* safeTime_ = nullptr;
    JPGFrameInfo* frameInfo_ = nullptr;
    int frameCount_ = 0;
    int maxFrameSize_ = 0;
    int64_t ringLength_ = 0;  // bytes from the ring's start to the segment's end
};

// The device's capability query: the picture size of a profile at a scale index,
// and two further values. The library's own definition is weak, so a device
// library that defines it wins at link time. It answers from a small table of
// common sizes (any profile) and returns 0, or non-zero with sizes 0 for a scale
// it does not know.
AVPOOL_API int get_real_capability_by_profile_n_scale(int& width, int& height, int& a, int& b, int profile,
                                                      int scale);
