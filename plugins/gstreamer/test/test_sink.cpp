// avpoolsink through GstHarness: the pool it creates as the getters see it,
// what it refuses, and a round trip into avpoolsrc in the same process.

#include "gst_support.h"
#include "ipc_harness.h"

#include <avpool/aac.h>
#include <avpool/jpg.h>
#include <avpool/mp4.h>
#include <avpool/opus.h>
#include <avpool/pcm.h>

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <unistd.h>

namespace avpool::test {
namespace {

constexpr int CHANNEL = 6;

class SinkTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { initGst(); }

    IpcKeys keys{JPG_BASE_KEY + CHANNEL, MP4_BASE_KEY + CHANNEL, MP4_BASE_KEY + CHANNEL * 16, PCM_KEY,
                 AAC_BASE_KEY + CHANNEL, AAC_BASE_KEY + CHANNEL * 16, OPUS_KEY};
};

// A sink harness that renders at once (no clock waits).
struct SinkHarness : Harness {
    SinkHarness(const std::string& description, const char* caps) : Harness(description) {
        g_object_set(element(), "sync", FALSE, nullptr);
        gst_harness_set_src_caps_str(get(), caps);
    }

    GstFlowReturn push(const std::vector<unsigned char>& bytes, bool key = true,
                       GstClockTime pts = GST_CLOCK_TIME_NONE) {
        GstBuffer* buffer = gst_buffer_new_memdup(bytes.data(), bytes.size());
        if (!key) GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
        GST_BUFFER_PTS(buffer) = pts;
        return gst_harness_push(get(), buffer);
    }

    std::string firstWarning() {
        GstMessage* message = gst_bus_pop_filtered(bus(), GST_MESSAGE_WARNING);
        if (message == nullptr) return "";
        GError* error = nullptr;
        gst_message_parse_warning(message, &error, nullptr);
        std::string text = error->message;
        g_error_free(error);
        gst_message_unref(message);
        return text;
    }
};

TEST_F(SinkTest, JpegPicturesGoIntoAPoolWithTheCapsPictureSize) {
    SinkHarness sink("avpoolsink kind=jpg channel=6 slots=4 max-frame-size=2000",
                     "image/jpeg, width=(int)640, height=(int)360, framerate=(fraction)15/1");
    for (unsigned long long id = 1; id <= 3; ++id) ASSERT_EQ(sink.push(payload(id, 300 * id)), GST_FLOW_OK);
    ASSERT_EQ(sink.push(payload(4, 2001)), GST_FLOW_OK);  // too long: dropped, the stream goes on
    EXPECT_EQ(sink.firstWarning(),
              "Element of 2001 bytes dropped: longer than the pool's largest frame (max-frame-size)");

    JPGGetter getter;
    getter.init(CHANNEL);
    EXPECT_EQ(getter.getWorkingWidth(), 640);
    EXPECT_EQ(getter.getWorkingHeight(), 360);
    EXPECT_EQ(getter.getWorkingFPS(), 15);
    int safe = 0;
    EXPECT_EQ(getter.toWorking(safe), 3u);
    getter.getFrame();
    EXPECT_EQ(std::vector<unsigned char>(getter.frame.data, getter.frame.data + getter.frame.frameLength),
              payload(3, 900));
    EXPECT_EQ(getter.frame.quality, 80);
    long long age = usOf(nowTv()) - (static_cast<long long>(getter.frame.tv_sec) * 1000000 + getter.frame.tv_usec);
    EXPECT_LT(std::llabs(age), 2000000) << "captured now";
}

TEST_F(SinkTest, VideoGopsStartAtKeyFramesAndKeepWithinTheirSlots) {
    SinkHarness sink("avpoolsink kind=mp4 channel=6 slots=3 gop-frames=3 max-frame-size=1000",
                     "video/x-h264, stream-format=(string)byte-stream, alignment=(string)au, width=(int)320, "
                     "height=(int)240, framerate=(fraction)25/1");
    // A P frame before the first I frame, a GOP one frame too long, an I
    // frame too long (its P frames go with it), then a good GOP.
    sink.push(payload(90, 50), false);
    EXPECT_EQ(sink.firstWarning(), "Element of 50 bytes dropped: a P frame without its I frame");
    for (unsigned long long id = 1; id <= 4; ++id) sink.push(payload(id, 100 + id), id == 1);
    sink.push(payload(91, 1001), true);
    sink.push(payload(92, 60), false);
    sink.push(payload(5, 200), true);
    sink.push(payload(6, 201), false);

    MP4Getter getter;
    getter.init(CHANNEL);
    EXPECT_EQ(getter.getWorkingWidth(), 320);
    EXPECT_EQ(getter.getWorkingFPS(), 25);
    int safe = 0;
    EXPECT_EQ(getter.toWorkingGop(safe), 2u);  // the second GOP: the long I frame made none
    ASSERT_EQ(getter.getFrameData(0), 4u);
    EXPECT_EQ(std::vector<unsigned char>(getter.frameData, getter.frameData + getter.frameLength), payload(5, 200));
    ASSERT_EQ(getter.getFrameData(1), 5u);
    EXPECT_EQ(std::vector<unsigned char>(getter.frameData, getter.frameData + getter.frameLength), payload(6, 201));
    getter.toNextGop(safe);  // never written: the first GOP went to the ring's second place
    EXPECT_EQ(getter.toNextGop(safe), 1u);
    for (int k = 0; k < 3; ++k) {
        ASSERT_EQ(getter.getFrameData(k), static_cast<unsigned long long>(k + 1));
        EXPECT_EQ(std::vector<unsigned char>(getter.frameData, getter.frameData + getter.frameLength),
                  payload(static_cast<unsigned long long>(k + 1), static_cast<size_t>(101 + k)));
    }
}

TEST_F(SinkTest, SamplesAreGatheredIntoFragmentsAndTheLastIsCompletedWithSilence) {
    SinkHarness sink("avpoolsink kind=pcm",
                     "audio/x-raw, format=(string)S16LE, layout=(string)interleaved, rate=(int)8000, channels=(int)1");
    std::vector<unsigned char> samples = payload(1, 3000);
    // 1000 bytes are 62.5 ms of 16-bit mono at 8 kHz.
    sink.push(std::vector<unsigned char>(samples.begin(), samples.begin() + 1000), true, 0);
    sink.push(std::vector<unsigned char>(samples.begin() + 1000, samples.end()), true, 62500 * GST_USECOND);
    PCMGetter getter;
    getter.init();
    int safe = 0;
    EXPECT_EQ(getter.toWorking(safe), 1u);  // the second fragment waits for more samples
    ASSERT_TRUE(gst_harness_push_event(sink.get(), gst_event_new_eos()));
    ASSERT_EQ(getter.toWorking(safe), 2u);
    getter.getFragment();
    std::vector<unsigned char> last(samples.begin() + PCM_FRAGMENT_SIZE, samples.end());
    last.resize(PCM_FRAGMENT_SIZE, 0);
    EXPECT_EQ(std::vector<unsigned char>(getter.fragment.data, getter.fragment.data + getter.fragment.length), last);
    EXPECT_EQ(getter.getWorkingFormat(), 16);
    EXPECT_EQ(getter.getWorkingRate(), 8000);
    EXPECT_EQ(getter.getWorkingChannels(), 1);
    getter.toOldestWorking(safe, 1);
    getter.getFragment();
    EXPECT_EQ(getter.getFragmentID(), 1u);
    EXPECT_EQ(std::vector<unsigned char>(getter.fragment.data, getter.fragment.data + getter.fragment.length),
              std::vector<unsigned char>(samples.begin(), samples.begin() + PCM_FRAGMENT_SIZE));
    // The second fragment starts 2048 bytes, 128 ms, after the first.
    long long first = usOf(getter.fragment.timestamp);
    getter.toWorking(safe);
    getter.getFragment();
    EXPECT_NEAR(static_cast<double>(usOf(getter.fragment.timestamp) - first), 128000.0, 1000.0);
}

TEST_F(SinkTest, AacTakesAdtsFramesWithTheirObjectTypeAsStreamParameter) {
    SinkHarness sink("avpoolsink kind=aac channel=6",
                     "audio/mpeg, mpegversion=(int)4, stream-format=(string)adts, rate=(int)44100, channels=(int)2");
    std::vector<unsigned char> frame = payload(1, 300, {0xFF, 0xF1, 0x50, 0x80, 0x25, 0x9F, 0xFC});
    sink.push(frame);
    AACGetter getter;
    getter.init(CHANNEL);
    int safe = 0;
    ASSERT_EQ(getter.toWorking(safe), 1u);
    getter.getFragment();
    EXPECT_EQ(getter.fragment.streamParam, 2);  // AAC LC
    EXPECT_EQ(getter.fragment.rate, 44100);
    EXPECT_EQ(getter.fragment.channels, 2);
    EXPECT_EQ(std::vector<unsigned char>(getter.fragment.data, getter.fragment.data + getter.fragment.length), frame);
}

TEST_F(SinkTest, APoolOfARunningWriterIsNotTakenOver) {
    ForkedChild writer([](ChildLink& link) {
        JPGPutter putter;
        putter.init(CHANNEL, 3, 1024, 4096);
        link.say("ready");
        link.awaitGo();
        return 0;
    });
    std::string line;
    ASSERT_TRUE(writer.readLine(line));
    Pipeline pipeline("fakesrc num-buffers=1 ! avpoolsink kind=jpg channel=6");
    pipeline.play();
    GstMessage* error = pipeline.pop(GST_MESSAGE_ERROR, 5000);
    EXPECT_EQ(errorText(error), "The jpg pool on channel 6 is in use by process " + std::to_string(writer.pid()));
    if (error != nullptr) gst_message_unref(error);
    writer.go();
    EXPECT_TRUE(writer.wait().ok());
}

TEST_F(SinkTest, LuminancePoolsAreOnlyRead) {
    Pipeline pipeline("fakesrc num-buffers=1 ! avpoolsink kind=lum channel=6");
    pipeline.play();
    GstMessage* error = pipeline.pop(GST_MESSAGE_ERROR, 5000);
    EXPECT_EQ(errorText(error), "avpoolsink does not write lum pools");
    if (error != nullptr) gst_message_unref(error);
}

struct RoundTrip {
    const char* name;
    const char* sink;
    const char* source;
    const char* caps;
    size_t (*size)(unsigned long long id);
    std::vector<unsigned char> head;
};

void PrintTo(const RoundTrip& trip, std::ostream* out) {
    *out << trip.name;
}

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

}  // namespace
}  // namespace avpool::test
