// The writing side of avpoolsink without GStreamer: one writer per pool kind
// that creates the pool with the first format, puts each element through the
// kind's putter and turns what the pool cannot take into a result instead of
// a damaged stream.
#pragma once

#include "pool_kinds.h"
#include "pool_reader.h"

#include <cstddef>
#include <memory>

namespace avpool::gst {

// How the pool is laid out; 0 takes the kind's default.
struct PoolGeometry {
    int channel = 0;
    int slots = 0;         // jpg: frames in the ring; mp4: GOPs in the ring
    int gopFrames = 0;     // mp4: frame slots per GOP
    int maxFrameSize = 0;  // jpg, mp4: the largest frame taken
    int dataSize = 0;      // jpg, mp4: bytes of the data ring
    int quality = 0;       // jpg: recorded with the picture size
};

enum class Put {
    Written,
    Buffered,   // pcm: kept until a fragment is full
    TooLarge,   // longer than the pool takes; mp4: the GOP's later frames go too
    GopFull,    // mp4: more frames than a GOP has slots
    NoKeyFrame  // mp4: a P frame before the first I frame, or after a refused one
};

class PoolWriter {
public:
    virtual ~PoolWriter() = default;
    // Takes the stream's format (width, height, fps; bits, channels, rate);
    // the first call creates the pool. Throws the putter's error.
    virtual void configure(const StreamFormat& format) = 0;
    // Puts one element (a picture, an access unit, a block of samples, an
    // encoded audio frame) captured at captureUs on the wall clock.
    virtual Put put(const unsigned char* data, size_t size, bool key, long long captureUs) = 0;
    // pcm: puts the samples kept back, completed with silence.
    virtual void finish() {}
};

// A writer for the kind's pool; nothing is created before configure. Null
// for lum, whose pools only the encoder's analysis writes.
std::unique_ptr<PoolWriter> createWriter(Kind kind, const PoolGeometry& geometry);

// The defaults a geometry of 0s takes, for the property descriptions.
constexpr int JPG_DEFAULT_SLOTS = 10;
constexpr int JPG_DEFAULT_MAX_FRAME = 512 * 1024;
constexpr int MP4_DEFAULT_GOPS = 8;
constexpr int MP4_DEFAULT_GOP_FRAMES = 60;
constexpr int MP4_DEFAULT_MAX_FRAME = 1024 * 1024;
constexpr int MP4_DEFAULT_DATA_SIZE = 8 * 1024 * 1024;
constexpr int DEFAULT_FPS = 25;

}  // namespace avpool::gst
