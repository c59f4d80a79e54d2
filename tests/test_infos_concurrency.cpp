// The connection budget across processes: servers killed at any point inside it,
// a process dead between the stores of a slat, a holder killed with its slats,
// and servers on an area whose lock is gone.
#include "infos.h"

#include <csignal>
#include <iostream>
#include <memory>

#include <sys/sem.h>
#include <unistd.h>

using namespace avpool::test;
using namespace infos_layout;

namespace {

// What the checker saw, in memory shared with it.
struct Board {
    int32_t stop, checks, torn, totalsOff;
};

// Takes and gives back connections with automatic return, without pause, so
// that kills land anywhere in the budget's code.
int serve(int index) {
    InfosGetter a, b;
    a.init(KEY);
    b.init(KEY);
    for (int i = 0;; ++i) {
        try {
            const int taken = a.takeConn("server", "kill loop", 1, 1 + (i + index) % 3, true);
            if (i % 3 == 0) b.retConn(b.takeConn("server", "second", 1, 1, true));
            a.retConn(taken);
        } catch (const InfosGetterError&) {
        }
    }
}

// Under the servers' own lock: every slat free or whole (its ID, a weight of 1
// to 3, the servers' name), the total the sum of the weights and within the
// budget; a slat the journal names was being changed by a process that died.
int checkWhole(Board& board) {
    RawSegment area(KEY);
    while (__atomic_load_n(&board.stop, __ATOMIC_SEQ_CST) == 0) {
        if (!adjustWithUndo(KEY, 0, -1)) return 2;
        const int torn = lockValue(KEY, JOURNAL) - 1;
        int32_t sum = 0;
        for (int i = 0; i < MAX_USER_SLATS; ++i) {
            const int32_t id = area.i32(slat(i, SLAT_ID)), w = area.i32(weight(i));
            const char* name = reinterpret_cast<const char*>(area.at(slat(i, USER_NAME)));
            const bool whole = id == i && w >= 1 && w <= 3 && strcmp(name, "server") == 0;
            if (i != torn && !(id == FREE && w == 0 && name[0] == 0) && !whole) ++board.torn;
            sum += whole ? w : 0;
        }
        const int32_t total = area.i32(TOTAL);
        if (torn < 0 && (sum != total || total > area.i32(MAX_CONN))) ++board.totalsOff;
        if (!adjustWithUndo(KEY, 0, +1)) return 2;
        ++board.checks;
        usleep(200);
    }
    return 0;
}

}  // namespace

using InfosContention = InfosArea;

// Eight servers contend for a budget of 10 and are killed at random, hundreds of
// times (AVPOOL_FAULT_CYCLES for a long run), inside the lock too: nothing is
// ever seen half-written or miscounted under the lock, the lock is never left
// held, and once the last server is gone every unit and semaphore is back.
TEST_F(InfosContention, killedServersNeverLeaveAHalfWrittenSlatAndTheirUnitsComeBack) {
    constexpr int SERVERS = 8;
    start(10);
    SharedMemory<Board> board;
    Board& shared = *board;
    std::vector<std::unique_ptr<ForkedChild>> servers;
    for (int s = 0; s < SERVERS; ++s)
        servers.push_back(std::make_unique<ForkedChild>([s](ChildLink&) { return serve(s); }));
    ForkedChild checker([&shared](ChildLink&) { return checkWhole(shared); });

    const int kills = faultCycles(150);
    unsigned random = 12345;
    for (int k = 0; k < kills; ++k) {
        random = random * 1103515245 + 12345;
        const int victim = static_cast<int>(random >> 16) % SERVERS;
        usleep(200 + (random >> 8) % 2000);
        servers[victim]->signal(SIGKILL);
        ASSERT_EQ(servers[victim]->wait(5000).signal, SIGKILL) << "server " << victim;
        servers[victim] = std::make_unique<ForkedChild>([victim](ChildLink&) { return serve(victim); });
    }
    for (auto& s : servers) s->signal(SIGKILL);
    for (auto& s : servers) s->wait();
    __atomic_store_n(&board->stop, 1, __ATOMIC_SEQ_CST);
    EXPECT_TRUE(checker.wait().ok()) << "the checker never got the lock back";
    ASSERT_EQ(lockValue(KEY, 0), 1) << "a killed server left the lock held";

    server.init(KEY);
    EXPECT_EQ(server.getCurrentTotalConnections(), 0);
    std::cout << "budget kills: " << kills << ", checks " << board->checks << std::endl;
    EXPECT_EQ((std::vector<int>{board->torn, board->totalsOff, slatsTaken()}), (std::vector<int>{0, 0, 0}));
    EXPECT_EQ(lockValues(KEY, 12), std::vector<int>({1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_GT(board->checks, 0);
}

// Servers attached to an area whose lock is missing, or went away after they
// attached, work without it instead of failing or waiting.
TEST_F(InfosContention, serversRunUnlockedWhenTheAreaHasNoLock) {
    start(10);
    ForkedChild server([](ChildLink& link) {
        InfosGetter early;
        early.init(KEY);
        link.say("attached");
        if (!link.awaitGo()) return 3;
        InfosGetter late;
        late.init(KEY);
        const int a = early.takeConn("early", "", 1, 2, false);
        const int b = late.takeConn("late", "", 1, 3, false);
        late.retConn(a);
        char buffer[4 * USER_SLAT_SIZE];
        link.say(std::to_string(a) + " " + std::to_string(b) + " " + std::to_string(late.getUserList(buffer, 432)));
        return 0;
    });
    ASSERT_NO_FATAL_FAILURE(expectLine(server, "attached"));
    ASSERT_EQ(semctl(semIdOf(KEY), 0, IPC_RMID), 0);
    server.go();
    expectLastLine(server, "0 1 1");
    encoder.putMaxConn(4);
    EXPECT_EQ((std::vector<int>{raw(MAX_CONN), raw(TOTAL)}), (std::vector<int>{4, 3}));
}

// A process that dies between the stores of a slat (the ID written, the weight
// not yet, the total already counted) leaves its journal mark; the next holder
// of the lock puts that slat back to free and counts the total again.
TEST_F(InfosContention, slatLeftHalfWrittenByADeadProcessIsFreedByTheNextLockHolder) {
    startServing(10);
    ASSERT_EQ(server.takeConn("kept", "", 1, 2, false), 0);
    ForkedChild dying([this](ChildLink&) {
        if (!adjustWithUndo(KEY, 0, -1) || !setLockValue(KEY, JOURNAL, 1 + 3)) return 2;
        writeWord(slat(3, SLAT_ID), 3);
        strcpy(reinterpret_cast<char*>(encoderBase() + slat(3, USER_NAME)), "torn");
        writeWord(TOTAL, 2 + 5);
        return 0;  // dies holding the lock: the kernel gives the lock back, not the stores
    });
    ASSERT_TRUE(dying.wait().ok());
    ASSERT_EQ(slatField(3, SLAT_ID), 3);
    EXPECT_FALSE(server.probeConn(8)) << "8 more units fit only in a budget of 2 taken";
    EXPECT_TRUE(slatFree(3));
    EXPECT_EQ(userName(3), "");
    EXPECT_EQ((std::vector<int>{raw(TOTAL), lockValue(KEY, JOURNAL), slatField(0, SLAT_ID), slatWeight(0)}),
              (std::vector<int>{2, 0, 0, 2}));
    EXPECT_TRUE(server.probeConn(7));
}

// A slat taken with automatic return belongs to its process: killed, its units
// come back at the next use of the budget. One taken without (an active user)
// is meant to outlive its taker and stays.
TEST_F(InfosContention, unitsOfAKilledHolderComeBackWhileSlatsMeantToOutliveItStay) {
    startServing(10);
    ForkedChild holder([](ChildLink& link) -> int {
        InfosGetter streaming, user;
        streaming.init(KEY);
        user.init(KEY);
        const int a = streaming.takeConn("viewer", "10.0.0.7", 1, 3, true);
        const int b = user.takeConn("admin", "console", 4, 1, false);
        link.say(std::to_string(a) + " " + std::to_string(b));
        for (;;) pause();
    });
    ASSERT_NO_FATAL_FAILURE(expectLine(holder, "0 1"));
    EXPECT_EQ((std::vector<int>{raw(TOTAL), lockValue(KEY, HOLDER + 0), lockValue(KEY, HOLDER + 1)}),
              (std::vector<int>{4, 2, 0}));
    holder.signal(SIGKILL);
    ASSERT_EQ(holder.wait().signal, SIGKILL);
    EXPECT_EQ(lockValue(KEY, HOLDER + 0), 1) << "the kernel takes back the dead holder's unit";
    EXPECT_EQ(raw(TOTAL), 4) << "nothing changes before the budget is used";
    EXPECT_EQ(server.getCurrentTotalConnections(), 1);
    EXPECT_TRUE(slatFree(0));
    EXPECT_EQ(lockValue(KEY, HOLDER + 0), 0);
    EXPECT_EQ(userName(1), "admin");
    EXPECT_EQ(slatWeight(1), 1);
    // Returned by anyone, a slat no longer counts on its first holder.
    EXPECT_EQ(server.takeConn("next", "", 1, 2, true), 0);
    EXPECT_EQ(lockValue(KEY, HOLDER + 0), 2);
    server.retConn(0);
    EXPECT_EQ((std::vector<int>{lockValue(KEY, HOLDER + 0), raw(TOTAL)}), (std::vector<int>{0, 1}));
}
