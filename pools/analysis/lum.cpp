#include <avpool/lum.h>

#include "analysis_pool.h"

using namespace avpool::detail;

template <>
struct avpool::detail::AnalysisKind<LUMFrameInfo>
    : KindTraits<LUMPoolHeader, LUMPutterError, LUMGetterError, LUM_BASE_KEY, LUM_FRAME_COUNT, LUM_POOL_SIZE,
                 SafeTimeForm::Frame> {
    // Two bytes a sample.
    static void copyPayload(LUMFrameInfo& record, const void* samples, const void*, int length) {
        copyInto(record.samples, sizeof record.samples, samples, length, sizeof record.samples[0]);
    }
};

template class avpool::AnalysisPutter<LUMFrameInfo>;
template class avpool::AnalysisGetter<LUMFrameInfo>;

int nextLUMFrame(int i) {
    return nextSlot(i, LUM_FRAME_COUNT);
}

LUMPutter::LUMPutter() = default;
LUMPutter::~LUMPutter() = default;

void LUMPutter::putFrame(void* samples, int length, const timeval& captureTime) {
    putRecord(samples, nullptr, length, captureTime);
}

LUMGetter::LUMGetter() = default;
LUMGetter::~LUMGetter() = default;

void LUMGetter::getFrame() {
    samples = fetch().samples;
}
