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
template <class Record>
struct AudioKind;

template <>
struct AudioKind<PCMFragmentInfo> {
    static constexpr key_t baseKey = PCM_KEY;
    static constexpr LengthRule lengthRule = LengthRule::Whole;
    static constexpr bool streamParam = false;
    static constexpr bool fragmentParam = false;
    static constexpr FragmentFormula formula{16384, 1};
    static constexpr const char* createLog = "Create PCM sem:%d\n";
    static constexpr Raise putterError = raiseAs<PCMPutterError>;
    static constexpr Raise getterError = raiseAs<PCMGetterError>;
};

template <>
struct AudioKind<AACFragmentInfo> {
    static constexpr key_t baseKey = AAC_BASE_KEY;
    static constexpr LengthRule lengthRule = LengthRule::UpToSize;
    static constexpr bool streamParam = true;
    static constexpr bool fragmentParam = false;
    static constexpr FragmentFormula formula{16384, 2};
    static constexpr const char* createLog = "Create AAC sem:%d\n";
    static constexpr Raise putterError = raiseAs<AACPutterError>;
    static constexpr Raise getterError = raiseAs<AACGetterError>;
};

template <>
struct AudioKind<AMRFragmentInfo> {
    static constexpr key_t baseKey = AMR_BASE_KEY;
    static constexpr LengthRule lengthRule = LengthRule::UpToSize;
    static constexpr bool streamParam = true;
    static constexpr bool fragmentParam = true;
    static constexpr FragmentFormula formula{16384, 2};
    static constexpr const char* createLog = "Create AMR sem:%d\n";
    static constexpr Raise putterError = raiseAs<AMRPutterError>;
};

template <>
struct AudioKind<OPUSFragmentInfo> {
    static constexpr key_t baseKey = OPUS_KEY;
    static constexpr LengthRule lengthRule = LengthRule::AsGiven;
    static constexpr bool streamParam = false;
    static constexpr bool fragmentParam = false;
    static constexpr FragmentFormula formula{4096, 1};
    static constexpr const char* createLog = "Create OPUS sem:%d\n";
    static constexpr Raise putterError = raiseAs<OPUSPutterError>;
    static constexpr Raise getterError = raiseAs<OPUSGetterError>;
};

// Common to all kinds.
template <class Record>
constexpr int SEGMENT_SIZE = AUDIO_HEADER_SIZE + AUDIO_SLOT_COUNT * static_cast<int>(sizeof(Record));

template <class Record>
key_t segmentKey(int channel) {
    return AudioKind<Record>::baseKey + channel;
}

template <class Record>
key_t firstSetKey(int channel) {
    return AudioKind<Record>::baseKey + channel * 16;
}

// The slots follow the header.
template <class Record>
Record* slotsOf(AudioPoolHeader* pool) {
    return reinterpret_cast<Record*>(pool + 1);
}

// The address a putter or getter holds while it is not attached.
inline AudioPoolHeader* notAttached() {
    return reinterpret_cast<AudioPoolHeader*>(-1);
}

}  // namespace avpool::detail
