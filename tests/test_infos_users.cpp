// User slats and the active-user table: the crossed arguments of
// Add_Active_User, bounded name copies, the packed table, rewriting and freeing
// slats, the lines written when the area is missing, and entries that outlive
// the process that added them.
#include "infos_fixture.h"

#include <ctime>
#include <vector>

using namespace avpool::test;
using namespace infos_layout;

namespace {

// Runs call with stderr captured; returns its result and keeps the text in err.
template <class Call>
int quietly(Call call, std::string& err) {
    int result = 0;
    captureOutput([&] { result = call(); }, err);
    return result;
}

char* text(std::string& s) {
    return s.data();
}

}  // namespace

TEST_F(InfosArea, addActiveUserPutsItsSecondArgumentInUserNameAndItsFirstInUserInfo) {
    start(10);
    std::string info = "A: viewer at 198.51.100.4", name = "B-admin";
    std::string err;
    const time_t before = time(nullptr);
    EXPECT_EQ(quietly([&] { return Add_Active_User(text(info), text(name)); }, err), 0);
    const time_t after = time(nullptr);
    EXPECT_EQ(err, "");
    EXPECT_EQ(userName(0), "B-admin");
    EXPECT_EQ(userInfo(0), "A: viewer at 198.51.100.4");
    EXPECT_EQ(slatField(0, SLAT_ID), 0);
    EXPECT_EQ(slatField(0, USER_TYPE), 4);
    EXPECT_EQ(slatWeight(0), 1);
    EXPECT_EQ(raw(TOTAL), 1);
    EXPECT_GE(slatField(0, LOGIN_TIME), before);
    EXPECT_LE(slatField(0, LOGIN_TIME), after);

    std::string info2 = "second", name2 = "C";
    EXPECT_EQ(Add_Active_User(text(info2), text(name2)), 1);
    EXPECT_EQ(raw(TOTAL), 2);
}

TEST_F(InfosArea, addActiveUserWithANullPointerReturnsMinusOneAndWritesNothing) {
    start(10);
    const std::string before = rawBytes(0, SIZE);
    std::string some = "x", err;
    EXPECT_EQ(quietly([&] { return Add_Active_User(nullptr, text(some)); }, err), -1);
    EXPECT_EQ(quietly([&] { return Add_Active_User(text(some), nullptr); }, err), -1);
    EXPECT_EQ(err, "");
    EXPECT_EQ(rawBytes(0, SIZE), before);
}

TEST_F(InfosArea, longNamesAreCutTo31And63BytesAndTheLastByteStaysZero) {
    startServing();
    const std::string longName(40, 'n'), longInfo(80, 'i');
    EXPECT_EQ(server.allocUserSlat(longName.c_str(), longInfo.c_str(), 1, 2), 0);
    EXPECT_EQ(rawBytes(slat(0, USER_NAME), 32), std::string(31, 'n') + '\0');
    EXPECT_EQ(rawBytes(slat(0, USER_INFO), 64), std::string(63, 'i') + '\0');
    EXPECT_EQ(slatField(0, USER_TYPE), 2);

    // A shorter text is padded with NULs over what the longer one left.
    EXPECT_EQ(server.resetUserSlat("ab", "cd", 0), 0);
    EXPECT_EQ(rawBytes(slat(0, USER_NAME), 32), "ab" + std::string(30, '\0'));
    EXPECT_EQ(rawBytes(slat(0, USER_INFO), 64), "cd" + std::string(62, '\0'));
}

// The copies stop at 31 and 63 bytes: the field's last byte is never written.
TEST_F(InfosArea, boundedCopyLeavesTheFieldsLastByteAsItWas) {
    startServing();
    EXPECT_EQ(server.allocUserSlat("name", "info", 1, 1), 0);
    unsigned char* base = encoderBase();
    base[slat(0, USER_NAME) + 31] = 'Z';
    base[slat(0, USER_INFO) + 63] = 'Y';
    const std::string longName(40, 'n'), longInfo(80, 'i');
    EXPECT_EQ(server.resetUserSlat(longName.c_str(), longInfo.c_str(), 0), 0);
    EXPECT_EQ(rawBytes(slat(0, USER_NAME), 32), std::string(31, 'n') + 'Z');
    EXPECT_EQ(rawBytes(slat(0, USER_INFO), 64), std::string(63, 'i') + 'Y');
}

TEST_F(InfosArea, activeUserTablePacksWholeRecordsIntoTheBuffer) {
    start(10);
    std::string a = "info a", b = "info b", c = "info c", na = "a", nb = "b", nc = "c";
    Add_Active_User(text(a), text(na));
    Add_Active_User(text(b), text(nb));
    Add_Active_User(text(c), text(nc));

    std::vector<char> buffer(300, '\xEE');
    EXPECT_EQ(Get_Active_User_Table(buffer.data(), 300), 2);
    EXPECT_EQ(std::string(buffer.data(), 216), rawBytes(slat(0, 0), 216));
    EXPECT_EQ(std::string(buffer.data() + 216, 84), std::string(84, '\xEE'));

    std::vector<char> small(100, '\xEE');
    EXPECT_EQ(Get_Active_User_Table(small.data(), 100), 0);
    EXPECT_EQ(small, std::vector<char>(100, '\xEE'));
    EXPECT_EQ(Get_Active_User_Table(small.data(), -108), 0);
    std::string err;
    EXPECT_EQ(quietly([&] { return Get_Active_User_Table(nullptr, 300); }, err), -1);
    EXPECT_EQ(err, "");
}

// Free slats and slats of weight 0 leave no gap in the table.
TEST_F(InfosArea, activeUserTableSkipsFreeSlatsAndSlatsOfWeightZero) {
    startServing(10);
    server.takeConn("one", "", 1, 1, false);
    server.takeConn("two", "", 1, 1, false);
    server.takeConn("weightless", "", 1, 0, false);
    server.takeConn("four", "", 1, 2, false);
    server.retConn(1);
    std::vector<char> buffer(4 * USER_SLAT_SIZE, '\0');
    EXPECT_EQ(Get_Active_User_Table(buffer.data(), static_cast<int>(buffer.size())), 2);
    EXPECT_EQ(std::string(buffer.data(), 108), rawBytes(slat(0, 0), 108));
    EXPECT_EQ(std::string(buffer.data() + 108, 108), rawBytes(slat(3, 0), 108));
    EXPECT_EQ(std::string(buffer.data() + 216, 216), std::string(216, '\0'));
    EXPECT_EQ(server.getUserList(buffer.data(), static_cast<int>(buffer.size())), 2);
}

TEST_F(InfosArea, deletingAnActiveUserTwiceTakesItsWeightOffOnce) {
    start(10);
    std::string info = "i", name = "n", info2 = "j", name2 = "m";
    Add_Active_User(text(info), text(name));
    Add_Active_User(text(info2), text(name2));
    std::string err;
    EXPECT_EQ(quietly([] { return Delete_Active_User(0); }, err), 0);
    EXPECT_EQ(raw(TOTAL), 1);
    EXPECT_TRUE(slatFree(0));
    EXPECT_EQ(quietly([] { return Delete_Active_User(0); }, err), 0);
    EXPECT_EQ(raw(TOTAL), 1);
    EXPECT_EQ(quietly([] { return Delete_Active_User(12); }, err), 0);
    EXPECT_EQ(quietly([] { return Delete_Active_User(-1); }, err), 1);
    EXPECT_EQ(err, "");
    EXPECT_EQ(userName(1), "m");
    EXPECT_EQ(raw(TOTAL), 1);
}

TEST_F(InfosArea, resetUserSlatRewritesOnlyTheGivenTextsOfASlatInUse) {
    startServing(10);
    server.takeConn("old name", "old info", 7, 3, false);
    const std::string before = rawBytes(0, SIZE);
    EXPECT_EQ(server.resetUserSlat("new name", nullptr, 0), 0);
    EXPECT_EQ(userName(0), "new name");
    std::string expected = before;
    expected.replace(slat(0, USER_NAME), 32, std::string("new name") + std::string(24, '\0'));
    EXPECT_EQ(rawBytes(0, SIZE), expected);

    EXPECT_EQ(server.resetUserSlat(nullptr, "new info", 0), 0);
    EXPECT_EQ(userName(0), "new name");
    EXPECT_EQ(userInfo(0), "new info");
    EXPECT_EQ(slatField(0, USER_TYPE), 7);
    EXPECT_EQ(slatWeight(0), 3);
}

// Only an index out of range is reported; a slat with nothing to rewrite gives 0.
TEST_F(InfosArea, resetUserSlatReportsOnlyAnIndexOutOfRange) {
    startServing(6);
    server.takeConn("weightless", "", 1, 0, false);
    const std::string before = rawBytes(0, SIZE);
    EXPECT_EQ(server.resetUserSlat("x", "y", 11), 1);
    EXPECT_EQ(server.resetUserSlat("x", "y", 6), 1);
    EXPECT_EQ(server.resetUserSlat("x", "y", -1), 1);
    EXPECT_EQ(server.resetUserSlat("x", "y", 1), 0);  // free
    EXPECT_EQ(server.resetUserSlat("x", "y", 0), 0);  // in use with weight 0
    EXPECT_EQ(rawBytes(0, SIZE), before);
}

TEST_F(InfosArea, slatOperationsLeaveTheBudgetToTheirCallers) {
    startServing(3);
    EXPECT_EQ(server.allocUserSlat("a", "b", 2, 9), 0);
    EXPECT_EQ(slatField(0, USER_TYPE), 9);
    EXPECT_EQ(slatWeight(0), 2);
    EXPECT_EQ(server.allocUserSlat("c", "d", 1, 9), 1);
    EXPECT_EQ(server.allocUserSlat("e", "f", 1, 9), 2);
    EXPECT_EQ(server.allocUserSlat("g", "h", 1, 9), -1);
    EXPECT_EQ(raw(TOTAL), 0);

    EXPECT_EQ(server.deleteUserSlat(0), 2);
    EXPECT_EQ(server.deleteUserSlat(0), 0);
    EXPECT_EQ(server.deleteUserSlat(3), 0);
    EXPECT_EQ(server.deleteUserSlat(-1), 0);
    EXPECT_EQ(raw(TOTAL), 0);
    EXPECT_EQ(slatField(0, USER_TYPE), 9);
    EXPECT_EQ(server.allocUserSlat(nullptr, nullptr, 1, 1), 0);
    EXPECT_EQ(rawBytes(slat(0, USER_NAME), 96), std::string(96, '\0'));
}

TEST_F(InfosArea, activeUserFunctionsWithoutAnAreaWriteThePerrorLineAndTheirOwnLine) {
    std::string info = "i", name = "n", err;
    EXPECT_EQ(quietly([&] { return Add_Active_User(text(info), text(name)); }, err), -1);
    EXPECT_EQ(err, "shmget failed: No such file or directory\nAdd_Active_User failed: shmget failed.\n");
    EXPECT_EQ(quietly([] { return Delete_Active_User(0); }, err), 1);
    EXPECT_EQ(err, "shmget failed: No such file or directory\nDelete_Active_User failed: shmget failed.\n");
    char buffer[USER_SLAT_SIZE];
    EXPECT_EQ(quietly([&] { return Get_Active_User_Table(buffer, sizeof buffer); }, err), -1);
    EXPECT_EQ(err, "shmget failed: No such file or directory\nGet_Active_User_Table failed: shmget failed.\n");
}

TEST_F(InfosArea, addActiveUserTurnsBothRefusalsIntoItsLine) {
    startServing(2);
    server.takeConn("weightless", "", 1, 0, false);
    server.takeConn("weightless", "", 1, 0, false);
    std::string info = "i", name = "n", err;
    EXPECT_EQ(quietly([&] { return Add_Active_User(text(info), text(name)); }, err), -1);
    EXPECT_EQ(err, "Add_Active_User failed: slat alloc fail.\n");

    server.retConn(0);
    server.takeConn("whole", "budget", 1, 2, false);
    EXPECT_EQ(quietly([&] { return Add_Active_User(text(info), text(name)); }, err), -1);
    EXPECT_EQ(err, "Add_Active_User failed: no more slat.\n");
    EXPECT_EQ(raw(TOTAL), 2);
}

// The entry belongs to the area, not to the process that added it.
TEST_F(InfosArea, activeUserAddedByOneProcessIsListedAndDeletedByOthers) {
    start(10);
    ForkedChild adder([](ChildLink& link) {
        std::string info = "from a child", name = "child";
        link.say("slat " + std::to_string(Add_Active_User(text(info), text(name))));
        return 0;
    });
    expectLastLine(adder, "slat 0");
    EXPECT_EQ(userName(0), "child");

    ForkedChild lister([](ChildLink& link) {
        char buffer[3 * USER_SLAT_SIZE];
        int n = Get_Active_User_Table(buffer, sizeof buffer);
        link.say(std::to_string(n) + " " + std::string(buffer + 8) + " / " + std::string(buffer + 40));
        return Delete_Active_User(0);
    });
    expectLastLine(lister, "1 child / from a child");
    EXPECT_TRUE(slatFree(0));
    EXPECT_EQ(raw(TOTAL), 0);
}
