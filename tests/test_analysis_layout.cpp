// The luminance and motion pools as other processes see them: the segment byte by
// byte after init, reset and each put, the locks, both safe-time forms, the
// vibration word, and what use before init and wrong input give.
#include "analysis_fixture.h"

#include <climits>
#include <cstring>
#include <functional>

using namespace analysis_layout;
using avpool::test::failureOf;

template <class Kind>
class AnalysisSegment : public AnalysisPool<Kind> {};
TYPED_TEST_SUITE(AnalysisSegment, AnalysisKinds, AnalysisKindNames);

TYPED_TEST(AnalysisSegment, initLeavesTheFillPatternExceptCurrentSafeTimesAndRecordHeads) {
    std::string err, out;
    avpool::test::captureOutput([&] { this->putter.init(this->CHANNEL); }, err, &out);
    EXPECT_EQ(err + out, "");

    std::vector<unsigned char> expected(TypeParam::SIZE, 0xCC);
    auto set = [&](size_t offset, int32_t value) { memcpy(&expected[offset], &value, 4); };
    set(CURRENT, 0);
    for (int slot = 0; slot < TypeParam::SLOTS; ++slot) {
        set(TypeParam::SAFE_TIMES + 4 * slot, 0);
        for (size_t field : {ID, ID + 4, LENGTH, SEC, USEC}) set(this->record(slot) + field, 0);
        set(this->record(slot) + LOCK_INDEX, slot);
    }
    ASSERT_EQ(avpool::test::RawSegment(this->KEY).size(), TypeParam::SIZE);
    EXPECT_EQ(this->firstDifference(this->image(), expected), -1);
    EXPECT_EQ(this->word(WORKING_FPS), FILL_WORD);

    EXPECT_EQ(avpool::test::semCountOf(avpool::test::semIdOf(this->KEY)), TypeParam::SLOTS);
    EXPECT_EQ(this->locks(), std::vector<int>(TypeParam::SLOTS, 1));

    // reset writes its three header words and nothing else.
    this->putter.reset(80, 64, 10);
    set(WORKING_FPS, 10);
    set(WORKING_WIDTH, 80);
    set(WORKING_HEIGHT, 64);
    EXPECT_EQ(this->firstDifference(this->image(), expected), -1);
}

TYPED_TEST(AnalysisSegment, eachPutWritesItsRecordOpensItsSlotAndClosesTheNextOne) {
    this->start(3, 2, 10);
    std::vector<int> expected(TypeParam::SLOTS, 1);
    const size_t bytes = 6 * TypeParam::ELEMENT;
    for (int k = 1; k <= 2 * TypeParam::SLOTS + 1; ++k) {
        SCOPED_TRACE(k);
        this->put(k, 6);
        const int slot = k % TypeParam::SLOTS;  // the first frame goes to slot 1
        expected[slot] = 0;
        expected[TypeParam::next(slot)] = 1;
        EXPECT_EQ(this->locks(), expected);

        avpool::test::RawSegment raw(this->KEY);
        EXPECT_EQ(raw.i32(CURRENT), slot);
        const size_t r = this->record(slot);
        EXPECT_EQ(raw.u64(r + ID), static_cast<uint64_t>(k));
        EXPECT_EQ(raw.i32(r + LOCK_INDEX), slot);
        EXPECT_EQ(raw.i32(r + LENGTH), 6);
        EXPECT_EQ(raw.i32(r + SEC), k);
        EXPECT_EQ(raw.i32(r + USEC), 10 * k);
        for (int a = 0; a < this->ARRAYS; ++a) {
            EXPECT_EQ(raw.bytes(this->array(slot, a), bytes), this->payload(k, a, bytes)) << "array " << a;
            EXPECT_EQ(raw.at(this->array(slot, a))[bytes], 0xCC) << "array " << a;
        }
    }
}

TYPED_TEST(AnalysisSegment, aShorterFrameLeavesTheTailOfTheOneBeforeItInTheSlot) {
    const int full = TypeParam::WIDTH * TypeParam::HEIGHT;
    this->start(TypeParam::WIDTH, TypeParam::HEIGHT, 10);
    this->put(1, full);  // exactly one slot's arrays, up to the next record
    for (int a = 0; a < this->ARRAYS; ++a)
        EXPECT_EQ(avpool::test::RawSegment(this->KEY).bytes(this->array(1, a), TypeParam::ARRAY),
                  this->payload(1, a, TypeParam::ARRAY));
    EXPECT_EQ(this->word(this->record(2) + LOCK_INDEX), 2);

    this->putter.reset(5, 3, 10);
    for (int k = 2; k <= TypeParam::SLOTS + 1; ++k) this->put(k, 15);  // the last one is slot 1 again
    const size_t head = 15 * TypeParam::ELEMENT;
    avpool::test::RawSegment raw(this->KEY);
    for (int a = 0; a < this->ARRAYS; ++a) {
        std::vector<unsigned char> expected = this->payload(1, a, TypeParam::ARRAY);
        std::vector<unsigned char> fresh = this->payload(TypeParam::SLOTS + 1, a, head);
        std::copy(fresh.begin(), fresh.end(), expected.begin());
        EXPECT_EQ(raw.bytes(this->array(1, a), TypeParam::ARRAY), expected) << "array " << a;
        EXPECT_EQ(raw.bytes(this->array(2, a) + head, 8), std::vector<unsigned char>(8, 0xCC)) << "array " << a;
    }
    EXPECT_EQ(raw.i32(this->record(1) + LENGTH), 15);
}

TYPED_TEST(AnalysisSegment, aFrameLargerThanItsSlotIsCutAtTheEndOfEachArray) {
    const int over = TypeParam::WIDTH * TypeParam::HEIGHT + 100;
    this->start(over, 1, 10);
    // The last slot too: nothing may land past the segment.
    for (int k = 1; k < TypeParam::SLOTS; ++k) this->put(k, over);
    avpool::test::RawSegment raw(this->KEY);
    for (int slot = 1; slot < TypeParam::SLOTS; ++slot) {
        SCOPED_TRACE(slot);
        EXPECT_EQ(raw.i32(this->record(slot) + LENGTH), over);
        for (int a = 0; a < this->ARRAYS; ++a)
            EXPECT_EQ(raw.bytes(this->array(slot, a), TypeParam::ARRAY), this->payload(slot, a, TypeParam::ARRAY));
    }
    EXPECT_EQ(raw.i32(this->record(0) + LOCK_INDEX), 0);
    EXPECT_EQ(raw.at(this->array(0, 0))[0], 0xCC);
}

TYPED_TEST(AnalysisSegment, aLengthOtherThanTheResetSizeIsRefusedBeforeAnythingChanges) {
    this->putter.init(this->CHANNEL);
    auto refused = [&](int length) {
        auto [message, log] = failureOf<typename TypeParam::PutterError>([&] { this->put(9, length); });
        EXPECT_EQ(message, "frameLength is not equal to elementSize") << length;
        EXPECT_EQ(log, "") << length;
    };
    const std::vector<unsigned char> untouched = this->image();
    for (int length : {0, -1, 6}) refused(length);  // no size before the first reset
    EXPECT_EQ(this->firstDifference(this->image(), untouched), -1);
    EXPECT_EQ(this->locks(), std::vector<int>(TypeParam::SLOTS, 1));

    this->putter.reset(3, 2, 10);
    this->put(1, 6);
    const std::vector<unsigned char> before = this->image();
    const std::vector<int> locksBefore = this->locks();
    for (int length : {5, 7, 0}) refused(length);
    EXPECT_EQ(this->firstDifference(this->image(), before), -1);
    EXPECT_EQ(this->locks(), locksBefore);
    this->put(2, 6);  // counter and slot did not move
    EXPECT_EQ(this->idIn(2), 2u);

    this->putter.reset(-1, 1, 10);  // a negative size is never a frame
    refused(-1);
}

TYPED_TEST(AnalysisSegment, getterStartsOnSlotZeroAndReadsTheRecordInPlace) {
    this->start(3, 2, 10);
    for (int k = 1; k <= TypeParam::SLOTS; ++k) this->put(k, 6);  // the last one in slot 0
    typename TypeParam::Getter reader;
    reader.init(this->CHANNEL);
    EXPECT_EQ(reader.getWorkingFPS(), 10);
    EXPECT_EQ(reader.getWorkingWidth(), 3);
    EXPECT_EQ(reader.getWorkingHeight(), 2);

    EXPECT_EQ(reader.getFrameID(), static_cast<unsigned long long>(TypeParam::SLOTS));
    reader.getFrame();
    EXPECT_EQ(reader.tv_sec, TypeParam::SLOTS);
    EXPECT_EQ(reader.tv_usec, 10 * TypeParam::SLOTS);
    EXPECT_EQ(reader.frameLength, 6);
    int safe = -1;
    EXPECT_EQ(reader.toNext(safe), 1u);
    EXPECT_EQ(safe, 100);
    reader.getFrame();
    const std::vector<const unsigned char*> arrays = TypeParam::arrays(reader);
    ASSERT_EQ(static_cast<int>(arrays.size()), this->ARRAYS);
    for (int a = 0; a < this->ARRAYS; ++a)
        EXPECT_EQ(std::vector<unsigned char>(arrays[a], arrays[a] + 12), this->payload(1, a, 12)) << "array " << a;

    // In place: a write into the slot shows through the pointers at once.
    this->putter.reset(2, 3, 10);
    this->put(TypeParam::SLOTS + 1, 6);
    EXPECT_EQ(std::vector<unsigned char>(arrays[0], arrays[0] + 12), this->payload(TypeParam::SLOTS + 1, 0, 12));
    EXPECT_EQ(reader.frameLength, 6);
    EXPECT_EQ(reader.tv_sec, 1);  // the members were copied by getFrame

    EXPECT_EQ(reader.toWorking(safe), static_cast<unsigned long long>(TypeParam::SLOTS + 1));
    EXPECT_EQ(safe, 0);
    for (int slot = 2; slot < TypeParam::SLOTS; ++slot) reader.toNext(safe);
    EXPECT_EQ(reader.toNext(safe), static_cast<unsigned long long>(TypeParam::SLOTS));  // wrapped to slot 0

    EXPECT_EQ(TypeParam::next(0), 1);
    EXPECT_EQ(TypeParam::next(TypeParam::SLOTS - 2), TypeParam::SLOTS - 1);
    EXPECT_EQ(TypeParam::next(TypeParam::SLOTS - 1), 0);
}

TYPED_TEST(AnalysisSegment, useWithoutAPoolIsRefusedWithItsOwnErrorType) {
    using Getter = typename TypeParam::Getter;
    using GetterError = typename TypeParam::GetterError;
    using PutterError = typename TypeParam::PutterError;
    avpool::test::expectOwnErrorType<PutterError, GetterError>();
    avpool::test::expectOwnErrorType<GetterError, PutterError>();

    Getter reader;
    auto [message, log] = failureOf<GetterError>([&] { reader.init(this->CHANNEL); });
    EXPECT_EQ(message, "shmget failed.");
    EXPECT_EQ(log, "shmget failed: No such file or directory\n");

    int safe;
    const std::vector<std::function<void()>> readerCalls = {
        [&] { reader.getWorkingFPS(); }, [&] { reader.getWorkingWidth(); }, [&] { reader.getWorkingHeight(); },
        [&] { reader.toWorking(safe); }, [&] { reader.toNext(safe); },     [&] { reader.getFrameID(); },
        [&] { reader.getFrame(); },      [&] { reader.waitReady(); }};
    avpool::test::expectProgrammingErrors<GetterError>(readerCalls);

    typename TypeParam::Putter unused;
    avpool::test::expectProgrammingErrors<PutterError>(std::vector<std::function<void()>>{
        [&] { unused.reset(3, 2, 10); }, [&] { unused.setSafeTime(); }});
    auto [lockMessage, lockLog] = failureOf<PutterError>([&] { unused.closeLock(0); });
    EXPECT_EQ(lockMessage, "semctl failed.");
    EXPECT_EQ(lockLog, "semctl failed: Invalid argument\n");

    // A released getter is as unattached as a new one; the pool stays.
    this->start(3, 2, 10);
    reader.init(this->CHANNEL);
    EXPECT_EQ(reader.getWorkingFPS(), 10);
    reader.release();
    avpool::test::expectProgrammingErrors<GetterError>(readerCalls);
    EXPECT_NE(avpool::test::shmIdOf(this->KEY), -1);
    EXPECT_NE(avpool::test::semIdOf(this->KEY), -1);

    this->putter.release();
    EXPECT_EQ(avpool::test::shmIdOf(this->KEY), -1);
    EXPECT_EQ(avpool::test::semIdOf(this->KEY), -1);
    auto [putMessage, putLog] = failureOf<PutterError>([&] { this->put(1, 6); });
    EXPECT_EQ(putMessage, "programming error");
    EXPECT_EQ(putLog, "programming error\n");
    {
        typename TypeParam::Putter scoped;
        scoped.init(this->CHANNEL);
    }
    EXPECT_EQ(avpool::test::shmIdOf(this->KEY), -1);
    EXPECT_EQ(avpool::test::semIdOf(this->KEY), -1);
}

TEST_F(LumPool, safeTimesCountIntervalsAheadOfTheWriterAndZeroOnTheNewestSlot) {
    start(2, 2, 10);
    put(1, 4);
    EXPECT_EQ(safeTimes(), (std::vector<int>{0, 0, 100, 200, 300, 400}));  // writer at 1
    put(2, 4);
    put(3, 4);
    EXPECT_EQ(safeTimes(), (std::vector<int>{300, 400, 0, 0, 100, 200}));  // writer at 3
    putter.reset(2, 2, 30);
    for (int k = 4; k <= 8; ++k) put(k, 4);
    EXPECT_EQ(safeTimes(), (std::vector<int>{132, 0, 0, 33, 66, 99}));  // writer at 2

    LUMGetter reader;
    reader.init(CHANNEL);
    int safe = -1;
    EXPECT_EQ(reader.toWorking(safe), 8u);
    EXPECT_EQ(safe, 0);
    EXPECT_EQ(reader.toNext(safe), 3u);
    EXPECT_EQ(safe, 33);
}

TEST_F(MdPool, safeTimesCountIntervalsAheadOfTheWriterAndTheSlotBehindKeepsFour) {
    start(2, 2, 5);
    put(1, 4);
    EXPECT_EQ(safeTimes(), (std::vector<int>{800, 0, 200, 400, 600}));  // writer at 1
    for (int k = 2; k <= 4; ++k) put(k, 4);
    EXPECT_EQ(safeTimes(), (std::vector<int>{200, 400, 600, 800, 0}));  // writer at 4

    MDGetter reader;
    reader.init(CHANNEL);
    int safe = -1;
    EXPECT_EQ(reader.toWorking(safe), 4u);
    EXPECT_EQ(safe, 0);
    EXPECT_EQ(reader.toNext(safe), 0u);  // slot 0, not written yet
    EXPECT_EQ(safe, 200);
}

TEST_F(MdPool, vibrationIsClampedAndItsIndexReachesTheSafeTimesButNoFurther) {
    start(2, 2, 5);
    MDGetter reader;
    reader.init(CHANNEL);
    EXPECT_EQ(reader.getVibration(0), FILL_WORD);
    const int cases[][2] = {{150, 100}, {-3, 0}, {42, 42}, {100, 100}, {0, 0}, {INT_MIN, 0}, {INT_MAX, 100}};
    for (const auto& c : cases) {
        putter.putVibration(0, c[0]);
        EXPECT_EQ(word(MdKind::VIBRATION), c[1]) << c[0];
        EXPECT_EQ(reader.getVibration(0), c[1]) << c[0];
    }

    // Indexes 1 to 5 are the safe times of slots 0 to 4, until the next put.
    put(1, 4);
    putter.putVibration(1, 77);
    putter.putVibration(5, 1000);
    EXPECT_EQ(safeTimes(), (std::vector<int>{77, 0, 200, 400, 100}));
    EXPECT_EQ(reader.getVibration(1), 77);
    int safe = -1;
    reader.toWorking(safe);
    for (int step = 0; step < 4; ++step) reader.toNext(safe);  // slots 2, 3, 4, 0
    EXPECT_EQ(safe, 77);
    put(2, 4);
    EXPECT_EQ(safeTimes(), (std::vector<int>{600, 800, 0, 200, 400}));

    const std::vector<unsigned char> before = image();
    for (int index : {-1, -4, 6, 7, 1000, INT_MAX, INT_MIN}) putter.putVibration(index, 50);
    EXPECT_EQ(firstDifference(image(), before), -1);
    for (int index : {-1, 6}) {
        auto [message, log] = failureOf<MDGetterError>([&] { reader.getVibration(index); });
        EXPECT_EQ(message, "programming error.") << index;
        EXPECT_EQ(log, "") << index;
    }

    // Unattached: no output, and the point at the end.
    reader.release();
    MDGetter fresh;
    for (MDGetter* g : {&reader, &fresh}) {
        auto [message, log] = failureOf<MDGetterError>([&] { g->getVibration(0); });
        EXPECT_EQ(message, "programming error.");
        EXPECT_EQ(log, "");
    }
    MDPutter unused;
    avpool::test::expectProgrammingErrors<MDPutterError>(
        std::vector<std::function<void()>>{[&] { unused.putVibration(0, 1); }});
}
