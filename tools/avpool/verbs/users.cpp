// avpool users add|del|list: the active-user table of the information area,
// through the functions C programs use for it. Those functions write their own
// line to stderr when they fail; the tool then only sets the exit code.

#include "kinds/infos_view.h"
#include "verbs/verbs.h"

#include <avpool/infos.h>

#include <cstdio>
#include <string>
#include <vector>

namespace avpool::cli {

namespace {

constexpr size_t MAX_NAME = sizeof(UserSlat::userName) - 1;
constexpr size_t MAX_INFO = sizeof(UserSlat::userInfo) - 1;

std::vector<UserSlat> activeUsers() {
    std::vector<char> packed(MAX_USER_SLATS * USER_SLAT_SIZE);
    int count = Get_Active_User_Table(packed.data(), static_cast<int>(packed.size()));
    if (count < 0) throw AlreadyReported();
    return unpackUsers(packed, count);
}

// The area stores at most this many bytes of a text; refuse to cut one short.
void checkLength(const std::string& text, size_t most, const char* what) {
    if (text.size() > most)
        throw UsageError("users add: " + std::string(what) + " must be at most " + std::to_string(most) +
                         " bytes, not " + std::to_string(text.size()));
}

int addUser(const ParsedArgs& args) {
    args.expectPositional(3, "add NAME INFO");
    std::string name = args.positional()[1];
    std::string info = args.positional()[2];
    checkLength(name, MAX_NAME, "NAME");
    checkLength(info, MAX_INFO, "INFO");
    InfoAreaView area(INFOS_KEY);
    // The info comes first and the name second.
    int slat = Add_Active_User(&info[0], &name[0]);
    if (slat < 0) throw AlreadyReported();
    printf("%d\n", slat);
    return 0;
}

int deleteUser(const ParsedArgs& args) {
    args.expectPositional(2, "del SLAT");
    int slat = parseInt(args.positional()[1], "users del: SLAT", 0, MAX_USER_SLATS - 1);
    InfoAreaView area(INFOS_KEY);
    bool inUse = false;
    for (const UserSlat& user : activeUsers()) inUse = inUse || user.slatID == slat;
    if (!inUse) throw CliError("users del: slat " + std::to_string(slat) + " is not in use");
    if (Delete_Active_User(slat) != 0) throw AlreadyReported();
    return 0;
}

int listUsers(const ParsedArgs& args) {
    args.expectPositional(1, "list");
    InfoAreaView area(INFOS_KEY);
    for (const UserSlat& user : activeUsers()) printUser(user, area.weight(user.slatID));
    return 0;
}

struct UsersAction {
    const char* name;
    int (*run)(const ParsedArgs& args);
};

const UsersAction actions[] = {
    {"add", addUser},
    {"del", deleteUser},
    {"list", listUsers},
};

int runUsers(const ParsedArgs& args) {
    if (args.positional().empty()) args.expectPositional(1, "an action");
    return findNamed(actions, args.positional()[0], "users: unknown action").run(args);
}

}  // namespace

const Verb usersVerb = {
    "users",
    "add NAME INFO | del SLAT | list",
    "add, remove and list the active users of the information area",
    "add NAME INFO  takes a slat of weight 1 for an active user and prints its\n"
    "               index; the slat stays taken after the tool exits.\n"
    "del SLAT       frees the slat and gives its weight back to the budget.\n"
    "list           one line per slat in use: slat, user type, weight, login\n"
    "               time (local), userName and userInfo.\n"
    "\n"
    "NAME is at most 31 bytes and INFO at most 63. Exits 1 when there is no\n"
    "information area, when add finds the budget or the slats used up, and when\n"
    "del is given a slat not in use.\n",
    {},
    runUsers,
};

}  // namespace avpool::cli
