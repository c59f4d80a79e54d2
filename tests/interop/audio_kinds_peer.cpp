// The four audio kinds of the interop peer, one row each over the audio
// scenario (audio_peer.h):
//   pcm   the one fixed-key pool; 2048-byte fragments copied and recorded whole
//         whatever length the caller gives. 16-bit stereo at 44100 Hz (counted
//         as 44 kHz: 11 ms a fragment), then 8-bit mono at 22050 Hz from
//         fragment 150 on, so that the older slots keep the first format.
//   aac   channel 3 (segment 20227, lock set 20272); at most 512 bytes stored
//         and the length actually stored, the last reset's stream parameter.
//         16-bit mono at 48000 Hz (42 ms, doubled), then 4-bit stereo at
//         11025 Hz with another stream parameter from fragment 120 on.
//   amr   channel 6 (segment 20486, lock set 20576); at most 1024 bytes, the
//         stream parameter and one of each fragment's own. 8-bit mono at
//         12345 Hz (340 ms, doubled). The library has no reader for it: the
//         consumer reads by the layout alone and waits on the raw lock.
//   opus  the other fixed-key pool; always 512 bytes copied and the caller's
//         length recorded as given, above 512 too; slot offset 44 never
//         written. 8-bit stereo at 24000 Hz (10 ms).
#include "audio_peer.h"

#include <avpool/aac.h>
#include <avpool/amr.h>
#include <avpool/opus.h>
#include <avpool/pcm.h>

#include <cstdio>
#include <type_traits>

namespace interop {
namespace {

// Every kind's header is the shared one, fingerprinted once as AudioPoolHeader.
static_assert(std::is_same<PCMPoolHeader, avpool::AudioPoolHeader>::value &&
                  std::is_same<AACPoolHeader, avpool::AudioPoolHeader>::value &&
                  std::is_same<AMRPoolHeader, avpool::AudioPoolHeader>::value &&
                  std::is_same<OPUSPoolHeader, avpool::AudioPoolHeader>::value,
              "one audio header");

// The calls every kind shares: its classes and a fragment without a value of its own.
template <class PutterType, class GetterType>
struct KindCalls {
    using Putter = PutterType;
    using Getter = GetterType;
    static void put(Putter& putter, void* data, int length, const timeval& at, int) {
        putter.putFragment(data, length, at);
    }
};

// The calls of the kinds with one fixed key, and of those with a channel.
template <class PutterType, class GetterType>
struct FixedKeyCalls : KindCalls<PutterType, GetterType> {
    template <class Side>
    static void init(Side& side, int) {
        side.init();
    }
    static void reset(PutterType& putter, const AudioFormat& f) { putter.reset(f.format, f.channels, f.rate); }
};

template <class PutterType, class GetterType>
struct ChannelCalls : KindCalls<PutterType, GetterType> {
    template <class Side>
    static void init(Side& side, int channel) {
        side.init(channel);
    }
    static void reset(PutterType& putter, const AudioFormat& f) {
        putter.reset(f.format, f.channels, f.rate, f.streamParam);
    }
};

// Keys, slot size, data offset and room, copy rule, stream and fragment
// parameters, fragment arithmetic (bits, factor), formats, reset point.
// clang-format off
struct Pcm : FixedKeyCalls<PCMPutter, PCMGetter> {
    static constexpr AudioGeometry geometry{"pcm", 0x4A00, 0, 2096, 44, 2048, AudioCopy::Whole, false, false,
        16384, 1, {16, 2, 44100, 0}, {8, 1, 22050, 0}, 150};
};
struct Aac : ChannelCalls<AACPutter, AACGetter> {
    static constexpr AudioGeometry geometry{"aac", 0x4F00, 3, 560, 48, 512, AudioCopy::UpToSize, true, false,
        16384, 2, {16, 1, 48000, 0x2AC0FFEE}, {4, 2, 11025, -77}, 120};
};
struct Amr : ChannelCalls<AMRPutter, void> {
    static constexpr AudioGeometry geometry{"amr", 0x5000, 6, 1080, 52, 1024, AudioCopy::UpToSize, true, true,
        16384, 2, {1, 1, 12345, 0x3A3A0606}, {1, 1, 12345, 0x3A3A0606}, 0};
    static void put(Putter& putter, void* data, int length, const timeval& at, int fragmentParam) {
        putter.putFragment(data, length, at, fragmentParam);
    }
};
struct Opus : FixedKeyCalls<OPUSPutter, OPUSGetter> {
    static constexpr AudioGeometry geometry{"opus", 0x5A00, 0, 560, 48, 512, AudioCopy::AsGiven, false, false,
        4096, 1, {8, 2, 24000, 0}, {8, 2, 24000, 0}, 0};
};
// clang-format on

void pcmLayout() {
    audioSharedLayout();
    printf("PCM constants PCM_KEY=%d PCM_FRAGMENT_SIZE=%d PCM_SEGMENT_SIZE=%d\n", PCM_KEY, PCM_FRAGMENT_SIZE,
           PCM_SEGMENT_SIZE);
    printLayout("PCMFragmentInfo", sizeof(PCMFragmentInfo), alignof(PCMFragmentInfo),
                {INTEROP_FIELD(PCMFragmentInfo, head), INTEROP_FIELD(PCMFragmentInfo, data),
                 INTEROP_FIELD(PCMFragmentInfo, unused)});
}

void aacLayout() {
    printf("AAC constants AAC_BASE_KEY=%d AAC_MAX_FRAGMENT_SIZE=%d AAC_SEGMENT_SIZE=%d\n", AAC_BASE_KEY,
           AAC_MAX_FRAGMENT_SIZE, AAC_SEGMENT_SIZE);
    printLayout("AACFragmentInfo", sizeof(AACFragmentInfo), alignof(AACFragmentInfo),
                {INTEROP_FIELD(AACFragmentInfo, head), INTEROP_FIELD(AACFragmentInfo, streamParam),
                 INTEROP_FIELD(AACFragmentInfo, data)});
}

void amrLayout() {
    printf("AMR constants AMR_BASE_KEY=%d AMR_MAX_FRAGMENT_SIZE=%d AMR_SEGMENT_SIZE=%d\n", AMR_BASE_KEY,
           AMR_MAX_FRAGMENT_SIZE, AMR_SEGMENT_SIZE);
    printLayout("AMRFragmentInfo", sizeof(AMRFragmentInfo), alignof(AMRFragmentInfo),
                {INTEROP_FIELD(AMRFragmentInfo, head), INTEROP_FIELD(AMRFragmentInfo, streamParam),
                 INTEROP_FIELD(AMRFragmentInfo, fragmentParam), INTEROP_FIELD(AMRFragmentInfo, data),
                 INTEROP_FIELD(AMRFragmentInfo, unused)});
}

void opusLayout() {
    printf("OPUS constants OPUS_KEY=%d OPUS_FRAGMENT_SIZE=%d OPUS_SEGMENT_SIZE=%d\n", OPUS_KEY, OPUS_FRAGMENT_SIZE,
           OPUS_SEGMENT_SIZE);
    printLayout("OPUSFragmentInfo", sizeof(OPUSFragmentInfo), alignof(OPUSFragmentInfo),
                {INTEROP_FIELD(OPUSFragmentInfo, head), INTEROP_FIELD(OPUSFragmentInfo, unused),
                 INTEROP_FIELD(OPUSFragmentInfo, data)});
}

}  // namespace

const PoolKind pcmKind{"pcm", pcmLayout, audioProduce<Pcm>, audioConsume<Pcm>};
const PoolKind aacKind{"aac", aacLayout, audioProduce<Aac>, audioConsume<Aac>};
const PoolKind amrKind{"amr", amrLayout, audioProduce<Amr>, audioConsume<Amr>};
const PoolKind opusKind{"opus", opusLayout, audioProduce<Opus>, audioConsume<Opus>};

}  // namespace interop
