// Everything in which the four audio pools differ, one traits struct per slot
// record: keys, how a fragment's bytes and length are stored, the extras each
// slot carries, the fragment arithmetic, the set-up log line and the error types.
#pragma once

#include <avpool/aac.h>
#include <avpool/amr.h>
#include <avpool/opus.h>
#include <avpool/pcm.h>

#include "../common/errors.h"

#include <sys/ipc.h>

namespace avpool::detail {

// How putFragment turns the caller's length into bytes copied and `length` stored.
enum class LengthRule {
    Whole,     // copy the whole data area, store its size (PCM)
    AsGiven,   // copy the whole data area, store the caller's length (Opus)
    UpToSize,  // copy and store min(length, data area) (AAC, AMR)
};

// The fragment arithmetic: a fragment is `bitBudget` bits; sampleNumber and
// fragmentTime are multiplied by `factor` after the truncating divisions.
struct FragmentFormula {
    int bitBudget;
    int factor;
};

// Keys: the segment under baseKey + channel, the set of group g under
// baseKey + channel * 16 + g (PCM and Opus are channel 0 of this rule).
struct AudioKindRules {
    key_t baseKey;
    LengthRule lengthRule;
    bool streamParam;    // the last reset's value in every slot
    bool fragmentParam;  // a value given with each fragment
    FragmentFormula formula;
    const char* createLog;
    Raise putterError;
    Raise getterError;  // null: no getter
};

template <class Record>
inline constexpr AudioKindRules kind = {};
// clang-format off
template <> inline constexpr AudioKindRules kind<PCMFragmentInfo> =
    {PCM_KEY,      LengthRule::Whole,    false, false, {16384, 1}, "Create PCM sem:%d\n",
     raiseAs<PCMPutterError>,  raiseAs<PCMGetterError>};
template <> inline constexpr AudioKindRules kind<AACFragmentInfo> =
    {AAC_BASE_KEY, LengthRule::UpToSize, true,  false, {16384, 2}, "Create AAC sem:%d\n",
     raiseAs<AACPutterError>,  raiseAs<AACGetterError>};
template <> inline constexpr AudioKindRules kind<AMRFragmentInfo> =
    {AMR_BASE_KEY, LengthRule::UpToSize, true,  true,  {16384, 2}, "Create AMR sem:%d\n",
     raiseAs<AMRPutterError>,  nullptr};
template <> inline constexpr AudioKindRules kind<OPUSFragmentInfo> =
    {OPUS_KEY,     LengthRule::AsGiven,  false, false, {4096, 1},  "Create OPUS sem:%d\n",
     raiseAs<OPUSPutterError>, raiseAs<OPUSGetterError>};
// clang-format on

// Common to all kinds.
template <class Record>
constexpr int SEGMENT_SIZE = AUDIO_HEADER_SIZE + AUDIO_SLOT_COUNT * static_cast<int>(sizeof(Record));

template <class Record>
key_t segmentKey(int channel) {
    return kind<Record>.baseKey + channel;
}

template <class Record>
key_t firstSetKey(int channel) {
    return kind<Record>.baseKey + channel * 16;
}

// The slots follow the header.
template <class Record>
Record* slotsOf(AudioPoolHeader* pool) {
    return reinterpret_cast<Record*>(pool + 1);
}

}  // namespace avpool::detail
