#include "kinds/infos_view.h"

#include <cstdio>
#include <cstring>
#include <ctime>

namespace avpool::cli {

namespace {

// A text field of a slat: up to its first NUL or its end, whatever the area
// holds, with control bytes shown as '?' so one user stays one line.
std::string slatText(const char* field, size_t size) {
    std::string text(field, strnlen(field, size));
    for (char& c : text)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
    return text;
}

}  // namespace

InfoAreaView::InfoAreaView(int key) : SegmentView(key, INFOS_AREA_SIZE, "information area") {}

int InfoAreaView::weight(int slat) const {
    int32_t value = 0;
    if (slat < 0 || slat >= MAX_USER_SLATS) return 0;
    read(offsetof(InfoArea, slatWeight) + sizeof value * slat, &value, sizeof value);
    return value;
}

std::vector<UserSlat> unpackUsers(const std::vector<char>& packed, int count) {
    std::vector<UserSlat> users(count > 0 ? count : 0);
    for (size_t i = 0; i < users.size() && (i + 1) * USER_SLAT_SIZE <= packed.size(); ++i)
        memcpy(&users[i], packed.data() + i * USER_SLAT_SIZE, USER_SLAT_SIZE);
    return users;
}

std::string localTimeText(long long seconds) {
    time_t when = static_cast<time_t>(seconds);
    tm local{};
    char text[32];
    if (localtime_r(&when, &local) == nullptr || strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local) == 0)
        return std::to_string(seconds);
    return text;
}

void printUserHeader() {
    printf("%4s %4s %6s  %-19s  %-31s  %s\n", "slat", "type", "weight", "login", "userName", "userInfo");
}

void printUser(const UserSlat& user, int weight) {
    printf("%4d %4d %6d  %-19s  %-31s  %s\n", user.slatID, user.userType, weight,
           localTimeText(user.loginTime).c_str(), slatText(user.userName, sizeof user.userName).c_str(),
           slatText(user.userInfo, sizeof user.userInfo).c_str());
}

}  // namespace avpool::cli
