// The video reader within one process: moving between GOPs by position and by
// time over a ring with known stamps, fetching frames whose bytes may have been
// reused, the age probe and the failure texts.
#include "mp4_fixture.h"

#include <cstdio>
#include <functional>

#include <sys/sem.h>

using namespace mp4_layout;

namespace {
constexpr int GOP_MS = 100;  // 3 frames at 30 fps
}

// Six GOPs of three frames, eight GOPs written: GOP ids 6, 7, 8 in GOPs 0, 1, 2
// (the writer on 2), ids 3, 4, 5 in GOPs 3, 4, 5. GOP id n has frame ids 3n-2 ..
// 3n and pictures of (100 + n) x (200 + n). The searches start at GOP 5, three
// ahead of the writer: GOPs 3 and 4 are the next to be overwritten.
class Mp4Positioning : public Mp4Pool {
protected:
    void SetUp() override {
        start(6, 3, 64, 2048, 30);
        const int stamps[8][2] = {{101, 0},      {102, 0},      {103, 0},      {104, 0},
                                  {105, 500000}, {106, 100000}, {107, 600000}, {107, 900000}};
        for (int id = 1; id <= 8; ++id) {
            putter.reset(100 + id, 200 + id, 0);
            ASSERT_NO_FATAL_FAILURE(putGop("g" + std::to_string(id), 3, stamps[id - 1][0], stamps[id - 1][1]));
        }
        attach(reader);
    }
    // The GOP id the reader is on and the picture size it copied from there.
    void expectOn(unsigned long long gopId) {
        EXPECT_EQ(reader.getGopID(), gopId);
        EXPECT_EQ(reader.gopWidth, static_cast<int>(100 + gopId));
        EXPECT_EQ(reader.gopHeight, static_cast<int>(200 + gopId));
        EXPECT_EQ(reader.gopFPS, 30);
    }
    MP4Getter reader;
    int safe = -12345;
};

TEST_F(Mp4Positioning, toWorkingGopTakesTheWritersGopAndToNextGopWalksWithoutChecks) {
    EXPECT_EQ(reader.toWorkingGop(safe), 8u);
    EXPECT_EQ(safe, 0);
    expectOn(8);
    const int next[][2] = {{3, GOP_MS}, {4, 2 * GOP_MS}, {5, 3 * GOP_MS}, {6, 4 * GOP_MS}, {7, 0}, {8, 0}};
    for (const auto& step : next) {
        EXPECT_EQ(reader.toNextGop(safe), static_cast<unsigned long long>(step[0]));
        EXPECT_EQ(safe, step[1]);
        expectOn(static_cast<unsigned long long>(step[0]));
    }

    EXPECT_EQ(reader.getOneSafeTime(), GOP_MS);
    EXPECT_EQ(reader.getWorkingFPS(), 30);
    EXPECT_EQ(reader.getWorkingWidth(), 108);
    EXPECT_EQ(reader.getWorkingHeight(), 208);
    EXPECT_EQ(reader.getRealFPS(), 30);
    putter.putRealFPS(12);
    EXPECT_EQ(reader.getRealFPS(), 12);  // read live, not copied at init
}

TEST_F(Mp4Positioning, getFrameDataPointsIntoTheRingBehindThePrefix) {
    void *pool = nullptr, *safeTable = nullptr, *infoTable = nullptr, *data = nullptr;
    ASSERT_EQ(sscanf(attachLog.c_str(), "MP4Getter A:%p sA:%p fA:%p dA:%p\n", &pool, &safeTable, &infoTable, &data), 4)
        << attachLog;
    char* base = static_cast<char*>(pool);
    EXPECT_EQ(static_cast<char*>(safeTable) - base, 52);
    EXPECT_EQ(static_cast<char*>(infoTable) - base, 52 + 4 * 18);
    EXPECT_EQ(static_cast<char*>(data) - base, 52 + 52 * 18);

    reader.toWorkingGop(safe);
    for (int k = 0; k < 3; ++k) {
        SCOPED_TRACE(k);
        EXPECT_EQ(reader.getFrameData(k), static_cast<unsigned long long>(22 + k));
        EXPECT_EQ(text(reader), "g8." + std::to_string(k));
        EXPECT_EQ(reinterpret_cast<char*>(reader.frameData),
                  static_cast<char*>(data) + field(6 + k, POSITION) + 8);
        EXPECT_EQ(reader.frameTime.tv_sec, 107);
        EXPECT_EQ(reader.frameTime.tv_usec, 900000);
    }
}

TEST_F(Mp4Positioning, toOldestWorkingGopFindsTheOldestGopAtOrAfterTheGivenTime) {
    EXPECT_EQ(reader.toOldestWorkingGop(safe, 0), 5u);  // ids 3 and 4 are older but excluded
    EXPECT_EQ(safe, 3 * GOP_MS);
    expectOn(5);
    EXPECT_EQ(reader.toOldestWorkingGop(safe, 106), 6u);
    EXPECT_EQ(safe, 4 * GOP_MS);
    expectOn(6);
    EXPECT_EQ(reader.toOldestWorkingGop(safe, 107), 7u);
    EXPECT_EQ(safe, 0);
    // Nothing that late: the scan ends on the writer's GOP.
    EXPECT_EQ(reader.toOldestWorkingGop(safe, 200), 8u);
    expectOn(8);
}

TEST_F(Mp4Positioning, toOldestWorkingGopComparesSecondsAndMicrosecondsEachOnItsOwn) {
    // id 5 (105.500000) is early in microseconds; id 6 (106.100000) is later as
    // a time, but its microseconds are smaller, so it does not qualify either.
    EXPECT_EQ(reader.toOldestWorkingGop(safe, 105, 600000), 7u);
    expectOn(7);
    EXPECT_EQ(reader.toOldestWorkingGop(safe, 105, 500000), 5u);
    EXPECT_EQ(reader.toOldestWorkingGop(safe, 107, 950000), 8u);  // none: the writer's GOP
}

TEST_F(Mp4Positioning, toExactWorkingGopFindsTheOldestGopOfThatSecond) {
    EXPECT_EQ(reader.toExactWorkingGop(safe, 106), 6u);
    EXPECT_EQ(safe, 4 * GOP_MS);
    expectOn(6);
    EXPECT_EQ(reader.toExactWorkingGop(safe, 107), 7u);
    EXPECT_EQ(safe, 0);
    // With microseconds: the oldest GOP of the second that started at or before them.
    EXPECT_EQ(reader.toExactWorkingGop(safe, 107, 950000), 7u);
    EXPECT_EQ(reader.toExactWorkingGop(safe, 107, 600000), 7u);
    EXPECT_EQ(reader.toExactWorkingGop(safe, 105, 500000), 5u);
    expectOn(5);
}

TEST_F(Mp4Positioning, toExactWorkingGopReportsNotFoundLeavingSafeTimeAndGopMembers) {
    reader.toWorkingGop(safe);
    safe = -12345;
    // Older than the first candidate (id 5, second 105): an immediate miss, the
    // reader stays on that candidate.
    EXPECT_EQ(reader.toExactWorkingGop(safe, 104), 4294967295ull);
    EXPECT_EQ(safe, -12345);
    EXPECT_EQ(reader.getGopID(), 5u);
    EXPECT_EQ(reader.gopWidth, 108);  // still those of the GOP moved to before

    // No GOP in that second: the scan runs up to the GOP after the writer's.
    EXPECT_EQ(reader.toExactWorkingGop(safe, 150), avpool::NOT_FOUND);
    EXPECT_EQ(reader.getGopID(), 3u);
    EXPECT_EQ(reader.toExactWorkingGop(safe, 107, 599999), avpool::NOT_FOUND);
    EXPECT_EQ(safe, -12345);
    EXPECT_EQ(reader.getGopID(), 3u);
    EXPECT_EQ(reader.gopHeight, 208);
}

// Six GOPs of two frames, every GOP in second 50 and GOP id n at n * 10000 us.
// After 11 GOPs the writer is on the last GOP (5): the search stop, the GOP
// after the writer's taken modulo the 12 slots, is 6 and never reached, so the
// search runs through all six GOPs and finds the closed GOP right after the
// writer's. One GOP later the writer is on GOP 0 and the stop is reached.
TEST_F(Mp4Pool, toExactWorkingGopPassesTheWriterOnlyWhenItIsOnTheLastGop) {
    start(6, 2, 16, 1024);
    for (int id = 1; id <= 11; ++id) ASSERT_NO_FATAL_FAILURE(putGop("e" + std::to_string(id), 2, 50, id * 10000));
    MP4Getter reader;
    attach(reader);
    int safe = -1;
    ASSERT_EQ(header(WORKING_GOP), 5);
    EXPECT_EQ(reader.toExactWorkingGop(safe, 50, 65000), 6u);  // GOP 0, one past the writer
    EXPECT_EQ(safe, 80);                                        // one GOP ahead: 2 frames at 25 fps
    EXPECT_EQ(lockOf(0), 1);                                    // and already closed
    EXPECT_EQ(reader.toExactWorkingGop(safe, 50), 8u);  // the start GOP matches first

    ASSERT_NO_FATAL_FAILURE(putGop("e12", 2, 50, 120000));
    ASSERT_EQ(header(WORKING_GOP), 0);
    EXPECT_EQ(reader.toExactWorkingGop(safe, 50, 75000), avpool::NOT_FOUND);  // id 7 lies behind the stop
    EXPECT_EQ(reader.getGopID(), 7u);
}

TEST_F(Mp4Pool, withThreeGopsBothSearchesStartOnTheWritersGop) {
    start(3, 2, 16, 1024);
    for (int id = 1; id <= 4; ++id) ASSERT_NO_FATAL_FAILURE(putGop("t" + std::to_string(id), 2, 10 + id));
    ASSERT_EQ(header(WORKING_GOP), 1);
    MP4Getter reader;
    attach(reader);
    int safe = -1;
    EXPECT_EQ(reader.toOldestWorkingGop(safe, 0), 4u);
    EXPECT_EQ(reader.toOldestWorkingGop(safe, 13), 4u);  // id 3 is intact but never reached
    EXPECT_EQ(reader.toExactWorkingGop(safe, 13), avpool::NOT_FOUND);
    EXPECT_EQ(reader.getGopID(), 4u);
    EXPECT_EQ(reader.toExactWorkingGop(safe, 14), 4u);
}

// Six GOPs of two frames of 4 bytes (12 in the ring); the ring holds six frames.
// GOP id 4 (frames 7, 8) wraps to offset 0 and reuses the bytes of GOP id 1
// (frames 1, 2), whose records in GOP 1 remain.
TEST_F(Mp4Pool, reusedBytesMakeFramesUnreadableAndTheirGopInvisibleToTheSearches) {
    start(6, 2, 16, 72);
    for (int id = 1; id <= 4; ++id) ASSERT_NO_FATAL_FAILURE(putGop("g" + std::to_string(id), 2, 100 + id));
    ASSERT_EQ(field(8, POSITION), 0);
    ASSERT_EQ(frameIdIn(2), 1u);

    MP4Getter reader;
    attach(reader);
    int safe = -1;
    EXPECT_EQ(reader.toWorkingGop(safe), 4u);
    ASSERT_EQ(reader.getFrameData(1), 8u);
    unsigned char* data = reader.frameData;
    for (int step = 0; step < 2; ++step) reader.toNextGop(safe);  // GOPs 5 and 0, never written
    EXPECT_EQ(reader.toNextGop(safe), 1u);                       // no validity check here
    EXPECT_EQ(reader.getFrameData(0), 0u);
    EXPECT_EQ(reader.getFrameData(1), 0u);
    EXPECT_EQ(reader.frameData, data);  // still frame 8
    EXPECT_EQ(text(reader), "g4.1");
    EXPECT_EQ(reader.frameTime.tv_sec, 104);

    // The searches start on GOP 1 and pass over it.
    EXPECT_EQ(reader.toOldestWorkingGop(safe, 0), 2u);
    EXPECT_EQ(reader.toExactWorkingGop(safe, 101), avpool::NOT_FOUND);
    EXPECT_EQ(reader.toExactWorkingGop(safe, 102), 2u);
    EXPECT_EQ(reader.getFrameData(1), 4u);
    EXPECT_EQ(text(reader), "g2.1");
}

TEST_F(Mp4Pool, slotsLeftOverByAShortGopStillDescribeTheirOlderFrames) {
    start(3, 3, 16, 1024);
    for (int id = 1; id <= 3; ++id) ASSERT_NO_FATAL_FAILURE(putGop("g" + std::to_string(id), 3, id));
    ASSERT_NO_FATAL_FAILURE(putGop("short", 1, 4));  // GOP id 4 in GOP 1, frame 10
    ASSERT_NO_FATAL_FAILURE(putGop("g5", 1, 5));     // opens slots 4 and 5
    EXPECT_EQ(locks(), perGop({{1, 1, 1}, {0, 0, 0}, {0, 1, 1}}));

    MP4Getter reader;
    attach(reader);
    int safe = -1;
    reader.toWorkingGop(safe);
    EXPECT_EQ(reader.toNextGop(safe), 3u);
    EXPECT_EQ(reader.toNextGop(safe), 4u);
    EXPECT_EQ(reader.getFrameData(0), 10u);
    EXPECT_EQ(reader.getFrameData(1), 2u);  // lower than the GOP's own I frame
    EXPECT_EQ(text(reader), "g1.1");
    EXPECT_EQ(reader.frameTime.tv_sec, 1);
}

TEST_F(Mp4Pool, probeAgeAcceptsExactlyMaxAgeInBothDirections) {
    start(4, 2, 16, 4096);
    MP4Getter reader;
    attach(reader);
    auto ageFails = [&](long stampOffset, int maxAge) {
        return avpool::test::withinOneSecond([&](time_t now) {
            EXPECT_EQ(putI("t", static_cast<int>(now + stampOffset)), 0);
            int safe;
            reader.toWorkingGop(safe);
            try {
                EXPECT_EQ(reader.probeAge(maxAge), stampOffset < 0 ? -stampOffset : stampOffset);
            } catch (const MP4GetterError& e) {
                EXPECT_STREQ(e.what(), "age too old");
                return true;
            }
            return false;
        });
    };
    EXPECT_FALSE(ageFails(-5, 5));
    EXPECT_TRUE(ageFails(-6, 5));
    EXPECT_FALSE(ageFails(+5, 5));
    EXPECT_TRUE(ageFails(+6, 5));
    EXPECT_FALSE(ageFails(0, 0));
}

TEST_F(Mp4Pool, getterInitFailsWithoutThePoolOrWithoutOneOfItsGroups) {
    MP4Getter reader;
    auto [message, log] = failureOf<MP4GetterError>([&] { reader.init(CHANNEL); });
    EXPECT_EQ(message, "shmget failed.");
    EXPECT_EQ(log.rfind("shmget failed: ", 0), 0u) << log;
    EXPECT_EQ(log.back(), '\n');

    create(30, 10, 16, 64);
    ASSERT_EQ(semctl(avpool::test::semIdOf(semKey(1)), 0, IPC_RMID), 0);
    auto [groupMessage, groupLog] = failureOf<MP4GetterError>([&] { reader.init(CHANNEL); });
    EXPECT_EQ(groupMessage, "semget failed.");
    EXPECT_EQ(groupLog.rfind("MP4Getter A:", 0), 0u) << groupLog;
    EXPECT_NE(groupLog.find("\nsemget failed: "), std::string::npos) << groupLog;
}

TEST_F(Mp4Pool, useBeforeInitIsAProgrammingErrorOnBothSides) {
    MP4Getter reader;
    int safe = 0;
    const std::vector<std::function<void()>> getterCalls = {
        [&] { reader.toWorkingGop(safe); },
        [&] { reader.toNextGop(safe); },
        [&] { reader.toOldestWorkingGop(safe, 1); },
        [&] { reader.toOldestWorkingGop(safe, 1, 1); },
        [&] { reader.toExactWorkingGop(safe, 1); },
        [&] { reader.toExactWorkingGop(safe, 1, 1); },
        [&] { reader.getGopID(); },
        [&] { reader.getSafeTime(); },
        [&] { reader.getOneSafeTime(); },
        [&] { reader.getWorkingFPS(); },
        [&] { reader.getWorkingWidth(); },
        [&] { reader.getWorkingHeight(); },
        [&] { reader.getRealFPS(); },
        [&] { reader.probeAge(1); },
        [&] { reader.waitFrameReady(0); },
        [&] { reader.getFrameData(0); },
    };
    avpool::test::expectProgrammingErrors<MP4GetterError>(getterCalls);

    MP4Putter writer;
    const std::vector<std::function<void()>> putterCalls = {
        [&] { writer.reset(1, 1, 1); },
        [&] { writer.putRealFPS(1); },
    };
    avpool::test::expectProgrammingErrors<MP4PutterError>(putterCalls);
}

TEST(Mp4Errors, eachClassHasItsOwnStandardErrorType) {
    avpool::test::expectOwnErrorType<MP4PutterError, MP4GetterError>();
    avpool::test::expectOwnErrorType<MP4GetterError, MP4PutterError>();
    EXPECT_EQ(min(3, 2), 2);
    EXPECT_EQ(min(-4, 7), -4);
}
