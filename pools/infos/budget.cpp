#include "budget.h"

#include "../common/slot_lock.h"
#include "area.h"

#include <cerrno>
#include <cstring>
#include <sys/sem.h>

namespace avpool::detail {

namespace {
constexpr int HOLDER_DIED = 1;
}  // namespace

int budgetSems(int id) {
    semid_ds status;
    SemArg arg;
    arg.buf = &status;
    if (id == -1 || semctl(id, 0, IPC_STAT, arg) == -1) return 0;
    return static_cast<int>(status.sem_nsems);
}

int clearSlat(InfoArea* area, int i) {
    int weight = area->slatWeight[i];
    UserSlat& slat = area->slats[i];
    slat.slatID = FREE_SLAT_ID;
    memset(slat.userName, 0, sizeof slat.userName);
    memset(slat.userInfo, 0, sizeof slat.userInfo);
    area->slatWeight[i] = 0;
    return weight;
}

BudgetSession::BudgetSession(int id, int sems, InfoArea* area)
    : lock_(id), id_(id), healing_(lock_.held() && sems >= BUDGET_SEMS), area_(area) {
    if (healing_) heal();
}

// The budget's semaphores are set without reporting: with the set gone the
// getter runs unlocked, as it does without one.
void BudgetSession::mark(int value) {
    setValue(id_, BUDGET_JOURNAL, value);
}

// SETVAL also clears every process's pending undo of that semaphore, so a slat
// returned by anyone stops counting on its first holder.
void BudgetSession::setHolder(int i, bool thisProcess) {
    if (!healing_) return;
    setValue(id_, BUDGET_HOLDERS + i, 0);
    if (!thisProcess) return;
    sembuf ops[2] = {{static_cast<unsigned short>(BUDGET_HOLDERS + i), 1, 0},
                     {static_cast<unsigned short>(BUDGET_HOLDERS + i), 1, SEM_UNDO}};
    while (semop(id_, ops, 2) == -1 && errno == EINTR) {
    }
}

void BudgetSession::heal() {
    unsigned short values[BUDGET_SEMS];
    SemArg arg;
    arg.array = values;
    if (semctl(id_, 0, GETALL, arg) == -1) return;

    int torn = values[BUDGET_JOURNAL] - 1;
    if (torn >= 0) {
        // Whether the total was already adjusted is not known: count it again.
        if (torn < MAX_USER_SLATS) {
            clearSlat(area_, torn);
            setHolder(torn, false);
        }
        int32_t total = 0;
        for (int32_t weight : area_->slatWeight) total = wrappingAdd(total, weight);
        area_->currentTotalConnections = total < 0 ? 0 : total;
        mark(0);
    }
    for (int i = 0; i < MAX_USER_SLATS; ++i) {
        if (i == torn || values[BUDGET_HOLDERS + i] != HOLDER_DIED) continue;
        change(i, [&] {
            int32_t& total = area_->currentTotalConnections;
            total = wrappingSub(total, clearSlat(area_, i));
            if (total < 0) total = 0;
            setHolder(i, false);
        });
    }
}

}  // namespace avpool::detail
