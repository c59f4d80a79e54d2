// avpool stat KIND [CHANNEL]: print the header, the slots and the semaphore
// values of an existing pool, attached read-only. Each pool kind's row in the
// kinds table names its printer here; the audio and the analysis kinds share
// one printer each, driven by their rows.

#include "cli/fields.h"
#include "kinds/pool_kinds.h"
#include "kinds/records.h"
#include "kinds/shm_view.h"
#include "verbs/per_kind.h"
#include "verbs/verbs.h"

#include <avpool/aac.h>
#include <avpool/amr.h>
#include <avpool/jpg.h>
#include <avpool/lum.h>
#include <avpool/md.h>
#include <avpool/mp4.h>
#include <avpool/opus.h>
#include <avpool/pcm.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace avpool::cli {

namespace {

// "pcm pool" for a fixed-key kind, "jpg pool on channel 2" otherwise.
std::string poolText(const StatRequest& request) {
    if (!request.pool->perChannel) return std::string(request.pool->name) + " pool";
    return poolName(request.pool->name, request.channel);
}

// "pcm pool" or "aac pool, channel 1": the first line of a stat.
std::string titleOf(const StatRequest& request) {
    std::string title = std::string(request.pool->name) + " pool";
    if (request.pool->perChannel) title += ", channel " + std::to_string(request.channel);
    return title;
}

void printSegment(const StatRequest& request, const SegmentView& view) {
    printf("%s\n", titleOf(request).c_str());
    printTextField("key", keyText(view.key()));
    printFields({{"segment id", view.id()}});
    printTextField("size", std::to_string(view.size()));
    printFields({{"creator pid", static_cast<int>(view.creator())}});
    printTextField("attached", std::to_string(view.attached()));
}

// "semaphore set 5, 30 semaphores", or why there is none to read.
std::string lockSetText(const LockView& locks, int count) {
    if (locks.id() == -1) return std::string("none readable (") + strerror(locks.error()) + ")";
    return "semaphore set " + std::to_string(locks.id()) + ", " + std::to_string(count) + " semaphores";
}

void printLockGroups(const GroupedLockView& locks) {
    for (int g = 0; g < locks.groups(); ++g)
        printTextField(("lock group " + std::to_string(g)).c_str(),
                       "key " + keyText(locks.key(g)) + "\n" + lockSetText(locks.group(g), locks.count(g)));
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
        throw CliError(poolName(geometry.kind, channel) + " has a damaged header: " + problem);
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
    printTextField("picture", std::to_string(width) + " x " + std::to_string(height));
}

void printTableOffsets(int prefixSize, int safeTimeOffset, int frameInfoOffset, int dataOffset, size_t size) {
    printFields({{"framePrefixSize", prefixSize},
                 {"safeTimeOffset", safeTimeOffset},
                 {"frameInfoOffset", frameInfoOffset},
                 {"dataOffset", dataOffset}});
    printTextField("RawDataLen", std::to_string(size - static_cast<size_t>(dataOffset)));
}

}  // namespace

int statJpg(const StatRequest& request) {
    int channel = request.channel;
    SegmentView view(segmentKey(*request.pool, channel), request.pool->headerSize, poolText(request));
    JPGPoolHeader header = readHeader<JPGPoolHeader>(view, "jpg", channel);
    checkGeometry({"jpg", header.frameCount, JPG_MAX_FRAME_COUNT, header.safeTimeOffset, header.frameInfoOffset,
                   sizeof(JPGFrameInfo), header.dataOffset},
                  view, channel);
    int n = header.frameCount;
    LockView locks(firstLockKey(*request.pool, channel), n);

    printSegment(request, view);
    printFields({{"frameCount", header.frameCount},
                 {"maxFrameSize", header.maxFrameSize},
                 {"current", header.current},
                 {"realFPS", header.realFPS},
                 {"workingFPS", header.workingFPS}});
    printPicture(header.workingWidth, header.workingHeight);
    printTableOffsets(header.framePrefixSize, header.safeTimeOffset, header.frameInfoOffset, header.dataOffset,
                      view.size());
    printTextField("locks", lockSetText(locks, n));
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

namespace {

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

}  // namespace

int statMp4(const StatRequest& request) {
    int channel = request.channel;
    SegmentView view(segmentKey(*request.pool, channel), request.pool->headerSize, poolText(request));
    MP4PoolHeader header = readHeader<MP4PoolHeader>(view, "mp4", channel);
    int frames = header.framesPerGop;
    int n = mp4SlotCount(header);
    checkGeometry({"mp4", n, MP4_MAX_FRAME_COUNT, header.safeTimeOffset, header.frameInfoOffset,
                   sizeof(MP4FrameInfo), header.dataOffset},
                  view, channel);
    GroupedLockView locks(firstLockKey(*request.pool, channel), n);

    printSegment(request, view);
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
    printLockGroups(locks);

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

namespace {

// A safe-time table in one line, going round from the slot after the newest
// (the next the writer overwrites) to the newest, in runs of slots whose times
// rise by one step: "slots 18-16: 128..25472 (+128); slot 17: 0".
std::string safeTimeText(const std::vector<int32_t>& table, int newest) {
    int n = static_cast<int>(table.size());
    std::vector<int> order;
    for (int k = 1; k <= n; ++k) order.push_back(((newest + k) % n + n) % n);
    std::string text;
    for (size_t i = 0; i < order.size();) {
        size_t j = i + 1;
        long long step = j < order.size() ? static_cast<long long>(table[order[j]]) - table[order[i]] : 0;
        while (j < order.size() && static_cast<long long>(table[order[j]]) - table[order[j - 1]] == step) ++j;
        char run[96];
        int first = table[order[i]];
        int last = table[order[j - 1]];
        if (j - i == 1)
            snprintf(run, sizeof run, "slot %d: %d", order[i], first);
        else if (step == 0)
            snprintf(run, sizeof run, "slots %d-%d: %d", order[i], order[j - 1], first);
        else
            snprintf(run, sizeof run, "slots %d-%d: %d..%d (%+lld)", order[i], order[j - 1], first, last, step);
        text += (text.empty() ? "" : "; ") + std::string(run);
        i = j;
    }
    return text;
}

std::vector<int32_t> safeTimes(const SegmentView& view, size_t offset, int count) {
    std::vector<int32_t> table(count);
    view.read(offset, table.data(), sizeof(int32_t) * count);
    return table;
}

// The segment must hold every slot before any is read.
void requireSize(const SegmentView& view, size_t size, const StatRequest& request) {
    if (view.size() < size)
        throw CliError(poolText(request) + " has " + std::to_string(view.size()) + " bytes, not the " +
                       std::to_string(size) + " its slots need");
}

// The int32 fields an audio kind keeps after the fragment head at offset 44,
// the first PoolKind::extras of them.
const char* const AUDIO_EXTRAS[] = {"streamParam", "fragmentParam"};

struct AudioSlot {
    int index;
    avpool::AudioFragmentHead head;
    std::vector<int32_t> extras;
};

}  // namespace

// The header, the safe times and the newest `last` written fragments, oldest
// first. Unwritten slots (fragmentID 0) are only counted.
int statAudio(const StatRequest& request) {
    const PoolKind& kind = *request.pool;
    SegmentView view(segmentKey(kind, request.channel), kind.headerSize, poolText(request));
    avpool::AudioPoolHeader header = readHeader<avpool::AudioPoolHeader>(view, kind.name, request.channel);
    requireSize(view, kind.segmentSize, request);
    GroupedLockView locks(firstLockKey(kind, request.channel), kind.slots);

    std::vector<AudioSlot> written;
    for (int i = 0; i < kind.slots; ++i) {
        size_t offset = kind.headerSize + kind.slotSize * i;
        AudioSlot slot{i, {}, std::vector<int32_t>(static_cast<size_t>(kind.extras))};
        view.read(offset, &slot.head, sizeof slot.head);
        if (!slot.extras.empty())
            view.read(offset + sizeof slot.head, slot.extras.data(), sizeof(int32_t) * slot.extras.size());
        if (slot.head.fragmentID.get() != 0) written.push_back(slot);
    }
    std::sort(written.begin(), written.end(), [](const AudioSlot& a, const AudioSlot& b) {
        return a.head.fragmentID.get() < b.head.fragmentID.get();
    });
    size_t shown = std::min(written.size(), static_cast<size_t>(request.last));

    printSegment(request, view);
    printFields({{"current", header.current},
                 {"workingFormat", header.workingFormat},
                 {"workingChannels", header.workingChannels},
                 {"workingRate", header.workingRate}});
    std::vector<int32_t> safe = safeTimes(view, kind.safeTimeOffset, kind.slots);
    printTextField("safeTime ms", safeTimeText(safe, header.current));
    printLockGroups(locks);
    printf("\nwritten slots: %zu of %d, the newest %zu shown (--last N)\n", written.size(), kind.slots, shown);
    if (shown == 0) return 0;
    printf("\n  slot %20s %17s %6s %6s %8s %6s %7s %7s %4s", "fragmentID", "captured", "length", "format",
           "channels", "rate", "samples", "safe ms", "lock");
    for (int e = 0; e < kind.extras; ++e) printf(" %13s", AUDIO_EXTRAS[e]);
    printf("\n");
    for (size_t k = written.size() - shown; k < written.size(); ++k) {
        const AudioSlot& slot = written[k];
        const avpool::AudioFragmentHead& head = slot.head;
        printf("%c %4d %20llu %10d.%06d %6d %6d %8d %6d %7d %7d %4s", slot.index == header.current ? '*' : ' ',
               slot.index, head.fragmentID.get(), head.tv_sec, head.tv_usec, head.length, head.format, head.channels,
               head.rate, head.sampleNumber, safe[slot.index], lockText(locks.value(head.lockIndex)).c_str());
        for (int32_t extra : slot.extras) printf(" %13d", extra);
        printf("\n");
    }
    return 0;
}

// Both headers start with current, fps, width and height.
int statAnalysis(const StatRequest& request) {
    const PoolKind& kind = *request.pool;
    SegmentView view(segmentKey(kind, request.channel), kind.headerSize, poolText(request));
    AnalysisPoolHead header = readHeader<AnalysisPoolHead>(view, kind.name, request.channel);
    requireSize(view, kind.segmentSize, request);
    LockView locks(firstLockKey(kind, request.channel), kind.slots);

    printSegment(request, view);
    printFields({{"current", header.current}, {"workingFPS", header.workingFPS}});
    printPicture(header.workingWidth, header.workingHeight);
    if (kind.vibration) {
        int32_t vibration = 0;
        view.read(offsetof(MDPoolHeader, vibration), &vibration, sizeof vibration);
        printFields({{"vibration", vibration}});
    }
    std::vector<int32_t> safe = safeTimes(view, kind.safeTimeOffset, kind.slots);
    printTextField("safeTime ms", safeTimeText(safe, header.current));
    printTextField("locks", lockSetText(locks, kind.slots));
    printf("\n  slot %20s %17s %11s %7s %4s\n", "frameID", "captured", "frameLength", "safe ms", "lock");
    for (int i = 0; i < kind.slots; ++i) {
        AnalysisHead head;
        view.read(kind.headerSize + kind.slotSize * i, &head, sizeof head);
        printf("%c %4d %20llu %10d.%06d %11d %7d %4s\n", i == header.current ? '*' : ' ', i, head.frameID.get(),
               head.tv_sec, head.tv_usec, head.frameLength, safe[i], lockText(locks.value(head.lockIndex)).c_str());
    }
    return 0;
}

namespace {

constexpr int DEFAULT_LAST = 10;

// The channel is required for the kinds with a pool per channel; the fixed-key
// kinds take none, or 0.
int runStat(const ParsedArgs& args) {
    const std::vector<std::string>& words = args.positional();
    if (words.empty() || words.size() > 2) args.expectPositional(2, "a pool kind and a channel");
    const PoolKind& kind = findKind(words[0], "stat", &PoolKind::stat);
    int channel = 0;
    if (words.size() == 2) {
        channel = parseChannel(kind, words[1], "stat", [](const char* verb, const PoolKind& fixed,
                                                             const std::string&, int given) {
            return std::string(verb) + ": " + fixed.name + " has one pool under a fixed key and no channel " +
                   std::to_string(given);
        });
    } else if (kind.perChannel) {
        args.expectPositional(2, "a pool kind and a channel");
    }
    int last = args.intOption("--last", DEFAULT_LAST, 0, AUDIO_SLOT_COUNT);
    return kind.stat({&kind, channel, last});
}

}  // namespace

const Verb statVerb = {
    "stat",
    "KIND [CHANNEL] [--last N]",
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
    "For the audio kinds (pcm, aac, amr, opus) it prints the header (current\n"
    "slot, working format, channels and rate), the safe times in runs from the\n"
    "next slot to be overwritten round to the newest, each semaphore group and\n"
    "the newest written fragments, oldest first: fragment ID, capture time,\n"
    "length, format, channels, rate, samples per channel, safe time, lock value\n"
    "and, for aac, its streamParam, for amr also its fragmentParam.\n"
    "\n"
    "For lum and md it prints the header (picture size, frame rate and, for md,\n"
    "the vibration level), the safe times and every slot: frame ID, capture\n"
    "time, frameLength, safe time and lock value.\n"
    "\n"
    "kinds: jpg, mp4, pcm, aac, amr, opus, lum, md\n"
    "CHANNEL is required except for pcm and opus, which have one pool each under\n"
    "a fixed key: for them it may be left out or be 0.\n"
    "Exits 1 when there is no such pool.\n",
    {
        {"--last", "N", "audio kinds: how many of the newest fragments to list (default 10, at most 200)"},
    },
    runStat,
};

}  // namespace avpool::cli
