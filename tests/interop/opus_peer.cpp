// Opus section of the interop peer: the audio scenario on the one fixed-key
// pool, whose fragments always take 512 bytes and record the caller's length as
// given, above 512 too; slot offset 44 is never written. 8-bit stereo at
// 24000 Hz (10 ms a fragment).
#include "audio_peer.h"

#include <avpool/opus.h>

#include <cstdio>
#include <type_traits>

namespace interop {
namespace {

static_assert(std::is_same<OPUSPoolHeader, avpool::AudioPoolHeader>::value, "fingerprinted as AudioPoolHeader");

struct Opus {
    using Putter = OPUSPutter;
    using Getter = OPUSGetter;
    static constexpr AudioGeometry geometry{"opus",
                                            0x5A00,
                                            0,
                                            560,
                                            48,
                                            512,
                                            AudioCopy::AsGiven,
                                            false,
                                            false,
                                            4096,
                                            1,
                                            {8, 2, 24000, 0},
                                            {8, 2, 24000, 0},
                                            0};

    static void init(Putter& putter, int) { putter.init(); }
    static void init(Getter& getter, int) { getter.init(); }
    static void reset(Putter& putter, const AudioFormat& f) { putter.reset(f.format, f.channels, f.rate); }
    static void put(Putter& putter, void* data, int length, const timeval& at, int) {
        putter.putFragment(data, length, at);
    }
};

void layout() {
    printf("OPUS constants OPUS_KEY=%d OPUS_FRAGMENT_SIZE=%d OPUS_SEGMENT_SIZE=%d\n", OPUS_KEY, OPUS_FRAGMENT_SIZE,
           OPUS_SEGMENT_SIZE);
    printLayout("OPUSFragmentInfo", sizeof(OPUSFragmentInfo), alignof(OPUSFragmentInfo),
                {INTEROP_FIELD(OPUSFragmentInfo, head), INTEROP_FIELD(OPUSFragmentInfo, unused),
                 INTEROP_FIELD(OPUSFragmentInfo, data)});
}

}  // namespace

const PoolKind opusKind{"opus", layout, audioProduce<Opus>, audioConsume<Opus>};

}  // namespace interop
