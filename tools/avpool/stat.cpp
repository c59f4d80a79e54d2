// avpool stat KIND CHANNEL: print the header, every slot and the semaphore
// values of an existing pool, attached read-only. Each pool kind has one
// printer in the table at the end of this file.

#include "shm_view.h"
#include "verbs.h"

#include <avpool/jpg.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace avpool::cli {

namespace {

constexpr int MAX_CHANNEL = 255;  // the kinds' base keys are 0x100 apart

void printSegment(const SegmentView& view) {
    printf("key:              %s\n", keyText(view.key()).c_str());
    printf("segment id:       %d\n", view.id());
    printf("size:             %zu\n", view.size());
    printf("creator pid:      %d\n", static_cast<int>(view.creator()));
    printf("attached:         %lu\n", view.attached());
}

void printLocks(const LockView& locks, int count) {
    if (locks.id() == -1)
        printf("locks:            none readable (%s)\n", strerror(locks.error()));
    else
        printf("locks:            semaphore set %d, %d semaphores\n", locks.id(), count);
}

std::string lockText(const LockView& locks, int index) {
    int value = locks.value(index);
    return value < 0 ? "?" : std::to_string(value);
}

// The header's geometry must lie inside the segment before any slot is read.
void checkJpgGeometry(const JPGPoolHeader& header, const SegmentView& view, int channel) {
    const char* problem = nullptr;
    size_t size = view.size();
    size_t n = header.frameCount > 0 ? static_cast<size_t>(header.frameCount) : 0;
    if (header.frameCount < 1 || header.frameCount > JPG_MAX_FRAME_COUNT)
        problem = "frameCount out of range";
    else if (header.safeTimeOffset < 0 || header.safeTimeOffset + 4 * n > size)
        problem = "safe-time table outside the segment";
    else if (header.frameInfoOffset < 0 || header.frameInfoOffset + sizeof(JPGFrameInfo) * n > size)
        problem = "frame-info table outside the segment";
    else if (header.dataOffset < 0 || static_cast<size_t>(header.dataOffset) > size)
        problem = "data ring outside the segment";
    if (problem != nullptr)
        throw CliError("jpg pool on channel " + std::to_string(channel) + " has a damaged header: " + problem);
}

// "intact" while the id prefix in front of the bytes still names the slot's
// frame, "overwritten" once a later frame has used that part of the ring.
const char* jpgBytesState(const SegmentView& view, const JPGPoolHeader& header, const JPGFrameInfo& info) {
    if (info.frameID.get() == 0) return "-";
    avpool::Word64 prefix;
    if (info.dataPosition < 0 || !view.read(static_cast<size_t>(header.dataOffset) + info.dataPosition, &prefix,
                                            sizeof prefix))
        return "outside";
    return prefix.get() == info.frameID.get() ? "intact" : "overwritten";
}

int statJpg(int channel) {
    int key = JPG_BASE_KEY + channel;
    SegmentView view(key, JPG_HEADER_SIZE, "jpg pool on channel " + std::to_string(channel));
    JPGPoolHeader header;
    if (!view.read(0, &header, sizeof header))
        throw CliError("jpg pool on channel " + std::to_string(channel) + " is smaller than its header");
    checkJpgGeometry(header, view, channel);
    int n = header.frameCount;
    LockView locks(key, n);

    printf("jpg pool, channel %d\n", channel);
    printSegment(view);
    printf("frameCount:       %d\n", header.frameCount);
    printf("maxFrameSize:     %d\n", header.maxFrameSize);
    printf("current:          %d\n", header.current);
    printf("realFPS:          %d\n", header.realFPS);
    printf("workingFPS:       %d\n", header.workingFPS);
    printf("picture:          %d x %d\n", header.workingWidth, header.workingHeight);
    printf("framePrefixSize:  %d\n", header.framePrefixSize);
    printf("safeTimeOffset:   %d\n", header.safeTimeOffset);
    printf("frameInfoOffset:  %d\n", header.frameInfoOffset);
    printf("dataOffset:       %d\n", header.dataOffset);
    printf("RawDataLen:       %zu\n", view.size() - static_cast<size_t>(header.dataOffset));
    printLocks(locks, n);
    printf("\n  slot %20s %17s %8s %12s %8s %4s  %s\n", "frameID", "captured", "length", "dataPosition",
           "safe ms", "lock", "bytes");
    for (int i = 0; i < n; ++i) {
        JPGFrameInfo info;
        int32_t safe = 0;
        view.read(header.frameInfoOffset + sizeof info * i, &info, sizeof info);
        view.read(header.safeTimeOffset + sizeof safe * i, &safe, sizeof safe);
        printf("%c %4d %20llu %10d.%06d %8d %12d %8d %4s  %s\n", i == header.current ? '*' : ' ', i,
               info.frameID.get(), info.tv_sec, info.tv_usec, info.frameLength, info.dataPosition, safe,
               lockText(locks, info.lockIndex).c_str(), jpgBytesState(view, header, info));
    }
    return 0;
}

struct StatKind {
    const char* name;
    int (*print)(int channel);
};

const StatKind kinds[] = {
    {"jpg", statJpg},
};

int runStat(const ParsedArgs& args) {
    args.expectPositional(2, "a pool kind and a channel");
    const std::string& kindName = args.positional()[0];
    for (const StatKind& kind : kinds) {
        if (kindName != kind.name) continue;
        int channel = parseInt(args.positional()[1], "stat: channel", 0, MAX_CHANNEL);
        return kind.print(channel);
    }
    std::string known;
    for (const StatKind& kind : kinds) known += (known.empty() ? "" : ", ") + std::string(kind.name);
    throw UsageError("stat: unknown pool kind '" + kindName + "' (known: " + known + ")");
}

}  // namespace

const Verb statVerb = {
    "stat",
    "KIND CHANNEL",
    "show the header, slots and locks of a pool",
    "Attaches read-only to the pool of the given kind and channel and prints its\n"
    "header, every slot (frame ID, capture time, length, position in the data\n"
    "ring, safe time, lock value, whether its bytes are still intact) and how many\n"
    "processes are attached. The slot marked * is the newest.\n"
    "\n"
    "kinds: jpg\n"
    "Exits 1 when there is no such pool.\n",
    {},
    runStat,
};

}  // namespace avpool::cli
