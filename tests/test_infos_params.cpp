// What servers read about the profiles: every accessor at its offset, the
// bound by the published profile count on four of them, the exact texts of each
// refusal (with and without newline), the channel lookup and the SSL weight.
#include "infos_fixture.h"

#include <climits>
#include <functional>
#include <vector>

using namespace avpool::test;
using namespace infos_layout;

namespace {

// A read of one profile's value, with the text it writes to stderr when it
// refuses (thrown without the newline).
struct Accessor {
    const char* name;
    std::function<void(InfosGetter&, int)> read;
    std::string stderrText;
};

const std::string PROGRAMMING = "programming error\n";

std::vector<Accessor> profileAccessors() {
    int a = 0, b = 0, c = 0;
    return {
        {"getInfo", [=](InfosGetter& g, int p) mutable { g.getInfo(p, a, b, c); }, PROGRAMMING},
        {"getState", [](InfosGetter& g, int p) { g.getState(p); }, PROGRAMMING},
        {"getVideoInfo", [=](InfosGetter& g, int p) mutable { g.getVideoInfo(p, a, b, c); }, PROGRAMMING},
        {"getAudioInfo", [=](InfosGetter& g, int p) mutable { g.getAudioInfo(p, a, b, c); }, PROGRAMMING},
        {"getUseSSLWeight", [](InfosGetter& g, int p) { g.getUseSSLWeight(p); }, PROGRAMMING},
        {"getAudioFrameDuration", [](InfosGetter& g, int p) { g.getAudioFrameDuration(p); },
         "InfosPutter::getVOLSize programming error"},
        {"getSharedMemSize", [](InfosGetter& g, int p) { g.getSharedMemSize(p); },
         "InfosPutter::getSharedMemSize programming error"},
        {"getSDPHeader", [](InfosGetter& g, int p) { g.getSDPHeader(p); },
         "InfosPutter::getH264SDPHeader programming error"},
        {"getSPS", [](InfosGetter& g, int p) { g.getSPS(p); }, "InfosPutter::getH264SPS programming error"},
        {"getSPSSize", [](InfosGetter& g, int p) { g.getSPSSize(p); }, "InfosPutter::getH264SPSSize programming error"},
        {"getPPS", [](InfosGetter& g, int p) { g.getPPS(p); }, "InfosPutter::getH264PPS programming error"},
        {"getPPSSize", [](InfosGetter& g, int p) { g.getPPSSize(p); }, "InfosPutter::getH264PPSSize programming error"},
        {"getVOL", [](InfosGetter& g, int p) { g.getVOL(p); }, "InfosPutter::getVOL programming error"},
        {"getVOLSize", [](InfosGetter& g, int p) { g.getVOLSize(p); }, "InfosPutter::getVOLSize programming error"},
    };
}

// read(getter, profileID) must write the accessor's stderr text exactly and
// throw it without a trailing newline.
void expectRefusal(InfosGetter& getter, const std::string& name, const std::function<void(InfosGetter&, int)>& read,
                   int profileID, const std::string& stderrText) {
    auto [message, log] = failureOf<InfosGetterError>([&] { read(getter, profileID); });
    std::string thrown = stderrText;
    if (!thrown.empty() && thrown.back() == '\n') thrown.pop_back();
    EXPECT_EQ(message, thrown) << name << "(" << profileID << ")";
    EXPECT_EQ(log, stderrText) << name << "(" << profileID << ")";
}

// Each value read for profile p, in the order of the record, pointers as the
// word they point at: with the area filled with its own offsets these are the
// offsets the accessors read from.
std::vector<int32_t> everyValueOf(InfosGetter& g, int p) {
    int state, channel, param3, width, height, videoParam3, a1, a2, a3;
    g.getInfo(p, state, channel, param3);
    g.getVideoInfo(p, width, height, videoParam3);
    g.getAudioInfo(p, a1, a2, a3);
    return {state,
            channel,
            param3,
            width,
            height,
            videoParam3,
            a1,
            a2,
            a3,
            g.getAudioFrameDuration(p),
            g.getSharedMemSize(p),
            wordAt(g.getSDPHeader(p)),
            wordAt(g.getSPS(p)),
            g.getSPSSize(p),
            wordAt(g.getPPS(p)),
            g.getPPSSize(p),
            wordAt(g.getVOL(p)),
            g.getVOLSize(p)};
}

// A blob's size must fit its 256-byte field: the filled area holds a size's
// offset divided by 32 there instead.
bool isSize(long field) {
    return field == SPS_SIZE || field == PPS_SIZE || field == VOL_SIZE;
}

std::vector<int32_t> offsetsOfProfile(int p) {
    std::vector<int32_t> offsets;
    for (long field : {STATE, CHANNEL, INFO_PARAM3, WIDTH, HEIGHT, VIDEO_PARAM3, AUDIO_PARAM1, AUDIO_PARAM2,
                       AUDIO_PARAM3, FRAME_DURATION, SHARED_MEM_SIZE, SDP_HEADER, SPS, SPS_SIZE, PPS, PPS_SIZE, VOL,
                       VOL_SIZE})
        offsets.push_back(static_cast<int32_t>(profile(p, field)) / (isSize(field) ? 32 : 1));
    return offsets;
}

}  // namespace

class InfosOffsets : public InfosArea {
protected:
    void fill() {
        startServing();
        fillWithOwnOffsets();
        for (int p = -1; p < MAX_MEDIA_POOL; ++p)
            for (long field : {SPS_SIZE, PPS_SIZE, VOL_SIZE})
                writeWord(profile(p, field), static_cast<int32_t>(profile(p, field)) / 32);
    }
};

TEST_F(InfosOffsets, everyAccessorReadsItsProfileAtItsAbsoluteOffset) {
    fill();
    EXPECT_EQ(server.getSizeofPools(), 5);
    for (int p = 0; p < MAX_MEDIA_POOL; ++p) EXPECT_EQ(everyValueOf(server, p), offsetsOfProfile(p)) << "profile " << p;
}

// The signed bound lets -1 through on every accessor; it reads the record that
// ends where profile 0 begins, inside the slat table and weights.
TEST_F(InfosOffsets, profileMinusOneReadsTheRecordJustBeforeProfileZero) {
    fill();
    EXPECT_EQ(everyValueOf(server, -1), offsetsOfProfile(-1));
    EXPECT_EQ(server.getVOLSize(-1), static_cast<int32_t>(weight(9)) / 32);
    EXPECT_EQ(server.getState(-1), static_cast<int32_t>(slat(0, 36)));
}

// A caller reads a blob's size in bytes from its address: a size the encoder
// wrote beyond the blob's 256 bytes (or below 0) is reported as the field's end.
TEST_F(InfosArea, blobSizesNeverReachPastTheirField) {
    startServing();
    for (const auto& [stored, reported] : std::vector<std::pair<int32_t, int>>{{0, 0}, {256, 256}, {257, 256},
                                                                               {INT32_MAX, 256}, {-1, 0}}) {
        writeWord(profile(4, SPS_SIZE), stored);
        writeWord(profile(4, PPS_SIZE), stored);
        writeWord(profile(4, VOL_SIZE), stored);
        EXPECT_EQ(server.getSPSSize(4), reported) << stored;
        EXPECT_EQ(server.getPPSSize(4), reported) << stored;
        EXPECT_EQ(server.getVOLSize(4), reported) << stored;
    }
}

TEST_F(InfosArea, sdpHeaderOfTheServerIsFourBytesOnFromTheEncodersBlock) {
    startServing();
    fillWithOwnOffsets();
    for (int p = -1; p < MAX_MEDIA_POOL; ++p) {
        EXPECT_EQ(wordAt(server.getSDPHeader(p)), wordAt(encoder.GetSDPHeader(p)) + 4) << p;
        EXPECT_EQ(server.getSDPHeader(p) - server.getSDPHeader(0), PROFILE * p) << p;
    }
}

// The blob pointers are into the shared area, not copies: what the encoder
// writes afterwards shows through them.
TEST_F(InfosArea, blobPointersSeeTheEncodersLaterWrites) {
    startServing();
    char* header = server.getSDPHeader(3);
    unsigned char* sps = server.getSPS(3);
    unsigned char* block = encoder.GetSDPHeader(3);
    const char text[] = "m=video 0 RTP/AVP 96";
    memcpy(block + 4, text, sizeof text);
    const unsigned char nal[] = {0x67, 0x42, 0x00, 0x1f};
    memcpy(block + (SPS - SDP_BLOCK), nal, sizeof nal);
    int32_t size = sizeof nal;
    memcpy(block + (SPS_SIZE - SDP_BLOCK), &size, sizeof size);
    EXPECT_STREQ(header, text);
    EXPECT_EQ(std::vector<unsigned char>(sps, sps + server.getSPSSize(3)), std::vector<unsigned char>(nal, nal + 4));
    EXPECT_EQ(rawBytes(profile(3, SPS), 4), std::string(reinterpret_cast<const char*>(nal), 4));
}

TEST_F(InfosArea, onlyTheFourBoundedAccessorsRefuseAProfileAtOrAboveSizeofPools) {
    startServing(10, 2);
    encoder.putInfo(2, 2, 6, 1);
    writeWord(profile(2, SPS_SIZE), 17);
    for (const Accessor& a : profileAccessors()) {
        if (a.stderrText == PROGRAMMING) {
            expectRefusal(server, a.name, a.read, 2, PROGRAMMING);
            expectRefusal(server, a.name, a.read, 4, PROGRAMMING);
        } else {
            EXPECT_NO_THROW(a.read(server, 2)) << a.name;
            EXPECT_NO_THROW(a.read(server, 4)) << a.name;
        }
    }
    EXPECT_EQ(server.getSPSSize(2), 17);
    EXPECT_EQ(server.getState(1), 0);

    encoder.putSizeofPools(0);
    expectRefusal(server, "getState", [](InfosGetter& g, int p) { g.getState(p); }, 0, PROGRAMMING);
}

// No accessor reads outside the 6552 bytes for any int: IDs whose record would
// lie outside are refused with the accessor's own text, whatever the encoder
// published as the profile count.
TEST_F(InfosArea, profileIdsOutsideTheSegmentAreRefusedByEveryAccessor) {
    startServing();
    for (int published : {MAX_MEDIA_POOL, INT_MAX}) {
        encoder.putSizeofPools(published);
        for (int id : {INT_MIN, -2, 5, 6, INT_MAX})
            for (const Accessor& a : profileAccessors()) expectRefusal(server, a.name, a.read, id, a.stderrText);
    }
}

TEST_F(InfosArea, unattachedGetterRefusesEveryAccessorWithItsOwnText) {
    start();
    for (bool afterRelease : {false, true}) {
        SCOPED_TRACE(afterRelease ? "after release" : "never attached");
        if (afterRelease) {
            server.init(KEY);
            server.release(-1);
        }
        for (const Accessor& a : profileAccessors()) expectRefusal(server, a.name, a.read, 0, a.stderrText);
        expectRefusal(server, "getSizeofPools", [](InfosGetter& g, int) { g.getSizeofPools(); }, 0, PROGRAMMING);
        expectRefusal(server, "getSharedMemSizebyChannel",
                      [](InfosGetter& g, int channel) { g.getSharedMemSizebyChannel(channel); }, 0,
                      "InfosPutter::getProfileIDby programming error");
    }
}

TEST_F(InfosArea, sharedMemSizeByChannelIsTheFirstMatchOverAllFiveProfiles) {
    startServing(10, 1);
    const int channels[] = {2, 7, 5, 7, 8};
    for (int p = 0; p < MAX_MEDIA_POOL; ++p) {
        encoder.putInfo(p, 2, channels[p], 1);
        encoder.putSharedMemSize(p, 1000 * (p + 1));
    }
    EXPECT_EQ(server.getSharedMemSizebyChannel(7), 2000);
    EXPECT_EQ(server.getSharedMemSizebyChannel(8), 5000);  // beyond sizeofPools 1
    EXPECT_EQ(server.getSharedMemSizebyChannel(2), 1000);
    EXPECT_EQ(server.getSharedMemSizebyChannel(9), -1);
    EXPECT_EQ(server.getSharedMemSizebyChannel(0), -1);
}

// Unused profiles have channel 0, so channel 0 finds one of them.
TEST_F(InfosArea, channelZeroMatchesTheFirstUnusedProfile) {
    startServing(10, 2);
    encoder.putInfo(0, 2, 3, 1);
    encoder.putSharedMemSize(0, 100);
    encoder.putInfo(1, 2, 4, 1);
    encoder.putSharedMemSize(1, 200);
    encoder.putSharedMemSize(3, 77);
    EXPECT_EQ(server.getSharedMemSizebyChannel(0), 0);
    encoder.putSharedMemSize(2, 55);
    EXPECT_EQ(server.getSharedMemSizebyChannel(0), 55);
}

// The product is 32-bit and wraps as the encoder's firmware computes it.
TEST_F(InfosArea, sslWeightIsThreeUpToVgaPixelsAndFourAbove) {
    startServing(10, 5);
    EXPECT_EQ(server.getUseSSLWeight(1), 3);  // nothing published: 0 x 0
    struct Case {
        int width, height, weight;
    };
    const Case cases[] = {{640, 480, 3},     {641, 480, 4},     {640, 481, 4},    {1280, 720, 4},
                          {480, 640, 3},     {307200, 1, 3},    {307201, 1, 4},   {1920, 1080, 4},
                          {65536, 65536, 3},  // 2^32 wraps to 0
                          {65536, 32768, 3},  // 2^31 wraps negative
                          {65537, 65537, 3},  // 2^32 + 131073 wraps to 131073
                          {46341, 46341, 3},  // 2147488281 wraps negative
                          {46340, 46340, 4}};
    for (const Case& c : cases) {
        encoder.putVideoInfo(2, c.width, c.height, 1);
        EXPECT_EQ(server.getUseSSLWeight(2), c.weight) << c.width << " x " << c.height;
    }
}
