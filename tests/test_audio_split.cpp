// The audio readers of the avpool tool on crafted bytes: WAV chunks in awkward
// places and ADTS frames with and without CRC, truncated input and the wrong format.

#include "media/adts_stream.h"
#include "media/wav_stream.h"
#include "media_bytes.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace avpool::media;

namespace {

Bytes le16(uint32_t v) { return {static_cast<unsigned char>(v), static_cast<unsigned char>(v >> 8)}; }
Bytes le32(uint32_t v) { return cat({le16(v & 0xFFFF), le16(v >> 16)}); }

// A chunk with its pad byte when the body is odd.
Bytes chunk(const std::string& id, const Bytes& body) {
    Bytes out = cat({Bytes(id.begin(), id.end()), le32(static_cast<uint32_t>(body.size())), body});
    if (body.size() % 2 == 1) out.push_back(0);
    return out;
}

Bytes fmtBody(int tag, int channels, int rate, int bits, int blockAlign = -1) {
    if (blockAlign < 0) blockAlign = channels * bits / 8;
    return cat({le16(tag), le16(channels), le32(rate), le32(rate * blockAlign), le16(blockAlign), le16(bits)});
}

// The 40-byte fmt body of the extensible format with the given subformat tag.
Bytes extensibleBody(int channels, int rate, int bits, int subformat) {
    return cat({fmtBody(0xFFFE, channels, rate, bits), le16(22), le16(bits), le32(0x3), le16(subformat),
                {0x00, 0x00, 0x00, 0x00, 0x10, 0x00, 0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71}});
}

Bytes riff(std::initializer_list<Bytes> chunks) {
    const Bytes inner = cat(chunks);
    return cat({{'R', 'I', 'F', 'F'}, le32(static_cast<uint32_t>(inner.size() + 4)), {'W', 'A', 'V', 'E'}, inner});
}

// channels, rate, bits, data offset and length.
std::vector<long> shape(const Bytes& file) {
    WavAudio a = readWav(file.data(), file.size());
    return {a.channels, a.rate, a.bits, static_cast<long>(a.dataOffset), static_cast<long>(a.dataLength)};
}

TEST(WavRead, OddChunksUnknownSizesAndTheExtensibleFormatAreRead) {
    Bytes samples = {1, 2, 3, 4, 5, 6, 7, 8};
    Bytes file = riff({chunk("LIST", {'a', 'b', 'c'}), chunk("fmt ", fmtBody(1, 2, 22050, 16)),
                       chunk("junk", {0x7F}), chunk("data", samples), chunk("tail", {9, 9})});
    // RIFF head 12, LIST 8+3+pad, fmt 8+16, junk 8+1+pad, data head 8.
    EXPECT_EQ(shape(file), (std::vector<long>{2, 22050, 16, 12 + 12 + 24 + 10 + 8, 8}));
    EXPECT_EQ(Bytes(file.begin() + 66, file.begin() + 74), samples);
    // An odd data chunk of 8-bit mono, its pad byte at the very end.
    EXPECT_EQ(shape(riff({chunk("fmt ", fmtBody(1, 1, 8000, 8)), chunk("data", {0x80, 0x81, 0x82})})),
              (std::vector<long>{1, 8000, 8, 12 + 24 + 8, 3}));
    // Data of unknown size runs to the end in whole frames: five and three stray bytes.
    Bytes open = cat({riff({chunk("fmt ", fmtBody(1, 2, 8000, 16))}), {'d', 'a', 't', 'a', 0xFF, 0xFF, 0xFF, 0xFF},
                      Bytes(4 * 5 + 3, 0x11)});
    EXPECT_EQ(shape(open), (std::vector<long>{2, 8000, 16, 12 + 24 + 8, 20}));
    // The extensible format counts by its subformat.
    EXPECT_EQ(shape(riff({chunk("fmt ", extensibleBody(6, 48000, 16, 1)), chunk("data", Bytes(24, 0))})),
              (std::vector<long>{6, 48000, 16, 68, 24}));
}

TEST(WavRead, WrongFormatsAndTruncationAreNamed) {
    const std::string text = "hello, this is not audio\n";
    Bytes avi = riff({});
    avi[8] = 'A', avi[9] = 'V', avi[10] = 'I', avi[11] = ' ';
    const Bytes data4 = chunk("data", {0, 0, 0, 0}), fmt16 = chunk("fmt ", fmtBody(1, 1, 8000, 16));
    const Bytes whole = riff({fmt16, chunk("data", Bytes(100, 7))});
    const std::string notWav = "not a WAV file: it does not begin with a RIFF/WAVE header";
    const std::string deep = "24-bit samples are not supported, only 8 or 16 bits";
    const std::pair<Bytes, std::string> cases[] = {
        {Bytes(text.begin(), text.end()), notWav},
        {{}, notWav},
        {avi, notWav},
        {riff({chunk("fmt ", fmtBody(0x55, 2, 44100, 0, 1)), data4}),
         "compressed WAV (format tag 0x0055) is not supported, only PCM"},
        {riff({chunk("fmt ", extensibleBody(2, 48000, 32, 3)), data4}),
         "compressed WAV (format tag 0x0003) is not supported, only PCM"},
        {riff({chunk("fmt ", fmtBody(1, 1, 8000, 24)), chunk("data", Bytes(6, 0))}), deep},
        {riff({chunk("fmt ", extensibleBody(1, 48000, 24, 1)), chunk("data", Bytes(6, 0))}), deep},
        {riff({chunk("fmt ", fmtBody(1, 1, 800, 16)), data4}),
         "a sample rate of 800 Hz is not supported, at least 1000"},
        {riff({chunk("fmt ", fmtBody(1, 0, 8000, 16)), data4}), "the fmt chunk gives no channels"},
        {riff({chunk("fmt ", fmtBody(1, 2, 8000, 16, 2)), data4}),
         "the fmt chunk's block size 2 does not match 2 channels of 16 bits"},
        {riff({chunk("fmt ", Bytes(14, 0)), data4}), "fmt chunk at byte 12 has 14 bytes, fewer than 16"},
        {riff({data4, fmt16}), "the data chunk at byte 12 comes before any fmt chunk"},
        {riff({fmt16}), "no data chunk"},
        {riff({chunk("LIST", {1, 2})}), "no fmt chunk"},
        {riff({fmt16, chunk("data", {})}), "the data chunk holds no samples"},
        {riff({fmt16, chunk("data", {1, 2, 3})}),
         "the data chunk's 3 bytes are not a whole number of 2-byte sample frames"},
        {Bytes(whole.begin(), whole.end() - 1), "data chunk at byte 36 is truncated at byte 143"},
        {Bytes(whole.begin(), whole.begin() + 30), "'fmt ' chunk at byte 12 is truncated at byte 30"},
        {Bytes(whole.begin(), whole.begin() + 40), "chunk header at byte 36 is truncated"},
    };
    for (const auto& [file, message] : cases) EXPECT_EQ(errorOf(readWav, file), message);
}

TEST(WavHeader, ExactBytesAndUnknownSizes) {
    Bytes header = wavHeader(2, 44100, 16, 4096);
    Bytes expected = {'R', 'I', 'F', 'F', 0x24, 0x10, 0x00, 0x00, 'W', 'A', 'V', 'E',
                      'f', 'm', 't', ' ', 0x10, 0x00, 0x00, 0x00, 0x01, 0x00, 0x02, 0x00,
                      0x44, 0xAC, 0x00, 0x00, 0x10, 0xB1, 0x02, 0x00, 0x04, 0x00, 0x10, 0x00,
                      'd', 'a', 't', 'a', 0x00, 0x10, 0x00, 0x00};
    EXPECT_EQ(header, expected);
    ASSERT_EQ(header.size(), WAV_HEADER_SIZE);

    Bytes open = wavHeader(1, 8000, 8, -1);
    EXPECT_EQ(Bytes(open.begin() + WAV_RIFF_SIZE_OFFSET, open.begin() + WAV_RIFF_SIZE_OFFSET + 4), le32(0xFFFFFFFF));
    EXPECT_EQ(Bytes(open.begin() + WAV_DATA_SIZE_OFFSET, open.begin() + WAV_DATA_SIZE_OFFSET + 4), le32(0xFFFFFFFF));
    EXPECT_EQ(wavHeader(1, 8000, 8, 0x100000000LL), open);
    // What get writes on a pipe reads back, the samples running to the end.
    EXPECT_EQ(shape(cat({open, {0x80, 0x7F, 0x81}})),
              (std::vector<long>{1, 8000, 8, static_cast<long>(WAV_HEADER_SIZE), 3}));
}

// One ADTS frame: header for the object type, sampling-frequency index and
// channel configuration, a CRC when asked, then payload bytes that look like sync words.
Bytes adts(int objectType, int rateIndex, int configuration, size_t payload, bool crc = false) {
    size_t length = (crc ? 9 : 7) + payload;
    Bytes frame = {0xFF, static_cast<unsigned char>(crc ? 0xF0 : 0xF1),
                   static_cast<unsigned char>((objectType - 1) << 6 | rateIndex << 2 | configuration >> 2),
                   static_cast<unsigned char>((configuration & 3) << 6 | (length >> 11 & 3)),
                   static_cast<unsigned char>(length >> 3), static_cast<unsigned char>((length & 7) << 5 | 0x1F),
                   0xFC};
    if (crc) frame.insert(frame.end(), {0x12, 0x34});
    for (size_t i = 0; i < payload; ++i) frame.push_back(static_cast<unsigned char>(i == 0 ? 0xFF : 0xF1));
    return frame;
}

// Object type, rate, channels, then offset and length of every frame.
std::vector<long> frames(const Bytes& stream) {
    AdtsStream split = splitAdts(stream.data(), stream.size());
    std::vector<long> values{split.objectType, split.rate, split.channels};
    for (const auto& f : split.frames)
        values.insert(values.end(), {static_cast<long>(f.offset), static_cast<long>(f.length)});
    return values;
}

TEST(AdtsSplit, FramesWithAndWithoutCrcByTheirLengths) {
    Bytes stream = cat({adts(2, 4, 2, 300), adts(2, 4, 2, 5, true), adts(2, 4, 2, 0)});
    EXPECT_EQ(frames(stream), (std::vector<long>{2, 44100, 2, 0, 307, 307, 14, 321, 7}));
    EXPECT_EQ(frames(adts(1, 11, 7, 2)), (std::vector<long>{1, 8000, 8, 0, 9}));
    EXPECT_EQ(frames(adts(4, 12, 1, 2)), (std::vector<long>{4, 7350, 1, 0, 9}));
}

TEST(AdtsSplit, BadSyncTruncationAndWrongFormatAreNamed) {
    const Bytes frame = adts(2, 3, 1, 20), two = cat({frame, frame});
    for (size_t cut = frame.size() + 1; cut < two.size(); ++cut)
        EXPECT_NE(errorOf(splitAdts, Bytes(two.begin(), two.begin() + static_cast<long>(cut))), "accepted") << cut;
    Bytes tooShort = adts(2, 4, 2, 0, true);
    tooShort[4] = 0x00, tooShort[5] = 0xFF;  // length 7 with a 9-byte header
    const std::string notAdts = "not an ADTS stream: it does not begin with a sync word";
    const std::pair<Bytes, std::string> cases[] = {
        {Bytes(two.begin(), two.end() - 1), "ADTS frame at byte 27 is truncated at byte 53"},
        {Bytes(two.begin(), two.begin() + 30), "ADTS frame at byte 27 is truncated at byte 30"},
        {cat({frame, {0x00, 0xFF, 0xF1}}), "no ADTS sync word at byte 27"},
        {cat({frame, {0xFF}}), "no ADTS sync word at byte 27"},
        {riff({chunk("fmt ", fmtBody(1, 1, 8000, 16))}), notAdts},
        {{0xFF, 0xFB, 0x90, 0x64, 0x00, 0x00, 0x00, 0x00}, notAdts},  // MPEG-1 layer III
        {{}, "the file is empty"},
        {adts(2, 13, 2, 4), "ADTS frame at byte 0 has the reserved sampling-frequency index 13"},
        {adts(2, 4, 0, 4), "ADTS frame at byte 0 has channel configuration 0 (channels set inside the frame)"},
        {tooShort, "ADTS frame at byte 0 gives a length of 7, shorter than its header"},
        {cat({frame, adts(2, 4, 1, 20)}),
         "ADTS frame at byte 27 changes the stream from object type 2, 48000 Hz, 1 channels to 2, 44100 Hz, 1"},
    };
    for (const auto& [stream, message] : cases) EXPECT_EQ(errorOf(splitAdts, stream), message);
}

}  // namespace
