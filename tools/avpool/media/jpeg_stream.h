// Motion JPEG as a plain concatenation of JPEG pictures: splits a stream into
// its pictures and reads each picture's size from its frame header.
#pragma once

#include "media_error.h"

#include <cstddef>
#include <vector>

namespace avpool::media {

struct JpegPicture {
    size_t offset;  // of its SOI marker
    size_t length;  // up to and including its EOI marker
    int width;
    int height;
};

// Whether the bytes start like a JPEG picture (SOI and the next marker's FF).
bool startsLikeJpeg(const unsigned char* data, size_t size);

// The picture that starts at offset: walks the marker segments by their
// lengths up to the scan, then the entropy-coded data up to EOI (passing over
// stuffed FF00 bytes and restart markers; a further scan continues the walk).
// Throws FormatError when there is no SOI at offset, no frame header, or the
// data ends first.
JpegPicture readJpegPicture(const unsigned char* data, size_t size, size_t offset);

// Every picture of a stream that holds nothing else; throws FormatError for an
// empty stream, a stream that is not JPEG, a truncated picture or bytes
// between pictures.
std::vector<JpegPicture> splitMjpeg(const unsigned char* data, size_t size);

}  // namespace avpool::media
