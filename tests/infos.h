// The information area under test: key 1168 cleaned before and after each test,
// the encoder, one server, and the segment's byte offsets as plain numbers, so
// that raw reads do not depend on the library's own record types.
#pragma once

#include <avpool/infos.h>
#include <avpool/jpg.h>

#include "expect.h"
#include "ipc_harness.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace infos_layout {
constexpr key_t KEY = 1168;
constexpr size_t SIZE = 6552, MAX_CONN = 4, TOTAL = 8, SLATS = 12, WEIGHTS = 1092, PROFILES = 1132;
// User slat, 108 bytes.
constexpr size_t SLAT = 108, SLAT_ID = 0, USER_TYPE = 4, USER_NAME = 8, USER_INFO = 40, LOGIN_TIME = 104;
// Media profile, 1084 bytes.
constexpr long PROFILE = 1084, STATE = 0, CHANNEL = 4, INFO_PARAM3 = 8, WIDTH = 12, HEIGHT = 16, VIDEO_PARAM3 = 20,
               AUDIO_PARAM1 = 24, AUDIO_PARAM2 = 28, AUDIO_PARAM3 = 32, FRAME_DURATION = 36, SHARED_MEM_SIZE = 40,
               SDP_BLOCK = 44, SDP_HEADER = 48, SPS = 304, SPS_SIZE = 560, PPS = 564, PPS_SIZE = 820, VOL = 824,
               VOL_SIZE = 1080;
constexpr int FREE = 32767;
// The budget's set: the lock, a holder unit per slat, then the journal.
constexpr int HOLDER = 1, JOURNAL = 11;
inline size_t slat(int i, size_t field) { return SLATS + SLAT * static_cast<size_t>(i) + field; }
inline size_t weight(int i) { return WEIGHTS + 4 * static_cast<size_t>(i); }
// Signed: profile -1 lies inside the segment, 1084 bytes before profile 0.
inline size_t profile(int p, long field) { return static_cast<size_t>(static_cast<long>(PROFILES) + PROFILE * p + field); }
}  // namespace infos_layout

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
    void startServing(int maxConn = 10, int sizeofPools = MAX_MEDIA_POOL) {
        start(maxConn, sizeofPools);
        server.init(KEY);
    }
    // The encoder's view of the segment, for writes the put operations do not make.
    unsigned char* encoderBase() { return encoder.GetSDPHeader(0) - infos_layout::profile(0, infos_layout::SDP_BLOCK); }
    void writeWord(size_t offset, int32_t value) { memcpy(encoderBase() + offset, &value, sizeof value); }
    static int32_t raw(size_t offset) { return avpool::test::RawSegment(KEY).i32(offset); }
    static int32_t slatField(int i, size_t field) { return raw(infos_layout::slat(i, field)); }
    static int32_t slatWeight(int i) { return raw(infos_layout::weight(i)); }
    static std::string rawBytes(size_t offset, size_t count) {
        auto bytes = avpool::test::RawSegment(KEY).bytes(offset, count);
        return std::string(bytes.begin(), bytes.end());
    }
    static std::string userName(int i) { return rawBytes(infos_layout::slat(i, infos_layout::USER_NAME), 32).c_str(); }
    static std::string userInfo(int i) { return rawBytes(infos_layout::slat(i, infos_layout::USER_INFO), 64).c_str(); }
    static bool slatFree(int i) { return slatField(i, infos_layout::SLAT_ID) == infos_layout::FREE && slatWeight(i) == 0; }
    static int slatsTaken() {
        int taken = 0;
        for (int i = 0; i < MAX_USER_SLATS; ++i) taken += slatFree(i) ? 0 : 1;
        return taken;
    }

    avpool::test::IpcKeys keys{KEY};
    InfosPutter encoder;  // after keys: the area is released before the keys are cleaned
    InfosGetter server;
};
