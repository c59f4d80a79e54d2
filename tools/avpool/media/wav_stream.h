// WAV files of uncompressed samples: the format and the place of the samples
// in a RIFF/WAVE file, and the header get writes in front of them.
#pragma once

#include "media_error.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace avpool::media {

struct WavAudio {
    int channels;
    int rate;     // samples per second per channel
    int bits;     // per sample: 8 (unsigned) or 16 (signed, little-endian)
    size_t dataOffset;  // of the first sample byte
    size_t dataLength;  // a whole number of sample frames
};

// Reads the fmt and data chunks of a RIFF/WAVE file, passing over any other
// chunk (odd sizes are followed by a pad byte). Accepts format tag 1 (PCM) and
// the extensible tag whose subformat is PCM, 8 or 16 bits, one or more
// channels, at least 1000 samples per second. A data chunk whose size reads
// 0xFFFFFFFF (a WAV written to a pipe) runs to the end of the file. Throws
// FormatError for anything else, naming the reason.
WavAudio readWav(const unsigned char* data, size_t size);

constexpr size_t WAV_HEADER_SIZE = 44;
// The RIFF and data sizes of a header written before the length is known.
constexpr uint32_t WAV_UNKNOWN_SIZE = 0xFFFFFFFF;

// The 44-byte header of a PCM WAV file: RIFF, a 16-byte fmt chunk and the data
// chunk's head. dataLength < 0, or too long for the 32-bit sizes, writes
// WAV_UNKNOWN_SIZE as both sizes. The RIFF size counts no pad byte, so
// dataLength is meant to be even (whole 16-bit samples or pool fragments).
std::vector<unsigned char> wavHeader(int channels, int rate, int bits, long long dataLength);

// Offsets of the two sizes in that header, for patching them afterwards.
constexpr size_t WAV_RIFF_SIZE_OFFSET = 4;
constexpr size_t WAV_DATA_SIZE_OFFSET = 40;

}  // namespace avpool::media
