// One reader's calls on a segment of fuzzed bytes. A real writer runs the interop
// scenario once (the base image); every input rewrites words of that image in the
// segment, attaches a getter and drives it with calls, rewriting further words
// between them as a stray process would. The getter may throw its own error; it must not fault,
// hang, or hand out a pointer and length that leave the segment. Built per kind
// (AVPOOL_FUZZ_JPG, ..._INFOS), for libFuzzer or with the seeded random driver at
// the end (AVPOOL_FUZZ_DRIVER).
#include "../interop/scenario.h"

#include <algorithm>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <random>
#include <string>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <type_traits>
#include <unistd.h>
#include <vector>

namespace {

// Where a fault is reported: stderr, unless the driver silenced it and kept the
// real one elsewhere.
int reportFd = 2;

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
    dprintf(reportFd, "getter fault: %s\n", what);
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
        if (in.byte() & 1)  // the header's first words from the input as they come
            for (size_t i = 0; i < 64 && i < size_; i += 4) store(i, static_cast<int32_t>(in.word()));
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
        std::ifstream maps("/proc/self/maps");
        unsigned long lo = 0, hi = 0;
        for (std::string line; std::getline(maps, line);)
            if (sscanf(line.c_str(), "%lx-%lx", &lo, &hi) == 2 && p >= lo && p < hi && line.find(name) != line.npos)
                return lo;
        return 0;
    }

    key_t key_;
    unsigned char* base_ = nullptr;
    size_t size_ = 0;
    uintptr_t mapped_ = 0;
    std::vector<unsigned char> image_;
};

// The sets baseImage planted, removed when the run ends: the writer's release
// only removes the sets it made itself.
struct PlantedSets {
    std::vector<key_t> keys;
    ~PlantedSets() {
        for (key_t key : keys) semctl(semget(key, 0, 0), 0, IPC_RMID);
    }
} planted;

// Loads a fresh image with words rewritten near `near`, attaches a Getter and makes
// up to 48 calls: op 0 to ops - 1 from an input byte, or op `ops`, a stray
// write. Error, the kind's own, ends no call.
template <class Getter, class Error, class Init, class Call>
void fuzz(Input& in, Segment& segment, int32_t near, int ops, Init init, Call call) {
    segment.load(in, near);
    Getter getter;
    try {
        init(getter);
    } catch (const Error&) {
        return;  // init refused the header
    }
    for (int n = 0; n < 48 && !in.empty(); ++n) {
        try {
            if (int op = in.byte() % (ops + 1); op < ops) call(getter, op);
            else segment.edit(in, near);
        } catch (const Error&) {
        }
    }
}

// The calls every ring kind has, ops 0 to 6: the searches (a GOP ring's under their
// own names) for the scenario's seconds or anything, and the age probe; false for
// any other op.
template <class G>
bool ringCall(Input& in, int op, G& g) {
    int safe = 0, sec = op < 2 ? 0 : in.byte() & 1 ? 1000 + in.byte() % 80 : in.value(1000, 0);
    int us = op == 3 || op == 5 ? in.value(0, 1000000) : 0;
    constexpr bool gops = std::is_same_v<G, MP4Getter>;
    switch (op) {
        case 0: if constexpr (gops) g.toWorkingGop(safe); else g.toWorking(safe); break;
        case 1: if constexpr (gops) g.toNextGop(safe); else g.toNext(safe); break;
        case 2: if constexpr (gops) g.toOldestWorkingGop(safe, sec); else g.toOldestWorking(safe, sec); break;
        case 3: if constexpr (gops) g.toOldestWorkingGop(safe, sec, us); else g.toOldestWorking(safe, sec, us); break;
        case 4: if constexpr (gops) g.toExactWorkingGop(safe, sec); else g.toExactWorking(safe, sec); break;
        case 5: if constexpr (gops) g.toExactWorkingGop(safe, sec, us); else g.toExactWorking(safe, sec, us); break;
        case 6: g.probeAge(in.byte()); break;
        default: return false;
    }
    return true;
}

// ------------------------------------------------------------------ kinds
// Each kind's base image: its pool as the interop scenario leaves it (every ring
// wrapped), the writer kept for the whole run. Its lock sets (`groups` of them from
// the first key) are replaced by sets as large as any header could ask for, every
// lock open: each wait returns at once and no set is ever missing.
template <class Writer>
Segment& baseImage(const char* kind, int groups = 1) {
    static Segment segment = [&] {
        golden::filled<Writer>();
        const golden::Placement* place = golden::PLACES;
        while (strcmp(place->name, kind) != 0) ++place;
        for (key_t key = place->sets.front(); key < place->sets.front() + groups; ++key) {
            semctl(semget(key, 0, 0), 0, IPC_RMID);
            if (semget(key, 250, IPC_CREAT | IPC_EXCL | 0600) == -1) fail("cannot plant the lock sets");
            planted.keys.push_back(key);
        }
        return Segment(place->segment);
    }();
    return segment;
}

#if defined(AVPOOL_FUZZ_JPG)
void runOne(Input& in) {
    Segment& segment = baseImage<JPGPutter>("jpg");
    auto init = [](JPGGetter& g) { g.init(golden::JPG_CHANNEL); };
    fuzz<JPGGetter, JPGGetterError>(in, segment, golden::JPG_SLOTS, 11, init, [&](JPGGetter& g, int op) {
        if (ringCall(in, op, g)) return;
        switch (op) {
            case 7:
                g.getFrame();
                segment.expectInside(g.frame.data, g.frame.frameLength, "JPEG frame");
                break;
            case 8: g.waitReady(); break;
            case 9: use(g.getFrameID()); break;
            default:
                segment.expectInside(g.getLumQT(), 64, "quantisation table");
                segment.expectInside(g.getChromQT(), 64, "quantisation table");
                use(g.getWorkingFPS(), g.getWorkingWidth(), g.getWorkingHeight(), g.getRealFPS());
                break;
        }
    });
}

#elif defined(AVPOOL_FUZZ_MP4)
void runOne(Input& in) {
    constexpr int FRAMES = golden::MP4_FRAMES;
    Segment& segment = baseImage<MP4Putter>("mp4", 4);
    fuzz<MP4Getter, MP4GetterError>(in, segment, golden::MP4_GOPS * FRAMES, 11,
                                    [](MP4Getter& g) { g.init(golden::MP4_CHANNEL); }, [&](MP4Getter& g, int op) {
        int k = in.byte() % 2 ? in.byte() % (FRAMES + 2) - 1 : in.value(FRAMES, 1000);
        if (ringCall(in, op, g)) return;
        switch (op) {
            case 7:
                if (g.getFrameData(k) != 0) segment.expectInside(g.frameData, g.frameLength, "video frame");
                break;
            case 8: g.waitFrameReady(k); break;
            case 9: use(g.getGopID(), g.getSafeTime()); break;
            default:
                use(g.getOneSafeTime(), g.getWorkingFPS(), g.getWorkingWidth(), g.getWorkingHeight(), g.getRealFPS());
                break;
        }
    });
}

#elif defined(AVPOOL_FUZZ_PCM) || defined(AVPOOL_FUZZ_AAC) || defined(AVPOOL_FUZZ_OPUS)
// The audio kinds: fragments of up to the kind's capacity round the 200 slots.
template <class Writer, class Getter, class Error>
void runAudio(Input& in, const char* kind, const golden::Audio& audio) {
    Segment& segment = baseImage<Writer>(kind);
    auto init = [&](Getter& g) {
        if constexpr (std::is_same_v<Getter, AACGetter>) g.init(audio.channel);
        else g.init();
    };
    fuzz<Getter, Error>(in, segment, AUDIO_SLOT_COUNT, 11, init, [&](Getter& g, int op) {
        if (ringCall(in, op, g)) return;
        switch (op) {
            case 7: {
                // The length is the writer's word (Opus records it as given); the
                // data is the slot's fixed buffer.
                g.getFragment();
                int length = g.fragment.length, capacity = audio.capacity;
                segment.expectInside(g.fragment.data, length < 0 || length > capacity ? capacity : length, "fragment");
                break;
            }
            case 8: g.waitReady(); break;
            case 9: use(g.getFragmentID(), g.getSafeTime()); break;
            default: use(g.getWorkingFormat(), g.getWorkingChannels(), g.getWorkingRate()); break;
        }
    });
}

void runOne(Input& in) {
#if defined(AVPOOL_FUZZ_PCM)
    runAudio<PCMPutter, PCMGetter, PCMGetterError>(in, "pcm", golden::PCM_AUDIO);
#elif defined(AVPOOL_FUZZ_AAC)
    runAudio<AACPutter, AACGetter, AACGetterError>(in, "aac", golden::AAC_AUDIO);
#else
    runAudio<OPUSPutter, OPUSGetter, OPUSGetterError>(in, "opus", golden::OPUS_AUDIO);
#endif
}

#elif defined(AVPOOL_FUZZ_LUM) || defined(AVPOOL_FUZZ_MD)
// The analysis kinds: a few records with their payload inline.
template <class Writer, class Getter, class Error, class Check>
void runAnalysis(Input& in, const golden::Analysis& analysis, Check check) {
    Segment& segment = baseImage<Writer>(analysis.name);
    auto init = [&](Getter& g) { g.init(analysis.channel); };
    fuzz<Getter, Error>(in, segment, analysis.slots, 5, init, [&](Getter& g, int op) {
        int safe = 0;
        switch (op) {
            case 0: use(g.toWorking(safe)); break;
            case 1: use(g.toNext(safe)); break;
            case 2:
                g.getFrame();
                check(g, segment);
                break;
            case 3: g.waitReady(); break;
            default: use(g.getFrameID(), g.getWorkingFPS(), g.getWorkingWidth(), g.getWorkingHeight()); break;
        }
    });
}

void runOne(Input& in) {
#if defined(AVPOOL_FUZZ_LUM)
    runAnalysis<LUMPutter, LUMGetter, LUMGetterError>(in, golden::LUM_ANALYSIS, [](LUMGetter& g, Segment& s) {
        s.expectInside(g.samples, 2 * LUM_MAX_SAMPLES, "luminance samples");
    });
#else
    runAnalysis<MDPutter, MDGetter, MDGetterError>(in, golden::MD_ANALYSIS, [](MDGetter& g, Segment& s) {
        s.expectInside(g.firstArray, 4 * MD_MAX_ELEMENTS, "first motion array");
        s.expectInside(g.secondArray, 4 * MD_MAX_ELEMENTS, "second motion array");
        use(g.getVibration(g.frameLength % 8 - 1));  // -1 and 8 throw
    });
#endif
}

#elif defined(AVPOOL_FUZZ_INFOS)
// The information area as an encoder and servers leave it; the budget's set is put
// back to a free lock for every input.
void runOne(Input& in) {
    static Segment segment = (golden::filled<InfosPutter>(), Segment(INFOS_KEY));
    static int budgetSet = semget(INFOS_KEY, 0, 0);
    unsigned short free[12] = {1};
    semctl(budgetSet, 0, SETALL, free);
    fuzz<InfosGetter, InfosGetterError>(in, segment, MAX_MEDIA_POOL, 15, [](InfosGetter& g) { g.init(INFOS_KEY); },
                                        [&](InfosGetter& g, int op) {
        int profile = in.byte() % 2 ? in.byte() % 7 - 1 : in.value(MAX_MEDIA_POOL, 0);
        int a = 0, b = 0, c = 0;
        switch (op) {
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
            default:
                g.allocUserSlat("a", "b", in.value(1, 10), 4);
                g.deleteUserSlat(in.value(MAX_USER_SLATS, 0));
                g.resetUserSlat("c", nullptr, in.value(MAX_USER_SLATS, 0));
                break;
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

#if defined(AVPOOL_FUZZ_DRIVER)
// Without libFuzzer: seeded random inputs for a bounded number of runs and seconds
// (--runs N --seconds S --seed N). The getters' own lines on stderr are silenced; a
// fault or a hang prints the input that caused it, in hex, before the process dies.
namespace {
std::vector<uint8_t> input;

void report(int sig) {
    dprintf(reportFd, "\nsignal %d on input of %zu bytes:\n", sig, input.size());
    for (uint8_t b : input) dprintf(reportFd, "%02x", b);
    dprintf(reportFd, "\n");
    signal(sig == SIGALRM ? SIGABRT : sig, SIG_DFL);  // a hang ends as an abort
    raise(sig == SIGALRM ? SIGABRT : sig);
}
}  // namespace

int main(int argc, char** argv) {
    long runs = 10000;
    double seconds = 10;
    unsigned seed = 1;
    for (int i = 1; i + 1 < argc; i += 2) {
        std::string arg = argv[i];
        if (arg == "--runs") runs = atol(argv[i + 1]);
        if (arg == "--seconds") seconds = atof(argv[i + 1]);
        if (arg == "--seed") seed = static_cast<unsigned>(atol(argv[i + 1]));
    }
    for (int sig : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGALRM}) signal(sig, report);
    reportFd = dup(2);
    dup2(open("/dev/null", O_WRONLY), 2);
    std::mt19937 random(seed);
    auto start = std::chrono::steady_clock::now();
    auto took = [&] { return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(); };
    long done = 0;
    for (; done < runs && took() <= seconds; ++done) {
        input.resize(random() % 512);
        for (uint8_t& b : input) b = static_cast<uint8_t>(random());
        alarm(10);
        LLVMFuzzerTestOneInput(input.data(), input.size());
        alarm(0);
    }
    dprintf(reportFd, "%ld random inputs in %.1f s (seed %u), no fault\n", done, took(), seed);
    return 0;
}
#endif
