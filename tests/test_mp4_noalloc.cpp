// The video write path must not allocate once the pool exists. This program is
// linked with counting global allocation functions, which the shared library's
// calls resolve to as well.
#include "mp4_fixture.h"

#include "support/counting_new.h"

using avpool::testing::allocationCount;

TEST_F(Mp4Pool, writePathDoesNotAllocateAfterInit) {
    ASSERT_TRUE(avpool::testing::allocationsAreCounted());
    create(30, 10, 1000, 6000);  // two semaphore groups
    putter.reset(640, 480, 25);
    unsigned char frame[1200] = {};
    timeval t{};

    int refused = 0;
    unsigned long long before = allocationCount();
    for (int k = 0; k < 3000; ++k) {
        t.tv_sec = k;
        t.tv_usec = k * 7 % 1000000;
        int length = 1 + k * 37 % 1000;  // varied sizes, the ring wraps many times
        if (k % 7 == 0) {
            EXPECT_EQ(putter.putIFrame(frame, length, t), 0);
        } else {
            putter.putPFrame(frame, k % 50 == 1 ? 1200 : length, t);  // some cut to maxFrameSize
        }
        if (k % 100 == 0) {
            refused += putter.putIFrame(frame, 1001, t);  // and the P frames after it skipped
            putter.putPFrame(frame, length, t);
            putter.reset(320 + k, 240, 10 + k % 20);
            putter.putRealFPS(k % 30);
        }
    }
    unsigned long long after = allocationCount();
    EXPECT_EQ(after, before);
    EXPECT_EQ(refused, 30);
}
