// avpool stat KIND CHANNEL: print the header, every slot and the semaphore
// values of an existing pool, attached read-only. Each pool kind has one
// printer in the table at the end of this file.

#include "fields.h"
#include "pool_kinds.h"
#include "shm_view.h"
#include "verbs.h"

#include <avpool/jpg.h>
#include <avpool/mp4.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace avpool::cli {

namespace {

void printSegment(const char* kind, int channel, const SegmentView& view) {
    printf("%s pool, channel %d\n", kind, channel);
    printf("key:              %s\n", keyText(view.key()).c_str());
    printf("segment id:       %d\n", view.id());
    printf("size:             %zu\n", view.size());
    printf("creator pid:      %d\n", static_cast<int>(view.creator()));
    printf("attached:         %lu\n", view.attached());
}

void printLocks(const char* label, const LockView& locks, int count) {
    if (locks.id() == -1)
        printf("%-18snone readable (%s)\n", label, strerror(locks.error()));
    else
        printf("%-18ssemaphore set %d, %d semaphores\n", label, locks.id(), count);
}

std::string lockText(int value) {
    return value < 0 ? "?" : std::to_string(value);
}

// Where a pool's header puts its tables; all of it must lie inside the segment
// before any slot is read.
struct Geometry {
    const char* kind;
    int slots;
    int maxSlots;
    int safeTimeOffset;
    int frameInfoOffset;
    size_t infoSize;
    int dataOffset;
};

void checkGeometry(const Geometry& geometry, const SegmentView& view, int channel) {
    const char* problem = nullptr;
    size_t size = view.size();
    size_t n = geometry.slots > 0 ? static_cast<size_t>(geometry.slots) : 0;
    if (geometry.slots < 1 || geometry.slots > geometry.maxSlots)
        problem = "slot count out of range";
    else if (geometry.safeTimeOffset < 0 || geometry.safeTimeOffset + 4 * n > size)
        problem = "safe-time table outside the segment";
    else if (geometry.frameInfoOffset < 0 || geometry.frameInfoOffset + geometry.infoSize * n > size)
        problem = "frame-info table outside the segment";
    else if (geometry.dataOffset < 0 || static_cast<size_t>(geometry.dataOffset) > size)
        problem = "data ring outside the segment";
    if (problem != nullptr)
        throw CliError(std::string(geometry.kind) + " pool on channel " + std::to_string(channel) +
                       " has a damaged header: " + problem);
}

enum class Bytes { Unwritten, Outside, Intact, Overwritten };

// Intact while the id prefix in front of the bytes still names the slot's
// frame, overwritten once a later frame has used that part of the ring.
Bytes bytesState(const SegmentView& view, int dataOffset, int dataPosition, unsigned long long frameID) {
    if (frameID == 0) return Bytes::Unwritten;
    avpool::Word64 prefix;
    if (dataPosition < 0 || !view.read(static_cast<size_t>(dataOffset) + dataPosition, &prefix, sizeof prefix))
        return Bytes::Outside;
    return prefix.get() == frameID ? Bytes::Intact : Bytes::Overwritten;
}

const char* bytesText(Bytes state) {
    switch (state) {
    case Bytes::Unwritten:
        return "-";
    case Bytes::Outside:
        return "outside";
    case Bytes::Intact:
        return "intact";
    case Bytes::Overwritten:
        break;
    }
    return "overwritten";
}

void printPicture(int width, int height) {
    printf("picture:          %d x %d\n", width, height);
}

void printTableOffsets(int prefixSize, int safeTimeOffset, int frameInfoOffset, int dataOffset, size_t size) {
    printFields({{"framePrefixSize", prefixSize},
                 {"safeTimeOffset", safeTimeOffset},
                 {"frameInfoOffset", frameInfoOffset},
                 {"dataOffset", dataOffset}});
    printf("RawDataLen:       %zu\n", size - static_cast<size_t>(dataOffset));
}

int statJpg(int channel) {
    int key = JPG_BASE_KEY + channel;
    SegmentView view(key, JPG_HEADER_SIZE, poolName("jpg", channel));
    JPGPoolHeader header = readHeader<JPGPoolHeader>(view, "jpg", channel);
    checkGeometry({"jpg", header.frameCount, JPG_MAX_FRAME_COUNT, header.safeTimeOffset, header.frameInfoOffset,
                   sizeof(JPGFrameInfo), header.dataOffset},
                  view, channel);
    int n = header.frameCount;
    LockView locks(key, n);

    printSegment("jpg", channel, view);
    printFields({{"frameCount", header.frameCount},
                 {"maxFrameSize", header.maxFrameSize},
                 {"current", header.current},
                 {"realFPS", header.realFPS},
                 {"workingFPS", header.workingFPS}});
    printPicture(header.workingWidth, header.workingHeight);
    printTableOffsets(header.framePrefixSize, header.safeTimeOffset, header.frameInfoOffset, header.dataOffset,
                      view.size());
    printLocks("locks: ", locks, n);
    printf("\n  slot %20s %17s %8s %12s %8s %4s  %s\n", "frameID", "captured", "length", "dataPosition",
           "safe ms", "lock", "bytes");
    for (int i = 0; i < n; ++i) {
        JPGFrameInfo info;
        int32_t safe = 0;
        view.read(header.frameInfoOffset + sizeof info * i, &info, sizeof info);
        view.read(header.safeTimeOffset + sizeof safe * i, &safe, sizeof safe);
        Bytes bytes = bytesState(view, header.dataOffset, info.dataPosition, info.frameID.get());
        printf("%c %4d %20llu %10d.%06d %8d %12d %8d %4s  %s\n", i == header.current ? '*' : ' ', i,
               info.frameID.get(), info.tv_sec, info.tv_usec, info.frameLength, info.dataPosition, safe,
               lockText(locks.value(info.lockIndex)).c_str(), bytesText(bytes));
    }
    return 0;
}

constexpr int MP4_CELLS_PER_ROW = 3;

// One frame slot of a GOP, in a cell of the GOP's rows: its index in the GOP,
// frame ID, length, lock value and a mark for what its bytes hold.
void printMp4Cell(const SegmentView& view, const MP4PoolHeader& header, const GroupedLockView& locks,
                  const MP4FrameInfo& info, const MP4FrameInfo& first, int k) {
    Bytes bytes = bytesState(view, header.dataOffset, info.dataPosition, info.frameID.get());
    char mark = ' ';
    if (bytes == Bytes::Unwritten)
        mark = '-';
    else if (bytes != Bytes::Intact)
        mark = 'x';
    else if (info.gopID.get() != first.gopID.get())
        mark = 'o';
    printf("  %2d %9llu %6d %1s%c", k, info.frameID.get(), info.frameLength, lockText(locks.value(info.lockIndex)).c_str(),
           mark);
}

int statMp4(int channel) {
    int key = MP4_BASE_KEY + channel;
    SegmentView view(key, MP4_HEADER_SIZE, poolName("mp4", channel));
    MP4PoolHeader header = readHeader<MP4PoolHeader>(view, "mp4", channel);
    int frames = header.framesPerGop;
    bool sane = header.gopCount > 0 && frames > 0 && header.gopCount <= MP4_MAX_FRAME_COUNT &&
                frames <= MP4_MAX_FRAME_COUNT;
    int n = sane ? header.gopCount * frames : 0;
    checkGeometry({"mp4", n, MP4_MAX_FRAME_COUNT, header.safeTimeOffset, header.frameInfoOffset,
                   sizeof(MP4FrameInfo), header.dataOffset},
                  view, channel);
    GroupedLockView locks(MP4_BASE_KEY + channel * 16, n);

    printSegment("mp4", channel, view);
    printFields({{"gopCount", header.gopCount},
                 {"framesPerGop", header.framesPerGop},
                 {"maxFrameSize", header.maxFrameSize},
                 {"workingGop", header.workingGop},
                 {"realFPS", header.realFPS},
                 {"workingFPS", header.workingFPS}});
    printPicture(header.width, header.height);
    printFields({{"oneSafeTime", header.oneSafeTime}});
    printTableOffsets(header.framePrefixSize, header.safeTimeOffset, header.frameInfoOffset, header.dataOffset,
                      view.size());
    for (int g = 0; g < locks.groups(); ++g) {
        char label[48];
        snprintf(label, sizeof label, "lock group %d:", g);
        printf("%-18skey %s\n", label, keyText(locks.key(g)).c_str());
        printLocks("", locks.group(g), locks.count(g));
    }

    printf("\nframes: k frameID length lock, marked o when left from an earlier GOP, x when\n"
           "its bytes were overwritten, - when never written; * marks the writer's GOP\n");
    for (int g = 0; g < header.gopCount; ++g) {
        MP4FrameInfo first;
        int32_t safe = 0;
        view.read(header.frameInfoOffset + sizeof first * g * frames, &first, sizeof first);
        view.read(header.safeTimeOffset + sizeof safe * g * frames, &safe, sizeof safe);
        printf("\n%c GOP %d  gopID %llu  safe %d ms  captured %d.%06d\n", g == header.workingGop ? '*' : ' ', g,
               first.gopID.get(), safe, first.tv_sec, first.tv_usec);
        for (int k = 0; k < frames; ++k) {
            MP4FrameInfo info;
            view.read(header.frameInfoOffset + sizeof info * (g * frames + k), &info, sizeof info);
            printMp4Cell(view, header, locks, info, first, k);
            if (k % MP4_CELLS_PER_ROW == MP4_CELLS_PER_ROW - 1 || k == frames - 1) printf("\n");
        }
    }
    return 0;
}

struct StatKind {
    const char* name;
    int (*print)(int channel);
};

const StatKind kinds[] = {
    {"jpg", statJpg},
    {"mp4", statMp4},
};

int runStat(const ParsedArgs& args) {
    args.expectPositional(2, "a pool kind and a channel");
    const StatKind& kind = findNamed(kinds, args.positional()[0], "stat: unknown pool kind");
    int channel = parseInt(args.positional()[1], "stat: channel", 0, MAX_CHANNEL);
    return kind.print(channel);
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
    "For mp4 it prints the header, each semaphore group and, per GOP, its gopID,\n"
    "safe time and capture time followed by its frame slots (index, frame ID,\n"
    "length, lock value); the writer's GOP is marked *.\n"
    "\n"
    "kinds: jpg, mp4\n"
    "Exits 1 when there is no such pool.\n",
    {},
    runStat,
};

}  // namespace avpool::cli
