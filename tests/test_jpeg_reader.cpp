// The JPEG reader within one process: positioning by time over a ring with known
// stamps, skipping of overwritten frames, the age probe and the failure texts.
#include "jpeg_fixture.h"

#include <ctime>
#include <functional>

using namespace jpeg_layout;

namespace {
constexpr int INTERVAL = 100;  // fps 10
}

// Six slots, eight frames: ids 6, 7, 8 in slots 0, 1, 2 (the writer at 2), ids
// 3, 4, 5 in slots 3, 4, 5. Searches start at slot 5, three ahead of the writer:
// slots 3 and 4 are the next to be overwritten and are never candidates.
class JpegPositioning : public JpegPool {
protected:
    void SetUp() override {
        create(6, 16, 512);
        putter.reset(1, 1, 1000 / INTERVAL, 1);
        const int stamps[8][2] = {{101, 0},      {102, 0},      {103, 0},      {104, 0},
                                  {105, 500000}, {106, 100000}, {107, 600000}, {107, 900000}};
        for (int id = 1; id <= 8; ++id) ASSERT_EQ(put("frame" + std::to_string(id), stamps[id - 1][0], stamps[id - 1][1]), 1);
        reader.init(CHANNEL);
    }
    JPGGetter reader;
    int safe = -12345;
};

TEST_F(JpegPositioning, initStartsOnTheNewestSlotAndToNextWalksWithoutChecks) {
    EXPECT_EQ(reader.getFrameID(), 8u);
    EXPECT_EQ(reader.toWorking(safe), 8u);
    EXPECT_EQ(safe, 0);
    EXPECT_EQ(reader.toNext(safe), 3u);  // the slot being overwritten next, still reported
    EXPECT_EQ(safe, INTERVAL);
    reader.getFrame();
    EXPECT_EQ(text(reader.frame), "frame3");
    EXPECT_EQ(reader.frame.tv_sec, 103);
}

TEST_F(JpegPositioning, toOldestWorkingFindsTheOldestCandidateAtOrAfterTheGivenTime) {
    EXPECT_EQ(reader.toOldestWorking(safe, 0), 5u);  // ids 3 and 4 are older but excluded
    EXPECT_EQ(safe, 3 * INTERVAL);
    EXPECT_EQ(reader.toOldestWorking(safe, 106), 6u);
    EXPECT_EQ(safe, 4 * INTERVAL);
    EXPECT_EQ(reader.toOldestWorking(safe, 107), 7u);
    EXPECT_EQ(safe, 0);
    // Nothing that late: the scan ends on the writer's slot.
    EXPECT_EQ(reader.toOldestWorking(safe, 200), 8u);
    reader.getFrame();
    EXPECT_EQ(text(reader.frame), "frame8");
}

TEST_F(JpegPositioning, toOldestWorkingComparesSecondsAndMicrosecondsEachOnItsOwn) {
    // id 5 (105.500000) is too early in microseconds; id 6 (106.100000) is later
    // as a time but its microseconds are smaller, so it does not qualify either.
    EXPECT_EQ(reader.toOldestWorking(safe, 105, 600000), 7u);
    EXPECT_EQ(reader.toOldestWorking(safe, 105, 500000), 5u);
    EXPECT_EQ(reader.toOldestWorking(safe, 107, 950000), 8u);  // none: the writer's slot
}

TEST_F(JpegPositioning, toExactWorkingReturnsTheEarliestFrameOfThatSecond) {
    EXPECT_EQ(reader.toExactWorking(safe, 106), 6u);
    EXPECT_EQ(safe, 4 * INTERVAL);
    EXPECT_EQ(reader.toExactWorking(safe, 107), 7u);
    // With microseconds: the earliest frame of the second not later than them.
    EXPECT_EQ(reader.toExactWorking(safe, 107, 950000), 7u);
    EXPECT_EQ(reader.toExactWorking(safe, 107, 600000), 7u);
    safe = -12345;
    EXPECT_EQ(reader.toExactWorking(safe, 107, 599999), avpool::NOT_FOUND);
    EXPECT_EQ(safe, -12345);
}

TEST_F(JpegPositioning, toExactWorkingReportsNotFoundWithoutTouchingTheSafeTime) {
    // The first candidate (id 5, second 105) is already newer: immediate miss,
    // the reader stays on that candidate.
    EXPECT_EQ(reader.toExactWorking(safe, 104), 4294967295ull);
    EXPECT_EQ(safe, -12345);
    EXPECT_EQ(reader.getFrameID(), 5u);

    // No frame in that second: the scan runs up to the slot after the writer's.
    EXPECT_EQ(reader.toExactWorking(safe, 150), 4294967295ull);
    EXPECT_EQ(safe, -12345);
    EXPECT_EQ(reader.getFrameID(), 3u);
}

// Ring of 100 bytes. Frames 1-5 (8 bytes, 16 with prefix) lie at 0, 16, ... 64;
// frame 6 (40 bytes) does not fit behind them, starts at 0 and covers 0..47:
// the bytes of frames 1, 2 and 3 are gone while their records remain. Where
// frame 2's prefix was, frame 6 carries the words 2, 1: the low word alone
// would still match.
TEST_F(JpegPool, overwrittenFramesAreSkippedByGetFrameAndTheSearches) {
    start(6, 64, 100);
    for (int id = 1; id <= 5; ++id) ASSERT_EQ(put("payload" + std::to_string(id), 100 + id), 1);
    std::string big(40, '\xAB');
    big.replace(8, 8, std::string("\x02\0\0\0\x01\0\0\0", 8));
    ASSERT_EQ(put(big, 106), 1);
    ASSERT_EQ(avpool::test::RawSegment(KEY).u32(ring(6) + 16), 2u);
    ASSERT_EQ(field(1, POSITION), 0);
    ASSERT_EQ(field(3, POSITION), 32);

    JPGGetter reader;
    reader.init(CHANNEL);
    int safe = 0;
    EXPECT_EQ(reader.toWorking(safe), 6u);
    EXPECT_EQ(reader.toNext(safe), 1u);  // no intact test here
    reader.getFrame();                   // skips ids 1, 2, 3
    EXPECT_EQ(reader.getFrameID(), 4u);
    EXPECT_EQ(text(reader.frame), "payload4");
    EXPECT_EQ(reader.frame.tv_sec, 104);

    EXPECT_EQ(reader.toOldestWorking(safe, 0), 4u);  // starts at id 3, which is broken
    EXPECT_EQ(reader.toOldestWorking(safe, 103, 0), 4u);
    EXPECT_EQ(reader.toExactWorking(safe, 103), avpool::NOT_FOUND);
    EXPECT_EQ(reader.toExactWorking(safe, 104), 4u);
    EXPECT_EQ(reader.toExactWorking(safe, 106), 6u);
    reader.getFrame();
    EXPECT_EQ(text(reader.frame), big);
}

TEST_F(JpegPool, freshPoolReadsAsSlotZeroWithNothingInIt) {
    create(3, 16, 64);
    JPGGetter reader;
    reader.init(CHANNEL);
    int safe = -1;
    EXPECT_EQ(reader.toWorking(safe), 0u);
    EXPECT_EQ(safe, 0);
    reader.getFrame();  // a never-written slot counts as intact
    EXPECT_EQ(reader.getFrameID(), 0u);
    EXPECT_EQ(reader.frame.frameLength, 0);
    // The frame pointer lies in the reader's own mapping, just behind the prefix.
    unsigned char* base = reader.getLumQT() - jpeg_layout::LUM_QT;
    EXPECT_EQ(reader.frame.data, base + jpeg_layout::ring(3) + 8);
}

TEST_F(JpegPool, probeAgeAcceptsExactlyMaxAgeInBothDirections) {
    start(4, 16, 256);
    JPGGetter reader;
    reader.init(CHANNEL);
    auto ageFails = [&](long stampOffset, int maxAge) {
        // A stamp relative to now; repeated if the second changes meanwhile.
        return avpool::test::withinOneSecond([&](time_t now) {
            put("t", static_cast<int>(now + stampOffset));
            int safe;
            reader.toWorking(safe);
            bool failed = false;
            try {
                reader.probeAge(maxAge);
            } catch (const JPGGetterError& e) {
                EXPECT_STREQ(e.what(), "age too old");
                failed = true;
            }
            return failed;
        });
    };
    EXPECT_FALSE(ageFails(-5, 5));
    EXPECT_TRUE(ageFails(-6, 5));
    EXPECT_FALSE(ageFails(+5, 5));
    EXPECT_TRUE(ageFails(+6, 5));
    EXPECT_FALSE(ageFails(0, 0));
}

TEST_F(JpegPool, getterInitWithoutAPoolFailsWithTheShmgetText) {
    JPGGetter reader;
    auto [message, log] = failureOf<JPGGetterError>([&] { reader.init(CHANNEL); });
    EXPECT_EQ(message, "shmget failed.");
    EXPECT_EQ(log.rfind("shmget failed: ", 0), 0u) << log;
    EXPECT_EQ(log.back(), '\n');
}

TEST_F(JpegPool, useBeforeInitIsAProgrammingErrorOnBothSides) {
    JPGGetter reader;
    int safe = 0;
    const std::vector<std::function<void()>> getterCalls = {
        [&] { reader.getWorkingFPS(); },    [&] { reader.getWorkingWidth(); },
        [&] { reader.getWorkingHeight(); }, [&] { reader.getRealFPS(); },
        [&] { reader.getLumQT(); },         [&] { reader.getChromQT(); },
        [&] { reader.probeAge(1); },        [&] { reader.getFrame(); },
        [&] { reader.toWorking(safe); },    [&] { reader.toNext(safe); },
        [&] { reader.toOldestWorking(safe, 1); },
        [&] { reader.toOldestWorking(safe, 1, 1); },
        [&] { reader.toExactWorking(safe, 1); },
        [&] { reader.toExactWorking(safe, 1, 1); },
        [&] { reader.getFrameID(); },       [&] { reader.waitReady(); },
    };
    avpool::test::expectProgrammingErrors<JPGGetterError>(getterCalls);

    JPGPutter writer;
    unsigned char table[64] = {};
    const std::vector<std::function<void()>> putterCalls = {
        [&] { writer.reset(1, 1, 1, 1); },
        [&] { writer.putRealFPS(1); },
        [&] { writer.putQuantTables(table, table); },
    };
    avpool::test::expectProgrammingErrors<JPGPutterError>(putterCalls);
    // An uninitialised writer has a maximum frame size of 0: any frame with bytes
    // is refused, an empty one reaches the lock and fails there.
    EXPECT_EQ(put(writer, "x"), 0);
    auto [message, log] = failureOf<JPGPutterError>([&] { put(writer, ""); });
    EXPECT_EQ(message, "semctl failed.");
    EXPECT_EQ(log.rfind("semctl failed: ", 0), 0u) << log;
}

TEST(JpegErrors, eachClassHasItsOwnStandardErrorType) {
    avpool::test::expectOwnErrorType<JPGPutterError, JPGGetterError>();
    avpool::test::expectOwnErrorType<JPGGetterError, JPGPutterError>();
}
