// The consumer of every audio pool, once; the kinds differ only in kind<Record>.
#include "audio_kinds.h"

#include "../common/age_probe.h"
#include "../common/ring_scan.h"
#include "../common/segment.h"
#include "../common/slot_lock.h"

using namespace avpool::detail;

namespace avpool {

namespace {
constexpr int SLOTS = AUDIO_SLOT_COUNT;

template <class Record>
constexpr Raise raiseFor = kind<Record>.getterError;
}  // namespace

template <class Record, class Fragment>
AudioGetter<Record, Fragment>::AudioGetter() : pool_(notAttached<AudioPoolHeader>()) {}

template <class Record, class Fragment>
AudioGetter<Record, Fragment>::~AudioGetter() {
    release();
}

template <class Record, class Fragment>
void AudioGetter<Record, Fragment>::attach(int channel) {
    channel_ = channel;
    pool_ = static_cast<AudioPoolHeader*>(openPoolSegment(shmId_, segmentKey<Record>(channel), SEGMENT_SIZE<Record>,
                                                          AttachFailure::MinusOne, raiseFor<Record>));
    openSemGroups(firstSetKey<Record>(channel), SLOTS, sems_, raiseFor<Record>);
}

// Null as well as the all-ones "not attached" address: nothing is read through either.
template <class Record, class Fragment>
void AudioGetter<Record, Fragment>::requireAttached() const {
    if (!isAttached(pool_)) programmingError(raiseFor<Record>, Newline::No);
}

template <class Record, class Fragment>
const Record& AudioGetter<Record, Fragment>::slot(int index) const {
    return slotsOf<Record>(pool_)[index];
}

template <class Record, class Fragment>
int AudioGetter<Record, Fragment>::writer() const {
    return writerSlot(pool_->current, SLOTS);
}

template <class Record, class Fragment>
unsigned long long AudioGetter<Record, Fragment>::settle(int& safeTime) {
    safeTime = pool_->safeTime[cursor_];
    return slot(cursor_).head.fragmentID.get();
}

template <class Record, class Fragment>
int AudioGetter<Record, Fragment>::getWorkingFormat() {
    requireAttached();
    return pool_->workingFormat;
}

template <class Record, class Fragment>
int AudioGetter<Record, Fragment>::getWorkingChannels() {
    requireAttached();
    return pool_->workingChannels;
}

template <class Record, class Fragment>
int AudioGetter<Record, Fragment>::getWorkingRate() {
    requireAttached();
    return pool_->workingRate;
}

template <class Record, class Fragment>
int AudioGetter<Record, Fragment>::getSafeTime() {
    requireAttached();
    return pool_->safeTime[cursor_];
}

template <class Record, class Fragment>
int AudioGetter<Record, Fragment>::probeAge(int maxAge) {
    requireAttached();
    return avpool::detail::probeAge(slot(cursor_).head.tv_sec, maxAge, raiseFor<Record>);
}

template <class Record, class Fragment>
void AudioGetter<Record, Fragment>::getFragment() {
    requireAttached();
    Record& source = slotsOf<Record>(pool_)[cursor_];
    fragment.format = source.head.format;
    fragment.channels = source.head.channels;
    fragment.rate = source.head.rate;
    fragment.sampleNumber = source.head.sampleNumber;
    if constexpr (kind<Record>.streamParam) fragment.streamParam = source.streamParam;
    fragment.timestamp.tv_sec = source.head.tv_sec;
    fragment.timestamp.tv_usec = source.head.tv_usec;
    fragment.data = source.data;
    fragment.length = source.head.length;
}

template <class Record, class Fragment>
unsigned long long AudioGetter<Record, Fragment>::toWorking(int& safeTime) {
    requireAttached();
    cursor_ = writer();
    return settle(safeTime);
}

template <class Record, class Fragment>
unsigned long long AudioGetter<Record, Fragment>::toNext(int& safeTime) {
    requireAttached();
    cursor_ = nextSlot(cursor_, SLOTS);
    return settle(safeTime);
}

template <class Record, class Fragment>
template <class Accept>
unsigned long long AudioGetter<Record, Fragment>::scanOldest(int& safeTime, Accept accept) {
    requireAttached();
    cursor_ = avpool::detail::scanOldest(
        oldestUsable(writer(), SLOTS), SLOTS, [&](int index) { return accept(slot(index).head); },
        [&] { return writer(); });
    return settle(safeTime);
}

template <class Record, class Fragment>
unsigned long long AudioGetter<Record, Fragment>::toOldestWorking(int& safeTime, int second) {
    return scanOldest(safeTime, [&](const AudioFragmentHead& head) { return head.tv_sec >= second; });
}

// Seconds and microseconds are compared each on its own, not as one time value:
// a fragment of a later second with a smaller microsecond does not qualify.
template <class Record, class Fragment>
unsigned long long AudioGetter<Record, Fragment>::toOldestWorking(int& safeTime, int second, int microsecond) {
    return scanOldest(safeTime, [&](const AudioFragmentHead& head) {
        return head.tv_sec >= second && head.tv_usec >= microsecond;
    });
}

// A second older than the first candidate ends at once, with safeTime untouched;
// a miss after the scan leaves the cursor on the slot after the newest and reports
// that slot's safe time.
template <class Record, class Fragment>
template <class Match>
unsigned long long AudioGetter<Record, Fragment>::scanExact(int& safeTime, int second, Match match) {
    requireAttached();
    int newest = writer();
    cursor_ = oldestUsable(newest, SLOTS);
    if (second < slot(cursor_).head.tv_sec) return NOT_FOUND;
    bool found = avpool::detail::scanExact(cursor_, (newest + 1) % SLOTS, SLOTS,
                                           [&](int index) { return match(slot(index).head); });
    unsigned long long id = settle(safeTime);
    return found ? id : NOT_FOUND;
}

template <class Record, class Fragment>
unsigned long long AudioGetter<Record, Fragment>::toExactWorking(int& safeTime, int second) {
    return scanExact(safeTime, second, [&](const AudioFragmentHead& head) { return head.tv_sec == second; });
}

template <class Record, class Fragment>
unsigned long long AudioGetter<Record, Fragment>::toExactWorking(int& safeTime, int second, int microsecond) {
    return scanExact(safeTime, second, [&](const AudioFragmentHead& head) {
        return head.tv_sec == second && head.tv_usec <= microsecond;
    });
}

template <class Record, class Fragment>
unsigned long long AudioGetter<Record, Fragment>::getFragmentID() {
    requireAttached();
    return slot(cursor_).head.fragmentID.get();
}

template <class Record, class Fragment>
void AudioGetter<Record, Fragment>::waitReady() {
    requireAttached();
    waitForSlotLock(sems_, slot(cursor_).head.lockIndex, SLOTS, OnSignal::Fail, raiseFor<Record>);
}

template <class Record, class Fragment>
void AudioGetter<Record, Fragment>::release() {
    forgetSemGroups(sems_);
    detachSegment(shmId_, pool_, notAttached<AudioPoolHeader>());
}

template <class Record, class Fragment>
void AudioGetter<Record, Fragment>::getSemPosition(int slot, int& group, int& position) {
    semPosition(slot, group, position, raiseFor<Record>);
}

template class AudioGetter<PCMFragmentInfo, PCMFragment>;
template class AudioGetter<AACFragmentInfo, AACFragment>;
template class AudioGetter<OPUSFragmentInfo, OPUSFragment>;

}  // namespace avpool

void PCMGetter::init() {
    attach(0);
}

void OPUSGetter::init() {
    attach(0);
}

void AACGetter::init(int channel) {
    attach(channel);
}
