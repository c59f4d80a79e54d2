#include <avpool/jpg.h>

#include "../common/age_probe.h"
#include "../common/data_ring.h"
#include "../common/errors.h"
#include "../common/ring_scan.h"
#include "../common/segment.h"
#include "../common/shared_word.h"
#include "../common/slot_lock.h"

using namespace avpool::detail;

namespace {
constexpr Raise raise = raiseAs<JPGGetterError>;
constexpr const char* FRAME_OVERWRITTEN = "frame overwritten.";
}  // namespace

JPGGetter::JPGGetter() = default;

JPGGetter::~JPGGetter() {
    release();
}

// Everything the getter later uses as an index, divisor or pointer is taken
// from the header here, once, and only when it describes a pool that fits the
// segment. frameCount is the word the writer stores last, so it is read first.
void JPGGetter::init(int channel) {
    channel_ = channel;
    key_t key = JPG_BASE_KEY + channel;
    pool_ = static_cast<JPGPoolHeader*>(openPoolSegment(shmId_, key, JPG_HEADER_SIZE, AttachFailure::Null, raise));
    if (!isAttached(pool_)) notReady();
    int32_t frameCount = loadShared(pool_->frameCount);
    JPGPoolHeader header = readShared(*pool_);
    ringLength_ = ringLengthOf({JPG_HEADER_SIZE, static_cast<int32_t>(sizeof(JPGFrameInfo)), frameCount,
                                header.framePrefixSize, header.safeTimeOffset, header.frameInfoOffset,
                                header.dataOffset},
                               segmentSize(shmId_), JPG_MAX_FRAME_COUNT);
    if (ringLength_ < 0) notReady();
    frameCount_ = frameCount;
    maxFrameSize_ = header.maxFrameSize;
    unsigned char* base = reinterpret_cast<unsigned char*>(pool_);
    data_ = base + header.dataOffset;
    safeTime_ = reinterpret_cast<int32_t*>(base + header.safeTimeOffset);
    frameInfo_ = reinterpret_cast<JPGFrameInfo*>(base + header.frameInfoOffset);
    semId_ = openSemSet(key, frameCount_, raise);
    current_ = writer();
}

void JPGGetter::notReady() {
    refuseHeader(pool_, [this] { release(); }, raise);
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

int JPGGetter::writer() const {
    return writerSlot(pool_->current, frameCount_);
}

int JPGGetter::next(int slot) const {
    return nextSlot(slot, frameCount_);
}

bool JPGGetter::intact(const JPGFrameInfo& info) const {
    return entryIntact(data_, ringLength_, info.dataPosition, info.frameLength, info.frameID);
}

unsigned long long JPGGetter::settle(int& safeTime) {
    safeTime = safeTime_[current_];
    return frameInfo_[current_].frameID.get();
}

// Slots whose bytes were reused, or whose record points outside the ring, are
// skipped. One round at most: a ring with no intact slot at all has been
// overwritten under the reader (or is not a pool's), and waiting here for the
// writer could last for ever.
void JPGGetter::getFrame() {
    requireAttached();
    for (int step = 0; step < frameCount_; ++step, current_ = next(current_)) {
        const JPGFrameInfo info = readShared(frameInfo_[current_]);
        if (!intact(info)) continue;
        frame.width = info.width;
        frame.height = info.height;
        frame.fps = info.fps;
        frame.quality = info.quality;
        frame.tv_sec = info.tv_sec;
        frame.tv_usec = info.tv_usec;
        frame.frameLength = info.frameLength;
        frame.data = data_ + info.dataPosition + JPG_FRAME_PREFIX_SIZE;
        return;
    }
    raise(FRAME_OVERWRITTEN);
}

unsigned long long JPGGetter::toWorking(int& safeTime) {
    requireAttached();
    current_ = writer();
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
        oldestUsable(writer(), frameCount_), frameCount_,
        [&](int slot) {
            const JPGFrameInfo info = readShared(frameInfo_[slot]);
            return qualifies(info) && intact(info);
        },
        [&] { return writer(); });
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
    int newest = writer();
    current_ = oldestUsable(newest, frameCount_);
    if (frameInfo_[current_].tv_sec > second) return avpool::NOT_FOUND;
    bool found = avpool::detail::scanExact(current_, next(newest), frameCount_, [&](int slot) {
        const JPGFrameInfo info = readShared(frameInfo_[slot]);
        return matches(info) && intact(info);
    });
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
    waitForSlotLock(semId_, frameInfo_[current_].lockIndex, frameCount_, OnSignal::Retry, raise);
}

void JPGGetter::release() {
    semId_ = -1;
    detachSegment(shmId_, pool_);
}
