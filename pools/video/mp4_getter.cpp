#include <avpool/mp4.h>

#include "../common/age_probe.h"
#include "../common/data_ring.h"
#include "../common/errors.h"
#include "../common/ring_scan.h"
#include "../common/segment.h"
#include "../common/shared_word.h"
#include "../common/slot_lock.h"

#include <cstdio>

using namespace avpool::detail;

namespace {
constexpr Raise raise = raiseAs<MP4GetterError>;
}  // namespace

MP4Getter::MP4Getter() = default;

MP4Getter::~MP4Getter() {
    release();
}

// Everything the getter later uses as an index, divisor or pointer is taken
// from the header here, once, and only when it describes a pool that fits the
// segment. gopCount is the word the writer stores last, so it is read first.
void MP4Getter::init(int channel) {
    channel_ = channel;
    pool_ = static_cast<MP4PoolHeader*>(
        openPoolSegment(shmId_, MP4_BASE_KEY + channel, MP4_HEADER_SIZE, AttachFailure::Null, raise));
    if (!isAttached(pool_)) notReady();
    int32_t gopCount = loadShared(pool_->gopCount);
    MP4PoolHeader header = readShared(*pool_);
    int64_t slots = int64_t{gopCount} * header.framesPerGop;
    bool counted = gopCount >= 1 && header.framesPerGop >= 1 && slots <= MP4_MAX_FRAME_COUNT;
    ringLength_ = counted ? ringLengthOf({MP4_HEADER_SIZE, static_cast<int32_t>(sizeof(MP4FrameInfo)),
                                          static_cast<int32_t>(slots), header.framePrefixSize,
                                          header.safeTimeOffset, header.frameInfoOffset, header.dataOffset},
                                         segmentSize(shmId_), MP4_MAX_FRAME_COUNT)
                          : -1;
    if (ringLength_ < 0) notReady();
    gopCount_ = gopCount;
    framesPerGop_ = header.framesPerGop;
    maxFrameSize_ = header.maxFrameSize;
    poolSize_ = gopCount_ * framesPerGop_;
    unsigned char* base = reinterpret_cast<unsigned char*>(pool_);
    safeTime_ = reinterpret_cast<int32_t*>(base + header.safeTimeOffset);
    frameInfo_ = reinterpret_cast<MP4FrameInfo*>(base + header.frameInfoOffset);
    data_ = base + header.dataOffset;
    fprintf(stderr, "MP4Getter A:%p sA:%p fA:%p dA:%p\n", static_cast<void*>(pool_), static_cast<void*>(safeTime_),
            static_cast<void*>(frameInfo_), static_cast<void*>(data_));
    openSemGroups(MP4_BASE_KEY + channel * 16, poolSize_, sems_, raise);
    workingGop_ = 0;
}

void MP4Getter::notReady() {
    refuseHeader(pool_, [this] { release(); }, raise);
}

int MP4Getter::writer() const {
    return writerSlot(pool_->workingGop, gopCount_);
}

void MP4Getter::requireAttached() const {
    if (pool_ == nullptr) programmingError(raise);
}

const MP4FrameInfo& MP4Getter::first(int gop) const {
    return frameInfo_[gop * framesPerGop_];
}

bool MP4Getter::intact(const MP4FrameInfo& info) const {
    return entryIntact(data_, ringLength_, info.dataPosition, info.frameLength, info.frameID);
}

unsigned long long MP4Getter::enterGop(int& safeTime) {
    const MP4FrameInfo& info = first(workingGop_);
    safeTime = safeTime_[workingGop_ * framesPerGop_];
    gopWidth = info.width;
    gopHeight = info.height;
    gopFPS = info.fps;
    return info.gopID.get();
}

unsigned long long MP4Getter::toWorkingGop(int& safeTime) {
    requireAttached();
    workingGop_ = writer();
    return enterGop(safeTime);
}

unsigned long long MP4Getter::toNextGop(int& safeTime) {
    requireAttached();
    workingGop_ = nextSlot(workingGop_, gopCount_);
    return enterGop(safeTime);
}

template <class Qualifies>
unsigned long long MP4Getter::scanOldest(int& safeTime, Qualifies qualifies) {
    requireAttached();
    workingGop_ = avpool::detail::scanOldest(
        oldestUsable(writer(), gopCount_), gopCount_,
        [&](int gop) {
            // A GOP is readable while the bytes of its I frame have not been reused.
            const MP4FrameInfo info = readShared(first(gop));
            return qualifies(info) && intact(info);
        },
        [&] { return writer(); });
    return enterGop(safeTime);
}

unsigned long long MP4Getter::toOldestWorkingGop(int& safeTime, int sec) {
    return scanOldest(safeTime, [&](const MP4FrameInfo& info) { return info.tv_sec >= sec; });
}

// Seconds and microseconds are compared one by one, not as one time value.
unsigned long long MP4Getter::toOldestWorkingGop(int& safeTime, int sec, int usec) {
    return scanOldest(safeTime, [&](const MP4FrameInfo& info) { return info.tv_sec >= sec && info.tv_usec >= usec; });
}

template <class Matches>
unsigned long long MP4Getter::scanExact(int& safeTime, int sec, Matches matches) {
    requireAttached();
    int newest = writer();
    workingGop_ = oldestUsable(newest, gopCount_);
    if (sec < first(workingGop_).tv_sec) return avpool::NOT_FOUND;
    // The stop GOP is taken modulo the slot count, not the GOP count: with the
    // writer on the last GOP it never occurs and only the step count ends the scan.
    bool found = avpool::detail::scanExact(workingGop_, (newest + 1) % poolSize_, gopCount_, [&](int gop) {
        const MP4FrameInfo info = readShared(first(gop));
        return matches(info) && intact(info);
    });
    return found ? enterGop(safeTime) : avpool::NOT_FOUND;
}

unsigned long long MP4Getter::toExactWorkingGop(int& safeTime, int sec) {
    return scanExact(safeTime, sec, [&](const MP4FrameInfo& info) { return info.tv_sec == sec; });
}

unsigned long long MP4Getter::toExactWorkingGop(int& safeTime, int sec, int usec) {
    return scanExact(safeTime, sec, [&](const MP4FrameInfo& info) { return info.tv_sec == sec && usec >= info.tv_usec; });
}

unsigned long long MP4Getter::getGopID() {
    requireAttached();
    return first(workingGop_).gopID.get();
}

int MP4Getter::getSafeTime() {
    requireAttached();
    return safeTime_[workingGop_ * framesPerGop_];
}

int MP4Getter::getOneSafeTime() {
    requireAttached();
    return pool_->oneSafeTime;
}

int MP4Getter::getWorkingFPS() {
    requireAttached();
    return pool_->workingFPS;
}

int MP4Getter::getWorkingWidth() {
    requireAttached();
    return pool_->width;
}

int MP4Getter::getWorkingHeight() {
    requireAttached();
    return pool_->height;
}

int MP4Getter::getRealFPS() {
    requireAttached();
    return pool_->realFPS;
}

int MP4Getter::probeAge(int maxAge) {
    requireAttached();
    return avpool::detail::probeAge(first(workingGop_).tv_sec, maxAge, raise);
}

// k comes from the caller: a frame outside the GOP is a programming error.
int MP4Getter::slotOf(int k) const {
    requireAttached();
    if (k < 0 || k >= framesPerGop_) programmingError(raise);
    return workingGop_ * framesPerGop_ + k;
}

int MP4Getter::waitFrameReady(int k) {
    waitForSlotLock(sems_, frameInfo_[slotOf(k)].lockIndex, poolSize_, OnSignal::Retry, raise);
    return 0;
}

unsigned long long MP4Getter::getFrameData(int k) {
    const MP4FrameInfo info = readShared(frameInfo_[slotOf(k)]);
    if (!intact(info)) return 0;
    frameTime.tv_sec = info.tv_sec;
    frameTime.tv_usec = info.tv_usec;
    frameData = data_ + info.dataPosition + FRAME_PREFIX_SIZE;
    frameLength = info.frameLength;
    return info.frameID.get();
}

void MP4Getter::getSemPosition(int slot, int& group, int& index) {
    semPosition(slot, group, index, raise);
}

void MP4Getter::release() {
    forgetSemGroups(sems_);
    detachSegment(shmId_, pool_);
}
