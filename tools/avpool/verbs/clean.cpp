// avpool clean: removes the segment and semaphore sets of every pool whose
// creator has died, and leaves the pools of running processes alone.

#include "kinds/shm_view.h"
#include "kinds/survey.h"
#include "verbs/verbs.h"

#include <cstdio>
#include <string>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

namespace avpool::cli {

namespace {

int runClean(const ParsedArgs& args) {
    args.expectPositional(0, "no arguments");
    int removed = 0;
    for (const FoundPool& pool : findPools()) {
        if (pool.creatorAlive) continue;
        std::string what = "removed " + poolName(pool) + ": segment " + hexKey(pool.key) + " (creator " +
                           std::to_string(pool.creator) + " is gone)";
        if (shmctl(pool.id, IPC_RMID, nullptr) == -1) continue;  // someone else removed it first
        for (int key : lockKeys(pool)) {
            int id = semget(key, 0, 0);
            if (id != -1 && semctl(id, 0, IPC_RMID) == 0) what += ", semaphore set " + hexKey(key);
        }
        printf("%s\n", what.c_str());
        ++removed;
    }
    if (removed == 0) printf("nothing to clean\n");
    return 0;
}

}  // namespace

const Verb cleanVerb = {
    "clean",
    "",
    "remove pools whose creator has died",
    "Removes the segment and the semaphore sets of every pool (and the\n"
    "information area) whose creating process no longer runs, one line per pool\n"
    "removed. Pools whose creator still runs are left alone.\n",
    {},
    runClean,
};

}  // namespace avpool::cli
