// The information area, raw reads of the segment as the oracle: the encoder's puts, the servers' reads,
// the connection budget (also across processes killed inside it), the active users and the snapshot.
#include <avpool/infos.h>
#include <avpool/jpg.h>

#include "expect.h"

#include <climits>
#include <csignal>
#include <cstring>
#include <memory>

#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

using namespace avpool::test;

namespace {

// The segment's byte offsets as plain numbers, independent of the library's record types.
constexpr key_t KEY = 1168;
constexpr size_t SIZE = 6552, MAX_CONN = 4, TOTAL = 8, SLATS = 12, WEIGHTS = 1092, PROFILES = 1132;
constexpr size_t SLAT = 108, SLAT_ID = 0, USER_TYPE = 4, USER_NAME = 8, USER_INFO = 40, LOGIN_TIME = 104;
// Media profile, 1084 bytes: eleven words from state to sharedMemSize, then the SDP block.
constexpr long PROFILE = 1084, STATE = 0, WIDTH = 12, AUDIO_PARAM1 = 24, SDP_BLOCK = 44, SDP_HEADER = 48, SPS = 304,
               SPS_SIZE = 560, PPS = 564, PPS_SIZE = 820, VOL = 824, VOL_SIZE = 1080;
constexpr int FREE = 32767;
// The budget's set: the lock, a holder unit per slat, then the journal.
constexpr int HOLDER = 1, JOURNAL = 11;
size_t slat(int i, size_t field) { return SLATS + SLAT * static_cast<size_t>(i) + field; }
size_t weight(int i) { return WEIGHTS + 4 * static_cast<size_t>(i); }
// Signed: profile -1 lies inside the segment, 1084 bytes before profile 0.
size_t profile(int p, long field) { return static_cast<size_t>(static_cast<long>(PROFILES) + PROFILE * p + field); }

int32_t wordAt(const void* p) {
    int32_t value;
    memcpy(&value, p, sizeof value);
    return value;
}

// Every encoder operation on profile p, with its text when not attached and, for
// those given a profile, when p lies outside the segment (older method names).
struct EncoderCall {
    std::function<void(InfosPutter&, int)> call;
    std::string unattached, outside;
};
const std::string STATE_ERROR = "InfosPutter::putVideoState programming error",
                  STATE_RANGE = "InfosPutter::putVideoState profileID exceed MAX_MEDIA_POOL",
                  SIZE_ERROR = "InfosPutter::putSharedMemSize programming error",
                  CONN_ERROR = "InfosPutter::getConn programming error";
const EncoderCall ENCODER_CALLS[] = {
    {[](InfosPutter& e, int) { e.putSizeofPools(1); }, STATE_ERROR, ""},
    {[](InfosPutter& e, int) { e.putMaxConn(1); }, STATE_ERROR, ""},
    {[](InfosPutter& e, int) { e.getConn(); }, CONN_ERROR, ""},
    {[](InfosPutter& e, int p) { e.putInfo(p, 1, 1, 1); }, "InfosPutter::putVideoInfo programming error",
     "InfosPutter::putVideoInfo profileID exceed MAX_MEDIA_POOL"},
    {[](InfosPutter& e, int p) { e.putState(p, 1); }, STATE_ERROR, STATE_RANGE},
    {[](InfosPutter& e, int p) { e.putVideoInfo(p, 1, 1, 1); }, STATE_ERROR, STATE_RANGE},
    {[](InfosPutter& e, int p) { e.putAudioInfo(p, 1, 1, 1, 1); }, STATE_ERROR, STATE_RANGE},
    {[](InfosPutter& e, int p) { e.putSharedMemSize(p, 1); }, SIZE_ERROR, SIZE_ERROR},
    {[](InfosPutter& e, int p) { e.GetSDPHeader(p); }, CONN_ERROR, CONN_ERROR}};

using Failure = std::pair<std::string, std::string>;  // what() and the stderr text

void expectEncoderRefusesAll(InfosPutter& e) {
    for (const EncoderCall& c : ENCODER_CALLS)
        EXPECT_EQ(failureOf<InfosPutterError>([&] { c.call(e, 0); }), (Failure{c.unattached, ""}));
}

// Every read of one profile, with the line it writes when it refuses (thrown without the newline).
struct Accessor {
    const char* name;
    std::function<void(InfosGetter&, int)> read;
    std::string log;
};
const std::string PROGRAMMING = "programming error\n", NO_AREA = "shmget failed: No such file or directory\n";
int a, b, c;
const std::vector<Accessor> ACCESSORS = {
    {"getInfo", [](InfosGetter& g, int p) { g.getInfo(p, a, b, c); }, PROGRAMMING},
    {"getState", [](InfosGetter& g, int p) { g.getState(p); }, PROGRAMMING},
    {"getVideoInfo", [](InfosGetter& g, int p) { g.getVideoInfo(p, a, b, c); }, PROGRAMMING},
    {"getAudioInfo", [](InfosGetter& g, int p) { g.getAudioInfo(p, a, b, c); }, PROGRAMMING},
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
    {"getSizeofPools", [](InfosGetter& g, int) { g.getSizeofPools(); }, PROGRAMMING},
    {"resetAllConnections", [](InfosGetter& g, int) { g.resetAllConnections(); }, PROGRAMMING},
    {"getSharedMemSizebyChannel", [](InfosGetter& g, int c) { g.getSharedMemSizebyChannel(c); },
     "InfosPutter::getProfileIDby programming error"}};
constexpr size_t PROFILE_READS = 14;  // the first ones, given a profile
void expectAccessorRefuses(InfosGetter& g, const Accessor& a, int profileID) {
    EXPECT_EQ(failureOf<InfosGetterError>([&] { a.read(g, profileID); }),
              std::make_pair(a.log.substr(0, a.log.find('\n')), a.log))
        << a.name << "(" << profileID << ")";
}

}  // namespace

// Key 1168 cleaned before and after each test, the encoder and one server.
class InfosArea : public ::testing::Test {
protected:
    // The encoder's start (area created, profile count and budget published), and the server attached.
    void start(int maxConn = 10, int sizeofPools = MAX_MEDIA_POOL) {
        encoder.init(KEY);
        encoder.putSizeofPools(sizeofPools);
        encoder.putMaxConn(maxConn);
        server.init(KEY);
    }
    // The encoder's view of the segment, for writes the put operations do not make.
    unsigned char* encoderBase() { return encoder.GetSDPHeader(0) - profile(0, SDP_BLOCK); }
    void writeWord(size_t offset, int32_t value) { memcpy(encoderBase() + offset, &value, sizeof value); }
    static int32_t raw(size_t offset) { return RawSegment(KEY).i32(offset); }
    static int32_t slatField(int i, size_t field) { return raw(slat(i, field)); }
    static int32_t slatWeight(int i) { return raw(weight(i)); }
    static std::string rawBytes(size_t offset, size_t count) {
        auto bytes = RawSegment(KEY).bytes(offset, count);
        return std::string(bytes.begin(), bytes.end());
    }
    static std::string userName(int i) { return rawBytes(slat(i, USER_NAME), 32).c_str(); }
    static std::string userInfo(int i) { return rawBytes(slat(i, USER_INFO), 64).c_str(); }
    static bool slatFree(int i) { return slatField(i, SLAT_ID) == FREE && slatWeight(i) == 0; }
    static int slatsTaken() {
        int taken = 0;
        for (int i = 0; i < MAX_USER_SLATS; ++i) taken += slatFree(i) ? 0 : 1;
        return taken;
    }

    IpcKeys keys{KEY};
    InfosPutter encoder;  // after keys: the area is released before the keys are cleaned
    InfosGetter server;
};

// ------------------------------------------------------------------ encoder

// The forced removal asks for the area's full size: a smaller leftover stays and init fails after its perror
// line; a full-sized one is replaced, and so is a leftover set. putMaxConn marks only the slats below the
// maximum it stores free and touches nothing else of them, nor the total.
TEST_F(InfosArea, initReplacesAFullSizedLeftoverWithAZeroedAreaAndTheBudgetSetAndReleaseRemovesBoth) {
    const int small = plantSegment(KEY, 100, 0);
    EXPECT_EQ(forceReleaseShm(KEY), -1);
    {
        InfosPutter refused;
        EXPECT_EQ(failureOf<InfosPutterError>([&] { refused.init(KEY); }),
                  (Failure{"InfosPutter::init shmget failed", "InfosPutter::init shmget failed: File exists\n"}));
        expectEncoderRefusesAll(refused);
    }
    ASSERT_EQ(shmctl(small, IPC_RMID, nullptr), 0) << "the smaller leftover stays";
    const int staleSegment = plantSegment(KEY, SIZE, 0xAB), staleSet = plantSemSet(KEY, 3);
    std::string err;
    captureOutput([&] { encoder.init(KEY); }, err);
    EXPECT_EQ(err, "");
    EXPECT_FALSE(shmIdAlive(staleSegment) || semIdAlive(staleSet));
    EXPECT_EQ(RawSegment(KEY).all(), std::vector<unsigned char>(SIZE, 0));
    EXPECT_EQ(lockValues(KEY, 12), (std::vector<int>{1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(semCountAt(KEY), 12);
    const int segment = shmIdOf(KEY), set = semIdOf(KEY);
    EXPECT_EQ(failureOf<InfosPutterError>([&] { encoder.init(KEY); }).first, "InfosPutter::init programming error");
    EXPECT_TRUE(shmIdOf(KEY) == segment && semIdOf(KEY) == set);
    encoder.putMaxConn(3);
    EXPECT_EQ(RawSegment(KEY).words(SLATS, 10, SLAT), (std::vector<int>{FREE, FREE, FREE, 0, 0, 0, 0, 0, 0, 0}));
    writeWord(TOTAL, 7);
    encoder.putMaxConn(25);
    EXPECT_EQ(raw(MAX_CONN), 10);
    EXPECT_EQ(RawSegment(KEY).words(SLATS, 10, SLAT), std::vector<int>(10, FREE));
    EXPECT_EQ(rawBytes(SLATS + 4, SLAT - 4) + rawBytes(WEIGHTS, 40), std::string(SLAT - 4 + 40, '\0'));
    EXPECT_EQ(encoder.getConn(), 7);
    encoder.putMaxConn(-2);
    EXPECT_EQ(raw(MAX_CONN), -2);
    server.init(KEY);  // removal takes effect when the last process detaches
    encoder.putMaxConn(6);
    encoder.release();
    EXPECT_TRUE(!semIdAlive(set) && shmIdOf(KEY) == -1);
    EXPECT_EQ(server.getMaxConnections(), 6);
    encoder.release();
    expectEncoderRefusesAll(encoder);
    InfosPutter().init(KEY);
    EXPECT_TRUE(shmIdOf(KEY) == -1 && semIdOf(KEY) == -1);
    EXPECT_EQ(forceReleaseShm(KEY), 0);  // creates one and removes it
    EXPECT_EQ(shmIdOf(KEY), -1);
}

// Every word first holds its own offset (blob sizes it / 32, to fit their field): the puts must change
// exactly their words, each value read tells where it was read from. Profile -1 passes the signed
// bounds: its record lies in the slat table. IDs whose record lies outside are refused before a byte
// is written.
TEST_F(InfosArea, putsAndReadsMeetAtTheAbsoluteOffsetsOfEveryProfileMinusOneIncluded) {
    start();
    std::vector<int> image;  // the area, word by word
    for (size_t offset = 0; offset < SIZE; offset += 4) image.push_back(static_cast<int>(offset));
    auto at = [&](int p, long field) -> int& { return image[profile(p, field) / 4]; };
    for (int p = -1; p < MAX_MEDIA_POOL; ++p)
        for (long field : {SPS_SIZE, PPS_SIZE, VOL_SIZE}) at(p, field) /= 32;
    for (size_t w = 0; w < image.size(); ++w) writeWord(4 * w, image[w]);
    encoder.putSizeofPools(image[0] = 77);  // no bound of its own
    for (int p = -1; p < MAX_MEDIA_POOL; ++p) {
        const int v = 100 * (p + 2);
        encoder.putInfo(p, v + 1, v + 2, v + 3);
        encoder.putVideoInfo(p, v + 4, v + 5, v + 6);
        encoder.putAudioInfo(p, v + 7, v + 8, v + 9, v + 10);
        encoder.putSharedMemSize(p, v + 11);
        for (int f = 0; f < 11; ++f) at(p, 4 * f) = v + 1 + f;
    }
    for (int id : {INT_MIN, -2, 5, INT_MAX})
        for (const EncoderCall& c : ENCODER_CALLS) {
            if (c.outside.empty()) continue;
            EXPECT_EQ(failureOf<InfosPutterError>([&] { c.call(encoder, id); }), (Failure{c.outside, ""})) << id;
        }
    EXPECT_EQ(RawSegment(KEY).words(0, SIZE / 4), image);
    for (int p = -1; p < MAX_MEDIA_POOL; ++p) {
        std::vector<int> got(9), expected;
        server.getInfo(p, got[0], got[1], got[2]);
        server.getVideoInfo(p, got[3], got[4], got[5]);
        server.getAudioInfo(p, got[6], got[7], got[8]);
        for (int value : {server.getAudioFrameDuration(p), server.getSharedMemSize(p), wordAt(encoder.GetSDPHeader(p)),
                          wordAt(server.getSDPHeader(p)), wordAt(server.getSPS(p)), server.getSPSSize(p),
                          wordAt(server.getPPS(p)), server.getPPSSize(p), wordAt(server.getVOL(p)),
                          server.getVOLSize(p)})
            got.push_back(value);
        for (long field = STATE; field <= SDP_HEADER; field += 4) expected.push_back(at(p, field));
        for (long field : {SPS, SPS_SIZE, PPS, PPS_SIZE, VOL, VOL_SIZE}) expected.push_back(at(p, field));
        EXPECT_EQ(got, expected) << "profile " << p;
    }
    EXPECT_EQ(server.getSizeofPools(), 77);
    encoder.putState(3, -9);
    encoder.putVideoInfo(2, 1280, 0, -1);  // only values above 0
    encoder.putVideoInfo(1, -5, 720, 0);
    encoder.putAudioInfo(4, 0, -1, 0, -20);  // audio values as given
    RawSegment area(KEY);
    EXPECT_EQ(area.words(profile(3, STATE), 2), (std::vector<int>{-9, 502}));
    EXPECT_EQ(area.words(profile(2, WIDTH), 3), (std::vector<int>{1280, 405, 406}));
    EXPECT_EQ(area.words(profile(1, WIDTH), 3), (std::vector<int>{304, 720, 306}));
    EXPECT_EQ(area.words(profile(4, AUDIO_PARAM1), 4), (std::vector<int>{0, -1, 0, -20}));
    // Blob sizes never reach past their 256-byte field nor below 0.
    for (const auto& [stored, reported] : {std::pair{256, 256}, {257, 256}, {INT32_MAX, 256}, {-1, 0}}) {
        for (long field : {SPS_SIZE, PPS_SIZE, VOL_SIZE}) writeWord(profile(4, field), stored);
        EXPECT_EQ((std::vector<int>{server.getSPSSize(4), server.getPPSSize(4), server.getVOLSize(4)}),
                  std::vector<int>(3, reported)) << stored;
    }
}

// ------------------------------------------------------------- server reads

// Every read refuses with its own text an ID outside the segment, whatever the published count, and
// on an unattached getter; four are also bound by the count. Unattached, the budget's operations throw
// or write the line and the slat operations give their "nothing done" result.
TEST_F(InfosArea, readsAndBudgetRefuseWithTheirOwnTextsAndWriteNothing) {
    EXPECT_EQ(failureOf<InfosGetterError>([&] { server.init(KEY); }), (Failure{"shmget failed.", NO_AREA}));
    start(10, 2);
    writeWord(profile(2, SPS_SIZE), 17);
    const std::string before = rawBytes(0, SIZE);
    for (size_t i = 0; i < PROFILE_READS; ++i)
        for (int p : {2, 4}) {
            if (ACCESSORS[i].log == PROGRAMMING) expectAccessorRefuses(server, ACCESSORS[i], p);
            else EXPECT_NO_THROW(ACCESSORS[i].read(server, p)) << ACCESSORS[i].name;
        }
    EXPECT_EQ((std::vector<int>{server.getSPSSize(2), server.getState(1)}), (std::vector<int>{17, 0}));
    for (int published : {0, MAX_MEDIA_POOL, INT_MAX}) {
        encoder.putSizeofPools(published);
        for (int id : {INT_MIN, -2, 5, 6, INT_MAX})
            for (size_t i = 0; i < PROFILE_READS; ++i) expectAccessorRefuses(server, ACCESSORS[i], id);
    }
    encoder.putSizeofPools(2);
    for (bool afterRelease : {false, true}) {
        InfosGetter idle;
        if (afterRelease) idle.init(KEY), idle.release(-1);
        for (const Accessor& a : ACCESSORS) expectAccessorRefuses(idle, a, 0);
        expectProgrammingErrors<InfosGetterError>({[&] { idle.takeConn("a", "b", 1, 1, true); },
                                                   [&] { idle.getMaxConnections(); },
                                                   [&] { idle.getCurrentTotalConnections(); }}, "");
        std::string err;
        char buffer[USER_SLAT_SIZE * 2];
        captureOutput([&] {
            idle.retConn(-1);  // quiet, as the slat operations are
            EXPECT_EQ((std::vector<int>{idle.probeConn(0), idle.allocUserSlat("a", "b", 1, 4), idle.deleteUserSlat(0),
                                        idle.getUserList(buffer, sizeof buffer), idle.resetUserSlat("a", "b", 0)}),
                      (std::vector<int>{false, -1, 0, 0, 1}));
            idle.retConn(0);
        }, err);
        EXPECT_EQ(err, PROGRAMMING + PROGRAMMING);  // probeConn's and retConn(0)'s
    }
    EXPECT_EQ(rawBytes(0, SIZE), before);
}

// The memory size by channel is the first match over all five profiles, published or not: channel 0
// finds the first unused one. The SSL weight is 3 up to VGA's pixels, 4 above; the product is 32-bit
// and wraps as the firmware's does.
TEST_F(InfosArea, sharedMemSizeByChannelScansAllFiveProfilesAndSslWeightIsThreeUpToVgaPixels) {
    start(10, 3);
    const int channels[] = {2, 7, 5, 7};
    for (int p = 0; p < 4; ++p) encoder.putInfo(p, 2, channels[p], 1);
    for (int p = 0; p < MAX_MEDIA_POOL; ++p) encoder.putSharedMemSize(p, 1000 * (p + 1));
    std::vector<int> found;
    for (int channel : {7, 5, 9, 0}) found.push_back(server.getSharedMemSizebyChannel(channel));
    EXPECT_EQ(found, (std::vector<int>{2000, 3000, -1, 5000}));
    EXPECT_EQ(server.getUseSSLWeight(1), 3);  // nothing published: 0 x 0
    const int cases[][3] = {{640, 480, 3},     {641, 480, 4},     {480, 640, 3},     {307201, 1, 4},
                            {1920, 1080, 4},   {65536, 65536, 3}, {65536, 32768, 3}, {65537, 65537, 3},
                            {46341, 46341, 3}, {46340, 46340, 4}};
    for (const auto& c : cases) {
        encoder.putVideoInfo(2, c[0], c[1], 1);
        EXPECT_EQ(server.getUseSSLWeight(2), c[2]) << c[0] << " x " << c[1];
    }
}

// ------------------------------------------------------------------- budget

TEST_F(InfosArea, takeConnFillsTheFirstFreeSlatRetConnFreesItOnceAndResetFreesThemAll) {
    start();
    const time_t before = time(nullptr);
    EXPECT_EQ(server.takeConn("rtsp-7", "192.0.2.7:554", 6, 2, false), 0);
    const int32_t login = slatField(0, LOGIN_TIME);
    EXPECT_TRUE(login >= before && login <= time(nullptr));
    EXPECT_EQ((std::vector<int>{slatField(0, SLAT_ID), slatField(0, USER_TYPE), slatWeight(0), raw(TOTAL)}),
              (std::vector<int>{0, 6, 2, 2}));
    EXPECT_EQ(userName(0) + " " + userInfo(0), "rtsp-7 192.0.2.7:554");
    EXPECT_EQ(server.takeConn("second", nullptr, 1, 3, false), 1);
    EXPECT_EQ((std::vector<int>{raw(TOTAL), server.getCurrentTotalConnections(), encoder.getConn()}),
              (std::vector<int>{5, 5, 5}));
    server.retConn(0);
    EXPECT_TRUE(slatFree(0) && rawBytes(slat(0, USER_NAME), 96) == std::string(96, '\0'));
    EXPECT_EQ((std::vector<int>{slatField(0, USER_TYPE), slatField(0, LOGIN_TIME), raw(TOTAL)}),
              (std::vector<int>{6, login, 3}));  // type and time kept
    const std::string kept = rawBytes(0, SIZE);
    for (int s : {-1, -7, 10, 12}) server.retConn(s);
    EXPECT_EQ(rawBytes(0, SIZE), kept);
    writeWord(TOTAL, 1);  // never below 0
    server.retConn(1);
    EXPECT_EQ(raw(TOTAL), 0);
    EXPECT_EQ(server.takeConn("negative", "", 1, -2, false), 0);  // neither weight is checked
    EXPECT_EQ((std::vector<int>{slatWeight(0), raw(TOTAL)}), (std::vector<int>{-2, -2}));
    // resetAllConnections frees the slats below maxConn and counts the total again.
    for (int k = 0; k < 7; ++k) server.takeConn("user", "info", 1, k == 6 ? 2 : 1, false);
    encoder.putMaxConn(5);
    server.resetAllConnections();
    EXPECT_EQ((std::vector<int>{slatsTaken(), raw(TOTAL)}), (std::vector<int>{3, 4}));
    EXPECT_EQ(userName(5), "user");
    encoder.putMaxConn(10);
    writeWord(TOTAL, 1);
    server.resetAllConnections();
    EXPECT_EQ((std::vector<int>{slatsTaken(), raw(TOTAL)}), (std::vector<int>{0, 0}));
}

// probeConn keeps one unit in hand: a take that exactly fills the budget fits, a probe for it does not.
TEST_F(InfosArea, budgetRefusalsChangeNothingAndProbeIsStrict) {
    start(10);
    auto refused = [&](int weight, const std::string& text) {
        const std::string area = rawBytes(0, SIZE);
        EXPECT_EQ(failureOf<InfosGetterError>([&] { server.takeConn("x", "y", 1, weight, true); }).first, text);
        EXPECT_EQ(rawBytes(0, SIZE), area);
    };
    for (int k = 0; k < 3; ++k) EXPECT_EQ(server.takeConn("ssl", "client", 1, 3, false), k);
    EXPECT_TRUE(server.probeConn(0));
    EXPECT_FALSE(server.probeConn(1));
    refused(3, "no more slat.");
    EXPECT_EQ(server.takeConn("last", "unit", 1, 1, false), 3);
    EXPECT_FALSE(server.probeConn(0));
    refused(1, "no more slat.");
    EXPECT_EQ(server.takeConn("zero", "weight", 1, 0, false), 4);  // still fits a full budget
    server.resetAllConnections();
    encoder.putMaxConn(4);
    for (int k = 0; k < 4; ++k) EXPECT_EQ(server.takeConn("zero", "weight", 1, 0, false), k);
    refused(0, "slat alloc fail.");
    std::string err;
    char info[] = "i", name[] = "n";
    captureOutput([&] { EXPECT_EQ(Add_Active_User(info, name), -1); }, err);
    EXPECT_EQ(err + std::to_string(raw(TOTAL)), "Add_Active_User failed: slat alloc fail.\n0");
}

// Automatic return gives the slat back once, on release or destruction; a failed allocation overwrites
// the getter's own slat with -1 ("no more slat." keeps it); release(s) gives back s, not its own.
TEST_F(InfosArea, autoReturnGivesBackOnReleaseOrDestructionUnlessAFailedAllocationForgotIt) {
    start(2);
    {
        InfosGetter forgetful, holder;
        forgetful.init(KEY);
        holder.init(KEY);
        EXPECT_EQ(forgetful.takeConn("kept", "", 1, 0, true), 0);
        EXPECT_EQ(holder.takeConn("one", "", 1, 2, true), 1);
        EXPECT_EQ(failureOf<InfosGetterError>([&] { forgetful.takeConn("x", "", 1, 0, true); }).first,
                  "slat alloc fail.");
        EXPECT_EQ(failureOf<InfosGetterError>([&] { holder.takeConn("x", "", 1, 1, true); }).first, "no more slat.");
    }
    EXPECT_TRUE(userName(0) == "kept" && slatFree(1) && raw(TOTAL) == 0);
    server.retConn(0);
    encoder.putMaxConn(10);
    {
        InfosGetter client;
        client.init(KEY);
        EXPECT_EQ(client.takeConn("own", "", 1, 1, true), 0);
        EXPECT_EQ(server.takeConn("someone", "else", 1, 3, false), 1);
        client.release(1);
        EXPECT_TRUE(slatFree(1));
    }
    EXPECT_EQ(userName(0) + " " + std::to_string(raw(TOTAL)), "own 1");  // the destruction afterwards is quiet
}

// ------------------------------------------------------------- active users

// The slat operations leave the budget to their callers. Texts are cut to 31 and 63 bytes, a field's
// last byte is never written, a shorter text is padded with NULs and a missing one changes nothing.
TEST_F(InfosArea, slatOperationsLeaveTheBudgetAloneAndBoundTheTextsTheyWrite) {
    start(3);
    const std::string longName(40, 'n'), longInfo(80, 'i');
    EXPECT_EQ(server.allocUserSlat(longName.c_str(), longInfo.c_str(), 2, 9), 0);
    EXPECT_EQ(rawBytes(slat(0, USER_NAME), 96), std::string(31, 'n') + '\0' + std::string(63, 'i') + '\0');
    EXPECT_EQ((std::vector<int>{slatField(0, USER_TYPE), slatWeight(0), raw(TOTAL)}), (std::vector<int>{9, 2, 0}));
    EXPECT_EQ(server.resetUserSlat("ab", "cd", 0), 0);
    EXPECT_EQ(rawBytes(slat(0, USER_NAME), 96), "ab" + std::string(30, '\0') + "cd" + std::string(62, '\0'));
    encoderBase()[slat(0, USER_NAME) + 31] = 'Z';
    encoderBase()[slat(0, USER_INFO) + 63] = 'Y';
    EXPECT_EQ(server.resetUserSlat(longName.c_str(), longInfo.c_str(), 0), 0);
    EXPECT_EQ(rawBytes(slat(0, USER_NAME), 96), std::string(31, 'n') + 'Z' + std::string(63, 'i') + 'Y');
    EXPECT_EQ(server.resetUserSlat("new name", nullptr, 0), 0);
    EXPECT_EQ(userInfo(0), std::string(63, 'i') + 'Y');
    EXPECT_EQ(server.resetUserSlat(nullptr, "new info", 0), 0);
    EXPECT_EQ(userName(0) + "/" + userInfo(0), "new name/new info");
    EXPECT_EQ((std::vector<int>{server.allocUserSlat("c", "d", 1, 9), server.allocUserSlat("e", "f", 1, 9),
                                server.allocUserSlat("g", "h", 1, 9)}),
              (std::vector<int>{1, 2, -1}));
    EXPECT_EQ((std::vector<int>{server.deleteUserSlat(0), server.deleteUserSlat(0), server.deleteUserSlat(3),
                                server.deleteUserSlat(-1), server.deleteUserSlat(1), raw(TOTAL)}),
              (std::vector<int>{2, 0, 0, 0, 1, 0}));
    EXPECT_EQ(server.allocUserSlat(nullptr, nullptr, 1, 1), 0);
    EXPECT_EQ(rawBytes(slat(0, USER_NAME), 96), std::string(96, '\0'));
    // resetUserSlat reports only an index out of range: a free slat or one of weight 0 gives 0.
    server.deleteUserSlat(0);
    EXPECT_EQ(server.takeConn("weightless", "", 1, 0, false), 0);
    const std::string before = rawBytes(0, SIZE);
    for (int s : {11, 3, -1}) EXPECT_EQ(server.resetUserSlat("x", "y", s), 1) << s;
    writeWord(MAX_CONN, 12);  // not as the encoder writes it: the table still ends at 10
    EXPECT_EQ(server.resetUserSlat("x", "y", 10), 1);
    writeWord(MAX_CONN, 3);
    for (int s : {1, 0}) EXPECT_EQ(server.resetUserSlat("x", "y", s), 0) << s;
    EXPECT_EQ(rawBytes(0, SIZE), before);
}

// Without an area the perror line, then the function's own line (a refused slat's: with the budget).
TEST_F(InfosArea, activeUserFunctionsWriteThePerrorLineAndTheirOwnLineOnFailure) {
    char info[] = "i", name[] = "n", buffer[USER_SLAT_SIZE];
    const std::tuple<std::function<int()>, std::string, int> calls[] = {
        {[&] { return Add_Active_User(info, name); }, "Add_Active_User", -1},
        {[] { return Delete_Active_User(0); }, "Delete_Active_User", 1},
        {[&] { return Get_Active_User_Table(buffer, sizeof buffer); }, "Get_Active_User_Table", -1}};
    std::string err;
    int result = 0;
    for (const auto& [function, text, failed] : calls) {
        captureOutput([&, &function = function] { result = function(); }, err);
        EXPECT_EQ(std::to_string(result) + " " + err,
                  std::to_string(failed) + " " + NO_AREA + text + " failed: shmget failed.\n");
    }
}

// ----------------------------------------------------------------- snapshot

// The newest picture of a profile streaming JPEG (state 2, third value 1), from the pool on its channel,
// into a buffer that holds the pool's largest picture; nothing otherwise, nothing left attached. Errors of
// the area reach the caller, a missing pool gives nothing. On a pool with nothing written yet the newest
// slot is still closed: the snapshot waits for it.
TEST_F(InfosArea, snapshotCopiesTheNewestPictureWaitingForTheFirstAndOnlyErrorsOfTheAreaReachTheCaller) {
    constexpr int CHANNEL = 6, PROFILE = 1, MAX_FRAME = 64;
    keys.add(JPG_BASE_KEY + CHANNEL);
    JPGPutter pool;
    const auto put = [&](std::string bytes) { pool.putFrame(bytes.data(), static_cast<int>(bytes.size()), {}); };
    const auto snapshot = [](unsigned int size) {  // the count and a buffer of size bytes prefilled with '~'
        std::string buffer(size, '~');
        int n = JPGGetter::snapshot(reinterpret_cast<unsigned char*>(buffer.data()), size, PROFILE);
        return std::to_string(n) + " " + buffer;
    };
    const std::string NOTHING = "0 " + std::string(MAX_FRAME, '~');
    unsigned char buffer[MAX_FRAME];
    const auto call = [&] { JPGGetter::snapshot(buffer, MAX_FRAME, PROFILE); };
    EXPECT_EQ(failureOf<InfosGetterError>(call), (Failure{"shmget failed.", NO_AREA}));
    start(10, PROFILE);
    encoder.putInfo(PROFILE, 2, CHANNEL, 1);
    EXPECT_EQ(failureOf<InfosGetterError>(call), (Failure{"programming error", PROGRAMMING}));
    encoder.putSizeofPools(MAX_MEDIA_POOL);
    std::string err, copied;
    captureOutput([&] { copied = snapshot(MAX_FRAME); }, err);
    EXPECT_EQ(copied + err, NOTHING + NO_AREA);
    auto open = [&](int frames) {
        pool.release();
        captureOutput([&] { pool.init(CHANNEL, frames, MAX_FRAME, 1024), pool.reset(320, 240, 10, 80); }, err);
    };
    open(1);
    ForkedChild caller([&](ChildLink& link) {
        link.say(snapshot(MAX_FRAME));
        return 0;
    });
    ASSERT_TRUE(eventually([] { return lockWaiters(JPG_BASE_KEY + CHANNEL, 0) == 1; }));
    put("first complete picture");
    expectLastLine(caller, "22 first complete picture" + std::string(MAX_FRAME - 22, '~'));
    open(4);
    put("first");
    put("newest picture");
    EXPECT_EQ(snapshot(MAX_FRAME), "14 newest picture" + std::string(50, '~'));
    EXPECT_EQ(snapshot(MAX_FRAME - 1), "0 " + std::string(MAX_FRAME - 1, '~'));
    EXPECT_EQ(snapshot(0), "0 ");
    put("after");
    EXPECT_EQ(snapshot(MAX_FRAME + 1), "5 after" + std::string(MAX_FRAME - 4, '~'));
    const int poolAttachments = attachmentsOf(JPG_BASE_KEY + CHANNEL), areaAttachments = attachmentsOf(KEY);
    EXPECT_EQ(raw(TOTAL), 0);
    EXPECT_EQ(JPGGetter::snapshot(nullptr, MAX_FRAME, PROFILE, 1), 0);  // the four-argument form does nothing
    for (auto [state, param3] : {std::pair{1, 1}, {3, 1}, {2, 0}, {2, 2}, {0, 0}}) {
        encoder.putInfo(PROFILE, state, CHANNEL, param3);
        EXPECT_EQ(snapshot(MAX_FRAME), NOTHING) << state << " " << param3;
    }
    EXPECT_EQ(attachmentsOf(JPG_BASE_KEY + CHANNEL), poolAttachments);
    EXPECT_EQ(attachmentsOf(KEY), areaAttachments);
}

// The library's stand-in for the device's capability query: seven scales with their maximum rates.
TEST(ScaleLookup, defaultCapabilityTableAnswersSevenScalesAndTheLookupFindsThem) {
    const int scales[][4] = {{1920, 1080, 30, 0}, {1280, 720, 30, 0}, {800, 600, 30, 0}, {640, 480, 30, 0},
                             {640, 360, 30, 0},   {320, 240, 30, 0},  {176, 144, 15, 0}};
    for (int scale = -1; scale <= 7; ++scale) {
        int v[4] = {-1, -1, -1, -1};
        const bool known = scale >= 0 && scale < 7;
        EXPECT_EQ(get_real_capability_by_profile_n_scale(v[0], v[1], v[2], v[3], 5, scale), known ? 0 : -1);
        EXPECT_EQ(std::vector<int>(v, v + 4), known ? std::vector<int>(scales[scale], scales[scale] + 4)
                                                    : std::vector<int>(4, 0)) << scale;
        EXPECT_EQ(JPGGetter::getScaleByWidthAndHeight(known ? scales[scale][0] : 1080, known ? scales[scale][1] : 1920),
                  known ? scale : -1);
    }
    EXPECT_EQ(JPGGetter::getScaleByWidthAndHeight(640, 481), -1);
    EXPECT_EQ(JPGGetter::getScaleByWidthAndHeight(0, 0), 7);  // unknown scales report size 0
}

// ------------------------------------------------------ budget across processes

namespace {

// Takes and returns connections without pause, so that kills land anywhere in the budget's code.
int serve(int index) {
    InfosGetter a, b;
    a.init(KEY), b.init(KEY);
    for (int i = index;; ++i) {
        try {
            const int taken = a.takeConn("server", "kill loop", 1, 1 + i % 3, true);
            if (i % 3 == 0) b.retConn(b.takeConn("server", "second", 1, 1, true));
            a.retConn(taken);
        } catch (const InfosGetterError&) {
        }
    }
}
// Under the servers' lock every slat is free or whole (its ID, weight 1 to 3, the servers' name) but the
// one the journal names, and the total is the sum of the weights, within the budget: the first time not,
// the checker ends with 3.
int checkWhole(ChildLink& link) {
    RawSegment area(KEY);
    for (int checks = 0;; ++checks) {
        if (checks == 1) link.say("checked");
        if (!adjustWithUndo(KEY, 0, -1)) return 2;
        const int torn = lockValue(KEY, JOURNAL) - 1;
        int32_t sum = 0;
        for (int i = 0; i < MAX_USER_SLATS; ++i) {
            const int32_t id = area.i32(slat(i, SLAT_ID)), w = area.i32(weight(i));
            const char* name = reinterpret_cast<const char*>(area.at(slat(i, USER_NAME)));
            const bool whole = id == i && w >= 1 && w <= 3 && strcmp(name, "server") == 0;
            if (i != torn && !whole && !(id == FREE && w == 0 && name[0] == 0)) return 3;
            sum += whole ? w : 0;
        }
        if (torn < 0 && (sum != area.i32(TOTAL) || sum > area.i32(MAX_CONN))) return 3;
        if (!adjustWithUndo(KEY, 0, +1)) return 2;
        usleep(200);
    }
}

}  // namespace

// Eight servers contend for a budget of 10, killed at random hundreds of times (AVPOOL_FAULT_CYCLES for
// a long run), inside the lock too: nothing is seen half-written or miscounted under the lock, the lock
// is never left held, and once the last server is gone every unit and semaphore is back.
TEST_F(InfosArea, killedServersNeverLeaveAHalfWrittenSlatAndTheirUnitsComeBack) {
    constexpr int SERVERS = 8;
    start(10);
    std::vector<std::unique_ptr<ForkedChild>> servers;
    for (int s = 0; s < SERVERS; ++s)
        servers.push_back(std::make_unique<ForkedChild>([s](ChildLink&) { return serve(s); }));
    ForkedChild checker(checkWhole);
    unsigned random = 12345;
    for (int k = faultCycles(150); k > 0; --k) {
        random = random * 1103515245 + 12345;
        const int victim = static_cast<int>(random >> 16) % SERVERS;
        usleep(200 + (random >> 8) % 2000);
        servers[victim]->signal(SIGKILL);
        ASSERT_EQ(servers[victim]->wait(5000).signal, SIGKILL) << "server " << victim;
        servers[victim] = std::make_unique<ForkedChild>([victim](ChildLink&) { return serve(victim); });
    }
    for (auto& s : servers) s->signal(SIGKILL);
    for (auto& s : servers) s->wait();
    expectLine(checker, "checked");
    checker.signal(SIGKILL);  // holding the lock or not: the kernel gives it back
    const ExitStatus checked = checker.wait();
    EXPECT_EQ(checked.signal, SIGKILL) << "the checker saw a half-written slat or a miscount: " << checked.describe();
    ASSERT_EQ(lockValue(KEY, 0), 1) << "a killed server left the lock held";
    EXPECT_EQ((std::vector<int>{server.getCurrentTotalConnections(), slatsTaken()}), (std::vector<int>{0, 0}));
    EXPECT_EQ(lockValues(KEY, 12), std::vector<int>({1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
}

// Servers whose area's lock went away, before or after they attached, work without it.
TEST_F(InfosArea, serversRunUnlockedWhenTheAreaHasNoLock) {
    start(10);
    ASSERT_EQ(semctl(semIdOf(KEY), 0, IPC_RMID), 0);
    ForkedChild servers([this](ChildLink& link) {
        InfosGetter late;
        late.init(KEY);
        const int a = server.takeConn("early", "", 1, 2, false), b = late.takeConn("late", "", 1, 3, false);
        late.retConn(a);
        char buffer[4 * USER_SLAT_SIZE];
        link.say(std::to_string(a) + " " + std::to_string(b) + " " + std::to_string(late.getUserList(buffer, 432)));
        return 0;
    });
    expectLastLine(servers, "0 1 1");
    encoder.putMaxConn(4);
    EXPECT_EQ((std::vector<int>{raw(MAX_CONN), raw(TOTAL)}), (std::vector<int>{4, 3}));
}

// A process dead between the stores of a slat (ID written, weight not, total counted) leaves its journal
// mark: the next holder of the lock frees that slat and counts the total again. A slat taken with automatic
// return comes back at the next use of the budget after its process is killed; one taken without (an active
// user) is meant to outlive its taker and stays.
TEST_F(InfosArea, nextLockHolderFreesWhatKilledProcessesLeftButNotSlatsMeantToOutliveThem) {
    start(10);
    ASSERT_EQ(server.takeConn("kept", "", 1, 2, false), 0);
    ForkedChild dying([this](ChildLink&) {
        if (!adjustWithUndo(KEY, 0, -1) || !setLockValue(KEY, JOURNAL, 1 + 3)) return 2;
        writeWord(slat(3, SLAT_ID), 3);
        strcpy(reinterpret_cast<char*>(encoderBase() + slat(3, USER_NAME)), "torn");
        writeWord(TOTAL, 2 + 5);
        return 0;  // dies holding the lock: the kernel gives the lock back, not the stores
    });
    ASSERT_TRUE(dying.wait().ok());
    ASSERT_EQ(slatField(3, SLAT_ID), 3);
    EXPECT_FALSE(server.probeConn(8)) << "8 more units fit only in a budget of 2 taken";
    EXPECT_TRUE(slatFree(3));
    EXPECT_EQ(userName(3), "");
    EXPECT_EQ((std::vector<int>{raw(TOTAL), lockValue(KEY, JOURNAL), slatField(0, SLAT_ID), slatWeight(0)}),
              (std::vector<int>{2, 0, 0, 2}));
    EXPECT_TRUE(server.probeConn(7));
    ForkedChild holder([](ChildLink& link) -> int {
        InfosGetter streaming, user;
        streaming.init(KEY);
        user.init(KEY);
        const int a = streaming.takeConn("viewer", "10.0.0.7", 1, 3, true);
        const int b = user.takeConn("admin", "console", 4, 1, false);
        link.say(std::to_string(a) + " " + std::to_string(b));
        for (;;) pause();
    });
    ASSERT_NO_FATAL_FAILURE(expectLine(holder, "1 2"));
    EXPECT_EQ((std::vector<int>{raw(TOTAL), lockValue(KEY, HOLDER + 1), lockValue(KEY, HOLDER + 2)}),
              (std::vector<int>{6, 2, 0}));
    holder.signal(SIGKILL);
    ASSERT_EQ(holder.wait().signal, SIGKILL);
    EXPECT_EQ(lockValue(KEY, HOLDER + 1), 1) << "the kernel takes back the dead holder's unit";
    EXPECT_EQ(raw(TOTAL), 6) << "nothing changes before the budget is used";
    EXPECT_EQ(server.getCurrentTotalConnections(), 3);
    EXPECT_TRUE(slatFree(1) && lockValue(KEY, HOLDER + 1) == 0);
    EXPECT_EQ(userName(2) + " " + std::to_string(slatWeight(2)), "admin 1");
    // Returned by anyone, a slat no longer counts on its first holder.
    EXPECT_EQ(server.takeConn("next", "", 1, 2, true), 1);
    EXPECT_EQ(lockValue(KEY, HOLDER + 1), 2);
    server.retConn(1);
    EXPECT_EQ((std::vector<int>{lockValue(KEY, HOLDER + 1), raw(TOTAL)}), (std::vector<int>{0, 3}));
    EXPECT_EQ(server.takeConn("again", "", 1, 2, true), 1);
    server.resetAllConnections();  // and so does every slat freed at once
    EXPECT_EQ((std::vector<int>{lockValue(KEY, HOLDER + 1), raw(TOTAL)}), (std::vector<int>{0, 0}));
}
