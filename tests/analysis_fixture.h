// The analysis pools under test: one channel of the luminance or the motion pool,
// its key cleaned before and after each test, and the byte offsets of the segment
// written out as plain numbers, so that raw reads do not depend on the library's
// own record types. Frame k carries a payload that is a function of k alone.
#pragma once

#include <avpool/lum.h>
#include <avpool/md.h>

#include "expect.h"
#include "ipc_harness.h"
#include "pool_layout.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <string>
#include <type_traits>
#include <vector>

namespace analysis_layout {
// Header, both kinds.
constexpr size_t CURRENT = 0;
constexpr size_t WORKING_FPS = 4;
constexpr size_t WORKING_WIDTH = 8;
constexpr size_t WORKING_HEIGHT = 12;
constexpr size_t HEADER = 40;
// Slot record head, both kinds.
constexpr size_t ID = 0;
constexpr size_t LOCK_INDEX = 8;
constexpr size_t LENGTH = 12;
constexpr size_t SEC = 16;
constexpr size_t USEC = 20;
constexpr int32_t FILL_WORD = -858993460;  // 0xCCCCCCCC
}  // namespace analysis_layout

using Arrays = std::vector<std::vector<unsigned char>>;

template <class PutterType, class GetterType, class PutterErrorType, class GetterErrorType>
struct KindClasses {
    using Putter = PutterType;
    using Getter = GetterType;
    using PutterError = PutterErrorType;
    using GetterError = GetterErrorType;
};

struct LumKind : KindClasses<LUMPutter, LUMGetter, LUMPutterError, LUMGetterError> {
    static constexpr key_t BASE_KEY = 19712;
    static constexpr int SLOTS = 6;
    static constexpr size_t SIZE = 61624;
    static constexpr size_t RECORD = 10264;
    static constexpr size_t SAFE_TIMES = 16;
    static constexpr size_t ELEMENT = 2;  // bytes per sample
    static constexpr size_t ARRAY = 10240;
    static constexpr size_t ARRAY_AT[] = {24};
    static constexpr int WIDTH = 80, HEIGHT = 64;  // fills a slot exactly
    static int next(int i) { return nextLUMFrame(i); }
    static void put(Putter& p, Arrays& a, int length, const timeval& t) { p.putFrame(a[0].data(), length, t); }
    static std::vector<const unsigned char*> arrays(const Getter& g) {
        return {reinterpret_cast<const unsigned char*>(g.samples)};
    }
};

struct MdKind : KindClasses<MDPutter, MDGetter, MDPutterError, MDGetterError> {
    static constexpr key_t BASE_KEY = 19968;
    static constexpr int SLOTS = 5;
    static constexpr size_t SIZE = 123040;
    static constexpr size_t RECORD = 24600;
    static constexpr size_t VIBRATION = 16;  // index 0; indexes 1 to 5 are the safe times
    static constexpr size_t SAFE_TIMES = 20;
    static constexpr size_t ELEMENT = 4;
    static constexpr size_t ARRAY = 12288;
    static constexpr size_t ARRAY_AT[] = {24, 12312};
    static constexpr int WIDTH = 64, HEIGHT = 48;
    static int next(int i) { return nextMDFrame(i); }
    static void put(Putter& p, Arrays& a, int length, const timeval& t) {
        p.putFrame(a[0].data(), a[1].data(), length, t);
    }
    static std::vector<const unsigned char*> arrays(const Getter& g) {
        return {reinterpret_cast<const unsigned char*>(g.firstArray),
                reinterpret_cast<const unsigned char*>(g.secondArray)};
    }
};

template <class Kind>
class AnalysisPool : public ::testing::Test {
protected:
    using Putter = typename Kind::Putter;
    using Getter = typename Kind::Getter;
    using PutterError = typename Kind::PutterError;
    using GetterError = typename Kind::GetterError;
    static constexpr int CHANNEL = 3;
    static constexpr key_t KEY = Kind::BASE_KEY + CHANNEL;
    static constexpr int ARRAYS = static_cast<int>(std::size(Kind::ARRAY_AT));

    void start(int width, int height, int fps) {
        putter.init(CHANNEL);
        putter.reset(width, height, fps);
    }

    // Payload byte i of array a of frame k.
    static unsigned char pattern(int k, int a, size_t i) {
        return static_cast<unsigned char>(k * 31 + a * 101 + static_cast<int>(i % 251));
    }
    static std::vector<unsigned char> payload(int k, int a, size_t bytes) {
        std::vector<unsigned char> out(bytes);
        for (size_t i = 0; i < bytes; ++i) out[i] = pattern(k, a, i);
        return out;
    }
    // Frame k of length elements, stamped k seconds and 10 k microseconds.
    static void put(Putter& p, int k, int length) {
        Arrays arrays;
        const size_t bytes = static_cast<size_t>(std::max(length, 0)) * Kind::ELEMENT;
        for (int a = 0; a < ARRAYS; ++a) arrays.push_back(payload(k, a, bytes));
        Kind::put(p, arrays, length, avpool::test::at(k, 10 * k));
    }
    void put(int k, int length) { put(putter, k, length); }

    // Raw offsets and reads of this test's pool.
    static size_t record(int slot) { return analysis_layout::HEADER + Kind::RECORD * static_cast<size_t>(slot); }
    static size_t array(int slot, int a) { return record(slot) + Kind::ARRAY_AT[a]; }
    static std::vector<unsigned char> image() {
        avpool::test::RawSegment raw(KEY);
        return raw.bytes(0, raw.size());
    }
    static int32_t word(size_t offset) { return avpool::test::RawSegment(KEY).i32(offset); }
    static uint64_t idIn(int slot) { return avpool::test::RawSegment(KEY).u64(record(slot) + analysis_layout::ID); }
    static std::vector<int> safeTimes() {
        std::vector<int> values;
        for (int slot = 0; slot < Kind::SLOTS; ++slot) values.push_back(word(Kind::SAFE_TIMES + 4 * slot));
        return values;
    }
    static std::vector<int> locks() { return avpool::test::lockValues(KEY, Kind::SLOTS); }
    // The offset of the first byte where two images differ, -1 when they agree.
    static long firstDifference(const std::vector<unsigned char>& a, const std::vector<unsigned char>& b) {
        if (a.size() != b.size()) return static_cast<long>(std::min(a.size(), b.size()));
        for (size_t i = 0; i < a.size(); ++i)
            if (a[i] != b[i]) return static_cast<long>(i);
        return -1;
    }

    avpool::test::IpcKeys keys{KEY};
    Putter putter;  // declared after keys: its pool is released before the keys are cleaned
};

using AnalysisKinds = ::testing::Types<LumKind, MdKind>;

struct AnalysisKindNames {
    template <class Kind>
    static std::string GetName(int) {
        return std::is_same_v<Kind, LumKind> ? "Lum" : "Md";
    }
};

using LumPool = AnalysisPool<LumKind>;
using MdPool = AnalysisPool<MdKind>;
