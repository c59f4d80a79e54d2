#include <avpool/lum.h>

#include "analysis_pool.h"

template <>
struct avpool::detail::AnalysisKind<LUMFrameInfo> {
    using Header = LUMPoolHeader;
    using PutterError = LUMPutterError;
    using GetterError = LUMGetterError;
    static constexpr key_t BASE_KEY = LUM_BASE_KEY;
    static constexpr int SLOTS = LUM_FRAME_COUNT;
    static constexpr size_t SIZE = LUM_POOL_SIZE;
    static constexpr SafeTimeForm FORM = SafeTimeForm::Frame;

    // Two bytes a sample.
    static void copyPayload(LUMFrameInfo& record, const void* samples, const void*, int length) {
        copyInto(record.samples, sizeof record.samples, samples, length, sizeof record.samples[0]);
    }
};

template class avpool::AnalysisPutter<LUMFrameInfo>;
template class avpool::AnalysisGetter<LUMFrameInfo>;

int nextLUMFrame(int i) {
    return avpool::detail::nextRecord(i, LUM_FRAME_COUNT);
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
