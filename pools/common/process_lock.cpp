#include "process_lock.h"

#include "segment.h"
#include "slot_lock.h"

#include <cerrno>
#include <sys/sem.h>

namespace avpool::detail {

namespace {
constexpr int FREE = 1;

bool adjust(int id, short delta) {
    sembuf op;
    op.sem_num = 0;
    op.sem_op = delta;
    op.sem_flg = SEM_UNDO;
    while (semop(id, &op, 1) == -1) {
        if (errno != EINTR) return false;
    }
    return true;
}
}  // namespace

int createProcessLock(key_t key, int count, const char* failText, Raise raise) {
    int id = createWithRetry([&] { return createSemSet(key, count); }, [&] { forceRemoveSemSet(key, 0, 1); }, failText,
                             raise, "");
    setLock(id, 0, FREE, raise);
    return id;
}

int findProcessLock(key_t key) {
    return semget(key, 0, 0);
}

void removeProcessLock(int& id) {
    if (id != -1) removeSemSet(id, 1);
}

ProcessLockGuard::ProcessLockGuard(int id) {
    if (id != -1 && adjust(id, -1)) held_ = id;
}

ProcessLockGuard::~ProcessLockGuard() {
    if (held_ != -1) adjust(held_, +1);
}

}  // namespace avpool::detail
