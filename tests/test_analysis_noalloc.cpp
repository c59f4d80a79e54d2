// The luminance and motion write paths must not allocate once the pool exists.
// This program is linked with counting global allocation functions, which the
// shared library's calls resolve to as well.
#include "analysis_fixture.h"

#include "support/counting_new.h"

using avpool::testing::allocationCount;

template <class Kind>
class AnalysisNoAlloc : public AnalysisPool<Kind> {};
TYPED_TEST_SUITE(AnalysisNoAlloc, AnalysisKinds, AnalysisKindNames);

TYPED_TEST(AnalysisNoAlloc, writePathDoesNotAllocateAfterInit) {
    ASSERT_TRUE(avpool::testing::allocationsAreCounted());
    this->start(TypeParam::WIDTH, TypeParam::HEIGHT, 25);
    Arrays arrays(this->ARRAYS, std::vector<unsigned char>(TypeParam::ARRAY, 0x5A));
    timeval t{};

    unsigned long long before = allocationCount();
    int length = TypeParam::WIDTH * TypeParam::HEIGHT;
    for (int k = 1; k <= 1000; ++k) {
        t.tv_sec = k;
        if (k % 7 == 0) {  // sizes up to a full slot
            const int width = 1 + k % TypeParam::WIDTH;
            this->putter.reset(width, TypeParam::HEIGHT, 1 + k % 30);
            length = width * TypeParam::HEIGHT;
        }
        TypeParam::put(this->putter, arrays, length, t);
    }
    EXPECT_EQ(allocationCount(), before);
    EXPECT_EQ(this->idIn(1000 % TypeParam::SLOTS), 1000u);
}
