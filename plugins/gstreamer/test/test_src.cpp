// avpoolsrc against pools written by forked writers: the bytes, caps, flags and
// timestamps it pushes, its gaps when overtaken, a writer going and coming
// back, and a stop that ends its wait.

#include "gst_support.h"
#include "ipc_harness.h"

#include <avpool/jpg.h>
#include <avpool/mp4.h>

#include <unistd.h>

namespace avpool::test {
namespace {

constexpr int CHANNEL = 5;
constexpr long long FRAME_US = 40000;  // the writers' capture times step by this
const std::vector<unsigned char> H264_IDR = {0, 0, 0, 1, 0x65};
const std::vector<unsigned char> H264_SLICE = {0, 0, 0, 1, 0x41};

size_t sizeOf(unsigned long long id) {
    return 100 + (id * 37) % 900;
}

timeval stamp(long long startUs, unsigned long long id, long long stepUs = FRAME_US) {
    long long us = startUs + static_cast<long long>(id) * stepUs;
    return timeval{static_cast<time_t>(us / 1000000), static_cast<suseconds_t>(us % 1000000)};
}

// A forked JPEG writer of `slots` slots: it says "ready", waits for go, puts
// frames 1..count pausing pauseUs between (capture times stepUs apart), says
// "done" and keeps its pool until the parent's second go.
std::unique_ptr<ForkedChild> jpegWriter(int slots, int count, int pauseUs, long long stepUs = FRAME_US) {
    auto child = std::make_unique<ForkedChild>([=](ChildLink& link) {
        JPGPutter putter;
        putter.init(CHANNEL, slots, 4096, slots * (4096 + 64));
        putter.reset(320, 240, 25, 80);
        link.say("ready");
        if (!link.awaitGo()) return 1;
        long long start = g_get_real_time();
        for (unsigned long long id = 1; id <= static_cast<unsigned long long>(count); ++id) {
            std::vector<unsigned char> bytes = payload(id, sizeOf(id));
            putter.putFrame(bytes.data(), static_cast<int>(bytes.size()), stamp(start, id, stepUs));
            usleep(static_cast<useconds_t>(pauseUs));
        }
        link.say("done");
        link.awaitGo();
        return 0;
    });
    std::string line;
    EXPECT_TRUE(child->readLine(line) && line == "ready") << "the writer did not set up its pool";
    return child;
}

class SourceTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { initGst(); }
    IpcKeys keys{JPG_BASE_KEY + CHANNEL, MP4_BASE_KEY + CHANNEL, MP4_BASE_KEY + CHANNEL * 16};
};

TEST_F(SourceTest, AMissingPoolIsAnErrorThatNamesIt) {
    Pipeline missing("avpoolsrc kind=jpg channel=9 ! fakesink");
    missing.play();
    EXPECT_EQ(errorText(missing.pop(GST_MESSAGE_ERROR, 5000)), "No jpg pool on channel 9 (key 0x4c09)");
}

class JpegSourceTest : public SourceTest, public ::testing::WithParamInterface<bool> {};

// Every frame as the writer put it, numbered, stamped with its capture time in
// running time, with the pool's picture size and rate as caps; with and
// without zero-copy.
TEST_P(JpegSourceTest, FramesComeOutByteIdenticalInOrderWithTheirCaptureTimes) {
    auto writer = jpegWriter(5, 30, 3000);
    Harness harness(std::string("avpoolsrc kind=jpg channel=5 zero-copy=") + (GetParam() ? "true" : "false"));
    gst_harness_play(harness.get());
    usleep(50000);  // the source is attached and waits for the first frame
    writer->go();
    GstClockTime firstPts = 0;
    guint64 firstId = 0;
    for (int i = 0; i < 20; ++i) {
        GstBuffer* buffer = harness.pull();
        ASSERT_NE(buffer, nullptr) << "no buffer " << i;
        guint64 id = GST_BUFFER_OFFSET(buffer);
        if (i == 0) {
            firstId = id;
            firstPts = GST_BUFFER_PTS(buffer);
            EXPECT_EQ(harness.caps(), "image/jpeg, width=(int)320, height=(int)240, framerate=(fraction)25/1");
        }
        EXPECT_EQ(id, firstId + static_cast<guint64>(i));
        EXPECT_EQ(GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DISCONT), i == 0) << "buffer " << i;
        EXPECT_NEAR(static_cast<double>(GST_CLOCK_DIFF(firstPts, GST_BUFFER_PTS(buffer))),
                    static_cast<double>((id - firstId) * FRAME_US * 1000), 2e6);
        EXPECT_EQ(GST_BUFFER_DURATION(buffer), 40 * GST_MSECOND);
        EXPECT_EQ(bytesOf(buffer), payload(id, sizeOf(id))) << "frame " << id;
        gst_buffer_unref(buffer);
    }
    writer->go();
    EXPECT_TRUE(writer->wait().ok());
}

INSTANTIATE_TEST_SUITE_P(CopyAndZeroCopy, JpegSourceTest, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& info) { return info.param ? "ZeroCopy" : "Copy"; });

// The source is started on a pool whose writer is in the middle of a GOP: it
// begins with that GOP's I frame and goes on frame by frame. The I frame was
// captured before the source started: the stream begins at 0, the frames'
// spacing kept.
TEST_F(SourceTest, VideoStartsOnTheIFrameOfTheGopBeingWrittenWithH264Caps) {
    long long start = g_get_real_time() - 1000000;
    auto put = [start](MP4Putter& putter, unsigned long long id) {
        bool key = id % 4 == 1;  // GOPs of four frames
        std::vector<unsigned char> bytes = payload(id, sizeOf(id), key ? H264_IDR : H264_SLICE);
        if (key) putter.putIFrame(bytes.data(), static_cast<int>(bytes.size()), stamp(start, id));
        if (!key) putter.putPFrame(bytes.data(), static_cast<int>(bytes.size()), stamp(start, id));
    };
    ForkedChild writer([&](ChildLink& link) {
        MP4Putter putter;
        putter.init(CHANNEL, 4, 6, 4096, 24 * (52 + 4096 + 16));
        putter.reset(640, 480, 30);
        for (unsigned long long id = 1; id <= 6; ++id) put(putter, id);  // GOP 1 and half of GOP 2
        link.say("ready");
        if (!link.awaitGo()) return 1;
        for (unsigned long long id = 7; id <= 12; ++id) put(putter, id);
        link.awaitGo();
        return 0;
    });
    std::string line;
    ASSERT_TRUE(writer.readLine(line));
    Harness harness("avpoolsrc kind=mp4 channel=5");
    GstClock* clock = gst_system_clock_obtain();
    gst_element_set_base_time(harness.element(), gst_clock_get_time(clock));  // as a pipeline starting now
    gst_object_unref(clock);
    gst_harness_play(harness.get());
    for (guint64 id = 5; id <= 12; ++id) {
        if (id == 7) writer.go();
        GstBuffer* buffer = harness.pull();
        ASSERT_NE(buffer, nullptr) << "no frame " << id;
        bool key = id % 4 == 1;
        EXPECT_EQ(GST_BUFFER_OFFSET(buffer), id);
        EXPECT_EQ(GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT), !key) << "frame " << id;
        EXPECT_NEAR(static_cast<double>(GST_BUFFER_PTS(buffer)), static_cast<double>((id - 5) * FRAME_US * 1000), 2e6);
        EXPECT_EQ(bytesOf(buffer), payload(id, sizeOf(id), key ? H264_IDR : H264_SLICE));
        EXPECT_EQ(harness.caps(),
                  "video/x-h264, stream-format=(string)byte-stream, alignment=(string)au, width=(int)640, "
                  "height=(int)480, framerate=(fraction)30/1");
        gst_buffer_unref(buffer);
    }
    writer.go();
    EXPECT_TRUE(writer.wait().ok());
}

// A consumer slower than the writer of a small pool: the source goes on from
// where the writer is, marks the first buffer after each gap DISCONT, posts
// what it lost, and never pushes bytes the writer had already reused.
TEST_F(SourceTest, AnOvertakenSourceMarksTheGapReportsItAndPushesOnlyIntactFrames) {
    REQUIRE_ELEMENTS("identity", "appsink");
    auto writer = jpegWriter(3, 400, 2000, 2000);
    Pipeline pipeline("avpoolsrc kind=jpg channel=5 ! identity sleep-time=20000 ! appsink name=out sync=false");
    ASSERT_NE(pipeline.play(), GST_STATE_CHANGE_FAILURE);
    writer->go();
    int gaps = 0;
    guint64 last = 0;
    for (int i = 0; i < 10; ++i) {
        GstBuffer* buffer = pipeline.pullFrom("out");
        ASSERT_NE(buffer, nullptr) << "no buffer " << i;
        guint64 id = GST_BUFFER_OFFSET(buffer);
        EXPECT_GT(id, last);
        bool discont = GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DISCONT);
        EXPECT_TRUE(i == 0 || discont == (id != last + 1)) << "frame " << id << " after " << last;
        gaps += i > 0 && discont;
        EXPECT_EQ(bytesOf(buffer), payload(id, sizeOf(id))) << "frame " << id;
        last = id;
        gst_buffer_unref(buffer);
    }
    EXPECT_GT(gaps, 0);
    GstMessage* gap = pipeline.pop(GST_MESSAGE_ELEMENT, 1000);
    ASSERT_NE(gap, nullptr);
    const GstStructure* s = gst_message_get_structure(gap);
    guint64 firstLost = 0, resumedAt = 0;
    EXPECT_TRUE(gst_structure_has_name(s, "avpool-gap") && gst_structure_get_uint64(s, "first-lost", &firstLost) &&
                gst_structure_get_uint64(s, "resumed-at", &resumedAt));
    EXPECT_LT(firstLost, resumedAt);
    std::string reason = gst_structure_get_string(s, "reason");
    EXPECT_TRUE(reason == "missed" || reason == "overwritten" || reason == "age too old") << reason;
    EXPECT_STREQ(gst_structure_get_string(s, "kind"), "jpg");
    gst_message_unref(gap);
    writer->go();
    EXPECT_TRUE(writer->wait(10000).ok());
}

// The writer removes its pool and a new one creates it again: the source
// waits, says so, and goes on with the new writer's frames, DISCONT first.
// Stopping it while it waits for a frame ends the wait at once.
TEST_F(SourceTest, WhenTheWriterComesBackTheSourceFollowsTheNewPoolAndAStopEndsItsWait) {
    Harness harness("avpoolsrc kind=jpg channel=5");
    {
        auto first = jpegWriter(4, 1, 0);
        gst_harness_play(harness.get());
        first->go();
        GstBuffer* buffer = harness.pull();
        ASSERT_NE(buffer, nullptr);
        gst_buffer_unref(buffer);
        first->go();
        EXPECT_TRUE(first->wait().ok());
    }
    GstMessage* warning = gst_bus_timed_pop_filtered(harness.bus(), 5 * GST_SECOND, GST_MESSAGE_WARNING);
    ASSERT_NE(warning, nullptr);
    GError* error = nullptr;
    gst_message_parse_warning(warning, &error, nullptr);
    EXPECT_STREQ(error->message, "The writer of the jpg pool on channel 5 went away; waiting for it");
    g_error_free(error);
    gst_message_unref(warning);

    auto second = jpegWriter(4, 1, 0);
    second->go();
    GstBuffer* buffer = harness.pull();
    ASSERT_NE(buffer, nullptr);
    EXPECT_TRUE(GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DISCONT));
    EXPECT_EQ(bytesOf(buffer), payload(1, sizeOf(1)));
    gst_buffer_unref(buffer);
    usleep(100000);  // waiting for frame 2, which never comes
    gint64 start = g_get_monotonic_time();
    EXPECT_EQ(gst_element_set_state(harness.element(), GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
    EXPECT_LT(g_get_monotonic_time() - start, 500000) << "the stop waited for the writer";
    second->go();
    EXPECT_TRUE(second->wait().ok());
}

}  // namespace
}  // namespace avpool::test
