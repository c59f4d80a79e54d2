// The audio write path must not allocate once the pool exists. This program is
// linked with counting global allocation functions, which the shared library's
// calls resolve to as well.
#include "audio_fixture.h"

#include "support/counting_new.h"

using avpool::testing::allocationCount;

template <class Kind>
class AudioNoAlloc : public AudioPool<Kind> {};
TYPED_TEST_SUITE(AudioNoAlloc, AllKinds, KindNames);

TYPED_TEST(AudioNoAlloc, putFragmentAndResetDoNotAllocateAfterInit) {
    using Kind = TypeParam;
    ASSERT_TRUE(avpool::testing::allocationsAreCounted());
    this->start();
    unsigned char bytes[2 * Kind::CAPACITY] = {};
    timeval t{};

    unsigned long long before = allocationCount();
    for (int k = 0; k < 1000; ++k) {
        t.tv_sec = k;
        Kind::put(this->putter, bytes, 1 + k * 37 % static_cast<int>(2 * Kind::CAPACITY), t, k);
        if (k % 100 == 0) Kind::reset(this->putter, k % 200 == 0 ? 8 : 16, 1 + k % 2, 8000 + k, k);
    }
    EXPECT_EQ(allocationCount(), before);
}
