// The connection budget's semaphore set, under the area's own key:
//
//   sem 0        the lock: 1 free, 0 held (taken with SEM_UNDO)
//   sem 1 + i    who holds slat i: 2 a live process (one of the two units is
//                SEM_UNDO, so the kernel takes it back when that process dies),
//                1 its holder died, 0 nobody in particular (free, or taken
//                without automatic return: meant to outlive its taker)
//   sem 11       the journal: 1 + i while slat i is being changed, else 0
//
// A slat is several stores (ID, names, type, time, weight) and the total one
// more; a process killed between them would leave the slat neither free nor in
// use. So every change of a slat is made between a mark in the journal and its
// clearing, and whoever takes the lock next finds the mark of a process that
// died inside, puts that slat back to free and counts the total again. Slats
// whose holder died are returned the same way. The area's layout is untouched:
// all of this lives in the semaphores. An area whose encoder made only the
// one-semaphore lock is used with the lock alone.
#pragma once

#include <avpool/infos.h>

#include "../common/process_lock.h"

namespace avpool::detail {

constexpr int BUDGET_LOCK = 0;
constexpr int BUDGET_HOLDERS = 1;
constexpr int BUDGET_JOURNAL = BUDGET_HOLDERS + MAX_USER_SLATS;
constexpr int BUDGET_SEMS = BUDGET_JOURNAL + 1;

// The number of semaphores of the set under id (0 when it is gone).
int budgetSems(int id);

// Frees slat i whatever maxConn says: ID free, names cleared, weight 0.
// Returns the weight it held.
int clearSlat(InfoArea* area, int i);

// Holds the budget's lock for its lifetime, and heals the budget as it takes it.
class BudgetSession {
public:
    BudgetSession(int id, int sems, InfoArea* area);
    ~BudgetSession() = default;
    BudgetSession(const BudgetSession&) = delete;
    BudgetSession& operator=(const BudgetSession&) = delete;

    // Runs change, which stores into slat i and perhaps the total, inside the
    // journal's mark for i.
    template <class Change>
    void change(int i, Change change) {
        bool journaled = healing_ && i >= 0 && i < MAX_USER_SLATS;
        if (journaled) mark(i + 1);
        change();
        if (journaled) mark(0);
    }
    // After slat i was taken: held by this process (autoReturn), or by nobody.
    void setHolder(int i, bool thisProcess);

private:
    void heal();
    void mark(int value);

    ProcessLockGuard lock_;
    int id_;
    bool healing_;
    InfoArea* area_;
};

}  // namespace avpool::detail
