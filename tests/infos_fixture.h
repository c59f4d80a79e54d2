// The information area under test: key 1168 (segment and lock) cleaned before
// and after each test, the encoder's InfosPutter, one server's InfosGetter, and
// the byte offsets of the segment written out as plain numbers, so that raw
// reads do not depend on the library's own record types.
#pragma once

#include <avpool/infos.h>

#include "expect.h"
#include "ipc_harness.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace infos_layout {
constexpr key_t KEY = 1168;  // the segment's and the lock's
constexpr size_t SIZE = 6552;
constexpr size_t SIZEOF_POOLS = 0;
constexpr size_t MAX_CONN = 4;
constexpr size_t TOTAL = 8;
constexpr size_t SLATS = 12;
constexpr size_t WEIGHTS = 1092;
constexpr size_t PROFILES = 1132;
// User slat, 108 bytes.
constexpr size_t SLAT = 108;
constexpr size_t SLAT_ID = 0;
constexpr size_t USER_TYPE = 4;
constexpr size_t USER_NAME = 8;
constexpr size_t USER_INFO = 40;
constexpr size_t LOGIN_TIME = 104;
// Media profile, 1084 bytes.
constexpr long PROFILE = 1084;
constexpr long STATE = 0;
constexpr long CHANNEL = 4;
constexpr long INFO_PARAM3 = 8;
constexpr long WIDTH = 12;
constexpr long HEIGHT = 16;
constexpr long VIDEO_PARAM3 = 20;
constexpr long AUDIO_PARAM1 = 24;
constexpr long AUDIO_PARAM2 = 28;
constexpr long AUDIO_PARAM3 = 32;
constexpr long FRAME_DURATION = 36;
constexpr long SHARED_MEM_SIZE = 40;
constexpr long SDP_BLOCK = 44;
constexpr long SDP_HEADER = 48;
constexpr long SPS = 304;
constexpr long SPS_SIZE = 560;
constexpr long PPS = 564;
constexpr long PPS_SIZE = 820;
constexpr long VOL = 824;
constexpr long VOL_SIZE = 1080;

constexpr int FREE = 32767;

inline size_t slat(int i, size_t field) {
    return SLATS + SLAT * static_cast<size_t>(i) + field;
}
inline size_t weight(int i) {
    return WEIGHTS + 4 * static_cast<size_t>(i);
}
// Signed: profile -1 lies inside the segment, 1084 bytes before profile 0.
inline size_t profile(int p, long field) {
    return static_cast<size_t>(static_cast<long>(PROFILES) + PROFILE * p + field);
}
}  // namespace infos_layout

// The 32-bit word at p, in the machine's byte order.
inline int32_t wordAt(const void* p) {
    int32_t value;
    memcpy(&value, p, sizeof value);
    return value;
}

class InfosArea : public ::testing::Test {
protected:
    static constexpr key_t KEY = infos_layout::KEY;

    // The encoder's start: area created, profile count and budget published.
    void start(int maxConn = 10, int sizeofPools = MAX_MEDIA_POOL) {
        encoder.init(KEY);
        encoder.putSizeofPools(sizeofPools);
        encoder.putMaxConn(maxConn);
    }
    // start() and the server's getter attached.
    void startServing(int maxConn = 10, int sizeofPools = MAX_MEDIA_POOL) {
        start(maxConn, sizeofPools);
        server.init(KEY);
    }

    // The encoder's view of the segment, for writes the put operations do not
    // make: profile 0's block lies 1176 bytes after the segment's start.
    unsigned char* encoderBase() { return encoder.GetSDPHeader(0) - infos_layout::profile(0, infos_layout::SDP_BLOCK); }
    void writeWord(size_t offset, int32_t value) { memcpy(encoderBase() + offset, &value, sizeof value); }
    // Every 32-bit word of the segment set to its own byte offset, then the
    // profile count put back: a pointer or an int read from anywhere tells
    // where it was read.
    void fillWithOwnOffsets(int sizeofPools = MAX_MEDIA_POOL) {
        for (size_t offset = 0; offset < infos_layout::SIZE; offset += 4) writeWord(offset, static_cast<int32_t>(offset));
        encoder.putSizeofPools(sizeofPools);
    }

    // Raw reads of the segment under KEY.
    static int32_t raw(size_t offset) { return avpool::test::RawSegment(KEY).i32(offset); }
    static int32_t slatField(int i, size_t field) { return raw(infos_layout::slat(i, field)); }
    static int32_t slatWeight(int i) { return raw(infos_layout::weight(i)); }
    static std::string rawBytes(size_t offset, size_t count) {
        auto bytes = avpool::test::RawSegment(KEY).bytes(offset, count);
        return std::string(bytes.begin(), bytes.end());
    }
    // The NUL-terminated text of a field.
    static std::string rawText(size_t offset, size_t width) {
        std::string field = rawBytes(offset, width);
        return field.substr(0, field.find('\0'));
    }
    static std::string userName(int i) { return rawText(infos_layout::slat(i, infos_layout::USER_NAME), 32); }
    static std::string userInfo(int i) { return rawText(infos_layout::slat(i, infos_layout::USER_INFO), 64); }
    static bool slatFree(int i) { return slatField(i, infos_layout::SLAT_ID) == infos_layout::FREE && slatWeight(i) == 0; }

    avpool::test::IpcKeys keys{KEY};
    InfosPutter encoder;  // after keys: the area is released before the keys are cleaned
    InfosGetter server;
};
