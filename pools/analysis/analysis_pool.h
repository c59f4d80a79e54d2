// The bodies of the analysis putter and getter, written once over the kind's
// slot record. A kind's .cpp specialises AnalysisKind for its record (keys,
// sizes, error classes, safe-time form, payload copy) and instantiates both
// templates explicitly.
#pragma once

#include <avpool/analysis.h>

#include "../common/errors.h"
#include "../common/ring_scan.h"
#include "../common/safe_time.h"
#include "../common/segment.h"
#include "../common/slot_lock.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace avpool::detail {

enum class SafeTimeForm { Frame, Fragment };

// Specialised per record type: derived from KindTraits below, it adds
// copyPayload(Record&, first, second, length).
template <class Record>
struct AnalysisKind;

template <class HeaderType, class PutterErrorType, class GetterErrorType, key_t baseKey, int slots, size_t size,
          SafeTimeForm form>
struct KindTraits {
    using Header = HeaderType;
    using PutterError = PutterErrorType;
    using GetterError = GetterErrorType;
    static constexpr key_t BASE_KEY = baseKey;
    static constexpr int SLOTS = slots;
    static constexpr size_t SIZE = size;
    static constexpr SafeTimeForm FORM = form;
};

// Copies length elements of elementBytes each from source into a slot array of
// room bytes. The producer promises that a frame fits; a larger one is cut at
// the end of the array rather than written into the next slot or past the
// segment, and a negative length or a missing source copies nothing.
inline void copyInto(void* target, size_t room, const void* source, int length, size_t elementBytes) {
    if (length <= 0 || source == nullptr) return;
    memcpy(target, source, std::min(static_cast<size_t>(length) * elementBytes, room));
}

template <class Record>
struct AnalysisLayout {
    using Kind = AnalysisKind<Record>;
    using Header = typename Kind::Header;
    static_assert(sizeof(Header) + Kind::SLOTS * sizeof(Record) == Kind::SIZE, "records fill the segment");

    static Header* header(void* pool) { return static_cast<Header*>(pool); }
    static Record& record(void* pool, int slot) {
        return reinterpret_cast<Record*>(static_cast<unsigned char*>(pool) + sizeof(Header))[slot];
    }
    static constexpr Raise putterRaise = raiseAs<typename Kind::PutterError>;
    static constexpr Raise getterRaise = raiseAs<typename Kind::GetterError>;
};

}  // namespace avpool::detail

namespace avpool {

// ------------------------------------------------------------------- putter

template <class Record>
AnalysisPutter<Record>::~AnalysisPutter() {
    release();
}

template <class Record>
void AnalysisPutter<Record>::init(int channel) {
    using L = detail::AnalysisLayout<Record>;
    using K = typename L::Kind;
    release();  // a second init must not leave the first attachment behind
    channel_ = channel;
    current_ = 0;
    key_t key = K::BASE_KEY + channel;
    pool_ = detail::createPoolSegment(shmId_, key, K::SIZE, detail::AttachFailure::MinusOne, 0xCC,
                                      [&] { forceReleaseShm(channel); }, L::putterRaise);
    semId_ = detail::createSemSet(key, K::SLOTS, [&] { forceReleaseSem(channel); }, L::putterRaise);
    initLock();

    typename L::Header* header = L::header(pool_);
    for (int i = 0; i < K::SLOTS; ++i) {
        header->safeTime[i] = 0;
        Record& record = L::record(pool_, i);
        record.frameID.set(0);
        record.lockIndex = i;
        record.tv_sec = 0;
        record.tv_usec = 0;
        record.frameLength = 0;
    }
    header->current = 0;
}

template <class Record>
unsigned char* AnalysisPutter<Record>::segment() {
    if (pool_ == detail::notAttached()) detail::programmingError(detail::AnalysisLayout<Record>::putterRaise);
    return static_cast<unsigned char*>(pool_);
}

template <class Record>
void AnalysisPutter<Record>::reset(int width, int height, int fps) {
    auto* header = detail::AnalysisLayout<Record>::header(segment());
    width_ = width;
    height_ = height;
    fps_ = fps;
    // fps 0 has no interval: the safe times stay 0, "wait on the lock first".
    frameInterval_ = fps != 0 ? 1000 / fps : 0;
    // Multiplied without overflow; an absurd size just never matches a length.
    elementSize_ = static_cast<int>(static_cast<unsigned>(width) * static_cast<unsigned>(height));
    header->workingFPS = fps;
    header->workingWidth = width;
    header->workingHeight = height;
}

template <class Record>
void AnalysisPutter<Record>::putRecord(const void* first, const void* second, int length,
                                       const timeval& captureTime) {
    using L = detail::AnalysisLayout<Record>;
    if (length != elementSize_ || length < 0) L::putterRaise("frameLength is not equal to elementSize");
    unsigned char* base = segment();
    ++frameCounter_;
    current_ = detail::nextSlot(current_, L::Kind::SLOTS);
    closeLock(detail::nextSlot(current_, L::Kind::SLOTS));
    setSafeTime();

    Record& record = L::record(base, current_);
    record.frameID.set(frameCounter_);
    detail::storeShared(L::header(base)->current, current_);
    record.tv_sec = static_cast<int32_t>(captureTime.tv_sec);
    record.tv_usec = static_cast<int32_t>(captureTime.tv_usec);
    L::Kind::copyPayload(record, first, second, length);
    record.frameLength = length;
    openLock(record.lockIndex);
}

template <class Record>
void AnalysisPutter<Record>::setSafeTime() {
    using L = detail::AnalysisLayout<Record>;
    int32_t* table = L::header(segment())->safeTime;
    if constexpr (L::Kind::FORM == detail::SafeTimeForm::Frame) {
        detail::setSafeTimesFrameForm(table, L::Kind::SLOTS, current_, frameInterval_);
    } else {
        detail::setSafeTimesFragmentForm(table, L::Kind::SLOTS, current_, frameInterval_);
    }
}

template <class Record>
void AnalysisPutter<Record>::initLock() {
    for (int i = 0; i < detail::AnalysisKind<Record>::SLOTS; ++i) closeLock(i);
}

template <class Record>
void AnalysisPutter<Record>::closeLock(int slot) {
    detail::setLock(semId_, slot, detail::LOCK_CLOSED, detail::AnalysisLayout<Record>::putterRaise);
}

template <class Record>
void AnalysisPutter<Record>::openLock(int slot) {
    detail::setLock(semId_, slot, detail::LOCK_OPEN, detail::AnalysisLayout<Record>::putterRaise);
}

template <class Record>
void AnalysisPutter<Record>::release() {
    if (semId_ != -1) detail::removeSemSet(semId_, detail::AnalysisKind<Record>::SLOTS);
    detail::removeSegment(shmId_, pool_, detail::notAttached());
}

template <class Record>
void AnalysisPutter<Record>::forceReleaseShm(int channel) {
    using K = detail::AnalysisKind<Record>;
    detail::forceRemoveSegment(K::BASE_KEY + channel, K::SIZE);
}

template <class Record>
void AnalysisPutter<Record>::forceReleaseSem(int channel) {
    using K = detail::AnalysisKind<Record>;
    detail::forceRemoveSemSet(K::BASE_KEY + channel, K::SLOTS, K::SLOTS);
}

// ------------------------------------------------------------------- getter

template <class Record>
AnalysisGetter<Record>::~AnalysisGetter() {
    release();
}

template <class Record>
void AnalysisGetter<Record>::init(int channel) {
    using L = detail::AnalysisLayout<Record>;
    release();
    channel_ = channel;
    key_t key = L::Kind::BASE_KEY + channel;
    pool_ = detail::openPoolSegment(shmId_, key, L::Kind::SIZE, detail::AttachFailure::MinusOne, L::getterRaise);
    semId_ = detail::openSemSet(key, L::Kind::SLOTS, L::getterRaise);
}

// The header accessors and the cursor refuse an unattached getter rather than
// read through the -1 address it holds.
template <class Record>
void AnalysisGetter<Record>::requireAttached() const {
    if (!attached()) detail::programmingError(detail::AnalysisLayout<Record>::getterRaise);
}

template <class Record>
int AnalysisGetter<Record>::getWorkingFPS() {
    requireAttached();
    return detail::AnalysisLayout<Record>::header(pool_)->workingFPS;
}

template <class Record>
int AnalysisGetter<Record>::getWorkingWidth() {
    requireAttached();
    return detail::AnalysisLayout<Record>::header(pool_)->workingWidth;
}

template <class Record>
int AnalysisGetter<Record>::getWorkingHeight() {
    requireAttached();
    return detail::AnalysisLayout<Record>::header(pool_)->workingHeight;
}

template <class Record>
unsigned long long AnalysisGetter<Record>::toWorking(int& safeTime) {
    requireAttached();
    auto* header = detail::AnalysisLayout<Record>::header(pool_);
    current_ = detail::writerSlot(header->current, detail::AnalysisKind<Record>::SLOTS);
    safeTime = header->safeTime[current_];
    return getFrameID();
}

template <class Record>
unsigned long long AnalysisGetter<Record>::toNext(int& safeTime) {
    requireAttached();
    current_ = detail::nextSlot(current_, detail::AnalysisKind<Record>::SLOTS);
    safeTime = detail::AnalysisLayout<Record>::header(pool_)->safeTime[current_];
    return getFrameID();
}

template <class Record>
unsigned long long AnalysisGetter<Record>::getFrameID() {
    requireAttached();
    return detail::AnalysisLayout<Record>::record(pool_, current_).frameID.get();
}

template <class Record>
Record& AnalysisGetter<Record>::fetch() {
    requireAttached();
    Record& record = detail::AnalysisLayout<Record>::record(pool_, current_);
    tv_sec = record.tv_sec;
    tv_usec = record.tv_usec;
    frameLength = record.frameLength;
    return record;
}

template <class Record>
void AnalysisGetter<Record>::waitReady() {
    requireAttached();
    detail::waitForSlotLock(semId_, detail::AnalysisLayout<Record>::record(pool_, current_).lockIndex,
                            detail::AnalysisKind<Record>::SLOTS, detail::OnSignal::Fail,
                            detail::AnalysisLayout<Record>::getterRaise);
}

template <class Record>
void AnalysisGetter<Record>::release() {
    semId_ = -1;
    detail::detachSegment(shmId_, pool_, detail::notAttached());
}

}  // namespace avpool
