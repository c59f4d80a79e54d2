// The video writer as other processes see it: header, tables, data ring, the
// semaphore groups and their lock values, safe times and the frames it refuses,
// cuts or drops, read back byte by byte from the segment.
#include "mp4_fixture.h"

#include <cstdio>
#include <fstream>
#include <sstream>

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

using namespace mp4_layout;
using avpool::test::RawSegment;
using avpool::test::semCountOf;
using avpool::test::semIdOf;
using avpool::test::shmIdOf;

TEST_F(Mp4Pool, initLaysOutHeaderTablesAndClosedLocksAndLogsTheGeometry) {
    create(3, 4, 100, 200);  // 12 slots; size 200 + 624, segment 876

    RawSegment raw(KEY);
    ASSERT_TRUE(raw.attached());
    EXPECT_EQ(raw.size(), 876u);
    EXPECT_EQ(raw.i32(GOP_COUNT), 3);
    EXPECT_EQ(raw.i32(FRAMES_PER_GOP), 4);
    EXPECT_EQ(raw.i32(MAX_FRAME_SIZE), 100);
    EXPECT_EQ(raw.i32(WORKING_GOP), 0);
    for (size_t offset : {REAL_FPS, WORKING_FPS, WIDTH, HEIGHT, ONE_SAFE_TIME}) EXPECT_EQ(raw.i32(offset), 0);
    EXPECT_EQ(raw.i32(PREFIX_SIZE), 8);
    EXPECT_EQ(raw.i32(SAFE_TIME_OFFSET), 52);
    EXPECT_EQ(raw.i32(FRAME_INFO_OFFSET), 100);
    EXPECT_EQ(raw.i32(DATA_OFFSET), 676);
    for (int slot = 0; slot < 12; ++slot) {
        SCOPED_TRACE(slot);
        EXPECT_EQ(raw.i32(safeTime(slot)), 0);
        std::vector<unsigned char> expected(RECORD, 0);
        expected[LOCK_INDEX] = static_cast<unsigned char>(slot);
        EXPECT_EQ(raw.bytes(record(12, slot), RECORD), expected);
    }
    EXPECT_EQ(raw.bytes(ring(12), 200), std::vector<unsigned char>(200, 0));

    EXPECT_EQ(semCountOf(semIdOf(semKey(0))), 12);
    EXPECT_EQ(semIdOf(semKey(1)), -1);
    EXPECT_EQ(locks(), std::vector<int>(12, 1));

    EXPECT_EQ(initErr, "=======mp4 putter total size: 876============\n");
    // Header size in hex, the data area at the header's offset, RawDataLen.
    int total = 0, rawLen = 0, consumed = 0;
    void *pool = nullptr, *data = nullptr;
    ASSERT_EQ(sscanf(initOut.c_str(), "total:%d pPool:%p 34 data:%p RawDataLen:%d\n%n", &total, &pool, &data, &rawLen,
                     &consumed),
              4)
        << initOut;
    EXPECT_EQ(static_cast<size_t>(consumed), initOut.size()) << initOut;
    EXPECT_EQ(total, 876);
    EXPECT_EQ(static_cast<char*>(data) - static_cast<char*>(pool), 676);
    EXPECT_EQ(rawLen, 200);
}

TEST_F(Mp4Pool, slotLocksAreSpreadOverGroupsOfAtMost250UpToAThousandSlots) {
    create(30, 10, 16, 64);
    EXPECT_EQ(semCountOf(semIdOf(semKey(0))), 250);
    EXPECT_EQ(semCountOf(semIdOf(semKey(1))), 50);
    EXPECT_EQ(semIdOf(semKey(2)), -1);
    EXPECT_EQ(locks(), std::vector<int>(300, 1));
    EXPECT_EQ(field(299, LOCK_INDEX), 299);
    putter.release();

    create(100, 10, 16, 64);
    for (int g = 0; g < 4; ++g) EXPECT_EQ(semCountOf(semIdOf(semKey(g))), 250) << g;
    EXPECT_EQ(locks(), std::vector<int>(1000, 1));
    putter.release();

    MP4Putter refused;
    auto [message, log] =
        failureOf<MP4PutterError>([&] { refused.init(CHANNEL, 7, 143, 16, Tables::sizeFor(7 * 143, 64)); });
    EXPECT_EQ(message, "programming error, poolSize exceed MP4_MAX_FRAME_COUNT");
    EXPECT_EQ(log, "");  // refused before the size is even logged
    EXPECT_EQ(shmIdOf(KEY), -1);
    for (int g = 0; g < 4; ++g) EXPECT_EQ(semIdOf(semKey(g)), -1) << g;
}

TEST_F(Mp4Pool, semPositionSplitsASlotIntoGroupAndIndexOnBothSides) {
    MP4Getter reader;
    const int cases[][3] = {{0, 0, 0}, {249, 0, 249}, {250, 1, 0}, {261, 1, 11}, {999, 3, 249}};
    for (const auto& c : cases) {
        int group = -1, index = -1;
        putter.getSemPosition(c[0], group, index);
        EXPECT_EQ(group, c[1]) << c[0];
        EXPECT_EQ(index, c[2]) << c[0];
        group = index = -1;
        reader.getSemPosition(c[0], group, index);
        EXPECT_EQ(group, c[1]) << c[0];
        EXPECT_EQ(index, c[2]) << c[0];
    }
    int group, index;
    auto putterFailure = failureOf<MP4PutterError>([&] { putter.getSemPosition(1000, group, index); });
    EXPECT_EQ(putterFailure, std::make_pair(std::string("Over Max Semaphore Group."), std::string()));
    auto getterFailure = failureOf<MP4GetterError>([&] { reader.getSemPosition(1000, group, index); });
    EXPECT_EQ(getterFailure, std::make_pair(std::string("Over Max Semaphore Group."), std::string()));
}

TEST_F(Mp4Pool, putterReleaseRemovesEverythingAndAReaderReleaseNothing) {
    create(30, 10, 16, 64);
    {
        MP4Getter reader;
        attach(reader);
        reader.release();
        reader.release();
    }
    EXPECT_NE(shmIdOf(KEY), -1);
    EXPECT_NE(semIdOf(semKey(0)), -1);
    EXPECT_NE(semIdOf(semKey(1)), -1);

    putter.release();
    EXPECT_EQ(shmIdOf(KEY), -1);
    EXPECT_EQ(semIdOf(semKey(0)), -1);
    EXPECT_EQ(semIdOf(semKey(1)), -1);
    putter.release();  // a second release finds nothing to do

    {
        MP4Putter scoped;
        create(scoped, 3, 2, 16, 64);
        ASSERT_NE(semIdOf(semKey(0)), -1);
    }
    EXPECT_EQ(shmIdOf(KEY), -1);
    EXPECT_EQ(semIdOf(semKey(0)), -1);
}

TEST_F(Mp4Pool, leftoversUnderTheSegmentKeyAndEveryGroupKeyAreReplaced) {
    int staleSegment = avpool::test::plantSegment(KEY, 16, 0);
    ASSERT_NE(staleSegment, -1);
    int stale0 = avpool::test::plantSemSet(semKey(0), 3);
    int stale1 = avpool::test::plantSemSet(semKey(1), 400);
    ASSERT_NE(stale0, -1);
    ASSERT_NE(stale1, -1);

    create(30, 10, 16, 64);
    EXPECT_NE(shmIdOf(KEY), staleSegment);
    EXPECT_FALSE(avpool::test::shmIdAlive(staleSegment));
    EXPECT_EQ(RawSegment(KEY).size(), 52u + 64 + 52 * 300);
    EXPECT_FALSE(avpool::test::semIdAlive(stale0));
    EXPECT_FALSE(avpool::test::semIdAlive(stale1));
    EXPECT_EQ(semCountOf(semIdOf(semKey(0))), 250);
    EXPECT_EQ(semCountOf(semIdOf(semKey(1))), 50);
    EXPECT_EQ(locks(), std::vector<int>(300, 1));
}

TEST_F(Mp4Pool, resetTakesAnyNonZeroHeightButOnlyPositiveWidthAndRate) {
    create(3, 4, 16, 256);
    ASSERT_EQ(putI("before"), 0);  // no reset yet: the frame carries zeros
    EXPECT_EQ(field(4, F_WIDTH), 0);
    EXPECT_EQ(field(4, F_HEIGHT), 0);
    EXPECT_EQ(field(4, F_FPS), 0);

    putter.reset(640, 480, 30);
    EXPECT_EQ(header(WIDTH), 640);
    EXPECT_EQ(header(HEIGHT), 480);
    EXPECT_EQ(header(WORKING_FPS), 30);
    EXPECT_EQ(header(REAL_FPS), 30);
    EXPECT_EQ(header(ONE_SAFE_TIME), 133);  // 4 frames * 1000 / 30, rounded down
    EXPECT_EQ(putter.putRealFPS(24), 24);
    EXPECT_EQ(header(REAL_FPS), 24);
    EXPECT_EQ(header(WORKING_FPS), 30);

    putter.reset(-1, -7, -5);
    EXPECT_EQ(header(WIDTH), 640);
    EXPECT_EQ(header(HEIGHT), -7);
    EXPECT_EQ(header(WORKING_FPS), 30);
    EXPECT_EQ(header(REAL_FPS), 24);
    std::vector<unsigned char> before = RawSegment(KEY).bytes(0, HEADER);
    putter.reset(0, 0, 0);
    EXPECT_EQ(RawSegment(KEY).bytes(0, HEADER), before);

    putter.reset(0, 0, 7);
    EXPECT_EQ(header(WORKING_FPS), 7);
    EXPECT_EQ(header(REAL_FPS), 7);
    EXPECT_EQ(header(ONE_SAFE_TIME), 571);
    ASSERT_EQ(putI("after"), 0);
    putP("p");
    for (int slot : {8, 9}) {
        EXPECT_EQ(field(slot, F_WIDTH), 640) << slot;
        EXPECT_EQ(field(slot, F_HEIGHT), -7) << slot;
        EXPECT_EQ(field(slot, F_FPS), 7) << slot;
    }
}

TEST_F(Mp4Pool, framesGoIntoTheRingBehindTheirIdPrefixPaddedAndWrapToTheStart) {
    create(3, 4, 200, 200);
    putter.reset(352, 288, 25);
    const size_t base = ring(12);

    // The first I frame opens GOP 1: slot 4, GOP id 1, frame id 1, ring offset 0.
    ASSERT_EQ(putI("ABCDE", 1000, 1), 0);
    RawSegment raw(KEY);
    EXPECT_EQ(raw.i32(WORKING_GOP), 1);
    const size_t r4 = record(12, 4);
    EXPECT_EQ(raw.u32(r4 + GOP_ID), 1u);
    EXPECT_EQ(raw.u32(r4 + GOP_ID + 4), 0u);
    EXPECT_EQ(raw.u32(r4 + FRAME_ID), 1u);
    EXPECT_EQ(raw.u32(r4 + FRAME_ID + 4), 0u);
    EXPECT_EQ(raw.i32(r4 + F_WIDTH), 352);
    EXPECT_EQ(raw.i32(r4 + F_HEIGHT), 288);
    EXPECT_EQ(raw.i32(r4 + F_FPS), 25);
    EXPECT_EQ(raw.i32(r4 + LOCK_INDEX), 4);
    EXPECT_EQ(raw.i32(r4 + LENGTH), 5);
    EXPECT_EQ(raw.i32(r4 + SEC), 1000);
    EXPECT_EQ(raw.i32(r4 + USEC), 1);
    EXPECT_EQ(raw.i32(r4 + POSITION), 0);
    EXPECT_EQ(raw.bytes(base, 16),
              (std::vector<unsigned char>{1, 0, 0, 0, 0, 0, 0, 0, 'A', 'B', 'C', 'D', 'E', 0, 0, 0}));
    EXPECT_EQ(frameIdIn(0), 0u);  // GOP 0 is not written until the ring of GOPs wraps

    // P frames follow in the GOP's next slots and the ring.
    putP("xyz", 1000, 40001);
    EXPECT_EQ(gopIdIn(5), 1u);
    EXPECT_EQ(frameIdIn(5), 2u);
    EXPECT_EQ(field(5, POSITION), 16);
    EXPECT_EQ(field(5, USEC), 40001);
    EXPECT_EQ(raw.bytes(base + 16, 12), (std::vector<unsigned char>{2, 0, 0, 0, 0, 0, 0, 0, 'x', 'y', 'z', 0}));
    putP(std::string(150, 'p'));  // 28 + 8 + 150 + 2 = 188
    EXPECT_EQ(field(6, POSITION), 28);
    EXPECT_EQ(raw.bytes(base + 36 + 150, 2), std::vector<unsigned char>(2, 0));
    putP("WXYZ");  // 188 + 8 + 4 ends exactly at the end of the ring: no wrap
    EXPECT_EQ(field(7, POSITION), 188);
    EXPECT_EQ(raw.u64(base + 188), 4u);

    // Nothing fits behind it: the next frame starts at offset 0 again.
    ASSERT_EQ(putI("next", 1001), 0);
    EXPECT_EQ(raw.i32(WORKING_GOP), 2);
    EXPECT_EQ(gopIdIn(8), 2u);
    EXPECT_EQ(frameIdIn(8), 5u);
    EXPECT_EQ(field(8, POSITION), 0);
    EXPECT_EQ(raw.bytes(base, 12), (std::vector<unsigned char>{5, 0, 0, 0, 0, 0, 0, 0, 'n', 'e', 'x', 't'}));
    EXPECT_EQ(raw.bytes(base + 16, 8), (std::vector<unsigned char>{2, 0, 0, 0, 0, 0, 0, 0}));  // left alone
}

TEST_F(Mp4Pool, locksCloseTheGopAheadOfTheWriterAndOpenFrameByFrame) {
    start(3, 4, 16, 1024);
    // The first I frame moves to GOP 1 and also opens slots 1..3 of GOP 0,
    // which is then open but empty apart from its I slot.
    ASSERT_EQ(putI("i1"), 0);
    EXPECT_EQ(locks(), perGop({{1, 0, 0, 0}, {0, 1, 1, 1}, {1, 1, 1, 1}}));
    putP("p");
    EXPECT_EQ(locks(), perGop({{1, 0, 0, 0}, {0, 0, 1, 1}, {1, 1, 1, 1}}));
    putP("p");
    EXPECT_EQ(locks(), perGop({{1, 0, 0, 0}, {0, 0, 0, 1}, {1, 1, 1, 1}}));

    // The next I frame opens what GOP 1 left unwritten and closes GOP 0, the one
    // after its own, before it publishes anything.
    ASSERT_EQ(putI("i2"), 0);
    EXPECT_EQ(header(WORKING_GOP), 2);
    EXPECT_EQ(locks(), perGop({{1, 1, 1, 1}, {0, 0, 0, 0}, {0, 1, 1, 1}}));
    EXPECT_EQ(frameIdIn(7), 0u);  // opened, but never written

    ASSERT_EQ(putI("i3"), 0);  // GOP 2 held only its I frame
    EXPECT_EQ(header(WORKING_GOP), 0);
    EXPECT_EQ(locks(), perGop({{0, 1, 1, 1}, {1, 1, 1, 1}, {0, 0, 0, 0}}));
    for (int k = 1; k < 4; ++k) putP("p");
    EXPECT_EQ(locks(), perGop({{0, 0, 0, 0}, {1, 1, 1, 1}, {0, 0, 0, 0}}));
}

TEST_F(Mp4Pool, safeTimesCountGopsAheadOfTheWriterWithTheSameValueInEverySlot) {
    start(3, 2, 16, 1024, 10);  // one GOP of 2 frames at 10 fps: 200 ms
    EXPECT_EQ(header(ONE_SAFE_TIME), 200);
    putI("a");  // writer at 1
    EXPECT_EQ(safeTimes(), perGop({{0, 0}, {0, 0}, {200, 200}}));
    putP("a");
    putI("b");  // writer at 2
    EXPECT_EQ(safeTimes(), perGop({{200, 200}, {0, 0}, {0, 0}}));
    putI("c");  // writer at 0: 0, d, 0
    EXPECT_EQ(safeTimes(), perGop({{0, 0}, {200, 200}, {0, 0}}));
    putter.release();

    MP4Putter five;
    create(five, 5, 2, 16, 1024);
    five.reset(640, 480, 20);  // 100 ms
    for (int g = 0; g < 7; ++g) putI(five, "g");  // writer at 2
    EXPECT_EQ(safeTimes(), perGop({{300, 300}, {0, 0}, {0, 0}, {100, 100}, {200, 200}}));

    // Readers get the value of the GOP's first slot with every move.
    MP4Getter reader;
    attach(reader);
    int safe = -1;
    EXPECT_EQ(reader.toWorkingGop(safe), 7u);
    EXPECT_EQ(safe, 0);
    const int expected[] = {100, 200, 300, 0, 0};
    for (int step : expected) {
        reader.toNextGop(safe);
        EXPECT_EQ(safe, step);
        EXPECT_EQ(reader.getSafeTime(), step);
    }
}

TEST_F(Mp4Pool, oversizedIFrameIsRefusedAndItsPFramesDroppedUntilTheNextIFrame) {
    start(3, 4, 8, 256);
    ASSERT_EQ(putI("12345678"), 0);  // exactly maxFrameSize
    putP("p1");
    RawSegment raw(KEY);
    std::vector<unsigned char> before = raw.bytes(0, raw.size());
    std::vector<int> locksBefore = locks();

    EXPECT_EQ(putI("123456789"), 1);
    putP("p2");
    putP("p3");
    EXPECT_EQ(raw.bytes(0, raw.size()), before);
    EXPECT_EQ(locks(), locksBefore);

    // The next I frame is taken with the following ids and opens what GOP 1 left.
    ASSERT_EQ(putI("I2"), 0);
    EXPECT_EQ(gopIdIn(8), 2u);
    EXPECT_EQ(frameIdIn(8), 3u);
    EXPECT_EQ(field(8, POSITION), 28);
    EXPECT_EQ(locks(), perGop({{1, 1, 1, 1}, {0, 0, 0, 0}, {0, 1, 1, 1}}));

    // An oversized P frame is kept, cut to maxFrameSize.
    putP("ABCDEFGHIJKL");
    EXPECT_EQ(frameIdIn(9), 4u);
    EXPECT_EQ(field(9, LENGTH), 8);
    EXPECT_EQ(field(9, POSITION), 40);
    EXPECT_EQ(raw.bytes(ring(12) + 48, 8), std::vector<unsigned char>({'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H'}));
    putP("z");
    EXPECT_EQ(field(10, POSITION), 56);
}

namespace {

// In a forked child: a private mount namespace in which /dev/console is a fresh
// temporary file, so that what a shell command writes there can be read back.
bool consoleToFile(std::string& file) {
    char path[] = "/tmp/mp4-console-XXXXXX";
    int fd = mkstemp(path);
    if (fd < 0) return false;
    close(fd);
    file = path;
    if (unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
        mount(path, "/dev/console", nullptr, MS_BIND, nullptr) == 0)
        return true;
    unlink(path);
    return false;
}

}  // namespace

TEST_F(Mp4Pool, pFramesBeyondTheGopAreDroppedAndReportedOnTheConsole) {
    start(2, 3, 100, 400);
    putGop("full", 3);  // GOP 1: slots 3, 4, 5
    RawSegment raw(KEY);
    std::vector<unsigned char> before = raw.bytes(0, raw.size());
    std::vector<int> locksBefore = locks();

    avpool::test::ForkedChild child([this](avpool::test::ChildLink& link) {
        std::string file;
        if (!consoleToFile(file)) {
            link.say("no private console");
            return 0;
        }
        // Each command truncates the console file: read it after every frame.
        auto console = [&] {
            std::ifstream in(file);
            std::stringstream lines;
            lines << in.rdbuf();
            return lines.str();
        };
        putP(std::string(7, 'a'));
        link.say(console() + "end");
        putP(std::string(150, 'b'));  // reported with its length before the cut
        link.say(console() + "end");
        unlink(file.c_str());
        if (!link.awaitGo()) return 1;
        putI("next");
        return 0;
    });
    std::string line;
    ASSERT_TRUE(child.readLine(line));
    if (line == "no private console") GTEST_SKIP() << "no mount namespace for a private /dev/console";
    EXPECT_EQ(line, "P exceed:7 gop:3 ");
    ASSERT_NO_FATAL_FAILURE(avpool::test::expectLine(child, "end"));
    ASSERT_NO_FATAL_FAILURE(avpool::test::expectLine(child, "P exceed:150 gop:3 "));
    ASSERT_NO_FATAL_FAILURE(avpool::test::expectLine(child, "end"));

    EXPECT_EQ(raw.bytes(0, raw.size()), before);
    EXPECT_EQ(locks(), locksBefore);

    // The next I frame continues the ids where the last stored frame left them.
    child.go();
    EXPECT_TRUE(child.wait().ok());
    EXPECT_EQ(header(WORKING_GOP), 0);
    EXPECT_EQ(gopIdIn(0), 2u);
    EXPECT_EQ(frameIdIn(0), 4u);
    EXPECT_EQ(locks(), perGop({{0, 1, 1}, {1, 1, 1}}));
}
