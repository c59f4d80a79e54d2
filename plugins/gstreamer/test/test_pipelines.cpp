// Real media through real pipelines: `avpool put` loops a file made with
// ffmpeg (tests/media/make-media.sh) into a pool at 100 elements a second, and
// avpoolsrc, with a decoder or parser beside it that must take every buffer,
// gives the file's elements in a row, byte for byte, the first an IDR picture
// for video. Skipped without ffmpeg or without the tool.

#include "gst_support.h"
#include "ipc_harness.h"

#include <avpool/jpg.h>
#include <avpool/mp4.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <unistd.h>

#ifdef AVPOOL_TOOL
#include "media/h264_stream.h"
#include "media/jpeg_stream.h"

namespace avpool::test {
namespace {

constexpr int CHANNEL = 7;

struct Put {
    const char* kind;
    const char* file;
    const char* check;  // the element that must take every buffer
    key_t segment, locks;
};

void PrintTo(const Put& put, std::ostream* out) {
    *out << put.kind;
}

class PutTest : public ::testing::TestWithParam<Put> {
protected:
    static void SetUpTestSuite() {
        char pattern[] = "/tmp/avpool-gst.XXXXXX";
        dir_ = mkdtemp(pattern);
        int status = system((std::string("sh ") + AVPOOL_MEDIA_SCRIPT + " " + dir_ + " video >/dev/null").c_str());
        media_ = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }
    static void TearDownTestSuite() { system(("rm -rf " + dir_).c_str()); }
    void SetUp() override {
        if (!media_) GTEST_SKIP() << "no test media: ffmpeg with an H.264 encoder is needed";
    }

    IpcKeys keys{JPG_BASE_KEY + CHANNEL, MP4_BASE_KEY + CHANNEL, MP4_BASE_KEY + CHANNEL * 16};
    static std::string dir_;
    static bool media_;
};

std::string PutTest::dir_;
bool PutTest::media_ = false;

TEST_P(PutTest, ElementsPutByTheToolComeOutOfTheSourceByteIdentical) {
    const Put& put = GetParam();
    REQUIRE_ELEMENTS("appsink", put.check);
    std::string path = dir_ + "/" + put.file;
    std::ifstream in(path, std::ios::binary);
    std::vector<unsigned char> file{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    std::vector<std::vector<unsigned char>> elements;
    std::vector<bool> keys;
    auto add = [&](size_t offset, size_t length, bool key) {
        elements.emplace_back(file.begin() + static_cast<long>(offset), file.begin() + static_cast<long>(offset + length));
        keys.push_back(key);
    };
    if (std::string(put.kind) == "jpg") {
        for (const media::JpegPicture& p : media::splitMjpeg(file.data(), file.size())) add(p.offset, p.length, true);
    } else {
        for (const media::AccessUnit& unit : media::splitH264(file.data(), file.size()).units)
            add(unit.offset, unit.length, unit.idr);
    }
    ForkedChild tool([&](ChildLink&) {
        execl(AVPOOL_TOOL, "avpool", "put", put.kind, std::to_string(CHANNEL).c_str(), path.c_str(), "--loop", "--fps",
              "100", static_cast<char*>(nullptr));
        return 127;
    });
    ASSERT_TRUE(eventually([&] { return shmIdOf(put.segment) != -1 && semIdOf(put.locks) != -1; }, 5000));
    Pipeline pipeline(std::string("avpoolsrc kind=") + put.kind + " channel=7 ! tee name=t ! queue ! appsink name=out "
                      "sync=false t. ! queue ! " + put.check + " ! fakesink");
    ASSERT_NE(pipeline.play(), GST_STATE_CHANGE_FAILURE);
    size_t at = elements.size();
    for (int i = 0; i < 25; ++i) {
        GstBuffer* buffer = pipeline.pullFrom("out");
        ASSERT_NE(buffer, nullptr) << "no buffer " << i;
        std::vector<unsigned char> got = bytesOf(buffer);
        bool delta = GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
        gst_buffer_unref(buffer);
        if (i == 0) {
            for (at = 0; at < elements.size() && elements[at] != got; ++at) {
            }
            ASSERT_LT(at, elements.size()) << "the first buffer is none of the file's elements";
            EXPECT_TRUE(keys[at]) << "the source started on element " << at;
        } else {
            at = (at + 1) % elements.size();
            EXPECT_EQ(got, elements[at]) << "buffer " << i << " is not element " << at;
        }
        EXPECT_EQ(delta, !keys[at]) << "element " << at;
    }
    EXPECT_EQ(errorText(pipeline.pop(GST_MESSAGE_ERROR, 0)), "") << "the decoder or parser refused a buffer";
    tool.signal(SIGTERM);
    EXPECT_TRUE(tool.wait(5000).ok());
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, PutTest,
    ::testing::Values(Put{"jpg", "camera.mjpeg", "jpegdec", JPG_BASE_KEY + CHANNEL, JPG_BASE_KEY + CHANNEL},
                      Put{"mp4", "camera.h264", "h264parse", MP4_BASE_KEY + CHANNEL, MP4_BASE_KEY + CHANNEL * 16}),
    [](const ::testing::TestParamInfo<Put>& info) { return std::string(info.param.kind); });

}  // namespace
}  // namespace avpool::test

#endif
