// The JPEG writer as other processes see it: header, tables, data ring and locks,
// read back byte by byte from the segment.
#include "jpeg_fixture.h"

#include <cstdio>
#include <cstring>

using namespace jpeg_layout;
using avpool::test::RawSegment;

TEST_F(JpegPool, initLaysOutHeaderTablesAndClosedLocksAndLogsTheGeometry) {
    create(4, 100, 200);  // dataSize 408, segment 580

    RawSegment raw(KEY);
    ASSERT_TRUE(raw.attached());
    EXPECT_EQ(raw.size(), 580u);
    EXPECT_EQ(raw.i32(FRAME_COUNT), 4);
    EXPECT_EQ(raw.i32(MAX_FRAME_SIZE), 100);
    EXPECT_EQ(raw.i32(CURRENT), 0);
    for (size_t offset : {REAL_FPS, WORKING_FPS, WORKING_WIDTH, WORKING_HEIGHT}) EXPECT_EQ(raw.i32(offset), 0);
    EXPECT_EQ(raw.i32(PREFIX_SIZE), 8);
    EXPECT_EQ(raw.bytes(LUM_QT, 128), std::vector<unsigned char>(128, 0));
    EXPECT_EQ(raw.i32(SAFE_TIME_OFFSET), 172);
    EXPECT_EQ(raw.i32(FRAME_INFO_OFFSET), 188);
    EXPECT_EQ(raw.i32(DATA_OFFSET), 380);
    for (int slot = 0; slot < 4; ++slot) {
        SCOPED_TRACE(slot);
        EXPECT_EQ(raw.i32(safeTime(slot)), 0);
        std::vector<unsigned char> expected(RECORD, 0);
        expected[LOCK_INDEX] = static_cast<unsigned char>(slot);
        EXPECT_EQ(raw.bytes(record(4, slot), RECORD), expected);
    }
    EXPECT_EQ(raw.bytes(ring(4), 200), std::vector<unsigned char>(200, 0));

    EXPECT_EQ(avpool::test::semCountOf(avpool::test::semIdOf(KEY)), 4);
    EXPECT_EQ(locks(), (std::vector<int>{1, 1, 1, 1}));

    // Two lines: the total size, then the addresses of the tables and the ring
    // (which must lie at the header's offsets from the segment) and RawDataLen.
    const std::string first = "=======jpg putter total size: 580============\n";
    ASSERT_EQ(initLog.substr(0, first.size()), first);
    int total = 0, header = 0, rawLen = 0, consumed = 0;
    void *pool = nullptr, *safe = nullptr, *info = nullptr, *data = nullptr;
    ASSERT_EQ(sscanf(initLog.c_str() + first.size(), "total:%d pPool:%p %d %p %p data:%p RawDataLen:%d\n%n", &total,
                     &pool, &header, &safe, &info, &data, &rawLen, &consumed),
              7)
        << initLog;
    EXPECT_EQ(first.size() + static_cast<size_t>(consumed), initLog.size()) << initLog;
    EXPECT_EQ(total, 580);
    EXPECT_EQ(header, 172);
    EXPECT_EQ(static_cast<char*>(safe) - static_cast<char*>(pool), 172);
    EXPECT_EQ(static_cast<char*>(info) - static_cast<char*>(pool), 188);
    EXPECT_EQ(static_cast<char*>(data) - static_cast<char*>(pool), 380);
    EXPECT_EQ(rawLen, 200);
}

TEST_F(JpegPool, releaseAndDestructionRemoveSegmentAndSemaphoreSet) {
    create(3, 16, 64);
    ASSERT_NE(avpool::test::shmIdOf(KEY), -1);
    putter.release();
    EXPECT_EQ(avpool::test::shmIdOf(KEY), -1);
    EXPECT_EQ(avpool::test::semIdOf(KEY), -1);
    putter.release();  // a second release finds nothing to do

    {
        JPGPutter scoped;
        create(scoped, 3, 16, 64);
        ASSERT_NE(avpool::test::semIdOf(KEY), -1);
    }
    EXPECT_EQ(avpool::test::shmIdOf(KEY), -1);
    EXPECT_EQ(avpool::test::semIdOf(KEY), -1);
}

TEST_F(JpegPool, frameCountOfThirtyIsTheLimitAndAboveItNothingIsCreated) {
    create(30, 16, 64);
    EXPECT_EQ(avpool::test::semCountOf(avpool::test::semIdOf(KEY)), 30);
    putter.release();

    JPGPutter refused;
    auto [message, log] = failureOf<JPGPutterError>([&] { refused.init(CHANNEL, 31, 16, Tables::sizeFor(31, 64)); });
    EXPECT_EQ(message, "programming error, frameCount exceed JPG_MAX_FRAME_COUNT");
    EXPECT_EQ(log, "");  // refused before the size is even logged
    EXPECT_EQ(avpool::test::shmIdOf(KEY), -1);
    EXPECT_EQ(avpool::test::semIdOf(KEY), -1);
}

TEST_F(JpegPool, leftoversUnderTheKeyAreReplacedUnlessTheSetIsSmallerThanThePool) {
    // A leftover segment of any size is removed. A larger leftover set is found
    // by the lookup with frameCount semaphores and removed.
    int staleSegment = avpool::test::plantSegment(KEY, 16, 0);
    ASSERT_NE(staleSegment, -1);
    ASSERT_NE(avpool::test::plantSemSet(KEY, 6), -1);
    create(4, 16, 64);
    EXPECT_NE(avpool::test::shmIdOf(KEY), staleSegment);
    EXPECT_EQ(avpool::test::RawSegment(KEY).size(), 172u + 64 + 52 * 4);
    EXPECT_EQ(avpool::test::semCountOf(avpool::test::semIdOf(KEY)), 4);
    EXPECT_EQ(locks(), (std::vector<int>{1, 1, 1, 1}));
    putter.release();

    // A smaller one cannot be looked up with frameCount semaphores, so it stays
    // and the retry fails.
    int stale = avpool::test::plantSemSet(KEY, 2);
    ASSERT_NE(stale, -1);
    JPGPutter second;
    auto [message, log] = failureOf<JPGPutterError>([&] { second.init(CHANNEL, 4, 16, Tables::sizeFor(4, 64)); });
    EXPECT_EQ(message, "semget failed.");
    EXPECT_NE(log.find("\nsemget failed: "), std::string::npos) << log;
    EXPECT_EQ(avpool::test::semIdOf(KEY), stale);
}

TEST_F(JpegPool, resetAndSettersWriteTheHeaderAndAreStampedOnFollowingFrames) {
    create(4, 16, 128);
    putter.reset(640, 480, 25, 80);
    EXPECT_EQ(header(REAL_FPS), 25);
    EXPECT_EQ(header(WORKING_FPS), 25);
    EXPECT_EQ(header(WORKING_WIDTH), 640);
    EXPECT_EQ(header(WORKING_HEIGHT), 480);
    putter.putRealFPS(24);
    EXPECT_EQ(header(REAL_FPS), 24);
    EXPECT_EQ(header(WORKING_FPS), 25);

    std::vector<unsigned char> before = RawSegment(KEY).bytes(0, HEADER);
    putter.reset(0, 0, 0, -1);
    EXPECT_EQ(RawSegment(KEY).bytes(0, HEADER), before);
    ASSERT_EQ(put("a"), 1);
    EXPECT_EQ(field(1, WIDTH), 640);
    EXPECT_EQ(field(1, HEIGHT), 480);
    EXPECT_EQ(field(1, FPS), 25);
    EXPECT_EQ(field(1, QUALITY), 80);

    putter.changeQuality(-7);  // taken as is
    putter.reset(320, 0, 0, -1);
    ASSERT_EQ(put("b"), 1);
    EXPECT_EQ(field(2, WIDTH), 320);
    EXPECT_EQ(field(2, HEIGHT), 480);
    EXPECT_EQ(field(2, QUALITY), -7);
    EXPECT_EQ(header(WORKING_WIDTH), 320);
    putter.reset(0, 0, 0, 0);  // a quality of 0 is a value, not "keep"
    ASSERT_EQ(put("c"), 1);
    EXPECT_EQ(field(3, QUALITY), 0);

    unsigned char lum[64], chrom[64];
    for (int i = 0; i < 64; ++i) {
        lum[i] = static_cast<unsigned char>(i + 1);
        chrom[i] = static_cast<unsigned char>(200 - i);
    }
    putter.putQuantTables(lum, chrom);
    RawSegment raw(KEY);
    EXPECT_EQ(raw.bytes(LUM_QT, 64), std::vector<unsigned char>(lum, lum + 64));
    EXPECT_EQ(raw.bytes(CHROM_QT, 64), std::vector<unsigned char>(chrom, chrom + 64));
    EXPECT_EQ(raw.i32(WORKING_HEIGHT), 480);  // the tables end where the header fields begin
    EXPECT_EQ(raw.i32(SAFE_TIME_OFFSET), 172);

    JPGGetter reader;
    reader.init(CHANNEL);
    EXPECT_EQ(memcmp(reader.getLumQT(), lum, 64), 0);
    EXPECT_EQ(memcmp(reader.getChromQT(), chrom, 64), 0);
    EXPECT_EQ(reader.getWorkingWidth(), 320);
    EXPECT_EQ(reader.getWorkingHeight(), 480);
    EXPECT_EQ(reader.getWorkingFPS(), 25);
    EXPECT_EQ(reader.getRealFPS(), 24);
    putter.putRealFPS(12);
    EXPECT_EQ(reader.getRealFPS(), 12);  // read live, not copied at init
}

TEST_F(JpegPool, framesGoIntoTheRingBehindTheirIdPrefixPaddedToFourBytes) {
    create(4, 40, 64);
    putter.reset(352, 288, 10, 50);
    const size_t base = ring(4);

    // First frame: slot 1, id 1, prefix at ring offset 0, 3 bytes of padding.
    ASSERT_EQ(put("ABCDE", 1000, 1), 1);
    RawSegment raw(KEY);
    EXPECT_EQ(raw.i32(CURRENT), 1);
    const size_t r1 = record(4, 1);
    EXPECT_EQ(raw.u32(r1 + ID), 1u);
    EXPECT_EQ(raw.u32(r1 + ID + 4), 0u);
    EXPECT_EQ(raw.i32(r1 + LOCK_INDEX), 1);
    EXPECT_EQ(raw.i32(r1 + LENGTH), 5);
    EXPECT_EQ(raw.i32(r1 + SEC), 1000);
    EXPECT_EQ(raw.i32(r1 + USEC), 1);
    EXPECT_EQ(raw.i32(r1 + WIDTH), 352);
    EXPECT_EQ(raw.i32(r1 + HEIGHT), 288);
    EXPECT_EQ(raw.i32(r1 + FPS), 10);
    EXPECT_EQ(raw.i32(r1 + QUALITY), 50);
    EXPECT_EQ(raw.i32(r1 + POSITION), 0);
    EXPECT_EQ(raw.i32(r1 + 44), 0);
    EXPECT_EQ(raw.bytes(base, 16),
              (std::vector<unsigned char>{1, 0, 0, 0, 0, 0, 0, 0, 'A', 'B', 'C', 'D', 'E', 0, 0, 0}));
    EXPECT_EQ(frameIdIn(0), 0u);  // slot 0 is not used yet

    // The next prefix follows 16 bytes later; 20 bytes need no padding.
    const std::string filler(20, '\xEE');
    ASSERT_EQ(put(filler, 1001), 1);
    EXPECT_EQ(field(2, POSITION), 16);
    EXPECT_EQ(raw.u64(base + 16), 2u);
    EXPECT_EQ(raw.bytes(base + 24, 20), std::vector<unsigned char>(20, 0xEE));

    // 44 + 8 + 25 + 3 > 64: the third frame starts again at 0; its padding
    // overwrites filler bytes with zeros, the tail behind it is left alone.
    const std::string third(25, 'x');
    ASSERT_EQ(put(third, 1002), 1);
    EXPECT_EQ(field(3, POSITION), 0);
    EXPECT_EQ(raw.u64(base), 3u);
    EXPECT_EQ(raw.bytes(base + 8, 25), std::vector<unsigned char>(25, 'x'));
    EXPECT_EQ(raw.bytes(base + 33, 3), std::vector<unsigned char>(3, 0));
    EXPECT_EQ(raw.bytes(base + 36, 8), std::vector<unsigned char>(8, 0xEE));

    // 36 + 8 + 20 fills the ring exactly: no wrap. Four frames later slot 0
    // holds its first frame.
    ASSERT_EQ(put(std::string(20, 'y'), 1003), 1);
    EXPECT_EQ(raw.i32(CURRENT), 0);
    EXPECT_EQ(frameIdIn(0), 4u);
    EXPECT_EQ(field(0, POSITION), 36);
    EXPECT_EQ(raw.u64(base + 36), 4u);
    EXPECT_EQ(raw.bytes(base + 44, 20), std::vector<unsigned char>(20, 'y'));
}

TEST_F(JpegPool, eachPutOpensItsSlotAndClosesTheOneAfterIt) {
    start(4, 16, 256);
    std::vector<int> expected{1, 1, 1, 1};
    for (int k = 1; k <= 9; ++k) {
        SCOPED_TRACE(k);
        ASSERT_EQ(put("f" + std::to_string(k)), 1);
        int slot = k % 4;
        expected[slot] = 0;
        expected[(slot + 1) % 4] = 1;
        EXPECT_EQ(locks(), expected);
        EXPECT_EQ(header(CURRENT), slot);
        EXPECT_EQ(frameIdIn(slot), static_cast<uint64_t>(k));
        EXPECT_EQ(field(slot, LOCK_INDEX), slot);
    }
}

TEST_F(JpegPool, singleSlotPoolRewritesSlotZeroAndLeavesItOpen) {
    start(1, 16, 64);
    EXPECT_EQ(putter.nextJPGFrame(0), 0);
    for (int k = 1; k <= 3; ++k) {
        ASSERT_EQ(put("one"), 1);
        EXPECT_EQ(header(CURRENT), 0);
        EXPECT_EQ(frameIdIn(0), static_cast<uint64_t>(k));
        EXPECT_EQ(locks(), std::vector<int>{0});
        EXPECT_EQ(RawSegment(KEY).i32(safeTime(0)), 0);
    }
}

TEST_F(JpegPool, safeTimesCountIntervalsAheadOfTheWriterAndZeroBehindIt) {
    start(3, 16, 128);  // 100 ms per frame
    put("a");
    EXPECT_EQ(safeTimes(), (std::vector<int>{0, 0, 100}));  // writer at 1
    put("b");
    put("c");
    EXPECT_EQ(safeTimes(), (std::vector<int>{0, 100, 0}));  // writer at 0
    putter.release();

    JPGPutter larger;
    create(larger, 7, 16, 512);
    larger.reset(1, 1, 30, 1);  // 1000 / 30 = 33 ms
    for (int k = 0; k < 10; ++k) put(larger, "f");
    EXPECT_EQ(safeTimes(), (std::vector<int>{132, 165, 0, 0, 33, 66, 99}));  // writer at 3

    // Readers get the same values through their positioning calls.
    JPGGetter reader;
    reader.init(CHANNEL);
    int safe = -1;
    EXPECT_EQ(reader.toWorking(safe), 10u);
    EXPECT_EQ(safe, 0);
    EXPECT_EQ(reader.toNext(safe), 4u);
    EXPECT_EQ(safe, 33);
}

TEST_F(JpegPool, frameOfMaxSizeIsTakenAndOneByteMoreIsRefusedWithoutATrace) {
    start(3, 16, 128);
    EXPECT_EQ(putter.getMaxFrameSize(), 16);
    ASSERT_EQ(put(std::string(16, 'm')), 1);

    RawSegment raw(KEY);
    std::vector<unsigned char> before = raw.bytes(0, raw.size());
    std::vector<int> locksBefore = locks();
    EXPECT_EQ(put(std::string(17, 'z')), 0);
    EXPECT_EQ(raw.bytes(0, raw.size()), before);
    EXPECT_EQ(locks(), locksBefore);

    // Counter and write position were not moved either.
    ASSERT_EQ(put("n"), 1);
    EXPECT_EQ(frameIdIn(2), 2u);
    EXPECT_EQ(field(2, POSITION), 24);
}
