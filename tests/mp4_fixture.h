// The video pool under test: one channel, its segment key and all four group keys
// cleaned before and after each test, and the byte offsets of the segment written
// out as plain numbers, so that raw reads do not depend on the library's records.
#pragma once

#include <avpool/mp4.h>

#include "expect.h"
#include "ipc_harness.h"
#include "pool_layout.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace mp4_layout {
// Header, 52 bytes.
constexpr size_t GOP_COUNT = 0;
constexpr size_t FRAMES_PER_GOP = 4;
constexpr size_t MAX_FRAME_SIZE = 8;
constexpr size_t WORKING_GOP = 12;
constexpr size_t REAL_FPS = 16;
constexpr size_t WORKING_FPS = 20;
constexpr size_t WIDTH = 24;
constexpr size_t HEIGHT = 28;
constexpr size_t ONE_SAFE_TIME = 32;
constexpr size_t PREFIX_SIZE = 36;
constexpr size_t SAFE_TIME_OFFSET = 40;
constexpr size_t FRAME_INFO_OFFSET = 44;
constexpr size_t DATA_OFFSET = 48;
constexpr size_t HEADER = 52;
// Frame record, 48 bytes.
constexpr size_t GOP_ID = 0;
constexpr size_t FRAME_ID = 8;
constexpr size_t F_WIDTH = 16;
constexpr size_t F_HEIGHT = 20;
constexpr size_t F_FPS = 24;
constexpr size_t LOCK_INDEX = 28;
constexpr size_t LENGTH = 32;
constexpr size_t SEC = 36;
constexpr size_t USEC = 40;
constexpr size_t POSITION = 44;
constexpr size_t RECORD = 48;

// safeTime(slot), record(poolSize, slot), ring(poolSize).
using Tables = avpool::test::SlotTables<HEADER, RECORD>;
inline constexpr auto safeTime = &Tables::safeTime;
inline constexpr auto record = &Tables::record;
inline constexpr auto ring = &Tables::ring;
}  // namespace mp4_layout

using avpool::test::at;
using avpool::test::failureOf;

class Mp4Pool : public ::testing::Test {
protected:
    static constexpr int CHANNEL = 3;
    static constexpr key_t KEY = 0x4B00 + CHANNEL;
    static constexpr key_t semKey(int group) { return 0x4B00 + CHANNEL * 16 + group; }

    // Creates the pool with a data ring of ringBytes (the size argument covers
    // the tables too); the putter's diagnostics are kept in initErr and initOut.
    void create(int gopCount, int framesPerGop, int maxFrameSize, int ringBytes) {
        create(putter, gopCount, framesPerGop, maxFrameSize, ringBytes);
    }
    void create(MP4Putter& p, int gopCount, int framesPerGop, int maxFrameSize, int ringBytes) {
        const int size = mp4_layout::Tables::sizeFor(gopCount * framesPerGop, ringBytes);
        avpool::test::captureOutput([&] { p.init(CHANNEL, gopCount, framesPerGop, maxFrameSize, size); }, initErr,
                                    &initOut);
    }

    // create() and working parameters of 640 x 480 at fps.
    void start(int gopCount, int framesPerGop, int maxFrameSize, int ringBytes, int fps = 25) {
        create(gopCount, framesPerGop, maxFrameSize, ringBytes);
        putter.reset(640, 480, fps);
    }

    static void* bytesOf(const std::string& bytes) { return const_cast<char*>(bytes.data()); }
    static int lengthOf(const std::string& bytes) { return static_cast<int>(bytes.size()); }
    int putI(const std::string& bytes, int second = 0, int microsecond = 0) {
        return putI(putter, bytes, second, microsecond);
    }
    static int putI(MP4Putter& p, const std::string& bytes, int second = 0, int microsecond = 0) {
        return p.putIFrame(bytesOf(bytes), lengthOf(bytes), at(second, microsecond));
    }
    void putP(const std::string& bytes, int second = 0, int microsecond = 0) {
        putP(putter, bytes, second, microsecond);
    }
    static void putP(MP4Putter& p, const std::string& bytes, int second = 0, int microsecond = 0) {
        p.putPFrame(bytesOf(bytes), lengthOf(bytes), at(second, microsecond));
    }
    // One GOP: an I frame and frames - 1 P frames named "<name>.<k>", all at one time.
    void putGop(const std::string& name, int frames, int second = 0, int microsecond = 0) {
        ASSERT_EQ(putI(name + ".0", second, microsecond), 0);
        for (int k = 1; k < frames; ++k) putP(name + "." + std::to_string(k), second, microsecond);
    }

    // Attaches a reader; its line of addresses is kept in attachLog.
    void attach(MP4Getter& reader) {
        avpool::test::captureOutput([&] { reader.init(CHANNEL); }, attachLog);
    }

    // Raw reads of this test's pool; its number of slots is read from its
    // header (0 while there is no pool).
    static int poolSize() {
        avpool::test::RawSegment raw(KEY);
        return raw.attached() ? raw.i32(mp4_layout::GOP_COUNT) * raw.i32(mp4_layout::FRAMES_PER_GOP) : 0;
    }
    int32_t header(size_t offset) const { return avpool::test::RawSegment(KEY).i32(offset); }
    int32_t field(int slot, size_t offset) const {
        return avpool::test::RawSegment(KEY).i32(mp4_layout::record(poolSize(), slot) + offset);
    }
    uint64_t frameIdIn(int slot) const {
        return avpool::test::RawSegment(KEY).u64(mp4_layout::record(poolSize(), slot) + mp4_layout::FRAME_ID);
    }
    uint64_t gopIdIn(int slot) const {
        return avpool::test::RawSegment(KEY).u64(mp4_layout::record(poolSize(), slot) + mp4_layout::GOP_ID);
    }
    std::vector<int> safeTimes() const { return mp4_layout::Tables::safeTimes(KEY, poolSize()); }
    // Lock values of every slot, each read from its group's set.
    std::vector<int> locks() const {
        const int slots = poolSize();
        std::vector<int> values;
        for (int slot = 0; slot < slots; ++slot) values.push_back(lockOf(slot));
        return values;
    }
    static int lockOf(int slot) { return avpool::test::lockValue(semKey(slot / 250), slot % 250); }
    static int waitersOn(int slot) { return avpool::test::lockWaiters(semKey(slot / 250), slot % 250); }

    static std::string text(const MP4Getter& reader) {
        return std::string(reinterpret_cast<const char*>(reader.frameData), static_cast<size_t>(reader.frameLength));
    }

    avpool::test::IpcKeys keys{KEY, semKey(0), semKey(1), semKey(2), semKey(3)};
    MP4Putter putter;  // declared after keys: its pool is released before the keys are cleaned
    std::string initErr;
    std::string initOut;
    std::string attachLog;
};

// Per-slot expectations written GOP by GOP: {{1, 0, 0}, {0, 1, 1}} for two GOPs of three.
inline std::vector<int> perGop(std::initializer_list<std::initializer_list<int>> gops) {
    std::vector<int> values;
    for (const auto& gop : gops) values.insert(values.end(), gop.begin(), gop.end());
    return values;
}
