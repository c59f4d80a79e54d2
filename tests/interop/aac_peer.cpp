// AAC section of the interop peer: the audio scenario on channel 3 (segment key
// 20227, lock set 20272), whose fragments store at most 512 bytes and the
// length actually stored, and carry the last reset's stream parameter. 16-bit
// mono at 48000 Hz first (42 ms a fragment, doubled), 4-bit stereo at 11025 Hz
// with another stream parameter from fragment 120 on.
#include "audio_peer.h"

#include <avpool/aac.h>

#include <cstdio>
#include <type_traits>

namespace interop {
namespace {

static_assert(std::is_same<AACPoolHeader, avpool::AudioPoolHeader>::value, "fingerprinted as AudioPoolHeader");

struct Aac {
    using Putter = AACPutter;
    using Getter = AACGetter;
    static constexpr AudioGeometry geometry{"aac",
                                            0x4F00,
                                            3,
                                            560,
                                            48,
                                            512,
                                            AudioCopy::UpToSize,
                                            true,
                                            false,
                                            16384,
                                            2,
                                            {16, 1, 48000, 0x2AC0FFEE},
                                            {4, 2, 11025, -77},
                                            120};

    static void init(Putter& putter, int channel) { putter.init(channel); }
    static void init(Getter& getter, int channel) { getter.init(channel); }
    static void reset(Putter& putter, const AudioFormat& f) {
        putter.reset(f.format, f.channels, f.rate, f.streamParam);
    }
    static void put(Putter& putter, void* data, int length, const timeval& at, int) {
        putter.putFragment(data, length, at);
    }
};

void layout() {
    printf("AAC constants AAC_BASE_KEY=%d AAC_MAX_FRAGMENT_SIZE=%d AAC_SEGMENT_SIZE=%d\n", AAC_BASE_KEY,
           AAC_MAX_FRAGMENT_SIZE, AAC_SEGMENT_SIZE);
    printLayout("AACFragmentInfo", sizeof(AACFragmentInfo), alignof(AACFragmentInfo),
                {INTEROP_FIELD(AACFragmentInfo, head), INTEROP_FIELD(AACFragmentInfo, streamParam),
                 INTEROP_FIELD(AACFragmentInfo, data)});
}

}  // namespace

const PoolKind aacKind{"aac", layout, audioProduce<Aac>, audioConsume<Aac>};

}  // namespace interop
