// avpoolsrc against pools written by forked writer processes: the bytes, caps,
// flags and timestamps of what it pushes, what it does when it is overtaken,
// when the writer goes and comes back, and that a stop ends its waits.

#include "gst_support.h"
#include "ipc_harness.h"

#include <avpool/aac.h>
#include <avpool/jpg.h>
#include <avpool/lum.h>
#include <avpool/mp4.h>
#include <avpool/opus.h>
#include <avpool/pcm.h>

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <functional>
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

// Element id of a writer: capture times stepUs apart from when it started.
struct Stamps {
    long long startUs = usOf(nowTv());
    long long stepUs = FRAME_US;
    timeval at(unsigned long long id) const {
        long long us = startUs + static_cast<long long>(id) * stepUs;
        return timeval{static_cast<time_t>(us / 1000000), static_cast<suseconds_t>(us % 1000000)};
    }
};

// A forked writer: set up creates the pool, then the child says "ready",
// waits for go, calls put(id) for ids 1..count pausing pauseUs between, says
// "done" and keeps its pool until the parent's second go (or its end).
template <class Putter>
std::unique_ptr<ForkedChild> startWriter(std::function<void(Putter&)> setUp,
                                         std::function<void(Putter&, unsigned long long)> put, int count,
                                         int pauseUs) {
    auto child = std::make_unique<ForkedChild>([=](ChildLink& link) {
        Putter putter;
        setUp(putter);
        link.say("ready");
        if (!link.awaitGo()) return 1;
        for (int id = 1; id <= count; ++id) {
            put(putter, static_cast<unsigned long long>(id));
            if (pauseUs > 0) usleep(static_cast<useconds_t>(pauseUs));
        }
        link.say("done");
        link.awaitGo();
        return 0;
    });
    std::string line;
    EXPECT_TRUE(child->readLine(line)) << "the writer did not set up its pool";
    EXPECT_EQ(line, "ready");
    return child;
}

void putJpeg(JPGPutter& putter, unsigned long long id, const Stamps& stamps) {
    std::vector<unsigned char> bytes = payload(id, sizeOf(id));
    putter.putFrame(bytes.data(), static_cast<int>(bytes.size()), stamps.at(id));
}

std::unique_ptr<ForkedChild> jpegWriter(int slots, int count, int pauseUs, long long stepUs = FRAME_US) {
    Stamps stamps;
    stamps.stepUs = stepUs;
    return startWriter<JPGPutter>(
        [slots](JPGPutter& putter) {
            putter.init(CHANNEL, slots, 4096, slots * (4096 + 64));
            putter.reset(320, 240, 25, 80);
        },
        [stamps](JPGPutter& putter, unsigned long long id) { putJpeg(putter, id, stamps); }, count, pauseUs);
}

std::string capsText(GstCaps* caps) {
    if (caps == nullptr) return "(none)";
    gchar* text = gst_caps_to_string(caps);
    std::string result = text;
    g_free(text);
    gst_caps_unref(caps);
    return result;
}

class SourceTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { initGst(); }

    IpcKeys keys{JPG_BASE_KEY + CHANNEL, MP4_BASE_KEY + CHANNEL, MP4_BASE_KEY + CHANNEL * 16, PCM_KEY,
                 AAC_BASE_KEY + CHANNEL, AAC_BASE_KEY + CHANNEL * 16, OPUS_KEY, LUM_BASE_KEY + CHANNEL};
};

TEST_F(SourceTest, AMissingOrStalePoolIsAnErrorThatNamesIt) {
    Pipeline missing("avpoolsrc kind=jpg channel=9 ! fakesink");
    missing.play();
    GstMessage* error = missing.pop(GST_MESSAGE_ERROR, 5000);
    EXPECT_EQ(errorText(error), "No jpg pool on channel 9 (key 0x4c09)");
    if (error != nullptr) gst_message_unref(error);

    Pipeline pcm("avpoolsrc kind=pcm ! fakesink");
    pcm.play();
    error = pcm.pop(GST_MESSAGE_ERROR, 5000);
    EXPECT_EQ(errorText(error), "No pcm pool (key 0x4a00)");
    if (error != nullptr) gst_message_unref(error);

    // A writer killed without releasing its pool leaves it behind.
    ForkedChild crashed([](ChildLink& link) {
        JPGPutter putter;
        putter.init(CHANNEL, 3, 1024, 4096);
        link.say("ready");
        pause();
        return 0;
    });
    std::string line;
    ASSERT_TRUE(crashed.readLine(line));
    crashed.signal(SIGKILL);
    crashed.wait();
    Pipeline stale("avpoolsrc kind=jpg channel=5 ! fakesink");
    stale.play();
    error = stale.pop(GST_MESSAGE_ERROR, 5000);
    EXPECT_EQ(errorText(error),
              "The jpg pool on channel 5 is stale: its creator " + std::to_string(crashed.pid()) + " is gone");
    if (error != nullptr) gst_message_unref(error);
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
    GstClockTime firstPts = GST_CLOCK_TIME_NONE;
    guint64 firstId = 0;
    for (int i = 0; i < 20; ++i) {
        GstBuffer* buffer = harness.pull();
        ASSERT_NE(buffer, nullptr) << "no buffer " << i;
        guint64 id = GST_BUFFER_OFFSET(buffer);
        if (i == 0) {
            firstId = id;
            firstPts = GST_BUFFER_PTS(buffer);
            EXPECT_TRUE(GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DISCONT));
            EXPECT_EQ(capsText(harness.currentCaps()), "image/jpeg, width=(int)320, height=(int)240, framerate=(fraction)25/1");
        } else {
            EXPECT_EQ(id, firstId + static_cast<guint64>(i));
            EXPECT_FALSE(GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DISCONT)) << "buffer " << i;
            GstClockTimeDiff step = GST_CLOCK_DIFF(firstPts, GST_BUFFER_PTS(buffer));
            EXPECT_NEAR(static_cast<double>(step), static_cast<double>((id - firstId) * FRAME_US * 1000), 2e6)
                << "capture times " << FRAME_US << " us apart";
        }
        EXPECT_EQ(GST_BUFFER_DURATION(buffer), 40 * GST_MSECOND);
        EXPECT_FALSE(GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT));
        EXPECT_EQ(bytesOf(buffer), payload(id, sizeOf(id))) << "frame " << id;
        gst_buffer_unref(buffer);
    }
    writer->go();
    EXPECT_TRUE(writer->wait().ok());
}

INSTANTIATE_TEST_SUITE_P(CopyAndZeroCopy, JpegSourceTest, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& info) { return info.param ? "ZeroCopy" : "Copy"; });

TEST_F(SourceTest, ZeroCopyBuffersKeepTheSegmentMappedAfterTheSourceStops) {
    auto writer = jpegWriter(5, 3, 0);
    GstBuffer* kept = nullptr;
    {
        Harness harness("avpoolsrc kind=jpg channel=5 zero-copy=true");
        writer->go();
        std::string line;
        ASSERT_TRUE(writer->readLine(line));
        gst_harness_play(harness.get());
        kept = harness.pull();
        ASSERT_NE(kept, nullptr);
    }
    writer->go();
    EXPECT_TRUE(writer->wait().ok());  // the writer removed its pool
    guint64 id = GST_BUFFER_OFFSET(kept);
    EXPECT_EQ(bytesOf(kept), payload(id, sizeOf(id)));
    gst_buffer_unref(kept);
}

// The source is started on a pool whose writer is in the middle of a GOP: it
// begins with that GOP's I frame and goes on frame by frame. The I frame was
// captured before the source started: the stream begins at 0, the frames'
// spacing kept.
TEST_F(SourceTest, VideoStartsOnTheIFrameOfTheGopBeingWrittenWithH264Caps) {
    Stamps stamps;
    stamps.startUs -= 1000000;
    auto put = [stamps](MP4Putter& putter, unsigned long long id) {
        bool key = id % 4 == 1;  // GOPs of four frames
        std::vector<unsigned char> bytes = payload(id, sizeOf(id), key ? H264_IDR : H264_SLICE);
        if (key)
            putter.putIFrame(bytes.data(), static_cast<int>(bytes.size()), stamps.at(id));
        else
            putter.putPFrame(bytes.data(), static_cast<int>(bytes.size()), stamps.at(id));
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
        EXPECT_EQ(GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DISCONT), id == 5);
        EXPECT_NEAR(static_cast<double>(GST_BUFFER_PTS(buffer)), static_cast<double>((id - 5) * FRAME_US * 1000), 2e6)
            << "frame " << id;
        EXPECT_EQ(bytesOf(buffer), payload(id, sizeOf(id), key ? H264_IDR : H264_SLICE));
        EXPECT_EQ(capsText(harness.currentCaps()),
                  "video/x-h264, stream-format=(string)byte-stream, alignment=(string)au, width=(int)640, "
                  "height=(int)480, framerate=(fraction)30/1")
            << "frame " << id;
        gst_buffer_unref(buffer);
    }
    writer.go();
    EXPECT_TRUE(writer.wait().ok());
}

TEST_F(SourceTest, Mpeg4VideoCarriesTheHeadersBeforeTheFirstPlaneAsCodecData) {
    const std::vector<unsigned char> config = {0, 0, 1, 0xB0, 0x01, 0, 0, 1, 0xB5, 0x09, 0, 0, 1, 0x00,
                                               0, 0, 1, 0x20, 0x08, 0xC8, 0x0D, 0x40};
    std::vector<unsigned char> picture = config;
    for (unsigned char byte : {0, 0, 1, 0xB6, 0x10, 0x20, 0x30}) picture.push_back(byte);
    ForkedChild writer([&](ChildLink& link) {
        MP4Putter putter;
        putter.init(CHANNEL, 3, 2, 1024, 6 * (52 + 1024 + 16));
        putter.reset(176, 144, 15);
        putter.putIFrame(picture.data(), static_cast<int>(picture.size()), nowTv());
        link.say("ready");
        link.awaitGo();
        return 0;
    });
    std::string line;
    ASSERT_TRUE(writer.readLine(line));
    Harness harness("avpoolsrc kind=mp4 channel=5");
    gst_harness_play(harness.get());
    GstBuffer* buffer = harness.pull();
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(bytesOf(buffer), picture);
    gst_buffer_unref(buffer);
    EXPECT_EQ(capsText(harness.currentCaps()),
              "video/mpeg, mpegversion=(int)4, systemstream=(boolean)false, "
              "codec_data=(buffer)000001b001000001b509000001000000012008c80d40, width=(int)176, height=(int)144, "
              "framerate=(fraction)15/1");
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
        if (i > 0) {
            EXPECT_EQ(discont, id != last + 1) << "frame " << id << " after " << last;
            if (discont) ++gaps;
        }
        EXPECT_EQ(bytesOf(buffer), payload(id, sizeOf(id))) << "frame " << id;
        last = id;
        gst_buffer_unref(buffer);
    }
    EXPECT_GT(gaps, 0);
    GstMessage* gap = pipeline.pop(GST_MESSAGE_ELEMENT, 1000);
    ASSERT_NE(gap, nullptr);
    const GstStructure* s = gst_message_get_structure(gap);
    EXPECT_TRUE(gst_structure_has_name(s, "avpool-gap"));
    guint64 firstLost = 0;
    guint64 resumedAt = 0;
    EXPECT_TRUE(gst_structure_get_uint64(s, "first-lost", &firstLost));
    EXPECT_TRUE(gst_structure_get_uint64(s, "resumed-at", &resumedAt));
    EXPECT_LT(firstLost, resumedAt);
    std::string reason = gst_structure_get_string(s, "reason");
    EXPECT_TRUE(reason == "missed" || reason == "overwritten" || reason == "age too old") << reason;
    EXPECT_STREQ(gst_structure_get_string(s, "kind"), "jpg");
    gst_message_unref(gap);
    writer->go();
    EXPECT_TRUE(writer->wait(10000).ok());
}

TEST_F(SourceTest, StoppingEndsTheWaitForAnElementAtOnce) {
    auto writer = jpegWriter(3, 0, 0);  // a pool that gets no frame
    Harness harness("avpoolsrc kind=jpg channel=5");
    gst_harness_play(harness.get());
    usleep(100000);
    gint64 start = g_get_monotonic_time();
    EXPECT_EQ(gst_element_set_state(harness.element(), GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
    EXPECT_LT(g_get_monotonic_time() - start, 500000) << "the stop waited for the writer";
    writer->go();
    writer->go();
    EXPECT_TRUE(writer->wait().ok());
}

// The writer removes its pool and a new one creates it again: the source
// waits, says so, and goes on with the new writer's frames, DISCONT first.
TEST_F(SourceTest, WhenTheWriterComesBackTheSourceFollowsTheNewPool) {
    Harness harness("avpoolsrc kind=jpg channel=5");
    {
        auto first = jpegWriter(4, 2, 0);
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

    auto second = jpegWriter(4, 3, 20000);
    second->go();
    GstBuffer* buffer = harness.pull();
    ASSERT_NE(buffer, nullptr);
    EXPECT_TRUE(GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DISCONT));
    guint64 id = GST_BUFFER_OFFSET(buffer);
    EXPECT_EQ(bytesOf(buffer), payload(id, sizeOf(id)));
    gst_buffer_unref(buffer);
    second->go();
    EXPECT_TRUE(second->wait().ok());
}

TEST_F(SourceTest, WithoutReattachTheStreamEndsWhenTheWriterGoes) {
    auto writer = jpegWriter(4, 1, 0);
    Harness harness("avpoolsrc kind=jpg channel=5 reattach=false");
    gst_harness_play(harness.get());
    writer->go();
    GstBuffer* buffer = harness.pull();
    ASSERT_NE(buffer, nullptr);
    gst_buffer_unref(buffer);
    writer->go();
    EXPECT_TRUE(writer->wait().ok());
    bool eos = false;
    for (gint64 deadline = g_get_monotonic_time() + 5000000; !eos && g_get_monotonic_time() < deadline;) {
        GstEvent* event = gst_harness_try_pull_event(harness.get());
        if (event == nullptr) {
            g_usleep(1000);
            continue;
        }
        eos = GST_EVENT_TYPE(event) == GST_EVENT_EOS;
        gst_event_unref(event);
    }
    EXPECT_TRUE(eos);
}

TEST_F(SourceTest, LuminancePicturesComeOutAsSixteenBitGrey) {
    constexpr int WIDTH = 80;
    constexpr int HEIGHT = 64;
    constexpr size_t BYTES = WIDTH * HEIGHT * 2;
    ForkedChild writer([&](ChildLink& link) {
        LUMPutter putter;
        putter.init(CHANNEL);
        putter.reset(WIDTH, HEIGHT, 30);
        link.say("ready");
        if (!link.awaitGo()) return 1;
        for (unsigned long long id = 1; id <= 4; ++id) {
            std::vector<unsigned char> samples = payload(id, BYTES);
            putter.putFrame(samples.data(), WIDTH * HEIGHT, nowTv());
            usleep(2000);
        }
        link.awaitGo();
        return 0;
    });
    std::string line;
    ASSERT_TRUE(writer.readLine(line));
    Harness harness("avpoolsrc kind=lum channel=5");
    gst_harness_play(harness.get());
    usleep(50000);
    writer.go();
    GstBuffer* buffer = harness.pull();
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(capsText(harness.currentCaps()),
              "video/x-raw, format=(string)GRAY16_LE, width=(int)80, height=(int)64, framerate=(fraction)30/1");
    for (guint64 id = GST_BUFFER_OFFSET(buffer);; ++id) {
        EXPECT_EQ(GST_BUFFER_OFFSET(buffer), id);
        EXPECT_EQ(bytesOf(buffer), payload(id, BYTES)) << "picture " << id;
        gst_buffer_unref(buffer);
        if (id == 4) break;
        buffer = harness.pull();
        ASSERT_NE(buffer, nullptr) << "no picture " << id + 1;
    }
    writer.go();
    EXPECT_TRUE(writer.wait().ok());
}

// ------------------------------------------------------------------- audio

struct AudioCase {
    const char* name;
    const char* description;
    std::function<void()> create;  // in the writer: init, reset, and keeps the putter
    std::function<void(unsigned long long id)> put;
    std::function<std::vector<unsigned char>(unsigned long long id)> expected;
    const char* caps;
    GstClockTime duration;
};

// The putter lives in the forked writer; these hold it between the calls.
std::unique_ptr<PCMPutter> pcmPutter;
std::unique_ptr<AACPutter> aacPutter;
std::unique_ptr<OPUSPutter> opusPutter;

const std::vector<unsigned char> ADTS_HEAD = {0xFF, 0xF1, 0x50, 0x80, 0x00, 0x1F, 0xFC};

std::vector<AudioCase> audioCases() {
    return {
        {"Pcm", "avpoolsrc kind=pcm",
         [] {
             pcmPutter = std::make_unique<PCMPutter>();
             pcmPutter->init();
             pcmPutter->reset(16, 2, 16000);
         },
         [](unsigned long long id) {
             std::vector<unsigned char> bytes = payload(id, PCM_FRAGMENT_SIZE);
             pcmPutter->putFragment(bytes.data(), PCM_FRAGMENT_SIZE, nowTv());
         },
         [](unsigned long long id) { return payload(id, PCM_FRAGMENT_SIZE); },
         "audio/x-raw, format=(string)S16LE, layout=(string)interleaved, rate=(int)16000, channels=(int)2",
         32 * GST_MSECOND},
        {"AacAdts", "avpoolsrc kind=aac channel=5",
         [] {
             aacPutter = std::make_unique<AACPutter>();
             aacPutter->init(CHANNEL);
             aacPutter->reset(16, 2, 44100, 2);
         },
         [](unsigned long long id) {
             std::vector<unsigned char> bytes = payload(id, 60 + id * 13 % 400, ADTS_HEAD);
             aacPutter->putFragment(bytes.data(), static_cast<int>(bytes.size()), nowTv());
         },
         [](unsigned long long id) { return payload(id, 60 + id * 13 % 400, ADTS_HEAD); },
         "audio/mpeg, mpegversion=(int)4, stream-format=(string)adts, framed=(boolean)true, rate=(int)44100, "
         "channels=(int)2",
         1024 * GST_SECOND / 44100},
        {"AacRaw", "avpoolsrc kind=aac channel=5",
         [] {
             aacPutter = std::make_unique<AACPutter>();
             aacPutter->init(CHANNEL);
             aacPutter->reset(16, 1, 8000, 0x1588);  // an AudioSpecificConfig as the stream parameter
         },
         [](unsigned long long id) {
             std::vector<unsigned char> bytes = payload(id, 64 + id % 100);
             aacPutter->putFragment(bytes.data(), static_cast<int>(bytes.size()), nowTv());
         },
         [](unsigned long long id) { return payload(id, 64 + id % 100); },
         "audio/mpeg, mpegversion=(int)4, stream-format=(string)raw, framed=(boolean)true, rate=(int)8000, "
         "channels=(int)1, codec_data=(buffer)1588",
         128 * GST_MSECOND},
        {"Opus", "avpoolsrc kind=opus",
         [] {
             opusPutter = std::make_unique<OPUSPutter>();
             opusPutter->init();
             opusPutter->reset(16, 1, 48000);
         },
         [](unsigned long long id) {
             std::vector<unsigned char> bytes = payload(id, OPUS_FRAGMENT_SIZE);
             opusPutter->putFragment(bytes.data(), static_cast<int>(20 + id * 7 % 300), nowTv());
         },
         [](unsigned long long id) { return payload(id, 20 + id * 7 % 300); },
         "audio/x-opus, channel-mapping-family=(int)0, channels=(int)1, rate=(int)48000", GST_CLOCK_TIME_NONE},
    };
}

void PrintTo(const AudioCase& audio, std::ostream* out) {
    *out << audio.name;
}

class AudioSourceTest : public SourceTest, public ::testing::WithParamInterface<AudioCase> {};

TEST_P(AudioSourceTest, FragmentsComeOutAsWrittenWithTheirFormat) {
    const AudioCase& audio = GetParam();
    ForkedChild writer([&](ChildLink& link) {
        audio.create();
        link.say("ready");
        if (!link.awaitGo()) return 1;
        for (unsigned long long id = 1; id <= 6; ++id) {
            audio.put(id);
            usleep(2000);
        }
        link.awaitGo();
        return 0;
    });
    std::string line;
    ASSERT_TRUE(writer.readLine(line));
    Harness harness(audio.description);
    gst_harness_play(harness.get());
    usleep(50000);
    writer.go();
    GstBuffer* buffer = harness.pull();
    ASSERT_NE(buffer, nullptr);
    guint64 first = GST_BUFFER_OFFSET(buffer);
    EXPECT_EQ(capsText(harness.currentCaps()), audio.caps);
    for (guint64 id = first;; ++id) {
        EXPECT_EQ(GST_BUFFER_OFFSET(buffer), id);
        EXPECT_EQ(bytesOf(buffer), audio.expected(id)) << "fragment " << id;
        EXPECT_EQ(GST_BUFFER_DURATION(buffer), audio.duration);
        gst_buffer_unref(buffer);
        if (id == 6) break;
        buffer = harness.pull();
        ASSERT_NE(buffer, nullptr) << "no fragment " << id + 1;
    }
    writer.go();
    EXPECT_TRUE(writer.wait().ok());
}

INSTANTIATE_TEST_SUITE_P(Kinds, AudioSourceTest, ::testing::ValuesIn(audioCases()),
                         [](const ::testing::TestParamInfo<AudioCase>& info) { return info.param.name; });

}  // namespace
}  // namespace avpool::test
