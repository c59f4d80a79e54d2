#include <avpool/mp4.h>

#include "../common/age_probe.h"
#include "../common/data_ring.h"
#include "../common/errors.h"
#include "../common/ring_scan.h"
#include "../common/segment.h"
#include "../common/slot_lock.h"

#include <cstdio>

using namespace avpool::detail;

namespace {
constexpr Raise raise = raiseAs<MP4GetterError>;

// The writer moves workingGop while a search runs; read it from memory every time.
int liveWorkingGop(const MP4PoolHeader* pool) {
    return *static_cast<const volatile int32_t*>(&pool->workingGop);
}
}  // namespace

MP4Getter::MP4Getter() = default;

MP4Getter::~MP4Getter() {
    release();
}

void MP4Getter::init(int channel) {
    channel_ = channel;
    pool_ = static_cast<MP4PoolHeader*>(
        openPoolSegment(shmId_, MP4_BASE_KEY + channel, MP4_HEADER_SIZE, AttachFailure::Null, raise));
    gopCount_ = pool_->gopCount;
    framesPerGop_ = pool_->framesPerGop;
    maxFrameSize_ = pool_->maxFrameSize;
    poolSize_ = gopCount_ * framesPerGop_;
    unsigned char* base = reinterpret_cast<unsigned char*>(pool_);
    safeTime_ = reinterpret_cast<int32_t*>(base + pool_->safeTimeOffset);
    frameInfo_ = reinterpret_cast<MP4FrameInfo*>(base + pool_->frameInfoOffset);
    data_ = base + pool_->dataOffset;
    fprintf(stderr, "MP4Getter A:%p sA:%p fA:%p dA:%p\n", static_cast<void*>(pool_), static_cast<void*>(safeTime_),
            static_cast<void*>(frameInfo_), static_cast<void*>(data_));
    openSemGroups(MP4_BASE_KEY + channel * 16, poolSize_, sems_, raise);
    workingGop_ = 0;
}

void MP4Getter::requireAttached() const {
    if (pool_ == nullptr) programmingError(raise);
}

const MP4FrameInfo& MP4Getter::first(int gop) const {
    return frameInfo_[gop * framesPerGop_];
}

// A GOP is readable while the bytes of its I frame have not been reused.
bool MP4Getter::gopValid(int gop) const {
    const MP4FrameInfo& info = first(gop);
    return entryIntact(data_, info.dataPosition, info.frameID);
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
    workingGop_ = liveWorkingGop(pool_);
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
        oldestUsable(liveWorkingGop(pool_), gopCount_), gopCount_,
        [&](int gop) { return qualifies(first(gop)) && gopValid(gop); }, [&] { return liveWorkingGop(pool_); });
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
    int writer = liveWorkingGop(pool_);
    workingGop_ = oldestUsable(writer, gopCount_);
    if (sec < first(workingGop_).tv_sec) return avpool::NOT_FOUND;
    // The stop GOP is taken modulo the slot count, not the GOP count: with the
    // writer on the last GOP it never occurs and only the step count ends the scan.
    bool found = avpool::detail::scanExact(workingGop_, (writer + 1) % poolSize_, gopCount_,
                                           [&](int gop) { return matches(first(gop)) && gopValid(gop); });
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

int MP4Getter::waitFrameReady(int k) {
    requireAttached();
    waitForOpenGrouped(sems_, frameInfo_[workingGop_ * framesPerGop_ + k].lockIndex, OnSignal::Retry, raise);
    return 0;
}

unsigned long long MP4Getter::getFrameData(int k) {
    requireAttached();
    const MP4FrameInfo& info = frameInfo_[workingGop_ * framesPerGop_ + k];
    if (!entryIntact(data_, info.dataPosition, info.frameID)) return 0;
    frameTime.tv_sec = info.tv_sec;
    frameTime.tv_usec = info.tv_usec;
    frameData = data_ + info.dataPosition + pool_->framePrefixSize;
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
