/* The active-user functions called from C: the header compiles as C and the
 * three functions link and work. The program plays the encoder itself and lays
 * out a fresh area under key 1168 by hand (no lock set: the functions then run
 * unlocked, as against an older encoder). */
#include <avpool/infos.h>

#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

enum { KEY = 1168, AREA = 6552, SLATS = 12, SLAT = 108, WEIGHTS = 1092 };

static int failures = 0;

static void check(int ok, const char* what) {
    if (!ok) {
        fprintf(stderr, "FAILED: %s\n", what);
        ++failures;
    }
}

static int32_t word(const unsigned char* area, size_t offset) {
    int32_t value;
    memcpy(&value, area + offset, sizeof value);
    return value;
}

static void setWord(unsigned char* area, size_t offset, int32_t value) {
    memcpy(area + offset, &value, sizeof value);
}

static void removeKey(void) {
    int shm = shmget(KEY, 0, 0);
    if (shm != -1) shmctl(shm, IPC_RMID, NULL);
    int sem = semget(KEY, 0, 0);
    if (sem != -1) semctl(sem, 0, IPC_RMID);
}

int main(void) {
    char info[] = "first argument";
    char name[] = "second argument";
    char table[3 * SLAT];
    unsigned char* area;
    int id, i;

    removeKey();
    fprintf(stderr, "(two lines on stderr expected next: the area does not exist yet)\n");
    check(Add_Active_User(info, name) == -1, "Add_Active_User without an area returns -1");
    check(Get_Active_User_Table(table, sizeof table) == -1, "Get_Active_User_Table without an area returns -1");

    id = shmget(KEY, AREA, IPC_CREAT | IPC_EXCL | 0600);
    if (id == -1) {
        perror("shmget");
        return 1;
    }
    area = shmat(id, NULL, 0);
    if (area == (void*)-1) {
        perror("shmat");
        shmctl(id, IPC_RMID, NULL);
        return 1;
    }
    memset(area, 0, AREA);
    setWord(area, 4, 10);
    for (i = 0; i < 10; ++i) setWord(area, SLATS + SLAT * (size_t)i, 32767);

    check(Add_Active_User(info, name) == 0, "Add_Active_User returns slat 0");
    check(strcmp((const char*)area + SLATS + 8, "second argument") == 0, "userName is the second argument");
    check(strcmp((const char*)area + SLATS + 40, "first argument") == 0, "userInfo is the first argument");
    check(word(area, SLATS + 4) == 4, "userType 4");
    check(word(area, WEIGHTS) == 1, "weight 1");
    check(word(area, 8) == 1, "total 1");

    check(Get_Active_User_Table(table, sizeof table) == 1, "one record listed");
    check(memcmp(table, area + SLATS, SLAT) == 0, "the record is slat 0 as it lies in the area");

    check(Delete_Active_User(0) == 0, "Delete_Active_User returns 0");
    check(word(area, 8) == 0, "total back to 0");
    check(word(area, SLATS) == 32767 && word(area, WEIGHTS) == 0, "slat 0 free again");
    check(Get_Active_User_Table(table, sizeof table) == 0, "nothing listed");

    shmdt(area);
    removeKey();
    if (failures == 0) printf("active-user functions from C: all checks passed\n");
    return failures == 0 ? 0 : 1;
}
