// One reader's calls on a segment made of fuzzed bytes. A real writer fills the
// pool once (the base image). Every input then rewrites words of that image
// (header words, slot records, anything), copies it into the segment, attaches
// a getter and drives it with calls, rewriting further words between them as a
// stray process would. The getter may throw its own error; it must not fault,
// hang, or hand out a pointer and length that leave the segment.
//
// Built per kind (AVPOOL_FUZZ_JPG, ..._INFOS): with libFuzzer, or with the
// seeded random driver beside it.
#include <avpool/avpool.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
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

// Reads every byte a caller would read.
void consume(const void* data, long length) {
    unsigned sum = 0;
    for (long i = 0; i < length; ++i) sum += static_cast<const unsigned char*>(data)[i];
    sink = sum;
}

// The pool's segment, mapped writable for the harness, and its bytes as the
// real writer left them.
class Segment {
public:
    void capture(key_t key) {
        int id = shmget(key, 0, 0);
        shmid_ds status;
        if (id == -1 || shmctl(id, IPC_STAT, &status) == -1) fail("no segment to capture");
        key_ = key;
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
    // What a getter hands out must lie inside the segment as the getter mapped
    // it (its own attachment, at another address than ours).
    void expectInside(const void* data, long length, const char* what) {
        uintptr_t p = reinterpret_cast<uintptr_t>(data);
        if (p < mapped_ || p >= mapped_ + size_) mapped_ = mappingOf(p);
        if (mapped_ == 0 || length < 0 || static_cast<uintptr_t>(length) > mapped_ + size_ - p) fail(what);
        consume(data, length);
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

    key_t key_ = 0;
    unsigned char* base_ = nullptr;
    size_t size_ = 0;
    uintptr_t mapped_ = 0;
    std::vector<unsigned char> image_;
};

// Sets under the kind's keys as large as any header could ask for, every lock
// open: each wait returns at once, and no set is ever missing. The writer's own
// sets are replaced.
void openSets(key_t firstKey, int groups, int count) {
    for (int g = 0; g < groups; ++g) {
        int old = semget(firstKey + g, 0, 0);
        if (old != -1) semctl(old, 0, IPC_RMID);
        if (semget(firstKey + g, count, IPC_CREAT | IPC_EXCL | 0600) == -1) fail("cannot plant the lock sets");
    }
}

timeval at(int second, int microsecond) { return timeval{second, microsecond}; }

std::vector<unsigned char> payload(int length, int seed) {
    std::vector<unsigned char> bytes(length > 0 ? length : 1);
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(seed * 31 + i);
    return bytes;
}

constexpr int FIRST_SECOND = 1000;
constexpr int MAX_CALLS = 48;

// A second and microsecond to search for: the pool's own, or anything.
int second(Input& in) {
    return in.byte() & 1 ? FIRST_SECOND + in.byte() % 8 : in.value(FIRST_SECOND, 0);
}

// Attaches getter to the loaded segment; false when init refuses the header.
template <class Error, class Getter, class Init>
bool attach(Getter& getter, Init init) {
    try {
        init(getter);
        return true;
    } catch (const Error&) {
        return false;
    }
}

// Drives one getter: each call may throw the kind's error, which ends nothing.
template <class Error, class Call>
void drive(Input& in, Call call) {
    for (int n = 0; n < MAX_CALLS && !in.empty(); ++n) {
        try {
            call(in.byte());
        } catch (const Error&) {
        }
    }
}

// The ring searches under one name, ops 0 to 5; false for any other op.
template <class Getter, class Moves>
bool search(Input& in, int op, Getter& g, Moves m) {
    int safe = 0;
    switch (op) {
        case 0: m.working(g, safe); return true;
        case 1: m.next(g, safe); return true;
        case 2: m.oldest(g, safe, second(in), -1); return true;
        case 3: m.oldest(g, safe, second(in), in.value(0, 1000000)); return true;
        case 4: m.exact(g, safe, second(in), -1); return true;
        case 5: m.exact(g, safe, second(in), in.value(0, 1000000)); return true;
        default: return false;
    }
}
// The getters' own names of the searches; -1 picks the form without microseconds.
struct RingMoves {
    template <class G> void working(G& g, int& s) { g.toWorking(s); }
    template <class G> void next(G& g, int& s) { g.toNext(s); }
    template <class G> void oldest(G& g, int& s, int sec, int usec) { usec < 0 ? (void)g.toOldestWorking(s, sec) : (void)g.toOldestWorking(s, sec, usec); }
    template <class G> void exact(G& g, int& s, int sec, int usec) { usec < 0 ? (void)g.toExactWorking(s, sec) : (void)g.toExactWorking(s, sec, usec); }
};
struct GopMoves {
    void working(MP4Getter& g, int& s) { g.toWorkingGop(s); }
    void next(MP4Getter& g, int& s) { g.toNextGop(s); }
    void oldest(MP4Getter& g, int& s, int sec, int usec) { usec < 0 ? (void)g.toOldestWorkingGop(s, sec) : (void)g.toOldestWorkingGop(s, sec, usec); }
    void exact(MP4Getter& g, int& s, int sec, int usec) { usec < 0 ? (void)g.toExactWorkingGop(s, sec) : (void)g.toExactWorkingGop(s, sec, usec); }
};

// ------------------------------------------------------------------ kinds

struct Jpeg {
    static constexpr int SLOTS = 30;
    JPGPutter writer;
    Segment segment;

    Jpeg() {
        writer.init(0, SLOTS, 1500, 6000 + 52 * SLOTS);
        writer.reset(640, 480, 25, 80);
        for (int i = 0; i < 90; ++i) {
            int length = (i * 397) % 1500;
            writer.putFrame(payload(length, i).data(), length, at(FIRST_SECOND + i / 25, (i % 25) * 40000));
        }
        segment.capture(JPG_BASE_KEY);
        openSets(JPG_BASE_KEY, 1, SLOTS);
    }

    void run(Input& in) {
        segment.load(in, SLOTS);
        JPGGetter getter;
        if (!attach<JPGGetterError>(getter, [](JPGGetter& g) { g.init(0); })) return;
        drive<JPGGetterError>(in, [&](int op) {
            if (search(in, op % 11, getter, RingMoves{})) return;
            switch (op % 11) {
                case 6:
                    getter.getFrame();
                    segment.expectInside(getter.frame.data, getter.frame.frameLength, "JPEG frame");
                    break;
                case 7: getter.waitReady(); break;
                case 8:
                    getter.getFrameID();
                    getter.probeAge(in.byte());
                    break;
                case 9:
                    segment.expectInside(getter.getChromQT(), 64, "quantisation table");
                    use(getter.getWorkingFPS(), getter.getWorkingWidth(), getter.getRealFPS());
                    break;
                default: segment.edit(in, SLOTS); break;
            }
        });
    }
};

struct Video {
    static constexpr int GOPS = 4;
    static constexpr int FRAMES = 6;
    MP4Putter writer;
    Segment segment;

    Video() {
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
        segment.capture(MP4_BASE_KEY);
        openSets(MP4_BASE_KEY, 4, 250);
    }

    void run(Input& in) {
        segment.load(in, GOPS * FRAMES);
        MP4Getter getter;
        if (!attach<MP4GetterError>(getter, [](MP4Getter& g) { g.init(0); })) return;
        drive<MP4GetterError>(in, [&](int op) {
            int k = in.byte() % 2 ? in.byte() % (FRAMES + 2) - 1 : in.value(FRAMES, 1000);
            if (search(in, op % 11, getter, GopMoves{})) return;
            switch (op % 11) {
                case 6:
                    if (getter.getFrameData(k) != 0)
                        segment.expectInside(getter.frameData, getter.frameLength, "video frame");
                    break;
                case 7: getter.waitFrameReady(k); break;
                case 8:
                    use(getter.getGopID(), getter.getSafeTime());
                    getter.probeAge(in.byte());
                    break;
                case 9:
                    use(getter.getOneSafeTime(), getter.getWorkingFPS(), getter.getWorkingWidth(),
                        getter.getWorkingHeight(), getter.getRealFPS());
                    break;
                default: segment.edit(in, GOPS * FRAMES); break;
            }
        });
    }
};

// The audio kinds: Writer fills 250 fragments (the ring wraps), Getter reads.
template <class Writer, class Getter, class Error, key_t KEY, int CAPACITY>
struct Audio {
    static constexpr int SLOTS = AUDIO_SLOT_COUNT;
    Writer writer;
    Segment segment;

    template <class Init, class Reset>
    Audio(Init init, Reset reset) {
        init(writer);
        reset(writer);
        std::vector<unsigned char> bytes = payload(PCM_FRAGMENT_SIZE, 7);
        for (int i = 0; i < 250; ++i) writer.putFragment(bytes.data(), 1 + i % CAPACITY, at(FIRST_SECOND + i / 8, i % 8 * 125000));
        segment.capture(KEY);
        openSets(KEY, 1, 250);
    }

    template <class Init>
    void run(Input& in, Init init) {
        segment.load(in, SLOTS);
        Getter getter;
        if (!attach<Error>(getter, init)) return;
        drive<Error>(in, [&](int op) {
            if (search(in, op % 11, getter, RingMoves{})) return;
            switch (op % 11) {
                case 6: {
                    // The length is the writer's word (Opus records it as given);
                    // the data is the slot's fixed buffer.
                    getter.getFragment();
                    int length = getter.fragment.length;
                    segment.expectInside(getter.fragment.data, length < 0 || length > CAPACITY ? CAPACITY : length,
                                         "audio fragment");
                    break;
                }
                case 7: getter.waitReady(); break;
                case 8:
                    use(getter.getFragmentID(), getter.getSafeTime());
                    getter.probeAge(in.byte());
                    break;
                case 9: use(getter.getWorkingFormat(), getter.getWorkingChannels(), getter.getWorkingRate()); break;
                default: segment.edit(in, SLOTS); break;
            }
        });
    }
};

// The analysis kinds: a few records with their payload inline.
template <class Writer, class Getter, class Error, key_t KEY, int SLOTS>
struct Analysis {
    Writer writer;
    Segment segment;

    template <class Put>
    explicit Analysis(Put put) {
        writer.init(0);
        writer.reset(64, 48, 30);
        for (int i = 0; i < 2 * SLOTS + 1; ++i) put(writer, at(FIRST_SECOND + i / 30, i % 30 * 33000));
        segment.capture(KEY);
        openSets(KEY, 1, SLOTS);
    }

    template <class Payload>
    void run(Input& in, Payload payloadOf) {
        segment.load(in, SLOTS);
        Getter getter;
        if (!attach<Error>(getter, [](Getter& g) { g.init(0); })) return;
        drive<Error>(in, [&](int op) {
            int safe = 0;
            switch (op % 6) {
                case 0: getter.toWorking(safe); break;
                case 1: getter.toNext(safe); break;
                case 2:
                    getter.getFrame();
                    payloadOf(getter, segment);
                    break;
                case 3: getter.waitReady(); break;
                case 4: use(getter.getFrameID(), getter.getWorkingFPS(), getter.getWorkingWidth()); break;
                default: segment.edit(in, SLOTS); break;
            }
        });
    }
};

// The information area: profiles, blobs and users as an encoder and servers
// leave them; the budget's set is put back to a free lock for every input.
struct Infos {
    InfosPutter encoder;
    Segment segment;
    int budgetSet = -1;

    Infos() {
        encoder.init(INFOS_KEY);
        encoder.putSizeofPools(3);
        encoder.putMaxConn(10);
        for (int p = 0; p < 3; ++p) {
            encoder.putInfo(p, 2, p, 1);
            encoder.putVideoInfo(p, 640 * (p + 1), 480, 30);
            encoder.putAudioInfo(p, 16, 1, 8000, 128);
            encoder.putSharedMemSize(p, 100000 + p);
            unsigned char* block = encoder.GetSDPHeader(p);
            snprintf(reinterpret_cast<char*>(block) + 4, 256, "m=video 0 RTP/AVP 96");
            auto* profile = reinterpret_cast<MediaProfileInfo*>(block - offsetof(MediaProfileInfo, sdp));
            profile->sdp.spsSize = 12;
            profile->sdp.ppsSize = 4;
            profile->sdp.volSize = 20;
        }
        InfosGetter server;
        server.init(INFOS_KEY);
        for (int u = 0; u < 3; ++u) server.takeConn("viewer", "10.0.0.1", 1, 1 + u, false);
        segment.capture(INFOS_KEY);
        budgetSet = semget(INFOS_KEY, 0, 0);
    }

    void run(Input& in) {
        segment.load(in, MAX_MEDIA_POOL);
        unsigned short free[12] = {1};
        semctl(budgetSet, 0, SETALL, free);
        InfosGetter getter;
        if (!attach<InfosGetterError>(getter, [](InfosGetter& g) { g.init(INFOS_KEY); })) return;
        drive<InfosGetterError>(in, [&](int op) {
            int profile = in.byte() % 2 ? in.byte() % 7 - 1 : in.value(MAX_MEDIA_POOL, 0);
            int a = 0, b = 0, c = 0;
            switch (op % 16) {
                case 0: getter.getInfo(profile, a, b, c); break;
                case 1: getter.getVideoInfo(profile, a, b, c); break;
                case 2: getter.getAudioInfo(profile, a, b, c); break;
                case 3:
                    use(getter.getState(profile), getter.getUseSSLWeight(profile),
                        getter.getAudioFrameDuration(profile), getter.getSharedMemSize(profile),
                        getter.getSharedMemSizebyChannel(in.value(2, 0)));
                    break;
                case 4: segment.expectInside(getter.getSDPHeader(profile), 256, "SDP header"); break;
                case 5: segment.expectInside(getter.getSPS(profile), getter.getSPSSize(profile), "SPS"); break;
                case 6: segment.expectInside(getter.getPPS(profile), getter.getPPSSize(profile), "PPS"); break;
                case 7: segment.expectInside(getter.getVOL(profile), getter.getVOLSize(profile), "VOL"); break;
                case 8: use(getter.probeConn(in.value(1, 10))); break;
                case 9: getter.takeConn("fuzz", "fuzzer", 1, in.value(1, 10), in.byte() & 1); break;
                case 10: getter.retConn(in.value(MAX_USER_SLATS, 0)); break;
                case 11: getter.resetAllConnections(); break;
                case 12: use(getter.getMaxConnections(), getter.getCurrentTotalConnections(), getter.getSizeofPools()); break;
                case 13: {
                    char list[MAX_USER_SLATS * USER_SLAT_SIZE];
                    int room = in.byte() * 5;
                    if (room > static_cast<int>(sizeof list)) room = sizeof list;
                    if (getter.getUserList(list, room) * USER_SLAT_SIZE > room) fail("user list overran its buffer");
                    break;
                }
                case 14:
                    getter.allocUserSlat("a", "b", in.value(1, 10), 4);
                    getter.deleteUserSlat(in.value(MAX_USER_SLATS, 0));
                    getter.resetUserSlat("c", nullptr, in.value(MAX_USER_SLATS, 0));
                    break;
                default: segment.edit(in, MAX_MEDIA_POOL); break;
            }
        });
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in(data, size);
#if defined(AVPOOL_FUZZ_JPG)
    static Jpeg kind;
    kind.run(in);
#elif defined(AVPOOL_FUZZ_MP4)
    static Video kind;
    kind.run(in);
#elif defined(AVPOOL_FUZZ_PCM)
    static Audio<PCMPutter, PCMGetter, PCMGetterError, PCM_KEY, PCM_FRAGMENT_SIZE> kind(
        [](PCMPutter& w) { w.init(); }, [](PCMPutter& w) { w.reset(16, 1, 8000); });
    kind.run(in, [](PCMGetter& g) { g.init(); });
#elif defined(AVPOOL_FUZZ_AAC)
    static Audio<AACPutter, AACGetter, AACGetterError, AAC_BASE_KEY, AAC_MAX_FRAGMENT_SIZE> kind(
        [](AACPutter& w) { w.init(0); }, [](AACPutter& w) { w.reset(16, 2, 44100, 0x1588); });
    kind.run(in, [](AACGetter& g) { g.init(0); });
#elif defined(AVPOOL_FUZZ_OPUS)
    static Audio<OPUSPutter, OPUSGetter, OPUSGetterError, OPUS_KEY, OPUS_FRAGMENT_SIZE> kind(
        [](OPUSPutter& w) { w.init(); }, [](OPUSPutter& w) { w.reset(8, 1, 8000); });
    kind.run(in, [](OPUSGetter& g) { g.init(); });
#elif defined(AVPOOL_FUZZ_LUM)
    static Analysis<LUMPutter, LUMGetter, LUMGetterError, LUM_BASE_KEY, LUM_FRAME_COUNT> kind(
        [](LUMPutter& w, const timeval& t) { w.putFrame(payload(2 * 64 * 48, 3).data(), 64 * 48, t); });
    kind.run(in, [](LUMGetter& g, Segment& s) { s.expectInside(g.samples, 2 * LUM_MAX_SAMPLES, "luminance samples"); });
#elif defined(AVPOOL_FUZZ_MD)
    static Analysis<MDPutter, MDGetter, MDGetterError, MD_BASE_KEY, MD_FRAME_COUNT> kind([](MDPutter& w, const timeval& t) {
        std::vector<unsigned char> bytes = payload(4 * 64 * 48, 5);
        w.putFrame(bytes.data(), bytes.data(), 64 * 48, t);
    });
    kind.run(in, [](MDGetter& g, Segment& s) {
        s.expectInside(g.firstArray, 4 * MD_MAX_ELEMENTS, "first motion array");
        s.expectInside(g.secondArray, 4 * MD_MAX_ELEMENTS, "second motion array");
        try {
            use(g.getVibration(g.frameLength % 8 - 1));
        } catch (const MDGetterError&) {
        }
    });
#elif defined(AVPOOL_FUZZ_INFOS)
    static Infos kind;
    kind.run(in);
#else
#error "build with one of AVPOOL_FUZZ_JPG, _MP4, _PCM, _AAC, _OPUS, _LUM, _MD, _INFOS"
#endif
    return 0;
}
