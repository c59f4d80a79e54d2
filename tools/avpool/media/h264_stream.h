// H.264 Annex B elementary streams: NAL units between start codes, grouped
// into access units (one picture each), and the picture size and frame rate
// from the sequence parameter set.
#pragma once

#include "media_error.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace avpool::media {

struct NalUnit {
    size_t offset;   // of its start code (a 4-byte code's leading zero included)
    size_t payload;  // of its header byte, just after 00 00 01
    size_t end;      // where the next start code begins, or the end of the data
    int type;        // nal_unit_type
};

struct AccessUnit {
    size_t offset;
    size_t length;
    bool idr;  // holds a slice of an IDR picture
};

struct SpsInfo {
    int width = 0;
    int height = 0;
    int fps = 0;  // from the timing information, 0 when the stream has none
};

struct H264Stream {
    std::vector<AccessUnit> units;  // contiguous: together they are the whole stream
    std::vector<unsigned char> sps;  // the first SPS and PPS, without start code
    std::vector<unsigned char> pps;
    SpsInfo picture;
};

// Whether the bytes start with a start code (00 00 01 or 00 00 00 01).
bool startsWithStartCode(const unsigned char* data, size_t size);

// The NAL units of a stream that starts with a start code; throws FormatError
// for an empty unit or a set forbidden bit.
std::vector<NalUnit> findNalUnits(const unsigned char* data, size_t size);

// The RBSP of a NAL unit: its bytes after the header with the emulation
// prevention bytes (the 03 of 00 00 03) removed.
std::vector<unsigned char> unescapeRbsp(const unsigned char* data, size_t size);

// Picture size (cropping applied) and frame rate from an SPS given without
// start code; throws FormatError when it is cut short or out of range.
SpsInfo parseSps(const unsigned char* nal, size_t size);

// first_mb_in_slice of a slice NAL unit given without start code.
unsigned readFirstMbInSlice(const unsigned char* nal, size_t size);

// Splits a whole stream into access units. An access unit begins at an access
// unit delimiter, at an SPS, PPS or SEI that follows a picture's slices, or at
// a slice whose first_mb_in_slice is 0 after such slices. Throws FormatError
// for a stream that is not Annex B H.264 or has no SPS, PPS or slice.
H264Stream splitH264(const unsigned char* data, size_t size);

}  // namespace avpool::media
