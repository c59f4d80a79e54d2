#include <avpool/jpg.h>

#include "../common/data_ring.h"
#include "../common/errors.h"
#include "../common/ring_scan.h"
#include "../common/safe_time.h"
#include "../common/segment.h"
#include "../common/shared_word.h"
#include "../common/slot_lock.h"

#include <cstdio>
#include <cstring>

using namespace avpool::detail;

namespace {
constexpr Raise raise = raiseAs<JPGPutterError>;
constexpr int FRAME_RECORD_COST = 4 + static_cast<int>(sizeof(JPGFrameInfo));  // safe time + info
}  // namespace

JPGPutter::JPGPutter() = default;

JPGPutter::~JPGPutter() {
    release();
}

void JPGPutter::init(int channel, int frameCount, int maxFrameSize, int dataSize) {
    if (frameCount > JPG_MAX_FRAME_COUNT) raise("programming error, frameCount exceed JPG_MAX_FRAME_COUNT");
    channel_ = channel;
    frameCount_ = frameCount;
    maxFrameSize_ = maxFrameSize;

    int total = dataSize + JPG_HEADER_SIZE;
    fprintf(stderr, "=======jpg putter total size: %d============\n", total);

    key_t key = JPG_BASE_KEY + channel;
    void* address = createPoolSegment(shmId_, key, total, AttachFailure::Null, 0x00,
                                      [&] { forceReleaseShm(channel, total); }, raise);
    pool_ = static_cast<JPGPoolHeader*>(address);
    semId_ = createSemSet(key, frameCount, [&] { forceReleaseSem(channel); }, raise);
    initLock();

    pool_->current = 0;
    pool_->maxFrameSize = maxFrameSize;
    pool_->framePrefixSize = JPG_FRAME_PREFIX_SIZE;
    pool_->safeTimeOffset = JPG_HEADER_SIZE;
    pool_->frameInfoOffset = JPG_HEADER_SIZE + 4 * frameCount;
    pool_->dataOffset = pool_->frameInfoOffset + static_cast<int>(sizeof(JPGFrameInfo)) * frameCount;
    rawDataLen_ = dataSize - FRAME_RECORD_COST * frameCount;

    unsigned char* base = static_cast<unsigned char*>(address);
    safeTime_ = reinterpret_cast<int32_t*>(base + pool_->safeTimeOffset);
    frameInfo_ = reinterpret_cast<JPGFrameInfo*>(base + pool_->frameInfoOffset);
    data_ = base + pool_->dataOffset;
    fprintf(stderr, "total:%d pPool:%p %d %p %p data:%p RawDataLen:%d\n", total, address, JPG_HEADER_SIZE,
            static_cast<void*>(safeTime_), static_cast<void*>(frameInfo_), static_cast<void*>(data_), rawDataLen_);

    for (int i = 0; i < frameCount; ++i) {
        safeTime_[i] = 0;
        JPGFrameInfo& info = frameInfo_[i];
        info.frameID.set(0);
        info.lockIndex = i;
        info.tv_sec = 0;
        info.tv_usec = 0;
        info.frameLength = 0;
        info.dataPosition = 0;
    }
    // Last: a reader takes the header only once frameCount is set, and then
    // finds everything above in place.
    storeShared(pool_->frameCount, frameCount);
}

void JPGPutter::reset(int width, int height, int fps, int quality) {
    if (pool_ == nullptr) programmingError(raise);
    if (width > 0) {
        width_ = width;
        pool_->workingWidth = width;
    }
    if (height > 0) {
        height_ = height;
        pool_->workingHeight = height;
    }
    if (fps > 0) {
        fps_ = fps;
        frameInterval_ = 1000 / fps;
        pool_->workingFPS = fps;
        pool_->realFPS = fps;
    }
    if (quality >= 0) quality_ = quality;
}

void JPGPutter::changeQuality(int quality) {
    quality_ = quality;
}

void JPGPutter::putRealFPS(int fps) {
    if (pool_ == nullptr) programmingError(raise);
    pool_->realFPS = fps;
}

int JPGPutter::putFrame(void* data, int length, const timeval& captureTime) {
    if (length > maxFrameSize_ || length < 0) return 0;
    ++frameCounter_;
    current_ = nextJPGFrame(current_);
    // The slot after this one is the next to be overwritten: close it before the
    // header announces this one, so a reader stepping forward always blocks.
    closeLock(nextJPGFrame(current_));
    setSafeTime();

    JPGFrameInfo& info = frameInfo_[current_];
    info.frameID.set(frameCounter_);
    storeShared(pool_->current, current_);
    info.quality = quality_;
    info.fps = fps_;
    info.width = width_;
    info.height = height_;
    info.tv_sec = static_cast<int32_t>(captureTime.tv_sec);
    info.tv_usec = static_cast<int32_t>(captureTime.tv_usec);

    info.dataPosition = appendEntry(data_, rawDataLen_, writePosition_, frameCounter_, data, length);
    info.frameLength = length;
    openLock(info.lockIndex);
    return 1;
}

void JPGPutter::putQuantTables(const unsigned char* lum64, const unsigned char* chrom64) {
    if (pool_ == nullptr) programmingError(raise);
    if (lum64 != nullptr) memcpy(pool_->lumQT, lum64, sizeof pool_->lumQT);
    if (chrom64 != nullptr) memcpy(pool_->chromQT, chrom64, sizeof pool_->chromQT);
}

int JPGPutter::getMaxFrameSize() {
    return maxFrameSize_;
}

int JPGPutter::nextJPGFrame(int i) {
    return nextSlot(i, frameCount_);
}

void JPGPutter::setSafeTime() {
    setSafeTimesFrameForm(safeTime_, frameCount_, current_, frameInterval_);
}

void JPGPutter::initLock() {
    for (int i = 0; i < frameCount_; ++i) closeLock(i);
}

void JPGPutter::closeLock(int slot) {
    setLock(semId_, slot, LOCK_CLOSED, raise);
}

void JPGPutter::openLock(int slot) {
    setLock(semId_, slot, LOCK_OPEN, raise);
}

void JPGPutter::release() {
    removeSemSet(semId_, frameCount_);
    removeSegment(shmId_, pool_);
}

void JPGPutter::forceReleaseShm(int channel, int /*size*/) {
    forceRemoveSegment(JPG_BASE_KEY + channel, 0);
}

void JPGPutter::forceReleaseSem(int channel) {
    forceRemoveSemSet(JPG_BASE_KEY + channel, frameCount_, frameCount_);
}
