// The four audio pools under test, as one typed fixture: each kind is described
// by plain numbers (keys, slot size, where its extras and data lie, its length
// rule and arithmetic), so raw reads of the segment do not depend on the
// library's own record types.
#pragma once

#include <avpool/aac.h>
#include <avpool/amr.h>
#include <avpool/opus.h>
#include <avpool/pcm.h>

#include "expect.h"
#include "ipc_harness.h"
#include "pool_layout.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace audio_layout {
// Header.
constexpr size_t CURRENT = 0;
constexpr size_t WORKING_FORMAT = 4;
constexpr size_t WORKING_CHANNELS = 8;
constexpr size_t WORKING_RATE = 12;
constexpr size_t HEADER = 816;
// Every slot's first 44 bytes.
constexpr size_t LOCK_INDEX = 0;
constexpr size_t ID = 8;
constexpr size_t LENGTH = 16;
constexpr size_t FORMAT = 20;
constexpr size_t CHANNELS = 24;
constexpr size_t RATE = 28;
constexpr size_t SEC = 32;
constexpr size_t USEC = 36;
constexpr size_t SAMPLES = 40;
constexpr size_t HEAD = SAMPLES + 4;  // where a kind's extras begin
constexpr size_t NONE = 0;  // no such field in this kind

constexpr int SLOTS = 200;
constexpr unsigned char FILL = 0xCC;
constexpr int32_t FILL_WORD = static_cast<int32_t>(0xCCCCCCCC);

inline size_t safeTime(int slot) {
    return 16 + 4 * static_cast<size_t>(slot);
}
}  // namespace audio_layout

enum class Copy { Whole, AsGiven, UpToSize };

// How the tests call each kind: PCM and Opus take no channel and no streamParam.
template <class P, class PError, class G, class GError>
struct FixedKeyCalls {
    using Putter = P;
    using PutterError = PError;
    using Getter = G;
    using GetterError = GError;
    static void init(Putter& p) { p.init(); }
    static void reset(Putter& p, int format, int channels, int rate, int) { p.reset(format, channels, rate); }
    static void put(Putter& p, void* data, int length, const timeval& t, int) { p.putFragment(data, length, t); }
    static void init(Getter& g) { g.init(); }
};

template <class P, class PError, int Channel>
struct ChannelCalls {
    using Putter = P;
    using PutterError = PError;
    static constexpr int CHANNEL = Channel;
    static void init(Putter& p) { p.init(CHANNEL); }
    static void reset(Putter& p, int format, int channels, int rate, int streamParam) {
        p.reset(format, channels, rate, streamParam);
    }
};

struct PcmKind : FixedKeyCalls<PCMPutter, PCMPutterError, PCMGetter, PCMGetterError> {
    static constexpr const char* name = "PCM";
    static constexpr key_t KEY = 18944;
    static constexpr key_t SET_KEY = 18944;
    static constexpr size_t SEGMENT = 420016, SLOT = 2096, DATA = 44, CAPACITY = 2048;
    static constexpr size_t STREAM_PARAM = audio_layout::NONE, FRAGMENT_PARAM = audio_layout::NONE;
    static constexpr Copy copy = Copy::Whole;
    static constexpr int BITS = 16384, FACTOR = 1;
};

struct AacKind : ChannelCalls<AACPutter, AACPutterError, 3> {
    using Getter = AACGetter;
    using GetterError = AACGetterError;
    static constexpr const char* name = "AAC";
    static constexpr key_t KEY = 20224 + CHANNEL;
    static constexpr key_t SET_KEY = 20224 + 16 * CHANNEL;
    static constexpr size_t SEGMENT = 112816, SLOT = 560, DATA = 48, CAPACITY = 512;
    static constexpr size_t STREAM_PARAM = 44, FRAGMENT_PARAM = audio_layout::NONE;
    static constexpr Copy copy = Copy::UpToSize;
    static constexpr int BITS = 16384, FACTOR = 2;
    using ChannelCalls::init;
    static void init(Getter& g) { g.init(CHANNEL); }
    static void put(Putter& p, void* data, int length, const timeval& t, int) { p.putFragment(data, length, t); }
};

// No getter in the library: read through the raw layout only.
struct AmrKind : ChannelCalls<AMRPutter, AMRPutterError, 2> {
    static constexpr const char* name = "AMR";
    static constexpr key_t KEY = 20482;
    static constexpr key_t SET_KEY = 20512;
    static constexpr size_t SEGMENT = 216816, SLOT = 1080, DATA = 52, CAPACITY = 1024;
    static constexpr size_t STREAM_PARAM = 44, FRAGMENT_PARAM = 48;
    static constexpr Copy copy = Copy::UpToSize;
    static constexpr int BITS = 16384, FACTOR = 2;
    static void put(Putter& p, void* data, int length, const timeval& t, int fragmentParam) {
        p.putFragment(data, length, t, fragmentParam);
    }
};

struct OpusKind : FixedKeyCalls<OPUSPutter, OPUSPutterError, OPUSGetter, OPUSGetterError> {
    static constexpr const char* name = "OPUS";
    static constexpr key_t KEY = 23040;
    static constexpr key_t SET_KEY = 23040;
    static constexpr size_t SEGMENT = 112816, SLOT = 560, DATA = 48, CAPACITY = 512;
    static constexpr size_t STREAM_PARAM = audio_layout::NONE, FRAGMENT_PARAM = audio_layout::NONE;
    static constexpr Copy copy = Copy::AsGiven;
    static constexpr int BITS = 4096, FACTOR = 1;
};

struct KindNames {
    template <class Kind>
    static std::string GetName(int) {
        return Kind::name;
    }
};

using AllKinds = ::testing::Types<PcmKind, AacKind, AmrKind, OpusKind>;
using ReadableKinds = ::testing::Types<PcmKind, AacKind, OpusKind>;

// The duration arithmetic as the readers must repeat it.
template <class Kind>
int fragmentTimeOf(int bits, int channels, int rate) {
    return Kind::BITS / (rate / 1000) / bits / channels * Kind::FACTOR;
}
template <class Kind>
int sampleNumberOf(int bits, int channels) {
    return Kind::BITS / bits / channels * Kind::FACTOR;
}

// Bytes whose value tells which fragment and which position they come from.
inline std::vector<unsigned char> payload(int seed, size_t count) {
    std::vector<unsigned char> bytes(count);
    for (size_t i = 0; i < count; ++i) bytes[i] = static_cast<unsigned char>(seed * 31 + i * 7 + 1);
    return bytes;
}

using avpool::test::at;

template <class Kind>
class AudioPool : public ::testing::Test {
protected:
    // init() with its lines on stdout and stderr kept apart.
    void create() { avpool::test::captureOutput([&] { Kind::init(putter); }, initErr, &initOut); }
    // create() and a format of 16 bits, mono, 8000 Hz.
    void start(int streamParam = 0) {
        create();
        Kind::reset(putter, 16, 1, 8000, streamParam);
    }
    // One fragment of `length` bytes (the buffer always holds twice the capacity).
    void put(int seed, int second, int microsecond = 0, int length = static_cast<int>(Kind::CAPACITY),
             int fragmentParam = 0) {
        std::vector<unsigned char> bytes = payload(seed, 2 * Kind::CAPACITY);
        Kind::put(putter, bytes.data(), length, at(second, microsecond), fragmentParam);
    }

    static size_t slot(int index) { return audio_layout::HEADER + Kind::SLOT * static_cast<size_t>(index); }
    static int32_t field(const avpool::test::RawSegment& raw, int index, size_t offset) {
        return raw.i32(slot(index) + offset);
    }
    static std::vector<int> locks() { return avpool::test::lockValues(Kind::SET_KEY, audio_layout::SLOTS); }

    avpool::test::IpcKeys keys{Kind::KEY, Kind::SET_KEY};
    typename Kind::Putter putter;  // declared after keys: released before the keys are cleaned
    std::string initOut;
    std::string initErr;
};
