#include <avpool/jpg.h>

#include "../common/age_probe.h"
#include "../common/data_ring.h"
#include "../common/errors.h"
#include "../common/ring_scan.h"
#include "../common/segment.h"
#include "../common/slot_lock.h"

using namespace avpool::detail;

namespace {
constexpr Raise raise = raiseAs<JPGGetterError>;

// The writer moves `current` while a search runs; read it from memory every time.
int liveCurrent(const JPGPoolHeader* pool) {
    return *static_cast<const volatile int32_t*>(&pool->current);
}
}  // namespace

JPGGetter::JPGGetter() = default;

JPGGetter::~JPGGetter() {
    release();
}

void JPGGetter::init(int channel) {
    channel_ = channel;
    key_t key = JPG_BASE_KEY + channel;
    pool_ = static_cast<JPGPoolHeader*>(openPoolSegment(shmId_, key, JPG_HEADER_SIZE, AttachFailure::Null, raise));
    frameCount_ = pool_->frameCount;
    maxFrameSize_ = pool_->maxFrameSize;
    unsigned char* base = reinterpret_cast<unsigned char*>(pool_);
    data_ = base + pool_->dataOffset;
    safeTime_ = reinterpret_cast<int32_t*>(base + pool_->safeTimeOffset);
    frameInfo_ = reinterpret_cast<JPGFrameInfo*>(base + pool_->frameInfoOffset);
    semId_ = openSemSet(key, frameCount_, raise);
    current_ = pool_->current;
}

void JPGGetter::requireAttached() const {
    if (pool_ == nullptr) programmingError(raise);
}

int JPGGetter::getWorkingFPS() {
    requireAttached();
    return pool_->workingFPS;
}

int JPGGetter::getWorkingWidth() {
    requireAttached();
    return pool_->workingWidth;
}

int JPGGetter::getWorkingHeight() {
    requireAttached();
    return pool_->workingHeight;
}

int JPGGetter::getRealFPS() {
    requireAttached();
    return pool_->realFPS;
}

unsigned char* JPGGetter::getLumQT() {
    requireAttached();
    return pool_->lumQT;
}

unsigned char* JPGGetter::getChromQT() {
    requireAttached();
    return pool_->chromQT;
}

void JPGGetter::probeAge(int maxAge) {
    requireAttached();
    avpool::detail::probeAge(frameInfo_[current_].tv_sec, maxAge, raise);
}

int JPGGetter::next(int slot) const {
    return nextSlot(slot, frameCount_);
}

bool JPGGetter::intact(int slot) const {
    return entryIntact(data_, frameInfo_[slot].dataPosition, frameInfo_[slot].frameID);
}

unsigned long long JPGGetter::settle(int& safeTime) {
    safeTime = safeTime_[current_];
    return frameInfo_[current_].frameID.get();
}

void JPGGetter::getFrame() {
    requireAttached();
    while (!intact(current_)) current_ = (current_ + 1) % frameCount_;
    const JPGFrameInfo& info = frameInfo_[current_];
    frame.width = info.width;
    frame.height = info.height;
    frame.fps = info.fps;
    frame.quality = info.quality;
    frame.tv_sec = info.tv_sec;
    frame.tv_usec = info.tv_usec;
    frame.frameLength = info.frameLength;
    frame.data = data_ + info.dataPosition + pool_->framePrefixSize;
}

unsigned long long JPGGetter::toWorking(int& safeTime) {
    requireAttached();
    current_ = liveCurrent(pool_);
    return settle(safeTime);
}

unsigned long long JPGGetter::toNext(int& safeTime) {
    requireAttached();
    current_ = next(current_);
    return settle(safeTime);
}

template <class Qualifies>
unsigned long long JPGGetter::scanOldest(int& safeTime, Qualifies qualifies) {
    requireAttached();
    current_ = avpool::detail::scanOldest(
        oldestUsable(liveCurrent(pool_), frameCount_), frameCount_,
        [&](int slot) { return qualifies(frameInfo_[slot]) && intact(slot); }, [&] { return liveCurrent(pool_); });
    return settle(safeTime);
}

unsigned long long JPGGetter::toOldestWorking(int& safeTime, int second) {
    return scanOldest(safeTime, [&](const JPGFrameInfo& info) { return info.tv_sec >= second; });
}

// Seconds and microseconds are compared each on its own, not as one time value:
// a frame one second later with a smaller microsecond does not qualify.
unsigned long long JPGGetter::toOldestWorking(int& safeTime, int second, int microsecond) {
    return scanOldest(safeTime, [&](const JPGFrameInfo& info) {
        return info.tv_sec >= second && info.tv_usec >= microsecond;
    });
}

template <class Matches>
unsigned long long JPGGetter::scanExact(int& safeTime, int second, Matches matches) {
    requireAttached();
    int writer = liveCurrent(pool_);
    current_ = oldestUsable(writer, frameCount_);
    if (frameInfo_[current_].tv_sec > second) return avpool::NOT_FOUND;
    bool found = avpool::detail::scanExact(current_, (writer + 1) % frameCount_, frameCount_,
                                           [&](int slot) { return matches(frameInfo_[slot]) && intact(slot); });
    return found ? settle(safeTime) : avpool::NOT_FOUND;
}

unsigned long long JPGGetter::toExactWorking(int& safeTime, int second) {
    return scanExact(safeTime, second, [&](const JPGFrameInfo& info) { return info.tv_sec == second; });
}

unsigned long long JPGGetter::toExactWorking(int& safeTime, int second, int microsecond) {
    return scanExact(safeTime, second, [&](const JPGFrameInfo& info) {
        return info.tv_sec == second && info.tv_usec <= microsecond;
    });
}

unsigned long long JPGGetter::getFrameID() {
    requireAttached();
    return frameInfo_[current_].frameID.get();
}

void JPGGetter::waitReady() {
    requireAttached();
    waitForOpen(semId_, frameInfo_[current_].lockIndex, OnSignal::Retry, raise);
}

void JPGGetter::release() {
    semId_ = -1;
    detachSegment(shmId_, pool_);
}
