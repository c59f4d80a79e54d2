// AMR section of the interop peer: the audio scenario on channel 6 (segment key
// 20486, lock set 20576), whose fragments store at most 1024 bytes, the reset's
// stream parameter and a parameter of their own. 8-bit mono at 12345 Hz (340 ms
// a fragment, doubled). The library has no reader for this pool: the consumer
// reads it by the layout alone and waits on the raw lock.
#include "audio_peer.h"

#include <avpool/amr.h>

#include <cstdio>
#include <type_traits>

namespace interop {
namespace {

static_assert(std::is_same<AMRPoolHeader, avpool::AudioPoolHeader>::value, "fingerprinted as AudioPoolHeader");

struct Amr {
    using Putter = AMRPutter;
    using Getter = void;
    static constexpr AudioGeometry geometry{"amr",
                                            0x5000,
                                            6,
                                            1080,
                                            52,
                                            1024,
                                            AudioCopy::UpToSize,
                                            true,
                                            true,
                                            16384,
                                            2,
                                            {1, 1, 12345, 0x3A3A0606},
                                            {1, 1, 12345, 0x3A3A0606},
                                            0};

    static void init(Putter& putter, int channel) { putter.init(channel); }
    static void reset(Putter& putter, const AudioFormat& f) {
        putter.reset(f.format, f.channels, f.rate, f.streamParam);
    }
    static void put(Putter& putter, void* data, int length, const timeval& at, int fragmentParam) {
        putter.putFragment(data, length, at, fragmentParam);
    }
};

void layout() {
    printf("AMR constants AMR_BASE_KEY=%d AMR_MAX_FRAGMENT_SIZE=%d AMR_SEGMENT_SIZE=%d\n", AMR_BASE_KEY,
           AMR_MAX_FRAGMENT_SIZE, AMR_SEGMENT_SIZE);
    printLayout("AMRFragmentInfo", sizeof(AMRFragmentInfo), alignof(AMRFragmentInfo),
                {INTEROP_FIELD(AMRFragmentInfo, head), INTEROP_FIELD(AMRFragmentInfo, streamParam),
                 INTEROP_FIELD(AMRFragmentInfo, fragmentParam), INTEROP_FIELD(AMRFragmentInfo, data),
                 INTEROP_FIELD(AMRFragmentInfo, unused)});
}

}  // namespace

const PoolKind amrKind{"amr", layout, audioProduce<Amr>, audioConsume<Amr>};

}  // namespace interop
