#include "wav_stream.h"

#include <cstring>
#include <string>

namespace avpool::media {

namespace {

constexpr int FORMAT_PCM = 1;
constexpr int FORMAT_EXTENSIBLE = 0xFFFE;
constexpr size_t CHUNK_HEAD = 8;
constexpr size_t FMT_SIZE = 16;
constexpr size_t FMT_EXTENSIBLE_SIZE = 40;
constexpr size_t SUBFORMAT_OFFSET = 24;  // in the fmt chunk's body
constexpr int MIN_RATE = 1000;

uint32_t le32(const unsigned char* p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
           static_cast<uint32_t>(p[3]) << 24;
}

int le16(const unsigned char* p) {
    return p[0] | p[1] << 8;
}

void put32(std::vector<unsigned char>& out, uint32_t value) {
    for (int shift = 0; shift < 32; shift += 8) out.push_back(static_cast<unsigned char>(value >> shift));
}

void put16(std::vector<unsigned char>& out, int value) {
    out.push_back(static_cast<unsigned char>(value));
    out.push_back(static_cast<unsigned char>(value >> 8));
}

std::string hex4(int value) {
    static const char digits[] = "0123456789ABCDEF";
    std::string text = "0x";
    for (int shift = 12; shift >= 0; shift -= 4) text += digits[(value >> shift) & 0xF];
    return text;
}

// Fills the format part of audio from a fmt chunk's body.
void readFmt(const unsigned char* body, size_t size, size_t at, WavAudio& audio) {
    if (size < FMT_SIZE)
        throw FormatError("fmt chunk at byte " + std::to_string(at) + " has " + std::to_string(size) +
                          " bytes, fewer than 16");
    int tag = le16(body);
    if (tag == FORMAT_EXTENSIBLE && size >= FMT_EXTENSIBLE_SIZE) tag = le16(body + SUBFORMAT_OFFSET);
    if (tag != FORMAT_PCM)
        throw FormatError("compressed WAV (format tag " + hex4(tag) + ") is not supported, only PCM");
    audio.channels = le16(body + 2);
    uint32_t rate = le32(body + 4);
    int blockAlign = le16(body + 12);
    audio.bits = le16(body + 14);
    if (audio.bits != 8 && audio.bits != 16)
        throw FormatError(std::to_string(audio.bits) + "-bit samples are not supported, only 8 or 16 bits");
    if (audio.channels < 1) throw FormatError("the fmt chunk gives no channels");
    if (rate < MIN_RATE || rate > 0x7FFFFFFF)
        throw FormatError("a sample rate of " + std::to_string(rate) + " Hz is not supported, at least 1000");
    audio.rate = static_cast<int>(rate);
    if (blockAlign != audio.channels * audio.bits / 8)
        throw FormatError("the fmt chunk's block size " + std::to_string(blockAlign) + " does not match " +
                          std::to_string(audio.channels) + " channels of " + std::to_string(audio.bits) + " bits");
}

}  // namespace

WavAudio readWav(const unsigned char* data, size_t size) {
    if (size < 12 || memcmp(data, "RIFF", 4) != 0 || memcmp(data + 8, "WAVE", 4) != 0)
        throw FormatError("not a WAV file: it does not begin with a RIFF/WAVE header");
    WavAudio audio{};
    bool haveFmt = false;
    size_t at = 12;
    while (at < size) {
        if (size - at < CHUNK_HEAD) throw FormatError("chunk header at byte " + std::to_string(at) + " is truncated");
        std::string id(reinterpret_cast<const char*>(data + at), 4);
        uint32_t length = le32(data + at + 4);
        size_t body = at + CHUNK_HEAD;
        if (id == "data") {
            if (!haveFmt) throw FormatError("the data chunk at byte " + std::to_string(at) + " comes before any fmt chunk");
            size_t blockAlign = static_cast<size_t>(audio.channels) * static_cast<size_t>(audio.bits / 8);
            if (length == WAV_UNKNOWN_SIZE) {
                length = static_cast<uint32_t>(size - body);
                length -= static_cast<uint32_t>(length % blockAlign);
            } else if (length > size - body) {
                throw FormatError("data chunk at byte " + std::to_string(at) + " is truncated at byte " +
                                  std::to_string(size));
            }
            if (length == 0) throw FormatError("the data chunk holds no samples");
            if (length % blockAlign != 0)
                throw FormatError("the data chunk's " + std::to_string(length) + " bytes are not a whole number of " +
                                  std::to_string(blockAlign) + "-byte sample frames");
            audio.dataOffset = body;
            audio.dataLength = length;
            return audio;
        }
        if (length > size - body)
            throw FormatError("'" + id + "' chunk at byte " + std::to_string(at) + " is truncated at byte " +
                              std::to_string(size));
        if (id == "fmt ") {
            readFmt(data + body, length, at, audio);
            haveFmt = true;
        }
        at = body + length + (length & 1);
    }
    throw FormatError(haveFmt ? "no data chunk" : "no fmt chunk");
}

std::vector<unsigned char> wavHeader(int channels, int rate, int bits, long long dataLength) {
    uint32_t riffSize = WAV_UNKNOWN_SIZE;
    uint32_t dataSize = WAV_UNKNOWN_SIZE;
    if (dataLength >= 0 && dataLength < static_cast<long long>(WAV_UNKNOWN_SIZE) - static_cast<long long>(WAV_HEADER_SIZE)) {
        dataSize = static_cast<uint32_t>(dataLength);
        riffSize = dataSize + static_cast<uint32_t>(WAV_HEADER_SIZE) - 8;
    }
    int blockAlign = channels * bits / 8;
    std::vector<unsigned char> header;
    header.reserve(WAV_HEADER_SIZE);
    header.insert(header.end(), {'R', 'I', 'F', 'F'});
    put32(header, riffSize);
    header.insert(header.end(), {'W', 'A', 'V', 'E', 'f', 'm', 't', ' '});
    put32(header, FMT_SIZE);
    put16(header, FORMAT_PCM);
    put16(header, channels);
    put32(header, static_cast<uint32_t>(rate));
    put32(header, static_cast<uint32_t>(rate) * static_cast<uint32_t>(blockAlign));
    put16(header, blockAlign);
    put16(header, bits);
    header.insert(header.end(), {'d', 'a', 't', 'a'});
    put32(header, dataSize);
    return header;
}

}  // namespace avpool::media
