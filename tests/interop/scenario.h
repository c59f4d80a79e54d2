// One fixed scenario per pool kind: every element a function of its ID, each ring
// wrapped, and the quirks passed through: both safe-time forms, PCM's whole 2048
// bytes, Opus's length above 512, AAC and AMR cut to their field, 44100 Hz counted
// as 44 kHz, the 0xCC fill, vibration index 5 on a safe time, the active user's
// crossed arguments, names cut to 31 and 63 bytes. avpool_golden dumps and reads it
// on every machine; the fuzz targets start from its segments.
#pragma once

#include <avpool/avpool.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

namespace golden {

using Id = unsigned long long;

// Payload byte j of element id of a stream: neighbours, elements and streams all differ.
enum Stream { JPG = 1, MP4, PCM, AAC, AMR, OPUS, LUM, MD, MD_SECOND, LUM_QT, CHROM_QT, SPS, PPS, VOL };
inline std::vector<unsigned char> payload(int stream, Id id, int length) {
    std::vector<unsigned char> bytes(static_cast<size_t>(length));
    for (int j = 0; j < length; ++j) bytes[j] = static_cast<unsigned char>(stream * 71 + id * 31 + j * 7 + (j >> 8));
    return bytes;
}
inline timeval stamp(Id id) {
    return {static_cast<time_t>(1000 + id / 3), static_cast<suseconds_t>(id * 479001 % 1000000)};
}

// JPEG: 14 frames of 100 to 200 bytes (every padding) on 6 slots, the 1800-byte data
// ring wrapped once with the newest 6 intact; a smaller picture from frame 9 on with
// the quality kept; one frame one byte too long refused after frame 4.
constexpr int JPG_CHANNEL = 3, JPG_SLOTS = 6, JPG_MAX = 200, JPG_RING = 1800, JPG_FRAMES = 14;
constexpr key_t JPG_KEY = JPG_BASE_KEY + JPG_CHANNEL;
inline int jpgLength(Id id) { return 100 + static_cast<int>(id * 37 % 101); }
inline int jpgQuality(Id id) { return 40 + static_cast<int>(id % 9); }

inline void putJpg(JPGPutter& putter, Id id) {
    if (id == 9) putter.reset(320, 240, 10, -1);
    putter.changeQuality(jpgQuality(id));
    putter.putFrame(payload(JPG, id, jpgLength(id)).data(), jpgLength(id), stamp(id));
}
inline void fill(JPGPutter& jpg) {
    jpg.init(JPG_CHANNEL, JPG_SLOTS, JPG_MAX, 52 * JPG_SLOTS + JPG_RING);
    jpg.reset(640, 480, 25, 80);
    jpg.putQuantTables(payload(LUM_QT, 0, 64).data(), payload(CHROM_QT, 0, 64).data());
    for (Id id = 1; id <= JPG_FRAMES; ++id) {
        putJpg(jpg, id);
        if (id == 4) jpg.putFrame(payload(JPG, 0, JPG_MAX + 1).data(), JPG_MAX + 1, stamp(0));
    }
    jpg.putRealFPS(24);
}

// Video: 8 GOPs on 3 GOPs of 100 frame slots (lock sets of 250 and 50), GOP g an I
// frame and 1 + g % 4 P frames, so that some GOPs end over frames of the lap before;
// GOP 7 follows a reset to 352 x 288 at 30 fps and an I frame one byte too long
// (refused, the P frame after it skipped), and its second P frame is cut to 400 bytes.
constexpr int MP4_CHANNEL = 2, MP4_GOPS = 3, MP4_FRAMES = 100, MP4_MAX = 400, MP4_RING = 3000, MP4_LAST_GOP = 8;
inline int mp4PFrames(int gop) { return 1 + gop % 4; }
inline int mp4Offered(int gop, int k) {
    return k == 0 ? 200 + gop * 53 % 201 : gop == 7 && k == 2 ? 450 : 20 + (gop * 29 + k * 17) % 101;
}
inline Id mp4FirstId(int gop) {
    Id id = 1;
    for (int g = 1; g < gop; ++g) id += 1 + mp4PFrames(g);
    return id;
}
inline void fill(MP4Putter& mp4) {
    mp4.init(MP4_CHANNEL, MP4_GOPS, MP4_FRAMES, MP4_MAX, 52 * MP4_GOPS * MP4_FRAMES + MP4_RING);
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
}

// Audio: 230 fragments (round the 200 slots and 30 further), lengths around each
// kind's limit, the format changed on the way where switchAt says.
enum class Stored { Whole, AsGiven, UpToSize };
struct Audio {
    const char* name;
    int stream, channel, capacity, maxLength;
    Stored stored;
    Id switchAt;
    int format[2], channels[2], rate[2], param[2];
};
constexpr Id AUDIO_FRAGMENTS = 230;
constexpr Audio PCM_AUDIO{"pcm", PCM, 0, 2048, 2100, Stored::Whole, 150, {16, 8}, {2, 1}, {44100, 22050}, {0, 0}};
constexpr Audio AAC_AUDIO{"aac", AAC, 3, 512, 600, Stored::UpToSize, 120, {16, 4}, {1, 2}, {48000, 11025}, {7, 9}};
constexpr Audio AMR_AUDIO{"amr", AMR, 6, 1024, 1100, Stored::UpToSize, 100, {8, 16}, {1, 2}, {12345, 8000}, {5, 6}};
constexpr Audio OPUS_AUDIO{"opus", OPUS, 0, 512, 700, Stored::AsGiven, 999, {8, 8}, {2, 2}, {24000, 24000}, {0, 0}};
inline int audioLength(const Audio& a, Id id) { return 1 + static_cast<int>(id * 53 % a.maxLength); }

template <class P>
void fillAudio(P& p, const Audio& a) {
    constexpr bool amr = std::is_same_v<P, AMRPutter>, param = amr || std::is_same_v<P, AACPutter>;
    if constexpr (param) p.init(a.channel);
    else p.init();
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
inline void fill(PCMPutter& p) { fillAudio(p, PCM_AUDIO); }
inline void fill(AACPutter& p) { fillAudio(p, AAC_AUDIO); }
inline void fill(AMRPutter& p) { fillAudio(p, AMR_AUDIO); }
inline void fill(OPUSPutter& p) { fillAudio(p, OPUS_AUDIO); }

// Analysis: full pictures, then smaller ones after a reset that leave older samples
// behind them, round the ring and further.
struct Analysis {
    const char* name;
    int stream, channel, slots;
    Id frames, switchAt;
    int width[2], height[2], fps[2];
};
constexpr Analysis LUM_ANALYSIS{"lum", LUM, 1, LUM_FRAME_COUNT, 9, 8, {80, 32}, {64, 20}, {15, 25}};
constexpr Analysis MD_ANALYSIS{"md", MD, 1, MD_FRAME_COUNT, 7, 5, {64, 16}, {48, 12}, {10, 5}};
inline int elements(const Analysis& a, Id id) { return a.width[id >= a.switchAt] * a.height[id >= a.switchAt]; }

template <class P>
void fillAnalysis(P& putter, const Analysis& a) {
    putter.init(a.channel);
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
inline void fill(LUMPutter& lum) { fillAnalysis(lum, LUM_ANALYSIS); }
inline void fill(MDPutter& md) {
    fillAnalysis(md, MD_ANALYSIS);
    md.putVibration(0, 42);
    md.putVibration(5, 140);  // index 5 is the word of slot 4's safe time; 140 is clamped to 100
}

// The information area: three profiles published, a fourth written past the count;
// a server takes three connections, returns one, and an active user takes its slat.
struct Profile {
    int id, state, channel, param3, width, height, videoParam3, a1, a2, a3, duration, memSize;
    const char* sdp;
    int blobSize[3];  // SPS, PPS, VOL
};
constexpr Profile PROFILES[] = {
    {0, 2, JPG_CHANNEL, 1, 640, 480, 25, 0, 0, 0, 0, 2284, "m=video 0 RTP/AVP 26", {0, 0, 0}},
    {1, 2, MP4_CHANNEL, 0, 1280, 720, 30, 16, 1, 8000, 64, 18652, "m=video 0 RTP/AVP 96", {14, 4, 0}},
    {2, 1, 7, 0, 352, 288, 15, 8, 2, 24000, 10, 9999, "m=video 0 RTP/AVP 97", {0, 0, 29}},
    {4, 2, 7, 0, 176, 144, 5, 0, 0, 0, 0, 555, "past the published count", {3, 256, 3}},
};
constexpr int PUBLISHED = 3, MAX_CONN = 8, TAKEN_TOTAL = 4;
inline const char* const LONG_NAME = "a user name longer than thirty-one bytes";
inline const char* const LONG_INFO = "a user information text that is longer than the sixty-three bytes kept";

inline void fill(InfosPutter& putter) {
    static InfosGetter server;  // its connections kept to the end
    putter.init(INFOS_KEY);
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

// The kind's writer after its scenario, alive to the end of the program.
template <class Writer>
Writer& filled() {
    static Writer writer;
    [[maybe_unused]] static bool once = (fill(writer), true);
    return writer;
}

// Where each kind lies: its segment and its lock sets.
struct Placement {
    const char* name;
    key_t segment;
    std::vector<key_t> sets;
};
inline const Placement PLACES[] = {
    {"jpg", JPG_KEY, {JPG_KEY}},
    {"mp4", MP4_BASE_KEY + MP4_CHANNEL, {MP4_BASE_KEY + 16 * MP4_CHANNEL, MP4_BASE_KEY + 16 * MP4_CHANNEL + 1}},
    {"pcm", PCM_KEY, {PCM_KEY}},
    {"aac", AAC_BASE_KEY + AAC_AUDIO.channel, {AAC_BASE_KEY + 16 * AAC_AUDIO.channel}},
    {"amr", AMR_BASE_KEY + AMR_AUDIO.channel, {AMR_BASE_KEY + 16 * AMR_AUDIO.channel}},
    {"opus", OPUS_KEY, {OPUS_KEY}},
    {"lum", LUM_BASE_KEY + 1, {LUM_BASE_KEY + 1}},
    {"md", MD_BASE_KEY + 1, {MD_BASE_KEY + 1}},
    {"infos", INFOS_KEY, {INFOS_KEY}},
};

}  // namespace golden
