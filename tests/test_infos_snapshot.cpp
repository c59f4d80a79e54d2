// The one-call snapshot of a profile's newest JPEG picture, found through the
// information area, and the scale lookup over the library's default capability
// table (the device's own definition is tested in a program of its own).
#include "infos_fixture.h"

#include <avpool/jpg.h>

#include <climits>
#include <vector>

using namespace avpool::test;

class InfosSnapshot : public InfosArea {
protected:
    static constexpr int CHANNEL = 6;
    static constexpr int PROFILE = 1;
    static constexpr int MAX_FRAME = 64;

    InfosSnapshot() { keys.add(JPG_BASE_KEY + CHANNEL); }

    // The encoder's side: profile 1 published with the given state and third
    // value on CHANNEL, and that channel's JPEG pool created (its set-up lines
    // kept out of the output).
    void publish(int state, int param3, int frameCount = 4) {
        start();
        encoder.putInfo(PROFILE, state, CHANNEL, param3);
        std::string log;
        captureOutput(
            [&] {
                pool.init(CHANNEL, frameCount, MAX_FRAME, 1024);
                pool.reset(320, 240, 10, 80);
            },
            log);
    }
    void put(const std::string& bytes) {
        timeval t{};
        pool.putFrame(const_cast<char*>(bytes.data()), static_cast<int>(bytes.size()), t);
    }
    // snapshot into a buffer of size bytes prefilled with 0xEE.
    static int snapshotInto(std::vector<unsigned char>& buffer, unsigned int size, int profileID = PROFILE) {
        buffer.assign(size, 0xEE);
        return JPGGetter::snapshot(buffer.data(), size, profileID);
    }
    static std::string head(const std::vector<unsigned char>& buffer, int n) {
        return std::string(buffer.begin(), buffer.begin() + n);
    }

    JPGPutter pool;
};

TEST_F(InfosSnapshot, copiesTheNewestPictureOfAStreamingJpegProfile) {
    publish(2, 1);
    put("first");
    put("second");
    put("newest picture");
    std::vector<unsigned char> buffer;
    EXPECT_EQ(snapshotInto(buffer, MAX_FRAME), 14);
    EXPECT_EQ(head(buffer, 14), "newest picture");
    EXPECT_EQ(std::vector<unsigned char>(buffer.begin() + 14, buffer.end()), std::vector<unsigned char>(50, 0xEE));

    put("after");
    EXPECT_EQ(snapshotInto(buffer, MAX_FRAME + 100), 5);
    EXPECT_EQ(head(buffer, 5), "after");
}

// The buffer must hold the pool's largest picture, whatever the newest one's size.
TEST_F(InfosSnapshot, bufferSmallerThanThePoolsLargestFrameGetsNothing) {
    publish(2, 1);
    put("tiny");
    std::vector<unsigned char> buffer;
    EXPECT_EQ(snapshotInto(buffer, MAX_FRAME - 1), 0);
    EXPECT_EQ(buffer, std::vector<unsigned char>(MAX_FRAME - 1, 0xEE));
    EXPECT_EQ(snapshotInto(buffer, 0), 0);
    EXPECT_EQ(snapshotInto(buffer, MAX_FRAME), 4);
}

TEST_F(InfosSnapshot, profileThatIsNotStreamingJpegGetsNothing) {
    for (auto [state, param3] : {std::pair{1, 1}, {3, 1}, {2, 0}, {2, 2}, {0, 0}}) {
        SCOPED_TRACE("state " + std::to_string(state) + ", third value " + std::to_string(param3));
        publish(state, param3);
        put("picture");
        std::vector<unsigned char> buffer;
        EXPECT_EQ(snapshotInto(buffer, MAX_FRAME), 0);
        EXPECT_EQ(buffer, std::vector<unsigned char>(MAX_FRAME, 0xEE));
        pool.release();
        encoder.release();
    }
}

TEST_F(InfosSnapshot, missingJpegPoolGetsNothingAfterThePoolsPerrorLine) {
    start();
    encoder.putInfo(PROFILE, 2, CHANNEL, 1);
    std::vector<unsigned char> buffer;
    std::string err;
    int copied = -1;
    captureOutput([&] { copied = snapshotInto(buffer, MAX_FRAME); }, err);
    EXPECT_EQ(copied, 0);
    EXPECT_EQ(err, "shmget failed: No such file or directory\n");
}

TEST_F(InfosSnapshot, errorsOfTheInformationAreaReachTheCaller) {
    std::vector<unsigned char> buffer(MAX_FRAME);
    auto [missing, missingLog] =
        failureOf<InfosGetterError>([&] { JPGGetter::snapshot(buffer.data(), MAX_FRAME, PROFILE); });
    EXPECT_EQ(missing, "shmget failed.");
    EXPECT_EQ(missingLog, "shmget failed: No such file or directory\n");

    publish(2, 1);
    put("picture");
    encoder.putSizeofPools(PROFILE);
    auto [unpublished, unpublishedLog] =
        failureOf<InfosGetterError>([&] { JPGGetter::snapshot(buffer.data(), MAX_FRAME, PROFILE); });
    EXPECT_EQ(unpublished, "programming error");
    EXPECT_EQ(unpublishedLog, "programming error\n");
    for (int id : {INT_MIN, -2, 5, INT_MAX}) {
        auto [message, log] = failureOf<InfosGetterError>([&] { JPGGetter::snapshot(buffer.data(), MAX_FRAME, id); });
        EXPECT_EQ(message, "programming error") << id;
    }
}

// Both local objects are gone on every path: no attachment and no slat remains.
TEST_F(InfosSnapshot, leavesNoAttachmentAndTakesNoSlat) {
    publish(2, 1);
    put("picture");
    const int poolAttachments = attachmentsOf(JPG_BASE_KEY + CHANNEL);
    const int areaAttachments = attachmentsOf(KEY);
    std::vector<unsigned char> buffer;
    EXPECT_EQ(snapshotInto(buffer, MAX_FRAME), 7);
    EXPECT_EQ(snapshotInto(buffer, 1), 0);
    encoder.putInfo(PROFILE, 1, CHANNEL, 1);
    EXPECT_EQ(snapshotInto(buffer, MAX_FRAME), 0);
    EXPECT_EQ(attachmentsOf(JPG_BASE_KEY + CHANNEL), poolAttachments);
    EXPECT_EQ(attachmentsOf(KEY), areaAttachments);
    EXPECT_EQ(raw(infos_layout::TOTAL), 0);
}

// On a pool with nothing written yet the newest slot is still closed: the
// snapshot waits until the encoder completes a picture there.
TEST_F(InfosSnapshot, waitsForThePictureBeingWritten) {
    publish(2, 1, 1);
    ForkedChild caller([](ChildLink& link) {
        std::vector<unsigned char> buffer(MAX_FRAME);
        link.say("asking");
        int n = JPGGetter::snapshot(buffer.data(), MAX_FRAME, PROFILE);
        link.say("got " + std::string(buffer.begin(), buffer.begin() + n));
        return 0;
    });
    ASSERT_NO_FATAL_FAILURE(expectLine(caller, "asking"));
    ASSERT_TRUE(eventually([] { return lockWaiters(JPG_BASE_KEY + CHANNEL, 0) == 1; }));
    put("first complete picture");
    expectLastLine(caller, "got first complete picture");
}

TEST_F(InfosSnapshot, overloadWithAFourthArgumentDoesNothing) {
    std::vector<unsigned char> buffer(MAX_FRAME, 0xEE);
    EXPECT_EQ(JPGGetter::snapshot(buffer.data(), MAX_FRAME, PROFILE, 0), 0);
    publish(2, 1);
    put("picture");
    EXPECT_EQ(JPGGetter::snapshot(buffer.data(), MAX_FRAME, PROFILE, 1), 0);
    EXPECT_EQ(buffer, std::vector<unsigned char>(MAX_FRAME, 0xEE));
}

TEST(ScaleLookup, defaultCapabilityTableGivesTheScaleOfEachKnownSize) {
    EXPECT_EQ(JPGGetter::getScaleByWidthAndHeight(1920, 1080), 0);
    EXPECT_EQ(JPGGetter::getScaleByWidthAndHeight(1280, 720), 1);
    EXPECT_EQ(JPGGetter::getScaleByWidthAndHeight(800, 600), 2);
    EXPECT_EQ(JPGGetter::getScaleByWidthAndHeight(640, 480), 3);
    EXPECT_EQ(JPGGetter::getScaleByWidthAndHeight(640, 360), 4);
    EXPECT_EQ(JPGGetter::getScaleByWidthAndHeight(320, 240), 5);
    EXPECT_EQ(JPGGetter::getScaleByWidthAndHeight(176, 144), 6);
    EXPECT_EQ(JPGGetter::getScaleByWidthAndHeight(1080, 1920), -1);
    EXPECT_EQ(JPGGetter::getScaleByWidthAndHeight(640, 481), -1);
    // Scales the table does not know report size 0: the first of them matches 0 x 0.
    EXPECT_EQ(JPGGetter::getScaleByWidthAndHeight(0, 0), 7);
}

TEST(ScaleLookup, defaultCapabilityAnswersKnownScalesWithZeroAndOthersWithSizeZero) {
    int width = -1, height = -1, a = -1, b = -1;
    EXPECT_EQ(get_real_capability_by_profile_n_scale(width, height, a, b, 5, 1), 0);
    EXPECT_EQ(width, 1280);
    EXPECT_EQ(height, 720);
    EXPECT_NE(get_real_capability_by_profile_n_scale(width, height, a, b, 5, 7), 0);
    EXPECT_EQ(width, 0);
    EXPECT_EQ(height, 0);
    EXPECT_NE(get_real_capability_by_profile_n_scale(width, height, a, b, 5, -1), 0);
    EXPECT_EQ(width, 0);
}
