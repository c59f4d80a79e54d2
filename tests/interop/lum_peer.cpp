// Luminance section of the interop peer: the analysis scenario on a ring of 6
// slots of 16-bit samples, full 80 x 64 pictures first (the whole 10240 bytes),
// then 32 x 20 ones that leave the older samples and the fill behind them.
#include "analysis_peer.h"

#include <avpool/lum.h>

#include <cstdio>

namespace interop {
namespace {

struct Lum {
    using Putter = LUMPutter;
    using Getter = LUMGetter;
    static const AnalysisGeometry geometry;

    static void put(Putter& putter, unsigned char* samples, unsigned char*, int length, const timeval& at) {
        putter.putFrame(samples, length, at);
    }
    static const unsigned char* payload(const Getter& getter, int) {
        return reinterpret_cast<const unsigned char*>(getter.samples);
    }
    static void afterStatic(Putter&) {}
    static void afterStatic(AnalysisModel&) {}
    static void beforeLive(Putter&) {}
    static void beforeLive(AnalysisModel&) {}
    static void checkExtras(Getter&, const AnalysisModel&, Checks&, const std::string&) {}
};

const AnalysisGeometry Lum::geometry{"lum",
                                     LUM_BASE_KEY,
                                     11,
                                     LUM_FRAME_COUNT,
                                     {"current", "workingFPS", "workingWidth", "workingHeight"},
                                     sizeof(LUMFrameInfo),
                                     1,
                                     2 * LUM_MAX_SAMPLES,
                                     2,
                                     false,
                                     {80, 64, 15},
                                     {32, 20, 25}};

void layout() {
    printf("LUM constants LUM_BASE_KEY=%d LUM_FRAME_COUNT=%d LUM_MAX_SAMPLES=%d LUM_POOL_SIZE=%d\n", LUM_BASE_KEY,
           LUM_FRAME_COUNT, LUM_MAX_SAMPLES, LUM_POOL_SIZE);
    printLayout("LUMPoolHeader", sizeof(LUMPoolHeader), alignof(LUMPoolHeader),
                {INTEROP_FIELD(LUMPoolHeader, current), INTEROP_FIELD(LUMPoolHeader, workingFPS),
                 INTEROP_FIELD(LUMPoolHeader, workingWidth), INTEROP_FIELD(LUMPoolHeader, workingHeight),
                 INTEROP_FIELD(LUMPoolHeader, safeTime)});
    printLayout("LUMFrameInfo", sizeof(LUMFrameInfo), alignof(LUMFrameInfo),
                {INTEROP_FIELD(LUMFrameInfo, frameID), INTEROP_FIELD(LUMFrameInfo, lockIndex),
                 INTEROP_FIELD(LUMFrameInfo, frameLength), INTEROP_FIELD(LUMFrameInfo, tv_sec),
                 INTEROP_FIELD(LUMFrameInfo, tv_usec), INTEROP_FIELD(LUMFrameInfo, samples)});
}

}  // namespace

const PoolKind lumKind{"lum", layout, analysisProduce<Lum>, analysisConsume<Lum>};

}  // namespace interop
