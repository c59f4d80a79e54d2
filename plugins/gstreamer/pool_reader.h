// The reading side of avpoolsrc without GStreamer: one reader per pool kind
// that follows the pool element by element through the kind's getter, waits
// so that it can be stopped, notices when the writer overtook it and says
// what the stream's format is.
#pragma once

#include "pool_kinds.h"

#include <atomic>
#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

namespace avpool::gst {

enum class VideoCodec { None, H264, Mpeg4 };

// What the caps of a pool's stream are made of, taken from its elements.
struct StreamFormat {
    Kind kind = Kind::Jpg;
    int width = 0;  // video
    int height = 0;
    int fps = 0;
    VideoCodec codec = VideoCodec::None;
    // mp4 with MPEG-4 video: the configuration headers in front of the first
    // picture; aac without ADTS headers: the AudioSpecificConfig.
    std::vector<unsigned char> config;
    int bits = 0;  // pcm: bits per sample (the pool's format code 1 and 8 mean 8)
    int channels = 0;
    int rate = 0;
    bool adts = false;  // aac: each fragment carries its ADTS header

    bool operator==(const StreamFormat& other) const;
    bool operator!=(const StreamFormat& other) const { return !(*this == other); }
};

// One element of the pool, in place: data points into the shared segment.
struct Element {
    const unsigned char* data = nullptr;
    size_t size = 0;
    long long captureUs = 0;  // wall clock, microseconds
    long long durationNs = -1;  // -1: not known
    unsigned long long id = 0;  // the pool's running number
    bool key = true;  // false for a P frame
    // Set when elements were lost before this one: the first lost number and
    // what showed it ("missed", "overwritten", "age too old", "reused").
    unsigned long long gapFrom = 0;
    const char* gapReason = nullptr;
};

enum class Next { Element, Stopped, Gone };

class PoolReader {
public:
    virtual ~PoolReader() = default;
    // Waits for the next element and describes it. Stopped when stop was set,
    // Gone when the writer removed the pool or died.
    virtual Next next(const std::atomic<bool>& stop, Element& element) = 0;
    // Whether the bytes of the element that next() described are still the
    // ones the writer put there.
    virtual bool intact(const Element& element) = 0;
    // The stream's format as the element shows it.
    virtual StreamFormat format(const Element& element) = 0;
};

// Attaches a reader to the kind's pool on channel. Null while that is not
// possible yet (no segment, its creator gone, its header not filled in, its
// locks not created); why then says what is missing. Ages above maxAge
// seconds count as overtaken.
std::shared_ptr<PoolReader> attachReader(Kind kind, int channel, int maxAge, std::string& why);

// The codec of a video pool's picture, from the start codes in it: MPEG-4
// visual when it holds a visual object sequence, group or plane start code
// (bytes that cannot begin an H.264 NAL unit), otherwise H.264.
VideoCodec sniffVideoCodec(const unsigned char* data, size_t size);

// The MPEG-4 configuration headers in front of a picture's first group or
// plane start code; empty when the picture begins with one.
std::vector<unsigned char> mpeg4Config(const unsigned char* data, size_t size);

// Whether an AAC fragment starts with an ADTS header.
bool startsWithAdts(const unsigned char* data, size_t size);

// The two-byte AudioSpecificConfig of raw AAC from an aac pool's stream
// parameter: a value above 31 is taken as the configuration itself, a
// smaller one as the audio object type, completed with rate and channels.
std::vector<unsigned char> aacConfig(int streamParam, int rate, int channels);

}  // namespace avpool::gst
