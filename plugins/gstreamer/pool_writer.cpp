#include "pool_writer.h"

#include "publish/video_profile.h"

#include <avpool/aac.h>
#include <avpool/jpg.h>
#include <avpool/mp4.h>
#include <avpool/opus.h>
#include <avpool/pcm.h>

#include <algorithm>
#include <cstring>
#include <sys/time.h>
#include <vector>

namespace avpool::gst {

namespace {

constexpr int SLOT_RECORDS = 52;        // safe time and frame record of a jpg or mp4 slot
constexpr int RECORD_OVERHEAD = 8 + 3;  // frame-ID prefix and padding in the data ring

timeval timevalOf(long long us) {
    timeval tv;
    tv.tv_sec = static_cast<time_t>(us / 1000000);
    tv.tv_usec = static_cast<suseconds_t>(us % 1000000);
    return tv;
}

int orDefault(int value, int fallback) {
    return value > 0 ? value : fallback;
}

// The putters copy from a non-const pointer but never write through it.
void* bytes(const unsigned char* data) {
    return const_cast<unsigned char*>(data);
}

class JpgWriter final : public PoolWriter {
public:
    explicit JpgWriter(const PoolGeometry& geometry) : geometry_(geometry) {}

    void configure(const StreamFormat& format) override {
        if (!created_) {
            int slots = std::min(orDefault(geometry_.slots, JPG_DEFAULT_SLOTS), JPG_MAX_FRAME_COUNT);
            int maxFrame = orDefault(geometry_.maxFrameSize, JPG_DEFAULT_MAX_FRAME);
            int data = orDefault(geometry_.dataSize, slots * (SLOT_RECORDS + maxFrame + RECORD_OVERHEAD));
            putter_.init(geometry_.channel, slots, maxFrame, data);
            created_ = true;
        }
        putter_.reset(format.width, format.height, orDefault(format.fps, DEFAULT_FPS), geometry_.quality);
    }

    Put put(const unsigned char* data, size_t size, bool, long long captureUs) override {
        if (size > static_cast<size_t>(putter_.getMaxFrameSize())) return Put::TooLarge;
        putter_.putFrame(bytes(data), static_cast<int>(size), timevalOf(captureUs));
        return Put::Written;
    }

private:
    PoolGeometry geometry_;
    JPGPutter putter_;
    bool created_ = false;
};

// An I frame starts a GOP. The writer itself keeps a GOP within its slots and
// every frame whole: a P frame the pool would truncate, or one past the GOP's
// last slot (which the pool would announce on the console), is refused here,
// and a refused frame makes the rest of its GOP go too, since nothing after
// it decodes. Like an encoder, it tells the information area's profiles of
// its channel the picture size and rate, and the SPS and PPS of H.264 as the
// I frames bring them.
class Mp4Writer final : public PoolWriter {
public:
    explicit Mp4Writer(const PoolGeometry& geometry) : geometry_(geometry) {}

    void configure(const StreamFormat& format) override {
        if (!created_) {
            frames_ = orDefault(geometry_.gopFrames, MP4_DEFAULT_GOP_FRAMES);
            gops_ = orDefault(geometry_.slots, std::max(3, std::min(MP4_DEFAULT_GOPS, MP4_MAX_FRAME_COUNT / frames_)));
            maxFrame_ = orDefault(geometry_.maxFrameSize, MP4_DEFAULT_MAX_FRAME);
            int data = orDefault(geometry_.dataSize, MP4_DEFAULT_DATA_SIZE);
            putter_.init(geometry_.channel, gops_, frames_, maxFrame_, data + gops_ * frames_ * SLOT_RECORDS);
            created_ = true;
        }
        putter_.reset(format.width, format.height, orDefault(format.fps, DEFAULT_FPS));
        profile_.width = format.width;
        profile_.height = format.height;
        profile_.fps = orDefault(format.fps, DEFAULT_FPS);
        h264_ = format.codec == VideoCodec::H264;
        publish::publishVideo(geometry_.channel, profile_);
    }

    Put put(const unsigned char* data, size_t size, bool key, long long captureUs) override {
        if (size > static_cast<size_t>(maxFrame_)) {
            inGop_ = -1;
            return Put::TooLarge;
        }
        timeval tv = timevalOf(captureUs);
        if (key) {
            putter_.putIFrame(bytes(data), static_cast<int>(size), tv);
            inGop_ = 1;
            if (h264_) publishParameterSets(data, size);
            return Put::Written;
        }
        if (inGop_ < 0) return Put::NoKeyFrame;
        if (inGop_ >= frames_) return Put::GopFull;
        putter_.putPFrame(bytes(data), static_cast<int>(size), tv);
        ++inGop_;
        return Put::Written;
    }

private:
    // The I frame's SPS and PPS, published when they are new.
    void publishParameterSets(const unsigned char* data, size_t size) {
        std::vector<unsigned char> sps, pps;
        publish::findParameterSets(data, size, sps, pps);
        if ((sps.empty() || sps == profile_.sps) && (pps.empty() || pps == profile_.pps)) return;
        if (!sps.empty()) profile_.sps = sps;
        if (!pps.empty()) profile_.pps = pps;
        publish::publishVideo(geometry_.channel, profile_);
    }

    PoolGeometry geometry_;
    MP4Putter putter_;
    publish::VideoProfile profile_;
    bool h264_ = false;
    bool created_ = false;
    int gops_ = 0;
    int frames_ = 0;
    int maxFrame_ = 0;
    int inGop_ = -1;  // frames of the current GOP in the pool; -1 until an I frame
};

// Samples are gathered into fragments of PCM_FRAGMENT_SIZE bytes, each
// stamped with the capture time of its first sample.
class PcmWriter final : public PoolWriter {
public:
    void configure(const StreamFormat& format) override {
        if (!created_) {
            putter_.init();
            created_ = true;
        }
        finish();
        putter_.reset(format.bits, format.channels, format.rate);
        bytesPerSecond_ = static_cast<long long>(format.rate) * format.channels * (format.bits / 8);
        silence_ = format.bits == 8 ? 0x80 : 0;  // 8-bit samples are unsigned
    }

    Put put(const unsigned char* data, size_t size, bool, long long captureUs) override {
        Put result = Put::Buffered;
        for (size_t offset = 0; offset < size;) {
            if (fill_ == 0) startUs_ = captureUs + elapsedUs(static_cast<long long>(offset));
            size_t take = std::min(size - offset, sizeof fragment_ - fill_);
            memcpy(fragment_ + fill_, data + offset, take);
            fill_ += take;
            offset += take;
            if (fill_ == sizeof fragment_) {
                emit();
                result = Put::Written;
            }
        }
        return result;
    }

    void finish() override {
        if (fill_ == 0) return;
        memset(fragment_ + fill_, silence_, sizeof fragment_ - fill_);
        emit();
    }

private:
    long long elapsedUs(long long bytes) const {
        return bytesPerSecond_ > 0 ? bytes * 1000000 / bytesPerSecond_ : 0;
    }

    void emit() {
        putter_.putFragment(fragment_, PCM_FRAGMENT_SIZE, timevalOf(startUs_));
        fill_ = 0;
    }

    PCMPutter putter_;
    bool created_ = false;
    unsigned char fragment_[PCM_FRAGMENT_SIZE];
    size_t fill_ = 0;
    long long startUs_ = 0;
    long long bytesPerSecond_ = 0;
    int silence_ = 0;
};

// One ADTS frame per fragment; the stream parameter is the audio object
// type from the frame's header, as the put verb of the avpool tool records it.
class AacWriter final : public PoolWriter {
public:
    explicit AacWriter(int channel) : channel_(channel) {}

    void configure(const StreamFormat& format) override {
        if (!created_) {
            putter_.init(channel_);
            created_ = true;
        }
        format_ = format;
        objectType_ = 0;
    }

    Put put(const unsigned char* data, size_t size, bool, long long captureUs) override {
        if (size > AAC_MAX_FRAGMENT_SIZE) return Put::TooLarge;
        int objectType = size > 2 ? (data[2] >> 6) + 1 : 2;
        if (objectType != objectType_) {
            putter_.reset(16, format_.channels, format_.rate, objectType);
            objectType_ = objectType;
        }
        putter_.putFragment(bytes(data), static_cast<int>(size), timevalOf(captureUs));
        return Put::Written;
    }

private:
    int channel_;
    AACPutter putter_;
    bool created_ = false;
    StreamFormat format_;
    int objectType_ = 0;
};

// One packet per fragment. The pool always copies a whole fragment's bytes,
// so a packet goes through a buffer of that size.
class OpusWriter final : public PoolWriter {
public:
    void configure(const StreamFormat& format) override {
        if (!created_) {
            putter_.init();
            created_ = true;
        }
        putter_.reset(16, format.channels, format.rate);
    }

    Put put(const unsigned char* data, size_t size, bool, long long captureUs) override {
        if (size > OPUS_FRAGMENT_SIZE) return Put::TooLarge;
        memcpy(packet_, data, size);
        memset(packet_ + size, 0, sizeof packet_ - size);
        putter_.putFragment(packet_, static_cast<int>(size), timevalOf(captureUs));
        return Put::Written;
    }

private:
    OPUSPutter putter_;
    bool created_ = false;
    unsigned char packet_[OPUS_FRAGMENT_SIZE];
};

}  // namespace

std::unique_ptr<PoolWriter> createWriter(Kind kind, const PoolGeometry& geometry) {
    switch (kind) {
        case Kind::Jpg: return std::make_unique<JpgWriter>(geometry);
        case Kind::Mp4: return std::make_unique<Mp4Writer>(geometry);
        case Kind::Pcm: return std::make_unique<PcmWriter>();
        case Kind::Aac: return std::make_unique<AacWriter>(geometry.channel);
        case Kind::Opus: return std::make_unique<OpusWriter>();
        case Kind::Lum: return nullptr;
    }
    return nullptr;
}

}  // namespace avpool::gst
