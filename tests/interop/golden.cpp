// avpool_golden: the fixed scenario of every pool kind (scenario.h), from the same
// source on every machine, so that two builds (x86_64, armhf) can be held against each other.
//   dump DIR   DIR/KIND.dump per kind: the segment's bytes, then a line per lock set.
//   serve DIR  creates DIR/ready, puts one more JPEG frame once a reader waits for
//              it, and keeps the pools until DIR/done (50 s at most).
//   read       checks every element of served pools through the getters, then
//              waits in waitReady for that extra frame. Each failure: a line on stderr.
#include "scenario.h"

#include "ipc_harness.h"

#include <cstdio>
#include <sstream>
#include <unistd.h>

namespace {

using namespace golden;
namespace harness = avpool::test;

// Every pool of the scenario, kept to the end of the program.
void fillAll() {
    filled<JPGPutter>(), filled<MP4Putter>(), filled<PCMPutter>(), filled<AACPutter>(), filled<AMRPutter>();
    filled<OPUSPutter>(), filled<LUMPutter>(), filled<MDPutter>(), filled<InfosPutter>();
}

// ---------------------------------------------------------------- dump

int dump(const std::string& dir) {
    fillAll();
    for (const Placement& place : PLACES) {
        harness::RawSegment raw(place.segment);
        std::vector<unsigned char> bytes = raw.attached() ? raw.all() : std::vector<unsigned char>();
        // A slat's loginTime is the taker's clock, the one value that differs from
        // run to run: zeroed in every slat, free ones included.
        if (place.segment == INFOS_KEY && bytes.size() == sizeof(InfoArea))
            for (int s = 0; s < MAX_USER_SLATS; ++s)
                memset(&bytes[offsetof(InfoArea, slats) + s * sizeof(UserSlat) + offsetof(UserSlat, loginTime)], 0, 4);
        FILE* out = fopen((dir + "/" + place.name + ".dump").c_str(), "wb");
        if (out == nullptr || bytes.empty()) {
            fprintf(stderr, "FAIL %s: no segment, or no file to write it to\n", place.name);
            return 1;
        }
        fwrite(bytes.data(), 1, bytes.size(), out);
        for (key_t set : place.sets) {
            fprintf(out, "\nlocks %d:", static_cast<int>(set));
            for (int v : harness::lockValues(set, harness::semCountAt(set))) fprintf(out, " %d", v);
        }
        fprintf(out, "\n");
        fclose(out);
    }
    return 0;
}

// ---------------------------------------------------------------- serve

int serve(const std::string& dir) {
    fillAll();
    if (FILE* ready = fopen((dir + "/ready").c_str(), "w")) fclose(ready);
    // The extra frame goes out only once the reader is blocked on its slot, so the
    // wake-up crosses from this process to the other one.
    bool put = false;
    for (int waited = 0; waited < 2500 && access((dir + "/done").c_str(), F_OK) != 0; ++waited) {
        if (!put && harness::lockWaiters(JPG_KEY, (JPG_FRAMES + 1) % JPG_SLOTS) > 0) {
            putJpg(filled<JPGPutter>(), JPG_FRAMES + 1);
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
    int length = jpgLength(id), small = id >= 9;
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
    getter.init(MP4_CHANNEL);
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
        // The length as the kind stores it: the whole area, as given, or cut to the area.
        int i = id >= a.switchAt, given = audioLength(a, id), bytes = std::min(given, a.capacity);
        int length = a.stored == Stored::Whole ? a.capacity : a.stored == Stored::AsGiven ? given : bytes;
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
    const std::string users[] = {values(0, 4, "operator", "192.168.1.20"),
                                 values(1, 2, std::string(LONG_NAME, 31), std::string(LONG_INFO, 63)),
                                 values(2, 3, "recorder", "10.0.0.9")};
    UserSlat list[MAX_USER_SLATS];
    expect("infos users", "count", values(3), values(getter.getUserList(reinterpret_cast<char*>(list), sizeof list)));
    for (int u = 0; u < 3; ++u)
        expect(nth("infos user", u), "slatID, userType, userName, userInfo", users[u],
               values(list[u].slatID, list[u].userType, list[u].userName, list[u].userInfo));
}

int readAll() {
    JPGGetter jpg;
    readJpg(jpg);
    readMp4();
    readAudio<PCMGetter>(PCM_AUDIO, [](PCMGetter& g) { g.init(); });
    readAudio<AACGetter>(AAC_AUDIO, [](AACGetter& g) { g.init(AAC_AUDIO.channel); });
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
