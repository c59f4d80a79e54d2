// The JPEG write path must not allocate once the pool exists. This program is
// linked with counting global allocation functions, which the shared library's
// calls resolve to as well.
#include "jpeg_fixture.h"

#include "support/counting_new.h"

using avpool::testing::allocationCount;

TEST_F(JpegPool, writePathDoesNotAllocateAfterInit) {
    ASSERT_TRUE(avpool::testing::allocationsAreCounted());
    create(8, 1000, 4000);
    putter.reset(640, 480, 25, 70);
    unsigned char frame[1001] = {};
    timeval t{};

    int written = 0, refused = 0;
    unsigned long long before = allocationCount();
    for (int k = 0; k < 2000; ++k) {
        t.tv_sec = k;
        t.tv_usec = k * 7 % 1000000;
        int length = 1 + k * 37 % 1000;  // varied sizes, the ring wraps many times
        written += putter.putFrame(frame, length, t);
        if (k % 100 == 0) {
            refused += 1 - putter.putFrame(frame, 1001, t);
            putter.reset(320 + k, 240, 10 + k % 20, k % 100);
            putter.changeQuality(k);
            putter.putRealFPS(k % 30);
        }
    }
    unsigned long long after = allocationCount();
    EXPECT_EQ(after, before);
    EXPECT_EQ(written, 2000);
    EXPECT_EQ(refused, 20);
}
