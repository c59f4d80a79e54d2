// The luminance and motion pools as other processes see them: the segment byte by
// byte after init, reset and each put, frames cut or refused, the getter reading
// in place, both safe-time forms and the vibration word.
#include "pools.h"

#include <climits>

using namespace avpool::test;

constexpr size_t HEADER = 40;

template <class Kind>
class Analysis : public Pool<Kind> {
protected:
    static size_t record(int slot) { return HEADER + Kind::RECORD * static_cast<size_t>(slot); }
    static size_t array(int slot, int a) { return record(slot) + Kind::ARRAY_AT[a]; }
    // Array a of frame k: bytes that tell frame, array and position.
    static Bytes arrayOf(int k, int a, size_t bytes) { return payload(static_cast<unsigned long long>(k * 4 + a), bytes); }
    void put(int k, int length) {
        std::vector<Bytes> arrays;
        for (int a = 0; a < Kind::ARRAYS; ++a) arrays.push_back(arrayOf(k, a, std::max(length, 0) * Kind::ELEMENT));
        Kind::put(this->putter, arrays, length, at(k, 10 * k));
    }
    // A record's head: id low and high, lockIndex, length, seconds, microseconds.
    static std::vector<int> head(int slot) { return RawSegment(Kind::KEY).words(record(slot), 6); }
};
using AnalysisKinds = ::testing::Types<LumKind, MdKind>;
TYPED_TEST_SUITE(Analysis, AnalysisKinds, KindNames);

// init leaves the fill but for the current slot, the safe times and the record
// heads; reset writes three words. Each put writes the slot after the last: its
// head and arrays, cut at an array's end; a shorter frame leaves the tail of the one
// before. A length other than the reset size is refused before anything changes.
// The locks each put opens and closes are proven by the readers of the typed suite.
TYPED_TEST(Analysis, initAndResetLeaveTheFillAndEachPutWritesTheNextSlotCutAtTheArrayOrIsRefused) {
    using Kind = TypeParam;
    const int full = Kind::WIDTH * Kind::HEIGHT;
    std::string err, out;
    captureOutput([&] { Kind::init(this->putter); }, err, &out);
    EXPECT_EQ(err + out, "");
    Bytes expected(Kind::SEGMENT, 0xCC);
    auto set = [&](size_t offset, int value) { memcpy(&expected[offset], &value, 4); };
    set(0, 0);
    for (int slot = 0; slot < Kind::SLOTS; ++slot) {
        set(Kind::SAFE_TIMES + 4 * slot, 0);
        for (size_t field : {0, 4, 12, 16, 20}) set(this->record(slot) + field, 0);
        set(this->record(slot) + 8, slot);
    }
    EXPECT_TRUE(RawSegment(Kind::KEY).all() == expected);
    this->putter.reset(full + 100, 1, 10);
    set(4, 10);
    set(8, full + 100);
    set(12, 1);
    EXPECT_TRUE(RawSegment(Kind::KEY).all() == expected);
    for (int k = 1; k < Kind::SLOTS; ++k) {  // the last slot too: nothing past the segment
        this->put(k, full + 100);
        EXPECT_EQ(RawSegment(Kind::KEY).i32(0), k);
    }
    for (int slot = 1; slot < Kind::SLOTS; ++slot) {
        EXPECT_EQ(this->head(slot), (std::vector<int>{slot, 0, slot, full + 100, slot, 10 * slot}));
        for (int a = 0; a < Kind::ARRAYS; ++a)
            EXPECT_EQ(RawSegment(Kind::KEY).bytes(this->array(slot, a), Kind::ARRAY), this->arrayOf(slot, a, Kind::ARRAY));
    }
    this->putter.reset(5, 3, 10);
    this->put(Kind::SLOTS, 15);
    auto refused = [&](int length) {
        EXPECT_EQ(failureOf<typename Kind::PutterError>([&] { this->put(9, length); }),
                  std::make_pair(std::string("frameLength is not equal to elementSize"), std::string()))
            << length;
    };
    const Bytes before = RawSegment(Kind::KEY).all();
    const std::vector<int> locks = lockValues(Kind::KEY, Kind::SLOTS);
    for (int length : {14, 16, 0}) refused(length);
    EXPECT_TRUE(RawSegment(Kind::KEY).all() == before);
    EXPECT_EQ(lockValues(Kind::KEY, Kind::SLOTS), locks);
    this->put(Kind::SLOTS + 1, 15);  // slot 1 again: counter and slot did not move
    EXPECT_EQ(RawSegment(Kind::KEY).i32(0), 1);
    EXPECT_EQ(this->head(0), (std::vector<int>{Kind::SLOTS, 0, 0, 15, Kind::SLOTS, 10 * Kind::SLOTS}));
    const size_t head = 15 * Kind::ELEMENT;
    for (int a = 0; a < Kind::ARRAYS; ++a) {
        Bytes first = this->arrayOf(Kind::SLOTS, a, head), again = this->arrayOf(1, a, Kind::ARRAY);
        first.push_back(0xCC);
        EXPECT_EQ(RawSegment(Kind::KEY).bytes(this->array(0, a), head + 1), first) << a;
        Bytes fresh = this->arrayOf(Kind::SLOTS + 1, a, head);
        std::copy(fresh.begin(), fresh.end(), again.begin());
        EXPECT_EQ(RawSegment(Kind::KEY).bytes(this->array(1, a), Kind::ARRAY), again) << a;
    }
    EXPECT_EQ((std::vector<int>{Kind::next(0), Kind::next(Kind::SLOTS - 2), Kind::next(Kind::SLOTS - 1)}),
              (std::vector<int>{1, Kind::SLOTS - 1, 0}));
    this->putter.reset(-1, 1, 10);  // a negative size is never a frame
    refused(-1);
    this->putter.reset(5, 3, 10);
    this->putter.release();
    EXPECT_EQ(failureOf<typename Kind::PutterError>([&] { this->put(1, 15); }),
              std::make_pair(std::string("programming error"), std::string("programming error\n")));
    typename Kind::Putter unused;
    EXPECT_EQ(failureOf<typename Kind::PutterError>([&] { unused.closeLock(0); }),
              std::make_pair(std::string("semctl failed."), std::string("semctl failed: Invalid argument\n")));
}

// The luminance pool leaves 0 on the slot behind the writer, the motion pool
// four intervals (here 1000 / 30 = 33 ms).
TYPED_TEST(Analysis, getterStartsOnSlotZeroReadsInPlaceAndSafeTimesTakeTheKindsForm) {
    using Kind = TypeParam;
    Kind::init(this->putter);
    this->putter.reset(3, 2, 30);
    for (int k = 1; k <= Kind::SLOTS + 2; ++k) this->put(k, 6);  // id SLOTS in slot 0, the writer at 2
    const std::vector<int> safe = Kind::FRAME_FORM ? std::vector<int>{132, 0, 0, 33, 66, 99}
                                                   : std::vector<int>{99, 132, 0, 33, 66};
    EXPECT_EQ(RawSegment(Kind::KEY).words(Kind::SAFE_TIMES, Kind::SLOTS), safe);
    typename Kind::Getter reader;
    Kind::init(reader);
    EXPECT_EQ((std::vector<int>{reader.getWorkingFPS(), reader.getWorkingWidth(), reader.getWorkingHeight()}),
              (std::vector<int>{30, 3, 2}));
    EXPECT_EQ(reader.getFrameID(), static_cast<unsigned long long>(Kind::SLOTS));
    reader.getFrame();
    EXPECT_EQ((std::vector<int>{reader.tv_sec, reader.tv_usec, reader.frameLength}),
              (std::vector<int>{Kind::SLOTS, 10 * Kind::SLOTS, 6}));
    int got = -1;
    EXPECT_EQ(reader.toNext(got), static_cast<unsigned long long>(Kind::SLOTS + 1));
    EXPECT_EQ(got, safe[1]);
    EXPECT_EQ(reader.toWorking(got), static_cast<unsigned long long>(Kind::SLOTS + 2));
    EXPECT_EQ(got, 0);
    EXPECT_EQ(reader.toNext(got), 3u);
    EXPECT_EQ(got, 33);
    reader.getFrame();
    const std::vector<const unsigned char*> arrays = Kind::arrays(reader);
    for (int a = 0; a < Kind::ARRAYS; ++a) EXPECT_EQ(Bytes(arrays[a], arrays[a] + 12), this->arrayOf(3, a, 12)) << a;
    this->put(Kind::SLOTS + 3, 6);  // in place: shows through the pointers at once
    EXPECT_EQ(Bytes(arrays[0], arrays[0] + 12), this->arrayOf(Kind::SLOTS + 3, 0, 12));
    EXPECT_EQ(reader.tv_sec, 3);  // the members were copied by getFrame
    for (int slot = 4; slot < Kind::SLOTS; ++slot) reader.toNext(got);
    EXPECT_EQ(reader.toNext(got), static_cast<unsigned long long>(Kind::SLOTS));  // wrapped to slot 0
}

// The vibration level is clamped to 0..100; its index reaches the safe times
// (indexes 1 to 5 are those of slots 0 to 4, until the next put) but no further.
class Vibration : public Pool<MdKind> {};

TEST_F(Vibration, isClampedAndItsIndexReachesTheSafeTimesButNoFurther) {
    putter.init(MdKind::CHANNEL);
    putter.reset(2, 2, 5);
    MDGetter reader;
    reader.init(MdKind::CHANNEL);
    EXPECT_EQ(reader.getVibration(0), static_cast<int>(0xCCCCCCCC));
    const int cases[][2] = {{150, 100}, {-3, 0}, {42, 42}, {100, 100}, {0, 0}, {INT_MIN, 0}, {INT_MAX, 100}};
    for (const auto& c : cases) {
        putter.putVibration(0, c[0]);
        EXPECT_EQ(RawSegment(MdKind::KEY).i32(16), c[1]) << c[0];
        EXPECT_EQ(reader.getVibration(0), c[1]) << c[0];
    }
    MdKind::put(putter, {Bytes(16), Bytes(16)}, 4, at(1));
    putter.putVibration(1, 77);
    putter.putVibration(5, 1000);
    EXPECT_EQ(RawSegment(MdKind::KEY).words(20, 5), (std::vector<int>{77, 0, 200, 400, 100}));
    int safe = -1;
    reader.toWorking(safe);
    for (int step = 0; step < 4; ++step) reader.toNext(safe);  // slots 2, 3, 4, 0
    EXPECT_EQ(std::make_pair(safe, reader.getVibration(1)), std::make_pair(77, 77));
    const Bytes before = RawSegment(MdKind::KEY).all();
    for (int index : {-1, -4, 6, 7, 1000, INT_MAX, INT_MIN}) putter.putVibration(index, 50);
    EXPECT_TRUE(RawSegment(MdKind::KEY).all() == before);
    MDGetter fresh;
    for (auto [getter, index] : {std::pair{&reader, -1}, std::pair{&reader, 6}, std::pair{&fresh, 0}})
        EXPECT_EQ(failureOf<MDGetterError>([&] { getter->getVibration(index); }),
                  std::make_pair(std::string("programming error."), std::string()));
    MDPutter unused;
    EXPECT_EQ(failureOf<MDPutterError>([&] { unused.putVibration(0, 1); }),
              std::make_pair(std::string("programming error"), std::string("programming error\n")));
}
