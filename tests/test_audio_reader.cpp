// The audio getters within one process: positioning over a wrapped ring with
// known stamps, the fragment view, the age probe and the failure texts.
#include "audio_fixture.h"

#include <ctime>
#include <functional>

using namespace audio_layout;
using avpool::test::failureOf;

// 210 fragments: ids 11..200 in slots 11..199 and 0, stamped with their id as
// the second; ids 201..210 in slots 1..10 (the writer at 10) with the stamps
// below. Searches start at slot 13: slots 11 and 12 are the next to be
// overwritten and are never candidates.
template <class Kind>
class AudioReaderTest : public AudioPool<Kind> {
protected:
    void SetUp() override {
        this->start(42);
        for (int id = 1; id <= 200; ++id) this->put(id, id);
        const int stamps[10][2] = {{1001, 0},      {1002, 0},      {1003, 0},      {1004, 0},      {1005, 500000},
                                   {1006, 100000}, {1007, 600000}, {1007, 900000}, {1008, 0},      {1009, 0}};
        for (int k = 0; k < 10; ++k) this->put(201 + k, stamps[k][0], stamps[k][1]);
        Kind::init(reader);
    }
    // Safe time of the slot `ahead` slots after the writer's.
    static int ahead(int slots) { return slots * fragmentTimeOf<Kind>(16, 1, 8000); }

    typename Kind::Getter reader;
    int safe = -12345;
};
TYPED_TEST_SUITE(AudioReaderTest, ReadableKinds, KindNames);

TYPED_TEST(AudioReaderTest, toWorkingAndToNextMoveWithoutChecksAndWrapAtTheEnd) {
    EXPECT_EQ(this->reader.toWorking(this->safe), 210u);
    EXPECT_EQ(this->safe, 0);
    EXPECT_EQ(this->reader.toNext(this->safe), 11u);  // about to be overwritten, still reported
    EXPECT_EQ(this->safe, this->ahead(1));
    EXPECT_EQ(this->reader.getSafeTime(), this->ahead(1));

    ASSERT_EQ(this->reader.toExactWorking(this->safe, 199), 199u);
    EXPECT_EQ(this->reader.toNext(this->safe), 200u);  // slot 199 to slot 0
    EXPECT_EQ(this->safe, this->ahead(190));
    EXPECT_EQ(this->reader.getFragmentID(), 200u);
}

TYPED_TEST(AudioReaderTest, toOldestWorkingFindsTheOldestCandidateComparingSecondsAndMicrosecondsApart) {
    EXPECT_EQ(this->reader.toOldestWorking(this->safe, 0), 13u);  // 11 and 12 excluded
    EXPECT_EQ(this->safe, this->ahead(3));
    EXPECT_EQ(this->reader.toOldestWorking(this->safe, 1005), 205u);
    EXPECT_EQ(this->safe, this->ahead(195));
    // 1006.100000 is later than 1005.600000 but its microseconds are smaller.
    EXPECT_EQ(this->reader.toOldestWorking(this->safe, 1005, 600000), 207u);
    EXPECT_EQ(this->safe, this->ahead(197));
    EXPECT_EQ(this->reader.toOldestWorking(this->safe, 1005, 500000), 205u);
    // Nothing that late: the scan ends on the writer's slot without testing it.
    EXPECT_EQ(this->reader.toOldestWorking(this->safe, 5000), 210u);
    EXPECT_EQ(this->safe, 0);
    EXPECT_EQ(this->reader.toOldestWorking(this->safe, 1009, 1), 210u);
}

TYPED_TEST(AudioReaderTest, toExactWorkingReturnsTheEarliestFragmentOfTheSecondStartedByTheMicrosecond) {
    EXPECT_EQ(this->reader.toExactWorking(this->safe, 50), 50u);
    EXPECT_EQ(this->safe, this->ahead(40));
    EXPECT_EQ(this->reader.toExactWorking(this->safe, 1007), 207u);
    EXPECT_EQ(this->reader.toExactWorking(this->safe, 1007, 950000), 207u);
    EXPECT_EQ(this->reader.toExactWorking(this->safe, 1007, 600000), 207u);
    EXPECT_EQ(this->reader.toExactWorking(this->safe, 1005, 900000), 205u);
}

TYPED_TEST(AudioReaderTest, toExactWorkingMissesEitherAtOnceOrOnTheSlotAfterTheNewest) {
    // Older than the first candidate: at once, safe time untouched, cursor on slot 13.
    EXPECT_EQ(this->reader.toExactWorking(this->safe, 12), 4294967295ull);
    EXPECT_EQ(this->safe, -12345);
    EXPECT_EQ(this->reader.getFragmentID(), 13u);
    EXPECT_EQ(this->reader.toExactWorking(this->safe, 12, 999999), avpool::NOT_FOUND);
    EXPECT_EQ(this->safe, -12345);

    // Newer than the newest, or no early enough microsecond: the scan ends on slot
    // 11, whose safe time is reported.
    EXPECT_EQ(this->reader.toExactWorking(this->safe, 2000), avpool::NOT_FOUND);
    EXPECT_EQ(this->safe, this->ahead(1));
    EXPECT_EQ(this->reader.getFragmentID(), 11u);
    this->safe = -12345;
    EXPECT_EQ(this->reader.toExactWorking(this->safe, 1007, 599999), avpool::NOT_FOUND);
    EXPECT_EQ(this->safe, this->ahead(1));
}

TYPED_TEST(AudioReaderTest, getFragmentShowsTheSlotInPlaceWithTheKindsLength) {
    using Kind = TypeParam;
    ASSERT_EQ(this->reader.toExactWorking(this->safe, 1005), 205u);
    this->reader.getFragment();
    const auto& f = this->reader.fragment;
    EXPECT_EQ(f.format, 16);
    EXPECT_EQ(f.channels, 1);
    EXPECT_EQ(f.rate, 8000);
    EXPECT_EQ(f.sampleNumber, sampleNumberOf<Kind>(16, 1));
    if constexpr (Kind::STREAM_PARAM != NONE) {
            EXPECT_EQ(f.streamParam, 42);
        }
    EXPECT_EQ(f.timestamp.tv_sec, 1005);
    EXPECT_EQ(f.timestamp.tv_usec, 500000);
    ASSERT_EQ(f.length, static_cast<int>(Kind::CAPACITY));
    EXPECT_EQ(std::vector<unsigned char>(f.data, f.data + f.length), payload(205, Kind::CAPACITY));

    EXPECT_EQ(this->reader.getWorkingFormat(), 16);
    EXPECT_EQ(this->reader.getWorkingChannels(), 1);
    EXPECT_EQ(this->reader.getWorkingRate(), 8000);
}

TYPED_TEST(AudioReaderTest, probeAgeComparesWholeSecondsEitherWay) {
    using Error = typename TypeParam::GetterError;
    EXPECT_TRUE(avpool::test::withinOneSecond([&](time_t now) {
        this->put(1, static_cast<int>(now) - 5, 999999);
        this->reader.toWorking(this->safe);
        bool ok = this->reader.probeAge(5) == 5;
        ok = ok && failureOf<Error>([&] { this->reader.probeAge(4); }) == std::make_pair(std::string("age too old"), std::string());
        this->put(2, static_cast<int>(now) + 10);
        this->reader.toWorking(this->safe);
        return ok && failureOf<Error>([&] { this->reader.probeAge(5); }).first == "age too old" &&
               this->reader.probeAge(10) == 10;
    }));
}

TYPED_TEST(AudioReaderTest, getterFailuresCarryTheKindsMessages) {
    using Kind = TypeParam;
    using Error = typename Kind::GetterError;
    int group = -1, position = -1;
    this->reader.getSemPosition(999, group, position);
    EXPECT_EQ(group, 3);
    EXPECT_EQ(position, 249);
    EXPECT_EQ(failureOf<Error>([&] { this->reader.getSemPosition(1000, group, position); }).first,
              "Over Max Semaphore Group.");

    // Not attached, before init or after release: the line without its newline.
    typename Kind::Getter idle;
    typename Kind::Getter& released = this->reader;
    released.release();
    for (typename Kind::Getter* g : {&idle, &released}) {
        int s = 0;
        avpool::test::expectProgrammingErrors<Error>(
            std::vector<std::function<void()>>{
                [&] { g->getWorkingFormat(); }, [&] { g->getWorkingChannels(); }, [&] { g->getWorkingRate(); },
                [&] { g->getSafeTime(); }, [&] { g->probeAge(1); }, [&] { g->getFragment(); },
                [&] { g->toWorking(s); }, [&] { g->toOldestWorking(s, 1); }, [&] { g->toOldestWorking(s, 1, 1); },
                [&] { g->toExactWorking(s, 1); }, [&] { g->toExactWorking(s, 1, 1); }, [&] { g->toNext(s); },
                [&] { g->getFragmentID(); }, [&] { g->waitReady(); }},
            "programming error");
    }

    this->putter.release();
    auto [message, log] = failureOf<Error>([&] { Kind::init(idle); });
    EXPECT_EQ(message, "shmget failed.");
    EXPECT_EQ(log.rfind("shmget failed: ", 0), 0u) << log;
}

template <class Kind>
class AudioReaderBeforeReset : public AudioPool<Kind> {};
TYPED_TEST_SUITE(AudioReaderBeforeReset, ReadableKinds, KindNames);

TYPED_TEST(AudioReaderBeforeReset, workingFieldsReadAsTheFillPatternAndTheNewestSlotIsZero) {
    using Kind = TypeParam;
    this->create();
    typename Kind::Getter reader;
    Kind::init(reader);
    EXPECT_EQ(reader.getWorkingFormat(), FILL_WORD);
    EXPECT_EQ(reader.getWorkingChannels(), FILL_WORD);
    EXPECT_EQ(reader.getWorkingRate(), FILL_WORD);
    int safe = -1;
    EXPECT_EQ(reader.toWorking(safe), 0u);
    EXPECT_EQ(safe, 0);
}
