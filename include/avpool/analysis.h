// The analysis pools (luminance, motion detection): a fixed ring of a few records
// that carry their payload inline, locked by one semaphore set under the pool's
// own key. One putter and one getter template hold the ring, the locks, the safe
// times and the reader's cursor for both kinds; lum.h and md.h name them and add
// what is their own. The template bodies are in the library.
#pragma once

#include <avpool/common.h>

#include <sys/time.h>

namespace avpool {

// Record is the kind's slot record (LUMFrameInfo, MDFrameInfo). Errors are the
// kind's putter error (LUMPutterError, MDPutterError); a failing system call is
// first reported with perror ("semctl failed") and thrown with a final point
// ("semctl failed.").
template <class Record>
class AVPOOL_API AnalysisPutter {
public:
    AnalysisPutter() = default;
    virtual ~AnalysisPutter();  // calls release()
    AnalysisPutter(const AnalysisPutter&) = delete;
    AnalysisPutter& operator=(const AnalysisPutter&) = delete;

    // Creates the pool under the kind's base key + channel, with one set of a
    // lock per slot under the same key, every lock closed; a pool this putter
    // held before is released first. A segment or set left under the key is
    // removed and creation tried once more. Throws "shmget failed.", "shmat
    // failed.", "semget failed." or "semctl failed.".
    void init(int channel);
    // Sets the picture size and rate, in the header and as the size every
    // record must have (width x height elements). Taken without checks; fps 0
    // leaves the safe times at 0. Call it after init and before the first
    // record. Throws "programming error" (with "programming error\n" on
    // stderr) before init.
    void reset(int width, int height, int fps);

    // The steps of the write protocol, which init and putFrame take: rewrite
    // the safe-time table around the current slot ("programming error" before
    // init); close every lock; close (1) or open (0) one slot's lock, throwing
    // "semctl failed.".
    void setSafeTime();
    void initLock();
    void closeLock(int slot);
    void openLock(int slot);
    // Removes the semaphore set and the segment; reports nothing.
    void release();
    // Remove a segment or semaphore set left under the channel's key by a
    // writer that died; what is not there is left alone.
    void forceReleaseShm(int channel);
    void forceReleaseSem(int channel);

protected:
    // One element: length check, then the slot protocol around the kind's copy
    // of first (and second, where the kind has two arrays).
    void putRecord(const void* first, const void* second, int length, const timeval& captureTime);
    // The segment, or "programming error" when there is none.
    unsigned char* segment();

    int channel_ = -1;
    int width_ = 0;
    int height_ = 0;
    int fps_ = 0;
    int frameInterval_ = 0;
    int elementSize_ = -1;  // no picture size before reset: no length matches
    int shmId_ = -1;
    int semId_ = -1;
    void* pool_ = reinterpret_cast<void*>(-1);
    int current_ = 0;
    unsigned long long frameCounter_ = 0;
};

// A reader of an analysis pool, with a cursor of its own on one slot (slot 0
// on a new getter). Errors are the kind's getter error (LUMGetterError,
// MDGetterError); a failing system call is first reported with perror. Used
// before init, the calls on the pool (all but release) write "programming
// error\n" on stderr and throw "programming error".
template <class Record>
class AVPOOL_API AnalysisGetter {
public:
    AnalysisGetter() = default;
    virtual ~AnalysisGetter();  // calls release()
    AnalysisGetter(const AnalysisGetter&) = delete;
    AnalysisGetter& operator=(const AnalysisGetter&) = delete;

    // Attaches to the pool of the kind's base key + channel; an attachment this
    // getter held before is released first. Throws "shmget failed." when there
    // is no such pool, else "shmat failed." or "semget failed.".
    void init(int channel);
    // The header's rate and picture size, read live.
    int getWorkingFPS();
    int getWorkingWidth();
    int getWorkingHeight();

    // Each returns the frameID of the slot it ends on (0 for one never
    // written) and stores that slot's safe time in safeTime (0: wait with
    // waitReady first). The newest slot; the slot after the cursor's; the
    // cursor's, without moving.
    unsigned long long toWorking(int& safeTime);
    unsigned long long toNext(int& safeTime);
    unsigned long long getFrameID();

    // Blocks until the cursor's slot is open, that is complete; a signal ends
    // the wait with "semop failed.", as does the removal of the pool.
    void waitReady();
    // Detaches; the pool stays.
    void release();

    // The frame fetched last by getFrame.
    int tv_sec = 0;
    int tv_usec = 0;
    int frameLength = 0;

protected:
    // Copies the current slot's time and length into the members above and
    // returns the slot, whose payload the kind points at.
    Record& fetch();
    bool attached() const { return pool_ != reinterpret_cast<void*>(-1); }
    // "programming error" when not attached.
    void requireAttached() const;

    int channel_ = 0;
    int shmId_ = -1;
    void* pool_ = reinterpret_cast<void*>(-1);
    int semId_ = -1;
    int current_ = 0;
};

}  // namespace avpool
