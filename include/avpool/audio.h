// What the four audio pools (PCM, AAC, AMR, Opus) share: the segment header, the
// first 44 bytes of every fragment slot, the consumer's view of a fragment, and
// the putter and getter bodies that each kind's public classes are named from.
// A kind differs only in its keys, its slot record and its fragment arithmetic.
#pragma once

#include <avpool/common.h>

#include <cstddef>
#include <cstdint>
#include <sys/time.h>

constexpr int AUDIO_SLOT_COUNT = 200;
constexpr int AUDIO_HEADER_SIZE = 816;

/*
 * Segment (816 + 200 x slot size bytes), every byte 0xCC after creation:
 *
 *   0         16                 816                816+s              816+199s
 *   +---------+------------------+------------------+------ ... ------+------------------+
 *   | current | safeTime         | slot 0           | slot 1           | slot 199         |
 *   | working | int32 x 200 (ms) | FragmentInfo     |                  |                  |
 *   | format, |                  | head (44 bytes)  |                  |                  |
 *   | chans,  |                  | kind's extras    |                  |                  |
 *   | rate    |                  | data             |                  |                  |
 *   +---------+------------------+------------------+------ ... ------+------------------+
 *
 * The working format, channels and rate keep the fill bytes until the putter's
 * first reset; so do the slot fields init does not zero (format, channels, rate,
 * sampleNumber, extras, data) until the slot is first written.
 */
namespace avpool {

struct AudioPoolHeader {
    int32_t current;  // slot of the newest fragment
    int32_t workingFormat;
    int32_t workingChannels;
    int32_t workingRate;
    int32_t safeTime[AUDIO_SLOT_COUNT];
};
static_assert(sizeof(AudioPoolHeader) == AUDIO_HEADER_SIZE, "AudioPoolHeader is not AUDIO_HEADER_SIZE (816) bytes");
static_assert(offsetof(AudioPoolHeader, current) == 0, "AudioPoolHeader.current is not at 0");
static_assert(offsetof(AudioPoolHeader, workingFormat) == 4, "AudioPoolHeader.workingFormat is not at 4");
static_assert(offsetof(AudioPoolHeader, workingChannels) == 8, "AudioPoolHeader.workingChannels is not at 8");
static_assert(offsetof(AudioPoolHeader, workingRate) == 12, "AudioPoolHeader.workingRate is not at 12");
static_assert(offsetof(AudioPoolHeader, safeTime) == 16, "AudioPoolHeader.safeTime is not at 16");

// Offsets 0..43 of every audio slot.
struct AudioFragmentHead {
    int32_t lockIndex;  // the slot's own index: the number of its lock
    uint32_t unused;    // never written
    Word64 fragmentID;  // 0: never written
    int32_t length;
    int32_t format;
    int32_t channels;
    int32_t rate;
    int32_t tv_sec;
    int32_t tv_usec;
    int32_t sampleNumber;  // samples per channel
};
static_assert(sizeof(AudioFragmentHead) == 44, "AudioFragmentHead is not 44 bytes");
static_assert(offsetof(AudioFragmentHead, lockIndex) == 0, "AudioFragmentHead.lockIndex is not at 0");
static_assert(offsetof(AudioFragmentHead, unused) == 4, "AudioFragmentHead.unused is not at 4");
static_assert(offsetof(AudioFragmentHead, fragmentID) == 8, "AudioFragmentHead.fragmentID is not at 8");
static_assert(offsetof(AudioFragmentHead, length) == 16, "AudioFragmentHead.length is not at 16");
static_assert(offsetof(AudioFragmentHead, format) == 20, "AudioFragmentHead.format is not at 20");
static_assert(offsetof(AudioFragmentHead, channels) == 24, "AudioFragmentHead.channels is not at 24");
static_assert(offsetof(AudioFragmentHead, rate) == 28, "AudioFragmentHead.rate is not at 28");
static_assert(offsetof(AudioFragmentHead, tv_sec) == 32, "AudioFragmentHead.tv_sec is not at 32");
static_assert(offsetof(AudioFragmentHead, tv_usec) == 36, "AudioFragmentHead.tv_usec is not at 36");
static_assert(offsetof(AudioFragmentHead, sampleNumber) == 40, "AudioFragmentHead.sampleNumber is not at 40");

// The fragment under a getter's cursor (PCM and Opus); data points into the segment.
struct AVPOOL_API AudioFragment {
    int format;
    int channels;
    int rate;
    int sampleNumber;
    timeval timestamp;
    unsigned char* data;
    int length;
};

// The producer of one audio pool over slots of type Record. Each kind's putter
// class derives from it and adds init, reset and putFragment with its own
// arguments. Not attached: the segment address is all ones. Errors are the
// kind's putter error (PCMPutterError, ...); a failing system call is first
// reported with perror ("semctl failed") and thrown with a final point
// ("semctl failed.").
template <class Record>
class AVPOOL_API AudioPutter {
public:
    // Format 16, 1 channel, 8000 Hz until the first reset.
    AudioPutter();
    // Calls release(): the pool goes with its putter.
    virtual ~AudioPutter();
    AudioPutter(const AudioPutter&) = delete;
    AudioPutter& operator=(const AudioPutter&) = delete;

    // Rewrites the safe-time table around the current slot (putFragment does).
    // Throws "programming error" before init ("programming error" on stderr,
    // without a newline).
    void setSafeTime();
    // Bits per sample of a format code (1, 4, 8, 16); others: "not supported format".
    int bitsOf(int format);
    // Samples per channel in one fragment, and its duration in milliseconds,
    // for the current format, channels and rate (0 without channels or below
    // 1000 Hz). Throw "not supported format" for an unknown format code.
    int calSampleNumber();
    int calFragmentTime();  // milliseconds

    // The lock steps of the write protocol: close every lock; close (1) or
    // open (0) one slot's lock, throwing "semctl failed."; the set and the
    // index of a slot's lock, throwing "Over Max Semaphore Group." from slot
    // 1000 on.
    void initLock();
    void closeLock(int slot);
    void openLock(int slot);
    void getSemPosition(int slot, int& group, int& position);
    // Removes the semaphore sets and the segment; reports nothing.
    void release();
    // Removes a semaphore set left under the kind's base key + keyOffset by a
    // writer that died; what is not there is left alone.
    void forceReleaseSem(int keyOffset);

protected:
    void create(int channel);
    void configure(int format, int channels, int rate, int streamParam);
    void write(const void* data, int length, const timeval& timestamp, int fragmentParam);
    void forceReleaseShmOf(int channel);

private:
    int next(int slot) const;

    int shmId_ = -1;
    SemGroups sems_;
    AudioPoolHeader* pool_;
    int current_ = 0;
    unsigned long long fragmentID_ = 0;
    int channel_ = 0;
    int format_ = 16;
    int channels_ = 1;
    int rate_ = 8000;
    int fragmentTime_ = 0;
    int sampleNumber_ = 0;
    int streamParam_ = 0;
    int sampleTotal_ = 0;
};

// The consumer of one audio pool: a private cursor over the 200 slots, moved by
// the positioning calls, and the fragment under it in `fragment` after
// getFragment(). Each kind's getter class derives from it and adds init, which
// attaches (a new getter's cursor is on slot 0) and throws "shmget failed."
// when there is no pool, else "shmat failed." or "semget failed.". Errors are the kind's
// getter error (PCMGetterError, ...); a failing system call is first reported
// with perror. Used before init, the calls on the pool (all but release and
// getSemPosition) write "programming error" on stderr, without a newline, and
// throw "programming error".
template <class Record, class Fragment>
class AVPOOL_API AudioGetter {
public:
    AudioGetter();
    // Calls release(): detaches, never removes the pool.
    virtual ~AudioGetter();
    AudioGetter(const AudioGetter&) = delete;
    AudioGetter& operator=(const AudioGetter&) = delete;

    // The header's working format, channels and rate, read live (the fill
    // bytes 0xCCCCCCCC until the producer's first reset).
    int getWorkingFormat();
    int getWorkingChannels();
    int getWorkingRate();
    // The cursor's safe time, in milliseconds.
    int getSafeTime();
    // Returns the whole seconds between now and the cursor's fragment (either
    // way); throws "age too old" above maxAge.
    int probeAge(int maxAge);
    // Fills `fragment` from the cursor's slot; its data points into the segment.
    void getFragment();

    // Each returns the fragmentID of the slot it ends on (0 for one never
    // written) and stores that slot's safe time in safeTime: the milliseconds
    // before the writer comes round to it; 0 means wait with waitReady first.
    // The newest fragment.
    unsigned long long toWorking(int& safeTime);
    // The oldest fragment captured in or after second (and, in the second
    // form, at or after microsecond, compared as a field of its own), leaving
    // out the two slots ahead of the writer; the newest when none was.
    unsigned long long toOldestWorking(int& safeTime, int second);
    unsigned long long toOldestWorking(int& safeTime, int second, int microsecond);
    // The earliest fragment of that second (in the second form, not after
    // microsecond); NOT_FOUND (4294967295) when there is none. A second before
    // the oldest candidate leaves safeTime untouched.
    unsigned long long toExactWorking(int& safeTime, int second);
    unsigned long long toExactWorking(int& safeTime, int second, int microsecond);
    // The slot after the cursor's.
    unsigned long long toNext(int& safeTime);
    // The cursor's fragmentID, without moving.
    unsigned long long getFragmentID();

    // Blocks until the cursor's slot is open, that is complete; a signal ends
    // the wait with "semop failed.", as does the removal of the pool.
    void waitReady();
    // Detaches; the pool stays.
    void release();
    // The set and the index of a slot's lock; throws "Over Max Semaphore
    // Group." from slot 1000 on.
    void getSemPosition(int slot, int& group, int& position);

    Fragment fragment{};

protected:
    void attach(int channel);

private:
    template <class Accept>
    unsigned long long scanOldest(int& safeTime, Accept accept);
    template <class Match>
    unsigned long long scanExact(int& safeTime, int second, Match match);
    const Record& slot(int index) const;
    unsigned long long settle(int& safeTime);
    int writer() const;
    void requireAttached() const;

    int shmId_ = -1;
    AudioPoolHeader* pool_;
    SemGroups sems_;
    int channel_ = 0;
    int cursor_ = 0;
};

}  // namespace avpool
