/* The active-user functions called from C: the header compiles as C and the three functions link and
 * work. The area under key 1168 is laid out by hand with no lock set, as an older encoder leaves it: the
 * functions then run unlocked. Their failure lines are checked in test_infos. */
#include <avpool/infos.h>

#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

enum { KEY = 1168, AREA = 6552, TOTAL = 8, SLATS = 12, SLAT = 108, WEIGHTS = 1092, FREE = 32767 };

static int failures = 0;
#define CHECK(ok) ((ok) ? (void)0 : (void)(fprintf(stderr, "FAILED: %s\n", #ok), ++failures))

static int32_t word(const unsigned char* area, size_t offset) {
    int32_t value;
    memcpy(&value, area + offset, sizeof value);
    return value;
}

static void removeKey(void) {
    int shm = shmget(KEY, 0, 0), sem = semget(KEY, 0, 0);
    if (shm != -1) shmctl(shm, IPC_RMID, NULL);
    if (sem != -1) semctl(sem, 0, IPC_RMID);
}

int main(void) {
    char info[] = "first argument", name[] = "second argument", table[3 * SLAT];
    const int32_t maxConn = 10, freeId = FREE;
    int id, i;
    unsigned char* area;

    removeKey();
    id = shmget(KEY, AREA, IPC_CREAT | IPC_EXCL | 0600);
    area = id == -1 ? (void*)-1 : shmat(id, NULL, 0);
    if (area == (void*)-1) return perror("area"), removeKey(), 1;
    memcpy(area + 4, &maxConn, sizeof maxConn);
    for (i = 0; i < maxConn; ++i) memcpy(area + SLATS + SLAT * (size_t)i, &freeId, sizeof freeId);

    CHECK(Add_Active_User(NULL, name) == -1 && Add_Active_User(info, NULL) == -1); /* nothing taken */
    CHECK(Add_Active_User(info, name) == 0);
    /* The second argument is the 32-byte userName, the first the 64-byte userInfo; type 4, weight 1. */
    CHECK(strcmp((const char*)area + SLATS + 8, name) == 0 && strcmp((const char*)area + SLATS + 40, info) == 0);
    CHECK(word(area, SLATS + 4) == 4 && word(area, WEIGHTS) == 1 && word(area, TOTAL) == 1);
    for (i = 1; i < 5; ++i) CHECK(Add_Active_User(info, name) == i);
    CHECK(Delete_Active_User(0) == 0 && Delete_Active_User(0) == 0 && Delete_Active_User(12) == 0);
    CHECK(Delete_Active_User(-1) == 1);
    CHECK(word(area, TOTAL) == 4 && word(area, SLATS) == FREE && word(area, WEIGHTS) == 0); /* taken off once */

    /* Slats 1, 3 and 4 in use (2 has weight 0): whole records packed, as many as fit. */
    memset(area + WEIGHTS + 8, 0, 4);
    memset(table, '~', sizeof table);
    CHECK(Get_Active_User_Table(table, sizeof table - 1) == 2);
    CHECK(memcmp(table, area + SLATS + SLAT, SLAT) == 0 && memcmp(table + SLAT, area + SLATS + 3 * SLAT, SLAT) == 0);
    CHECK(table[2 * SLAT] == '~' && memcmp(table + 2 * SLAT, table + 2 * SLAT + 1, SLAT - 1) == 0);
    CHECK(Get_Active_User_Table(table, SLAT - 1) == 0 && Get_Active_User_Table(table, -SLAT) == 0);
    CHECK(Get_Active_User_Table(NULL, sizeof table) == -1);

    shmdt(area);
    removeKey();
    if (failures == 0) printf("active-user functions from C: all checks passed\n");
    return failures == 0 ? 0 : 1;
}
