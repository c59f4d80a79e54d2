// avpoolsink through GstHarness: round trips into avpoolsrc in the same
// process, and what it tells the information area as an encoder does.

#include "gst_support.h"
#include "ipc_harness.h"

#include <avpool/infos.h>
#include <avpool/jpg.h>
#include <avpool/mp4.h>
#include <avpool/opus.h>

namespace avpool::test {
namespace {

constexpr int CHANNEL = 6;

class SinkTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { initGst(); }
    IpcKeys keys{JPG_BASE_KEY + CHANNEL, MP4_BASE_KEY + CHANNEL, MP4_BASE_KEY + CHANNEL * 16, OPUS_KEY, INFOS_KEY};
};

// A sink harness that renders at once (no clock waits).
struct SinkHarness : Harness {
    SinkHarness(const std::string& description, const char* caps) : Harness(description + " sync=false") {
        gst_harness_set_src_caps_str(get(), caps);
    }
    GstFlowReturn push(const std::vector<unsigned char>& bytes, bool key = true) {
        GstBuffer* buffer = gst_buffer_new_memdup(bytes.data(), bytes.size());
        if (!key) GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
        return gst_harness_push(get(), buffer);
    }
};

struct RoundTrip {
    const char *name, *sink, *source, *caps;
    size_t (*size)(unsigned long long id);
    std::vector<unsigned char> head;
};

class RoundTripTest : public SinkTest, public ::testing::WithParamInterface<RoundTrip> {};

// What goes into avpoolsink comes out of avpoolsrc byte for byte, from the
// element that was newest when the source started on.
TEST_P(RoundTripTest, ElementsComeOutOfTheSourceAsTheyWentIntoTheSink) {
    const RoundTrip& trip = GetParam();
    SinkHarness sink(trip.sink, trip.caps);
    auto element = [&](unsigned long long id) { return payload(id, trip.size(id), trip.head); };
    ASSERT_EQ(sink.push(element(1)), GST_FLOW_OK);
    Harness source(trip.source);
    gst_harness_play(source.get());
    for (unsigned long long id = 1; id <= 8; ++id) {
        if (id > 1) {
            ASSERT_EQ(sink.push(element(id)), GST_FLOW_OK);
        }
        GstBuffer* buffer = source.pull();
        ASSERT_NE(buffer, nullptr) << "no element " << id;
        EXPECT_EQ(bytesOf(buffer), element(id)) << "element " << id;
        gst_buffer_unref(buffer);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, RoundTripTest,
    ::testing::Values(
        RoundTrip{"Jpg", "avpoolsink kind=jpg channel=6", "avpoolsrc kind=jpg channel=6",
                  "image/jpeg, width=(int)64, height=(int)48, framerate=(fraction)30/1",
                  [](unsigned long long id) -> size_t { return 500 + id * 101; }, {0xFF, 0xD8, 0xFF}},
        RoundTrip{"Mp4", "avpoolsink kind=mp4 channel=6", "avpoolsrc kind=mp4 channel=6 zero-copy=true",
                  "video/x-h264, stream-format=(string)byte-stream, alignment=(string)au, width=(int)64, "
                  "height=(int)48, framerate=(fraction)30/1",
                  [](unsigned long long id) -> size_t { return 800 + id * 33; }, {0, 0, 0, 1, 0x65}},
        RoundTrip{"Opus", "avpoolsink kind=opus", "avpoolsrc kind=opus",
                  "audio/x-opus, channel-mapping-family=(int)0, channels=(int)2, rate=(int)48000",
                  [](unsigned long long id) -> size_t { return 40 + id * 50; }, {}}),
    [](const ::testing::TestParamInfo<RoundTrip>& info) { return info.param.name; });

// The profiles the encoder announced on the sink's channel get the picture
// size and rate of the caps and the SPS and PPS (without start codes) of the
// I frames, renewed when an I frame brings new ones; others stay as they are.
TEST_F(SinkTest, VideoTellsTheProfilesOfItsChannelItsSizeRateAndParameterSets) {
    InfosPutter encoder;
    encoder.init(INFOS_KEY);
    encoder.putSizeofPools(2);
    encoder.putInfo(0, 2, CHANNEL, 0);
    encoder.putInfo(1, 2, CHANNEL + 1, 0);
    SinkHarness sink("avpoolsink kind=mp4 channel=6",
                     "video/x-h264, stream-format=(string)byte-stream, alignment=(string)au, width=(int)320, "
                     "height=(int)240, framerate=(fraction)25/1");
    // A delimiter, an SPS, a PPS and an IDR slice.
    std::vector<unsigned char> frame = payload(1, 200, {0, 0, 0, 1, 0x09, 0xf0, 0, 0, 0, 1, 0x67, 0x42, 0xc0, 0x1e, 0,
                                                        0, 1, 0x68, 0xce, 0x3c, 0x80, 0, 0, 1, 0x65});
    ASSERT_EQ(sink.push(frame), GST_FLOW_OK);
    InfosGetter infos;
    infos.init(INFOS_KEY);
    int width, height, fps;
    infos.getVideoInfo(0, width, height, fps);
    EXPECT_EQ(std::vector<int>({width, height, fps}), std::vector<int>({320, 240, 25}));
    EXPECT_EQ(std::vector<unsigned char>(infos.getSPS(0), infos.getSPS(0) + infos.getSPSSize(0)),
              std::vector<unsigned char>({0x67, 0x42, 0xc0, 0x1e}));
    EXPECT_EQ(std::vector<unsigned char>(infos.getPPS(0), infos.getPPS(0) + infos.getPPSSize(0)),
              std::vector<unsigned char>({0x68, 0xce, 0x3c, 0x80}));
    infos.getVideoInfo(1, width, height, fps);
    EXPECT_EQ(width + height + fps + infos.getSPSSize(1) + infos.getPPSSize(1), 0) << "another channel's profile";

    std::vector<unsigned char> next = frame;
    next[13] = 0x1f;  // the SPS's level
    ASSERT_EQ(sink.push(next), GST_FLOW_OK);
    EXPECT_EQ(infos.getSPS(0)[3], 0x1f);
}

}  // namespace
}  // namespace avpool::test
