// The plugin's elements through GstHarness: avpoolsrc against forked writers (bytes, caps, flags,
// timestamps, gaps, a writer crashing or coming back, a stop during a wait), avpoolsink into
// avpoolsrc and into the information area, what they refuse, and the README's read pipelines.

#include "ipc_harness.h"

#include <avpool/infos.h>
#include <avpool/jpg.h>
#include <avpool/mp4.h>
#include <avpool/opus.h>
#include <gst/check/gstharness.h>
#include <gst/gst.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <unistd.h>

#ifdef AVPOOL_TOOL
#include "media/h264_stream.h"
#include "media/jpeg_stream.h"
#endif

namespace avpool::test {
namespace {

struct Pulled {
    bool got = false;
    std::vector<unsigned char> bytes;
    guint64 id = 0;  // the offset
    GstClockTime pts = 0, duration = 0;
    bool discont = false, delta = false;
    std::string caps;  // the element's at the time
};

// A harness on an element or a bin of elements, with a bus of its own for what they post.
class Harness {
public:
    explicit Harness(const std::string& description, bool play = true) {
        harness_ = gst_harness_new_parse(description.c_str());  // a sink is played at once
        gst_harness_use_systemclock(harness_);
        bus_ = gst_bus_new();
        gst_element_set_bus(harness_->element, bus_);
        if (play) gst_harness_play(harness_);
    }
    ~Harness() {
        gst_harness_teardown(harness_);
        gst_object_unref(bus_);
    }
    GstHarness* get() const { return harness_; }
    GstElement* element() const { return harness_->element; }

    Pulled pull(int timeoutMs = 5000) {
        Pulled out;
        g_autoptr(GstBuffer) buffer = nullptr;
        for (gint64 end = g_get_monotonic_time() + timeoutMs * 1000LL; !buffer && g_get_monotonic_time() < end;)
            if (!(buffer = gst_harness_try_pull(harness_))) g_usleep(500);
        if (!buffer) return out;
        g_autoptr(GstCaps) caps = gst_pad_get_current_caps(harness_->sinkpad);
        g_autofree gchar* text = gst_caps_to_string(caps);  // "NULL" without caps
        out = {true, std::vector<unsigned char>(gst_buffer_get_size(buffer)), GST_BUFFER_OFFSET(buffer),
               GST_BUFFER_PTS(buffer), GST_BUFFER_DURATION(buffer),
               GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DISCONT),
               GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT), text};
        gst_buffer_extract(buffer, 0, out.bytes.data(), out.bytes.size());
        return out;
    }
    GstFlowReturn push(const std::vector<unsigned char>& bytes) {
        return gst_harness_push(harness_, gst_buffer_new_memdup(bytes.data(), bytes.size()));
    }
    GstMessage* pop(GstMessageType type, int timeoutMs = 5000) {  // the caller unrefs it
        return gst_bus_timed_pop_filtered(bus_, timeoutMs * GST_MSECOND, type);
    }
    std::string text(GstMessageType type, int timeoutMs = 5000) {  // of an error or warning; "" when none came
        g_autoptr(GstMessage) message = pop(type, timeoutMs);
        g_autoptr(GError) error = nullptr;
        if (message == nullptr) return "";
        (type == GST_MESSAGE_ERROR ? gst_message_parse_error : gst_message_parse_warning)(message, &error, nullptr);
        return error->message;
    }

private:
    GstHarness* harness_;
    GstBus* bus_;
};

// Element number id as writers put it: `size` bytes (by default 100 to 999, from id) behind an
// optional head, every byte derived from id and its position (never two zeros in a row).
std::vector<unsigned char> payload(unsigned long long id, const std::vector<unsigned char>& head = {}, size_t size = 0) {
    std::vector<unsigned char> bytes(head);
    for (size_t i = bytes.size(); i < (size ? size : 100 + (id * 37) % 900); ++i)
        bytes.push_back(static_cast<unsigned char>((id * 131 + i * 7) % 251));
    return bytes;
}

constexpr int CHANNEL = 5;
constexpr long long FRAME_US = 40000;  // capture times step by this unless told otherwise
const std::vector<unsigned char> H264_IDR = {0, 0, 0, 1, 0x65}, H264_SLICE = {0, 0, 0, 1, 0x41};

timeval stamp(long long startUs, unsigned long long id, long long stepUs = FRAME_US) {
    long long us = startUs + static_cast<long long>(id) * stepUs;
    return timeval{static_cast<time_t>(us / 1000000), static_cast<suseconds_t>(us % 1000000)};
}

// A forked JPEG writer of `slots` slots: it tells its pid, waits for go, puts frames 1..count stepUs apart
// (capture times as well) and keeps its pool until the second go.
std::unique_ptr<ForkedChild> jpegWriter(int slots, int count, long long stepUs, std::string& pid) {
    auto child = std::make_unique<ForkedChild>([=](ChildLink& link) {
        JPGPutter putter;
        putter.init(CHANNEL, slots, 4096, slots * (4096 + 64));
        putter.reset(320, 240, 25, 80);
        link.say(std::to_string(getpid()));
        if (!link.awaitGo()) return 1;
        long long start = g_get_real_time();
        for (unsigned long long id = 1; id <= static_cast<unsigned long long>(count); ++id) {
            std::vector<unsigned char> bytes = payload(id);
            putter.putFrame(bytes.data(), static_cast<int>(bytes.size()), stamp(start, id, stepUs));
            usleep(static_cast<useconds_t>(stepUs));
        }
        link.awaitGo();
        return 0;
    });
    EXPECT_TRUE(child->readLine(pid)) << "the writer did not set up its pool";
    return child;
}

struct ElementTest : ::testing::Test {
    static void SetUpTestSuite() {  // the plugin built beside this program, a registry of the program's own
        setenv("GST_PLUGIN_PATH", AVPOOL_GST_PLUGIN_DIR, 1);
        setenv("GST_REGISTRY", AVPOOL_GST_REGISTRY, 1);
        gst_init(nullptr, nullptr);
    }
    IpcKeys keys{JPG_BASE_KEY + CHANNEL, MP4_BASE_KEY + CHANNEL, MP4_BASE_KEY + CHANNEL * 16, OPUS_KEY, INFOS_KEY};
};

// Every frame as written, numbered, stamped with its capture time in running time, the pool's picture size and
// rate as caps. A writer that removed its pool is waited for with a warning and its successor followed, DISCONT
// first; one that overtakes the source gets each gap marked and posted, and no reused bytes pushed; a stop ends
// the wait for a frame. A missing, stale or foreign pool and a kind a sink cannot write are errors naming the pool.
TEST_F(ElementTest, FramesComeOutAsWrittenAcrossAComebackAndAnOvertakeAndPoolsNotToUseAreRefusedByName) {
    auto refused = [](const std::string& element, const std::string& text) {
        Harness harness(element, false);
        EXPECT_EQ(gst_element_set_state(harness.element(), GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE) << element;
        EXPECT_EQ(harness.text(GST_MESSAGE_ERROR), text);
    };
    refused("avpoolsrc kind=jpg channel=9", "No jpg pool on channel 9 (key 0x4c09)");
    refused("fakesrc ! avpoolsink kind=lum channel=5", "avpoolsink does not write lum pools");
    std::string pid;
    auto writer = jpegWriter(5, 30, 20000, pid);
    refused("fakesrc ! avpoolsink kind=jpg channel=5", "The jpg pool on channel 5 is in use by process " + pid);
    Harness harness("avpoolsrc kind=jpg channel=5 ! identity sleep-time=10000");
    // count frames from `frame` on, as written and DISCONT where they start or follow a gap, the gaps counted.
    int gaps = 0;
    auto follow = [&](Pulled frame, int count, long long stepUs) {
        Pulled start = frame, last = frame;
        for (int i = 0; i < count; ++i, last = frame, frame = harness.pull()) {
            ASSERT_TRUE(frame.got) << "no buffer after " << last.id;
            EXPECT_TRUE(i == 0 || frame.id > last.id);
            EXPECT_EQ(frame.discont, i == 0 || frame.id != last.id + 1) << frame.id << " after " << last.id;
            gaps += i > 0 && frame.discont;
            EXPECT_NEAR(static_cast<double>(GST_CLOCK_DIFF(start.pts, frame.pts)),
                        static_cast<double>((frame.id - start.id) * stepUs * 1000), 2e6);
            EXPECT_EQ(frame.duration, 40 * GST_MSECOND);
            EXPECT_EQ(frame.bytes, payload(frame.id)) << "frame " << frame.id;
        }
    };
    usleep(50000);  // the source is attached and waits for the first frame
    writer->go();
    Pulled frame = harness.pull();
    EXPECT_EQ(frame.caps, "image/jpeg, width=(int)320, height=(int)240, framerate=(fraction)25/1");
    follow(frame, 20, 20000);
    EXPECT_EQ(gaps, 0);
    writer->go();
    EXPECT_TRUE(writer->wait().ok());
    EXPECT_EQ(harness.text(GST_MESSAGE_WARNING), "The writer of the jpg pool on channel 5 went away; waiting for it");

    writer = jpegWriter(3, 300, 1000, pid);
    writer->go();
    while ((frame = harness.pull()).got && !frame.discont) {  // the first writer's last frames
    }
    follow(frame, 10, 1000);
    EXPECT_GT(gaps, 0);
    g_autoptr(GstMessage) gap = harness.pop(GST_MESSAGE_ELEMENT, 1000);
    ASSERT_NE(gap, nullptr);
    const GstStructure* s = gst_message_get_structure(gap);
    guint64 lost = 0, resumed = 0;
    EXPECT_TRUE(gst_structure_has_name(s, "avpool-gap") && gst_structure_get_uint64(s, "first-lost", &lost) &&
                gst_structure_get_uint64(s, "resumed-at", &resumed) && lost < resumed);
    std::string what = std::string(gst_structure_get_string(s, "kind")) + " " + gst_structure_get_string(s, "reason");
    EXPECT_TRUE(what == "jpg missed" || what == "jpg overwritten" || what == "jpg age too old") << what;
    while (harness.pull(300).got) {  // until the source waits for a frame that never comes
    }
    gint64 start = g_get_monotonic_time();
    EXPECT_EQ(gst_element_set_state(harness.element(), GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
    EXPECT_LT(g_get_monotonic_time() - start, 500000) << "the stop waited for the writer";
    writer->signal(SIGKILL);  // a crash leaves the pool behind
    writer->wait();
    refused("avpoolsrc kind=jpg channel=5", "The jpg pool on channel 5 is stale: its creator " + pid + " is gone");
}

// Started on a pool whose writer is in the middle of a GOP, the source begins with that GOP's
// I frame, captured before it started: the stream begins at 0, the frames' spacing kept.
TEST_F(ElementTest, VideoStartsOnTheIFrameOfTheGopBeingWrittenWithH264Caps) {
    long long start = g_get_real_time() - 1000000;
    ForkedChild writer([&](ChildLink& link) {
        MP4Putter putter;
        putter.init(CHANNEL, 4, 6, 4096, 24 * (52 + 4096 + 16));
        putter.reset(640, 480, 30);
        for (unsigned long long id = 1; id <= 12; ++id) {  // GOPs of four frames
            if (id == 7 && (link.say("ready"), !link.awaitGo())) return 1;  // GOP 2 half written
            std::vector<unsigned char> bytes = payload(id, id % 4 == 1 ? H264_IDR : H264_SLICE);
            if (id % 4 == 1) putter.putIFrame(bytes.data(), static_cast<int>(bytes.size()), stamp(start, id));
            if (id % 4 != 1) putter.putPFrame(bytes.data(), static_cast<int>(bytes.size()), stamp(start, id));
        }
        link.awaitGo();
        return 0;
    });
    std::string line;
    ASSERT_TRUE(writer.readLine(line));
    Harness harness("avpoolsrc kind=mp4 channel=5", false);
    gst_element_set_base_time(harness.element(), g_get_monotonic_time() * 1000);  // as a pipeline starting now
    gst_harness_play(harness.get());
    for (guint64 id = 5; id <= 12; ++id) {
        if (id == 7) writer.go();
        Pulled frame = harness.pull();
        ASSERT_TRUE(frame.got) << "no frame " << id;
        bool key = id % 4 == 1;
        EXPECT_EQ(frame.id, id);
        EXPECT_EQ(frame.delta, !key) << "frame " << id;
        EXPECT_NEAR(static_cast<double>(frame.pts), static_cast<double>((id - 5) * FRAME_US * 1000), 2e6);
        EXPECT_EQ(frame.bytes, payload(id, key ? H264_IDR : H264_SLICE));
        EXPECT_EQ(frame.caps, "video/x-h264, stream-format=(string)byte-stream, alignment=(string)au, "
                              "width=(int)640, height=(int)480, framerate=(fraction)30/1");
    }
    writer.go();
    EXPECT_TRUE(writer.wait().ok());
}

struct RoundTrip {
    const char *name, *pool, *caps;
    size_t size, step;  // of element id: size + id * step
    std::vector<unsigned char> head;
};

void PrintTo(const RoundTrip& trip, std::ostream* out) { *out << trip.name; }

class RoundTripTest : public ElementTest, public ::testing::WithParamInterface<RoundTrip> {};

// What goes into avpoolsink comes out of avpoolsrc byte for byte, from the element that was newest
// when the source started on (audio is always copied).
TEST_P(RoundTripTest, ElementsComeOutOfTheSourceAsTheyWentIntoTheSink) {
    const RoundTrip& trip = GetParam();
    Harness sink(std::string("avpoolsink sync=false ") + trip.pool);
    gst_harness_set_src_caps_str(sink.get(), trip.caps);
    auto element = [&](unsigned long long id) { return payload(id, trip.head, trip.size + id * trip.step); };
    ASSERT_EQ(sink.push(element(1)), GST_FLOW_OK);
    Harness source(std::string("avpoolsrc zero-copy=true ") + trip.pool);
    for (unsigned long long id = 1; id <= 8; ++id) {
        ASSERT_EQ(id == 1 ? GST_FLOW_OK : sink.push(element(id)), GST_FLOW_OK);
        EXPECT_EQ(source.pull().bytes, element(id)) << "element " << id;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, RoundTripTest,
    ::testing::Values(
        RoundTrip{"Jpg", "kind=jpg channel=5", "image/jpeg, width=(int)64, height=(int)48, framerate=(fraction)30/1",
                  500, 101, {0xFF, 0xD8, 0xFF}},
        RoundTrip{"Mp4", "kind=mp4 channel=5", "video/x-h264, stream-format=(string)byte-stream, alignment=(string)au, "
                  "width=(int)64, height=(int)48, framerate=(fraction)30/1", 800, 33, {0, 0, 0, 1, 0x65}},
        RoundTrip{"Opus", "kind=opus", "audio/x-opus, channel-mapping-family=(int)0, channels=(int)2, rate=(int)48000",
                  40, 50, {}}),
    [](const ::testing::TestParamInfo<RoundTrip>& info) { return info.param.name; });

// The profiles the encoder announced on the sink's channel get the caps' picture size and rate and
// the I frames' SPS and PPS (without start codes), renewed when they change; others stay as they are.
TEST_F(ElementTest, VideoTellsTheProfilesOfItsChannelItsSizeRateAndParameterSets) {
    InfosPutter encoder;
    encoder.init(INFOS_KEY);
    encoder.putSizeofPools(2);
    encoder.putInfo(0, 2, CHANNEL, 0);
    encoder.putInfo(1, 2, CHANNEL + 1, 0);
    Harness sink("avpoolsink kind=mp4 channel=5 sync=false");
    gst_harness_set_src_caps_str(sink.get(), "video/x-h264, stream-format=(string)byte-stream, alignment=(string)au, "
                                             "width=(int)320, height=(int)240, framerate=(fraction)25/1");
    // A delimiter, an SPS, a PPS and an IDR slice.
    std::vector<unsigned char> frame = payload(1, {0, 0, 0, 1, 0x09, 0xf0, 0, 0, 0, 1, 0x67, 0x42, 0xc0, 0x1e, 0, 0, 1,
                                                   0x68, 0xce, 0x3c, 0x80, 0, 0, 1, 0x65});
    ASSERT_EQ(sink.push(frame), GST_FLOW_OK);
    InfosGetter infos;
    infos.init(INFOS_KEY);
    int width, height, fps;
    infos.getVideoInfo(0, width, height, fps);
    EXPECT_EQ(std::vector<int>({width, height, fps}), std::vector<int>({320, 240, 25}));
    using Bytes = std::vector<unsigned char>;
    EXPECT_EQ(Bytes(infos.getSPS(0), infos.getSPS(0) + infos.getSPSSize(0)), Bytes({0x67, 0x42, 0xc0, 0x1e}));
    EXPECT_EQ(Bytes(infos.getPPS(0), infos.getPPS(0) + infos.getPPSSize(0)), Bytes({0x68, 0xce, 0x3c, 0x80}));
    infos.getVideoInfo(1, width, height, fps);
    EXPECT_EQ(width + height + fps + infos.getSPSSize(1) + infos.getPPSSize(1), 0) << "another channel's profile";
    frame[13] = 0x1f;  // the SPS's level
    ASSERT_EQ(sink.push(frame), GST_FLOW_OK);
    EXPECT_EQ(infos.getSPS(0)[3], 0x1f);
}

#ifdef AVPOOL_TOOL

struct Put {
    const char *kind, *file, *check;  // check: the element that must take every buffer
    key_t segment, locks;
};

void PrintTo(const Put& put, std::ostream* out) { *out << put.kind; }

class PutTest : public ElementTest, public ::testing::WithParamInterface<Put> {};

TEST_P(PutTest, ElementsPutByTheToolComeOutOfTheSourceByteIdentical) {
    const Put& put = GetParam();
    std::string dir = std::string(AVPOOL_GST_MEDIA_DIR) + "/" + put.kind, path = dir + "/" + put.file;
    if (system(("sh " AVPOOL_MEDIA_SCRIPT " " + dir + " video >/dev/null").c_str()) != 0)
        GTEST_SKIP() << "no test media: ffmpeg with an H.264 encoder is needed";
    if (GstElementFactory* check = gst_element_factory_find(put.check)) gst_object_unref(check);
    else GTEST_SKIP() << put.check << " missing";
    std::ifstream in(path, std::ios::binary);
    std::vector<unsigned char> file{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    std::vector<std::pair<std::vector<unsigned char>, bool>> units;  // the file's elements: bytes, key
    auto add = [&](size_t offset, size_t length, bool key) {
        units.emplace_back(std::vector<unsigned char>(&file[offset], &file[offset] + length), key);
    };
    if (std::string(put.kind) == "jpg")
        for (const auto& p : media::splitMjpeg(file.data(), file.size())) add(p.offset, p.length, true);
    else
        for (const auto& u : media::splitH264(file.data(), file.size()).units) add(u.offset, u.length, u.idr);
    ForkedChild tool([&](ChildLink&) {
        execl(AVPOOL_TOOL, "avpool", "put", put.kind, "5", path.c_str(), "--loop", "--fps", "100",
              static_cast<char*>(nullptr));
        return 127;
    });
    ASSERT_TRUE(eventually([&] { return shmIdOf(put.segment) != -1 && semIdOf(put.locks) != -1; }, 5000));
    Harness harness(std::string("avpoolsrc kind=") + put.kind + " channel=5 ! tee name=t ! queue ! " + put.check +
                    " ! fakesink t. ! queue");
    // The first buffer is a key element of the file, the others follow it round the looped file.
    size_t at = 0;
    for (int i = 0; i < 25; ++i, at = (at + 1) % units.size()) {
        Pulled got = harness.pull();
        ASSERT_TRUE(got.got) << "no buffer " << i;
        while (i == 0 && at < units.size() && units[at].first != got.bytes) ++at;
        ASSERT_LT(at, units.size()) << "the first buffer is none of the file's elements";
        EXPECT_EQ(got.bytes, units[at].first) << "buffer " << i << " is not element " << at;
        EXPECT_TRUE(units[at].second || i > 0) << "the source started on element " << at;
        EXPECT_EQ(got.delta, !units[at].second) << "element " << at;
    }
    EXPECT_EQ(harness.text(GST_MESSAGE_ERROR, 0), "") << "the decoder or parser refused a buffer";
    tool.signal(SIGTERM);
    EXPECT_TRUE(tool.wait(5000).ok());
}

INSTANTIATE_TEST_SUITE_P(Kinds, PutTest,
                         ::testing::Values(Put{"jpg", "camera.mjpeg", "jpegdec", JPG_BASE_KEY + 5, JPG_BASE_KEY + 5},
                                           Put{"mp4", "camera.h264", "h264parse", MP4_BASE_KEY + 5, MP4_BASE_KEY + 80}),
                         [](const ::testing::TestParamInfo<Put>& info) { return std::string(info.param.kind); });

#endif

}  // namespace
}  // namespace avpool::test
