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

// A minimal picture of 43 bytes: SOI, an APP0 segment whose body holds FFD9, a SOF0 of
// width x height, SOS, entropy data with a stuffed FF00 and a restart marker, EOI.
Bytes picture(int width, int height) {
    return {0xFF, 0xD8,
            0xFF, 0xE0, 0x00, 0x06, 0xFF, 0xD9, 0x00, 0x00,
            0xFF, 0xC0, 0x00, 0x0B, 0x08, static_cast<unsigned char>(height >> 8), static_cast<unsigned char>(height),
            static_cast<unsigned char>(width >> 8), static_cast<unsigned char>(width), 0x01, 0x01, 0x11, 0x00,
            0xFF, 0xDA, 0x00, 0x08, 0x01, 0x01, 0x00, 0x00, 0x3F, 0x00,
            0x12, 0xFF, 0x00, 0x34, 0xFF, 0xD3, 0x56, 0xFF, 0xFF, 0xD9};
}

TEST(MjpegSplit, MarkersInsideSegmentsAndDataDoNotEndAPicture) {
    const Bytes stream = cat({picture(320, 240), picture(1920, 1080)});
    std::vector<long> got;
    for (const JpegPicture& p : splitMjpeg(stream.data(), stream.size()))
        got.insert(got.end(), {static_cast<long>(p.offset), static_cast<long>(p.length), p.width, p.height});
    EXPECT_EQ(got, (std::vector<long>{0, 43, 320, 240, 43, 43, 1920, 1080}));
}

// Baseline SPS of 320x240 (20 x 15 macroblocks), POC type 2, no cropping, no
// VUI: 42 00 1E | ue0 ue0 ue2 ue1 0 ue19 ue14 1 1 0 0, then the stop bit.
const Bytes sps320 = {0x67, 0x42, 0x00, 0x1E, 0xDA, 0x05, 0x07, 0xE4};
const Bytes pps = {0x68, 0xCE, 0x38, 0x80};

Bytes nal(const Bytes& body, bool longCode = true) {
    return cat({longCode ? Bytes{0, 0, 0, 1} : Bytes{0, 0, 1}, body});
}

TEST(H264Split, SpsGivesPictureSizeWithCropping) {
    SpsInfo info = parseSps(sps320.data(), sps320.size());
    EXPECT_EQ((std::vector<int>{info.width, info.height, info.fps}), (std::vector<int>{320, 240, 0}));
    // 1920x1088 coded (120 x 68 MBs), cropped by 4 chroma lines at the bottom
    // to 1080: ue0 ue0 ue2 ue1 0 ue119 ue67 1 1 1 ue0 ue0 ue0 ue4 0.
    Bytes sps1080 = {0x67, 0x42, 0x00, 0x28, 0xDA, 0x01, 0xE0, 0x08, 0x9F, 0x95};
    SpsInfo hd = parseSps(sps1080.data(), sps1080.size());
    EXPECT_EQ((std::vector<int>{hd.width, hd.height}), (std::vector<int>{1920, 1080}));
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
    std::vector<long> units;  // offset, length and IDR of each access unit
    for (const auto& u : split.units)
        units.insert(units.end(), {static_cast<long>(u.offset), static_cast<long>(u.length), u.idr});
    const long first = 4 * 4 + 8 + 4 + 4 + 3 + 3 + 3;
    // The delimiter begins the last one.
    EXPECT_EQ(units, (std::vector<long>{0, first, 1, first, 7, 0, first + 7, 10, 0, first + 17, 13, 0}));
    EXPECT_EQ(first + 30, static_cast<long>(stream.size()));
    EXPECT_EQ(split.sps, sps320);
    EXPECT_EQ(split.pps, pps);
    EXPECT_EQ(split.picture.width, 320);
}

// Every cut of a picture is an error; each damage and wrong format is named.
TEST(MediaSplit, DamagedStreamsAndWrongFormatsAreNamed) {
    const Bytes one = picture(16, 16), params = cat({nal(sps320), nal(pps)}), idr = nal({0x65, 0x88});
    for (size_t cut = 1; cut < one.size(); ++cut)
        EXPECT_NE(errorOf(splitMjpeg, Bytes(one.begin(), one.begin() + static_cast<long>(cut))), "accepted") << cut;
    const std::pair<std::string, std::string> cases[] = {
        {errorOf(splitMjpeg, cat({one, {0x00, 0x01}})), "no JPEG picture (SOI marker) at byte 43"},
        {errorOf(splitMjpeg, {0, 0, 0, 1, 0x67, 0x42}), "not an MJPEG stream: it does not begin with a JPEG picture"},
        {errorOf(splitMjpeg, {}), "the file is empty"},
        {errorOf(splitMjpeg, {0xFF, 0xD8, 0xFF, 0xD9}), "JPEG picture at byte 0 has no frame header"},
        {errorOf(splitH264, one), "not an H.264 Annex B stream: it does not begin with a start code"},
        {errorOf(splitH264, cat({nal(pps), idr})), "H.264 stream has no sequence parameter set"},
        {errorOf(splitH264, cat({nal(sps320), idr})), "H.264 stream has no picture parameter set"},
        {errorOf(splitH264, params), "H.264 stream has no picture"},
        {errorOf(splitH264, cat({params, nal({0xE5, 0x88})})), "NAL unit at byte 20 has its forbidden bit set"},
        {errorOf(splitH264, cat({params, idr, Bytes{0, 0, 1}})), "empty NAL unit at byte 26"},
        {errorOf(parseSps, Bytes(sps320.begin(), sps320.begin() + 5)), "sequence parameter set is cut short"},
    };
    for (const auto& [error, message] : cases) EXPECT_EQ(error, message);
}

}  // namespace
