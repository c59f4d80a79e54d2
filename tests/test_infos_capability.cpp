// The device's capability query defined by the program itself: its definition
// replaces the library's default at link time, and the scale lookup asks it for
// profile 5 at scales 0 to 10 in order. Built twice, against the shared and the
// static library.
#include <avpool/jpg.h>

#include <gtest/gtest.h>

#include <utility>
#include <vector>

namespace {
std::vector<std::pair<int, int>> asked;  // (profile, scale) of each call

std::vector<std::pair<int, int>> profileFiveUpTo(int lastScale) {
    std::vector<std::pair<int, int>> calls;
    for (int scale = 0; scale <= lastScale; ++scale) calls.emplace_back(5, scale);
    return calls;
}
}  // namespace

// Sizes no default table has; scales 4 and 7 report the same one. The two
// further results are filled with what matches the size asked for least.
int get_real_capability_by_profile_n_scale(int& width, int& height, int& a, int& b, int profile, int scale) {
    asked.emplace_back(profile, scale);
    width = scale == 4 || scale == 7 ? 500 : 1000 + scale;
    height = scale == 4 || scale == 7 ? 500 : 2000 + scale;
    a = 333;
    b = 222;
    return 0;
}

TEST(DeviceCapability, programsOwnDefinitionAnswersTheScaleLookup) {
    asked.clear();
    EXPECT_EQ(JPGGetter::getScaleByWidthAndHeight(1009, 2009), 9);
    EXPECT_EQ(asked, profileFiveUpTo(9));
    EXPECT_EQ(JPGGetter::getScaleByWidthAndHeight(1000, 2000), 0);
    EXPECT_EQ(JPGGetter::getScaleByWidthAndHeight(1920, 1080), -1);  // the default table's scale 0
}

TEST(DeviceCapability, elevenMissesAskEveryScaleOnceAndGiveMinusOne) {
    asked.clear();
    EXPECT_EQ(JPGGetter::getScaleByWidthAndHeight(1011, 2011), -1);
    EXPECT_EQ(asked, profileFiveUpTo(10));
    asked.clear();
    EXPECT_EQ(JPGGetter::getScaleByWidthAndHeight(333, 222), -1);  // the further results are not compared
    EXPECT_EQ(asked.size(), 11u);
}

TEST(DeviceCapability, firstOfTwoScalesWithTheSameSizeWins) {
    asked.clear();
    EXPECT_EQ(JPGGetter::getScaleByWidthAndHeight(500, 500), 4);
    EXPECT_EQ(asked, profileFiveUpTo(4));
}
