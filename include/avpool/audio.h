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
// arguments. Not attached: the segment address is all ones.
template <class Record>
class AVPOOL_API AudioPutter {
public:
    AudioPutter();
    virtual ~AudioPutter();
    AudioPutter(const AudioPutter&) = delete;
    AudioPutter& operator=(const AudioPutter&) = delete;

    void setSafeTime();
    // Bits per sample of a format code (1, 4, 8, 16); others: "not supported format".
    int bitsOf(int format);
    int calSampleNumber();
    int calFragmentTime();  // milliseconds

    void initLock();
    void closeLock(int slot);
    void openLock(int slot);
    void getSemPosition(int slot, int& group, int& position);
    void release();
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
// getFragment(). Each kind's getter class derives from it and adds init.
template <class Record, class Fragment>
class AVPOOL_API AudioGetter {
public:
    AudioGetter();
    virtual ~AudioGetter();
    AudioGetter(const AudioGetter&) = delete;
    AudioGetter& operator=(const AudioGetter&) = delete;

    int getWorkingFormat();
    int getWorkingChannels();
    int getWorkingRate();
    int getSafeTime();
    // Seconds between now and the cursor's fragment; throws "age too old" above maxAge.
    int probeAge(int maxAge);
    void getFragment();

    // Each returns the fragmentID of the slot it ends on and stores that slot's
    // safe time in safeTime; the exact searches return NOT_FOUND when nothing matched.
    unsigned long long toWorking(int& safeTime);
    unsigned long long toOldestWorking(int& safeTime, int second);
    unsigned long long toOldestWorking(int& safeTime, int second, int microsecond);
    unsigned long long toExactWorking(int& safeTime, int second);
    unsigned long long toExactWorking(int& safeTime, int second, int microsecond);
    unsigned long long toNext(int& safeTime);
    unsigned long long getFragmentID();

    // Blocks until the cursor's slot is open; a signal ends the wait with "semop failed.".
    void waitReady();
    void release();
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
