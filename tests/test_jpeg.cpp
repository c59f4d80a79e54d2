// The JPEG pool as other processes see it: header, tables, the data ring with its
// id prefixes and padding, locks and safe times read back raw from the segment,
// frames whose bytes were reused, and a second writer taking over the key.
#include "pools.h"

using namespace avpool::test;

namespace {
constexpr int CHANNEL = JpegKind::CHANNEL;
constexpr key_t KEY = JpegKind::KEY;
size_t record(int slots, int slot) { return 172 + 4 * static_cast<size_t>(slots) + 48 * static_cast<size_t>(slot); }
size_t ring(int slots) { return 172 + 52 * static_cast<size_t>(slots); }
// A record's words: id low and high, lockIndex, length, seconds, microseconds,
// width, height, fps, quality, data position, reserved.
std::vector<int> recordOf(int slots, int slot) { return RawSegment(KEY).words(record(slots, slot), 12); }
std::string text(const JPGFrame& f) { return std::string(reinterpret_cast<char*>(f.data), f.frameLength); }
}  // namespace

class Jpeg : public Pool<JpegKind> {
protected:
    void create(JPGPutter& p, int slots, int maxFrameSize, int ringBytes) {
        std::string err;
        captureOutput([&] { p.init(CHANNEL, slots, maxFrameSize, ringBytes + 52 * slots); }, err);
    }
    static int put(JPGPutter& p, const std::string& bytes, int second = 0, int microsecond = 0) {
        return p.putFrame(const_cast<char*>(bytes.data()), static_cast<int>(bytes.size()), at(second, microsecond));
    }
    int put(const std::string& bytes, int second = 0, int microsecond = 0) { return put(putter, bytes, second, microsecond); }
};

TEST_F(Jpeg, initLaysOutHeaderTablesAndClosedLocksReadAsAnEmptySlotZeroAndThirtySlotsIsTheLimit) {
    create(putter, 4, 100, 200);
    RawSegment raw(KEY);
    ASSERT_EQ(raw.size(), 580u);
    EXPECT_EQ(raw.words(0, 8), (std::vector<int>{4, 100, 0, 0, 0, 0, 0, 8}));
    EXPECT_EQ(raw.bytes(32, 128), Bytes(128, 0));  // quantisation tables
    EXPECT_EQ(raw.words(160, 7), (std::vector<int>{172, 188, 380, 0, 0, 0, 0}));  // offsets, safe times
    for (int slot = 0; slot < 4; ++slot)
        EXPECT_EQ(recordOf(4, slot), (std::vector<int>{0, 0, slot, 0, 0, 0, 0, 0, 0, 0, 0, 0})) << slot;
    EXPECT_EQ(raw.bytes(ring(4), 200), Bytes(200, 0));
    EXPECT_EQ(lockValues(KEY, 5), (std::vector<int>{1, 1, 1, 1, -1}));
    JPGGetter reader;  // a fresh pool reads as an empty slot 0, which counts as intact
    reader.init(CHANNEL);
    int safe = -1;
    EXPECT_EQ(reader.toWorking(safe), 0u);
    reader.getFrame();
    EXPECT_EQ(std::make_pair(safe, reader.frame.frameLength), std::make_pair(0, 0));
    putter.release();
    create(putter, 30, 16, 64);
    EXPECT_EQ(semCountAt(KEY), 30);
    putter.release();
    EXPECT_EQ(failureOf<JPGPutterError>([&] { putter.init(CHANNEL, 31, 16, 64 + 52 * 31); }),
              std::make_pair(std::string("programming error, frameCount exceed JPG_MAX_FRAME_COUNT"), std::string()));
    EXPECT_TRUE(shmIdOf(KEY) == -1 && semIdOf(KEY) == -1);
}

// Each frame carries what reset and changeQuality set before it: reset takes only a
// positive size and rate and a quality of 0 or more, changeQuality any quality.
TEST_F(Jpeg, framesUpToTheMaximumGoIntoTheRingBehindTheirIdPrefixPaddedAndWrapAndCarryTheSettings) {
    create(putter, 4, 29, 64);
    putter.reset(352, 288, 10, 50);
    putter.putRealFPS(24);
    const size_t base = ring(4);
    RawSegment raw(KEY);
    const Bytes header = raw.bytes(0, 172);
    putter.reset(0, 0, 0, -1);  // keeps everything
    EXPECT_EQ(raw.bytes(0, 172), header);
    ASSERT_EQ(put("ABCDE", 1000, 1), 1);  // slot 1, id 1, ring offset 0, 3 bytes of padding
    const Bytes before = raw.all();
    const std::vector<int> locks = lockValues(KEY, 4);
    EXPECT_EQ(put(std::string(30, 'z')), 0);  // one byte over the maximum: no trace
    EXPECT_EQ(raw.all(), before);
    EXPECT_EQ(lockValues(KEY, 4), locks);
    EXPECT_EQ(raw.i32(8), 1);
    EXPECT_EQ(recordOf(4, 1), (std::vector<int>{1, 0, 1, 5, 1000, 1, 352, 288, 10, 50, 0, 0}));
    EXPECT_EQ(raw.bytes(base, 16), (Bytes{1, 0, 0, 0, 0, 0, 0, 0, 'A', 'B', 'C', 'D', 'E', 0, 0, 0}));
    EXPECT_EQ(raw.u64(record(4, 0)), 0u);
    putter.changeQuality(-7);
    putter.reset(320, 0, 0, -1);
    ASSERT_EQ(put(std::string(20, '\xEE'), 1001), 1);  // 16 bytes on; no padding
    EXPECT_EQ(recordOf(4, 2), (std::vector<int>{2, 0, 2, 20, 1001, 0, 320, 288, 10, -7, 16, 0}));
    EXPECT_EQ(raw.u64(base + 16), 2u);
    EXPECT_EQ(raw.bytes(base + 24, 20), Bytes(20, 0xEE));
    // 44 + 8 + 25 + 3 > 64: back to 0; the padding zeroes filler bytes, the tail stays.
    putter.reset(0, 0, 0, 0);
    ASSERT_EQ(put(std::string(25, 'x'), 1002), 1);
    EXPECT_EQ(recordOf(4, 3), (std::vector<int>{3, 0, 3, 25, 1002, 0, 320, 288, 10, 0, 0, 0}));
    EXPECT_EQ(raw.u64(base), 3u);
    Bytes padded(25, 'x');
    padded.resize(28, 0);
    EXPECT_EQ(raw.bytes(base + 8, 28), padded);
    EXPECT_EQ(raw.bytes(base + 36, 8), Bytes(8, 0xEE));
    // 36 + 8 + 20 fills the ring exactly: no wrap; slot 0 gets its first frame.
    ASSERT_EQ(put(std::string(20, 'y'), 1003), 1);
    EXPECT_EQ(raw.i32(8), 0);
    EXPECT_EQ(raw.u64(record(4, 0)), 4u);
    EXPECT_EQ(raw.i32(record(4, 0) + 40), 36);
    EXPECT_EQ(raw.u64(base + 36), 4u);
    EXPECT_EQ(raw.bytes(base + 44, 20), Bytes(20, 'y'));
    // The ring is what dataSize leaves after 52 bytes a slot: 28 + 8 + 29 + 3 is
    // one word too many for it. 29 bytes is the maximum.
    ASSERT_EQ(put(std::string(20, 'z'), 1004), 1);
    ASSERT_EQ(put(std::string(29, 'w'), 1005), 1);
    EXPECT_EQ(putter.getMaxFrameSize(), 29);
    EXPECT_EQ(recordOf(4, 1)[10], 0);
    EXPECT_EQ(recordOf(4, 2)[10], 0);
    Bytes tables = payload(1, 128);
    putter.putQuantTables(tables.data(), tables.data() + 64);
    EXPECT_EQ(raw.words(12, 4), (std::vector<int>{24, 10, 320, 288}));
    EXPECT_EQ(raw.bytes(32, 128), tables);
    EXPECT_EQ(raw.i32(160), 172);
    JPGGetter reader;
    reader.init(CHANNEL);
    putter.putRealFPS(12);  // read live
    EXPECT_EQ(Bytes(reader.getLumQT(), reader.getLumQT() + 64), Bytes(tables.begin(), tables.begin() + 64));
    EXPECT_EQ(Bytes(reader.getChromQT(), reader.getChromQT() + 64), Bytes(tables.begin() + 64, tables.end()));
    EXPECT_EQ((std::vector<int>{reader.getWorkingWidth(), reader.getWorkingHeight(), reader.getWorkingFPS(),
                                reader.getRealFPS()}),
              (std::vector<int>{320, 288, 10, 12}));
}

// Ring of 100 bytes. Frames 1-5 (16 bytes with prefix) lie at 0 .. 64; frame 6
// (40 bytes) starts at 0 and covers the bytes of frames 1, 2 and 3. Where frame
// 2's prefix was, it carries the words 2, 1: the low word alone would match.
// Safe times count intervals of 1000 / 30 = 33 ms ahead of the writer, 0 behind it.
TEST_F(Jpeg, framesWhoseBytesWereReusedAreSkippedByGetFrameAndTheSearches) {
    create(putter, 6, 64, 100);
    putter.reset(1, 1, 30, 1);
    for (int id = 1; id <= 5; ++id) ASSERT_EQ(put("payload" + std::to_string(id), 100 + id), 1);
    std::string big(40, '\xAB');
    big.replace(8, 8, std::string("\x02\0\0\0\x01\0\0\0", 8));
    ASSERT_EQ(put(big, 106), 1);
    EXPECT_EQ(RawSegment(KEY).words(172, 6), (std::vector<int>{0, 33, 66, 99, 132, 0}));  // writer at 0
    EXPECT_EQ(RawSegment(KEY).words(12, 4), (std::vector<int>{30, 30, 1, 1}));  // reset sets realFPS too
    JPGGetter reader;
    reader.init(CHANNEL);
    int safe = 0;
    EXPECT_EQ(reader.toWorking(safe), 6u);
    EXPECT_EQ(reader.toNext(safe), 1u);  // no check here
    reader.getFrame();                   // skips ids 1, 2, 3
    EXPECT_EQ(reader.getFrameID(), 4u);
    EXPECT_EQ(text(reader.frame), "payload4");
    EXPECT_EQ(reader.frame.tv_sec, 104);
    EXPECT_EQ(reader.toOldestWorking(safe, 0), 4u);  // starts at id 3, which is broken
    EXPECT_EQ(reader.toOldestWorking(safe, 103, 0), 4u);
    EXPECT_EQ(reader.toExactWorking(safe, 103), avpool::NOT_FOUND);
    EXPECT_EQ(reader.toExactWorking(safe, 104), 4u);
    EXPECT_EQ(reader.toExactWorking(safe, 106), 6u);
    reader.getFrame();
    EXPECT_EQ(text(reader.frame), big);
    EXPECT_EQ(reader.frame.data, reader.getLumQT() - 32 + ring(6) + 8);  // in place, behind the prefix
}

// A second writer takes the key: readers attached before keep the old pool, and the
// first writer's release leaves the new one alone. The new pool's one slot is
// rewritten in place by every frame and left open.
TEST_F(Jpeg, secondWriterTakesTheKeyWhileAttachedReadersKeepTheOldPoolAndASingleSlotIsRewritten) {
    create(putter, 4, 16, 128);
    putter.reset(640, 480, 10, 1);
    put("old");
    const int oldShm = shmIdOf(KEY);
    JPGGetter early, late;
    early.init(CHANNEL);
    JPGPutter second;
    create(second, 1, 16, 64);
    second.reset(320, 240, 10, 1);
    EXPECT_NE(shmIdOf(KEY), oldShm);
    const int newShm = shmIdOf(KEY), newSem = semIdOf(KEY);
    putter.release();
    EXPECT_EQ(std::make_pair(shmIdOf(KEY), semIdOf(KEY)), std::make_pair(newShm, newSem));
    EXPECT_EQ(second.nextJPGFrame(0), 0);
    late.init(CHANNEL);
    for (int k = 1; k <= 3; ++k) {
        ASSERT_EQ(put(second, "new" + std::to_string(k)), 1);
        // max size, current slot, the record's id, its safe time, its lock
        EXPECT_EQ(RawSegment(KEY).words(4, 2), (std::vector<int>{16, 0})) << k;
        EXPECT_EQ((std::vector<int>{recordOf(1, 0)[0], RawSegment(KEY).i32(172), lockValue(KEY, 0)}),
                  (std::vector<int>{k, 0, 0}));
        int safe = -1;
        EXPECT_EQ(late.toWorking(safe), static_cast<unsigned long long>(k));
        late.getFrame();
        EXPECT_EQ(text(late.frame), "new" + std::to_string(k));
    }
    int safe;
    EXPECT_EQ(early.toWorking(safe), 1u);
    early.getFrame();
    EXPECT_EQ(text(early.frame), "old");
    EXPECT_EQ(early.getWorkingWidth(), 640);
}
