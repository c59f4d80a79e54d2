// The producer of every audio pool, once; the kinds differ only in kind<Record>.
#include "audio_kinds.h"

#include "../common/ring_scan.h"
#include "../common/safe_time.h"
#include "../common/segment.h"
#include "../common/slot_lock.h"

#include <cstring>

using namespace avpool::detail;

namespace avpool {

namespace {
template <class Record>
constexpr Raise raiseFor = kind<Record>.putterError;

// A rate below 1000 Hz or no channels would divide by zero; the figure is 0
// instead, and safe times of 0 tell readers to wait on the lock.
int divide(int dividend, int divisor) {
    return divisor == 0 ? 0 : dividend / divisor;
}
}  // namespace

template <class Record>
AudioPutter<Record>::AudioPutter() : pool_(notAttached<AudioPoolHeader>()) {
    fragmentTime_ = calFragmentTime();
    sampleNumber_ = calSampleNumber();
    sampleTotal_ = sampleNumber_ * channels_;
}

template <class Record>
AudioPutter<Record>::~AudioPutter() {
    release();
}

template <class Record>
void AudioPutter<Record>::create(int channel) {
    constexpr AudioKindRules rules = kind<Record>;
    channel_ = channel;
    void* address = createPoolSegment(shmId_, segmentKey<Record>(channel), SEGMENT_SIZE<Record>,
                                      AttachFailure::MinusOne, 0xCC, [&] { forceReleaseShmOf(channel); },
                                      raiseFor<Record>);
    pool_ = static_cast<AudioPoolHeader*>(address);
    createSemGroups(firstSetKey<Record>(channel), AUDIO_SLOT_COUNT, sems_,
                    [&](int group) { forceReleaseSem(channel * 16 + group); }, raiseFor<Record>, rules.createLog);
    initLock();

    // The working fields and each slot's format, rate, extras and data keep the
    // fill bytes until they are first written.
    Record* slots = slotsOf<Record>(pool_);
    for (int i = 0; i < AUDIO_SLOT_COUNT; ++i) {
        pool_->safeTime[i] = 0;
        AudioFragmentHead& head = slots[i].head;
        head.lockIndex = i;
        head.fragmentID.set(0);
        head.length = 0;
        head.tv_sec = 0;
        head.tv_usec = 0;
    }
    pool_->current = 0;
}

template <class Record>
void AudioPutter<Record>::configure(int format, int channels, int rate, int streamParam) {
    if (pool_ == notAttached<AudioPoolHeader>()) programmingError(raiseFor<Record>, Newline::No);
    format_ = format;
    channels_ = channels;
    rate_ = rate;
    streamParam_ = streamParam;
    pool_->workingFormat = format;
    pool_->workingChannels = channels;
    pool_->workingRate = rate;
    // The format is checked only here: a refused one stays in the members and the
    // header, while the figures below keep their former values.
    fragmentTime_ = calFragmentTime();
    sampleNumber_ = calSampleNumber();
    sampleTotal_ = sampleNumber_ * channels_;
}

template <class Record>
void AudioPutter<Record>::write(const void* data, int length, const timeval& timestamp, int fragmentParam) {
    constexpr AudioKindRules rules = kind<Record>;
    ++fragmentID_;
    current_ = next(current_);
    // The slot after this one is the next to be overwritten: closed before the
    // header names this one, so a reader stepping forward always blocks.
    closeLock(next(current_));
    setSafeTime();

    Record& slot = slotsOf<Record>(pool_)[current_];
    AudioFragmentHead& head = slot.head;
    head.fragmentID.set(fragmentID_);
    storeShared(pool_->current, current_);
    head.tv_sec = static_cast<int32_t>(timestamp.tv_sec);
    head.tv_usec = static_cast<int32_t>(timestamp.tv_usec);
    head.format = format_;
    head.channels = channels_;
    head.rate = rate_;
    if constexpr (rules.streamParam) slot.streamParam = streamParam_;
    if constexpr (rules.fragmentParam) slot.fragmentParam = fragmentParam;

    constexpr int capacity = static_cast<int>(sizeof slot.data);
    int copied = capacity;
    int stored = capacity;
    if constexpr (rules.lengthRule == LengthRule::AsGiven) stored = length;
    if constexpr (rules.lengthRule == LengthRule::UpToSize) {
        // A negative length stores nothing rather than a huge copy.
        copied = length < 0 ? 0 : (length < capacity ? length : capacity);
        stored = copied;
    }
    memcpy(slot.data, data, static_cast<size_t>(copied));
    head.sampleNumber = sampleNumber_;
    head.length = stored;
    openLock(head.lockIndex);
}

template <class Record>
int AudioPutter<Record>::next(int slot) const {
    return nextSlot(slot, AUDIO_SLOT_COUNT);
}

template <class Record>
void AudioPutter<Record>::setSafeTime() {
    if (pool_ == notAttached<AudioPoolHeader>()) programmingError(raiseFor<Record>, Newline::No);
    setSafeTimesFragmentForm(pool_->safeTime, AUDIO_SLOT_COUNT, current_, fragmentTime_);
}

template <class Record>
int AudioPutter<Record>::bitsOf(int format) {
    int bits = 0;
    switch (format) {
        case 1: bits = 8; break;
        case 4: bits = 4; break;
        case 8: bits = 8; break;
        case 16: bits = 16; break;
    }
    if (bits == 0) raiseFor<Record>("not supported format");
    return bits;
}

template <class Record>
int AudioPutter<Record>::calSampleNumber() {
    constexpr FragmentFormula formula = kind<Record>.formula;
    return divide(formula.bitBudget / bitsOf(format_), channels_) * formula.factor;
}

// The rate counts in whole kHz first (44100 Hz is 44): readers do the same sums.
template <class Record>
int AudioPutter<Record>::calFragmentTime() {
    constexpr FragmentFormula formula = kind<Record>.formula;
    return divide(divide(formula.bitBudget, rate_ / 1000) / bitsOf(format_), channels_) * formula.factor;
}

template <class Record>
void AudioPutter<Record>::initLock() {
    for (int i = 0; i < AUDIO_SLOT_COUNT; ++i) closeLock(i);
}

template <class Record>
void AudioPutter<Record>::closeLock(int slot) {
    setGroupedLock(sems_, slot, LOCK_CLOSED, raiseFor<Record>);
}

template <class Record>
void AudioPutter<Record>::openLock(int slot) {
    setGroupedLock(sems_, slot, LOCK_OPEN, raiseFor<Record>);
}

template <class Record>
void AudioPutter<Record>::getSemPosition(int slot, int& group, int& position) {
    semPosition(slot, group, position, raiseFor<Record>);
}

template <class Record>
void AudioPutter<Record>::release() {
    removeSemGroups(sems_);
    removeSegment(shmId_, pool_, notAttached<AudioPoolHeader>());
}

template <class Record>
void AudioPutter<Record>::forceReleaseShmOf(int channel) {
    forceRemoveSegment(segmentKey<Record>(channel), SEGMENT_SIZE<Record>);
}

template <class Record>
void AudioPutter<Record>::forceReleaseSem(int keyOffset) {
    forceRemoveSemSet(kind<Record>.baseKey + keyOffset, 0, AUDIO_SLOT_COUNT);
}

template class AudioPutter<PCMFragmentInfo>;
template class AudioPutter<AACFragmentInfo>;
template class AudioPutter<AMRFragmentInfo>;
template class AudioPutter<OPUSFragmentInfo>;

}  // namespace avpool

// The fixed-key kinds are channel 0 of the keyed rule; each class states only
// its own arguments.
void PCMPutter::init() {
    create(0);
}
void PCMPutter::reset(int format, int channels, int rate) {
    configure(format, channels, rate, 0);
}
void PCMPutter::putFragment(void* data, int length, const timeval& timestamp) {
    write(data, length, timestamp, 0);
}
void PCMPutter::forceReleaseShm() {
    forceReleaseShmOf(0);
}

void OPUSPutter::init() {
    create(0);
}
void OPUSPutter::reset(int format, int channels, int rate) {
    configure(format, channels, rate, 0);
}
void OPUSPutter::putFragment(void* data, int length, const timeval& timestamp) {
    write(data, length, timestamp, 0);
}
void OPUSPutter::forceReleaseShm() {
    forceReleaseShmOf(0);
}

void AACPutter::init(int channel) {
    create(channel);
}
void AACPutter::reset(int format, int channels, int rate, int streamParam) {
    configure(format, channels, rate, streamParam);
}
void AACPutter::putFragment(void* data, int length, const timeval& timestamp) {
    write(data, length, timestamp, 0);
}
void AACPutter::forceReleaseShm(int channel) {
    forceReleaseShmOf(channel);
}

void AMRPutter::init(int channel) {
    create(channel);
}
void AMRPutter::reset(int format, int channels, int rate, int streamParam) {
    configure(format, channels, rate, streamParam);
}
void AMRPutter::putFragment(void* data, int length, const timeval& timestamp, int fragmentParam) {
    write(data, length, timestamp, fragmentParam);
}
void AMRPutter::forceReleaseShm(int channel) {
    forceReleaseShmOf(channel);
}
