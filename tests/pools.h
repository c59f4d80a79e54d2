// Every pool kind as the tests drive it: its keys and sizes as plain numbers, one
// element (a JPEG frame, a GOP of three frames, an audio fragment, an analysis
// record) that carries its own id in its first bytes, and the reader's moves under
// one set of names, so one typed test covers what the kinds share.
#pragma once

#include <avpool/avpool.h>

#include "expect.h"
#include "ipc_harness.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

using avpool::test::at;
using avpool::test::Calls;
using avpool::test::failureOf;
using avpool::test::RawSegment;
using Bytes = std::vector<unsigned char>;

// An element's bytes: its id in the first eight, then a pattern of id and position.
inline Bytes payload(unsigned long long id, size_t size) {
    Bytes bytes(size);
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<unsigned char>(id * 31 + i * 7 + 1);
    if (size >= 8) memcpy(bytes.data(), &id, 8);
    return bytes;
}
inline unsigned long long idIn(const void* data) {
    unsigned long long id;
    memcpy(&id, data, 8);
    return id;
}

template <class P, class G, class PE, class GE>
struct Classes {
    using Putter = P;
    using Getter = G;
    using PutterError = PE;
    using GetterError = GE;
    static constexpr const char* MISUSE_LOG = "programming error\n";  // use before init
};

// The reader's moves under one set of names (the video pool's are by GOP); a
// search without microseconds when usec is -1.
template <class Getter>
struct Moves {
    static unsigned long long toWorking(Getter& g, int& s) { return g.toWorking(s); }
    static unsigned long long toNext(Getter& g, int& s) { return g.toNext(s); }
    static unsigned long long toOldest(Getter& g, int& s, int sec, int usec = -1) {
        return usec < 0 ? g.toOldestWorking(s, sec) : g.toOldestWorking(s, sec, usec);
    }
    static unsigned long long toExact(Getter& g, int& s, int sec, int usec = -1) {
        return usec < 0 ? g.toExactWorking(s, sec) : g.toExactWorking(s, sec, usec);
    }
};

struct JpegKind : Classes<JPGPutter, JPGGetter, JPGPutterError, JPGGetterError>, Moves<JPGGetter> {
    static constexpr const char* NAME = "Jpeg";
    static constexpr int CHANNEL = 5, SLOTS = 6, INTERVAL = 100, SET_COUNT = SLOTS;
    static constexpr key_t KEY = JPG_BASE_KEY + CHANNEL, SET_KEY = KEY;
    static constexpr size_t SEGMENT = 172 + 52 * SLOTS + 1024;
    static constexpr bool FRAME_FORM = true, RETRIES_ON_SIGNAL = true, SMALL_SHM_BLOCKS = false,
                          SMALL_SET_BLOCKS = true, INIT_RELEASES = false;
    static std::vector<key_t> keys() { return {KEY}; }
    static void init(Putter& p) { p.init(CHANNEL, SLOTS, 64, 52 * SLOTS + 1024); }
    static void start(Putter& p) {
        init(p);
        p.reset(1, 1, 1000 / INTERVAL, 1);
    }
    static void put(Putter& p, unsigned long long id, timeval t) {
        Bytes bytes = payload(id, 16 + id % 5);
        p.putFrame(bytes.data(), static_cast<int>(bytes.size()), t);
    }
    static void init(Getter& g) { g.init(CHANNEL); }
    static unsigned long long id(Getter& g) { return g.getFrameID(); }
    static int lockOf(unsigned long long id) { return static_cast<int>(id % SLOTS); }
    static void wait(Getter& g) { g.waitReady(); }
    static unsigned long long read(Getter& g) {
        g.getFrame();
        return idIn(g.frame.data);
    }
    static int probe(Getter& g, int maxAge) {
        g.probeAge(maxAge);
        return 0;
    }
    static Calls putterCalls(Putter& p) {
        unsigned char t[64] = {};
        return {[&p] { p.reset(1, 1, 1, 1); }, [&p] { p.putRealFPS(1); }, [&p, t] { p.putQuantTables(t, t); }};
    }
    static Calls getterCalls(Getter& g) {
        static int s;
        return {[&g] { g.getWorkingFPS(); },    [&g] { g.getWorkingWidth(); },  [&g] { g.getWorkingHeight(); },
                [&g] { g.getRealFPS(); },       [&g] { g.getLumQT(); },         [&g] { g.getChromQT(); },
                [&g] { g.probeAge(1); },        [&g] { g.getFrame(); },         [&g] { g.toWorking(s); },
                [&g] { g.toNext(s); },          [&g] { g.toOldestWorking(s, 1); },
                [&g] { g.toOldestWorking(s, 1, 1); }, [&g] { g.toExactWorking(s, 1); },
                [&g] { g.toExactWorking(s, 1, 1); },  [&g] { g.getFrameID(); }, [&g] { g.waitReady(); }};
    }
    // Frames of varied sizes (the ring wraps often), some refused, resets between.
    static void churn(Putter& p, int k, unsigned char* bytes) {
        p.putFrame(bytes, 1 + k * 37 % 64, at(k, k * 7));
        if (k % 100 == 0) {
            p.putFrame(bytes, 65, at(k));
            p.reset(320 + k, 240, 10 + k % 20, k % 100);
            p.changeQuality(k);
            p.putRealFPS(k % 30);
        }
    }
};

struct Mp4Kind : Classes<MP4Putter, MP4Getter, MP4PutterError, MP4GetterError> {
    static constexpr const char* NAME = "Mp4";
    static constexpr int CHANNEL = 3, SLOTS = 6, FRAMES = 3, INTERVAL = 100, SET_COUNT = SLOTS * FRAMES;
    static constexpr key_t KEY = MP4_BASE_KEY + CHANNEL, SET_KEY = MP4_BASE_KEY + 16 * CHANNEL;
    static constexpr size_t SEGMENT = 52 + 52 * SET_COUNT + 2048;
    static constexpr bool FRAME_FORM = true, RETRIES_ON_SIGNAL = true, SMALL_SHM_BLOCKS = false,
                          SMALL_SET_BLOCKS = false, INIT_RELEASES = false;
    static std::vector<key_t> keys() { return {KEY, SET_KEY, SET_KEY + 1, SET_KEY + 2, SET_KEY + 3}; }
    static void init(Putter& p) { p.init(CHANNEL, SLOTS, FRAMES, 64, 52 * SET_COUNT + 2048); }
    static void start(Putter& p) {
        init(p);
        p.reset(640, 480, 30);  // 3 frames at 30 fps: 100 ms a GOP
    }
    // A GOP: an I frame and two P frames, all of the same bytes.
    static void put(Putter& p, unsigned long long id, timeval t) {
        Bytes bytes = payload(id, 12);
        p.putIFrame(bytes.data(), 12, t);
        for (int k = 1; k < FRAMES; ++k) p.putPFrame(bytes.data(), 12, t);
    }
    static void init(Getter& g) { g.init(CHANNEL); }
    static unsigned long long toWorking(Getter& g, int& s) { return g.toWorkingGop(s); }
    static unsigned long long toNext(Getter& g, int& s) { return g.toNextGop(s); }
    static unsigned long long toOldest(Getter& g, int& s, int sec, int usec = -1) {
        return usec < 0 ? g.toOldestWorkingGop(s, sec) : g.toOldestWorkingGop(s, sec, usec);
    }
    static unsigned long long toExact(Getter& g, int& s, int sec, int usec = -1) {
        return usec < 0 ? g.toExactWorkingGop(s, sec) : g.toExactWorkingGop(s, sec, usec);
    }
    static unsigned long long id(Getter& g) { return g.getGopID(); }
    static int lockOf(unsigned long long id) { return static_cast<int>(id % SLOTS) * FRAMES; }
    static void wait(Getter& g) { g.waitFrameReady(0); }
    static unsigned long long read(Getter& g) { return g.getFrameData(0) == 0 ? 0 : idIn(g.frameData); }
    static int probe(Getter& g, int maxAge) { return g.probeAge(maxAge); }
    static Calls putterCalls(Putter& p) { return {[&p] { p.reset(1, 1, 1); }, [&p] { p.putRealFPS(1); }}; }
    static Calls getterCalls(Getter& g) {
        static int s;
        return {[&g] { g.toWorkingGop(s); },  [&g] { g.toNextGop(s); },     [&g] { g.toOldestWorkingGop(s, 1); },
                [&g] { g.toOldestWorkingGop(s, 1, 1); }, [&g] { g.toExactWorkingGop(s, 1); },
                [&g] { g.toExactWorkingGop(s, 1, 1); },  [&g] { g.getGopID(); },  [&g] { g.getSafeTime(); },
                [&g] { g.getOneSafeTime(); }, [&g] { g.getWorkingFPS(); }, [&g] { g.getWorkingWidth(); },
                [&g] { g.getWorkingHeight(); }, [&g] { g.getRealFPS(); }, [&g] { g.probeAge(1); },
                [&g] { g.waitFrameReady(0); }, [&g] { g.getFrameData(0); }};
    }
    static void churn(Putter& p, int k, unsigned char* bytes) {
        if (k % 3 == 0) p.putIFrame(bytes, 1 + k * 37 % 64, at(k));
        else p.putPFrame(bytes, 1 + k * 37 % 80, at(k));  // cut to the maximum
        if (k % 100 == 0) {
            p.putIFrame(bytes, 65, at(k));  // refused, its P frames dropped
            p.reset(320 + k, 240, 10 + k % 20);
            p.putRealFPS(k % 30);
        }
    }
};

// The audio kinds: 200 fixed slots of a kind's size behind an 816-byte header.
// Channel is -1 for the kinds with one pool; Extras counts the words a slot keeps
// after the samples field (the stream parameter, then AMR's fragment parameter).
template <class P, class G, class PE, class GE, int Channel, key_t Key, key_t SetKey, size_t Slot, size_t Data,
          size_t Capacity, int Extras>
struct AudioKind : Classes<P, G, PE, GE>, Moves<G> {
    static constexpr int SLOTS = 200, SET_COUNT = 200, CHANNEL = Channel, EXTRAS = Extras;
    static constexpr key_t KEY = Key, SET_KEY = SetKey;
    static constexpr size_t SEGMENT = 816 + 200 * Slot, SLOT = Slot, DATA = Data, CAPACITY = Capacity;
    static constexpr bool FRAME_FORM = false, RETRIES_ON_SIGNAL = false, SMALL_SHM_BLOCKS = true,
                          SMALL_SET_BLOCKS = false, INIT_RELEASES = false;
    static std::vector<key_t> keys() { return {KEY, SET_KEY}; }
    template <class T>
    static void init(T& object) {
        if constexpr (Channel < 0) object.init(); else object.init(Channel);
    }
    static void reset(P& p, int format, int channels, int rate, int param) {
        if constexpr (Extras == 0) p.reset(format, channels, rate); else p.reset(format, channels, rate, param);
    }
    static void put(P& p, const void* data, int length, timeval t, int param) {
        if constexpr (Extras == 2) p.putFragment(const_cast<void*>(data), length, t, param);
        else p.putFragment(const_cast<void*>(data), length, t);
    }
    // Tests drive every kind at 16 bits, mono, 8 kHz.
    static void start(P& p) {
        init(p);
        reset(p, 16, 1, 8000, 42);
    }
    static void put(P& p, unsigned long long id, timeval t) {
        put(p, payload(id, Capacity).data(), static_cast<int>(Capacity), t, static_cast<int>(id % 8));
    }
    static void churn(P& p, int k, unsigned char* bytes) {
        put(p, bytes, 1 + k * 37 % static_cast<int>(2 * Capacity), at(k), k);
        if (k % 100 == 0) reset(p, k % 200 == 0 ? 8 : 16, 1 + k % 2, 8000 + k, k);
    }
    static Calls putterCalls(P& p) { return {[&p] { reset(p, 16, 1, 8000, 0); }, [&p] { p.setSafeTime(); }}; }
    static unsigned long long id(G& g) { return g.getFragmentID(); }
    static int lockOf(unsigned long long id) { return static_cast<int>(id % SLOTS); }
    static void wait(G& g) { g.waitReady(); }
    static unsigned long long read(G& g) {
        g.getFragment();
        return idIn(g.fragment.data);
    }
    static int probe(G& g, int maxAge) { return g.probeAge(maxAge); }
    static Calls getterCalls(G& g) {
        static int s;
        return {[&g] { g.getWorkingFormat(); }, [&g] { g.getWorkingChannels(); }, [&g] { g.getWorkingRate(); },
                [&g] { g.getSafeTime(); },      [&g] { g.probeAge(1); },           [&g] { g.getFragment(); },
                [&g] { g.toWorking(s); },       [&g] { g.toOldestWorking(s, 1); }, [&g] { g.toOldestWorking(s, 1, 1); },
                [&g] { g.toExactWorking(s, 1); }, [&g] { g.toExactWorking(s, 1, 1); }, [&g] { g.toNext(s); },
                [&g] { g.getFragmentID(); },    [&g] { g.waitReady(); }};
    }
    static constexpr const char* MISUSE_LOG = "programming error";  // no newline
};
// No getter in the library for AMR: its pool is read through the raw layout only.
struct NoGetter {};
struct Pcm : AudioKind<PCMPutter, PCMGetter, PCMPutterError, PCMGetterError, -1, 18944, 18944, 2096, 44, 2048, 0> {
    static constexpr const char* NAME = "PCM";
    static constexpr int BITS = 16384, FACTOR = 1, INTERVAL = 128;  // 16 bits mono 8 kHz
};
struct Aac : AudioKind<AACPutter, AACGetter, AACPutterError, AACGetterError, 3, 20227, 20272, 560, 48, 512, 1> {
    static constexpr const char* NAME = "AAC";
    static constexpr int BITS = 16384, FACTOR = 2, INTERVAL = 256;
};
struct Amr : AudioKind<AMRPutter, NoGetter, AMRPutterError, NoGetter, 2, 20482, 20512, 1080, 52, 1024, 2> {
    static constexpr const char* NAME = "AMR";
    static constexpr int BITS = 16384, FACTOR = 2, INTERVAL = 256;
};
struct Opus : AudioKind<OPUSPutter, OPUSGetter, OPUSPutterError, OPUSGetterError, -1, 23040, 23040, 560, 48, 512, 0> {
    static constexpr const char* NAME = "OPUS";
    static constexpr int BITS = 4096, FACTOR = 1, INTERVAL = 32;
};

// The analysis kinds: a few fixed records with their arrays inline.
template <class P, class G, class PE, class GE, key_t Key, int Slots, size_t Size, size_t Record, size_t Element,
          int Arrays>
struct AnalysisKind : Classes<P, G, PE, GE>, Moves<G> {
    using typename Classes<P, G, PE, GE>::Putter;
    using typename Classes<P, G, PE, GE>::Getter;
    static constexpr int CHANNEL = 3, SLOTS = Slots, SET_COUNT = Slots, INTERVAL = 100, ARRAYS = Arrays;
    static constexpr key_t KEY = Key + CHANNEL, SET_KEY = KEY;
    static constexpr size_t SEGMENT = Size, RECORD = Record, ELEMENT = Element;
    static constexpr bool RETRIES_ON_SIGNAL = false, SMALL_SHM_BLOCKS = true, SMALL_SET_BLOCKS = true,
                          INIT_RELEASES = true;
    static std::vector<key_t> keys() { return {KEY}; }
    static void init(Putter& p) { p.init(CHANNEL); }
    static void start(Putter& p) {
        init(p);
        p.reset(3, 2, 10);
    }
    static void init(Getter& g) { g.init(CHANNEL); }
    static unsigned long long id(Getter& g) { return g.getFrameID(); }
    static int lockOf(unsigned long long id) { return static_cast<int>(id % SLOTS); }
    static void wait(Getter& g) { g.waitReady(); }
    static Calls putterCalls(Putter& p) { return {[&p] { p.reset(3, 2, 10); }, [&p] { p.setSafeTime(); }}; }
    static Calls getterCalls(Getter& g) {
        static int s;
        return {[&g] { g.getWorkingFPS(); }, [&g] { g.getWorkingWidth(); }, [&g] { g.getWorkingHeight(); },
                [&g] { g.toWorking(s); },    [&g] { g.toNext(s); },         [&g] { g.getFrameID(); },
                [&g] { g.getFrame(); },      [&g] { g.waitReady(); }};
    }
};
struct LumKind : AnalysisKind<LUMPutter, LUMGetter, LUMPutterError, LUMGetterError, 19712, 6, 61624, 10264, 2, 1> {
    static constexpr const char* NAME = "Lum";
    static constexpr bool FRAME_FORM = true;
    static constexpr int WIDTH = 80, HEIGHT = 64;  // fills a slot exactly
    static constexpr size_t SAFE_TIMES = 16, ARRAY = 10240, ARRAY_AT[] = {24};
    static int next(int i) { return nextLUMFrame(i); }
    static void put(Putter& p, const std::vector<Bytes>& a, int length, timeval t) {
        p.putFrame(const_cast<unsigned char*>(a[0].data()), length, t);
    }
    static void put(Putter& p, unsigned long long id, timeval t) { put(p, {payload(id, 12)}, 6, t); }
    static unsigned long long read(Getter& g) {
        g.getFrame();
        return idIn(g.samples);
    }
    static std::vector<const unsigned char*> arrays(const Getter& g) {
        return {reinterpret_cast<const unsigned char*>(g.samples)};
    }
    static void churn(Putter& p, int k, unsigned char* bytes) {
        const int width = 1 + (k - 1) / 7 % WIDTH;  // sizes up to a full slot
        if ((k - 1) % 7 == 0) p.reset(width, HEIGHT, 1 + k % 30);
        p.putFrame(bytes, width * HEIGHT, at(k));
    }
};
struct MdKind : AnalysisKind<MDPutter, MDGetter, MDPutterError, MDGetterError, 19968, 5, 123040, 24600, 4, 2> {
    static constexpr const char* NAME = "Md";
    static constexpr bool FRAME_FORM = false;
    static constexpr int WIDTH = 64, HEIGHT = 48;
    static constexpr size_t VIBRATION = 16, SAFE_TIMES = 20, ARRAY = 12288, ARRAY_AT[] = {24, 12312};
    static int next(int i) { return nextMDFrame(i); }
    static void put(Putter& p, const std::vector<Bytes>& a, int length, timeval t) {
        p.putFrame(const_cast<unsigned char*>(a[0].data()), const_cast<unsigned char*>(a[1].data()), length, t);
    }
    static void put(Putter& p, unsigned long long id, timeval t) { put(p, {payload(id, 24), payload(id, 24)}, 6, t); }
    static unsigned long long read(Getter& g) {
        g.getFrame();
        return idIn(g.firstArray) == idIn(g.secondArray) ? idIn(g.firstArray) : 0;
    }
    static std::vector<const unsigned char*> arrays(const Getter& g) {
        return {reinterpret_cast<const unsigned char*>(g.firstArray),
                reinterpret_cast<const unsigned char*>(g.secondArray)};
    }
    static void churn(Putter& p, int k, unsigned char* bytes) {
        const int width = 1 + (k - 1) / 7 % WIDTH;
        if ((k - 1) % 7 == 0) p.reset(width, HEIGHT, 1 + k % 30);
        p.putFrame(bytes, bytes + 12288, width * HEIGHT, at(k));
    }
};

struct KindNames {
    template <class Kind>
    static std::string GetName(int) { return Kind::NAME; }
};

// A kind's putter under its keys, cleaned before and after the test.
template <class Kind>
class Pool : public ::testing::Test {
protected:
    void SetUp() override {
        for (key_t key : Kind::keys()) keys.add(key);
    }
    void put(unsigned long long id, timeval t = {}) { Kind::put(putter, id, t); }
    // Puts ids from..to, each stamped with its id as the second.
    void putRange(unsigned long long from, unsigned long long to) {
        for (unsigned long long id = from; id <= to; ++id) put(id, at(static_cast<int>(id)));
    }

    avpool::test::IpcKeys keys{};
    typename Kind::Putter putter;  // declared after keys: released before the keys are cleaned
};
