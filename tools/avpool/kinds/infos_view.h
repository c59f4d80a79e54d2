// What the verbs that deal with the information area share: the profile values
// the demo publishes and the snapshot looks for, a read-only view of the area
// for what the library's reader does not hand out (the slats' weights), and
// the rendering of an active user.
#pragma once

#include "kinds/shm_view.h"

#include <avpool/infos.h>

#include <string>
#include <vector>

namespace avpool::cli {

// A profile whose pool is being written has state 2; infoParam3 1 marks a
// JPEG profile. Only such a profile gives a snapshot.
constexpr int PROFILE_STREAMING = 2;
constexpr int PROFILE_JPEG = 1;

// The area attached read-only. A missing area ends the tool with
// "no information area (key 0x490)".
class InfoAreaView : public SegmentView {
public:
    explicit InfoAreaView(int key);
    // The weight slat holds; 0 for an index outside the table.
    int weight(int slat) const;
};

// The slats in use, as the library packs them: UserSlat records in slat order.
std::vector<UserSlat> unpackUsers(const std::vector<char>& packed, int count);

// "YYYY-MM-DD HH:MM:SS" in local time.
std::string localTimeText(long long seconds);

// One line per user: slat, type, weight, login time, userName, userInfo.
void printUserHeader();
void printUser(const UserSlat& user, int weight);

}  // namespace avpool::cli
