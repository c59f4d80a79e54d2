// What every pool kind inherits from the common layer, one typed test across the
// kinds: leftovers under the keys, attaching and releasing, use before init, the
// reader's wait between processes, a killed writer, the age probe, positioning by
// time and the write path that allocates nothing.
#include "pools.h"

#include "counting_new.h"

#include <csignal>
#include <cstdlib>

#include <unistd.h>

using namespace avpool::test;

template <class Kind>
class Shared : public Pool<Kind> {};
using AllKinds = ::testing::Types<JpegKind, Mp4Kind, Pcm, Aac, Amr, Opus, LumKind, MdKind>;
TYPED_TEST_SUITE(Shared, AllKinds, KindNames);

template <class Kind>
constexpr bool readable = !std::is_same_v<typename Kind::Getter, NoGetter>;

// A leftover of the pool's own size is removed once and made anew; a smaller one
// is found only where the lookup takes no size, otherwise it stays and init fails
// with the system call's text.
TYPED_TEST(Shared, leftoversAreReplacedOnceOrFailInitAndReleaseRemovesEverything) {
    using Kind = TypeParam;
    std::string err, out;
    // In a fresh IPC namespace the first segment and set have the id 0.
    captureOutput([&] { Kind::init(this->putter), this->putter.release(); }, err, &out);
    for (key_t key : Kind::keys()) EXPECT_TRUE(shmIdOf(key) == -1 && semIdOf(key) == -1) << key;
    const int shm = plantSegment(Kind::KEY, Kind::SEGMENT, 0xAB), set = plantSemSet(Kind::SET_KEY, Kind::SET_COUNT);
    ASSERT_NE(shm, -1);
    ASSERT_NE(set, -1);
    captureOutput([&] { Kind::init(this->putter); }, err, &out);
    EXPECT_FALSE(shmIdAlive(shm));
    EXPECT_FALSE(semIdAlive(set));
    EXPECT_EQ(RawSegment(Kind::KEY).size(), Kind::SEGMENT);
    EXPECT_EQ(lockValues(Kind::SET_KEY, Kind::SET_COUNT), std::vector<int>(Kind::SET_COUNT, 1));
    this->putter.release();
    this->putter.release();  // nothing left to do
    for (key_t key : Kind::keys()) EXPECT_TRUE(shmIdOf(key) == -1 && semIdOf(key) == -1) << key;
    {
        typename Kind::Putter scoped;
        captureOutput([&] { Kind::init(scoped); }, err, &out);
        EXPECT_NE(shmIdOf(Kind::KEY), -1);
    }
    for (key_t key : Kind::keys()) EXPECT_TRUE(shmIdOf(key) == -1 && semIdOf(key) == -1) << key;

    for (bool segment : {true, false}) {
        SCOPED_TRACE(segment ? "small segment" : "small set");
        const int stale = segment ? plantSegment(Kind::KEY, 16, 0) : plantSemSet(Kind::SET_KEY, 1);
        const bool blocks = segment ? Kind::SMALL_SHM_BLOCKS : Kind::SMALL_SET_BLOCKS;
        const std::string call = segment ? "shmget failed" : "semget failed";
        typename Kind::Putter second;
        auto [message, log] = failureOf<typename Kind::PutterError>([&] { Kind::init(second); });
        EXPECT_EQ(message, blocks ? call + "." : "<no exception>");
        EXPECT_EQ(log.find(call + ": File exists\n") != std::string::npos, blocks) << log;
        EXPECT_EQ(segment ? shmIdAlive(stale) : semIdAlive(stale), blocks);
        second.release();
        for (key_t key : Kind::keys()) this->keys.add(key);
    }
}

TYPED_TEST(Shared, useBeforeInitIsAProgrammingErrorAndAGetterAttachesOnce) {
    using Kind = TypeParam;
    typename Kind::Putter idle;
    expectProgrammingErrors<typename Kind::PutterError>(Kind::putterCalls(idle), Kind::MISUSE_LOG);
    if constexpr (readable<Kind>) {
        typename Kind::Getter getter;
        expectProgrammingErrors<typename Kind::GetterError>(Kind::getterCalls(getter), Kind::MISUSE_LOG);
        EXPECT_EQ(failureOf<typename Kind::GetterError>([&] { Kind::init(getter); }),
                  std::make_pair(std::string("shmget failed."), std::string("shmget failed: No such file or directory\n")));
        Kind::start(this->putter);
        const int attached = attachmentsOf(Kind::KEY);
        {
            typename Kind::Getter reader;
            Kind::init(reader);
            if (Kind::INIT_RELEASES) Kind::init(reader);  // the analysis getters attach anew, not twice
            EXPECT_EQ(attachmentsOf(Kind::KEY), attached + 1);
            reader.release();
            EXPECT_EQ(attachmentsOf(Kind::KEY), attached);
            expectProgrammingErrors<typename Kind::GetterError>(Kind::getterCalls(reader), Kind::MISUSE_LOG);
            Kind::init(reader);
        }
        EXPECT_EQ(attachmentsOf(Kind::KEY), attached);
        EXPECT_NE(semIdOf(Kind::SET_KEY), -1);  // a reader removes nothing
    }
}

// A reader on the slot after the newest waits until the writer has written it; one
// that keeps up while the writer runs up to three elements ahead meets open slots
// and closed ones and gets every element once and in order. A signal during its
// first wait is waited through by the picture and video readers and ends the wait
// of the others with "semop failed.".
TYPED_TEST(Shared, readerThatKeepsUpWaitsForEachWriteGetsEveryElementInOrderAndASignalEndsOrInterruptsTheWait) {
    using Kind = TypeParam;
    if constexpr (readable<Kind>) {
        constexpr unsigned long long COUNT = 40;
        Kind::start(this->putter);
        this->putRange(1, 2);
        ForkedChild child([](ChildLink& link) {
            link.reportSignal(SIGUSR1);
            typename Kind::Getter reader;
            Kind::init(reader);
            int safe;
            Kind::toWorking(reader, safe);
            for (unsigned long long k = 3; k <= COUNT; ++k) {
                const unsigned long long before = Kind::toNext(reader, safe);
                if (k == 3) link.say("at " + std::to_string(before));
                try {
                    Kind::wait(reader);
                } catch (const typename Kind::GetterError& e) {
                    link.say(std::string("error ") + e.what());
                    Kind::wait(reader);
                }
                const unsigned long long got = Kind::read(reader);
                if (got != k || Kind::id(reader) != k) {
                    link.say("got " + std::to_string(got) + " where " + std::to_string(k) + " was due");
                    return 1;
                }
            }
            link.say("followed");
            return 0;
        });
        ASSERT_NO_FATAL_FAILURE(expectLine(child, "at 0"));
        ASSERT_TRUE(eventually([] { return lockWaiters(Kind::SET_KEY, Kind::lockOf(3)) == 1; }));
        child.signal(SIGUSR1);
        ASSERT_NO_FATAL_FAILURE(expectLine(child, "signal"));
        if (!Kind::RETRIES_ON_SIGNAL) expectLine(child, "error semop failed.");
        for (unsigned long long k = 3; k <= COUNT;) {
            ASSERT_TRUE(eventually([&] { return lockWaiters(Kind::SET_KEY, Kind::lockOf(k)) == 1; })) << k;
            for (int burst = 1 + k % 3; burst > 0 && k <= COUNT; --burst) this->put(k++);
        }
        expectLastLine(child, "followed");
    }
}

// A writer killed while a reader waits: the lock after the newest stays closed,
// the next init removes the keys and makes them anew (the reader's wait ends with
// "semop failed."), and the reader that attaches again sees the new pool.
TYPED_TEST(Shared, killedWritersKeysAreReplacedByTheNextInitAndItsReaderStartsOver) {
    using Kind = TypeParam;
    ForkedChild writer([](ChildLink& link) -> int {
        typename Kind::Putter crashing;
        Kind::start(crashing);
        for (unsigned long long k = 1; k <= 7; ++k) Kind::put(crashing, k, {});
        link.say("written");
        for (;;) pause();
    });
    ASSERT_NO_FATAL_FAILURE(expectLine(writer, "written"));
    std::unique_ptr<ForkedChild> reader;
    if constexpr (readable<Kind>) {
        reader = std::make_unique<ForkedChild>([](ChildLink& link) {
            typename Kind::Getter getter;
            Kind::init(getter);
            int safe;
            Kind::toWorking(getter, safe);
            Kind::toNext(getter, safe);
            try {
                Kind::wait(getter);
                link.say("released");
            } catch (const typename Kind::GetterError& e) {
                link.say(std::string("error ") + e.what());
            }
            if (!link.awaitGo()) return 1;
            getter.release();
            Kind::init(getter);
            link.say("at " + std::to_string(Kind::toWorking(getter, safe)));
            return 0;
        });
        ASSERT_TRUE(eventually([] { return lockWaiters(Kind::SET_KEY, Kind::lockOf(8)) == 1; }));
    }
    writer.signal(SIGKILL);
    ASSERT_EQ(writer.wait().signal, SIGKILL);
    EXPECT_EQ(lockValue(Kind::SET_KEY, Kind::lockOf(8)), 1);
    const int oldShm = shmIdOf(Kind::KEY), oldSet = semIdOf(Kind::SET_KEY);
    ASSERT_NE(oldShm, -1);
    ASSERT_NE(oldSet, -1);
    std::string err, out;
    captureOutput([&] { Kind::start(this->putter); }, err, &out);
    EXPECT_NE(shmIdOf(Kind::KEY), oldShm);
    EXPECT_FALSE(semIdAlive(oldSet));
    EXPECT_EQ(lockValues(Kind::SET_KEY, Kind::SET_COUNT), std::vector<int>(Kind::SET_COUNT, 1));
    if (reader) {
        ASSERT_NO_FATAL_FAILURE(expectLine(*reader, "error semop failed."));
        reader->go();
        expectLastLine(*reader, "at 0");
    }
}

// Frames of every size, refused ones and resets among them: no allocation, and
// nothing lands past the segment (the rest of its last page stays zero).
TYPED_TEST(Shared, writePathAllocatesNothingAndWritesNothingPastTheSegment) {
    ASSERT_TRUE(avpool::testing::allocationsAreCounted());
    TypeParam::start(this->putter);
    static unsigned char bytes[2 * 12288] = {};
    const unsigned long long before = avpool::testing::allocationCount();
    for (int k = 1; k <= 1000; ++k) TypeParam::churn(this->putter, k, bytes);
    EXPECT_EQ(avpool::testing::allocationCount(), before);
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE)), end = TypeParam::SEGMENT;
    RawSegment raw(TypeParam::KEY);
    EXPECT_EQ(Bytes(raw.at(end), raw.at((end + page - 1) / page * page)), Bytes((page - end % page) % page, 0));
}

// ------------------------------------------------------------ ring searches

template <class Kind>
class Positioning : public Pool<Kind> {
protected:
    // The ring full and wrapped: N elements, the newest N on the writer's slot.
    // Searches start at S, three slots ahead of the writer: the two slots after
    // the writer are the next to be overwritten and never candidates.
    static constexpr unsigned long long N = Kind::SLOTS + 2, S = N - Kind::SLOTS + 3;
    static timeval stampOf(unsigned long long id) {
        if (id == N) return at(107, 900000);
        if (id == N - 1) return at(107, 600000);
        if (id == N - 2) return at(106, 100000);
        if (id == S) return at(105, 500000);
        if (id > S) return at(105, 400000);
        return at(id + 2 == S ? 103 : id + 1 == S ? 104 : 100);
    }
    void SetUp() override {
        Pool<Kind>::SetUp();
        Kind::start(this->putter);
        for (unsigned long long id = 1; id <= N; ++id) this->put(id, stampOf(id));
        Kind::init(reader);
    }
    // Where a move left the reader: the id it returned and the safe time.
    template <class Move>
    std::pair<unsigned long long, int> move(Move m) {
        safe = -12345;
        unsigned long long id = m(reader, safe);
        return {id, safe};
    }
    // The element id and its safe time, N being the writer's.
    static std::pair<unsigned long long, int> on(unsigned long long id) {
        const int ahead = static_cast<int>((id + Kind::SLOTS - N % Kind::SLOTS) % Kind::SLOTS);
        return {id, Kind::FRAME_FORM && ahead == Kind::SLOTS - 1 ? 0 : ahead * Kind::INTERVAL};
    }

    typename Kind::Getter reader;
    int safe = -12345;
};
using RingKinds = ::testing::Types<JpegKind, Mp4Kind, Pcm, Aac, Opus>;
TYPED_TEST_SUITE(Positioning, RingKinds, KindNames);

TYPED_TEST(Positioning, newestNextOldestSinceATimeAndExactSecondOverAWrappedRing) {
    using Kind = TypeParam;
    constexpr unsigned long long N = TestFixture::N, S = TestFixture::S, MISS = 4294967295ULL;
    using G = typename Kind::Getter;
    auto& t = *this;
    EXPECT_EQ(t.move([](G& g, int& s) { return Kind::toWorking(g, s); }), t.on(N));
    EXPECT_EQ(t.move([](G& g, int& s) { return Kind::toNext(g, s); }), t.on(S - 2));  // no check: overwritten next
    // Oldest at or after a time, seconds and microseconds each compared on their own
    // (none: the newest); then the earliest element of the second with microseconds
    // not later than those given. A usec of -1 searches without microseconds.
    const struct {
        bool exact;
        int sec, usec;
        unsigned long long id;
    } searches[] = {{false, 0, -1, S}, {false, 106, -1, N - 2}, {false, 105, 600000, N - 1},
                    {false, 105, 500000, S}, {false, 107, 950000, N}, {false, 200, -1, N},
                    {true, 105, -1, S}, {true, 106, -1, N - 2}, {true, 107, -1, N - 1},
                    {true, 107, 950000, N - 1}, {true, 107, 600000, N - 1}, {true, 105, 500000, S}};
    for (const auto& q : searches) {
        EXPECT_EQ(t.move([&q](G& g, int& s) {
            return q.exact ? Kind::toExact(g, s, q.sec, q.usec) : Kind::toOldest(g, s, q.sec, q.usec);
        }), t.on(q.id)) << (q.exact ? "exact " : "oldest ") << q.sec << " " << q.usec;
    }
    // Not found: 4294967295. Older than the first candidate ends there at once,
    // the safe time untouched.
    EXPECT_EQ(t.move([](G& g, int& s) { return Kind::toExact(g, s, 104); }), std::make_pair(MISS, -12345));
    EXPECT_EQ(Kind::id(t.reader), S);
    // A miss after the scan leaves the reader on the slot after the newest; the
    // audio readers report that slot's safe time, the others leave it untouched.
    const int missed = Kind::FRAME_FORM ? -12345 : Kind::INTERVAL;
    EXPECT_EQ(t.move([](G& g, int& s) { return Kind::toExact(g, s, 107, 599999); }), std::make_pair(MISS, missed));
    EXPECT_EQ(t.move([](G& g, int& s) { return Kind::toExact(g, s, 150); }), std::make_pair(MISS, missed));
    EXPECT_EQ(Kind::id(t.reader), S - 2);
}

// A reader the writer has overtaken sees the jump in ids and goes back to the newest.
TYPED_TEST(Positioning, overtakenReaderSeesTheIdJumpAndGoesBackToTheNewest) {
    using Kind = TypeParam;
    constexpr unsigned long long N = TestFixture::N;
    int safe = -1;
    ASSERT_EQ(Kind::toWorking(this->reader, safe), N);
    this->putRange(N + 1, N + Kind::SLOTS + 1);
    EXPECT_EQ(Kind::toNext(this->reader, safe), N + Kind::SLOTS + 1);
    EXPECT_EQ(safe, 0);
    Kind::wait(this->reader);
    EXPECT_EQ(Kind::read(this->reader), N + Kind::SLOTS + 1);
    EXPECT_EQ(Kind::toWorking(this->reader, safe), N + Kind::SLOTS + 1);
}

// The outcome is taken from an attempt during which the second did not change.
TYPED_TEST(Positioning, probeAgeAcceptsExactlyMaxAgeEitherWay) {
    using Kind = TypeParam;
    auto outcome = [&](int offset, int maxAge) {
        std::string result;
        withinOneSecond([&](time_t now) {
            this->put(99, at(static_cast<int>(now) + offset, 999999));
            int safe;
            Kind::toWorking(this->reader, safe);
            auto [message, log] = failureOf<typename Kind::GetterError>(
                [&] { result = "age " + std::to_string(Kind::probe(this->reader, maxAge)); });
            if (message != "<no exception>") result = message + log;
            return true;
        });
        return result;
    };
    // The picture reader's probe tells no age.
    auto age = [](int seconds) { return "age " + std::to_string(std::is_same_v<Kind, JpegKind> ? 0 : seconds); };
    EXPECT_EQ(outcome(-5, 5), age(5));
    EXPECT_EQ(outcome(-6, 5), "age too old");
    EXPECT_EQ(outcome(5, 5), age(5));
    EXPECT_EQ(outcome(6, 5), "age too old");
    EXPECT_EQ(outcome(0, 0), age(0));
}
