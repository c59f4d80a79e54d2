// Information area section of the interop peer. The producer is the encoder: it
// publishes the profile count, the connection budget and several profiles with
// distinctive values, writing each SDP block in place. The consumer is a server
// built for the other machine: it compares the whole area with an image built
// from the layout alone (explicit offsets, little-endian words), reads every
// value through InfosGetter, then takes connections of mixed weights and one
// active user. The producer in turn checks the slats, weights and budget the
// other build wrote; the consumer returns them and the producer sees the
// budget back at 0, with what freeing a slat leaves behind.
#include "peer.h"

#include "ipc_harness.h"

#include <avpool/infos.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <initializer_list>
#include <vector>

namespace interop {
namespace {

using namespace avpool::test;

constexpr int POOLS = 3;     // profiles 0 to 2 are published as in use
constexpr int MAX_CONN = 8;  // slats 8 and 9 are never marked free
constexpr int NO_SLAT = -1;

// Offsets, straight from the layout tables.
constexpr size_t AREA_SIZE = 6552;
constexpr size_t SLATS_AT = 12;
constexpr size_t SLAT_SIZE = 108;
constexpr size_t WEIGHTS_AT = 1092;
constexpr size_t PROFILES_AT = 1132;
constexpr size_t PROFILE_SIZE = 1084;
constexpr size_t SDP_AT = 44;  // in a profile record
constexpr size_t SDP_TEXT = SDP_AT + 4, SPS = SDP_AT + 260, SPS_SIZE = SDP_AT + 516, PPS = SDP_AT + 520,
                 PPS_SIZE = SDP_AT + 776, VOL = SDP_AT + 780, VOL_SIZE = SDP_AT + 1036;
constexpr int FREE_SLAT = 32767;

size_t slatAt(int i) {
    return SLATS_AT + SLAT_SIZE * i;
}
size_t profileAt(int p) {
    return PROFILES_AT + PROFILE_SIZE * p;
}

// ---------------------------------------------------------------- the scenario

struct Profile {
    int id;
    int state, channel, param3;
    int width, height, videoParam3;
    int widthLater;  // putVideoInfo(id, widthLater, 0, -1) afterwards: only the width changes
    int stateLater;  // putState afterwards, 0 for none
    int a1, a2, a3, frameDuration;
    int sharedMemSize;
    int sdpWord;
    const char* sdpText;
    int spsSize, ppsSize, volSize;
    int sslWeight;  // from the final picture size
};

// Profile 3 stays unused (all zero); profile 4 is written but lies past the
// published count, and shares its channel with profile 1.
const Profile PROFILES[] = {
    {0, 1, 3, 0x0A0B0C0D, 640, 480, 30, 0, 0, 16000, 1, -7, 64, 1048576 + 3, 0x11223344,
     "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n", 23, 4, 0, 3},
    {1, 2, 7, 77, 1280, 720, 25, 1920, 0, 8000, 2, 3, 20, 3145728 + 1, -559038737,
     "m=video 0 RTP/AVP 97\r\na=rtpmap:97 H264/90000\r\na=framerate:25\r\n", 31, 6, 0, 4},
    {2, 5, 4, 0, 641, 480, 15, 0, 9, 48000, 1, 0, 21, 524288 + 5, 0x7FFFFFFF,
     "m=video 0 RTP/AVP 98\r\na=rtpmap:98 MP4V-ES/90000\r\n", 0, 0, 18, 4},
    {4, 3, 7, 12345, 352, 288, 5, 0, 0, 11025, 1, 8, 93, 262144 + 7, 1,
     "m=audio 0 RTP/AVP 0\r\n", 256, 256, 256, 3},
};

int finalState(const Profile& p) {
    return p.stateLater != 0 ? p.stateLater : p.state;
}
int finalWidth(const Profile& p) {
    return p.widthLater != 0 ? p.widthLater : p.width;
}
const Profile* profileOf(int id) {
    for (const Profile& p : PROFILES)
        if (p.id == id) return &p;
    return nullptr;
}

// Blob b (0 SPS, 1 PPS, 2 VOL) of profile p.
unsigned char blobByte(int p, int b, int j) {
    return static_cast<unsigned char>((p * 59 + b * 17 + j * 13) ^ 0xA5);
}

struct Connection {
    const char* userName;
    const char* userInfo;
    int userType;
    int weight;  // -1: the SSL weight of profile 1, as the server asks for it
    bool activeUser;  // through Add_Active_User(userInfo, userName): type 4, weight 1
    int slat;
};

const Connection CONNECTIONS[] = {
    {"rtsp-viewer", "192.168.7.21:554 /profile1 over TLS", 2, -1, false, 0},
    {"a-user-name-that-runs-well-past-its-31-bytes",
     "recorder writing /mnt/sd/record/2024/0001 to the card, with an info text past 63 bytes", 7, 2, false, 1},
    {"probe", "weight zero: taken, never listed", 9, 0, false, 2},
    {"admin", "web console 10.0.0.5", 4, 1, true, 3},
};
constexpr int TAKEN_TOTAL = 4 + 2 + 0 + 1;

int weightOf(const Connection& c) {
    return c.weight < 0 ? PROFILES[1].sslWeight : c.weight;
}

// ---------------------------------------------------------------- the model

// The area as the encoder's calls and the servers' connections must have left
// it, built from the documented layout without the library's structs.
class AreaModel : public SegmentImage {
public:
    AreaModel() : SegmentImage(AREA_SIZE, 0) {
        setWord(0, POOLS);
        setWord(4, MAX_CONN);
        for (int i = 0; i < MAX_CONN; ++i) setWord(slatAt(i), FREE_SLAT);
        for (const Profile& p : PROFILES) {
            size_t at = profileAt(p.id);
            int values[] = {finalState(p), p.channel, p.param3, finalWidth(p), p.height, p.videoParam3,
                            p.a1, p.a2, p.a3, p.frameDuration, p.sharedMemSize, p.sdpWord};
            for (size_t k = 0; k < sizeof values / sizeof values[0]; ++k) setWord(at + 4 * k, values[k]);
            memcpy(&image_[at + SDP_TEXT], p.sdpText, strlen(p.sdpText));
            int sizes[] = {p.spsSize, p.ppsSize, p.volSize};
            size_t blobs[] = {SPS, PPS, VOL};
            for (int b = 0; b < 3; ++b) {
                for (int j = 0; j < sizes[b]; ++j) image_[at + blobs[b] + j] = blobByte(p.id, b, j);
                setWord(at + blobs[b] + 256, sizes[b]);
            }
        }
    }

    void take(const Connection& c) {
        size_t at = slatAt(c.slat);
        setWord(at, c.slat);
        setWord(at + 4, c.userType);
        // Cut as the slat keeps them: 31 and 63 bytes at most, NUL-padded.
        strncpy(reinterpret_cast<char*>(&image_[at + 8]), c.userName, 31);
        strncpy(reinterpret_cast<char*>(&image_[at + 40]), c.userInfo, 63);
        setWord(WEIGHTS_AT + 4 * c.slat, weightOf(c));
        setWord(8, i32(8) + weightOf(c));
    }

    // Freeing keeps userType and loginTime.
    void giveBack(int slat) {
        size_t at = slatAt(slat);
        setWord(at, FREE_SLAT);
        memset(&image_[at + 8], 0, 96);
        setWord(8, i32(8) - i32(WEIGHTS_AT + 4 * slat));
        setWord(WEIGHTS_AT + 4 * slat, 0);
    }

    void setLoginTime(int slat, int seconds) { setWord(slatAt(slat) + 104, seconds); }
};

std::string fieldAt(size_t offset) {
    static const char* const header[] = {"sizeofPools", "maxConn", "currentTotalConnections"};
    static const char* const profile[] = {"state",       "channel",     "infoParam3",  "width",
                                          "height",      "videoParam3", "audioParam1", "audioParam2",
                                          "audioParam3", "audioFrameDuration", "sharedMemSize", "sdpBlockWord"};
    if (offset < SLATS_AT) return header[offset / 4];
    if (offset < WEIGHTS_AT) {
        size_t in = (offset - SLATS_AT) % SLAT_SIZE;
        std::string slat = "slat[" + std::to_string((offset - SLATS_AT) / SLAT_SIZE) + "].";
        if (in < 8) return slat + (in < 4 ? "slatID" : "userType");
        if (in < 40) return slat + "userName+" + std::to_string(in - 8);
        if (in < 104) return slat + "userInfo+" + std::to_string(in - 40);
        return slat + "loginTime";
    }
    if (offset < PROFILES_AT) return "slatWeight[" + std::to_string((offset - WEIGHTS_AT) / 4) + "]";
    size_t in = (offset - PROFILES_AT) % PROFILE_SIZE;
    std::string p = "profile[" + std::to_string((offset - PROFILES_AT) / PROFILE_SIZE) + "].";
    if (in < SDP_TEXT) return p + profile[in / 4];
    if (in < SPS) return p + "sdpHeader+" + std::to_string(in - SDP_TEXT);
    if (in < SPS_SIZE) return p + "sps+" + std::to_string(in - SPS);
    if (in < PPS) return p + "spsSize";
    if (in < PPS_SIZE) return p + "pps+" + std::to_string(in - PPS);
    if (in < VOL) return p + "ppsSize";
    if (in < VOL_SIZE) return p + "vol+" + std::to_string(in - VOL);
    return p + "volSize";
}

// The whole area against the model. The login times of the slats in use are
// the taker's clock: each must lie within [since, now] (a second of slack each
// way), and is then taken into the model.
void checkArea(Checks& checks, const RawSegment& raw, AreaModel& model, const std::string& phase, time_t since,
               std::initializer_list<int> loginSlats) {
    if (!checks.equal(phase + ": area size", AREA_SIZE, raw.size())) return;
    time_t now = time(nullptr);
    for (int slat : loginSlats) {
        int login = raw.i32(slatAt(slat) + 104);
        checks.expect(login >= since - 1 && login <= now + 1, phase + ": slat " + std::to_string(slat) + " loginTime",
                      std::to_string(login) + " not within " + std::to_string(since) + ".." + std::to_string(now));
        model.setLoginTime(slat, login);
    }
    checks.bytes(phase + ": area", model.image().data(), raw.at(0), AREA_SIZE, 0, fieldAt);
}

// ---------------------------------------------------------------- producer

void publish(InfosPutter& putter) {
    putter.putSizeofPools(POOLS);
    putter.putMaxConn(MAX_CONN);
    for (const Profile& p : PROFILES) {
        putter.putInfo(p.id, p.state, p.channel, p.param3);
        putter.putVideoInfo(p.id, p.width, p.height, p.videoParam3);
        if (p.widthLater != 0) putter.putVideoInfo(p.id, p.widthLater, 0, -1);
        putter.putAudioInfo(p.id, p.a1, p.a2, p.a3, p.frameDuration);
        putter.putSharedMemSize(p.id, p.sharedMemSize);
        // The encoder writes its SDP block in place.
        SDPBlock* block = reinterpret_cast<SDPBlock*>(putter.GetSDPHeader(p.id));
        block->sdpBlockWord = p.sdpWord;
        strncpy(block->sdpHeader, p.sdpText, sizeof block->sdpHeader - 1);
        for (int j = 0; j < p.spsSize; ++j) block->sps[j] = blobByte(p.id, 0, j);
        for (int j = 0; j < p.ppsSize; ++j) block->pps[j] = blobByte(p.id, 1, j);
        for (int j = 0; j < p.volSize; ++j) block->vol[j] = blobByte(p.id, 2, j);
        block->spsSize = p.spsSize;
        block->ppsSize = p.ppsSize;
        block->volSize = p.volSize;
        if (p.stateLater != 0) putter.putState(p.id, p.stateLater);
    }
}

void produce(const Rendezvous& meet, Checks& checks) {
    InfosPutter putter;
    putter.init(INFOS_KEY);
    publish(putter);
    time_t since = time(nullptr);
    meet.mark("ready");

    AreaModel model;
    if (checks.expect(meet.waitFor("taken", WAIT_SECONDS), "consumer took its connections")) {
        RawSegment raw(INFOS_KEY);
        for (const Connection& c : CONNECTIONS) model.take(c);
        checkArea(checks, raw, model, "connections taken", since, {0, 1, 2, 3});
        checks.equal("getConn with connections taken", TAKEN_TOTAL, putter.getConn());
        meet.mark("checked");
        if (checks.expect(meet.waitFor("returned", WAIT_SECONDS), "consumer returned its connections")) {
            for (const Connection& c : CONNECTIONS) model.giveBack(c.slat);
            checkArea(checks, raw, model, "connections returned", since, {});
            checks.equal("getConn with connections returned", 0, putter.getConn());
        }
    }
    checks.expect(meet.waitFor("done", WAIT_SECONDS), "consumer finished");
    putter.release();
    expectReleased(checks, INFOS_KEY);
}

// ---------------------------------------------------------------- consumer

class Server {
public:
    Server(Checks& checks) : checks_(checks), raw_(INFOS_KEY) {}

    void run(const Rendezvous& meet) {
        if (!checks_.expect(raw_.attached(), "raw read-only attach of the area")) return;
        int lock = semIdOf(INFOS_KEY);
        checks_.equal("twelve semaphores in the budget set", 12, lock == -1 ? -1 : semCountOf(lock));
        checks_.equal("lock free", 1, lockValue(INFOS_KEY, 0));
        getter_.init(INFOS_KEY);
        checkArea(checks_, raw_, model_, "published", 0, {});
        checkParameters();
        time_t since = time(nullptr);
        takeConnections();
        checkArea(checks_, raw_, model_, "connections taken", since, {0, 1, 2, 3});
        checkUserTable();
        meet.mark("taken");
        if (!checks_.expect(meet.waitFor("checked", WAIT_SECONDS), "producer checked the connections")) return;
        returnConnections();
        checkArea(checks_, raw_, model_, "connections returned", since, {});
        checks_.equal("lock free at the end", 1, lockValue(INFOS_KEY, 0));
        meet.mark("returned");
    }

private:
    template <class Call>
    void expectThrow(const std::string& what, const char* message, Call call) {
        try {
            call();
            checks_.fail(what, "no exception");
        } catch (const InfosGetterError& e) {
            checks_.expect(strcmp(e.what(), message) == 0, what + " message", e.what());
        }
    }

    void checkText(const std::string& what, const char* expected, const char* got) {
        checks_.expect(strcmp(expected, got) == 0, what, std::string("expected \"") + expected + "\", got \"" + got + "\"");
    }

    void checkParameters() {
        checks_.equal("getSizeofPools", POOLS, getter_.getSizeofPools());
        checks_.equal("getMaxConnections", MAX_CONN, getter_.getMaxConnections());
        checks_.equal("getCurrentTotalConnections", 0, getter_.getCurrentTotalConnections());
        const char* base = getter_.getSDPHeader(0);
        for (int id = 0; id < 5; ++id) {
            const Profile* p = profileOf(id);
            Profile unused{};
            unused.id = id;
            unused.sdpText = "";
            const Profile& e = p != nullptr ? *p : unused;
            std::string at = "profile " + std::to_string(id) + ": ";
            if (id < POOLS) {
                int a = 0, b = 0, c = 0;
                getter_.getInfo(id, a, b, c);
                checks_.equal(at + "getInfo state", finalState(e), a);
                checks_.equal(at + "getInfo channel", e.channel, b);
                checks_.equal(at + "getInfo param3", e.param3, c);
                checks_.equal(at + "getState", finalState(e), getter_.getState(id));
                getter_.getVideoInfo(id, a, b, c);
                checks_.equal(at + "getVideoInfo width", finalWidth(e), a);
                checks_.equal(at + "getVideoInfo height", e.height, b);
                checks_.equal(at + "getVideoInfo param3", e.videoParam3, c);
                getter_.getAudioInfo(id, a, b, c);
                checks_.equal(at + "getAudioInfo a1", e.a1, a);
                checks_.equal(at + "getAudioInfo a2", e.a2, b);
                checks_.equal(at + "getAudioInfo a3", e.a3, c);
                checks_.equal(at + "getUseSSLWeight", e.sslWeight, getter_.getUseSSLWeight(id));
            } else {
                // Bounded by the published count, not by the five records.
                expectThrow(at + "getState past sizeofPools", "programming error", [&] { getter_.getState(id); });
            }
            checks_.equal(at + "getAudioFrameDuration", e.frameDuration, getter_.getAudioFrameDuration(id));
            checks_.equal(at + "getSharedMemSize", e.sharedMemSize, getter_.getSharedMemSize(id));
            const char* text = getter_.getSDPHeader(id);
            checks_.equal(at + "getSDPHeader offset", static_cast<long long>(PROFILE_SIZE * id),
                          static_cast<long long>(text - base));
            checkText(at + "getSDPHeader", e.sdpText, text);
            checkBlob(at + "getSPS", id, SPS, getter_.getSPS(id), text, e.spsSize, getter_.getSPSSize(id));
            checkBlob(at + "getPPS", id, PPS, getter_.getPPS(id), text, e.ppsSize, getter_.getPPSSize(id));
            checkBlob(at + "getVOL", id, VOL, getter_.getVOL(id), text, e.volSize, getter_.getVOLSize(id));
        }
        checks_.equal("getSharedMemSizebyChannel(7): profile 1 before profile 4", PROFILES[1].sharedMemSize,
                      getter_.getSharedMemSizebyChannel(7));
        checks_.equal("getSharedMemSizebyChannel(4)", PROFILES[2].sharedMemSize, getter_.getSharedMemSizebyChannel(4));
        checks_.equal("getSharedMemSizebyChannel(0) matches unused profile 3", 0, getter_.getSharedMemSizebyChannel(0));
        checks_.equal("getSharedMemSizebyChannel(99)", -1, getter_.getSharedMemSizebyChannel(99));
    }

    // A blob pointer lies at its offset from the SDP text, and its size and
    // bytes are the encoder's.
    void checkBlob(const std::string& what, int id, size_t at, const unsigned char* blob, const char* text, int size,
                   int gotSize) {
        checks_.equal(what + " offset", static_cast<long long>(at - SDP_TEXT),
                      static_cast<long long>(blob - reinterpret_cast<const unsigned char*>(text)));
        if (!checks_.equal(what + "Size", size, gotSize) || size == 0) return;
        size_t absolute = profileAt(id) + at;
        checks_.bytes(what + " bytes", model_.image().data() + absolute, blob, size, absolute, fieldAt);
    }

    void takeConnections() {
        for (const Connection& c : CONNECTIONS) {
            std::string what = std::string("take slat ") + std::to_string(c.slat);
            int slat = NO_SLAT;
            if (c.activeUser) {
                // The crossed arguments: the info text first, the name second.
                slat = Add_Active_User(const_cast<char*>(c.userInfo), const_cast<char*>(c.userName));
            } else {
                int weight = c.weight < 0 ? getter_.getUseSSLWeight(1) : c.weight;
                slat = getter_.takeConn(c.userName, c.userInfo, c.userType, weight, false);
            }
            checks_.equal(what, c.slat, slat);
            model_.take(c);
            checks_.equal(what + ": getCurrentTotalConnections", model_.i32(8), getter_.getCurrentTotalConnections());
        }
        // One unit is left: the strict probe says no, and two units are refused.
        checks_.equal("probeConn(1) with one unit left", false, getter_.probeConn(1));
        checks_.equal("probeConn(0) with one unit left", true, getter_.probeConn(0));
        expectThrow("takeConn over the budget", "no more slat.",
                    [&] { getter_.takeConn("late", "over budget", 2, 2, false); });
        checks_.equal("budget unchanged by the refusal", TAKEN_TOTAL, getter_.getCurrentTotalConnections());
    }

    // Packed records of the slats with a weight, in slat order, as many as fit.
    void checkUserTable() {
        const int listed[] = {0, 1, 3};
        for (int size : {100, 300, 400}) {
            std::vector<char> buffer(size, 0x5A);
            int got = Get_Active_User_Table(buffer.data(), size);
            int fit = std::min(size / static_cast<int>(SLAT_SIZE), 3);
            std::string what = "Get_Active_User_Table(" + std::to_string(size) + ")";
            if (!checks_.equal(what, fit, got)) continue;
            for (int k = 0; k < fit; ++k)
                checks_.bytes(what + " record " + std::to_string(k), raw_.at(slatAt(listed[k])),
                              reinterpret_cast<const unsigned char*>(buffer.data()) + SLAT_SIZE * k, SLAT_SIZE,
                              slatAt(listed[k]), fieldAt);
        }
    }

    void returnConnections() {
        for (const Connection& c : CONNECTIONS) {
            std::string what = std::string("return slat ") + std::to_string(c.slat);
            if (c.activeUser) {
                checks_.equal(what + " by Delete_Active_User", 0, Delete_Active_User(c.slat));
                checks_.equal(what + " again", 0, Delete_Active_User(c.slat));
            } else {
                getter_.retConn(c.slat);
            }
            model_.giveBack(c.slat);
            checks_.equal(what + ": getCurrentTotalConnections", model_.i32(8), getter_.getCurrentTotalConnections());
        }
        getter_.retConn(-1);
        getter_.retConn(12);
        checks_.equal("retConn(-1) and retConn(12) change nothing", 0, getter_.getCurrentTotalConnections());
    }

    Checks& checks_;
    RawSegment raw_;
    AreaModel model_;
    InfosGetter getter_;
};

void consume(const Rendezvous& meet, Checks& checks) {
    if (!checks.expect(meet.waitFor("ready", WAIT_SECONDS), "producer ready")) return;
    Server(checks).run(meet);
}

// ---------------------------------------------------------------- layout

void layout() {
    printf("INFOS constants INFOS_KEY=%d INFOS_AREA_SIZE=%d MAX_MEDIA_POOL=%d MAX_USER_SLATS=%d FREE_SLAT_ID=%d\n",
           INFOS_KEY, INFOS_AREA_SIZE, MAX_MEDIA_POOL, MAX_USER_SLATS, FREE_SLAT_ID);
    printLayout("InfoArea", sizeof(InfoArea), alignof(InfoArea),
                {INTEROP_FIELD(InfoArea, sizeofPools), INTEROP_FIELD(InfoArea, maxConn),
                 INTEROP_FIELD(InfoArea, currentTotalConnections), INTEROP_FIELD(InfoArea, slats),
                 INTEROP_FIELD(InfoArea, slatWeight), INTEROP_FIELD(InfoArea, profiles)});
    printLayout("UserSlat", sizeof(UserSlat), alignof(UserSlat),
                {INTEROP_FIELD(UserSlat, slatID), INTEROP_FIELD(UserSlat, userType), INTEROP_FIELD(UserSlat, userName),
                 INTEROP_FIELD(UserSlat, userInfo), INTEROP_FIELD(UserSlat, loginTime)});
    printLayout("MediaProfileInfo", sizeof(MediaProfileInfo), alignof(MediaProfileInfo),
                {INTEROP_FIELD(MediaProfileInfo, state), INTEROP_FIELD(MediaProfileInfo, channel),
                 INTEROP_FIELD(MediaProfileInfo, infoParam3), INTEROP_FIELD(MediaProfileInfo, width),
                 INTEROP_FIELD(MediaProfileInfo, height), INTEROP_FIELD(MediaProfileInfo, videoParam3),
                 INTEROP_FIELD(MediaProfileInfo, audioParam1), INTEROP_FIELD(MediaProfileInfo, audioParam2),
                 INTEROP_FIELD(MediaProfileInfo, audioParam3), INTEROP_FIELD(MediaProfileInfo, audioFrameDuration),
                 INTEROP_FIELD(MediaProfileInfo, sharedMemSize), INTEROP_FIELD(MediaProfileInfo, sdp)});
    printLayout("SDPBlock", sizeof(SDPBlock), alignof(SDPBlock),
                {INTEROP_FIELD(SDPBlock, sdpBlockWord), INTEROP_FIELD(SDPBlock, sdpHeader),
                 INTEROP_FIELD(SDPBlock, sps), INTEROP_FIELD(SDPBlock, spsSize), INTEROP_FIELD(SDPBlock, pps),
                 INTEROP_FIELD(SDPBlock, ppsSize), INTEROP_FIELD(SDPBlock, vol), INTEROP_FIELD(SDPBlock, volSize)});
}

}  // namespace

const PoolKind infosKind{"infos", layout, produce, consume};

}  // namespace interop
