// avpool get KIND CHANNEL: a consumer that writes a pool's elements to
// standard output or a file, following the pool live or starting from a time
// in the past. When the writer overtakes it, it says so on stderr, one line
// each time, and carries on from where the writer is.

#include "clock.h"
#include "interrupt.h"
#include "media_io.h"
#include "pool_kinds.h"
#include "verbs.h"

#include <avpool/jpg.h>
#include <avpool/mp4.h>

#include <cstdio>

namespace avpool::cli {

namespace {

constexpr int POLL_MS = 2;
constexpr int LIVENESS_POLLS = 100;   // check the creator about every 0.2 s of waiting
constexpr int AGE_MARGIN_SECONDS = 3;  // beyond --since, how old an element may get

struct GetJob {
    int channel;
    int since;  // seconds back to start from; -1 to follow live
    int count;  // elements to write; 0 for no limit
    Output* out;
};

enum class Wait { Open, Gone, Interrupted };

// Waits for a slot's lock to open, polling, so that an interrupt, the pool's
// removal or its creator's death end the wait. The pool's own wait follows
// and then returns at once.
template <class Locks>
Wait waitOpen(const Locks& locks, int slot, pid_t creator) {
    for (int polls = 1;; ++polls) {
        int value = locks.value(slot);
        if (value == 0) return Wait::Open;
        if (value < 0) return Wait::Gone;
        if (interrupted) return Wait::Interrupted;
        if (polls % LIVENESS_POLLS == 0 && !processAlive(creator)) return Wait::Gone;
        sleepMs(POLL_MS);
    }
}

// The pool must exist and its creator still run; otherwise a one-line error
// that names what the channel has instead.
void requirePool(const GetJob& job, const char* kind, int key) {
    pid_t creator = 0;
    if (findSegment(key, creator)) {
        if (processAlive(creator)) return;
        throw CliError(std::string("get: the ") + kind + " pool on channel " + std::to_string(job.channel) +
                       " is stale: its creator " + std::to_string(creator) + " is gone");
    }
    std::string others;
    for (const FoundPool& pool : findPools())
        if (pool.kind->perChannel && pool.channel == job.channel)
            others += (others.empty() ? "" : ", ") + std::string(pool.kind->name);
    std::string message = std::string("get: no ") + kind + " pool on channel " + std::to_string(job.channel) +
                          " (key " + hexKey(key) + ")";
    if (!others.empty()) message += "; channel " + std::to_string(job.channel) + " has: " + others;
    throw CliError(message);
}

void reportGap(unsigned long long expected, unsigned long long got) {
    if (expected == 0 || got <= expected) return;
    if (got == expected + 1)
        fprintf(stderr, "avpool: get: overtaken: frame %llu missed\n", expected);
    else
        fprintf(stderr, "avpool: get: overtaken: frames %llu to %llu missed\n", expected, got - 1);
}

// A pool checked by requirePool, attached read-only, with its header: the
// geometry and creator the waits need beside the getter.
template <class Header>
struct OpenPool {
    OpenPool(const GetJob& job, const char* kind, int key)
        : view((requirePool(job, kind, key), key), sizeof(Header),
               std::string(kind) + " pool on channel " + std::to_string(job.channel)) {
        view.read(0, &header, sizeof header);
    }
    SegmentView view;
    Header header{};
};

int maxAge(const GetJob& job) {
    return (job.since > 0 ? job.since : 0) + AGE_MARGIN_SECONDS;
}

template <class Getter, class GetterError>
void initGetter(Getter& getter, const char* kind, int channel) {
    try {
        QuietOutput quiet;
        getter.init(channel);
    } catch (const GetterError& error) {
        throw CliError(std::string("get: cannot open the ") + kind + " pool on channel " + std::to_string(channel) +
                       ": " + error.what());
    }
}

// Sleeps until the first element exists; false when interrupted or the pool went away first.
template <class First, class Locks>
bool awaitFirst(First first, const Locks& locks, pid_t creator) {
    for (int polls = 1; first() == 0; ++polls) {
        if (interrupted || locks.value(0) < 0) return false;
        if (polls % LIVENESS_POLLS == 0 && !processAlive(creator)) return false;
        sleepMs(POLL_MS);
    }
    return true;
}

int getJpg(const GetJob& job) {
    int key = JPG_BASE_KEY + job.channel;
    OpenPool<JPGPoolHeader> pool(job, "jpg", key);
    const SegmentView& view = pool.view;
    int n = pool.header.frameCount;
    LockView locks(key, n);
    JPGGetter getter;
    initGetter<JPGGetter, JPGGetterError>(getter, "jpg", job.channel);

    int safe = 0;
    if (!awaitFirst([&] { return getter.toWorking(safe); }, locks, view.creator())) return 0;
    if (job.since >= 0)
        getter.toOldestWorking(safe, static_cast<int>(wallClockUs() / 1000000) - job.since);
    else
        getter.toWorking(safe);
    // Frame k is written to slot k % n.
    int slot = static_cast<int>(getter.getFrameID() % static_cast<unsigned long long>(n));
    unsigned long long expected = 0;
    for (int written = 0; job.count == 0 || written < job.count;) {
        if (waitOpen(locks, slot, view.creator()) != Wait::Open) break;
        getter.waitReady();
        getter.getFrame();
        unsigned long long id = getter.getFrameID();
        slot = static_cast<int>(id % static_cast<unsigned long long>(n));
        bool fresh = id >= expected;
        try {
            getter.probeAge(maxAge(job));
        } catch (const JPGGetterError& error) {
            fprintf(stderr, "avpool: get: overtaken: frame %llu %s, going to the newest\n", id, error.what());
            getter.toWorking(safe);
            slot = static_cast<int>(getter.getFrameID() % static_cast<unsigned long long>(n));
            continue;
        }
        if (fresh) {
            reportGap(expected, id);
            if (!job.out->write(getter.frame.data, static_cast<size_t>(getter.frame.frameLength))) break;
            expected = id + 1;
            ++written;
        }
        getter.toNext(safe);
        slot = (slot + 1) % n;
    }
    return 0;
}

int getMp4(const GetJob& job) {
    OpenPool<MP4PoolHeader> pool(job, "mp4", MP4_BASE_KEY + job.channel);
    const SegmentView& view = pool.view;
    int gops = pool.header.gopCount;
    int frames = pool.header.framesPerGop;
    GroupedLockView locks(MP4_BASE_KEY + job.channel * 16, gops * frames);
    MP4Getter getter;
    initGetter<MP4Getter, MP4GetterError>(getter, "mp4", job.channel);

    int safe = 0;
    if (!awaitFirst([&] { return getter.toWorkingGop(safe); }, locks, view.creator())) return 0;
    unsigned long long gopId =
        job.since >= 0 ? getter.toOldestWorkingGop(safe, static_cast<int>(wallClockUs() / 1000000) - job.since)
                       : getter.toWorkingGop(safe);
    // GOP g of the stream is written to GOP g % gopCount of the ring.
    int gop = static_cast<int>(gopId % static_cast<unsigned long long>(gops));
    unsigned long long expected = 0;
    int written = 0;
    while (job.count == 0 || written < job.count) {
        bool behind = false;
        for (int k = 0; k < frames && (job.count == 0 || written < job.count); ++k) {
            Wait wait = waitOpen(locks, gop * frames + k, view.creator());
            if (wait != Wait::Open) return 0;
            getter.waitFrameReady(k);
            unsigned long long id = getter.getFrameData(k);
            if (k == 0) {
                if (id == 0) {
                    fprintf(stderr, "avpool: get: overtaken: GOP %llu was overwritten, going to the newest\n",
                            getter.getGopID());
                    behind = true;
                    break;
                }
                try {
                    getter.probeAge(maxAge(job));
                } catch (const MP4GetterError& error) {
                    fprintf(stderr, "avpool: get: overtaken: GOP %llu %s, going to the newest\n", getter.getGopID(),
                            error.what());
                    behind = true;
                    break;
                }
                reportGap(expected, id);
            } else if (id != expected) {
                // A lower number (or reused bytes) is what an earlier GOP left
                // in the slots this one did not need; a higher one means the
                // writer came round to this GOP again.
                if (id > expected) {
                    fprintf(stderr, "avpool: get: overtaken: frame %llu was reused, going to the newest\n",
                            expected);
                    behind = true;
                }
                break;
            }
            if (!job.out->write(getter.frameData, static_cast<size_t>(getter.frameLength))) return 0;
            expected = id + 1;
            ++written;
        }
        if (behind) {
            gop = static_cast<int>(getter.toWorkingGop(safe) % static_cast<unsigned long long>(gops));
        } else {
            getter.toNextGop(safe);
            gop = (gop + 1) % gops;
        }
    }
    return 0;
}

struct GetKind {
    const char* name;
    int (*get)(const GetJob& job);
};

const GetKind kinds[] = {
    {"jpg", getJpg},
    {"mp4", getMp4},
};

int runGet(const ParsedArgs& args) {
    args.expectPositional(2, "a pool kind and a channel");
    const GetKind& kind = findKind(kinds, args.positional()[0], "get");
    int channel = parseInt(args.positional()[1], "get: channel", 0, MAX_CHANNEL);
    int since = args.intOption("--since", -1, 0, 24 * 3600);
    int count = args.intOption("--count", 0, 1, 2000000000);
    catchInterrupts();
    Output out(args.stringOption("-o", args.stringOption("--output", "")));
    GetJob job{channel, since, count, &out};
    return kind.get(job);
}

}  // namespace

const Verb getVerb = {
    "get",
    "KIND CHANNEL [-o FILE] [--since SECONDS] [--count N]",
    "write a pool's elements to standard output or a file",
    "Reads the pool of the given kind and channel and writes its elements one\n"
    "after the other: jpg as an MJPEG stream (the pictures concatenated), mp4 as\n"
    "an H.264 Annex B stream that starts at an I frame and goes on GOP by GOP.\n"
    "\n"
    "It follows the pool live from the newest element, or with --since from the\n"
    "oldest element captured at most SECONDS ago. When the writer overtakes it\n"
    "(frames missed, bytes reused, an element older than SECONDS + 3 s) it says\n"
    "so on stderr, one line each time, and goes on from the newest.\n"
    "\n"
    "Ends after --count elements, when the producer removes its pool or dies, or\n"
    "on SIGINT/SIGTERM.\n",
    {{"-o", "FILE", "write to FILE instead of standard output"},
     {"--output", "FILE", "the same as -o"},
     {"--since", "SECONDS", "start from the oldest element of the last SECONDS"},
     {"--count", "N", "stop after N elements"}},
    runGet,
};

}  // namespace avpool::cli
