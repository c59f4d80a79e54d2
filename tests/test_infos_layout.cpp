// The encoder's side of the information area: creation over leftovers, the
// bytes each put operation writes at its absolute offset, the budget marking and
// the exact refusals, with raw reads of the segment as the oracle.
#include "infos_fixture.h"

#include <climits>
#include <functional>
#include <vector>

using namespace avpool::test;
using namespace infos_layout;

namespace {

// An encoder operation with the text it must refuse with.
struct Refusal {
    const char* name;
    std::function<void()> call;
    std::string text;
};

// Each call throws InfosPutterError with its text and writes nothing to stderr.
void expectRefusals(const std::vector<Refusal>& refusals) {
    for (const Refusal& r : refusals) {
        auto [message, log] = failureOf<InfosPutterError>(r.call);
        EXPECT_EQ(message, r.text) << r.name;
        EXPECT_EQ(log, "") << r.name;
    }
}

std::vector<Refusal> everyOperation(InfosPutter& encoder, int profileID) {
    const std::string state = "InfosPutter::putVideoState programming error";
    return {
        {"putSizeofPools", [&] { encoder.putSizeofPools(1); }, state},
        {"putMaxConn", [&] { encoder.putMaxConn(1); }, state},
        {"putInfo", [&, profileID] { encoder.putInfo(profileID, 1, 1, 1); },
         "InfosPutter::putVideoInfo programming error"},
        {"putState", [&, profileID] { encoder.putState(profileID, 1); }, state},
        {"putVideoInfo", [&, profileID] { encoder.putVideoInfo(profileID, 1, 1, 1); }, state},
        {"putAudioInfo", [&, profileID] { encoder.putAudioInfo(profileID, 1, 1, 1, 1); }, state},
        {"putSharedMemSize", [&, profileID] { encoder.putSharedMemSize(profileID, 1); },
         "InfosPutter::putSharedMemSize programming error"},
        {"getConn", [&] { encoder.getConn(); }, "InfosPutter::getConn programming error"},
        {"GetSDPHeader", [&, profileID] { encoder.GetSDPHeader(profileID); }, "InfosPutter::getConn programming error"},
    };
}

}  // namespace

TEST_F(InfosArea, initCreatesAZeroedSegmentOfExactSizeAndTheBudgetSetWithItsLockFree) {
    encoder.init(KEY);
    RawSegment segment(KEY);
    ASSERT_TRUE(segment.attached());
    EXPECT_EQ(segment.size(), SIZE);
    EXPECT_EQ(segment.bytes(0, SIZE), std::vector<unsigned char>(SIZE, 0));
    const int lock = semIdOf(KEY);
    ASSERT_NE(lock, -1);
    // The lock, a holder per slat and the journal; only the lock is 1.
    std::vector<int> expected(12, 0);
    expected[0] = 1;
    EXPECT_EQ(semCountOf(lock), 12);
    EXPECT_EQ(lockValues(KEY, 12), expected);
}

TEST_F(InfosArea, initReplacesTheSegmentAndLockOfACrashedEncoderWithFreshOnes) {
    const int staleSegment = plantSegment(KEY, SIZE, 0xAB);
    const int staleLock = plantSemSet(KEY, 3);
    ASSERT_NE(staleSegment, -1);
    ASSERT_NE(staleLock, -1);

    std::string err;
    captureOutput([&] { encoder.init(KEY); }, err);
    EXPECT_EQ(err, "");
    EXPECT_FALSE(shmIdAlive(staleSegment));
    EXPECT_FALSE(semIdAlive(staleLock));
    EXPECT_EQ(RawSegment(KEY).bytes(0, SIZE), std::vector<unsigned char>(SIZE, 0));
    EXPECT_EQ(semCountOf(semIdOf(KEY)), 12);
    EXPECT_EQ(lockValue(KEY, 0), 1);
}

// The forced removal asks for the area's full size, so a smaller leftover under
// the key is neither removed nor replaced.
TEST_F(InfosArea, smallerLeftoverUnderTheKeyMakesInitFailAfterItsPerrorLine) {
    const int stale = plantSegment(KEY, 100, 0);
    ASSERT_NE(stale, -1);
    EXPECT_EQ(forceReleaseShm(KEY), -1);

    auto [message, log] = failureOf<InfosPutterError>([&] { encoder.init(KEY); });
    EXPECT_EQ(message, "InfosPutter::init shmget failed");
    EXPECT_EQ(log, "InfosPutter::init shmget failed: File exists\n");
    EXPECT_TRUE(shmIdAlive(stale));
    EXPECT_EQ(RawSegment(KEY).size(), 100u);
    expectRefusals({{"getConn", [&] { encoder.getConn(); }, "InfosPutter::getConn programming error"}});
}

TEST_F(InfosArea, forceReleaseShmRemovesTheAreaOrCreatesAndRemovesOne) {
    const int stale = plantSegment(KEY, SIZE, 1);
    EXPECT_EQ(forceReleaseShm(KEY), 0);
    EXPECT_FALSE(shmIdAlive(stale));
    EXPECT_EQ(shmIdOf(KEY), -1);
    EXPECT_EQ(forceReleaseShm(KEY), 0);
    EXPECT_EQ(shmIdOf(KEY), -1);
}

TEST_F(InfosArea, secondInitIsRefusedAndLeavesSegmentAndLockAlone) {
    start(4, 3);
    const int segment = shmIdOf(KEY);
    const int lock = semIdOf(KEY);
    expectRefusals({{"init", [&] { encoder.init(KEY); }, "InfosPutter::init programming error"}});
    EXPECT_EQ(shmIdOf(KEY), segment);
    EXPECT_EQ(semIdOf(KEY), lock);
    EXPECT_EQ(raw(SIZEOF_POOLS), 3);
    EXPECT_EQ(raw(MAX_CONN), 4);
}

TEST_F(InfosArea, releaseAndDestructionRemoveSegmentAndLockAndReleaseTwiceIsHarmless) {
    encoder.init(KEY);
    const int segment = shmIdOf(KEY);
    const int lock = semIdOf(KEY);
    encoder.release();
    EXPECT_FALSE(shmIdAlive(segment));
    EXPECT_FALSE(semIdAlive(lock));
    encoder.release();
    expectRefusals(everyOperation(encoder, 0));

    {
        InfosPutter other;
        other.init(KEY);
        ASSERT_NE(shmIdOf(KEY), -1);
        ASSERT_NE(semIdOf(KEY), -1);
    }
    EXPECT_EQ(shmIdOf(KEY), -1);
    EXPECT_EQ(semIdOf(KEY), -1);
}

// Removal takes effect when the last process detaches: a server attached before
// the encoder's release keeps reading the old area.
TEST_F(InfosArea, serverAttachedBeforeReleaseKeepsTheRemovedArea) {
    startServing(6, 2);
    encoder.release();
    EXPECT_EQ(shmIdOf(KEY), -1);
    EXPECT_EQ(server.getMaxConnections(), 6);
    EXPECT_EQ(server.getSizeofPools(), 2);
}

TEST_F(InfosArea, everyPutLandsAtItsAbsoluteOffset) {
    encoder.init(KEY);
    encoder.putSizeofPools(77);  // no bound of its own
    for (int p = 0; p < MAX_MEDIA_POOL; ++p) {
        const int v = 100 * (p + 1);
        encoder.putInfo(p, v + 1, v + 2, v + 3);
        encoder.putVideoInfo(p, v + 4, v + 5, v + 6);
        encoder.putAudioInfo(p, v + 7, v + 8, v + 9, v + 10);
        encoder.putSharedMemSize(p, v + 11);
    }
    EXPECT_EQ(raw(SIZEOF_POOLS), 77);
    const long fields[] = {STATE,        CHANNEL,      INFO_PARAM3,  WIDTH,          HEIGHT,         VIDEO_PARAM3,
                           AUDIO_PARAM1, AUDIO_PARAM2, AUDIO_PARAM3, FRAME_DURATION, SHARED_MEM_SIZE};
    for (int p = 0; p < MAX_MEDIA_POOL; ++p) {
        for (int f = 0; f < 11; ++f)
            EXPECT_EQ(raw(profile(p, fields[f])), 100 * (p + 1) + f + 1) << "profile " << p << " field " << fields[f];
        EXPECT_EQ(rawBytes(profile(p, SDP_BLOCK), PROFILE - SDP_BLOCK), std::string(PROFILE - SDP_BLOCK, '\0'));
    }
    // The first profile starts right after the weights; nothing before it moved.
    EXPECT_EQ(raw(1132), 101);
    EXPECT_EQ(rawBytes(MAX_CONN, PROFILES - MAX_CONN), std::string(PROFILES - MAX_CONN, '\0'));

    encoder.putState(3, -9);
    EXPECT_EQ(raw(profile(3, STATE)), -9);
    EXPECT_EQ(raw(profile(3, CHANNEL)), 402);
}

TEST_F(InfosArea, putVideoInfoStoresOnlyValuesAboveZero) {
    encoder.init(KEY);
    encoder.putVideoInfo(2, 640, 480, 25);
    encoder.putVideoInfo(2, 1280, 0, -1);
    EXPECT_EQ(raw(profile(2, WIDTH)), 1280);
    EXPECT_EQ(raw(profile(2, HEIGHT)), 480);
    EXPECT_EQ(raw(profile(2, VIDEO_PARAM3)), 25);
    encoder.putVideoInfo(2, -5, 720, 0);
    EXPECT_EQ(raw(profile(2, WIDTH)), 1280);
    EXPECT_EQ(raw(profile(2, HEIGHT)), 720);
    encoder.putVideoInfo(2, 0, 0, 1);
    EXPECT_EQ(raw(profile(2, VIDEO_PARAM3)), 1);
}

// Audio values are stored as given, zero and negative included.
TEST_F(InfosArea, putAudioInfoStoresEveryValueUnconditionally) {
    encoder.init(KEY);
    encoder.putAudioInfo(1, 8000, 1, 16, 20);
    encoder.putAudioInfo(1, 0, -1, 0, -20);
    EXPECT_EQ(raw(profile(1, AUDIO_PARAM1)), 0);
    EXPECT_EQ(raw(profile(1, AUDIO_PARAM2)), -1);
    EXPECT_EQ(raw(profile(1, AUDIO_PARAM3)), 0);
    EXPECT_EQ(raw(profile(1, FRAME_DURATION)), -20);
}

TEST_F(InfosArea, putMaxConnStoresAtMostTenAndMarksOnlyThoseSlatsFree) {
    encoder.init(KEY);
    writeWord(TOTAL, 7);
    writeWord(weight(2), 3);
    writeWord(slat(4, USER_TYPE), 9);
    encoder.putMaxConn(25);
    EXPECT_EQ(raw(MAX_CONN), 10);
    for (int i = 0; i < MAX_USER_SLATS; ++i) EXPECT_EQ(slatField(i, SLAT_ID), FREE) << i;
    EXPECT_EQ(raw(TOTAL), 7);
    EXPECT_EQ(slatWeight(2), 3);
    EXPECT_EQ(slatField(4, USER_TYPE), 9);
    EXPECT_EQ(rawBytes(slat(0, USER_NAME), 96), std::string(96, '\0'));
}

TEST_F(InfosArea, putMaxConnBelowTenLeavesTheOtherSlatsNeverInitialised) {
    encoder.init(KEY);
    encoder.putMaxConn(3);
    EXPECT_EQ(raw(MAX_CONN), 3);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(slatField(i, SLAT_ID), FREE) << i;
    for (int i = 3; i < MAX_USER_SLATS; ++i) EXPECT_EQ(slatField(i, SLAT_ID), 0) << i;
    for (int i = 0; i < MAX_USER_SLATS; ++i) EXPECT_EQ(slatWeight(i), 0) << i;
    EXPECT_EQ(raw(TOTAL), 0);

    encoder.putMaxConn(-2);
    EXPECT_EQ(raw(MAX_CONN), -2);
}

TEST_F(InfosArea, getConnReadsTheTotalTheServersKeep) {
    encoder.init(KEY);
    EXPECT_EQ(encoder.getConn(), 0);
    writeWord(TOTAL, 9);
    EXPECT_EQ(encoder.getConn(), 9);
}

TEST_F(InfosArea, getSdpHeaderHandsOutEachProfilesBlockFortyFourBytesIn) {
    encoder.init(KEY);
    unsigned char* first = encoder.GetSDPHeader(0);
    for (int p = 0; p < MAX_MEDIA_POOL; ++p) {
        unsigned char* block = encoder.GetSDPHeader(p);
        EXPECT_EQ(block - first, PROFILE * p);
        const int32_t word = 1000 + p;
        memcpy(block, &word, sizeof word);
        const std::string text = "v=0 profile " + std::to_string(p);
        memcpy(block + 4, text.c_str(), text.size() + 1);
        block[PROFILE - SDP_BLOCK - 1] = static_cast<unsigned char>(0xE0 + p);  // last byte of volSize
    }
    for (int p = 0; p < MAX_MEDIA_POOL; ++p) {
        EXPECT_EQ(raw(profile(p, SDP_BLOCK)), 1000 + p);
        EXPECT_EQ(rawText(profile(p, SDP_HEADER), 256), "v=0 profile " + std::to_string(p));
        EXPECT_EQ(rawBytes(profile(p, VOL_SIZE) + 3, 1), std::string(1, static_cast<char>(0xE0 + p)));
        EXPECT_EQ(raw(profile(p, SHARED_MEM_SIZE)), 0);
    }
}

TEST_F(InfosArea, unattachedEncoderRefusesEveryOperationUnderItsOwnMessage) {
    expectRefusals(everyOperation(encoder, 0));
}

// Profile IDs whose record would lie outside the segment are refused before a
// byte is written; the message names the operation's old name on purpose.
TEST_F(InfosArea, profileIdsOutsideTheSegmentAreRefusedAndNothingIsWritten) {
    start();
    const std::string before = rawBytes(0, SIZE);
    for (int id : {INT_MIN, -2, 5, INT_MAX}) {
        SCOPED_TRACE("profile " + std::to_string(id));
        const std::string bad = "InfosPutter::putVideoState profileID exceed MAX_MEDIA_POOL";
        expectRefusals({
            {"putInfo", [&] { encoder.putInfo(id, 1, 1, 1); }, "InfosPutter::putVideoInfo profileID exceed MAX_MEDIA_POOL"},
            {"putState", [&] { encoder.putState(id, 1); }, bad},
            {"putVideoInfo", [&] { encoder.putVideoInfo(id, 1, 1, 1); }, bad},
            {"putAudioInfo", [&] { encoder.putAudioInfo(id, 1, 1, 1, 1); }, bad},
            {"putSharedMemSize", [&] { encoder.putSharedMemSize(id, 1); },
             "InfosPutter::putSharedMemSize programming error"},
            {"GetSDPHeader", [&] { encoder.GetSDPHeader(id); }, "InfosPutter::getConn programming error"},
        });
    }
    EXPECT_EQ(rawBytes(0, SIZE), before);
}

// The signed bound lets -1 through: its record is the 1084 bytes before
// profile 0, from offset 48, in the middle of the slat table.
TEST_F(InfosArea, profileMinusOneWritesTheRecordJustBeforeProfileZero) {
    encoder.init(KEY);
    encoder.putInfo(-1, 7, 8, 9);
    encoder.putVideoInfo(-1, 10, 11, 12);
    encoder.putAudioInfo(-1, 13, 14, 15, 16);
    encoder.putSharedMemSize(-1, 17);
    for (int k = 0; k < 11; ++k) EXPECT_EQ(raw(48 + 4 * static_cast<size_t>(k)), 7 + k) << k;
    EXPECT_EQ(encoder.GetSDPHeader(-1) - encoder.GetSDPHeader(0), -PROFILE);
    encoder.putState(-1, 21);
    EXPECT_EQ(raw(slat(0, 36)), 21);
    EXPECT_EQ(rawBytes(profile(0, STATE), PROFILE), std::string(PROFILE, '\0'));
}
