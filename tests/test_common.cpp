// The mechanism every pool shares, on the library's internal helpers: lock
// positions and semaphore groups, segment and set creation with one forced
// release, and the safe-time forms. The lock wait is tested on every kind.
#include "pools/common/errors.h"
#include "pools/common/safe_time.h"
#include "pools/common/segment.h"
#include "pools/common/slot_lock.h"

#include "expect.h"
#include "ipc_harness.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

using namespace avpool::detail;
using namespace avpool::test;

namespace {

class CommonError : public avpool::PoolError {
public:
    using avpool::PoolError::PoolError;
};
constexpr Raise fail = raiseAs<CommonError>;

constexpr key_t FIRST_KEY = 0x7100;

}  // namespace

TEST(SemGroups, slotPositionIsGroupOf250AndIndexWithinIt) {
    const int cases[][3] = {{0, 0, 0}, {249, 0, 249}, {250, 1, 0}, {501, 2, 1}, {999, 3, 249}};
    for (const auto& c : cases) {
        int group = -1, index = -1;
        semPosition(c[0], group, index, fail);
        EXPECT_EQ(group, c[1]) << c[0];
        EXPECT_EQ(index, c[2]) << c[0];
    }
    int group, index;
    auto [message, log] = failureOf<CommonError>([&] { semPosition(1000, group, index, fail); });
    EXPECT_EQ(message, "Over Max Semaphore Group.");
    EXPECT_EQ(log, "");
}

TEST(SemGroups, groupSizesAreFilledInOrder) {
    struct Case {
        int slots;
        std::vector<int> counts;
    };
    const Case cases[] = {{200, {200, 0, 0, 0}},     {250, {250, 0, 0, 0}},     {251, {250, 1, 0, 0}},
                          {300, {250, 50, 0, 0}},    {750, {250, 250, 250, 0}}, {1000, {250, 250, 250, 250}}};
    for (const Case& c : cases) {
        int counts[SEM_MAX_GROUPS] = {-1, -1, -1, -1};
        int groups = semGroupCount(c.slots, counts);
        EXPECT_EQ(std::vector<int>(counts, counts + SEM_MAX_GROUPS), c.counts) << c.slots;
        EXPECT_EQ(groups, static_cast<int>(c.counts.size()) - std::count(c.counts.begin(), c.counts.end(), 0))
            << c.slots;
    }
}

TEST(SemGroups, groupsLiveUnderConsecutiveKeysAndAreRemovedTogether) {
    avpool::test::IpcKeys keys{FIRST_KEY, FIRST_KEY + 1, FIRST_KEY + 2, FIRST_KEY + 3};
    SemGroups groups;
    std::vector<int> forced;
    testing::internal::CaptureStdout();
    createSemGroups(FIRST_KEY, 600, groups, [&](int g) { forced.push_back(g); }, fail, "Create sem:%d\n");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Create sem:250\nCreate sem:250\nCreate sem:100\n");
    EXPECT_TRUE(forced.empty());
    const int expected[] = {250, 250, 100};
    for (int g = 0; g < 3; ++g) {
        EXPECT_EQ(avpool::test::semIdOf(FIRST_KEY + g), groups.id[g]);
        EXPECT_EQ(avpool::test::semCountOf(groups.id[g]), expected[g]);
        EXPECT_EQ(groups.count[g], expected[g]);
    }
    EXPECT_EQ(avpool::test::semIdOf(FIRST_KEY + 3), -1);
    EXPECT_EQ(groups.id[3], -1);

    // A slot's lock is found by group and index: slot 251 is index 1 of group 1.
    setGroupedLock(groups, 251, LOCK_CLOSED, fail);
    EXPECT_EQ(lockValue(FIRST_KEY + 1, 1), 1);
    EXPECT_EQ(lockValue(FIRST_KEY, 251 % 250), 0);
    EXPECT_EQ(lockValue(FIRST_KEY + 1, 0), 0);

    SemGroups opened;
    openSemGroups(FIRST_KEY, 600, opened, fail);
    EXPECT_EQ(std::vector<int>(opened.id, opened.id + 4), std::vector<int>(groups.id, groups.id + 4));
    forgetSemGroups(opened);
    EXPECT_EQ(std::vector<int>(opened.id, opened.id + 4), std::vector<int>(4, -1));
    EXPECT_NE(avpool::test::semIdOf(FIRST_KEY), -1);  // forgetting removes nothing

    removeSemGroups(groups);
    for (int g = 0; g < 4; ++g) {
        EXPECT_EQ(avpool::test::semIdOf(FIRST_KEY + g), -1);
        EXPECT_EQ(groups.id[g], -1);
        EXPECT_EQ(groups.count[g], 0);
    }
    auto [message, log] = failureOf<CommonError>([&] { openSemGroups(FIRST_KEY, 600, opened, fail); });
    EXPECT_EQ(message, "semget failed.");
    EXPECT_EQ(log.rfind("semget failed: ", 0), 0u) << log;
}

// A failing system call: its perror line, then the text with a point; an error
// keeps its own copy of the text it is made from.
TEST(Errors, systemCallFailuresArePerrorThenTheTextWithAPoint) {
    auto [message, log] = failureOf<CommonError>([&] { setLock(-1, 0, LOCK_CLOSED, fail); });
    EXPECT_EQ(message, "semctl failed.");
    EXPECT_EQ(log, "semctl failed: Invalid argument\n");
    std::string text = "semop failed.";
    CommonError error(text);
    text[0] = 'X';
    EXPECT_STREQ(error.what(), "semop failed.");
}

TEST(SafeTimes, frameFormLeavesZeroOnTheWriterAndTheSlotBehindIt) {
    std::vector<int32_t> table(3, -1);
    setSafeTimesFrameForm(table.data(), 3, 0, 100);
    EXPECT_EQ(table, (std::vector<int32_t>{0, 100, 0}));

    table.assign(5, -1);
    setSafeTimesFrameForm(table.data(), 5, 3, 40);
    EXPECT_EQ(table, (std::vector<int32_t>{80, 120, 0, 0, 40}));

    // A group of slots per position gets one value throughout.
    table.assign(6, -1);
    setSafeTimesFrameForm(table.data(), 3, 1, 50, 2);
    EXPECT_EQ(table, (std::vector<int32_t>{0, 0, 0, 0, 50, 50}));
}

TEST(SafeTimes, fragmentFormKeepsAllIntervalsOnTheSlotBehindTheWriter) {
    std::vector<int32_t> table(5, -1);
    setSafeTimesFragmentForm(table.data(), 5, 2, 10);
    EXPECT_EQ(table, (std::vector<int32_t>{30, 40, 0, 10, 20}));

    table.assign(200, -1);
    setSafeTimesFragmentForm(table.data(), 200, 0, 20);
    EXPECT_EQ(table[0], 0);
    EXPECT_EQ(table[1], 20);
    EXPECT_EQ(table[199], 199 * 20);
}
