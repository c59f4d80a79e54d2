// The active-user table for C callers: slats of weight 1 and type 4, taken
// without automatic return so that they outlive the caller's process.
#include <avpool/infos.h>

#include <cstdio>

namespace {
constexpr int ACTIVE_USER_TYPE = 4;
constexpr int ACTIVE_USER_WEIGHT = 1;

// Runs body on a getter attached to the area; an error of the area becomes the
// caller's line on stderr and the failure result.
template <class Body>
int withArea(const char* name, int failure, Body body) {
    try {
        InfosGetter getter;
        getter.init(INFOS_KEY);
        return body(getter);
    } catch (const InfosGetterError& error) {
        fprintf(stderr, "%s failed: %s\n", name, error.what());
        return failure;
    }
}
}  // namespace

// The second argument becomes the slat's 32-byte userName and the first its
// 64-byte userInfo: callers have always passed them this way round.
int Add_Active_User(char* userInfo, char* userName) {
    if (userInfo == nullptr || userName == nullptr) return -1;
    return withArea("Add_Active_User", -1, [&](InfosGetter& getter) {
        return getter.takeConn(userName, userInfo, ACTIVE_USER_TYPE, ACTIVE_USER_WEIGHT, false);
    });
}

int Delete_Active_User(int slat) {
    if (slat < 0) return 1;
    return withArea("Delete_Active_User", 1, [&](InfosGetter& getter) {
        getter.retConn(slat);
        return 0;
    });
}

int Get_Active_User_Table(char* buffer, int size) {
    if (buffer == nullptr) return -1;
    return withArea("Get_Active_User_Table", -1, [&](InfosGetter& getter) { return getter.getUserList(buffer, size); });
}
