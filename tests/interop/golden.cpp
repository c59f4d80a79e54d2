// avpool_golden: one fixed scenario per pool kind, from the same source on every
// machine, so that two builds (x86_64, armhf) can be held against each other.
//   dump DIR   DIR/KIND.dump per kind: the segment's bytes, then a line per lock set.
//   serve DIR  creates DIR/ready, puts one more JPEG frame once a reader waits for
//              it, and keeps the pools until DIR/done (50 s at most).
//   read       checks every element of served pools through the getters, then
//              waits in waitReady for that extra frame. Each failure: a line on stderr.
#include <avpool/avpool.h>

#include "ipc_harness.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sstream>
#include <string>
#include <type_traits>
#include <unistd.h>
#include <vector>

namespace {

using Id = unsigned long long;
namespace harness = avpool::test;

// ---------------------------------------------------------------- the scenario
// Every element fixed, each ring wrapped, and the quirks passed through: both
// safe-time forms, PCM's whole 2048 bytes, Opus's length above 512, AAC and AMR cut
// to their field, 44100 Hz counted as 44 kHz, the 0xCC fill, vibration index 5 on a
// safe time, the active user's crossed arguments, names cut to 31 and 63 bytes.

// Payload byte j of element id of a stream: neighbours, elements and streams all differ.
enum Stream { JPG = 1, MP4, PCM, AAC, AMR, OPUS, LUM, MD, MD_SECOND, LUM_QT, CHROM_QT, SPS, PPS, VOL };
std::vector<unsigned char> payload(int stream, Id id, int length) {
    std::vector<unsigned char> bytes(static_cast<size_t>(length));
    for (int j = 0; j < length; ++j) bytes[j] = static_cast<unsigned char>(stream * 71 + id * 31 + j * 7 + (j >> 8));
    return bytes;
}
timeval stamp(Id id) { return {static_cast<time_t>(1000 + id / 3), static_cast<suseconds_t>(id * 479001 % 1000000)}; }

// JPEG: 14 frames of 100 to 200 bytes (every padding) on 6 slots, the 1800-byte data
// ring wrapped once with the newest 6 intact; a smaller picture from frame 9 on with
// the quality kept; one frame one byte too long refused after frame 4.
constexpr int JPG_CHANNEL = 3, JPG_SLOTS = 6, JPG_MAX = 200, JPG_RING = 1800, JPG_FRAMES = 14;
constexpr key_t JPG_KEY = JPG_BASE_KEY + JPG_CHANNEL;
int jpgLength(Id id) { return 100 + static_cast<int>(id * 37 % 101); }
int jpgQuality(Id id) { return 40 + static_cast<int>(id % 9); }
bool jpgSmall(Id id) { return id >= 9; }

void putJpg(JPGPutter& putter, Id id) {
    if (id == 9) putter.reset(320, 240, 10, -1);
    putter.changeQuality(jpgQuality(id));
    putter.putFrame(payload(JPG, id, jpgLength(id)).data(), jpgLength(id), stamp(id));
}

// Video: 8 GOPs on 3 GOPs of 100 frame slots (lock sets of 250 and 50), GOP g an I
// frame and 1 + g % 4 P frames, so that some GOPs end over frames of the lap before;
// GOP 7 follows a reset to 352 x 288 at 30 fps and an I frame one byte too long
// (refused, the P frame after it skipped), and its second P frame is cut to 400 bytes.
constexpr int MP4_CHANNEL = 2, MP4_GOPS = 3, MP4_FRAMES = 100, MP4_MAX = 400, MP4_RING = 3000, MP4_LAST_GOP = 8;
int mp4PFrames(int gop) { return 1 + gop % 4; }
int mp4Offered(int gop, int k) {
    return k == 0 ? 200 + gop * 53 % 201 : gop == 7 && k == 2 ? 450 : 20 + (gop * 29 + k * 17) % 101;
}
Id mp4FirstId(int gop) {
    Id id = 1;
    for (int g = 1; g < gop; ++g) id += 1 + mp4PFrames(g);
    return id;
}

// Audio: 230 fragments (round the 200 slots and 30 further), lengths around each
// kind's limit, the format changed on the way where switchAt says.
enum class Stored { Whole, AsGiven, UpToSize };
struct Audio {
    const char* name;
    int stream, capacity, maxLength;
    Stored stored;
    Id switchAt;
    int format[2], channels[2], rate[2], param[2];
};
constexpr Id AUDIO_FRAGMENTS = 230;
const Audio PCM_AUDIO{"pcm", PCM, 2048, 2100, Stored::Whole, 150, {16, 8}, {2, 1}, {44100, 22050}, {0, 0}};
const Audio AAC_AUDIO{"aac", AAC, 512, 600, Stored::UpToSize, 120, {16, 4}, {1, 2}, {48000, 11025}, {7, 9}};
const Audio AMR_AUDIO{"amr", AMR, 1024, 1100, Stored::UpToSize, 100, {8, 16}, {1, 2}, {12345, 8000}, {5, 6}};
const Audio OPUS_AUDIO{"opus", OPUS, 512, 700, Stored::AsGiven, 999, {8, 8}, {2, 2}, {24000, 24000}, {0, 0}};
constexpr int AAC_CHANNEL = 3, AMR_CHANNEL = 6;
int audioLength(const Audio& a, Id id) { return 1 + static_cast<int>(id * 53 % a.maxLength); }
int storedLength(const Audio& a, Id id) {
    int length = audioLength(a, id);
    return a.stored == Stored::Whole ? a.capacity : a.stored == Stored::AsGiven ? length : std::min(length, a.capacity);
}

template <class P>
void fillAudio(P& p, const Audio& a) {
    constexpr bool amr = std::is_same_v<P, AMRPutter>, param = amr || std::is_same_v<P, AACPutter>;
    for (Id id = 1; id <= AUDIO_FRAGMENTS; ++id) {
        if (int i = id >= a.switchAt; id == 1 || id == a.switchAt) {
            if constexpr (param) p.reset(a.format[i], a.channels[i], a.rate[i], a.param[i]);
            else p.reset(a.format[i], a.channels[i], a.rate[i]);
        }
        // Some kinds copy the whole data area, whatever the length.
        auto bytes = payload(a.stream, id, std::max(audioLength(a, id), a.capacity));
        if constexpr (amr) p.putFragment(bytes.data(), audioLength(a, id), stamp(id), static_cast<int>(id * 3));
        else p.putFragment(bytes.data(), audioLength(a, id), stamp(id));
    }
}

// Analysis: full pictures, then smaller ones after a reset that leave older samples
// behind them, round the ring and further.
struct Analysis {
    const char* name;
    int stream, channel, slots;
    Id frames, switchAt;
    int width[2], height[2], fps[2];
};
const Analysis LUM_ANALYSIS{"lum", LUM, 1, LUM_FRAME_COUNT, 9, 8, {80, 32}, {64, 20}, {15, 25}};
const Analysis MD_ANALYSIS{"md", MD, 1, MD_FRAME_COUNT, 7, 5, {64, 16}, {48, 12}, {10, 5}};
int elements(const Analysis& a, Id id) { return a.width[id >= a.switchAt] * a.height[id >= a.switchAt]; }

template <class P>
void fillAnalysis(P& putter, const Analysis& a) {
    for (Id id = 1; id <= a.frames; ++id) {
        int i = id >= a.switchAt;
        if (id == 1 || id == a.switchAt) putter.reset(a.width[i], a.height[i], a.fps[i]);
        int n = elements(a, id);
        if constexpr (std::is_same_v<P, MDPutter>)
            putter.putFrame(payload(MD, id, 4 * n).data(), payload(MD_SECOND, id, 4 * n).data(), n, stamp(id));
        else
            putter.putFrame(payload(LUM, id, 2 * n).data(), n, stamp(id));
    }
}

// The information area: three profiles published, a fourth written past the count;
// a server takes three connections, returns one, and an active user takes its slat.
struct Profile {
    int id, state, channel, param3, width, height, videoParam3, a1, a2, a3, duration, memSize;
    const char* sdp;
    int blobSize[3];  // SPS, PPS, VOL
};
const Profile PROFILES[] = {
    {0, 2, JPG_CHANNEL, 1, 640, 480, 25, 0, 0, 0, 0, 2284, "m=video 0 RTP/AVP 26", {0, 0, 0}},
    {1, 2, MP4_CHANNEL, 0, 1280, 720, 30, 16, 1, 8000, 64, 18652, "m=video 0 RTP/AVP 96", {14, 4, 0}},
    {2, 1, 7, 0, 352, 288, 15, 8, 2, 24000, 10, 9999, "m=video 0 RTP/AVP 97", {0, 0, 29}},
    {4, 2, 7, 0, 176, 144, 5, 0, 0, 0, 0, 555, "past the published count", {3, 256, 3}},
};
constexpr int PUBLISHED = 3, MAX_CONN = 8, TAKEN_TOTAL = 4;
const char* const LONG_NAME = "a user name longer than thirty-one bytes";
const char* const LONG_INFO = "a user information text that is longer than the sixty-three bytes kept";
struct User {
    int slat, type;
    std::string name, info;
};
const User USERS[] = {{0, 4, "operator", "192.168.1.20"},
                      {1, 2, std::string(LONG_NAME, 31), std::string(LONG_INFO, 63)},
                      {2, 3, "recorder", "10.0.0.9"}};

void publish(InfosPutter& putter, InfosGetter& server) {
    putter.putSizeofPools(PUBLISHED);
    putter.putMaxConn(MAX_CONN);
    for (const Profile& p : PROFILES) {
        putter.putInfo(p.id, p.state, p.channel, p.param3);
        putter.putVideoInfo(p.id, p.width, p.height, p.videoParam3);
        putter.putAudioInfo(p.id, p.a1, p.a2, p.a3, p.duration);
        putter.putSharedMemSize(p.id, p.memSize);
        auto* sdp = reinterpret_cast<SDPBlock*>(putter.GetSDPHeader(p.id));
        memcpy(sdp->sdpHeader, p.sdp, strlen(p.sdp) + 1);  // into the zero-filled field
        unsigned char* blobs[3] = {sdp->sps, sdp->pps, sdp->vol};
        int32_t* sizes[3] = {&sdp->spsSize, &sdp->ppsSize, &sdp->volSize};
        for (int b = 0; b < 3; ++b) {
            if (p.blobSize[b] > 0) memcpy(blobs[b], payload(SPS + b, p.id, p.blobSize[b]).data(), p.blobSize[b]);
            *sizes[b] = p.blobSize[b];
        }
    }
    server.init(INFOS_KEY);
    int viewer = server.takeConn("viewer", "10.0.0.7", 1, 3, true);
    server.takeConn(LONG_NAME, LONG_INFO, 2, 2, false);
    server.takeConn("recorder", "10.0.0.9", 3, 1, true);
    server.retConn(viewer);
    char info[] = "192.168.1.20", name[] = "operator";
    Add_Active_User(info, name);  // the information first
}

// While a Quiet lives, the init calls' set-up lines go to /dev/null.
struct Quiet {
    int saved[2] = {dup(1), dup(2)};
    Quiet() {
        fflush(stdout);
        int null = open("/dev/null", O_WRONLY);
        for (int fd : {1, 2}) dup2(null, fd);
        close(null);
    }
    ~Quiet() {
        fflush(stdout);
        for (int fd : {1, 2}) dup2(saved[fd - 1], fd), close(saved[fd - 1]);
    }
};

// Every pool of the scenario, alive as long as this object.
struct Pools {
    JPGPutter jpg;
    MP4Putter mp4;
    PCMPutter pcm;
    AACPutter aac;
    AMRPutter amr;
    OPUSPutter opus;
    LUMPutter lum;
    MDPutter md;
    InfosPutter infos;
    InfosGetter server;

    Pools() {
        {
            Quiet quiet;
            jpg.init(JPG_CHANNEL, JPG_SLOTS, JPG_MAX, 52 * JPG_SLOTS + JPG_RING);
            mp4.init(MP4_CHANNEL, MP4_GOPS, MP4_FRAMES, MP4_MAX, 52 * MP4_GOPS * MP4_FRAMES + MP4_RING);
            pcm.init();
            aac.init(AAC_CHANNEL);
            amr.init(AMR_CHANNEL);
            opus.init();
            lum.init(LUM_ANALYSIS.channel);
            md.init(MD_ANALYSIS.channel);
            infos.init(INFOS_KEY);
        }
        jpg.reset(640, 480, 25, 80);
        jpg.putQuantTables(payload(LUM_QT, 0, 64).data(), payload(CHROM_QT, 0, 64).data());
        for (Id id = 1; id <= JPG_FRAMES; ++id) {
            putJpg(jpg, id);
            if (id == 4) jpg.putFrame(payload(JPG, 0, JPG_MAX + 1).data(), JPG_MAX + 1, stamp(0));
        }
        jpg.putRealFPS(24);

        mp4.reset(640, 480, 25);
        for (int gop = 1; gop <= MP4_LAST_GOP; ++gop) {
            if (gop == 7) {
                mp4.reset(352, 288, 30);
                mp4.putIFrame(payload(MP4, 0, MP4_MAX + 1).data(), MP4_MAX + 1, stamp(0));
                mp4.putPFrame(payload(MP4, 0, 10).data(), 10, stamp(0));
            }
            for (int k = 0; k <= mp4PFrames(gop); ++k) {
                Id id = mp4FirstId(gop) + k;
                auto bytes = payload(MP4, id, mp4Offered(gop, k));
                if (k == 0) mp4.putIFrame(bytes.data(), mp4Offered(gop, k), stamp(id));
                else mp4.putPFrame(bytes.data(), mp4Offered(gop, k), stamp(id));
            }
        }
        mp4.putRealFPS(23);

        fillAudio(pcm, PCM_AUDIO);
        fillAudio(aac, AAC_AUDIO);
        fillAudio(amr, AMR_AUDIO);
        fillAudio(opus, OPUS_AUDIO);

        fillAnalysis(lum, LUM_ANALYSIS);
        fillAnalysis(md, MD_ANALYSIS);
        md.putVibration(0, 42);
        md.putVibration(5, 140);  // index 5 is the word of slot 4's safe time; 140 is clamped to 100

        publish(infos, server);
    }
};

// ---------------------------------------------------------------- dump

// Where each kind lies: its segment and its lock sets.
struct Placement {
    const char* name;
    key_t segment;
    std::vector<key_t> sets;
};
const Placement PLACES[] = {
    {"jpg", JPG_KEY, {JPG_KEY}},
    {"mp4", MP4_BASE_KEY + MP4_CHANNEL, {MP4_BASE_KEY + 16 * MP4_CHANNEL, MP4_BASE_KEY + 16 * MP4_CHANNEL + 1}},
    {"pcm", PCM_KEY, {PCM_KEY}},
    {"aac", AAC_BASE_KEY + AAC_CHANNEL, {AAC_BASE_KEY + 16 * AAC_CHANNEL}},
    {"amr", AMR_BASE_KEY + AMR_CHANNEL, {AMR_BASE_KEY + 16 * AMR_CHANNEL}},
    {"opus", OPUS_KEY, {OPUS_KEY}},
    {"lum", LUM_BASE_KEY + 1, {LUM_BASE_KEY + 1}},
    {"md", MD_BASE_KEY + 1, {MD_BASE_KEY + 1}},
    {"infos", INFOS_KEY, {INFOS_KEY}},
};

int dump(const std::string& dir) {
    Pools pools;
    for (const Placement& place : PLACES) {
        harness::RawSegment raw(place.segment);
        std::vector<unsigned char> bytes = raw.attached() ? raw.all() : std::vector<unsigned char>();
        // A slat's loginTime is the taker's clock, the one value that differs from
        // run to run: zeroed in every slat, free ones included.
        if (place.segment == INFOS_KEY && bytes.size() == sizeof(InfoArea))
            for (int s = 0; s < MAX_USER_SLATS; ++s)
                memset(&bytes[offsetof(InfoArea, slats) + s * sizeof(UserSlat) + offsetof(UserSlat, loginTime)], 0, 4);
        std::string locks;
        for (key_t set : place.sets) {
            locks += "\nlocks " + std::to_string(set) + ":";
            for (int v : harness::lockValues(set, harness::semCountAt(set))) locks += " " + std::to_string(v);
        }
        FILE* out = fopen((dir + "/" + place.name + ".dump").c_str(), "wb");
        if (out == nullptr || bytes.empty()) {
            fprintf(stderr, "FAIL %s: no segment, or no file to write it to\n", place.name);
            return 1;
        }
        fwrite(bytes.data(), 1, bytes.size(), out);
        fprintf(out, "%s\n", locks.c_str());
        fclose(out);
    }
    return 0;
}

// ---------------------------------------------------------------- serve

int serve(const std::string& dir) {
    Pools pools;
    if (FILE* ready = fopen((dir + "/ready").c_str(), "w")) fclose(ready);
    // The extra frame goes out only once the reader is blocked on its slot, so the
    // wake-up crosses from this process to the other one.
    bool put = false;
    for (int waited = 0; waited < 2500 && access((dir + "/done").c_str(), F_OK) != 0; ++waited) {
        if (!put && harness::lockWaiters(JPG_KEY, (JPG_FRAMES + 1) % JPG_SLOTS) > 0) {
            putJpg(pools.jpg, JPG_FRAMES + 1);
            put = true;
        }
        usleep(20000);
    }
    if (!put) fprintf(stderr, "FAIL jpg: no reader waited for frame %d\n", JPG_FRAMES + 1);
    return put ? 0 : 1;
}

// ---------------------------------------------------------------- read

int checked = 0, failed = 0;

// An element's fields in a row, each followed by '|'.
template <class... T>
std::string values(const T&... v) {
    std::ostringstream row;
    ((row << v << '|'), ...);
    return row.str();
}
// FNV-1a over bytes, so that a payload is one field (chained for two arrays).
unsigned digest(const void* data, size_t n, unsigned h = 2166136261u) {
    for (size_t i = 0; i < n; ++i) h = (h ^ static_cast<const unsigned char*>(data)[i]) * 16777619u;
    return h;
}
unsigned digest(const std::vector<unsigned char>& bytes, unsigned h = 2166136261u) {
    return digest(bytes.data(), bytes.size(), h);
}

// One element: its fields as the scenario has them and as the getter gives them.
void expect(const std::string& what, const char* fields, const std::string& want, const std::string& got) {
    ++checked;
    if (want == got) return;
    ++failed;
    fprintf(stderr, "FAIL %s (%s): expected %s, got %s\n", what.c_str(), fields, want.c_str(), got.c_str());
}
std::string nth(const std::string& what, Id n) { return what + " " + std::to_string(n); }

// The frame under the cursor, which the positioning call reported as `on`.
void readJpgFrame(JPGGetter& getter, Id on, Id id) {
    getter.getFrame();
    const JPGFrame& f = getter.frame;
    int length = jpgLength(id), small = jpgSmall(id);
    timeval at = stamp(id);
    expect(nth("jpg frame", id), "positioned on, frameID, time, width, height, fps, quality, frameLength, data",
           values(id, id, at.tv_sec, at.tv_usec, small ? 320 : 640, small ? 240 : 480, small ? 10 : 25, jpgQuality(id),
                  length, digest(payload(JPG, id, length))),
           values(on, getter.getFrameID(), f.tv_sec, f.tv_usec, f.width, f.height, f.fps, f.quality, f.frameLength,
                  digest(f.data, length)));
}

void readJpg(JPGGetter& getter) {
    getter.init(JPG_CHANNEL);
    int safe;
    expect("jpg header", "width, height, fps, realFPS, lumQT, chromQT, newest frame",
           values(320, 240, 10, 24, digest(payload(LUM_QT, 0, 64)), digest(payload(CHROM_QT, 0, 64)), JPG_FRAMES),
           values(getter.getWorkingWidth(), getter.getWorkingHeight(), getter.getWorkingFPS(), getter.getRealFPS(),
                  digest(getter.getLumQT(), 64), digest(getter.getChromQT(), 64), getter.toWorking(safe)));
    for (Id id = JPG_FRAMES - JPG_SLOTS + 1; id <= JPG_FRAMES; ++id) readJpgFrame(getter, getter.toNext(safe), id);
}

void readMp4() {
    MP4Getter getter;
    {
        Quiet quiet;
        getter.init(MP4_CHANNEL);
    }
    int safe;
    expect("mp4 header", "width, height, fps, realFPS, oneSafeTime, working GOP",
           values(352, 288, 30, 23, MP4_FRAMES * 1000 / 30, MP4_LAST_GOP),
           values(getter.getWorkingWidth(), getter.getWorkingHeight(), getter.getWorkingFPS(), getter.getRealFPS(),
                  getter.getOneSafeTime(), getter.toWorkingGop(safe)));
    // From the writer's GOP on: the oldest GOP kept (its locks already closed for
    // the next one), then the others up to the writer's again.
    for (int gop = MP4_LAST_GOP - MP4_GOPS + 1; gop <= MP4_LAST_GOP; ++gop) {
        Id on = getter.toNextGop(safe);
        bool late = gop >= 7;
        expect(nth("mp4 GOP", gop), "gopID, width, height, fps",
               values(gop, late ? 352 : 640, late ? 288 : 480, late ? 30 : 25),
               values(on, getter.gopWidth, getter.gopHeight, getter.gopFPS));
        for (int k = 0; k <= mp4PFrames(gop); ++k) {
            Id id = mp4FirstId(gop) + k, got = getter.getFrameData(k);
            int length = std::min(mp4Offered(gop, k), MP4_MAX);
            timeval at = stamp(id);
            expect(nth("mp4 frame", id), "frameID, time, frameLength, data",
                   values(id, at.tv_sec, at.tv_usec, length, digest(payload(MP4, id, length))),
                   values(got, getter.frameTime.tv_sec, getter.frameTime.tv_usec, getter.frameLength,
                          digest(getter.frameData, length)));
        }
    }
}

int streamParamOf(const AACFragment& f) { return f.streamParam; }
int streamParamOf(const avpool::AudioFragment&) { return 0; }

template <class G, class Init>
void readAudio(const Audio& a, Init init) {
    G getter;
    init(getter);
    int last = a.switchAt <= AUDIO_FRAGMENTS, safe;
    expect(std::string(a.name) + " header", "format, channels, rate, newest fragment",
           values(a.format[last], a.channels[last], a.rate[last], AUDIO_FRAGMENTS),
           values(getter.getWorkingFormat(), getter.getWorkingChannels(), getter.getWorkingRate(),
                  getter.toWorking(safe)));
    for (Id id = AUDIO_FRAGMENTS - AUDIO_SLOT_COUNT + 1; id <= AUDIO_FRAGMENTS; ++id) {
        Id on = getter.toNext(safe);
        getter.getFragment();
        const auto& f = getter.fragment;
        int i = id >= a.switchAt, length = storedLength(a, id), bytes = std::min(length, a.capacity);
        timeval at = stamp(id);
        expect(nth(a.name, id), "fragmentID, time, format, channels, rate, streamParam, length, data",
               values(id, at.tv_sec, at.tv_usec, a.format[i], a.channels[i], a.rate[i], a.param[i], length,
                      digest(payload(a.stream, id, bytes))),
               values(on, f.timestamp.tv_sec, f.timestamp.tv_usec, f.format, f.channels, f.rate, streamParamOf(f),
                      f.length, digest(f.data, bytes)));
    }
}

unsigned dataOf(LUMGetter& getter, int n) { return digest(getter.samples, 2 * n); }
unsigned dataOf(MDGetter& getter, int n) { return digest(getter.secondArray, 4 * n, digest(getter.firstArray, 4 * n)); }

template <class G>
void readAnalysis(G& getter, const Analysis& a) {
    getter.init(a.channel);
    int safe;
    expect(std::string(a.name) + " header", "width, height, fps, newest frame",
           values(a.width[1], a.height[1], a.fps[1], a.frames),
           values(getter.getWorkingWidth(), getter.getWorkingHeight(), getter.getWorkingFPS(), getter.toWorking(safe)));
    for (Id id = a.frames - a.slots + 1; id <= a.frames; ++id) {
        Id on = getter.toNext(safe);
        getter.getFrame();
        int n = elements(a, id);
        timeval at = stamp(id);
        unsigned data = a.stream == MD ? digest(payload(MD_SECOND, id, 4 * n), digest(payload(MD, id, 4 * n)))
                                       : digest(payload(LUM, id, 2 * n));
        expect(nth(a.name, id), "frameID, time, frameLength, data", values(id, at.tv_sec, at.tv_usec, n, data),
               values(on, getter.tv_sec, getter.tv_usec, getter.frameLength, dataOf(getter, n)));
    }
}

void readInfos() {
    InfosGetter getter;
    getter.init(INFOS_KEY);
    expect("infos area", "sizeofPools, maxConn, connections, memory size of the first profile on channel 7",
           values(PUBLISHED, MAX_CONN, TAKEN_TOTAL, PROFILES[2].memSize),
           values(getter.getSizeofPools(), getter.getMaxConnections(), getter.getCurrentTotalConnections(),
                  getter.getSharedMemSizebyChannel(7)));
    for (const Profile& p : PROFILES) {
        const int* size = p.blobSize;
        std::string want = values(p.duration, p.memSize, p.sdp, size[0], size[1], size[2],
                                  digest(payload(SPS, p.id, size[0])), digest(payload(PPS, p.id, size[1])),
                                  digest(payload(VOL, p.id, size[2])));
        std::string got = values(getter.getAudioFrameDuration(p.id), getter.getSharedMemSize(p.id),
                                 getter.getSDPHeader(p.id), getter.getSPSSize(p.id), getter.getPPSSize(p.id),
                                 getter.getVOLSize(p.id), digest(getter.getSPS(p.id), size[0]),
                                 digest(getter.getPPS(p.id), size[1]), digest(getter.getVOL(p.id), size[2]));
        // Only the published profiles give their state, picture and audio.
        if (p.id < PUBLISHED) {
            int v[9];
            getter.getInfo(p.id, v[0], v[1], v[2]);
            getter.getVideoInfo(p.id, v[3], v[4], v[5]);
            getter.getAudioInfo(p.id, v[6], v[7], v[8]);
            want += " " + values(p.state, p.channel, p.param3, p.width, p.height, p.videoParam3, p.a1, p.a2, p.a3);
            got += " " + values(v[0], v[1], v[2], v[3], v[4], v[5], v[6], v[7], v[8]);
        }
        expect(nth("infos profile", p.id),
               "frame duration, memory size, SDP text, SPS, PPS and VOL sizes and bytes (state, channel, infoParam3, "
               "width, height, videoParam3, audio parameters)",
               want, got);
    }
    UserSlat list[MAX_USER_SLATS];
    expect("infos users", "count", values(3), values(getter.getUserList(reinterpret_cast<char*>(list), sizeof list)));
    for (int u = 0; u < 3; ++u)
        expect(nth("infos user", u), "slatID, userType, userName, userInfo",
               values(USERS[u].slat, USERS[u].type, USERS[u].name, USERS[u].info),
               values(list[u].slatID, list[u].userType, list[u].userName, list[u].userInfo));
}

int readAll() {
    JPGGetter jpg;
    readJpg(jpg);
    readMp4();
    readAudio<PCMGetter>(PCM_AUDIO, [](PCMGetter& g) { g.init(); });
    readAudio<AACGetter>(AAC_AUDIO, [](AACGetter& g) { g.init(AAC_CHANNEL); });
    readAudio<OPUSGetter>(OPUS_AUDIO, [](OPUSGetter& g) { g.init(); });
    LUMGetter lum;
    readAnalysis(lum, LUM_ANALYSIS);
    MDGetter md;
    readAnalysis(md, MD_ANALYSIS);
    expect("md vibration", "index 0, index 5", values(42, 100), values(md.getVibration(0), md.getVibration(5)));
    readInfos();

    // The slot after the newest holds the frame a lap older, and its lock is closed
    // until the writer puts the next frame there.
    int safe;
    Id before = jpg.toNext(safe);
    jpg.waitReady();
    readJpgFrame(jpg, before + JPG_SLOTS, JPG_FRAMES + 1);
    printf("read: %d elements, %d wrong\n", checked, failed);
    return failed == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    std::string mode = argc > 1 ? argv[1] : "";
    try {
        if (mode == "dump" && argc == 3) return dump(argv[2]);
        if (mode == "serve" && argc == 3) return serve(argv[2]);
        if (mode == "read" && argc == 2) return readAll();
    } catch (const std::exception& e) {
        fprintf(stderr, "FAIL %s: %s\n", mode.c_str(), e.what());
        return 1;
    }
    fprintf(stderr, "usage: avpool_golden dump DIR | serve DIR | read\n");
    return 2;
}
