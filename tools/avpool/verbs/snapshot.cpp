// avpool snapshot PROFILE FILE: the newest picture of a JPEG profile, found
// through the information area, written to a file.

#include "cli/io.h"
#include "kinds/infos_view.h"
#include "kinds/pool_kinds.h"
#include "kinds/shm_view.h"
#include "verbs/verbs.h"

#include <avpool/infos.h>
#include <avpool/jpg.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

namespace avpool::cli {

namespace {

// A writer that died in the middle of a picture leaves its slot locked for
// good; waiting for it ends after this long.
constexpr int WAIT_SECONDS = 5;

void onTimeout(int) {
    static const char text[] = "avpool: snapshot: no complete picture within 5 s\n";
    ssize_t written = write(STDERR_FILENO, text, sizeof text - 1);
    (void)written;
    _exit(EXIT_FAILED);
}

int runSnapshot(const ParsedArgs& args) {
    args.expectPositional(2, "a profile and a file");
    int profile = parseInt(args.positional()[0], "snapshot: profile", 0, MAX_MEDIA_POOL - 1);
    const std::string& path = args.positional()[1];

    InfoAreaView area(INFOS_KEY);
    InfosGetter infos;
    infos.init(INFOS_KEY);
    int published = infos.getSizeofPools();
    if (profile >= published)
        throw CliError("snapshot: profile " + std::to_string(profile) + " is not published (sizeofPools " +
                       std::to_string(published) + ")");
    int state, channel, param3;
    infos.getInfo(profile, state, channel, param3);
    if (state != PROFILE_STREAMING || param3 != PROFILE_JPEG)
        throw CliError("snapshot: profile " + std::to_string(profile) + " is not a streaming JPEG profile (state " +
                       std::to_string(state) + ", infoParam3 " + std::to_string(param3) + ")");

    // A buffer for the largest picture the profile's pool takes.
    int maxFrameSize;
    {
        SegmentView pool(segmentKey(kinds::jpg, channel), JPG_HEADER_SIZE, poolName("jpg", channel));
        maxFrameSize = readHeader<JPGPoolHeader>(pool, "jpg", channel).maxFrameSize;
    }
    if (maxFrameSize <= 0)
        throw CliError("snapshot: " + poolName("jpg", channel) + " has maxFrameSize " + std::to_string(maxFrameSize));
    std::vector<unsigned char> buffer(static_cast<size_t>(maxFrameSize));

    signal(SIGALRM, onTimeout);
    alarm(WAIT_SECONDS);
    int length;
    try {
        length = JPGGetter::snapshot(buffer.data(), static_cast<unsigned int>(buffer.size()), profile);
    } catch (const InfosGetterError& error) {
        throw CliError(std::string("snapshot: ") + error.what());
    }
    alarm(0);
    if (length <= 0)
        throw CliError("snapshot: profile " + std::to_string(profile) + " gave no picture (" + poolName("jpg", channel) +
                       ")");
    {
        Output out(path, "snapshot");
        // False only for a fifo whose reader went away: for snapshot, a failure too.
        if (!out.write(buffer.data(), static_cast<size_t>(length)))
            throw CliError("snapshot: cannot write " + path + ": " + strerror(EPIPE));
    }
    printf("%d bytes of profile %d (%s) written to %s\n", length, profile, poolName("jpg", channel).c_str(),
           path.c_str());
    return 0;
}

}  // namespace

const Verb snapshotVerb = {
    "snapshot",
    "PROFILE FILE",
    "write the newest picture of a JPEG profile to a file",
    "Looks the profile up in the information area and copies the newest\n"
    "complete picture of its JPEG pool into FILE.\n"
    "\n"
    "Exits 1 when there is no information area, the profile is not published or\n"
    "not a streaming JPEG profile, its pool is missing, or no picture is complete\n"
    "within 5 s.\n",
    {},
    runSnapshot,
};

}  // namespace avpool::cli
