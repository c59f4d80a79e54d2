#include <avpool/md.h>

#include "analysis_pool.h"

#include <algorithm>
#include <cstring>

using namespace avpool::detail;

template <>
struct avpool::detail::AnalysisKind<MDFrameInfo>
    : KindTraits<MDPoolHeader, MDPutterError, MDGetterError, MD_BASE_KEY, MD_FRAME_COUNT, MD_POOL_SIZE,
                 SafeTimeForm::Fragment> {
    // Four bytes an element, into each array.
    static void copyPayload(MDFrameInfo& record, const void* first, const void* second, int length) {
        copyInto(record.firstArray, sizeof record.firstArray, first, length, sizeof record.firstArray[0]);
        copyInto(record.secondArray, sizeof record.secondArray, second, length, sizeof record.secondArray[0]);
    }
};

template class avpool::AnalysisPutter<MDFrameInfo>;
template class avpool::AnalysisGetter<MDFrameInfo>;

namespace {
// The vibration index counts header words from the vibration field. It is not
// checked against the one field: 1 to 5 reach the safe times of slots 0 to 4.
// Nothing past the header is reachable, so a stray index can neither leave the
// segment nor overwrite a slot record (its lockIndex above all).
constexpr int LAST_VIBRATION_INDEX = MD_FRAME_COUNT;

int32_t* vibrationWord(void* pool, int index) {
    unsigned char* field = static_cast<unsigned char*>(pool) + offsetof(MDPoolHeader, vibration);
    return reinterpret_cast<int32_t*>(field + sizeof(int32_t) * index);
}
}  // namespace

int nextMDFrame(int i) {
    return nextSlot(i, MD_FRAME_COUNT);
}

MDPutter::MDPutter() = default;
MDPutter::~MDPutter() = default;

void MDPutter::putVibration(int index, int level) {
    unsigned char* base = segment();
    if (index < 0 || index > LAST_VIBRATION_INDEX) return;
    *vibrationWord(base, index) = std::clamp(level, 0, 100);
}

void MDPutter::putFrame(void* first, void* second, int length, const timeval& captureTime) {
    putRecord(first, second, length, captureTime);
}

MDGetter::MDGetter() = default;
MDGetter::~MDGetter() = default;

// Its own check, quietly: no line on stderr, and the point at the end.
int MDGetter::getVibration(int index) {
    if (pool_ == nullptr || !attached() || index < 0 || index > LAST_VIBRATION_INDEX) {
        throw MDGetterError("programming error.");
    }
    return *vibrationWord(pool_, index);
}

void MDGetter::getFrame() {
    MDFrameInfo& record = fetch();
    firstArray = record.firstArray;
    secondArray = record.secondArray;
}
