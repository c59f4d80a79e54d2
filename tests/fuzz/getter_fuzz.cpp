// One reader's calls on a segment of fuzzed bytes. A real writer fills the pool
// once (the base image); every input rewrites words of that image in the segment,
// attaches a getter and drives it with calls, rewriting further words between them
// as a stray process would. The getter may throw its own error; it must not fault,
// hang, or hand out a pointer and length that leave the segment. Built per kind
// (AVPOOL_FUZZ_JPG, ..._INFOS), with libFuzzer or with the seeded random driver.
#include <avpool/avpool.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <type_traits>
#include <vector>

// Where a fault is reported: stderr, unless the driver silenced it and kept
// the real one elsewhere.
extern "C" {
__attribute__((weak)) int avpool_fuzz_report_fd = 2;
}

namespace {

// The input, read front to back; past its end every read gives 0.
class Input {
public:
    Input(const uint8_t* data, size_t size) : data_(data), size_(size) {}
    bool empty() const { return at_ >= size_; }
    uint8_t byte() { return at_ < size_ ? data_[at_++] : 0; }
    uint32_t word() {
        uint32_t w = 0;
        for (int i = 0; i < 4; ++i) w |= static_cast<uint32_t>(byte()) << (8 * i);
        return w;
    }
    // A value for a shared word or an argument: mostly the ones that break
    // arithmetic, near a count that matters (slots, profiles), or anything.
    int32_t value(int32_t near, int32_t size) {
        const int32_t picks[] = {0, 1, -1, INT32_MIN, INT32_MAX, near, near + 1, near - 1, size, size - 8};
        const int pick = byte() % 12;
        return pick < 10 ? picks[pick] : pick == 10 ? byte() : static_cast<int32_t>(word());
    }

private:
    const uint8_t* data_;
    size_t size_;
    size_t at_ = 0;
};

[[noreturn]] void fail(const char* what) {
    dprintf(avpool_fuzz_report_fd, "getter fault: %s\n", what);
    abort();
}

volatile unsigned sink;

// Keeps results alive; summed unsigned, so that no value overflows.
template <class... Values>
void use(Values... values) {
    sink = (0u + ... + static_cast<unsigned>(values));
}

// The pool's segment, mapped writable for the harness, and its bytes as the real
// writer left them.
class Segment {
public:
    explicit Segment(key_t key) : key_(key) {
        int id = shmget(key, 0, 0);
        shmid_ds status;
        if (id == -1 || shmctl(id, IPC_STAT, &status) == -1) fail("no segment to capture");
        size_ = status.shm_segsz;
        base_ = static_cast<unsigned char*>(shmat(id, nullptr, 0));
        image_.assign(base_, base_ + size_);
    }
    // A fresh copy of the image with a few words rewritten.
    void load(Input& in, int32_t near) {
        mapped_ = 0;  // the getter attaches anew, perhaps elsewhere
        memcpy(base_, image_.data(), size_);
        if (in.byte() & 1) {  // the header's first words from the input as they come
            for (size_t i = 0; i < 64 && i < size_; i += 4) store(i, static_cast<int32_t>(in.word()));
        }
        for (int edits = in.byte() % 16; edits > 0; --edits) edit(in, near);
    }
    void edit(Input& in, int32_t near) {
        size_t offset = (in.word() % (size_ / 4)) * 4;
        store(offset, in.value(near, static_cast<int32_t>(size_)));
    }
    void store(size_t offset, int32_t value) { memcpy(base_ + offset, &value, 4); }
    // What a getter hands out must lie inside the segment as the getter mapped it
    // (its own attachment, at another address than ours); every byte is read.
    void expectInside(const void* data, long length, const char* what) {
        uintptr_t p = reinterpret_cast<uintptr_t>(data);
        if (p < mapped_ || p >= mapped_ + size_) mapped_ = mappingOf(p);
        if (mapped_ == 0 || length < 0 || static_cast<uintptr_t>(length) > mapped_ + size_ - p) fail(what);
        unsigned sum = 0;
        for (long i = 0; i < length; ++i) sum += static_cast<const unsigned char*>(data)[i];
        sink = sum;
    }

private:
    // The start of the System V mapping of our key that holds p, or 0.
    uintptr_t mappingOf(uintptr_t p) const {
        char name[32];
        snprintf(name, sizeof name, "/SYSV%08x", static_cast<unsigned>(key_));
        FILE* maps = fopen("/proc/self/maps", "r");
        char line[512];
        uintptr_t found = 0;
        while (maps != nullptr && found == 0 && fgets(line, sizeof line, maps) != nullptr) {
            unsigned long lo = 0, hi = 0;
            if (sscanf(line, "%lx-%lx", &lo, &hi) == 2 && p >= lo && p < hi && strstr(line, name) != nullptr) found = lo;
        }
        if (maps != nullptr) fclose(maps);
        return found;
    }

    key_t key_;
    unsigned char* base_ = nullptr;
    size_t size_ = 0;
    uintptr_t mapped_ = 0;
    std::vector<unsigned char> image_;
};

// The sets openSets planted, removed when the run ends: the writer's release
// only removes the sets it made itself.
struct PlantedSets {
    std::vector<key_t> keys;
    ~PlantedSets() {
        for (key_t key : keys) semctl(semget(key, 0, 0), 0, IPC_RMID);
    }
} planted;

// Sets under the kind's keys as large as any header could ask for, every lock
// open: each wait returns at once and no set is ever missing. The writer's own
// sets are replaced.
[[maybe_unused]] void openSets(key_t firstKey, int groups, int count) {
    for (int g = 0; g < groups; ++g) {
        int old = semget(firstKey + g, 0, 0);
        if (old != -1) semctl(old, 0, IPC_RMID);
        if (semget(firstKey + g, count, IPC_CREAT | IPC_EXCL | 0600) == -1) fail("cannot plant the lock sets");
        planted.keys.push_back(firstKey + g);
    }
}

[[maybe_unused]] timeval at(int second, int microsecond) { return timeval{second, microsecond}; }

[[maybe_unused]] std::vector<unsigned char> payload(int length, int seed) {
    std::vector<unsigned char> bytes(length > 0 ? length : 1);
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(seed * 31 + i);
    return bytes;
}

constexpr int FIRST_SECOND = 1000;
constexpr int MAX_CALLS = 48;

// Loads a fresh image with words rewritten near `near`, attaches a Getter and makes
// up to MAX_CALLS calls (op: one input byte). Error, the kind's own, ends no call.
template <class Getter, class Error, class Init, class Call>
void fuzz(Input& in, Segment& segment, int32_t near, Init init, Call call) {
    segment.load(in, near);
    Getter getter;
    try {
        init(getter);
    } catch (const Error&) {
        return;  // init refused the header
    }
    for (int n = 0; n < MAX_CALLS && !in.empty(); ++n) {
        try {
            call(getter, in.byte());
        } catch (const Error&) {
        }
    }
}

// The ring searches, ops 0 to 5 (a GOP ring's under their own names), for the
// pool's own seconds or anything; false for any other op.
template <class G>
bool search(Input& in, int op, G& g) {
    int safe = 0, sec = op < 2 ? 0 : in.byte() & 1 ? FIRST_SECOND + in.byte() % 8 : in.value(FIRST_SECOND, 0);
    int usec = op == 3 || op == 5 ? in.value(0, 1000000) : 0;
    if constexpr (std::is_same_v<G, MP4Getter>) {
        switch (op) {
            case 0: g.toWorkingGop(safe); break;
            case 1: g.toNextGop(safe); break;
            case 2: g.toOldestWorkingGop(safe, sec); break;
            case 3: g.toOldestWorkingGop(safe, sec, usec); break;
            case 4: g.toExactWorkingGop(safe, sec); break;
            case 5: g.toExactWorkingGop(safe, sec, usec); break;
            default: return false;
        }
    } else {
        switch (op) {
            case 0: g.toWorking(safe); break;
            case 1: g.toNext(safe); break;
            case 2: g.toOldestWorking(safe, sec); break;
            case 3: g.toOldestWorking(safe, sec, usec); break;
            case 4: g.toExactWorking(safe, sec); break;
            case 5: g.toExactWorking(safe, sec, usec); break;
            default: return false;
        }
    }
    return true;
}

// ------------------------------------------------------------------ kinds
// Each kind's runOne keeps its writer and base image for the whole run.

#if defined(AVPOOL_FUZZ_JPG)
void runOne(Input& in) {
    constexpr int SLOTS = 30;
    static JPGPutter writer;
    static Segment segment = [] {
        writer.init(0, SLOTS, 1500, 6000 + 52 * SLOTS);
        writer.reset(640, 480, 25, 80);
        for (int i = 0; i < 90; ++i) {
            int length = (i * 397) % 1500;
            writer.putFrame(payload(length, i).data(), length, at(FIRST_SECOND + i / 25, (i % 25) * 40000));
        }
        openSets(JPG_BASE_KEY, 1, SLOTS);
        return Segment(JPG_BASE_KEY);
    }();
    fuzz<JPGGetter, JPGGetterError>(in, segment, SLOTS, [](JPGGetter& g) { g.init(0); }, [&](JPGGetter& g, int op) {
        if (search(in, op % 11, g)) return;
        switch (op % 11) {
            case 6:
                g.getFrame();
                segment.expectInside(g.frame.data, g.frame.frameLength, "JPEG frame");
                break;
            case 7: g.waitReady(); break;
            case 8:
                use(g.getFrameID());
                g.probeAge(in.byte());
                break;
            case 9:
                segment.expectInside(g.getLumQT(), 64, "quantisation table");
                segment.expectInside(g.getChromQT(), 64, "quantisation table");
                use(g.getWorkingFPS(), g.getWorkingWidth(), g.getWorkingHeight(), g.getRealFPS());
                break;
            default: segment.edit(in, SLOTS); break;
        }
    });
}

#elif defined(AVPOOL_FUZZ_MP4)
void runOne(Input& in) {
    constexpr int GOPS = 4, FRAMES = 6;
    static MP4Putter writer;
    static Segment segment = [] {
        writer.init(0, GOPS, FRAMES, 1200, GOPS * FRAMES * 52 + 5000);
        writer.reset(320, 240, 30);
        for (int i = 0; i < 60; ++i) {
            int length = 1 + (i * 211) % 1200;
            timeval t = at(FIRST_SECOND + i / 30, (i % 30) * 33000);
            if (i % FRAMES == 0 || i % 17 == 0)
                writer.putIFrame(payload(length, i).data(), length, t);
            else
                writer.putPFrame(payload(length, i).data(), length, t);
        }
        openSets(MP4_BASE_KEY, 4, 250);
        return Segment(MP4_BASE_KEY);
    }();
    fuzz<MP4Getter, MP4GetterError>(in, segment, GOPS * FRAMES, [](MP4Getter& g) { g.init(0); }, [&](MP4Getter& g, int op) {
        int k = in.byte() % 2 ? in.byte() % (FRAMES + 2) - 1 : in.value(FRAMES, 1000);
        if (search(in, op % 11, g)) return;
        switch (op % 11) {
            case 6:
                if (g.getFrameData(k) != 0) segment.expectInside(g.frameData, g.frameLength, "video frame");
                break;
            case 7: g.waitFrameReady(k); break;
            case 8:
                use(g.getGopID(), g.getSafeTime());
                g.probeAge(in.byte());
                break;
            case 9:
                use(g.getOneSafeTime(), g.getWorkingFPS(), g.getWorkingWidth(), g.getWorkingHeight(), g.getRealFPS());
                break;
            default: segment.edit(in, GOPS * FRAMES); break;
        }
    });
}

#elif defined(AVPOOL_FUZZ_PCM) || defined(AVPOOL_FUZZ_AAC) || defined(AVPOOL_FUZZ_OPUS)
// The audio kinds: 250 fragments of up to CAPACITY bytes (the ring wraps).
template <class Writer, class Getter, class Error, int CAPACITY, class Setup, class Init>
void runAudio(Input& in, key_t key, Setup setup, Init init) {
    static Writer writer;
    static Segment segment = [&] {
        setup(writer);
        std::vector<unsigned char> bytes = payload(PCM_FRAGMENT_SIZE, 7);
        for (int i = 0; i < 250; ++i)
            writer.putFragment(bytes.data(), 1 + i % CAPACITY, at(FIRST_SECOND + i / 8, i % 8 * 125000));
        openSets(key, 1, 250);
        return Segment(key);
    }();
    fuzz<Getter, Error>(in, segment, AUDIO_SLOT_COUNT, init, [&](Getter& g, int op) {
        if (search(in, op % 11, g)) return;
        switch (op % 11) {
            case 6: {
                // The length is the writer's word (Opus records it as given); the
                // data is the slot's fixed buffer.
                g.getFragment();
                int length = g.fragment.length;
                segment.expectInside(g.fragment.data, length < 0 || length > CAPACITY ? CAPACITY : length, "fragment");
                break;
            }
            case 7: g.waitReady(); break;
            case 8:
                use(g.getFragmentID(), g.getSafeTime());
                g.probeAge(in.byte());
                break;
            case 9: use(g.getWorkingFormat(), g.getWorkingChannels(), g.getWorkingRate()); break;
            default: segment.edit(in, AUDIO_SLOT_COUNT); break;
        }
    });
}

void runOne(Input& in) {
#if defined(AVPOOL_FUZZ_PCM)
    runAudio<PCMPutter, PCMGetter, PCMGetterError, PCM_FRAGMENT_SIZE>(
        in, PCM_KEY, [](PCMPutter& w) { w.init(), w.reset(16, 1, 8000); }, [](PCMGetter& g) { g.init(); });
#elif defined(AVPOOL_FUZZ_AAC)
    runAudio<AACPutter, AACGetter, AACGetterError, AAC_MAX_FRAGMENT_SIZE>(
        in, AAC_BASE_KEY, [](AACPutter& w) { w.init(0), w.reset(16, 2, 44100, 0x1588); }, [](AACGetter& g) { g.init(0); });
#else
    runAudio<OPUSPutter, OPUSGetter, OPUSGetterError, OPUS_FRAGMENT_SIZE>(
        in, OPUS_KEY, [](OPUSPutter& w) { w.init(), w.reset(8, 1, 8000); }, [](OPUSGetter& g) { g.init(); });
#endif
}

#elif defined(AVPOOL_FUZZ_LUM) || defined(AVPOOL_FUZZ_MD)
// The analysis kinds: a few records with their payload inline, 64 x 48 elements.
template <class Writer, class Getter, class Error, key_t KEY, int SLOTS, class Put, class Check>
void runAnalysis(Input& in, Put put, Check check) {
    static Writer writer;
    static Segment segment = [&] {
        writer.init(0);
        writer.reset(64, 48, 30);
        for (int i = 0; i < 2 * SLOTS + 1; ++i) put(writer, at(FIRST_SECOND + i / 30, i % 30 * 33000));
        openSets(KEY, 1, SLOTS);
        return Segment(KEY);
    }();
    fuzz<Getter, Error>(in, segment, SLOTS, [](Getter& g) { g.init(0); }, [&](Getter& g, int op) {
        int safe = 0;
        switch (op % 6) {
            case 0: use(g.toWorking(safe)); break;
            case 1: use(g.toNext(safe)); break;
            case 2:
                g.getFrame();
                check(g, segment);
                break;
            case 3: g.waitReady(); break;
            case 4: use(g.getFrameID(), g.getWorkingFPS(), g.getWorkingWidth(), g.getWorkingHeight()); break;
            default: segment.edit(in, SLOTS); break;
        }
    });
}

void runOne(Input& in) {
#if defined(AVPOOL_FUZZ_LUM)
    runAnalysis<LUMPutter, LUMGetter, LUMGetterError, LUM_BASE_KEY, LUM_FRAME_COUNT>(
        in, [](LUMPutter& w, const timeval& t) { w.putFrame(payload(2 * 64 * 48, 3).data(), 64 * 48, t); },
        [](LUMGetter& g, Segment& s) { s.expectInside(g.samples, 2 * LUM_MAX_SAMPLES, "luminance samples"); });
#else
    runAnalysis<MDPutter, MDGetter, MDGetterError, MD_BASE_KEY, MD_FRAME_COUNT>(
        in,
        [](MDPutter& w, const timeval& t) {
            std::vector<unsigned char> bytes = payload(4 * 64 * 48, 5);
            w.putFrame(bytes.data(), bytes.data(), 64 * 48, t);
        },
        [](MDGetter& g, Segment& s) {
            s.expectInside(g.firstArray, 4 * MD_MAX_ELEMENTS, "first motion array");
            s.expectInside(g.secondArray, 4 * MD_MAX_ELEMENTS, "second motion array");
            use(g.getVibration(g.frameLength % 8 - 1));  // -1 and 8 throw
        });
#endif
}

#elif defined(AVPOOL_FUZZ_INFOS)
// The information area: profiles, blobs and users as an encoder and servers leave
// them; the budget's set is put back to a free lock for every input.
void runOne(Input& in) {
    static InfosPutter encoder;
    static int budgetSet = -1;
    static Segment segment = [] {
        encoder.init(INFOS_KEY);
        encoder.putSizeofPools(3);
        encoder.putMaxConn(10);
        for (int p = 0; p < 3; ++p) {
            encoder.putInfo(p, 2, p, 1);
            encoder.putVideoInfo(p, 640 * (p + 1), 480, 30);
            encoder.putAudioInfo(p, 16, 1, 8000, 128);
            encoder.putSharedMemSize(p, 100000 + p);
            auto* sdp = reinterpret_cast<SDPBlock*>(encoder.GetSDPHeader(p));
            snprintf(reinterpret_cast<char*>(sdp->sdpHeader), 256, "m=video 0 RTP/AVP 96");
            sdp->spsSize = 12;
            sdp->ppsSize = 4;
            sdp->volSize = 20;
        }
        InfosGetter server;
        server.init(INFOS_KEY);
        for (int u = 0; u < 3; ++u) server.takeConn("viewer", "10.0.0.1", 1, 1 + u, false);
        budgetSet = semget(INFOS_KEY, 0, 0);
        return Segment(INFOS_KEY);
    }();
    unsigned short free[12] = {1};
    semctl(budgetSet, 0, SETALL, free);
    fuzz<InfosGetter, InfosGetterError>(in, segment, MAX_MEDIA_POOL, [](InfosGetter& g) { g.init(INFOS_KEY); },
                                        [&](InfosGetter& g, int op) {
        int profile = in.byte() % 2 ? in.byte() % 7 - 1 : in.value(MAX_MEDIA_POOL, 0);
        int a = 0, b = 0, c = 0;
        switch (op % 16) {
            case 0: g.getInfo(profile, a, b, c); break;
            case 1: g.getVideoInfo(profile, a, b, c); break;
            case 2: g.getAudioInfo(profile, a, b, c); break;
            case 3:
                use(g.getState(profile), g.getUseSSLWeight(profile), g.getAudioFrameDuration(profile),
                    g.getSharedMemSize(profile), g.getSharedMemSizebyChannel(in.value(2, 0)));
                break;
            case 4: segment.expectInside(g.getSDPHeader(profile), 256, "SDP header"); break;
            case 5: segment.expectInside(g.getSPS(profile), g.getSPSSize(profile), "SPS"); break;
            case 6: segment.expectInside(g.getPPS(profile), g.getPPSSize(profile), "PPS"); break;
            case 7: segment.expectInside(g.getVOL(profile), g.getVOLSize(profile), "VOL"); break;
            case 8: use(g.probeConn(in.value(1, 10))); break;
            case 9: g.takeConn("fuzz", "fuzzer", 1, in.value(1, 10), in.byte() & 1); break;
            case 10: g.retConn(in.value(MAX_USER_SLATS, 0)); break;
            case 11: g.resetAllConnections(); break;
            case 12: use(g.getMaxConnections(), g.getCurrentTotalConnections(), g.getSizeofPools()); break;
            case 13: {
                char list[MAX_USER_SLATS * USER_SLAT_SIZE];
                int room = std::min(in.byte() * 5, static_cast<int>(sizeof list));
                if (g.getUserList(list, room) * USER_SLAT_SIZE > room) fail("user list overran its buffer");
                break;
            }
            case 14:
                g.allocUserSlat("a", "b", in.value(1, 10), 4);
                g.deleteUserSlat(in.value(MAX_USER_SLATS, 0));
                g.resetUserSlat("c", nullptr, in.value(MAX_USER_SLATS, 0));
                break;
            default: segment.edit(in, MAX_MEDIA_POOL); break;
        }
    });
}

#else
#error "build with one of AVPOOL_FUZZ_JPG, _MP4, _PCM, _AAC, _OPUS, _LUM, _MD, _INFOS"
#endif

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in(data, size);
    runOne(in);
    return 0;
}
