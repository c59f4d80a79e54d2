// The JPEG pool under test: one channel, its key cleaned before and after each
// test, and the byte offsets of the segment written out as plain numbers, so
// that raw reads do not depend on the library's own record types.
#pragma once

#include <avpool/jpg.h>

#include "expect.h"
#include "ipc_harness.h"
#include "pool_layout.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace jpeg_layout {
// Header.
constexpr size_t FRAME_COUNT = 0;
constexpr size_t MAX_FRAME_SIZE = 4;
constexpr size_t CURRENT = 8;
constexpr size_t REAL_FPS = 12;
constexpr size_t WORKING_FPS = 16;
constexpr size_t WORKING_WIDTH = 20;
constexpr size_t WORKING_HEIGHT = 24;
constexpr size_t PREFIX_SIZE = 28;
constexpr size_t LUM_QT = 32;
constexpr size_t CHROM_QT = 96;
constexpr size_t SAFE_TIME_OFFSET = 160;
constexpr size_t FRAME_INFO_OFFSET = 164;
constexpr size_t DATA_OFFSET = 168;
constexpr size_t HEADER = 172;
// Frame record, 48 bytes.
constexpr size_t ID = 0;
constexpr size_t LOCK_INDEX = 8;
constexpr size_t LENGTH = 12;
constexpr size_t SEC = 16;
constexpr size_t USEC = 20;
constexpr size_t WIDTH = 24;
constexpr size_t HEIGHT = 28;
constexpr size_t FPS = 32;
constexpr size_t QUALITY = 36;
constexpr size_t POSITION = 40;
constexpr size_t RECORD = 48;

// safeTime(slot), record(frameCount, slot), ring(frameCount).
using Tables = avpool::test::SlotTables<HEADER, RECORD>;
inline constexpr auto safeTime = &Tables::safeTime;
inline constexpr auto record = &Tables::record;
inline constexpr auto ring = &Tables::ring;
}  // namespace jpeg_layout

using avpool::test::at;
using avpool::test::failureOf;

class JpegPool : public ::testing::Test {
protected:
    static constexpr int CHANNEL = 5;
    static constexpr key_t KEY = 19456 + CHANNEL;

    // Creates the pool with a data ring of ringBytes (dataSize covers the tables
    // too); the putter's diagnostics are kept in initLog instead of the output.
    void create(int frameCount, int maxFrameSize, int ringBytes) {
        create(putter, frameCount, maxFrameSize, ringBytes);
    }
    void create(JPGPutter& p, int frameCount, int maxFrameSize, int ringBytes) {
        avpool::test::captureOutput(
            [&] { p.init(CHANNEL, frameCount, maxFrameSize, jpeg_layout::Tables::sizeFor(frameCount, ringBytes)); },
            initLog);
    }

    // create() and working parameters of 10 fps (100 ms per frame), 1 x 1.
    void start(int frameCount, int maxFrameSize, int ringBytes) {
        create(frameCount, maxFrameSize, ringBytes);
        putter.reset(1, 1, 10, 1);
    }

    int put(const std::string& bytes, int second = 0, int microsecond = 0) {
        return put(putter, bytes, second, microsecond);
    }
    static int put(JPGPutter& p, const std::string& bytes, int second = 0, int microsecond = 0) {
        return p.putFrame(const_cast<char*>(bytes.data()), static_cast<int>(bytes.size()), at(second, microsecond));
    }

    // Raw reads of this test's pool; its frame count is read from its header
    // (0 while there is no pool).
    static int frameCount() {
        avpool::test::RawSegment raw(KEY);
        return raw.attached() ? raw.i32(jpeg_layout::FRAME_COUNT) : 0;
    }
    int32_t header(size_t offset) const { return avpool::test::RawSegment(KEY).i32(offset); }
    int32_t field(int slot, size_t offset) const {
        return avpool::test::RawSegment(KEY).i32(jpeg_layout::record(frameCount(), slot) + offset);
    }
    uint64_t frameIdIn(int slot) const {
        return avpool::test::RawSegment(KEY).u64(jpeg_layout::record(frameCount(), slot) + jpeg_layout::ID);
    }
    std::vector<int> safeTimes() const { return jpeg_layout::Tables::safeTimes(KEY, frameCount()); }
    std::vector<int> locks() const { return avpool::test::lockValues(KEY, frameCount()); }

    static std::string text(const JPGFrame& frame) {
        return std::string(reinterpret_cast<const char*>(frame.data), static_cast<size_t>(frame.frameLength));
    }

    avpool::test::IpcKeys keys{KEY};
    JPGPutter putter;  // declared after keys: its pool is released before the keys are cleaned
    std::string initLog;
};
