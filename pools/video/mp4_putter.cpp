#include <avpool/mp4.h>

#include "../common/data_ring.h"
#include "../common/errors.h"
#include "../common/ring_scan.h"
#include "../common/safe_time.h"
#include "../common/segment.h"
#include "../common/shared_word.h"
#include "../common/slot_lock.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

using namespace avpool::detail;

namespace {
constexpr Raise raise = raiseAs<MP4PutterError>;
constexpr int SLOT_RECORD_COST = 4 + static_cast<int>(sizeof(MP4FrameInfo));  // safe time + info
}  // namespace

int min(int a, int b) {
    return b < a ? b : a;
}

MP4Putter::MP4Putter() = default;

MP4Putter::~MP4Putter() {
    release();
}

void MP4Putter::init(int channel, int gopCount, int framesPerGop, int maxFrameSize, int size) {
    int poolSize = gopCount * framesPerGop;
    if (poolSize >= MP4_MAX_FRAME_COUNT + 1) raise("programming error, poolSize exceed MP4_MAX_FRAME_COUNT");
    channel_ = channel;
    gopCount_ = gopCount;
    framesPerGop_ = framesPerGop;
    poolSize_ = poolSize;
    maxFrameSize_ = maxFrameSize;

    int total = size + MP4_HEADER_SIZE;
    fprintf(stderr, "=======mp4 putter total size: %d============\n", total);
    void* address = createPoolSegment(shmId_, MP4_BASE_KEY + channel, total, AttachFailure::Null, 0x00,
                                      [&] { forceReleaseShm(channel); }, raise);
    pool_ = static_cast<MP4PoolHeader*>(address);
    createSemGroups(MP4_BASE_KEY + channel * 16, poolSize, sems_, [&](int g) { forceReleaseSem(channel * 16 + g); },
                    raise);
    initLock();

    pool_->workingGop = 0;
    pool_->framesPerGop = framesPerGop;
    pool_->maxFrameSize = maxFrameSize;
    pool_->framePrefixSize = FRAME_PREFIX_SIZE;
    pool_->safeTimeOffset = MP4_HEADER_SIZE;
    pool_->frameInfoOffset = MP4_HEADER_SIZE + poolSize * 4;
    pool_->dataOffset = pool_->frameInfoOffset + poolSize * static_cast<int>(sizeof(MP4FrameInfo));
    rawDataLen_ = total - MP4_HEADER_SIZE - poolSize * SLOT_RECORD_COST;

    unsigned char* base = static_cast<unsigned char*>(address);
    safeTime_ = reinterpret_cast<int32_t*>(base + pool_->safeTimeOffset);
    frameInfo_ = reinterpret_cast<MP4FrameInfo*>(base + pool_->frameInfoOffset);
    data_ = base + pool_->dataOffset;
    printf("total:%d pPool:%p %x data:%p RawDataLen:%d\n", total, address, MP4_HEADER_SIZE, static_cast<void*>(data_),
           rawDataLen_);

    for (int i = 0; i < poolSize; ++i) {
        safeTime_[i] = 0;
        MP4FrameInfo& info = frameInfo_[i];
        info.gopID.set(0);
        info.frameID.set(0);
        info.tv_sec = 0;
        info.tv_usec = 0;
        info.dataPosition = 0;
        info.lockIndex = i;
    }
    // Last: a reader takes the header only once gopCount is set, and then finds
    // everything above in place.
    storeShared(pool_->gopCount, gopCount);
}

void MP4Putter::reset(int width, int height, int fps) {
    if (pool_ == nullptr) programmingError(raise);
    if (width > 0) {
        width_ = width;
        pool_->width = width;
    }
    // Any non-zero height is taken, a negative one included, unlike width and fps.
    if (height != 0) {
        height_ = height;
        pool_->height = height;
    }
    if (fps > 0) {
        workingFPS_ = fps;
        oneSafeTime_ = framesPerGop_ * 1000 / fps;
        pool_->workingFPS = fps;
        pool_->oneSafeTime = oneSafeTime_;
        pool_->realFPS = fps;
    }
}

int MP4Putter::putRealFPS(int fps) {
    if (pool_ == nullptr) programmingError(raise);
    pool_->realFPS = fps;
    return fps;
}

int MP4Putter::nextGop(int gop) {
    return nextSlot(gop, gopCount_);
}

void MP4Putter::storeFrame(int slot, void* data, int length, const timeval& tv) {
    MP4FrameInfo& info = frameInfo_[slot];
    info.fps = pool_->workingFPS;
    info.width = width_;
    info.height = height_;
    info.gopID.set(gopCounter_);
    info.frameID.set(++frameCounter_);
    info.tv_sec = static_cast<int32_t>(tv.tv_sec);
    info.tv_usec = static_cast<int32_t>(tv.tv_usec);
    info.dataPosition = appendEntry(data_, rawDataLen_, writePosition_, frameCounter_, data, length);
    info.frameLength = length;
}

int MP4Putter::putIFrame(void* data, int length, const timeval& tv) {
    if (length > maxFrameSize_ || length < 0) {
        skipUntilIFrame_ = true;
        return 1;
    }
    skipUntilIFrame_ = false;
    // A GOP that ended early: release readers waiting on its unwritten slots.
    for (++frameIndex_; frameIndex_ < framesPerGop_; ++frameIndex_) openLock(currentGop_ * framesPerGop_ + frameIndex_);

    ++gopCounter_;
    currentGop_ = nextGop(currentGop_);
    frameIndex_ = 0;
    // The whole GOP after this one is closed before anything of this one is
    // published, so a reader stepping ahead of the writer blocks on every slot.
    closeGopLocks(nextGop(currentGop_));
    setSafeTime();

    int slot = currentGop_ * framesPerGop_;
    storeShared(pool_->workingGop, currentGop_);
    storeFrame(slot, data, length, tv);
    return openLock(frameInfo_[slot].lockIndex);
}

void MP4Putter::putPFrame(void* data, int length, const timeval& tv) {
    if (skipUntilIFrame_ || length < 0) return;
    // An oversized P frame is cut to maxFrameSize rather than dropped.
    int len = min(maxFrameSize_, length);
    if (++frameIndex_ >= framesPerGop_) {
        char command[96];
        snprintf(command, sizeof command, "echo \"P exceed:%d gop:%d \" > /dev/console", length, framesPerGop_);
        if (system(command) == -1) perror("system");
        return;
    }
    int slot = currentGop_ * framesPerGop_ + frameIndex_;
    storeFrame(slot, data, len, tv);
    openLock(frameInfo_[slot].lockIndex);
}

void MP4Putter::setSafeTime() {
    setSafeTimesFrameForm(safeTime_, gopCount_, currentGop_, oneSafeTime_, framesPerGop_);
}

void MP4Putter::closeGopLocks(int gop) {
    for (int k = 0; k < framesPerGop_; ++k) closeLock(frameInfo_[gop * framesPerGop_ + k].lockIndex);
}

void MP4Putter::initLock() {
    for (int i = 0; i < poolSize_; ++i) closeLock(i);
}

int MP4Putter::closeLock(int slot) {
    return setGroupedLock(sems_, slot, LOCK_CLOSED, raise);
}

int MP4Putter::openLock(int slot) {
    return setGroupedLock(sems_, slot, LOCK_OPEN, raise);
}

void MP4Putter::getSemPosition(int slot, int& group, int& index) {
    semPosition(slot, group, index, raise);
}

void MP4Putter::release() {
    removeSemGroups(sems_);
    removeSegment(shmId_, pool_);
}

void MP4Putter::forceReleaseShm(int channel) {
    forceRemoveSegment(MP4_BASE_KEY + channel, 0);
}

// Removes with poolSize calls whatever the group's size: the first call does it.
void MP4Putter::forceReleaseSem(int keyOffset) {
    forceRemoveSemSet(MP4_BASE_KEY + keyOffset, 0, poolSize_);
}
