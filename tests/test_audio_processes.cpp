// The audio pools between processes: readers in forked children blocked on slot
// locks, a signal during the wait, a consumer following the producer at the
// real rate, and a producer killed mid-stream and replaced.
#include "audio_fixture.h"

#include <csignal>
#include <cstring>

#include <unistd.h>

using namespace audio_layout;
using namespace avpool::test;

namespace {
// Fragments carry their own id in their first eight bytes.
template <class Kind>
void putNumbered(typename Kind::Putter& putter, unsigned long long id) {
    unsigned char bytes[Kind::CAPACITY] = {};
    memcpy(bytes, &id, sizeof id);
    Kind::put(putter, bytes, static_cast<int>(Kind::CAPACITY), at(static_cast<int>(id)), 0);
}

template <class Fragment>
unsigned long long numberIn(const Fragment& fragment) {
    unsigned long long id;
    memcpy(&id, fragment.data, sizeof id);
    return id;
}
}  // namespace

template <class Kind>
class AudioProcessTest : public AudioPool<Kind> {};
TYPED_TEST_SUITE(AudioProcessTest, ReadableKinds, KindNames);

TYPED_TEST(AudioProcessTest, readerBlockedOnTheSlotAfterTheNewestIsReleasedByTheWrite) {
    using Kind = TypeParam;
    this->start();
    putNumbered<Kind>(this->putter, 1);
    putNumbered<Kind>(this->putter, 2);
    ForkedChild child([](ChildLink& link) {
        typename Kind::Getter reader;
        Kind::init(reader);
        int safe = -1;
        reader.toWorking(safe);
        unsigned long long id = reader.toNext(safe);
        link.say("at " + std::to_string(id) + " " + std::to_string(safe));
        reader.waitReady();
        reader.getFragment();
        link.say("got " + std::to_string(reader.getFragmentID()) + " " + std::to_string(numberIn(reader.fragment)));
        return 0;
    });
    ASSERT_NO_FATAL_FAILURE(
        expectLine(child, "at 0 " + std::to_string(fragmentTimeOf<Kind>(16, 1, 8000))));
    ASSERT_TRUE(eventually([] { return lockWaiters(Kind::SET_KEY, 3) == 1; }));
    EXPECT_TRUE(child.running());
    putNumbered<Kind>(this->putter, 3);
    expectLastLine(child, "got 3 3");
}

TYPED_TEST(AudioProcessTest, aSignalDuringTheWaitEndsItWithSemopFailed) {
    using Kind = TypeParam;
    this->start();
    ForkedChild child([](ChildLink& link) {
        link.reportSignal(SIGUSR1);
        typename Kind::Getter reader;
        Kind::init(reader);
        int safe = -1;
        reader.toWorking(safe);  // slot 0: closed until the ring wraps
        link.say("waiting");
        try {
            reader.waitReady();
            link.say("released");
        } catch (const typename Kind::GetterError& e) {
            link.say(std::string("error ") + e.what());
        }
        return 0;
    });
    ASSERT_NO_FATAL_FAILURE(expectLine(child, "waiting"));
    ASSERT_TRUE(eventually([] { return lockWaiters(Kind::SET_KEY, 0) == 1; }));
    child.signal(SIGUSR1);
    ASSERT_NO_FATAL_FAILURE(expectLine(child, "signal"));
    expectLastLine(child, "error semop failed.");
}

TYPED_TEST(AudioProcessTest, consumerFollowingTheProducerAtTheRealRateSeesEveryFragmentInOrder) {
    using Kind = TypeParam;
    this->create();
    Kind::reset(this->putter, 16, 2, 64000, 0);  // a few milliseconds per fragment
    const int interval = fragmentTimeOf<Kind>(16, 2, 64000);
    const int count = 1000 / interval;
    ForkedChild consumer([count](ChildLink& link) {
        typename Kind::Getter reader;
        Kind::init(reader);
        int safe = -1;
        reader.toWorking(safe);
        link.say("ready");
        for (unsigned long long expected = 1; expected <= static_cast<unsigned long long>(count); ++expected) {
            reader.toNext(safe);
            reader.waitReady();
            reader.getFragment();
            unsigned long long id = reader.getFragmentID();
            if (id != expected || numberIn(reader.fragment) != expected) {
                link.say("gap: expected " + std::to_string(expected) + ", got " + std::to_string(id));
                return 1;
            }
        }
        link.say("followed " + std::to_string(count));
        return 0;
    });
    ASSERT_NO_FATAL_FAILURE(expectLine(consumer, "ready"));
    for (int id = 1; id <= count; ++id) {
        putNumbered<Kind>(this->putter, static_cast<unsigned long long>(id));
        usleep(static_cast<useconds_t>(interval) * 1000);
    }
    expectLastLine(consumer, "followed " + std::to_string(count));
}

template <class Kind>
class AudioCrashTest : public AudioPool<Kind> {};
TYPED_TEST_SUITE(AudioCrashTest, AllKinds, KindNames);

TYPED_TEST(AudioCrashTest, keysLeftByAKilledProducerAreRemovedAndMadeAnewByTheNextInit) {
    using Kind = TypeParam;
    ForkedChild producer([](ChildLink& link) -> int {
        typename Kind::Putter crashing;
        Kind::init(crashing);
        Kind::reset(crashing, 16, 1, 8000, 0);
        for (unsigned long long k = 1;; ++k) {
            putNumbered<Kind>(crashing, k);
            if (k == 300) link.say("writing");
            if (k > 300) usleep(200);
        }
    });
    ASSERT_NO_FATAL_FAILURE(expectLine(producer, "writing"));
    producer.signal(SIGKILL);
    ASSERT_EQ(producer.wait().signal, SIGKILL);
    const int oldShm = shmIdOf(Kind::KEY);
    const int oldSet = semIdOf(Kind::SET_KEY);
    ASSERT_NE(oldShm, -1);
    ASSERT_NE(oldSet, -1);
    {
        RawSegment raw(Kind::KEY);
        const int newest = raw.i32(CURRENT);
        EXPECT_EQ(lockValue(Kind::SET_KEY, (newest + 1) % SLOTS), 1);  // whatever the producer was doing
    }

    this->create();
    EXPECT_EQ(this->initOut, std::string("Create ") + Kind::name + " sem:200\n");
    EXPECT_FALSE(shmIdAlive(oldShm));
    EXPECT_FALSE(semIdAlive(oldSet));
    EXPECT_EQ(RawSegment(Kind::KEY).i32(CURRENT), 0);
    EXPECT_EQ(this->locks(), std::vector<int>(SLOTS, 1));
}
