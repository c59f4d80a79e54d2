#include "jpeg_stream.h"

#include <string>

namespace avpool::media {

namespace {

constexpr unsigned char MARKER = 0xFF;
constexpr unsigned char SOI = 0xD8;
constexpr unsigned char EOI = 0xD9;
constexpr unsigned char SOS = 0xDA;
constexpr unsigned char TEM = 0x01;

bool isRestart(unsigned char code) { return code >= 0xD0 && code <= 0xD7; }

// SOF0..SOF15 except DHT (C4), JPG (C8) and DAC (CC).
bool isFrameHeader(unsigned char code) {
    return code >= 0xC0 && code <= 0xCF && code != 0xC4 && code != 0xC8 && code != 0xCC;
}

[[noreturn]] void truncated(size_t start, size_t at) {
    throw FormatError("JPEG picture at byte " + std::to_string(start) + " is truncated at byte " +
                      std::to_string(at));
}

int read16(const unsigned char* p) { return (p[0] << 8) | p[1]; }

}  // namespace

bool startsLikeJpeg(const unsigned char* data, size_t size) {
    return size >= 3 && data[0] == MARKER && data[1] == SOI && data[2] == MARKER;
}

JpegPicture readJpegPicture(const unsigned char* data, size_t size, size_t offset) {
    if (!startsLikeJpeg(data + offset, size - offset))
        throw FormatError("no JPEG picture (SOI marker) at byte " + std::to_string(offset));
    JpegPicture picture{offset, 0, 0, 0};
    bool sized = false;
    size_t at = offset + 2;
    for (;;) {
        // A marker: FF, any number of fill FFs, then its code.
        if (at >= size) truncated(offset, at);
        if (data[at] != MARKER)
            throw FormatError("JPEG picture at byte " + std::to_string(offset) + " has no marker at byte " +
                              std::to_string(at));
        while (at < size && data[at] == MARKER) ++at;
        if (at >= size) truncated(offset, at);
        unsigned char code = data[at++];
        if (code == EOI) break;
        if (code == TEM || isRestart(code) || code == SOI) continue;  // markers without a segment
        if (at + 2 > size) truncated(offset, at);
        size_t length = static_cast<size_t>(read16(data + at));
        if (length < 2 || at + length > size) truncated(offset, at);
        if (isFrameHeader(code) && !sized) {
            // length(2) precision(1) height(2) width(2)
            if (length < 7) throw FormatError("JPEG frame header at byte " + std::to_string(at) + " is too short");
            picture.height = read16(data + at + 3);
            picture.width = read16(data + at + 5);
            sized = true;
        }
        at += length;
        if (code != SOS) continue;
        // Entropy-coded data: FF00 is a stuffed FF and RSTn a restart; any
        // other marker ends the scan.
        for (;;) {
            while (at < size && data[at] != MARKER) ++at;
            if (at + 1 >= size) truncated(offset, size);
            unsigned char next = data[at + 1];
            if (next == 0x00 || isRestart(next) || next == MARKER) {
                at += next == MARKER ? 1 : 2;
                continue;
            }
            break;
        }
    }
    if (!sized) throw FormatError("JPEG picture at byte " + std::to_string(offset) + " has no frame header");
    picture.length = at - offset;
    return picture;
}

std::vector<JpegPicture> splitMjpeg(const unsigned char* data, size_t size) {
    if (size == 0) throw FormatError("the file is empty");
    if (!startsLikeJpeg(data, size)) throw FormatError("not an MJPEG stream: it does not begin with a JPEG picture");
    std::vector<JpegPicture> pictures;
    for (size_t at = 0; at < size;) {
        pictures.push_back(readJpegPicture(data, size, at));
        at += pictures.back().length;
    }
    return pictures;
}

}  // namespace avpool::media
