// The analysis pools (luminance, motion detection): a fixed ring of a few records
// that carry their payload inline, locked by one semaphore set under the pool's
// own key. One putter and one getter template hold the ring, the locks, the safe
// times and the reader's cursor for both kinds; lum.h and md.h name them and add
// what is their own. The template bodies are in the library.
#pragma once

#include <avpool/common.h>

#include <sys/time.h>

namespace avpool {

// Record is the kind's slot record (LUMFrameInfo, MDFrameInfo).
template <class Record>
class AVPOOL_API AnalysisPutter {
public:
    AnalysisPutter() = default;
    virtual ~AnalysisPutter();  // calls release()
    AnalysisPutter(const AnalysisPutter&) = delete;
    AnalysisPutter& operator=(const AnalysisPutter&) = delete;

    void init(int channel);
    void reset(int width, int height, int fps);

    void setSafeTime();
    void initLock();
    void closeLock(int slot);
    void openLock(int slot);
    void release();
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

template <class Record>
class AVPOOL_API AnalysisGetter {
public:
    AnalysisGetter() = default;
    virtual ~AnalysisGetter();  // calls release()
    AnalysisGetter(const AnalysisGetter&) = delete;
    AnalysisGetter& operator=(const AnalysisGetter&) = delete;

    void init(int channel);
    int getWorkingFPS();
    int getWorkingWidth();
    int getWorkingHeight();

    unsigned long long toWorking(int& safeTime);
    unsigned long long toNext(int& safeTime);
    unsigned long long getFrameID();

    void waitReady();
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
