// The JPEG pool between processes: readers in forked children blocked on slot
// locks, signals during the wait, a writer killed mid-stream and replaced, and a
// second writer taking over a key while readers are attached to the old pool.
#include "jpeg_fixture.h"

#include <csignal>

#include <unistd.h>

using namespace avpool::test;

namespace {

// The reader's side of a wait: report where it stands, wait, fetch, report.
void waitAndReport(JPGGetter& reader, ChildLink& link) {
    reader.waitReady();
    reader.getFrame();
    link.say("got " + std::to_string(reader.getFrameID()) + " " +
             std::string(reinterpret_cast<char*>(reader.frame.data), static_cast<size_t>(reader.frame.frameLength)));
}

// Where a positioning call left the reader: "at <frame id> <safe time>".
template <class Move>
std::string position(Move move) {
    int safe = -1;
    unsigned long long id = move(safe);
    return "at " + std::to_string(id) + " " + std::to_string(safe);
}

}  // namespace

TEST_F(JpegPool, readerOnSlotZeroAfterInitIsReleasedOnlyByTheWrapAroundWrite) {
    start(3, 16, 128);
    ForkedChild child([](ChildLink& link) {
        JPGGetter reader;
        reader.init(CHANNEL);
        link.say(position([&](int& s) { return reader.toWorking(s); }));
        waitAndReport(reader, link);
        return 0;
    });
    ASSERT_NO_FATAL_FAILURE(expectLine(child, "at 0 0"));
    ASSERT_TRUE(eventually([] { return lockWaiters(KEY, 0) == 1; }));

    put("first");
    put("second");  // slots 1 and 2: slot 0 stays closed
    EXPECT_EQ(lockWaiters(KEY, 0), 1);
    EXPECT_TRUE(child.running());

    put("third");  // slot 0
    expectLastLine(child, "got 3 third");
}

TEST_F(JpegPool, readerSteppingOntoTheClosedNextSlotKeepsWaitingThroughASignal) {
    start(4, 16, 128);
    put("one");
    put("two");
    ForkedChild child([](ChildLink& link) {
        link.reportSignal(SIGUSR1);
        JPGGetter reader;
        reader.init(CHANNEL);
        int safe = -1;
        reader.toWorking(safe);
        link.say(position([&](int& s) { return reader.toNext(s); }));
        waitAndReport(reader, link);
        return 0;
    });
    ASSERT_NO_FATAL_FAILURE(expectLine(child, "at 0 100"));
    ASSERT_TRUE(eventually([] { return lockWaiters(KEY, 3) == 1; }));

    // The handler runs after the wait was interrupted; the reader then waits again.
    child.signal(SIGUSR1);
    ASSERT_NO_FATAL_FAILURE(expectLine(child, "signal"));
    ASSERT_TRUE(eventually([] { return lockWaiters(KEY, 3) == 1; }));
    EXPECT_TRUE(child.running());

    put("three");
    expectLastLine(child, "got 3 three");
}

TEST_F(JpegPool, waitReadyReturnsAtOnceOnAnOpenSlot) {
    start(4, 16, 128);
    put("ready");
    ForkedChild child([](ChildLink& link) {
        JPGGetter reader;
        reader.init(CHANNEL);
        int safe = -1;
        reader.toWorking(safe);
        waitAndReport(reader, link);
        return 0;
    });
    expectLastLine(child, "got 1 ready");
}

TEST_F(JpegPool, writerKilledMidStreamIsReplacedAndItsBlockedReaderStartsOver) {
    ForkedChild writer([](ChildLink& link) -> int {
        JPGPutter crashing;
        crashing.init(CHANNEL, 4, 16, 256);
        crashing.reset(1, 1, 10, 1);
        for (unsigned long k = 1;; ++k) {
            timeval t{};
            crashing.putFrame(const_cast<char*>("old"), 3, t);
            if (k == 20) link.say("writing");
            if (k > 20) usleep(200);
        }
    });
    ASSERT_NO_FATAL_FAILURE(expectLine(writer, "writing"));
    writer.signal(SIGKILL);
    ExitStatus status = writer.wait();
    ASSERT_EQ(status.signal, SIGKILL) << status.describe();
    const int oldShm = avpool::test::shmIdOf(KEY);
    const int oldSem = avpool::test::semIdOf(KEY);
    ASSERT_NE(oldShm, -1);
    ASSERT_NE(oldSem, -1);

    // The slot after the newest is closed, whatever the writer was doing.
    ForkedChild reader([](ChildLink& link) {
        JPGGetter getter;
        getter.init(CHANNEL);
        int safe = -1;
        getter.toWorking(safe);
        getter.toNext(safe);
        link.say("waiting");
        try {
            getter.waitReady();
            link.say("released");
        } catch (const JPGGetterError& e) {
            link.say(std::string("error ") + e.what());
        }
        if (!link.awaitGo()) return 1;
        getter.release();
        getter.init(CHANNEL);
        link.say(position([&](int& s) { return getter.toWorking(s); }));
        getter.toNext(safe);
        waitAndReport(getter, link);
        return 0;
    });
    ASSERT_NO_FATAL_FAILURE(expectLine(reader, "waiting"));
    int waitingSlot = (avpool::test::RawSegment(KEY).i32(jpeg_layout::CURRENT) + 1) % 4;
    ASSERT_TRUE(eventually([&] { return lockWaiters(KEY, waitingSlot) == 1; }));

    create(4, 16, 256);  // the leftovers are removed and made anew
    EXPECT_NE(avpool::test::shmIdOf(KEY), oldShm);
    EXPECT_NE(avpool::test::semIdOf(KEY), -1);
    EXPECT_FALSE(avpool::test::semIdAlive(oldSem));
    EXPECT_EQ(locks(), (std::vector<int>{1, 1, 1, 1}));

    // Removing the set ends the reader's wait with an error instead of a frame.
    ASSERT_NO_FATAL_FAILURE(expectLine(reader, "error semop failed."));
    putter.reset(1, 1, 10, 1);
    reader.go();
    ASSERT_NO_FATAL_FAILURE(expectLine(reader, "at 0 0"));
    ASSERT_TRUE(eventually([] { return lockWaiters(KEY, 1) == 1; }));
    put("new");
    expectLastLine(reader, "got 1 new");
}

TEST_F(JpegPool, secondWriterTakesTheKeyWhileAttachedReadersKeepTheOldPool) {
    create(4, 16, 128);
    putter.reset(640, 480, 10, 1);
    put("old");
    const int oldShm = avpool::test::shmIdOf(KEY);
    JPGGetter early;
    early.init(CHANNEL);
    int safe;
    ASSERT_EQ(early.toWorking(safe), 1u);

    JPGPutter second;
    create(second, 4, 16, 128);
    second.reset(320, 240, 10, 1);
    put(second, "new1");
    put(second, "new2");
    EXPECT_NE(avpool::test::shmIdOf(KEY), oldShm);

    EXPECT_EQ(early.toWorking(safe), 1u);
    early.getFrame();
    EXPECT_EQ(text(early.frame), "old");
    EXPECT_EQ(early.getWorkingWidth(), 640);

    JPGGetter late;
    late.init(CHANNEL);
    EXPECT_EQ(late.toWorking(safe), 2u);
    late.getFrame();
    EXPECT_EQ(text(late.frame), "new2");

    // The first writer's release concerns only its own, already replaced, pool.
    const int newShm = avpool::test::shmIdOf(KEY);
    const int newSem = avpool::test::semIdOf(KEY);
    putter.release();
    EXPECT_EQ(avpool::test::shmIdOf(KEY), newShm);
    EXPECT_EQ(avpool::test::semIdOf(KEY), newSem);
    EXPECT_EQ(put(second, "new3"), 1);
    EXPECT_EQ(late.toWorking(safe), 3u);
}
