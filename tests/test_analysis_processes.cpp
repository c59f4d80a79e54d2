// The analysis pools between processes: a reader in a forked child blocked on a
// closed slot until the write, a signal ending that wait, a reader keeping pace
// with the writer, and a writer killed mid-stream whose keys the next one takes.
#include "analysis_fixture.h"

#include <csignal>
#include <memory>

#include <unistd.h>

using namespace avpool::test;

template <class Kind>
class AnalysisProcesses : public AnalysisPool<Kind> {
protected:
    // The reader's side of one frame: wait, fetch, and compare with frame k.
    static std::string waitAndCheck(typename Kind::Getter& reader, int k) {
        try {
            reader.waitReady();
        } catch (const typename Kind::GetterError& e) {
            return std::string("error ") + e.what();
        }
        reader.getFrame();
        const size_t bytes = static_cast<size_t>(reader.frameLength) * Kind::ELEMENT;
        bool same = reader.getFrameID() == static_cast<unsigned long long>(k) && reader.tv_sec == k;
        for (int a = 0; a < AnalysisPool<Kind>::ARRAYS; ++a) {
            const unsigned char* data = Kind::arrays(reader)[a];
            same = same && std::vector<unsigned char>(data, data + bytes) == AnalysisPool<Kind>::payload(k, a, bytes);
        }
        return same ? "got " + std::to_string(k) : "wrong frame " + std::to_string(reader.getFrameID());
    }
    // Steps a reader from the newest slot to the closed one after it.
    static std::string toClosedSlot(typename Kind::Getter& reader) {
        int safe = -1;
        reader.toWorking(safe);
        reader.waitReady();  // the newest slot is open: returns at once
        unsigned long long id = reader.toNext(safe);
        return "at " + std::to_string(id) + " " + std::to_string(safe);
    }
    // After frame 1, a child reader blocked on slot 2 until frame 2 or a signal.
    std::unique_ptr<ForkedChild> readerWaitingOnSlotTwo() {
        this->start(3, 2, 10);
        this->put(1, 6);
        auto child = std::make_unique<ForkedChild>([&](ChildLink& link) {
            link.reportSignal(SIGUSR1);
            typename Kind::Getter reader;
            reader.init(this->CHANNEL);
            link.say(toClosedSlot(reader));
            link.say(waitAndCheck(reader, 2));
            return 0;
        });
        expectLine(*child, "at 0 100");
        EXPECT_TRUE(eventually([&] { return lockWaiters(this->KEY, 2) == 1; }));
        return child;
    }
};
TYPED_TEST_SUITE(AnalysisProcesses, AnalysisKinds, AnalysisKindNames);

TYPED_TEST(AnalysisProcesses, readerBlockedOnTheClosedNextSlotIsReleasedByTheWrite) {
    auto child = this->readerWaitingOnSlotTwo();
    EXPECT_TRUE(child->running());
    this->put(2, 6);
    expectLastLine(*child, "got 2");
}

TYPED_TEST(AnalysisProcesses, aSignalEndsTheWaitWithSemopFailed) {
    auto child = this->readerWaitingOnSlotTwo();
    child->signal(SIGUSR1);
    ASSERT_NO_FATAL_FAILURE(expectLine(*child, "signal"));
    expectLastLine(*child, "error semop failed.");
    EXPECT_EQ(lockWaiters(this->KEY, 2), 0);
}

TYPED_TEST(AnalysisProcesses, readerThatKeepsUpGetsEveryRecordOnceAndInOrder) {
    constexpr int FRAMES = 120;
    this->start(3, 2, 10);
    this->put(1, 6);
    ForkedChild child([&](ChildLink& link) {
        typename TypeParam::Getter reader;
        reader.init(this->CHANNEL);
        int safe;
        reader.toWorking(safe);
        for (int k = 2; k <= FRAMES; ++k) {
            reader.toNext(safe);
            std::string result = this->waitAndCheck(reader, k);
            if (result != "got " + std::to_string(k)) {
                link.say(result + " where " + std::to_string(k) + " was due");
                return 1;
            }
        }
        link.say("followed " + std::to_string(FRAMES));
        return 0;
    });
    // The writer runs up to three frames ahead of the waiting reader, so the
    // reader meets both open slots and closed ones.
    for (int k = 2; k <= FRAMES;) {
        ASSERT_TRUE(eventually([&] { return lockWaiters(this->KEY, k % TypeParam::SLOTS) == 1; })) << k;
        for (int burst = 1 + k % 3; burst > 0 && k <= FRAMES; --burst) this->put(k++, 6);
    }
    expectLastLine(child, "followed " + std::to_string(FRAMES));
}

TYPED_TEST(AnalysisProcesses, keysOfAKilledWriterAreRemovedAndMadeAnewByTheNextInit) {
    ForkedChild writer([&](ChildLink& link) -> int {
        typename TypeParam::Putter crashing;
        crashing.init(this->CHANNEL);
        crashing.reset(3, 2, 10);
        for (int k = 1; k <= 7; ++k) this->put(crashing, k, 6);
        link.say("written");
        for (;;) pause();
    });
    ASSERT_NO_FATAL_FAILURE(expectLine(writer, "written"));
    const int newest = 7 % TypeParam::SLOTS;

    ForkedChild reader([&](ChildLink& link) {
        typename TypeParam::Getter getter;
        getter.init(this->CHANNEL);
        link.say(this->toClosedSlot(getter));
        link.say(this->waitAndCheck(getter, 8));
        if (!link.awaitGo()) return 1;
        getter.release();
        getter.init(this->CHANNEL);
        int safe = -1;
        unsigned long long id = getter.toWorking(safe);
        link.say("at " + std::to_string(id) + " " + std::to_string(getter.getWorkingFPS()));
        return 0;
    });
    // Past the newest slot lies the oldest frame, 7 - SLOTS + 1, its lock closed.
    ASSERT_NO_FATAL_FAILURE(expectLine(reader, "at " + std::to_string(8 - TypeParam::SLOTS) + " 100"));
    ASSERT_TRUE(eventually([&] { return lockWaiters(this->KEY, TypeParam::next(newest)) == 1; }));

    writer.signal(SIGKILL);
    ASSERT_EQ(writer.wait().signal, SIGKILL);
    const int oldShm = shmIdOf(this->KEY);
    const int oldSem = semIdOf(this->KEY);
    ASSERT_NE(oldShm, -1);
    ASSERT_NE(oldSem, -1);

    this->putter.init(this->CHANNEL);
    EXPECT_NE(shmIdOf(this->KEY), oldShm);
    EXPECT_FALSE(semIdAlive(oldSem));
    EXPECT_EQ(this->locks(), std::vector<int>(TypeParam::SLOTS, 1));
    EXPECT_EQ(this->word(analysis_layout::CURRENT), 0);
    EXPECT_EQ(this->idIn(newest), 0u);

    // Removing the set ends the old reader's wait; after init again it sees the new pool.
    ASSERT_NO_FATAL_FAILURE(expectLine(reader, "error semop failed."));
    this->putter.reset(3, 2, 25);
    reader.go();
    expectLastLine(reader, "at 0 25");
}
