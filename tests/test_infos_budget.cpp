// A server's connection budget: probing, taking and returning weighted slats,
// the automatic return on release, the reset of all connections and what each
// operation does on a getter that is not attached.
#include "infos_fixture.h"

#include <ctime>
#include <functional>
#include <vector>

using namespace avpool::test;
using namespace infos_layout;

namespace {

// A take that must be refused with text, changing no byte of the area and
// writing nothing to stderr.
void expectTakeRefused(InfosGetter& getter, int weight, const std::string& text) {
    auto area = [] { return RawSegment(KEY).bytes(0, SIZE); };
    const auto bytes = area();
    auto [message, log] = failureOf<InfosGetterError>([&] { getter.takeConn("late", "refused", 1, weight, true); });
    EXPECT_EQ(message, text) << "weight " << weight;
    EXPECT_EQ(log, "");
    EXPECT_EQ(area(), bytes);
}

// A client's getter attached and holding a slat, expected to get that index.
void attachHolding(InfosGetter& client, const char* name, int weight, bool autoReturn, int expectedSlat) {
    client.init(KEY);
    EXPECT_EQ(client.takeConn(name, "client", 1, weight, autoReturn), expectedSlat);
}

}  // namespace

TEST_F(InfosArea, takeConnFillsTheFirstFreeSlatWithWeightAndTypeCrossedIntoPlace) {
    startServing();
    const time_t before = time(nullptr);
    EXPECT_EQ(server.takeConn("rtsp-7", "192.0.2.7:554", 6, 2, false), 0);
    const time_t after = time(nullptr);
    EXPECT_EQ(slatField(0, SLAT_ID), 0);
    EXPECT_EQ(slatField(0, USER_TYPE), 6);
    EXPECT_EQ(slatWeight(0), 2);
    EXPECT_EQ(userName(0), "rtsp-7");
    EXPECT_EQ(userInfo(0), "192.0.2.7:554");
    EXPECT_GE(slatField(0, LOGIN_TIME), before);
    EXPECT_LE(slatField(0, LOGIN_TIME), after);
    EXPECT_EQ(raw(TOTAL), 2);
    EXPECT_EQ(server.getCurrentTotalConnections(), 2);
    EXPECT_EQ(encoder.getConn(), 2);

    InfosGetter other;
    other.init(KEY);
    EXPECT_EQ(other.takeConn("second", nullptr, 1, 3, false), 1);
    EXPECT_EQ(slatField(1, SLAT_ID), 1);
    EXPECT_EQ(userInfo(1), "");
    EXPECT_EQ(raw(TOTAL), 5);
    for (int i = 2; i < MAX_USER_SLATS; ++i) EXPECT_TRUE(slatFree(i)) << i;
}

// probeConn keeps one unit in hand that takeConn does not.
TEST_F(InfosArea, probeRefusesWhatTakeAcceptsAtExactBudget) {
    startServing(10);
    EXPECT_TRUE(server.probeConn(9));
    EXPECT_FALSE(server.probeConn(10));
    EXPECT_EQ(server.takeConn("whole", "budget", 1, 10, false), 0);
    EXPECT_EQ(raw(TOTAL), 10);
    EXPECT_FALSE(server.probeConn(0));
    expectTakeRefused(server, 1, "no more slat.");
    // Weight 0 still fits a full budget and takes a slat.
    EXPECT_EQ(server.takeConn("zero", "weight", 1, 0, false), 1);
    EXPECT_EQ(raw(TOTAL), 10);
}

TEST_F(InfosArea, threeClientsOfWeightThreeFillNineUnitsAndAFourthIsRefused) {
    startServing(10);
    for (int k = 0; k < 3; ++k) EXPECT_EQ(server.takeConn("ssl", "client", 1, 3, false), k);
    EXPECT_EQ(raw(TOTAL), 9);
    EXPECT_TRUE(server.probeConn(0));
    EXPECT_FALSE(server.probeConn(1));
    expectTakeRefused(server, 3, "no more slat.");
    EXPECT_EQ(server.takeConn("last", "unit", 1, 1, false), 3);
}

TEST_F(InfosArea, weightZeroTakesRunOutOfSlatsBelowASmallBudget) {
    startServing(4);
    for (int k = 0; k < 4; ++k) EXPECT_EQ(server.takeConn("zero", "weight", 1, 0, false), k);
    expectTakeRefused(server, 0, "slat alloc fail.");
    EXPECT_EQ(raw(TOTAL), 0);
    // Slats 4 to 9 were never marked free and stay untouched.
    for (int i = 4; i < MAX_USER_SLATS; ++i) EXPECT_EQ(slatField(i, SLAT_ID), 0) << i;
}

// A failed allocation overwrites the getter's own slat with -1, so the slat it
// took earlier with autoReturn is no longer given back when it is destroyed.
TEST_F(InfosArea, failedAllocationMakesTheGetterForgetTheSlatItHeld) {
    start(2);
    {
        InfosGetter forgetful;
        attachHolding(forgetful, "kept", 0, true, 0);
        server.init(KEY);
        EXPECT_EQ(server.takeConn("other", "", 1, 0, false), 1);
        expectTakeRefused(forgetful, 0, "slat alloc fail.");
    }
    EXPECT_EQ(slatField(0, SLAT_ID), 0);
    EXPECT_EQ(userName(0), "kept");

    // "no more slat." leaves the getter's slat as it was: destruction returns it.
    {
        InfosGetter holder;
        server.retConn(1);
        attachHolding(holder, "one", 2, true, 1);
        expectTakeRefused(holder, 1, "no more slat.");
    }
    EXPECT_TRUE(slatFree(1));
    EXPECT_EQ(raw(TOTAL), 0);
}

TEST_F(InfosArea, retConnFreesTheSlatAndTakesItsWeightOffOnlyOnce) {
    startServing();
    EXPECT_EQ(server.takeConn("first", "info one", 5, 3, false), 0);
    EXPECT_EQ(server.takeConn("second", "info two", 5, 2, false), 1);
    const int32_t login = slatField(0, LOGIN_TIME);
    server.retConn(0);
    EXPECT_EQ(raw(TOTAL), 2);
    EXPECT_TRUE(slatFree(0));
    EXPECT_EQ(rawBytes(slat(0, USER_NAME), 96), std::string(96, '\0'));
    // Type and login time stay behind in a freed slat.
    EXPECT_EQ(slatField(0, USER_TYPE), 5);
    EXPECT_EQ(slatField(0, LOGIN_TIME), login);

    server.retConn(0);
    EXPECT_EQ(raw(TOTAL), 2);
    EXPECT_EQ(userName(1), "second");
    EXPECT_EQ(server.takeConn("third", "", 5, 1, false), 0);
}

TEST_F(InfosArea, retConnOfNegativeOrOutOfRangeSlatChangesNothing) {
    startServing(4);
    server.takeConn("a", "b", 1, 2, false);
    const std::string before = rawBytes(0, SIZE);
    std::string err;
    captureOutput(
        [&] {
            for (int slat : {-1, -7, 4, 9, 10, 12}) server.retConn(slat);
        },
        err);
    EXPECT_EQ(err, "");
    EXPECT_EQ(rawBytes(0, SIZE), before);
}

TEST_F(InfosArea, totalNeverDropsBelowZeroOnReturn) {
    startServing();
    server.takeConn("a", "b", 1, 3, false);
    writeWord(TOTAL, 1);
    server.retConn(0);
    EXPECT_EQ(raw(TOTAL), 0);
    EXPECT_TRUE(slatFree(0));
}

// Neither weight is checked: a negative one is stored and counted as given.
TEST_F(InfosArea, negativeWeightIsStoredAndCountedAsGiven) {
    startServing();
    EXPECT_EQ(server.takeConn("a", "b", 1, -2, false), 0);
    EXPECT_EQ(slatWeight(0), -2);
    EXPECT_EQ(raw(TOTAL), -2);
    server.retConn(0);
    EXPECT_EQ(raw(TOTAL), 0);
}

TEST_F(InfosArea, releaseReturnsTheSlatOfAnAutoReturnTakeAndDestructionAfterwardsIsQuiet) {
    start();
    InfosGetter other;
    other.init(KEY);
    {
        InfosGetter client;
        attachHolding(client, "auto", 4, true, 0);
        client.release(0);
        EXPECT_TRUE(slatFree(0));
        EXPECT_EQ(raw(TOTAL), 0);
        // The slat goes to someone else before the first getter is destroyed.
        EXPECT_EQ(other.takeConn("next", "owner", 1, 2, false), 0);
    }
    EXPECT_EQ(userName(0), "next");
    EXPECT_EQ(slatWeight(0), 2);
    EXPECT_EQ(raw(TOTAL), 2);
}

TEST_F(InfosArea, destructionReturnsTheSlatOfAnAutoReturnTake) {
    start();
    {
        InfosGetter client;
        attachHolding(client, "auto", 4, true, 0);
        EXPECT_EQ(raw(TOTAL), 4);
    }
    EXPECT_TRUE(slatFree(0));
    EXPECT_EQ(raw(TOTAL), 0);
}

// release returns the slat it is given, which need not be the getter's own.
TEST_F(InfosArea, releaseWithAutoReturnReturnsTheSlatItIsGiven) {
    startServing();
    InfosGetter client;
    attachHolding(client, "own", 1, true, 0);
    EXPECT_EQ(server.takeConn("someone", "else", 1, 3, false), 1);
    client.release(1);
    EXPECT_TRUE(slatFree(1));
    EXPECT_EQ(userName(0), "own");
    EXPECT_EQ(raw(TOTAL), 1);
}

TEST_F(InfosArea, slatTakenWithoutAutoReturnOutlivesItsGetterUntilAnyoneReturnsIt) {
    start();
    {
        InfosGetter client;
        attachHolding(client, "stays", 3, false, 0);
        client.release(0);
    }
    EXPECT_EQ(userName(0), "stays");
    EXPECT_EQ(raw(TOTAL), 3);
    server.init(KEY);
    server.retConn(0);
    EXPECT_TRUE(slatFree(0));
    EXPECT_EQ(raw(TOTAL), 0);
}

TEST_F(InfosArea, resetAllConnectionsFreesTheSlatsBelowMaxConnAndRecounts) {
    startServing(10);
    for (int k = 0; k < 8; ++k) server.takeConn("user", "info", 1, k == 7 ? 2 : 1, false);
    EXPECT_EQ(raw(TOTAL), 9);
    encoder.putMaxConn(5);
    server.resetAllConnections();
    for (int i = 0; i < 5; ++i) EXPECT_TRUE(slatFree(i)) << i;
    for (int i = 5; i < 8; ++i) EXPECT_EQ(userName(i), "user") << i;
    EXPECT_EQ(slatWeight(7), 2);
    EXPECT_EQ(raw(TOTAL), 4);

    encoder.putMaxConn(10);
    writeWord(TOTAL, 1);
    server.resetAllConnections();
    EXPECT_EQ(raw(TOTAL), 0);
    for (int i = 0; i < MAX_USER_SLATS; ++i) EXPECT_TRUE(slatFree(i)) << i;
}

TEST_F(InfosArea, budgetReadersReportWhatTheAreaHolds) {
    startServing(7);
    EXPECT_EQ(server.getMaxConnections(), 7);
    writeWord(TOTAL, 6);
    EXPECT_EQ(server.getCurrentTotalConnections(), 6);
    EXPECT_TRUE(server.probeConn(0));
    EXPECT_FALSE(server.probeConn(1));
}

TEST_F(InfosArea, getterInitWithoutAnAreaReportsShmgetFailure) {
    auto [message, log] = failureOf<InfosGetterError>([&] { server.init(KEY); });
    EXPECT_EQ(message, "shmget failed.");
    EXPECT_EQ(log, "shmget failed: No such file or directory\n");
}

TEST_F(InfosArea, unattachedGetterWritesOrThrowsAsEachBudgetOperationDoes) {
    start();
    const std::string before = rawBytes(0, SIZE);
    for (bool afterRelease : {false, true}) {
        SCOPED_TRACE(afterRelease ? "after release" : "never attached");
        if (afterRelease) {
            server.init(KEY);
            server.release(-1);
        }
        std::string err;
        captureOutput([&] { EXPECT_FALSE(server.probeConn(0)); }, err);
        EXPECT_EQ(err, "programming error\n");
        captureOutput([&] { server.retConn(0); }, err);
        EXPECT_EQ(err, "programming error\n");
        captureOutput([&] { server.retConn(-1); }, err);
        EXPECT_EQ(err, "");

        expectProgrammingErrors<InfosGetterError>(std::vector<std::function<void()>>{
            [&] { server.resetAllConnections(); }});
        for (auto call : std::vector<std::function<void()>>{[&] { server.takeConn("a", "b", 1, 1, true); },
                                                              [&] { server.getMaxConnections(); },
                                                              [&] { server.getCurrentTotalConnections(); }}) {
            auto [message, log] = failureOf<InfosGetterError>(call);
            EXPECT_EQ(message, "programming error");
            EXPECT_EQ(log, "");
        }
        captureOutput(
            [&] {
                EXPECT_EQ(server.allocUserSlat("a", "b", 1, 4), -1);
                EXPECT_EQ(server.deleteUserSlat(0), 0);
                char buffer[USER_SLAT_SIZE * 2];
                EXPECT_EQ(server.getUserList(buffer, sizeof buffer), 0);
                EXPECT_EQ(server.resetUserSlat("a", "b", 0), 1);
            },
            err);
        EXPECT_EQ(err, "");
    }
    EXPECT_EQ(rawBytes(0, SIZE), before);
}
