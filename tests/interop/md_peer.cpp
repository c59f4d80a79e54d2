// Motion-detection section of the interop peer: the analysis scenario on a ring
// of 5 slots of two 32-bit arrays, full 64 x 48 grids first (both whole arrays),
// then 16 x 12 ones. Beside the frames it carries the vibration word: the fill
// pattern until the first putVibration, a stray index that lands on a safe
// time, and a level clamped to 100 during the live phase.
#include "analysis_peer.h"

#include <avpool/md.h>

#include <cstdio>

namespace interop {
namespace {

constexpr size_t VIBRATION_AT = 16;
constexpr int FILL_WORD = -858993460;  // 0xCCCCCCCC
// putVibration(3, ...) writes the header word of slot 2's safe time.
constexpr int STRAY_INDEX = 3;
constexpr int STRAY_LEVEL = 140;
constexpr int LIVE_LEVEL = 150;

struct Md {
    using Putter = MDPutter;
    using Getter = MDGetter;
    static const AnalysisGeometry geometry;

    static void put(Putter& putter, unsigned char* first, unsigned char* second, int length, const timeval& at) {
        putter.putFrame(first, second, length, at);
    }
    static const unsigned char* payload(const Getter& getter, int array) {
        return reinterpret_cast<const unsigned char*>(array == 0 ? getter.firstArray : getter.secondArray);
    }
    // Until the next frame rewrites the safe times.
    static void afterStatic(Putter& putter) { putter.putVibration(STRAY_INDEX, STRAY_LEVEL); }
    static void afterStatic(AnalysisModel& model) { model.setWord(VIBRATION_AT + 4 * STRAY_INDEX, 100); }
    static void beforeLive(Putter& putter) { putter.putVibration(0, LIVE_LEVEL); }
    static void beforeLive(AnalysisModel& model) { model.setWord(VIBRATION_AT, 100); }

    static void checkExtras(Getter& getter, const AnalysisModel& model, Checks& checks, const std::string& phase) {
        bool live = model.i32(VIBRATION_AT) != FILL_WORD;
        checks.equal(phase + ": getVibration(0)", live ? 100 : FILL_WORD, getter.getVibration(0));
        checks.equal(phase + ": getVibration(3) reads the safe time of slot 2", model.safe(2),
                     getter.getVibration(STRAY_INDEX));
    }
};

const AnalysisGeometry Md::geometry{"md",
                                    MD_BASE_KEY,
                                    12,
                                    MD_FRAME_COUNT,
                                    {"current", "workingFPS", "workingWidth", "workingHeight", "vibration"},
                                    sizeof(MDFrameInfo),
                                    2,
                                    4 * MD_MAX_ELEMENTS,
                                    4,
                                    true,
                                    {64, 48, 15},
                                    {16, 12, 20}};

void layout() {
    printf("MD constants MD_BASE_KEY=%d MD_FRAME_COUNT=%d MD_MAX_ELEMENTS=%d MD_POOL_SIZE=%d\n", MD_BASE_KEY,
           MD_FRAME_COUNT, MD_MAX_ELEMENTS, MD_POOL_SIZE);
    printLayout("MDPoolHeader", sizeof(MDPoolHeader), alignof(MDPoolHeader),
                {INTEROP_FIELD(MDPoolHeader, current), INTEROP_FIELD(MDPoolHeader, workingFPS),
                 INTEROP_FIELD(MDPoolHeader, workingWidth), INTEROP_FIELD(MDPoolHeader, workingHeight),
                 INTEROP_FIELD(MDPoolHeader, vibration), INTEROP_FIELD(MDPoolHeader, safeTime)});
    printLayout("MDFrameInfo", sizeof(MDFrameInfo), alignof(MDFrameInfo),
                {INTEROP_FIELD(MDFrameInfo, frameID), INTEROP_FIELD(MDFrameInfo, lockIndex),
                 INTEROP_FIELD(MDFrameInfo, frameLength), INTEROP_FIELD(MDFrameInfo, tv_sec),
                 INTEROP_FIELD(MDFrameInfo, tv_usec), INTEROP_FIELD(MDFrameInfo, firstArray),
                 INTEROP_FIELD(MDFrameInfo, secondArray)});
}

}  // namespace

const PoolKind mdKind{"md", layout, analysisProduce<Md>, analysisConsume<Md>};

}  // namespace interop
