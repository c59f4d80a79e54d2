// The audio readers of the avpool tool on crafted bytes: WAV chunks in
// awkward places and ADTS frames with and without CRC, truncated input and the
// wrong format.

#include "media/adts_stream.h"
#include "media/wav_stream.h"
#include "media_bytes.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace avpool::media;

namespace {

Bytes le32(uint32_t v) {
    return {static_cast<unsigned char>(v), static_cast<unsigned char>(v >> 8), static_cast<unsigned char>(v >> 16),
            static_cast<unsigned char>(v >> 24)};
}

Bytes le16(int v) {
    return {static_cast<unsigned char>(v), static_cast<unsigned char>(v >> 8)};
}

Bytes chunk(const std::string& id, const Bytes& body, bool pad = true) {
    Bytes out(id.begin(), id.end());
    append(out, le32(static_cast<uint32_t>(body.size())));
    append(out, body);
    if (pad && body.size() % 2 == 1) out.push_back(0);
    return out;
}

Bytes fmtBody(int tag, int channels, int rate, int bits, int blockAlign = -1) {
    if (blockAlign < 0) blockAlign = channels * bits / 8;
    Bytes body = le16(tag);
    append(body, le16(channels));
    append(body, le32(static_cast<uint32_t>(rate)));
    append(body, le32(static_cast<uint32_t>(rate * blockAlign)));
    append(body, le16(blockAlign));
    append(body, le16(bits));
    return body;
}

// The 40-byte fmt body of the extensible format with the given subformat tag.
Bytes extensibleBody(int channels, int rate, int bits, int subformat) {
    Bytes body = fmtBody(0xFFFE, channels, rate, bits);
    append(body, le16(22));
    append(body, le16(bits));
    append(body, le32(0x3));
    append(body, le16(subformat));
    append(body, {0x00, 0x00, 0x00, 0x00, 0x10, 0x00, 0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71});
    return body;
}

Bytes riff(std::initializer_list<Bytes> chunks) {
    Bytes inner = {'W', 'A', 'V', 'E'};
    for (const Bytes& c : chunks) append(inner, c);
    Bytes out = {'R', 'I', 'F', 'F'};
    append(out, le32(static_cast<uint32_t>(inner.size())));
    append(out, inner);
    return out;
}

std::string wavError(const Bytes& file) {
    return errorOf(readWav, file);
}

// channels, rate, bits, data offset and length.
std::vector<long> shape(const WavAudio& a) {
    return {a.channels, a.rate, a.bits, static_cast<long>(a.dataOffset), static_cast<long>(a.dataLength)};
}

TEST(WavRead, OddChunksWithPadBytesArePassedOver) {
    Bytes samples = {1, 2, 3, 4, 5, 6, 7, 8};
    Bytes file = riff({chunk("LIST", {'a', 'b', 'c'}), chunk("fmt ", fmtBody(1, 2, 22050, 16)),
                       chunk("junk", {0x7F}), chunk("data", samples), chunk("tail", {9, 9})});
    WavAudio audio = readWav(file.data(), file.size());
    // RIFF head 12, LIST 8+3+pad, fmt 8+16, junk 8+1+pad, data head 8.
    EXPECT_EQ(shape(audio), (std::vector<long>{2, 22050, 16, 12 + 12 + 24 + 10 + 8, 8}));
    EXPECT_EQ(Bytes(file.begin() + static_cast<long>(audio.dataOffset),
                    file.begin() + static_cast<long>(audio.dataOffset + audio.dataLength)),
              samples);

    // An odd data chunk of 8-bit mono, its pad byte at the very end.
    Bytes odd = riff({chunk("fmt ", fmtBody(1, 1, 8000, 8)), chunk("data", {0x80, 0x81, 0x82})});
    EXPECT_EQ(shape(readWav(odd.data(), odd.size())), (std::vector<long>{1, 8000, 8, 12 + 24 + 8, 3}));
}

TEST(WavRead, ExtensibleFormatCountsByItsSubformat) {
    Bytes pcm = riff({chunk("fmt ", extensibleBody(6, 48000, 16, 1)), chunk("data", Bytes(24, 0))});
    EXPECT_EQ(shape(readWav(pcm.data(), pcm.size())), (std::vector<long>{6, 48000, 16, 68, 24}));
    Bytes deep = riff({chunk("fmt ", extensibleBody(1, 48000, 24, 1)), chunk("data", Bytes(6, 0))});
    EXPECT_EQ(wavError(deep), "24-bit samples are not supported, only 8 or 16 bits");
    Bytes floats = riff({chunk("fmt ", extensibleBody(2, 48000, 32, 3)), chunk("data", Bytes(8, 0))});
    EXPECT_EQ(wavError(floats), "compressed WAV (format tag 0x0003) is not supported, only PCM");
}

TEST(WavRead, DataOfUnknownSizeRunsToTheEndInWholeFrames) {
    Bytes file = riff({chunk("fmt ", fmtBody(1, 2, 8000, 16))});
    append(file, {'d', 'a', 't', 'a', 0xFF, 0xFF, 0xFF, 0xFF});
    append(file, Bytes(4 * 5 + 3, 0x11));  // five frames and three stray bytes
    EXPECT_EQ(shape(readWav(file.data(), file.size())), (std::vector<long>{2, 8000, 16, 12 + 24 + 8, 20}));
}

TEST(WavRead, WrongFormatsAndTruncationAreNamed) {
    const std::string text = "hello, this is not audio\n";
    Bytes avi = riff({});
    avi[8] = 'A', avi[9] = 'V', avi[10] = 'I', avi[11] = ' ';
    const Bytes data4 = chunk("data", {0, 0, 0, 0}), fmt16 = chunk("fmt ", fmtBody(1, 1, 8000, 16));
    const Bytes whole = riff({fmt16, chunk("data", Bytes(100, 7))});
    const std::string notWav = "not a WAV file: it does not begin with a RIFF/WAVE header";
    const std::pair<Bytes, std::string> cases[] = {
        {Bytes(text.begin(), text.end()), notWav},
        {{}, notWav},
        {avi, notWav},
        {riff({chunk("fmt ", fmtBody(0x55, 2, 44100, 0, 1)), data4}),
         "compressed WAV (format tag 0x0055) is not supported, only PCM"},
        {riff({chunk("fmt ", fmtBody(1, 1, 8000, 24)), chunk("data", Bytes(6, 0))}),
         "24-bit samples are not supported, only 8 or 16 bits"},
        {riff({chunk("fmt ", fmtBody(1, 1, 800, 16)), data4}), "a sample rate of 800 Hz is not supported, at least 1000"},
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
    for (const auto& [file, message] : cases) EXPECT_EQ(wavError(file), message);
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
    Bytes huge = wavHeader(1, 8000, 8, 0x100000000LL);
    EXPECT_EQ(huge, open);

    // What get writes on a pipe reads back, the samples running to the end.
    append(open, {0x80, 0x7F, 0x81});
    EXPECT_EQ(shape(readWav(open.data(), open.size())),
              (std::vector<long>{1, 8000, 8, static_cast<long>(WAV_HEADER_SIZE), 3}));
}

// One ADTS frame: header for the object type, sampling-frequency index and
// channel configuration, a CRC when asked, then payload bytes.
Bytes adts(int objectType, int rateIndex, int configuration, size_t payload, bool crc = false) {
    size_t length = (crc ? 9 : 7) + payload;
    Bytes frame = {0xFF, static_cast<unsigned char>(crc ? 0xF0 : 0xF1),
                   static_cast<unsigned char>((objectType - 1) << 6 | rateIndex << 2 | configuration >> 2),
                   static_cast<unsigned char>((configuration & 3) << 6 | (length >> 11 & 3)),
                   static_cast<unsigned char>(length >> 3), static_cast<unsigned char>((length & 7) << 5 | 0x1F),
                   0xFC};
    if (crc) append(frame, {0x12, 0x34});
    for (size_t i = 0; i < payload; ++i) frame.push_back(static_cast<unsigned char>(i == 0 ? 0xFF : 0xF1));
    return frame;
}

std::string adtsError(const Bytes& stream) {
    return errorOf(splitAdts, stream);
}

// Object type, rate, channels, then offset and length of every frame.
std::vector<long> shape(const Bytes& stream) {
    AdtsStream split = splitAdts(stream.data(), stream.size());
    std::vector<long> values{split.objectType, split.rate, split.channels};
    for (const auto& f : split.frames) values.insert(values.end(), {static_cast<long>(f.offset), static_cast<long>(f.length)});
    return values;
}

TEST(AdtsSplit, FramesWithAndWithoutCrcByTheirLengths) {
    // Payloads begin with bytes that look like a sync word: only the lengths count.
    Bytes one = adts(2, 4, 2, 300);
    Bytes two = adts(2, 4, 2, 5, true);
    Bytes three = adts(2, 4, 2, 0);
    Bytes stream = one;
    append(stream, two);
    append(stream, three);
    EXPECT_EQ(shape(stream), (std::vector<long>{2, 44100, 2, 0, 307, 307, 14, 321, 7}));
    EXPECT_EQ(shape(adts(1, 11, 7, 2)), (std::vector<long>{1, 8000, 8, 0, 9}));
    EXPECT_EQ(shape(adts(4, 12, 1, 2)), (std::vector<long>{4, 7350, 1, 0, 9}));
}

TEST(AdtsSplit, BadSyncTruncationAndWrongFormatAreNamed) {
    Bytes frame = adts(2, 3, 1, 20);
    Bytes stream = frame;
    append(stream, frame);
    for (size_t cut = frame.size() + 1; cut < stream.size(); ++cut) {
        Bytes head(stream.begin(), stream.begin() + static_cast<long>(cut));
        EXPECT_THROW(splitAdts(head.data(), head.size()), FormatError) << "cut at " << cut;
    }
    Bytes head(stream.begin(), stream.end() - 1);
    EXPECT_EQ(adtsError(head), "ADTS frame at byte 27 is truncated at byte 53");
    Bytes cutHeader(stream.begin(), stream.begin() + 30);
    EXPECT_EQ(adtsError(cutHeader), "ADTS frame at byte 27 is truncated at byte 30");

    Bytes garbage = frame;
    append(garbage, {0x00, 0xFF, 0xF1});
    EXPECT_EQ(adtsError(garbage), "no ADTS sync word at byte 27");
    Bytes shortSync = frame;
    shortSync.push_back(0xFF);
    EXPECT_EQ(adtsError(shortSync), "no ADTS sync word at byte 27");

    Bytes wav = riff({chunk("fmt ", fmtBody(1, 1, 8000, 16))});
    EXPECT_EQ(adtsError(wav), "not an ADTS stream: it does not begin with a sync word");
    Bytes mp3 = {0xFF, 0xFB, 0x90, 0x64, 0x00, 0x00, 0x00, 0x00};  // MPEG-1 layer III
    EXPECT_EQ(adtsError(mp3), "not an ADTS stream: it does not begin with a sync word");
    EXPECT_EQ(adtsError({}), "the file is empty");

    EXPECT_EQ(adtsError(adts(2, 13, 2, 4)), "ADTS frame at byte 0 has the reserved sampling-frequency index 13");
    EXPECT_EQ(adtsError(adts(2, 4, 0, 4)),
              "ADTS frame at byte 0 has channel configuration 0 (channels set inside the frame)");
    Bytes tooShort = adts(2, 4, 2, 0, true);
    tooShort[4] = 0x00, tooShort[5] = 0xFF;  // length 7 with a 9-byte header
    EXPECT_EQ(adtsError(tooShort), "ADTS frame at byte 0 gives a length of 7, shorter than its header");
    Bytes change = frame;
    append(change, adts(2, 4, 1, 20));
    EXPECT_EQ(adtsError(change),
              "ADTS frame at byte 27 changes the stream from object type 2, 48000 Hz, 1 channels to 2, 44100 Hz, 1");
}

}  // namespace
