// AAC in ADTS framing: a stream of frames, each behind a 7-byte header (9 with
// a CRC) that gives the frame's length, the audio object type, the sampling
// rate and the channel configuration.
#pragma once

#include "media_error.h"

#include <cstddef>
#include <vector>

namespace avpool::media {

struct AdtsFrame {
    size_t offset;  // of its sync word
    size_t length;  // header included
};

struct AdtsStream {
    std::vector<AdtsFrame> frames;  // contiguous: together they are the whole stream
    int objectType;  // profile + 1: 1 Main, 2 LC, 3 SSR, 4 LTP
    int rate;        // Hz, from the sampling-frequency index
    int channels;    // from the channel configuration (7 means 8 channels)
};

// Whether the bytes begin with an ADTS sync word and layer 0.
bool startsLikeAdts(const unsigned char* data, size_t size);

// Splits a stream that holds nothing but ADTS frames. Throws FormatError for
// an empty stream, a stream that is not ADTS, bytes without a sync word where
// a frame should begin, a truncated frame, a reserved sampling-frequency
// index, channel configuration 0 (channels given inside the raw data), or a
// frame whose object type, rate or channels differ from the first frame's.
AdtsStream splitAdts(const unsigned char* data, size_t size);

}  // namespace avpool::media
