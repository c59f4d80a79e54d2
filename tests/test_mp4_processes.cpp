// The video pool between processes: a reader in a forked child following the
// writer GOP by GOP on the slot locks, a wait on a grouped lock through a signal,
// a reader the writer has overtaken, and a writer killed and replaced.
#include "mp4_fixture.h"

#include <csignal>
#include <ctime>
#include <string>
#include <vector>

#include <unistd.h>

using namespace avpool::test;

namespace {

// Waits for frame k of the reader's GOP and reports "<gop id>/<frame id> <bytes>",
// with "-" for bytes when the frame is not readable.
void waitAndReport(MP4Getter& reader, int k, ChildLink& link) {
    reader.waitFrameReady(k);
    unsigned long long id = reader.getFrameData(k);
    std::string bytes = id == 0 ? "-" : std::string(reinterpret_cast<char*>(reader.frameData), reader.frameLength);
    link.say(std::to_string(reader.getGopID()) + "/" + std::to_string(id) + " " + bytes);
}

}  // namespace

class Mp4Processes : public Mp4Pool {
protected:
    // The child must be blocked on slot's lock before the writer opens it.
    void expectBlockedOn(int slot) {
        ASSERT_TRUE(eventually([&] { return waitersOn(slot) == 1; })) << "nobody waits on slot " << slot;
        EXPECT_EQ(lockOf(slot), 1);
    }
};

TEST_F(Mp4Processes, readerFollowsTheWriterGopByGopReleasedFrameByFrame) {
    start(4, 3, 64, 2048);
    ASSERT_EQ(putI("g1.0"), 0);  // GOP 1: slot 3 open, 4 and 5 closed, GOP 2 closed
    ForkedChild child([](ChildLink& link) {
        MP4Getter reader;
        reader.init(CHANNEL);
        int safe;
        reader.toWorkingGop(safe);
        for (int gop = 0; gop < 3; ++gop) {
            for (int k = 0; k < 3; ++k) waitAndReport(reader, k, link);
            reader.toNextGop(safe);
        }
        return 0;
    });
    ASSERT_NO_FATAL_FAILURE(expectLine(child, "1/1 g1.0"));
    // Each frame is written only once the reader waits on its slot. GOP 2 was
    // closed a GOP ahead, so the reader waits for its I frame; GOP 2 then ends
    // early, and the next I frame releases the reader from its two remaining
    // slots, which were never written.
    struct Step {
        int blockedOn;
        bool iFrame;
        const char* frame;
        std::vector<std::string> lines;
    };
    const Step steps[] = {
        {4, false, "g1.1", {"1/2 g1.1"}},
        {5, false, "g1.2", {"1/3 g1.2"}},
        {6, true, "g2.0", {"2/4 g2.0"}},
        {7, true, "g3.0", {"2/0 -", "2/0 -", "3/5 g3.0"}},
        {10, false, "g3.1", {"3/6 g3.1"}},
        {11, false, "g3.2", {"3/7 g3.2"}},
    };
    for (const Step& step : steps) {
        SCOPED_TRACE(step.frame);
        ASSERT_NO_FATAL_FAILURE(expectBlockedOn(step.blockedOn));
        if (step.iFrame) {
            ASSERT_EQ(putI(step.frame), 0);
        } else {
            putP(step.frame);
        }
        for (const std::string& line : step.lines) ASSERT_NO_FATAL_FAILURE(expectLine(child, line));
    }
    EXPECT_TRUE(child.wait().ok());
}

// 300 slots: the writer on GOP 26 (slots 260..269) is in the second group, where
// slot 261 is semaphore 11. The same index in the first group stays untouched.
TEST_F(Mp4Processes, waitOnAGroupedLockGoesOnThroughASignalUntilTheFrameIsWritten) {
    start(30, 10, 16, 4096);
    for (int g = 1; g <= 26; ++g) ASSERT_EQ(putI("i" + std::to_string(g)), 0);
    ASSERT_EQ(header(mp4_layout::WORKING_GOP), 26);
    ForkedChild child([](ChildLink& link) {
        link.reportSignal(SIGUSR1);
        MP4Getter reader;
        reader.init(CHANNEL);
        int safe;
        reader.toWorkingGop(safe);
        link.say("waiting");
        waitAndReport(reader, 1, link);
        return 0;
    });
    ASSERT_NO_FATAL_FAILURE(expectLine(child, "waiting"));
    ASSERT_NO_FATAL_FAILURE(expectBlockedOn(261));
    EXPECT_EQ(lockWaiters(semKey(0), 11), 0);

    // The handler runs after the wait was interrupted; the reader then waits again.
    child.signal(SIGUSR1);
    ASSERT_NO_FATAL_FAILURE(expectLine(child, "signal"));
    ASSERT_NO_FATAL_FAILURE(expectBlockedOn(261));
    EXPECT_TRUE(child.running());

    putP("p");
    expectLastLine(child, "26/27 p");
}

// Six GOPs of two frames of 4 bytes; the ring holds six frames, so GOP id 4
// reuses the bytes of GOP id 1 while the reader still stands on it.
TEST_F(Mp4Processes, overtakenReaderSeesItAndJumpsBackToTheWritersGop) {
    start(6, 2, 16, 72, 20);  // 100 ms per GOP
    const int now = static_cast<int>(time(nullptr));
    ASSERT_NO_FATAL_FAILURE(putGop("g1", 2, now - 60));
    ForkedChild child([](ChildLink& link) -> int {
        MP4Getter reader;
        reader.init(CHANNEL);
        int safe;
        reader.toWorkingGop(safe);
        for (int k = 0; k < 2; ++k) waitAndReport(reader, k, link);
        if (!link.awaitGo()) return 1;

        unsigned char* data = reader.frameData;
        link.say("frame " + std::to_string(reader.getFrameData(0)) +
                 (reader.frameData == data && reader.frameLength == 4 ? " kept" : " changed"));
        try {
            reader.probeAge(30);
            link.say("young");
        } catch (const MP4GetterError& e) {
            link.say(e.what());
        }
        int stale = reader.getSafeTime();
        unsigned long long next = reader.toNextGop(safe);
        link.say("safe " + std::to_string(stale) + " next " + std::to_string(next) + " " + std::to_string(safe));
        unsigned long long working = reader.toWorkingGop(safe);
        link.say("working " + std::to_string(working) + " " + std::to_string(safe));
        waitAndReport(reader, 0, link);
        link.say("age " + std::to_string(reader.probeAge(30)));
        return 0;
    });
    ASSERT_NO_FATAL_FAILURE(expectLine(child, "1/1 g1.0"));
    ASSERT_NO_FATAL_FAILURE(expectLine(child, "1/2 g1.1"));

    for (int id = 2; id <= 4; ++id) ASSERT_NO_FATAL_FAILURE(putGop("g" + std::to_string(id), 2, now));
    ASSERT_EQ(header(mp4_layout::WORKING_GOP), 4);
    child.go();
    ASSERT_NO_FATAL_FAILURE(expectLine(child, "frame 0 kept"));
    ASSERT_NO_FATAL_FAILURE(expectLine(child, "age too old"));
    // GOP 1 is three GOPs ahead of the writer now, GOP 2 four.
    ASSERT_NO_FATAL_FAILURE(expectLine(child, "safe 300 next 2 400"));
    ASSERT_NO_FATAL_FAILURE(expectLine(child, "working 4 0"));
    ASSERT_NO_FATAL_FAILURE(expectLine(child, "4/7 g4.0"));
    std::string line;
    ASSERT_TRUE(child.readLine(line));
    EXPECT_TRUE(line == "age 0" || line == "age 1" || line == "age 2") << line;
    EXPECT_TRUE(child.wait().ok());
}

TEST_F(Mp4Processes, writerKilledMidStreamIsReplacedAndItsBlockedReaderStartsOver) {
    ForkedChild writer([](ChildLink& link) -> int {
        MP4Putter crashing;
        crashing.init(CHANNEL, 30, 10, 16, mp4_layout::Tables::sizeFor(300, 4096));
        crashing.reset(320, 240, 25);
        for (int gop = 1;; ++gop) {
            timeval t{};
            crashing.putIFrame(const_cast<char*>("old"), 3, t);
            for (int k = 1; k < 10; ++k) crashing.putPFrame(const_cast<char*>("old"), 3, t);
            if (gop == 40) link.say("writing");
            if (gop > 40) usleep(200);
        }
    });
    ASSERT_NO_FATAL_FAILURE(expectLine(writer, "writing"));
    writer.signal(SIGKILL);
    ExitStatus status = writer.wait();
    ASSERT_EQ(status.signal, SIGKILL) << status.describe();
    const int oldShm = shmIdOf(KEY);
    const int oldSems[2] = {semIdOf(semKey(0)), semIdOf(semKey(1))};
    ASSERT_NE(oldShm, -1);
    ASSERT_NE(oldSems[0], -1);
    ASSERT_NE(oldSems[1], -1);

    // The GOP after the writer's is closed, whatever the writer was doing.
    ForkedChild reader([](ChildLink& link) {
        MP4Getter getter;
        getter.init(CHANNEL);
        int safe;
        getter.toWorkingGop(safe);
        getter.toNextGop(safe);
        link.say("waiting");
        try {
            getter.waitFrameReady(0);
            link.say("released");
        } catch (const MP4GetterError& e) {
            link.say(std::string("error ") + e.what());
        }
        if (!link.awaitGo()) return 1;
        getter.release();
        getter.init(CHANNEL);
        link.say("at " + std::to_string(getter.toWorkingGop(safe)));
        waitAndReport(getter, 0, link);
        return 0;
    });
    ASSERT_NO_FATAL_FAILURE(expectLine(reader, "waiting"));
    int waitingSlot = (RawSegment(KEY).i32(mp4_layout::WORKING_GOP) + 1) % 30 * 10;
    ASSERT_NO_FATAL_FAILURE(expectBlockedOn(waitingSlot));

    create(30, 10, 16, 4096);  // the leftovers are removed and made anew
    EXPECT_NE(shmIdOf(KEY), oldShm);  // the old one lives on only while the reader is attached
    EXPECT_FALSE(semIdAlive(oldSems[0]));
    EXPECT_FALSE(semIdAlive(oldSems[1]));
    EXPECT_EQ(semCountOf(semIdOf(semKey(0))), 250);
    EXPECT_EQ(semCountOf(semIdOf(semKey(1))), 50);
    EXPECT_EQ(locks(), std::vector<int>(300, 1));

    // Removing the sets ends the reader's wait with an error instead of a frame.
    ASSERT_NO_FATAL_FAILURE(expectLine(reader, "error semop failed."));
    putter.reset(640, 480, 25);
    ASSERT_EQ(putI("new"), 0);
    reader.go();
    ASSERT_NO_FATAL_FAILURE(expectLine(reader, "at 1"));
    expectLastLine(reader, "1/1 new");
}
