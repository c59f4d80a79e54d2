// The device's capability query defined by the program itself replaces the library's default at link
// time (built against the shared and the static library); the scale lookup asks it for profile 5 at
// scales 0 to 10 in order, up to the first match.
#include <avpool/jpg.h>

#include <gtest/gtest.h>

#include <utility>
#include <vector>

static std::vector<std::pair<int, int>> asked;  // (profile, scale) of each call

// Sizes no default table has, scales 4 and 7 the same one; the further results are a size asked for below.
int get_real_capability_by_profile_n_scale(int& width, int& height, int& a, int& b, int profile, int scale) {
    asked.emplace_back(profile, scale);
    width = scale == 4 || scale == 7 ? 500 : 1000 + scale;
    height = scale == 4 || scale == 7 ? 500 : 2000 + scale;
    a = 333, b = 222;
    return 0;
}

// 1920 x 1080 is the default table's scale 0; 333 x 222 are the further results.
TEST(DeviceCapability, programsOwnDefinitionAnswersTheScaleLookupAndTheFirstOfTwoEqualSizesWins) {
    const int cases[][4] = {{1009, 2009, 9, 10}, {1000, 2000, 0, 1},  {500, 500, 4, 5},
                            {1920, 1080, -1, 11}, {1011, 2011, -1, 11}, {333, 222, -1, 11}};
    for (const auto& c : cases) {
        asked.clear();
        EXPECT_EQ(JPGGetter::getScaleByWidthAndHeight(c[0], c[1]), c[2]) << c[0] << " x " << c[1];
        std::vector<std::pair<int, int>> expected;
        for (int scale = 0; scale < c[3]; ++scale) expected.emplace_back(5, scale);
        EXPECT_EQ(asked, expected) << c[0] << " x " << c[1];
    }
}
