// Real media through real pipelines: streams that `avpool put` feeds into the
// pools come out of avpoolsrc byte for byte, and a stream that a parser feeds
// into avpoolsink comes out of `avpool get` byte for byte. The media are made
// with ffmpeg (tests/media/make-media.sh); without it, or without the tool,
// the cases are skipped.

#include "gst_support.h"
#include "ipc_harness.h"

#include <avpool/jpg.h>
#include <avpool/mp4.h>

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <unistd.h>

#if defined(AVPOOL_HAVE_MEDIA) && defined(AVPOOL_TOOL)
#include "media/h264_stream.h"
#include "media/jpeg_stream.h"

namespace avpool::test {
namespace {

constexpr int CHANNEL = 7;

std::vector<unsigned char> readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<unsigned char>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The avpool tool with these arguments, in a child that the test reaps.
std::unique_ptr<ForkedChild> runTool(std::vector<std::string> args) {
    return std::make_unique<ForkedChild>([args](ChildLink&) {
        std::vector<char*> argv{const_cast<char*>("avpool")};
        for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
        argv.push_back(nullptr);
        execv(AVPOOL_TOOL, argv.data());
        return 127;
    });
}

class PipelineTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        initGst();
        char pattern[] = "/tmp/avpool-gst.XXXXXX";
        dir_ = mkdtemp(pattern);
        std::string command = std::string("sh ") + AVPOOL_MEDIA_SCRIPT + " " + dir_ + " video >/dev/null";
        int status = system(command.c_str());
        media_ = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }
    static void TearDownTestSuite() { system(("rm -rf " + dir_).c_str()); }

    void SetUp() override {
        if (!media_) GTEST_SKIP() << "no test media: ffmpeg with an H.264 encoder is needed";
    }

    static std::string path(const char* name) { return dir_ + "/" + name; }

    // Waits for a pool's segment and its first lock set, as a producer
    // creates them one after the other.
    static bool poolAppears(key_t segment, key_t locks) {
        return eventually([=] { return shmIdOf(segment) != -1 && semIdOf(locks) != -1; }, 5000);
    }

    IpcKeys keys{JPG_BASE_KEY + CHANNEL, MP4_BASE_KEY + CHANNEL, MP4_BASE_KEY + CHANNEL * 16};
    static std::string dir_;
    static bool media_;
};

std::string PipelineTest::dir_;
bool PipelineTest::media_ = false;

// Pulls count buffers from the appsink "out"; each must be the next element
// of the looped file, elements[first], elements[first + 1], ...
template <class Elements, class Bytes>
void expectConsecutive(Pipeline& pipeline, const Elements& elements, Bytes bytesOf, int count) {
    size_t at = elements.size();
    for (int i = 0; i < count; ++i) {
        GstBuffer* buffer = pipeline.pullFrom("out");
        ASSERT_NE(buffer, nullptr) << "no buffer " << i;
        std::vector<unsigned char> got = ::avpool::test::bytesOf(buffer);
        gst_buffer_unref(buffer);
        if (at == elements.size()) {
            for (at = 0; at < elements.size() && bytesOf(elements[at]) != got; ++at) {
            }
            ASSERT_LT(at, elements.size()) << "the first buffer is none of the file's elements";
            continue;
        }
        at = (at + 1) % elements.size();
        EXPECT_EQ(got, bytesOf(elements[at])) << "buffer " << i << " is not element " << at;
    }
}

TEST_F(PipelineTest, PicturesPutByTheToolComeOutOfTheSourceByteIdentical) {
    REQUIRE_ELEMENTS("appsink", "jpegdec");
    std::vector<unsigned char> file = readFile(path("camera.mjpeg"));
    std::vector<media::JpegPicture> pictures = media::splitMjpeg(file.data(), file.size());
    auto put = runTool({"put", "jpg", std::to_string(CHANNEL), path("camera.mjpeg"), "--loop", "--fps", "100"});
    ASSERT_TRUE(poolAppears(JPG_BASE_KEY + CHANNEL, JPG_BASE_KEY + CHANNEL));
    Pipeline pipeline("avpoolsrc kind=jpg channel=7 ! tee name=t ! queue ! appsink name=out sync=false "
                      "t. ! queue ! jpegdec ! fakesink");
    ASSERT_NE(pipeline.play(), GST_STATE_CHANGE_FAILURE);
    auto bytes = [&](const media::JpegPicture& p) {
        return std::vector<unsigned char>(file.begin() + static_cast<long>(p.offset),
                                          file.begin() + static_cast<long>(p.offset + p.length));
    };
    expectConsecutive(pipeline, pictures, bytes, 30);
    GstMessage* error = pipeline.pop(GST_MESSAGE_ERROR, 0);
    EXPECT_EQ(error, nullptr) << errorText(error);  // the decoder took every picture
    put->signal(SIGTERM);
    EXPECT_TRUE(put->wait(5000).ok());
}

TEST_F(PipelineTest, VideoPutByTheToolComesOutOfTheSourceFromAnIdrPicture) {
    REQUIRE_ELEMENTS("appsink", "h264parse");
    std::vector<unsigned char> file = readFile(path("camera.h264"));
    media::H264Stream stream = media::splitH264(file.data(), file.size());
    auto put = runTool({"put", "mp4", std::to_string(CHANNEL), path("camera.h264"), "--loop", "--fps", "100"});
    ASSERT_TRUE(poolAppears(MP4_BASE_KEY + CHANNEL, MP4_BASE_KEY + CHANNEL * 16));
    Pipeline pipeline("avpoolsrc kind=mp4 channel=7 ! tee name=t ! queue ! appsink name=out sync=false "
                      "t. ! queue ! h264parse ! fakesink");
    ASSERT_NE(pipeline.play(), GST_STATE_CHANGE_FAILURE);
    GstBuffer* first = pipeline.pullFrom("out");
    ASSERT_NE(first, nullptr);
    std::vector<unsigned char> firstBytes = bytesOf(first);
    gst_buffer_unref(first);
    size_t at = 0;
    auto bytes = [&](const media::AccessUnit& unit) {
        return std::vector<unsigned char>(file.begin() + static_cast<long>(unit.offset),
                                          file.begin() + static_cast<long>(unit.offset + unit.length));
    };
    while (at < stream.units.size() && bytes(stream.units[at]) != firstBytes) ++at;
    ASSERT_LT(at, stream.units.size());
    EXPECT_TRUE(stream.units[at].idr) << "the source started on access unit " << at;
    for (int i = 1; i < 25; ++i) {
        GstBuffer* buffer = pipeline.pullFrom("out");
        ASSERT_NE(buffer, nullptr);
        at = (at + 1) % stream.units.size();
        EXPECT_EQ(bytesOf(buffer), bytes(stream.units[at])) << "access unit " << at;
        EXPECT_EQ(GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT), !stream.units[at].idr);
        gst_buffer_unref(buffer);
    }
    put->signal(SIGTERM);
    EXPECT_TRUE(put->wait(5000).ok());
}

// A parser feeds the sink at the stream's rate; the tool's reader writes what
// it gets from the pool: from an I frame on, exactly the access units the sink
// was given (the parser's, which add delimiters to the file's).
TEST_F(PipelineTest, VideoThatAParserFeedsIntoTheSinkComesOutOfTheToolByteIdentical) {
    REQUIRE_ELEMENTS("filesrc", "h264parse", "tee", "queue", "appsink");
    Pipeline pipeline("filesrc location=" + path("camera.h264") +
                      " ! h264parse ! tee name=t ! queue ! avpoolsink kind=mp4 channel=7 gop-frames=10 "
                      "t. ! queue ! appsink name=fed sync=false");
    ASSERT_NE(pipeline.play(), GST_STATE_CHANGE_FAILURE);
    ASSERT_TRUE(poolAppears(MP4_BASE_KEY + CHANNEL, MP4_BASE_KEY + CHANNEL * 16));
    std::string out = dir_ + "/got.h264";
    auto get = runTool({"get", "mp4", std::to_string(CHANNEL), "--count", "15", "-o", out});
    ExitStatus status = get->wait(10000);
    EXPECT_TRUE(status.ok()) << status.describe();
    std::vector<unsigned char> got = readFile(out);
    ASSERT_FALSE(got.empty());

    std::vector<std::vector<unsigned char>> units;
    std::vector<bool> keys;
    while (GstBuffer* unit = pipeline.pullFrom("fed", 2000)) {
        units.push_back(bytesOf(unit));
        keys.push_back(!GST_BUFFER_FLAG_IS_SET(unit, GST_BUFFER_FLAG_DELTA_UNIT));
        gst_buffer_unref(unit);
    }
    ASSERT_EQ(units.size(), 50u);
    bool found = false;
    for (size_t first = 0; first + 15 <= units.size() && !found; ++first) {
        std::vector<unsigned char> run;
        for (size_t i = first; i < first + 15; ++i) run.insert(run.end(), units[i].begin(), units[i].end());
        found = keys[first] && run == got;
    }
    EXPECT_TRUE(found) << "what the tool read is not 15 access units of the sink's from an I frame on";
    MP4Getter getter;
    getter.init(CHANNEL);
    EXPECT_EQ(getter.getWorkingWidth(), 320);
    EXPECT_EQ(getter.getWorkingHeight(), 240);
    EXPECT_EQ(getter.getWorkingFPS(), 25);
}

}  // namespace
}  // namespace avpool::test

#endif
