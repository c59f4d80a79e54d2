// The audio pools as other processes see them, every kind through one typed
// suite: the filled segment, each slot by the kind's copy and length rule, locks,
// safe times and the fragment arithmetic, read back raw; the fragment view.
#include "pools.h"

#include <algorithm>

using namespace avpool::test;

namespace {
constexpr size_t HEADER = 816, ID = 8, LENGTH = 16, SEC = 32;
constexpr unsigned char FILL = 0xCC;
constexpr int FILL_WORD = static_cast<int>(0xCCCCCCCC);
}  // namespace

template <class Kind>
class AudioPool : public Pool<Kind> {
protected:
    static size_t slot(int index) { return HEADER + Kind::SLOT * static_cast<size_t>(index); }
    // A slot's head: lockIndex, fill, id low and high, length, format, channels,
    // rate, seconds, microseconds, samples.
    static std::vector<int> head(int index) { return RawSegment(Kind::KEY).words(slot(index), 11); }
    void create() {
        std::string err, out;
        captureOutput([&] { Kind::init(this->putter); }, err, &out);
        EXPECT_EQ(out, std::string("Create ") + Kind::NAME + " sem:200\n");
        EXPECT_EQ(err, "");
    }
};
using AudioKinds = ::testing::Types<Pcm, Aac, Amr, Opus>;
TYPED_TEST_SUITE(AudioPool, AudioKinds, KindNames);

TYPED_TEST(AudioPool, initFillsTheSegmentAndZeroesTheSlotHeadsAndPutFragmentStoresByTheKindsRules) {
    using Kind = TypeParam;
    const int capacity = static_cast<int>(Kind::CAPACITY);
    this->create();
    RawSegment raw(Kind::KEY);
    Bytes expected(Kind::SEGMENT, FILL);
    auto set = [&](size_t offset, int value) { memcpy(&expected[offset], &value, 4); };
    for (size_t offset = 0; offset < 16 + 4 * 200; offset += 4) set(offset, offset < 4 || offset >= 16 ? 0 : FILL_WORD);
    for (int i = 0; i < 200; ++i) {
        for (size_t field : {size_t{0}, ID, ID + 4, LENGTH, SEC, SEC + 4}) set(this->slot(i) + field, 0);
        set(this->slot(i), i);
    }
    EXPECT_TRUE(raw.all() == expected);
    EXPECT_EQ(semIdOf(Kind::SET_KEY + 1), -1);  // one set only
    Kind::reset(this->putter, 8, 2, 16000, 77);
    const int lengths[3] = {100, capacity + 88, -3};  // short, longer than the slot, negative
    // PCM copies a whole slot and records that, OPUS copies a whole slot and records
    // the length as given, AAC and AMR copy and record the length clamped to the slot.
    for (int k = 0; k < 3; ++k) {
        Bytes bytes = payload(k + 1, 2 * Kind::CAPACITY);
        Kind::put(this->putter, bytes.data(), lengths[k], at(1000 + k, k == 0 ? 250000 : 999999), 7 + k);
    }
    EXPECT_EQ(raw.words(0, 4), (std::vector<int>{3, 8, 2, 16000}));
    for (int k = 0; k < 3; ++k) {
        SCOPED_TRACE(k);
        const int s = k + 1;
        const bool clamps = Kind::CHANNEL >= 0, whole = std::is_same_v<Kind, Pcm>;
        const int copied = clamps ? std::clamp(lengths[k], 0, capacity) : capacity;
        const int recorded = clamps || whole ? copied : lengths[k];
        EXPECT_EQ(this->head(s), (std::vector<int>{s, FILL_WORD, s, 0, recorded, 8, 2, 16000, 1000 + k,
                                                   k == 0 ? 250000 : 999999, Kind::BITS / 8 / 2 * Kind::FACTOR}));
        for (int e = 0; e < Kind::EXTRAS; ++e) EXPECT_EQ(raw.i32(this->slot(s) + 44 + 4 * e), e == 0 ? 77 : 7 + k);
        const size_t extras = 44 + 4 * Kind::EXTRAS;
        Bytes data = payload(s, copied);
        data.resize(Kind::CAPACITY, FILL);
        EXPECT_EQ(raw.bytes(this->slot(s) + Kind::DATA, Kind::CAPACITY), data);
        EXPECT_EQ(raw.bytes(this->slot(s) + extras, Kind::DATA - extras), Bytes(Kind::DATA - extras, FILL));
        const size_t tail = Kind::DATA + Kind::CAPACITY;
        EXPECT_EQ(raw.bytes(this->slot(s) + tail, Kind::SLOT - tail), Bytes(Kind::SLOT - tail, FILL));
    }
}

// Lock calls outside the set carry the system call's text.
TYPED_TEST(AudioPool, eachPutOpensItsSlotClosesTheNextAndSafeTimesCountEveryFragmentAhead) {
    using Kind = TypeParam;
    using Error = typename Kind::PutterError;
    typename Kind::Putter idle;
    EXPECT_EQ(failureOf<Error>([&] { Kind::put(idle, 1, at(1)); }).first, "semctl failed.");  // before init
    EXPECT_EQ(shmIdOf(Kind::KEY), -1);
    Kind::start(this->putter);
    this->putRange(1, 199);
    std::vector<int> expected(200, 0);
    expected[0] = 1;  // never written yet, and the next to be
    EXPECT_EQ(lockValues(Kind::SET_KEY, 200), expected);
    this->putRange(200, 205);  // round to slot 0, the writer at 5
    expected.assign(200, 0);
    expected[6] = 1;
    EXPECT_EQ(lockValues(Kind::SET_KEY, 200), expected);
    EXPECT_EQ(RawSegment(Kind::KEY).i32(0), 5);
    EXPECT_EQ(this->head(0)[2], 200);
    std::vector<int> safe(200);
    for (int k = 0; k < 200; ++k) safe[(5 + k) % 200] = k * Kind::INTERVAL;
    EXPECT_EQ(RawSegment(Kind::KEY).words(16, 200), safe);
    EXPECT_EQ(failureOf<Error>([&] { this->putter.closeLock(1000); }).first, "Over Max Semaphore Group.");
    auto [message, log] = failureOf<Error>([&] { this->putter.openLock(-250); });
    EXPECT_EQ(message, "semctl failed.");
    EXPECT_EQ(log.rfind("semctl failed: ", 0), 0u) << log;
    this->putter.release();
    EXPECT_EQ(failureOf<Error>([&] { this->putRange(1, 1); }).first, "semctl failed.");
}

TYPED_TEST(AudioPool, fragmentArithmeticTruncatesInOrderAndABadFormatKeepsTheFigures) {
    using Kind = TypeParam;
    auto& p = this->putter;
    EXPECT_EQ(p.calFragmentTime(), Kind::BITS / 8 / 16 * Kind::FACTOR);  // before init: 16 bits mono 8 kHz
    EXPECT_EQ(p.calSampleNumber(), Kind::BITS / 16 * Kind::FACTOR);
    EXPECT_EQ((std::vector<int>{p.bitsOf(1), p.bitsOf(4), p.bitsOf(8), p.bitsOf(16)}), (std::vector<int>{8, 4, 8, 16}));
    for (int format : {0, 2, 24, 32})
        EXPECT_EQ(failureOf<typename Kind::PutterError>([&] { p.bitsOf(format); }),
                  std::make_pair(std::string("not supported format"), std::string()));
    this->create();
    Kind::reset(p, 16, 2, 44100, 0);
    EXPECT_EQ(p.calFragmentTime(), Kind::BITS / 44 / 16 / 2 * Kind::FACTOR);
    Kind::reset(p, 4, 1, 22050, 0);
    EXPECT_EQ(failureOf<typename Kind::PutterError>([&] { Kind::reset(p, 24, 3, 48000, 0); }),
              std::make_pair(std::string("not supported format"), std::string()));
    EXPECT_EQ(RawSegment(Kind::KEY).words(4, 3), (std::vector<int>{24, 3, 48000}));
    Kind::put(p, payload(1, 2048).data(), 8, at(1), 0);
    const std::vector<int> head = this->head(1);  // the members took the bad values too
    EXPECT_EQ((std::vector<int>{head[5], head[6], head[10]}),
              (std::vector<int>{24, 3, Kind::BITS / 4 * Kind::FACTOR}));
    EXPECT_EQ(RawSegment(Kind::KEY).i32(16 + 8), Kind::BITS / 22 / 4 * Kind::FACTOR);
    Kind::reset(p, 16, 1, 999, 0);  // below 1 kHz, or no channels: 0, not a trap
    EXPECT_EQ(p.calFragmentTime(), 0);
    Kind::reset(p, 16, 0, 8000, 0);
    EXPECT_EQ(p.calSampleNumber(), 0);
    EXPECT_EQ(p.calFragmentTime(), 0);
}

template <class Kind>
class AudioReader : public Pool<Kind> {};
using ReadableAudio = ::testing::Types<Pcm, Aac, Opus>;
TYPED_TEST_SUITE(AudioReader, ReadableAudio, KindNames);

TYPED_TEST(AudioReader, fragmentIsShownInPlaceAndWorkingFieldsReadTheFillUntilReset) {
    using Kind = TypeParam;
    Kind::init(this->putter);
    typename Kind::Getter reader;
    Kind::init(reader);
    EXPECT_EQ((std::vector<int>{reader.getWorkingFormat(), reader.getWorkingChannels(), reader.getWorkingRate()}),
              std::vector<int>(3, FILL_WORD));
    Kind::reset(this->putter, 16, 1, 8000, 42);
    this->putRange(1, 4);
    this->put(5, at(1005, 500000));
    int safe = -1;
    ASSERT_EQ(reader.toWorking(safe), 5u);
    reader.getFragment();
    const auto& f = reader.fragment;
    EXPECT_EQ((std::vector<int>{f.format, f.channels, f.rate, f.sampleNumber, static_cast<int>(f.timestamp.tv_sec),
                                static_cast<int>(f.timestamp.tv_usec), f.length}),
              (std::vector<int>{16, 1, 8000, Kind::BITS / 16 * Kind::FACTOR, 1005, 500000,
                                static_cast<int>(Kind::CAPACITY)}));
    if constexpr (std::is_same_v<Kind, Aac>) { EXPECT_EQ(f.streamParam, 42); }
    EXPECT_EQ(Bytes(f.data, f.data + f.length), payload(5, Kind::CAPACITY));
    EXPECT_EQ((std::vector<int>{reader.getWorkingFormat(), reader.getWorkingChannels(), reader.getWorkingRate()}),
              (std::vector<int>{16, 1, 8000}));
    EXPECT_EQ(reader.getSafeTime(), 0);
}
