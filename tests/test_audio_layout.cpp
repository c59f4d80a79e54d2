// The audio putters as other processes see them: header, slots, fill bytes, safe
// times and locks read back raw, for every kind through one typed suite.
#include "audio_fixture.h"

#include <algorithm>
#include <functional>

using namespace audio_layout;
using avpool::test::failureOf;
using avpool::test::RawSegment;

template <class Kind>
class AudioPutterTest : public AudioPool<Kind> {};
TYPED_TEST_SUITE(AudioPutterTest, AllKinds, KindNames);

TYPED_TEST(AudioPutterTest, initFillsTheSegmentZeroesTheSlotHeadsClosesEveryLockAndLogsTheSet) {
    using Kind = TypeParam;
    this->create();
    EXPECT_EQ(this->initOut, std::string("Create ") + Kind::name + " sem:200\n");
    EXPECT_EQ(this->initErr, "");

    RawSegment raw(Kind::KEY);
    ASSERT_TRUE(raw.attached());
    ASSERT_EQ(raw.size(), Kind::SEGMENT);
    EXPECT_EQ(raw.i32(CURRENT), 0);
    EXPECT_EQ(raw.bytes(WORKING_FORMAT, 12), std::vector<unsigned char>(12, FILL));  // until reset
    for (int i = 0; i < SLOTS; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(raw.i32(safeTime(i)), 0);
        // lockIndex, four fill bytes, id 0, length 0, format..rate fill, times 0,
        // and from sampleNumber to the end of the slot fill.
        std::vector<unsigned char> expected(Kind::SLOT, FILL);
        for (size_t b = 0; b < 4; ++b) expected[LOCK_INDEX + b] = static_cast<unsigned char>(i >> (8 * b));
        for (size_t b = ID; b < FORMAT; ++b) expected[b] = 0;
        for (size_t b = SEC; b < SAMPLES; ++b) expected[b] = 0;
        ASSERT_EQ(raw.bytes(this->slot(i), Kind::SLOT), expected);
    }

    int set = avpool::test::semIdOf(Kind::SET_KEY);
    EXPECT_EQ(avpool::test::semCountOf(set), 200);
    EXPECT_EQ(avpool::test::semIdOf(Kind::SET_KEY + 1), -1);  // one group only
    EXPECT_EQ(this->locks(), std::vector<int>(SLOTS, 1));
}

TYPED_TEST(AudioPutterTest, putFragmentStoresTheSlotByTheKindsCopyAndLengthRules) {
    using Kind = TypeParam;
    const int capacity = static_cast<int>(Kind::CAPACITY);
    this->create();
    Kind::reset(this->putter, 8, 2, 16000, 77);
    this->put(1, 1000, 250000, 100, 7);            // short
    this->put(2, 1001, 999999, capacity + 88, 8);  // longer than the slot holds
    this->put(3, 1002, 999999, -3, 9);             // negative: nothing where the length counts

    RawSegment raw(Kind::KEY);
    EXPECT_EQ(raw.i32(CURRENT), 3);
    EXPECT_EQ(raw.i32(WORKING_FORMAT), 8);
    EXPECT_EQ(raw.i32(WORKING_CHANNELS), 2);
    EXPECT_EQ(raw.i32(WORKING_RATE), 16000);
    const int lengths[3] = {100, capacity + 88, -3};
    for (int k = 0; k < 3; ++k) {
        SCOPED_TRACE(k);
        const int s = k + 1;
        EXPECT_EQ(raw.u64(this->slot(s) + ID), static_cast<uint64_t>(s));
        EXPECT_EQ(this->field(raw, s, LOCK_INDEX), s);
        EXPECT_EQ(this->field(raw, s, FORMAT), 8);
        EXPECT_EQ(this->field(raw, s, CHANNELS), 2);
        EXPECT_EQ(this->field(raw, s, RATE), 16000);
        EXPECT_EQ(this->field(raw, s, SEC), 1000 + k);
        EXPECT_EQ(this->field(raw, s, USEC), k == 0 ? 250000 : 999999);
        EXPECT_EQ(this->field(raw, s, SAMPLES), sampleNumberOf<Kind>(8, 2));
        EXPECT_EQ(raw.bytes(this->slot(s) + 4, 4), std::vector<unsigned char>(4, FILL));
        if (Kind::STREAM_PARAM != NONE) {
            EXPECT_EQ(this->field(raw, s, Kind::STREAM_PARAM), 77);
        }
        if (Kind::FRAGMENT_PARAM != NONE) {
            EXPECT_EQ(this->field(raw, s, Kind::FRAGMENT_PARAM), 7 + k);
        }

        int copied = Kind::copy == Copy::UpToSize ? std::clamp(lengths[k], 0, capacity) : capacity;
        int recorded = Kind::copy == Copy::Whole ? capacity : Kind::copy == Copy::AsGiven ? lengths[k] : copied;
        EXPECT_EQ(this->field(raw, s, LENGTH), recorded);
        std::vector<unsigned char> data = payload(s, copied);
        data.resize(Kind::CAPACITY, FILL);
        EXPECT_EQ(raw.bytes(this->slot(s) + Kind::DATA, Kind::CAPACITY), data);
        // Whatever follows the head and precedes the data, or trails it, is fill.
        size_t extras = HEAD + (Kind::STREAM_PARAM != NONE ? 4 : 0) + (Kind::FRAGMENT_PARAM != NONE ? 4 : 0);
        EXPECT_EQ(raw.bytes(this->slot(s) + extras, Kind::DATA - extras), std::vector<unsigned char>(Kind::DATA - extras, FILL));
        size_t tail = Kind::DATA + Kind::CAPACITY;
        EXPECT_EQ(raw.bytes(this->slot(s) + tail, Kind::SLOT - tail), std::vector<unsigned char>(Kind::SLOT - tail, FILL));
    }
}

TYPED_TEST(AudioPutterTest, eachPutOpensItsSlotAndClosesTheNextOneSlotZeroFirstOnTheTwoHundredth) {
    using Kind = TypeParam;
    this->start();
    this->put(1, 1);
    std::vector<int> expected(SLOTS, 1);
    expected[1] = 0;
    EXPECT_EQ(this->locks(), expected);

    for (int k = 2; k <= 199; ++k) this->put(k, k);
    expected.assign(SLOTS, 0);
    expected[0] = 1;  // never written yet, and the next to be
    EXPECT_EQ(this->locks(), expected);
    EXPECT_EQ(RawSegment(Kind::KEY).u64(this->slot(0) + ID), 0u);

    this->put(200, 200);
    expected[0] = 0;
    expected[1] = 1;
    EXPECT_EQ(this->locks(), expected);
    RawSegment raw(Kind::KEY);
    EXPECT_EQ(raw.i32(CURRENT), 0);
    EXPECT_EQ(raw.u64(this->slot(0) + ID), 200u);
}

TYPED_TEST(AudioPutterTest, safeTimesCountFragmentsUntilOverwriteAndTheNewestReadsZero) {
    using Kind = TypeParam;
    this->create();
    Kind::reset(this->putter, 16, 2, 16000, 0);
    const int interval = fragmentTimeOf<Kind>(16, 2, 16000);
    for (int k = 1; k <= 5; ++k) this->put(k, k);  // the writer at slot 5

    RawSegment raw(Kind::KEY);
    for (int k = 0; k < SLOTS; ++k) {
        SCOPED_TRACE(k);
        EXPECT_EQ(raw.i32(safeTime((5 + k) % SLOTS)), interval * k);
    }
}

TYPED_TEST(AudioPutterTest, fragmentArithmeticTruncatesInOrderAndAResetWithABadFormatKeepsTheFigures) {
    using Kind = TypeParam;
    typename Kind::Putter& p = this->putter;
    EXPECT_EQ(p.calFragmentTime(), fragmentTimeOf<Kind>(16, 1, 8000));  // before init, the defaults
    EXPECT_EQ(p.calSampleNumber(), sampleNumberOf<Kind>(16, 1));
    EXPECT_EQ(p.bitsOf(1), 8);
    EXPECT_EQ(p.bitsOf(4), 4);
    EXPECT_EQ(p.bitsOf(8), 8);
    EXPECT_EQ(p.bitsOf(16), 16);
    for (int format : {0, 2, 24, 32}) {
        auto [message, log] = failureOf<typename Kind::PutterError>([&] { p.bitsOf(format); });
        EXPECT_EQ(message, "not supported format");
        EXPECT_EQ(log, "");
    }

    this->create();
    Kind::reset(p, 16, 2, 44100, 0);  // 44 kHz
    EXPECT_EQ(p.calFragmentTime(), Kind::BITS / 44 / 16 / 2 * Kind::FACTOR);
    Kind::reset(p, 4, 1, 22050, 0);
    const int interval = Kind::BITS / 22 / 4 * Kind::FACTOR;
    const int samples = Kind::BITS / 4 * Kind::FACTOR;

    auto [message, log] = failureOf<typename Kind::PutterError>([&] { Kind::reset(p, 24, 3, 48000, 0); });
    EXPECT_EQ(message, "not supported format");
    EXPECT_EQ(log, "");
    RawSegment raw(Kind::KEY);
    EXPECT_EQ(raw.i32(WORKING_FORMAT), 24);
    EXPECT_EQ(raw.i32(WORKING_CHANNELS), 3);
    EXPECT_EQ(raw.i32(WORKING_RATE), 48000);
    this->put(1, 1);
    EXPECT_EQ(this->field(raw, 1, FORMAT), 24);  // the members took the bad values too
    EXPECT_EQ(this->field(raw, 1, CHANNELS), 3);
    EXPECT_EQ(this->field(raw, 1, SAMPLES), samples);
    EXPECT_EQ(raw.i32(safeTime(2)), interval);
}

TYPED_TEST(AudioPutterTest, aRateBelowOneKilohertzOrNoChannelsGiveZeroInsteadOfATrap) {
    using Kind = TypeParam;
    this->create();
    Kind::reset(this->putter, 16, 1, 999, 0);
    EXPECT_EQ(this->putter.calFragmentTime(), 0);
    Kind::reset(this->putter, 16, 0, 8000, 0);
    EXPECT_EQ(this->putter.calSampleNumber(), 0);
    EXPECT_EQ(this->putter.calFragmentTime(), 0);
}

TYPED_TEST(AudioPutterTest, semaphorePositionsAndLockFailuresCarryTheKindsMessages) {
    using Kind = TypeParam;
    using Error = typename Kind::PutterError;
    int group = -1, position = -1;
    this->putter.getSemPosition(999, group, position);
    EXPECT_EQ(group, 3);
    EXPECT_EQ(position, 249);
    auto over = failureOf<Error>([&] { this->putter.getSemPosition(1000, group, position); });
    EXPECT_EQ(over, std::make_pair(std::string("Over Max Semaphore Group."), std::string()));

    // Before init: no set, so the first lock call fails, before anything is written.
    auto early = failureOf<Error>([&] { this->put(1, 1); });
    EXPECT_EQ(early.first, "semctl failed.");
    EXPECT_EQ(early.second.rfind("semctl failed: ", 0), 0u) << early.second;
    avpool::test::expectProgrammingErrors<Error>(
        std::vector<std::function<void()>>{[&] { Kind::reset(this->putter, 16, 1, 8000, 0); },
                                           [&] { this->putter.setSafeTime(); }},
        "programming error");
    EXPECT_EQ(avpool::test::shmIdOf(Kind::KEY), -1);

    this->start();
    EXPECT_EQ(failureOf<Error>([&] { this->putter.closeLock(1000); }).first, "Over Max Semaphore Group.");
    EXPECT_EQ(failureOf<Error>([&] { this->putter.openLock(-250); }).first, "semctl failed.");
    this->putter.release();
    EXPECT_EQ(failureOf<Error>([&] { this->put(1, 1); }).first, "semctl failed.");
}

TYPED_TEST(AudioPutterTest, releaseRemovesEverythingAndInitReplacesLeftoversItCanLookUpBySize) {
    using Kind = TypeParam;
    this->create();
    this->putter.release();
    EXPECT_EQ(avpool::test::shmIdOf(Kind::KEY), -1);
    EXPECT_EQ(avpool::test::semIdOf(Kind::SET_KEY), -1);
    this->putter.release();

    // A segment of the pool's size and a set of any size are found and replaced.
    int staleShm = avpool::test::plantSegment(Kind::KEY, Kind::SEGMENT, 0);
    int staleSet = avpool::test::plantSemSet(Kind::SET_KEY, 3);
    ASSERT_NE(staleShm, -1);
    ASSERT_NE(staleSet, -1);
    {
        typename Kind::Putter scoped;
        Kind::init(scoped);
        EXPECT_FALSE(avpool::test::shmIdAlive(staleShm));
        EXPECT_FALSE(avpool::test::semIdAlive(staleSet));
        EXPECT_EQ(avpool::test::semCountOf(avpool::test::semIdOf(Kind::SET_KEY)), 200);
    }
    EXPECT_EQ(avpool::test::shmIdOf(Kind::KEY), -1);
    EXPECT_EQ(avpool::test::semIdOf(Kind::SET_KEY), -1);

    // A smaller segment cannot be looked up with the full size: it stays and the retry fails.
    int smaller = avpool::test::plantSegment(Kind::KEY, 64, 0);
    ASSERT_NE(smaller, -1);
    auto [message, log] = failureOf<typename Kind::PutterError>([&] { Kind::init(this->putter); });
    EXPECT_EQ(message, "shmget failed.");
    EXPECT_EQ(log.rfind("shmget failed: ", 0), 0u) << log;
    EXPECT_EQ(avpool::test::shmIdOf(Kind::KEY), smaller);
}

// Channels of the keyed kinds.
TEST(AudioKeys, aacAndAmrChannelsHaveTheirOwnSegmentsAndSets) {
    avpool::test::IpcKeys keys{20224, 20225, 20224 + 16, 20482, 20512};
    testing::internal::CaptureStdout();
    AACPutter zero, one;
    zero.init(0);
    one.init(1);
    AMRPutter two;
    two.init(2);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Create AAC sem:200\nCreate AAC sem:200\nCreate AMR sem:200\n");
    EXPECT_NE(avpool::test::shmIdOf(20224), avpool::test::shmIdOf(20225));
    EXPECT_EQ(avpool::test::semCountOf(avpool::test::semIdOf(20224)), 200);
    EXPECT_EQ(avpool::test::semCountOf(avpool::test::semIdOf(20240)), 200);
    EXPECT_EQ(RawSegment(20482).size(), 216816u);
    EXPECT_EQ(avpool::test::semCountOf(avpool::test::semIdOf(20512)), 200);
}

// The AMR pool read by its layout, as a consumer outside the library does.
using AmrPool = AudioPool<AmrKind>;
TEST_F(AmrPool, newestFragmentIsReadByTheLayoutWithAtMostItsCapacityAndTheFragmentParam) {
    start(5);
    put(1, 10, 0, 2000, 7);
    RawSegment raw(AmrKind::KEY);
    const int newest = raw.i32(CURRENT);
    ASSERT_EQ(newest, 1);
    EXPECT_EQ(avpool::test::lockValue(AmrKind::SET_KEY, field(raw, newest, LOCK_INDEX)), 0);
    EXPECT_EQ(field(raw, newest, LENGTH), 1024);
    EXPECT_EQ(field(raw, newest, AmrKind::STREAM_PARAM), 5);
    EXPECT_EQ(field(raw, newest, AmrKind::FRAGMENT_PARAM), 7);
    EXPECT_EQ(raw.bytes(slot(newest) + AmrKind::DATA, 1024), payload(1, 1024));
    EXPECT_EQ(avpool::test::lockValue(AmrKind::SET_KEY, newest + 1), 1);
}
