// avpool infos [--key K]: what the encoder published in the information area
// (profiles, stream parameters, codec blobs), the connection budget and the
// users holding slats, read through the library's reader.

#include "cli/fields.h"
#include "kinds/infos_view.h"
#include "verbs/verbs.h"

#include <avpool/infos.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace avpool::cli {

namespace {

constexpr int BLOB_CAPACITY = 256;    // each of sps, pps and vol
constexpr int HEX_BYTES_PER_LINE = 32;

// A blob's stated size and its bytes as hex. The size is the encoder's word;
// no more than the field holds is shown.
void printBlob(const char* name, const unsigned char* bytes, int size) {
    std::string sizeName = std::string(name) + "Size";
    int shown = size < 0 ? 0 : size > BLOB_CAPACITY ? BLOB_CAPACITY : size;
    printFields({{sizeName.c_str(), size}});
    std::string hex;
    for (int i = 0; i < shown; ++i) {
        char byte[4];
        snprintf(byte, sizeof byte, "%02x", bytes[i]);
        if (i > 0 && i % HEX_BYTES_PER_LINE == 0) hex += '\n';
        hex += byte;
    }
    if (shown != size) hex += (hex.empty() ? "" : "\n") + std::string("(") + std::to_string(shown) + " bytes shown)";
    printTextField(name, hex.empty() ? "-" : hex);
}

// The SDP header text within its 256 bytes, line by line without the CRs.
std::string sdpText(const char* header) {
    std::string text(header, strnlen(header, BLOB_CAPACITY));
    std::string lines;
    for (char c : text)
        if (c != '\r') lines += c;
    return lines.empty() ? "-" : lines;
}

void printProfile(InfosGetter& infos, int p) {
    int state, channel, infoParam3, width, height, videoParam3, a1, a2, a3;
    infos.getInfo(p, state, channel, infoParam3);
    infos.getVideoInfo(p, width, height, videoParam3);
    infos.getAudioInfo(p, a1, a2, a3);
    printf("\nprofile %d\n", p);
    printFields({{"state", state},
                 {"channel", channel},
                 {"infoParam3", infoParam3},
                 {"width", width},
                 {"height", height},
                 {"videoParam3", videoParam3},
                 {"audioParam1", a1},
                 {"audioParam2", a2},
                 {"audioParam3", a3},
                 {"audioFrameDuration", infos.getAudioFrameDuration(p)},
                 {"sharedMemSize", infos.getSharedMemSize(p)},
                 {"sslWeight", infos.getUseSSLWeight(p)}});
    printTextField("sdpHeader", sdpText(infos.getSDPHeader(p)));
    printBlob("sps", infos.getSPS(p), infos.getSPSSize(p));
    printBlob("pps", infos.getPPS(p), infos.getPPSSize(p));
    printBlob("vol", infos.getVOL(p), infos.getVOLSize(p));
}

int runInfos(const ParsedArgs& args) {
    args.expectPositional(0, "no arguments besides options");
    int key = args.intOption("--key", INFOS_KEY, 1, INT_MAX);
    InfoAreaView view(key);  // a missing area ends here, with one line
    InfosGetter infos;
    infos.init(key);

    int profiles = infos.getSizeofPools();
    int maxConn = infos.getMaxConnections();
    int taken = infos.getCurrentTotalConnections();
    printf("information area, key %s\n", keyText(key).c_str());
    printFields({{"sizeofPools", profiles}, {"maxConn", maxConn}, {"currentTotalConnections", taken}});
    printTextField("budget", std::to_string(taken) + " of " + std::to_string(maxConn) + " units taken");
    for (int p = 0; p < profiles && p < MAX_MEDIA_POOL; ++p) printProfile(infos, p);

    std::vector<char> packed(MAX_USER_SLATS * USER_SLAT_SIZE);
    std::vector<UserSlat> users =
        unpackUsers(packed, infos.getUserList(packed.data(), static_cast<int>(packed.size())));
    printf("\nusers: %zu\n", users.size());
    if (!users.empty()) printUserHeader();
    for (const UserSlat& user : users) printUser(user, view.weight(user.slatID));
    return 0;
}

}  // namespace

const Verb infosVerb = {
    "infos",
    "[--key K]",
    "show the published profiles, the connection budget and the users",
    "Attaches to the information area and prints the number of profiles, the\n"
    "connection budget (maxConn and the units taken), then for every published\n"
    "profile its state, pool channel, picture and audio parameters, the size of\n"
    "its pool segment, the weight of a client of it, the SDP header text and the\n"
    "SPS, PPS and VOL as hex, and last every user holding a slat: slat index,\n"
    "user type, weight, login time (local), userName and userInfo.\n"
    "\n"
    "Exits 1 when there is no information area.\n",
    {
        {"--key", "K", "the area's System V key (default 1168)"},
    },
    runInfos,
};

}  // namespace avpool::cli
