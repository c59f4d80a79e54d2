#include "adts_stream.h"

#include <string>

namespace avpool::media {

namespace {

constexpr size_t HEADER = 7;
constexpr size_t CRC = 2;
constexpr int RATES[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050, 16000, 12000, 11025, 8000, 7350};
constexpr int RATE_COUNT = sizeof RATES / sizeof RATES[0];

std::string at(size_t offset) {
    return "ADTS frame at byte " + std::to_string(offset);
}

// Sync word 0xFFF, then the MPEG version bit and layer 00.
bool syncAt(const unsigned char* p) {
    return p[0] == 0xFF && (p[1] & 0xF6) == 0xF0;
}

}  // namespace

bool startsLikeAdts(const unsigned char* data, size_t size) {
    return size >= 2 && syncAt(data);
}

AdtsStream splitAdts(const unsigned char* data, size_t size) {
    if (size == 0) throw FormatError("the file is empty");
    if (!startsLikeAdts(data, size)) throw FormatError("not an ADTS stream: it does not begin with a sync word");
    AdtsStream stream{{}, 0, 0, 0};
    size_t offset = 0;
    while (offset < size) {
        const unsigned char* p = data + offset;
        size_t left = size - offset;
        if (left < 2 || !syncAt(p)) throw FormatError("no ADTS sync word at byte " + std::to_string(offset));
        bool crc = (p[1] & 0x01) == 0;
        size_t headerSize = HEADER + (crc ? CRC : 0);
        if (left < headerSize) throw FormatError(at(offset) + " is truncated at byte " + std::to_string(size));
        int objectType = (p[2] >> 6) + 1;
        int rateIndex = (p[2] >> 2) & 0x0F;
        int configuration = (p[2] & 0x01) << 2 | p[3] >> 6;
        size_t length = static_cast<size_t>(p[3] & 0x03) << 11 | static_cast<size_t>(p[4]) << 3 | p[5] >> 5;
        if (rateIndex >= RATE_COUNT)
            throw FormatError(at(offset) + " has the reserved sampling-frequency index " + std::to_string(rateIndex));
        if (configuration == 0)
            throw FormatError(at(offset) + " has channel configuration 0 (channels set inside the frame)");
        if (length < headerSize)
            throw FormatError(at(offset) + " gives a length of " + std::to_string(length) + ", shorter than its header");
        if (length > left) throw FormatError(at(offset) + " is truncated at byte " + std::to_string(size));
        int rate = RATES[rateIndex];
        int channels = configuration == 7 ? 8 : configuration;
        if (stream.frames.empty()) {
            stream.objectType = objectType;
            stream.rate = rate;
            stream.channels = channels;
        } else if (objectType != stream.objectType || rate != stream.rate || channels != stream.channels) {
            throw FormatError(at(offset) + " changes the stream from object type " +
                              std::to_string(stream.objectType) + ", " + std::to_string(stream.rate) + " Hz, " +
                              std::to_string(stream.channels) + " channels to " + std::to_string(objectType) + ", " +
                              std::to_string(rate) + " Hz, " + std::to_string(channels));
        }
        stream.frames.push_back({offset, length});
        offset += length;
    }
    return stream;
}

}  // namespace avpool::media
