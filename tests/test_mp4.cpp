// The video pool as other processes see it: its layout, semaphore groups, GOP-wise
// locks and safe times read back raw; frames refused, cut or dropped; the searches'
// GOP-specific edges and a reader following the writer in another process.
#include "pools.h"

#include <fstream>
#include <sstream>
#include <tuple>

#include <sched.h>
#include <sys/mount.h>
#include <sys/sem.h>
#include <unistd.h>

using namespace avpool::test;

namespace {
constexpr int CHANNEL = Mp4Kind::CHANNEL;
constexpr key_t KEY = Mp4Kind::KEY;
constexpr key_t semKey(int group) { return Mp4Kind::SET_KEY + group; }
size_t record(int slots, int slot) { return 52 + 4 * static_cast<size_t>(slots) + 48 * static_cast<size_t>(slot); }
size_t ring(int slots) { return 52 + 52 * static_cast<size_t>(slots); }
// A record's words: GOP id low and high, frame id low and high, width, height,
// fps, lockIndex, length, seconds, microseconds, data position.
std::vector<int> recordOf(int slots, int slot) { return RawSegment(KEY).words(record(slots, slot), 12); }
// The slot locks GOP by GOP: "1000 0111" for two GOPs of four slots, the first closed.
std::string locks(int slots, int frames) {
    std::string values;
    for (int slot = 0; slot < slots; ++slot) {
        if (slot > 0 && slot % frames == 0) values += ' ';
        values += std::to_string(lockValue(semKey(slot / 250), slot % 250));
    }
    return values;
}
std::string text(const MP4Getter& g) { return std::string(reinterpret_cast<char*>(g.frameData), g.frameLength); }
}  // namespace

class Mp4 : public Pool<Mp4Kind> {
protected:
    void create(int gops, int frames, int maxFrameSize, int ringBytes) {
        std::string err, out;
        const int size = ringBytes + 52 * gops * frames;
        captureOutput([&] { putter.init(CHANNEL, gops, frames, maxFrameSize, size); }, err, &out);
    }
    void start(int gops, int frames, int maxFrameSize, int ringBytes, int fps = 25) {
        create(gops, frames, maxFrameSize, ringBytes);
        putter.reset(640, 480, fps);
    }
    int putI(const std::string& b, int sec = 0, int usec = 0) {
        return putter.putIFrame(const_cast<char*>(b.data()), static_cast<int>(b.size()), at(sec, usec));
    }
    void putP(const std::string& b, int sec = 0, int usec = 0) {
        putter.putPFrame(const_cast<char*>(b.data()), static_cast<int>(b.size()), at(sec, usec));
    }
    // One GOP: an I frame and frames - 1 P frames named "<name>.<k>", all at one time.
    void putGop(const std::string& name, int frames, int sec = 0, int usec = 0) {
        ASSERT_EQ(putI(name + ".0", sec, usec), 0);
        for (int k = 1; k < frames; ++k) putP(name + "." + std::to_string(k), sec, usec);
    }
    void attach(MP4Getter& reader) {
        std::string err;
        captureOutput([&] { reader.init(CHANNEL); }, err);
    }
};

TEST_F(Mp4, initLaysOutHeaderTablesAndSpreadsTheLocksOverGroupsOf250UpToAThousandAllNeededByAReader) {
    create(3, 4, 100, 200);  // 12 slots: segment 52 + 200 + 624
    RawSegment raw(KEY);
    ASSERT_EQ(raw.size(), 876u);
    EXPECT_EQ(raw.words(0, 13), (std::vector<int>{3, 4, 100, 0, 0, 0, 0, 0, 0, 8, 52, 100, 676}));
    EXPECT_EQ(raw.words(52, 12), std::vector<int>(12, 0));
    for (int slot = 0; slot < 12; ++slot)
        EXPECT_EQ(recordOf(12, slot), (std::vector<int>{0, 0, 0, 0, 0, 0, 0, slot, 0, 0, 0, 0})) << slot;
    EXPECT_EQ(raw.bytes(ring(12), 200), Bytes(200, 0));
    EXPECT_EQ((std::vector<int>{semCountAt(semKey(0)), semIdOf(semKey(1))}), (std::vector<int>{12, -1}));
    EXPECT_EQ(locks(12, 12), std::string(12, '1'));
    putter.release();

    create(30, 10, 16, 64);
    EXPECT_EQ((std::vector<int>{semCountAt(semKey(0)), semCountAt(semKey(1)), semIdOf(semKey(2))}),
              (std::vector<int>{250, 50, -1}));
    EXPECT_EQ(recordOf(300, 299)[7], 299);
    ASSERT_EQ(semctl(semIdOf(semKey(1)), 0, IPC_RMID), 0);  // a reader needs every group
    MP4Getter reader;
    auto [message, log] = failureOf<MP4GetterError>([&] { reader.init(CHANNEL); });
    EXPECT_EQ(message, "semget failed.");
    EXPECT_NE(log.find("\nsemget failed: No such file or directory\n"), std::string::npos) << log;
    putter.release();
    create(100, 10, 16, 64);
    for (int g = 0; g < 4; ++g) EXPECT_EQ(semCountAt(semKey(g)), 250) << g;
    EXPECT_EQ(locks(1000, 1000), std::string(1000, '1'));
    putter.release();
    EXPECT_EQ(failureOf<MP4PutterError>([&] { putter.init(CHANNEL, 7, 143, 16, 64 + 52 * 1001); }),
              std::make_pair(std::string("programming error, poolSize exceed MP4_MAX_FRAME_COUNT"), std::string()));
    for (key_t key : Mp4Kind::keys()) EXPECT_TRUE(shmIdOf(key) == -1 && semIdOf(key) == -1) << key;
}

// A frame before the first reset carries zeros. reset takes a non-zero height (a
// negative one too) but only a positive width and rate, which sets realFPS as well.
TEST_F(Mp4, framesGoIntoTheRingBehindTheirIdPrefixPaddedAndWrapAndCarryWhatResetTook) {
    create(3, 4, 200, 200);
    const size_t base = ring(12);
    ASSERT_EQ(putI("ABCDE", 1000, 1), 0);  // opens GOP 1: slot 4, GOP id 1, frame id 1
    RawSegment raw(KEY);
    EXPECT_EQ(raw.i32(12), 1);
    EXPECT_EQ(recordOf(12, 4), (std::vector<int>{1, 0, 1, 0, 0, 0, 0, 4, 5, 1000, 1, 0}));
    EXPECT_EQ(raw.bytes(base, 16), (Bytes{1, 0, 0, 0, 0, 0, 0, 0, 'A', 'B', 'C', 'D', 'E', 0, 0, 0}));
    EXPECT_EQ(raw.u64(record(12, 0) + 8), 0u);  // GOP 0 waits for the ring of GOPs to wrap
    putter.reset(352, 288, 30);
    EXPECT_EQ(putter.putRealFPS(24), 24);
    // realFPS, workingFPS, width, height, one GOP's time: 4 frames * 1000 / 30.
    EXPECT_EQ(raw.words(16, 5), (std::vector<int>{24, 30, 352, 288, 133}));
    putP("xyz", 1000, 40001);
    EXPECT_EQ(recordOf(12, 5), (std::vector<int>{1, 0, 2, 0, 352, 288, 30, 5, 3, 1000, 40001, 16}));
    EXPECT_EQ(raw.bytes(base + 16, 12), (Bytes{2, 0, 0, 0, 0, 0, 0, 0, 'x', 'y', 'z', 0}));
    putter.reset(-1, -7, -5);
    putter.reset(0, 0, 0);
    EXPECT_EQ(raw.words(16, 5), (std::vector<int>{24, 30, 352, -7, 133}));
    putter.reset(0, 0, 7);  // zeros keep width and height
    EXPECT_EQ(raw.words(16, 5), (std::vector<int>{7, 7, 352, -7, 571}));
    putP(std::string(150, 'p'));  // 28 + 8 + 150 + 2
    EXPECT_EQ(recordOf(12, 6)[11], 28);
    EXPECT_EQ(raw.bytes(base + 186, 2), Bytes(2, 0));
    putP("WXYZ");  // ends exactly at the end of the ring: no wrap
    EXPECT_EQ(recordOf(12, 7), (std::vector<int>{1, 0, 4, 0, 352, -7, 7, 7, 4, 0, 0, 188}));
    EXPECT_EQ(raw.u64(base + 188), 4u);
    ASSERT_EQ(putI("next", 1001), 0);  // nothing fits behind it: offset 0 again
    EXPECT_EQ(raw.i32(12), 2);
    EXPECT_EQ(recordOf(12, 8), (std::vector<int>{2, 0, 5, 0, 352, -7, 7, 8, 4, 1001, 0, 0}));
    EXPECT_EQ(raw.bytes(base, 12), (Bytes{5, 0, 0, 0, 0, 0, 0, 0, 'n', 'e', 'x', 't'}));
    EXPECT_EQ(raw.bytes(base + 16, 8), (Bytes{2, 0, 0, 0, 0, 0, 0, 0}));  // left alone
    MP4Getter reader;
    attach(reader);
    putter.putRealFPS(12);  // read live
    EXPECT_EQ((std::vector<int>{reader.getWorkingWidth(), reader.getWorkingHeight(), reader.getWorkingFPS(),
                                reader.getRealFPS(), reader.getOneSafeTime()}),
              (std::vector<int>{352, -7, 7, 12, 571}));
}

// The GOP being written stays open behind the writer; the one after it is closed.
// A short GOP's slots, opened by the next I frame, still describe their older frames.
// Of a frame over the maximum size a P frame is cut, an I frame refused with its P frames.
TEST_F(Mp4, locksCloseTheGopAheadOfTheWriterAndOpenFrameByFrameShortGopsKeepOlderFramesBigOnesAreCut) {
    start(3, 4, 16, 1024);
    // The first I frame moves to GOP 1 and opens the rest of GOP 0.
    ASSERT_EQ(putI("i1"), 0);
    EXPECT_EQ(locks(12, 4), "1000 0111 1111");
    putP("p2");
    putP(std::string(20, 'c'));
    EXPECT_EQ(recordOf(12, 6), (std::vector<int>{1, 0, 3, 0, 640, 480, 25, 6, 16, 0, 0, 24}));
    EXPECT_EQ(locks(12, 4), "1000 0001 1111");
    // The next I frame opens what GOP 1 left unwritten and closes the GOP after its own.
    ASSERT_EQ(putI("i4"), 0);
    EXPECT_EQ(RawSegment(KEY).i32(12), 2);
    EXPECT_EQ(locks(12, 4), "1111 0000 0111");
    EXPECT_EQ(recordOf(12, 7)[2], 0);  // opened, never written
    EXPECT_EQ(recordOf(12, 8)[11], 48);  // behind the cut frame's 16 bytes
    ASSERT_EQ(putI("i5"), 0);
    EXPECT_EQ(locks(12, 4), "0111 1111 0000");
    for (int k = 1; k < 4; ++k) putP("p");
    EXPECT_EQ(locks(12, 4), "0000 1111 0000");
    const Bytes before = RawSegment(KEY).all();
    EXPECT_EQ(putI(std::string(17, 'x')), 1);
    putP("lost");
    EXPECT_EQ(RawSegment(KEY).all(), before);
    EXPECT_EQ(locks(12, 4), "0000 1111 0000");
    ASSERT_EQ(putI("i9"), 0);  // GOP 1 again, left at its I frame; the ids did not move
    ASSERT_EQ(putI("i10"), 0);
    EXPECT_EQ(locks(12, 4), "1111 0000 0111");
    MP4Getter reader;
    attach(reader);
    int safe = -1;
    reader.toWorkingGop(safe);
    reader.toNextGop(safe);
    EXPECT_EQ(reader.toNextGop(safe), 4u);
    EXPECT_EQ(reader.getFrameData(0), 9u);
    EXPECT_EQ(reader.getFrameData(1), 2u);  // lower than the GOP's own I frame
    EXPECT_EQ(text(reader), "p2");
    EXPECT_EQ(reader.getFrameData(2), 3u);
    EXPECT_EQ(text(reader), std::string(16, 'c'));
    putter.release();  // init keeps the writer's GOP index: it goes on from GOP 2
    start(5, 2, 16, 1024, 20);  // 100 ms a GOP, the same value in each of its slots
    for (int g = 0; g < 7; ++g) putI("g");  // writer at 4
    EXPECT_EQ(RawSegment(KEY).words(52, 10), (std::vector<int>{100, 100, 200, 200, 300, 300, 0, 0, 0, 0}));
}


// In a forked child: a private mount namespace in which /dev/console is a fresh
// temporary file, so that what the writer reports there can be read back.
TEST_F(Mp4, pFramesBeyondTheGopAreDroppedAndReportedOnTheConsole) {
    start(2, 3, 100, 400);
    putGop("full", 3);
    const Bytes before = RawSegment(KEY).all();
    ForkedChild child([&](ChildLink& link) {
        char path[] = "/tmp/mp4-console-XXXXXX";
        int fd = mkstemp(path);
        if (fd < 0 || unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount(path, "/dev/console", nullptr, MS_BIND, nullptr) != 0) {
            link.say("no private console");
            return 0;
        }
        close(fd);
        std::stringstream reports;  // each report replaces the file
        putP(std::string(7, 'a'));
        reports << std::ifstream(path).rdbuf();
        putP(std::string(150, 'b'));  // reported with its length before the cut
        reports << std::ifstream(path).rdbuf();
        link.say(reports.str() + (RawSegment(KEY).all() == before ? "unchanged" : "changed"));
        unlink(path);
        putI("next");
        return 0;
    });
    std::string line;
    ASSERT_TRUE(child.readLine(line));
    if (line == "no private console") GTEST_SKIP() << "no mount namespace for a private /dev/console";
    EXPECT_EQ(line, "P exceed:7 gop:3 ");
    ASSERT_NO_FATAL_FAILURE(expectLine(child, "P exceed:150 gop:3 "));
    expectLastLine(child, "unchanged");
    // The next I frame continues the ids where the last stored frame left them.
    EXPECT_EQ(recordOf(6, 0)[0], 2);
    EXPECT_EQ(recordOf(6, 0)[2], 4);
    EXPECT_EQ(locks(6, 3), "011 111");
}

// Six GOPs of two frames in second 50, GOP id n at n * 10000 us. With the writer on
// the last GOP the search's stop (the GOP after the writer's, modulo the 12 slots)
// is never reached: it runs round to the closed GOP after the writer's.
TEST_F(Mp4, exactSearchPassesTheWriterOnlyWhenItIsOnTheLastGopAndThreeGopsStartOnTheWriter) {
    start(6, 2, 16, 1024);
    for (int id = 1; id <= 11; ++id) ASSERT_NO_FATAL_FAILURE(putGop("e" + std::to_string(id), 2, 50, id * 10000));
    MP4Getter reader;
    attach(reader);
    int safe = -1;
    ASSERT_EQ(RawSegment(KEY).i32(12), 5);
    EXPECT_EQ(reader.toExactWorkingGop(safe, 50, 65000), 6u);  // GOP 0, one past the writer
    EXPECT_EQ(std::make_pair(safe, reader.getSafeTime()), std::make_pair(80, 80));
    EXPECT_EQ(lockValue(semKey(0), 0), 1);
    EXPECT_EQ(reader.toExactWorkingGop(safe, 50), 8u);  // the start GOP matches first
    ASSERT_NO_FATAL_FAILURE(putGop("e12", 2, 50, 120000));
    EXPECT_EQ(reader.toExactWorkingGop(safe, 50, 75000), avpool::NOT_FOUND);  // id 7 lies behind the stop
    EXPECT_EQ(reader.getGopID(), 7u);

    putter.release();  // three GOPs (init keeps the id counters): both searches start on the writer's
    reader.release();
    start(3, 2, 16, 1024);
    for (int id = 13; id <= 16; ++id) ASSERT_NO_FATAL_FAILURE(putGop("t", 2, id - 2));
    attach(reader);
    EXPECT_EQ(reader.toOldestWorkingGop(safe, 0), 16u);
    EXPECT_EQ(reader.toOldestWorkingGop(safe, 13), 16u);  // id 15 is intact but never reached
    EXPECT_EQ(reader.toExactWorkingGop(safe, 13), avpool::NOT_FOUND);
    EXPECT_EQ(reader.getGopID(), 16u);
    EXPECT_EQ(reader.toExactWorkingGop(safe, 14), 16u);
}

// Six GOPs of two 4-byte frames; the ring holds six frames, so GOP id 4 reuses
// the bytes of GOP id 1, whose records remain.
TEST_F(Mp4, reusedBytesMakeFramesUnreadableAndTheirGopInvisibleToTheSearchesAndFrameIndexesAreChecked) {
    start(6, 2, 16, 72);
    for (int id = 1; id <= 4; ++id) {
        putter.reset(100 + id, 200 + id, 0);
        ASSERT_NO_FATAL_FAILURE(putGop("g" + std::to_string(id), 2, 100 + id));
    }
    MP4Getter reader;
    attach(reader);
    int safe = -1;
    EXPECT_EQ(reader.toWorkingGop(safe), 4u);
    EXPECT_EQ((std::vector<int>{reader.gopWidth, reader.gopHeight, reader.gopFPS}), (std::vector<int>{104, 204, 25}));
    ASSERT_EQ(reader.getFrameData(1), 8u);
    unsigned char* data = reader.frameData;
    reader.toNextGop(safe);
    reader.toNextGop(safe);
    EXPECT_EQ(reader.toNextGop(safe), 1u);  // no check here
    EXPECT_EQ(reader.getFrameData(0) + reader.getFrameData(1), 0u);
    EXPECT_EQ(reader.frameData, data);  // still frame 8
    EXPECT_EQ(text(reader), "g4.1");
    EXPECT_EQ(reader.frameTime.tv_sec, 104);
    EXPECT_EQ(reader.toOldestWorkingGop(safe, 0), 2u);
    EXPECT_EQ(reader.toExactWorkingGop(safe, 101), avpool::NOT_FOUND);
    EXPECT_EQ(reader.toExactWorkingGop(safe, 102), 2u);
    EXPECT_EQ((std::vector<int>{reader.gopWidth, reader.gopHeight}), (std::vector<int>{102, 202}));
    EXPECT_EQ(reader.getFrameData(1), 4u);
    EXPECT_EQ(text(reader), "g2.1");
    EXPECT_EQ(reader.frameTime.tv_sec, 102);
    for (int k : {-1, 2}) {  // outside the GOP
        EXPECT_EQ(failureOf<MP4GetterError>([&] { reader.waitFrameReady(k); }),
                  std::make_pair(std::string("programming error"), std::string("programming error\n")));
        EXPECT_EQ(failureOf<MP4GetterError>([&] { reader.getFrameData(k); }).first, "programming error");
    }
    EXPECT_EQ(std::make_pair(min(3, 2), min(-4, 7)), std::make_pair(2, -4));
}

// Each frame is written only once the reader in another process waits on its slot;
// GOP 85 ends early, and the next I frame releases the reader from its two unwritten
// slots. The reader's slots 252..260 are semaphores 2..10 of the second group.
TEST_F(Mp4, readerFollowsTheWriterGopByGopReleasedFrameByFrameOnTheLocksOfItsGroup) {
    start(100, 3, 64, 2048);
    for (int g = 1; g <= 84; ++g) ASSERT_EQ(putI(g == 84 ? "g1.0" : "i"), 0);
    ForkedChild child([](ChildLink& link) {
        MP4Getter reader;
        reader.init(CHANNEL);
        int safe;
        reader.toWorkingGop(safe);
        for (int gop = 0; gop < 3; ++gop, reader.toNextGop(safe)) {
            for (int k = 0; k < 3; ++k) {
                reader.waitFrameReady(k);
                const unsigned long long id = reader.getFrameData(k);
                link.say(std::to_string(reader.getGopID()) + "/" + std::to_string(id) + " " +
                         (id == 0 ? "-" : text(reader)));
            }
        }
        return 0;
    });
    ASSERT_NO_FATAL_FAILURE(expectLine(child, "84/84 g1.0"));
    // The semaphore the reader waits on, the frame written then, the lines it reads.
    const std::tuple<int, std::string, std::vector<std::string>> steps[] = {
        {3, "g1.1", {"84/85 g1.1"}}, {4, "g1.2", {"84/86 g1.2"}}, {5, "g2.0", {"85/87 g2.0"}},
        {6, "g3.0", {"85/0 -", "85/0 -", "86/88 g3.0"}}, {9, "g3.1", {"86/89 g3.1"}}, {10, "g3.2", {"86/90 g3.2"}}};
    for (const auto& [blockedOn, frame, lines] : steps) {
        ASSERT_TRUE(eventually([&, blocked = blockedOn] { return lockWaiters(semKey(1), blocked) == 1; })) << frame;
        EXPECT_EQ(lockWaiters(semKey(0), blockedOn), 0);
        if (frame.back() == '0') {
            ASSERT_EQ(putI(frame), 0);
        } else {
            putP(frame);
        }
        for (const std::string& line : lines) ASSERT_NO_FATAL_FAILURE(expectLine(child, line));
    }
    EXPECT_TRUE(child.wait().ok());
}
