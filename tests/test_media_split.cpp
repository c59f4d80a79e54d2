// The stream splitters of the avpool tool on crafted byte streams: markers in
// awkward places, truncated input and the wrong format.

#include "media/h264_stream.h"
#include "media/jpeg_stream.h"
#include "media_bytes.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace avpool::media;

namespace {

// A minimal picture: SOI, an APP0 segment whose body holds FFD9, a SOF0 of
// width x height, SOS, entropy data with a stuffed FF00 and a restart marker,
// EOI.
Bytes picture(int width, int height) {
    return {0xFF, 0xD8,
            0xFF, 0xE0, 0x00, 0x06, 0xFF, 0xD9, 0x00, 0x00,
            0xFF, 0xC0, 0x00, 0x0B, 0x08, static_cast<unsigned char>(height >> 8), static_cast<unsigned char>(height),
            static_cast<unsigned char>(width >> 8), static_cast<unsigned char>(width), 0x01, 0x01, 0x11, 0x00,
            0xFF, 0xDA, 0x00, 0x08, 0x01, 0x01, 0x00, 0x00, 0x3F, 0x00,
            0x12, 0xFF, 0x00, 0x34, 0xFF, 0xD3, 0x56, 0xFF, 0xFF, 0xD9};
}

TEST(MjpegSplit, MarkersInsideSegmentsAndDataDoNotEndAPicture) {
    Bytes one = picture(320, 240);
    Bytes two = picture(1920, 1080);
    Bytes stream = cat({one, two});
    std::vector<JpegPicture> pictures = splitMjpeg(stream.data(), stream.size());
    ASSERT_EQ(pictures.size(), 2u);
    EXPECT_EQ(pictures[0].offset, 0u);
    EXPECT_EQ(pictures[0].length, one.size());
    EXPECT_EQ(pictures[0].width, 320);
    EXPECT_EQ(pictures[0].height, 240);
    EXPECT_EQ(pictures[1].offset, one.size());
    EXPECT_EQ(pictures[1].length, two.size());
    EXPECT_EQ(pictures[1].width, 1920);
    EXPECT_EQ(pictures[1].height, 1080);
}

TEST(MjpegSplit, TruncationGarbageAndWrongFormatAreErrors) {
    Bytes one = picture(16, 16);
    for (size_t cut = 1; cut < one.size(); ++cut) {
        Bytes head(one.begin(), one.begin() + static_cast<long>(cut));
        EXPECT_THROW(splitMjpeg(head.data(), head.size()), FormatError) << "cut at " << cut;
    }
    Bytes garbage = cat({one, {0x00, 0x01}});
    EXPECT_EQ(errorOf(splitMjpeg, garbage), "no JPEG picture (SOI marker) at byte " + std::to_string(one.size()))
        << "garbage after a picture";
    Bytes h264 = {0, 0, 0, 1, 0x67, 0x42};
    EXPECT_THROW(splitMjpeg(h264.data(), h264.size()), FormatError);
    EXPECT_THROW(splitMjpeg(nullptr, 0), FormatError);
    Bytes noFrame = {0xFF, 0xD8, 0xFF, 0xD9};
    EXPECT_THROW(splitMjpeg(noFrame.data(), noFrame.size()), FormatError);
}

// Baseline SPS of 320x240 (20 x 15 macroblocks), POC type 2, no cropping, no
// VUI: 42 00 1E | ue0 ue0 ue2 ue1 0 ue19 ue14 1 1 0 0, then the stop bit.
const Bytes sps320 = {0x67, 0x42, 0x00, 0x1E, 0xDA, 0x05, 0x07, 0xE4};
const Bytes pps = {0x68, 0xCE, 0x38, 0x80};

Bytes nal(const Bytes& body, bool longCode = true) {
    Bytes code = longCode ? Bytes{0, 0, 0, 1} : Bytes{0, 0, 1};
    return cat({code, body});
}

TEST(H264Split, SpsGivesPictureSizeWithCropping) {
    SpsInfo info = parseSps(sps320.data(), sps320.size());
    EXPECT_EQ(info.width, 320);
    EXPECT_EQ(info.height, 240);
    EXPECT_EQ(info.fps, 0);
    // 1920x1088 coded (120 x 68 MBs), cropped by 4 chroma lines at the bottom
    // to 1080: ue0 ue0 ue2 ue1 0 ue119 ue67 1 1 1 ue0 ue0 ue0 ue4 0.
    Bytes sps1080 = {0x67, 0x42, 0x00, 0x28, 0xDA, 0x01, 0xE0, 0x08, 0x9F, 0x95};
    SpsInfo hd = parseSps(sps1080.data(), sps1080.size());
    EXPECT_EQ(hd.width, 1920);
    EXPECT_EQ(hd.height, 1080);
    Bytes cut(sps320.begin(), sps320.begin() + 5);
    EXPECT_THROW(parseSps(cut.data(), cut.size()), FormatError);
}

TEST(H264Split, AccessUnitsStartAtParameterSetsAndFirstSlices) {
    Bytes idr = {0x65, 0x88, 0x84};            // first_mb_in_slice 0
    Bytes idrSecondSlice = {0x65, 0x05, 0x30};  // first_mb_in_slice 40
    Bytes p = {0x41, 0x9A, 0x02};               // first_mb_in_slice 0
    Bytes stuffed = {0x41, 0x9A, 0x00, 0x00, 0x03, 0x00, 0x01};  // 00 00 03 inside
    Bytes sei = {0x06, 0x05, 0x01, 0x80};
    Bytes stream = cat({nal(sps320), nal(pps), nal(sei), nal(idr), nal(idrSecondSlice, false), nal(p),
                        nal(stuffed, false), nal({0x09, 0x10}), nal(p)});
    H264Stream split = splitH264(stream.data(), stream.size());
    ASSERT_EQ(split.units.size(), 4u);
    size_t first = 4 * 4 + sps320.size() + pps.size() + sei.size() + idr.size() + 3 + idrSecondSlice.size();
    EXPECT_EQ(split.units[0].offset, 0u);
    EXPECT_EQ(split.units[0].length, first);
    EXPECT_TRUE(split.units[0].idr);
    EXPECT_EQ(split.units[1].offset, first);
    EXPECT_EQ(split.units[1].length, 4 + p.size());
    EXPECT_FALSE(split.units[1].idr);
    EXPECT_EQ(split.units[2].length, 3 + stuffed.size());
    EXPECT_EQ(split.units[3].length, 4 + 2 + 4 + p.size());  // the delimiter begins it
    EXPECT_EQ(split.units[3].offset + split.units[3].length, stream.size());
    EXPECT_EQ(split.sps, sps320);
    EXPECT_EQ(split.pps, pps);
    EXPECT_EQ(split.picture.width, 320);
}

TEST(H264Split, WrongFormatAndDamagedStreamsAreErrors) {
    Bytes jpeg = picture(16, 16);
    EXPECT_THROW(splitH264(jpeg.data(), jpeg.size()), FormatError);
    Bytes noSps = cat({nal(pps), nal({0x65, 0x88})});
    EXPECT_THROW(splitH264(noSps.data(), noSps.size()), FormatError);
    Bytes noSlice = cat({nal(sps320), nal(pps)});
    EXPECT_THROW(splitH264(noSlice.data(), noSlice.size()), FormatError);
    Bytes forbidden = cat({nal(sps320), nal(pps), nal({0xE5, 0x88})});
    EXPECT_THROW(splitH264(forbidden.data(), forbidden.size()), FormatError);
    Bytes endsInStartCode = cat({nal(sps320), nal(pps), nal({0x65, 0x88}), Bytes{0, 0, 1}});
    EXPECT_THROW(splitH264(endsInStartCode.data(), endsInStartCode.size()), FormatError);
}

}  // namespace
