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

// The one writer of a channel's video pool: a ring of gopCount GOPs of
// framesPerGop frame slots each over a data ring. Every failing system call is
// first reported with perror ("semget failed") and then thrown as
// MP4PutterError with a final point ("semget failed.").
class AVPOOL_API MP4Putter {
public:
    MP4Putter();
    // Calls release(): the pool goes with its putter.
    virtual ~MP4Putter();
    MP4Putter(const MP4Putter&) = delete;
    MP4Putter& operator=(const MP4Putter&) = delete;

    // Creates the pool under key 19200 + channel, its locks in up to four sets
    // of 250 under 19200 + 16 x channel + g, every lock closed. size is the
    // segment after the 52-byte header: 52 bytes per frame slot for the tables,
    // the rest for the data ring. A segment or set left under the keys is
    // removed and creation tried once more. Throws "programming error, poolSize
    // exceed MP4_MAX_FRAME_COUNT" for more than 1000 frame slots, then
    // "shmget failed.", "shmat failed.", "semget failed." or "semctl failed.".
    void init(int channel, int gopCount, int framesPerGop, int maxFrameSize, int size);
    // Sets the picture size and the nominal rate (and with it a GOP's duration,
    // the safe-time step); width and fps only when positive, height when not 0.
    // Call it after init and before the first frame. Throws "programming error"
    // (with "programming error\n" on stderr) before init.
    void reset(int width, int height, int fps);
    // Stores the measured rate in the header's realFPS and returns it. Throws
    // "programming error" before init.
    int putRealFPS(int fps);
    // Starts the next GOP with this I frame: opens the unwritten slots of the
    // GOP it ends and closes the locks of the GOP after the new one. Returns 1
    // when the frame is refused as longer than maxFrameSize or of a negative
    // length (and P frames are skipped until the next accepted I frame);
    // otherwise the result of opening its lock (0). Throws "semctl failed."
    // when a lock cannot be set.
    int putIFrame(void* data, int length, const timeval& tv);
    // Appends a P frame to the current GOP, cut to maxFrameSize. Skipped after a
    // refused I frame or with a negative length; when the GOP is full it is
    // dropped and a line "P exceed:LENGTH gop:FRAMES" goes to the console.
    // Throws "semctl failed.".
    void putPFrame(void* data, int length, const timeval& tv);

    // The steps of the write protocol, which init and putIFrame take: rewrite
    // the safe times around the current GOP; close the locks of GOP gop; the
    // GOP after gop; close every lock; close (1) or open (0) one slot's lock,
    // returning semctl's result (0) or throwing "semctl failed."; the set and
    // the index of a slot's lock, throwing "Over Max Semaphore Group." from
    // slot 1000 on.
    void setSafeTime();
    void closeGopLocks(int gop);
    int nextGop(int gop);
    void initLock();
    int closeLock(int slot);
    int openLock(int slot);
    void getSemPosition(int slot, int& group, int& index);
    // Removes the semaphore sets and the segment; reports nothing.
    void release();
    // Remove a segment, or the semaphore set under 19200 + keyOffset, left by
    // a writer that died; what is not there is left alone.
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

// A reader of a channel's video pool, GOP by GOP from its working GOP. Errors
// are MP4GetterError; a failing system call is first reported with perror.
// Used before init, the calls on the pool (all but release and
// getSemPosition) write "programming error\n" on stderr and throw
// "programming error".
class AVPOOL_API MP4Getter {
public:
    MP4Getter();
    // Calls release(): detaches, never removes the pool.
    virtual ~MP4Getter();
    MP4Getter(const MP4Getter&) = delete;
    MP4Getter& operator=(const MP4Getter&) = delete;

    // Attaches to the pool of key 19200 + channel and its lock sets; the
    // working GOP is GOP 0 until a positioning call. Throws "shmget failed."
    // when there is no such pool, else "shmat failed." or "semget failed.";
    // "pool not ready." (nothing on stderr, the getter stays detached) when the
    // header does not describe a pool that fits the segment: its writer is
    // still setting it up, or it is not a pool.
    void init(int channel);

    // The positioning calls return the gopID of the GOP they end on (0 for one
    // never written), store its safe time in safeTime (the milliseconds before
    // the writer comes round to it; 0: wait with waitFrameReady first) and fill
    // gopWidth, gopHeight and gopFPS from its first frame.
    // The GOP being written.
    unsigned long long toWorkingGop(int& safeTime);
    // The oldest valid GOP that began in or after sec (and, in the second form,
    // at or after usec, compared as a field of its own), leaving out the two
    // GOPs ahead of the writer; the writer's GOP when none did.
    unsigned long long toOldestWorkingGop(int& safeTime, int sec);
    unsigned long long toOldestWorkingGop(int& safeTime, int sec, int usec);
    // The earliest valid GOP that began in second sec (in the second form, not
    // after usec). NOT_FOUND (4294967295), safeTime untouched, when there is none.
    unsigned long long toExactWorkingGop(int& safeTime, int sec);
    unsigned long long toExactWorkingGop(int& safeTime, int sec, int usec);
    // The GOP after the working one.
    unsigned long long toNextGop(int& safeTime);
    // The working GOP's gopID and safe time, without moving.
    unsigned long long getGopID();
    int getSafeTime();
    // The header's values, read live: one GOP's duration in ms, the nominal
    // rate, the picture size, the measured rate.
    int getOneSafeTime();
    int getWorkingFPS();
    int getWorkingWidth();
    int getWorkingHeight();
    int getRealFPS();
    // Returns the whole seconds between now and the working GOP's capture time
    // (either way); throws "age too old" above maxAge.
    int probeAge(int maxAge);
    // Blocks until frame k of the working GOP is open, that is complete; a
    // signal does not end the wait. Returns 0. Throws "semop failed." when the
    // wait fails (the pool was removed, or the slot's lock index is outside the
    // sets), "programming error" for k outside 0 .. framesPerGop - 1.
    int waitFrameReady(int k);
    // Fetches frame k of the working GOP into frameTime, frameData (pointing
    // into the ring) and frameLength and returns its frameID; 0 when its bytes
    // have been reused or its record points outside the ring (the members keep
    // the previous frame then). "programming error" for k outside the GOP.
    unsigned long long getFrameData(int k);
    // The set and the index of a slot's lock; throws "Over Max Semaphore
    // Group." from slot 1000 on.
    void getSemPosition(int slot, int& group, int& index);
    // Detaches; the pool stays.
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
    bool intact(const MP4FrameInfo& info) const;
    const MP4FrameInfo& first(int gop) const;
    int writer() const;
    int slotOf(int k) const;
    void requireAttached() const;
    [[noreturn]] void notReady();

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
    int64_t ringLength_ = 0;  // bytes from the ring's start to the segment's end
};

// MPEG-4 visual configuration header (Simple profile). Bits are written most
// significant first through one process-wide bit writer: callers serialise.
// None of these throws; values wider than their field are not masked.

// The bits up to and including the highest set one: 0 for 0, 5 for 30.
AVPOOL_API int count_min_bits(unsigned int value);
// Writes the video object and video object layer headers at out (19 bytes
// without a fixed VOP rate, up to 21 with one) and returns the bytes written.
AVPOOL_API int gen_mpeg4_header(unsigned char* out, int width, int height, int timeIncrementResolution,
                                int fixedVopRate, int fixedVopTimeIncrement, bool resyncMarkerDisable);
// Writes the visual object sequence and visual object headers, then
// gen_mpeg4_header's, at out and returns the bytes written (29 to 31).
AVPOOL_API int fill_mpeg4_vol_header(unsigned char* out, unsigned char profileLevel, int width, int height,
                                     int timeIncrementResolution, bool fixedVopRate, int fixedVopTimeIncrement);
// The same header as upper-case hex digits, NUL-terminated; returns the digits
// written (twice the bytes).
AVPOOL_API int fill_mpeg4_vol_hex(char* out, unsigned char profileLevel, int width, int height,
                                  int timeIncrementResolution, bool fixedVopRate, int fixedVopTimeIncrement);
