// PCM section of the interop peer: the audio scenario on the one fixed-key pool,
// whose 2048-byte fragments are copied and recorded whole whatever length the
// caller gives. 16-bit stereo at 44100 Hz first (counted as 44 kHz: 11 ms a
// fragment), 8-bit mono at 22050 Hz from fragment 150 on, so that the older
// slots keep the first format. PCM is the model of the other audio kinds, so
// its section also prints the records they all share.
#include "audio_peer.h"

#include <avpool/pcm.h>

#include <cstdio>
#include <type_traits>

namespace interop {
namespace {

static_assert(std::is_same<PCMPoolHeader, avpool::AudioPoolHeader>::value, "fingerprinted as AudioPoolHeader");

struct Pcm {
    using Putter = PCMPutter;
    using Getter = PCMGetter;
    static constexpr AudioGeometry geometry{"pcm",
                                            0x4A00,
                                            0,
                                            2096,
                                            44,
                                            2048,
                                            AudioCopy::Whole,
                                            false,
                                            false,
                                            16384,
                                            1,
                                            {16, 2, 44100, 0},
                                            {8, 1, 22050, 0},
                                            150};

    static void init(Putter& putter, int) { putter.init(); }
    static void init(Getter& getter, int) { getter.init(); }
    static void reset(Putter& putter, const AudioFormat& f) { putter.reset(f.format, f.channels, f.rate); }
    static void put(Putter& putter, void* data, int length, const timeval& at, int) {
        putter.putFragment(data, length, at);
    }
};

void layout() {
    audioSharedLayout();
    printf("PCM constants PCM_KEY=%d PCM_FRAGMENT_SIZE=%d PCM_SEGMENT_SIZE=%d\n", PCM_KEY, PCM_FRAGMENT_SIZE,
           PCM_SEGMENT_SIZE);
    printLayout("PCMFragmentInfo", sizeof(PCMFragmentInfo), alignof(PCMFragmentInfo),
                {INTEROP_FIELD(PCMFragmentInfo, head), INTEROP_FIELD(PCMFragmentInfo, data),
                 INTEROP_FIELD(PCMFragmentInfo, unused)});
}

}  // namespace

const PoolKind pcmKind{"pcm", layout, audioProduce<Pcm>, audioConsume<Pcm>};

}  // namespace interop
