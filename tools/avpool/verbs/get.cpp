// avpool get KIND CHANNEL: a consumer that writes a pool's elements to
// standard output or a file, following the pool live or starting from a time
// in the past. When the writer overtakes it, it says so on stderr, one line
// each time, and carries on from where the writer is.

#include "cli/clock.h"
#include "cli/interrupt.h"
#include "cli/io.h"
#include "kinds/pool_kinds.h"
#include "kinds/shm_view.h"
#include "kinds/survey.h"
#include "media/wav_stream.h"
#include "verbs/per_kind.h"
#include "verbs/verbs.h"

#include <avpool/aac.h>
#include <avpool/jpg.h>
#include <avpool/mp4.h>
#include <avpool/pcm.h>

#include <cstdio>
#include <optional>

namespace avpool::cli {

namespace {

constexpr int POLL_MS = 2;
constexpr int LIVENESS_POLLS = 100;   // check the creator about every 0.2 s of waiting
constexpr int AGE_MARGIN_SECONDS = 3;  // beyond --since, how old an element may get

// Pending only while a poll goes on.
enum class Wait { Open, Gone, Interrupted, Pending };

// Polls look() until it gives an outcome, so that an interrupt or the death
// of the pool's creator also end the wait.
template <class Look>
Wait poll(Look look, pid_t creator) {
    for (int polls = 1;; ++polls) {
        Wait seen = look();
        if (seen != Wait::Pending) return seen;
        if (interrupted) return Wait::Interrupted;
        if (polls % LIVENESS_POLLS == 0 && !processAlive(creator)) return Wait::Gone;
        sleepMs(POLL_MS);
    }
}

// Waits for a slot's lock to open, polling, so that an interrupt, the pool's
// removal or its creator's death end the wait. The pool's own wait follows
// and then returns at once.
template <class Locks>
Wait waitOpen(const Locks& locks, int slot, pid_t creator) {
    return poll(
        [&] {
            int value = locks.value(slot);
            if (value == 0) return Wait::Open;
            return value < 0 ? Wait::Gone : Wait::Pending;
        },
        creator);
}

// The pool must exist and its creator still run; otherwise a one-line error
// that names what the channel has instead.
void requirePool(const GetJob& job) {
    int key = segmentKey(*job.pool, job.channel);
    pid_t creator = 0;
    if (findSegment(key, creator)) {
        if (processAlive(creator)) return;
        throw CliError("get: the " + poolName(job.pool->name, job.channel) + " is stale: its creator " +
                       std::to_string(creator) + " is gone");
    }
    std::string others;
    for (const FoundPool& pool : findPools())
        if (pool.kind->perChannel && pool.channel == job.channel)
            others += (others.empty() ? "" : ", ") + std::string(pool.kind->name);
    std::string message = "get: no " + poolName(job.pool->name, job.channel) + " (key " + hexKey(key) + ")";
    if (!others.empty()) message += "; channel " + std::to_string(job.channel) + " has: " + others;
    throw CliError(message);
}

// element names what the pool holds: "frame", "fragment".
void reportGap(unsigned long long expected, unsigned long long got, const char* element) {
    if (expected == 0 || got <= expected) return;
    if (got == expected + 1)
        fprintf(stderr, "avpool: get: overtaken: %s %llu missed\n", element, expected);
    else
        fprintf(stderr, "avpool: get: overtaken: %ss %llu to %llu missed\n", element, expected, got - 1);
}

// A pool checked by requirePool, attached read-only, with its header: the
// geometry and creator the waits need beside the getter.
template <class Header>
struct OpenPool {
    explicit OpenPool(const GetJob& job)
        : view((requirePool(job), segmentKey(*job.pool, job.channel)), sizeof(Header),
               poolName(job.pool->name, job.channel)),
          header(readHeader<Header>(view, job.pool->name, job.channel)) {}
    SegmentView view;
    Header header;
};

int maxAge(const GetJob& job) {
    return (job.since > 0 ? job.since : 0) + AGE_MARGIN_SECONDS;
}

// Attaches a getter through init, silencing the pool's diagnostics; a
// failure becomes one line naming the pool.
template <class GetterError, class Init>
void initGetter(const GetJob& job, Init init) {
    quietly<GetterError>("get: cannot open the " + poolName(job.pool->name, job.channel), init);
}

// Sleeps until the first element exists; false when interrupted or the pool went away first.
template <class First, class Locks>
bool awaitFirst(First first, const Locks& locks, pid_t creator) {
    Wait wait = poll(
        [&] {
            if (first() != 0) return Wait::Open;
            return locks.value(0) < 0 ? Wait::Gone : Wait::Pending;
        },
        creator);
    return wait == Wait::Open;
}

// Reads a ring whose element k sits in slot k % slots, in order, from the
// newest element or the oldest of the last --since seconds: jpg frames and
// audio fragments. Ring wraps the kind's getter with the calls below; its
// moves return the running number they end on.
template <class Ring>
void followRing(const GetJob& job, Ring& ring, const char* element) {
    if (!awaitFirst([&] { return ring.started(); }, ring.locks, ring.creator)) return;
    unsigned long long id = job.since >= 0 ? ring.toOldest(static_cast<int>(wallClockUs() / 1000000) - job.since)
                                           : ring.toWorking();
    unsigned long long slots = static_cast<unsigned long long>(ring.slots);
    int slot = static_cast<int>(id % slots);
    unsigned long long expected = 0;
    for (int written = 0; job.count == 0 || written < job.count;) {
        if (ring.wait(slot) != Wait::Open) break;
        id = ring.take();
        slot = static_cast<int>(id % slots);
        bool fresh = id >= expected;
        try {
            ring.getter.probeAge(maxAge(job));
        } catch (const typename Ring::Error& error) {
            fprintf(stderr, "avpool: get: overtaken: %s %llu %s, going to the newest\n", element, id, error.what());
            slot = static_cast<int>(ring.toWorking() % slots);
            continue;
        }
        if (fresh) {
            reportGap(expected, id, element);
            if (!ring.write()) break;
            expected = id + 1;
            ++written;
        }
        ring.toNext();
        slot = (slot + 1) % ring.slots;
    }
}

struct JpgRing {
    using Error = JPGGetterError;
    JPGGetter& getter;
    const LockView& locks;
    pid_t creator;
    int slots;
    Output& out;
    int safe = 0;

    bool started() { return getter.toWorking(safe) != 0; }
    unsigned long long toWorking() { return getter.toWorking(safe); }
    unsigned long long toOldest(int second) {
        getter.toOldestWorking(safe, second);
        return getter.getFrameID();
    }
    unsigned long long toNext() {
        getter.toNext(safe);
        return getter.getFrameID();
    }
    Wait wait(int slot) {
        Wait wait = waitOpen(locks, slot, creator);
        if (wait == Wait::Open) getter.waitReady();
        return wait;
    }
    unsigned long long take() {
        getter.getFrame();
        return getter.getFrameID();
    }
    bool write() { return out.write(getter.frame.data, static_cast<size_t>(getter.frame.frameLength)); }
};

// The audio getters over their 200 slots; Sink takes each fragment's bytes.
template <class Getter, class GetterError, class Sink>
struct AudioRing {
    using Error = GetterError;
    Getter& getter;
    const SegmentView& view;
    const GroupedLockView& locks;
    pid_t creator;
    Sink& sink;
    int slots = AUDIO_SLOT_COUNT;
    int safe = 0;

    // The first fragment is written. Until the producer's init has set the
    // header, current holds the fill bytes, and the getter's moves would take
    // it for a slot; so it is checked here first.
    bool started() {
        int32_t current = -1;
        view.read(0, &current, sizeof current);
        return current >= 0 && current < AUDIO_SLOT_COUNT && getter.toWorking(safe) != 0;
    }
    unsigned long long toWorking() { return getter.toWorking(safe); }
    unsigned long long toOldest(int second) { return getter.toOldestWorking(safe, second); }
    unsigned long long toNext() { return getter.toNext(safe); }
    // Once the poll has seen the lock open the pool's own wait returns at
    // once. Should the lock close again first, a signal or the pool's removal
    // ends that wait with "semop failed." (the audio getters do not retry),
    // which ends the reading like the poll's own outcomes.
    Wait wait(int slot) {
        Wait wait = waitOpen(locks, slot, creator);
        if (wait != Wait::Open) return wait;
        try {
            QuietOutput quiet;  // the pool reports the failed semop itself
            getter.waitReady();
        } catch (const GetterError& error) {
            if (interrupted) return Wait::Interrupted;
            if (locks.value(slot) < 0) return Wait::Gone;
            throw CliError(std::string("get: waiting for a fragment: ") + error.what());
        }
        return Wait::Open;
    }
    unsigned long long take() {
        getter.getFragment();
        return getter.getFragmentID();
    }
    bool write() { return sink.write(getter.fragment.data, static_cast<size_t>(getter.fragment.length)); }
};

// Bits per sample of a pcm format code that a WAV file can hold.
int wavBits(int format) {
    switch (format) {
        case 1:
        case 8:
            return 8;
        case 16:
            return 16;
        default:
            throw CliError("get: the pcm pool's format code " + std::to_string(format) + " has no WAV form");
    }
}

// A WAV file of the pcm pool's fragments: the header goes out before the
// first fragment, from the pool's working format, with both sizes unknown
// (0xFFFFFFFF); when the output can seek, the sizes are patched at the end.
class WavSink {
public:
    WavSink(Output& out, PCMGetter& getter) : out_(out), getter_(getter) {}
    ~WavSink() {
        if (!started_) return;
        std::vector<unsigned char> header = media::wavHeader(channels_, rate_, bits_, bytes_);
        out_.patch(0, header.data(), header.size());
    }
    WavSink(const WavSink&) = delete;
    WavSink& operator=(const WavSink&) = delete;

    bool write(const unsigned char* data, size_t size) {
        if (!started_) {
            bits_ = wavBits(getter_.getWorkingFormat());
            channels_ = getter_.getWorkingChannels();
            rate_ = getter_.getWorkingRate();
            if (channels_ < 1 || rate_ < 1)
                throw CliError("get: the pcm pool gives " + std::to_string(channels_) + " channels at " +
                               std::to_string(rate_) + " Hz");
            std::vector<unsigned char> header = media::wavHeader(channels_, rate_, bits_, -1);
            if (!out_.write(header.data(), header.size())) return false;
            started_ = true;
        }
        bytes_ += static_cast<long long>(size);
        return out_.write(data, size);
    }

private:
    Output& out_;
    PCMGetter& getter_;
    bool started_ = false;
    int bits_ = 0;
    int channels_ = 0;
    int rate_ = 0;
    long long bytes_ = 0;
};

}  // namespace

int getJpg(const GetJob& job) {
    OpenPool<JPGPoolHeader> pool(job);
    LockView locks(firstLockKey(*job.pool, job.channel), pool.header.frameCount);
    JPGGetter getter;
    initGetter<JPGGetterError>(job, [&] { getter.init(job.channel); });
    JpgRing ring{getter, locks, pool.view.creator(), pool.header.frameCount, *job.out};
    followRing(job, ring, "frame");
    return 0;
}

int getMp4(const GetJob& job) {
    OpenPool<MP4PoolHeader> pool(job);
    const SegmentView& view = pool.view;
    int gops = pool.header.gopCount;
    int frames = pool.header.framesPerGop;
    GroupedLockView locks(firstLockKey(*job.pool, job.channel), gops * frames);
    MP4Getter getter;
    initGetter<MP4GetterError>(job, [&] { getter.init(job.channel); });

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
                reportGap(expected, id, "frame");
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

// The fragments of the pcm pool as a WAV file.
int getPcm(const GetJob& job) {
    OpenPool<PCMPoolHeader> pool(job);
    GroupedLockView locks(firstLockKey(*job.pool, job.channel), AUDIO_SLOT_COUNT);
    PCMGetter getter;
    initGetter<PCMGetterError>(job, [&] { getter.init(); });
    WavSink sink(*job.out, getter);
    AudioRing<PCMGetter, PCMGetterError, WavSink> ring{getter, pool.view, locks, pool.view.creator(), sink};
    followRing(job, ring, "fragment");
    return 0;
}

// The fragments of an aac pool back to back: each is one ADTS frame.
int getAac(const GetJob& job) {
    OpenPool<AACPoolHeader> pool(job);
    GroupedLockView locks(firstLockKey(*job.pool, job.channel), AUDIO_SLOT_COUNT);
    AACGetter getter;
    initGetter<AACGetterError>(job, [&] { getter.init(job.channel); });
    AudioRing<AACGetter, AACGetterError, Output> ring{getter, pool.view, locks, pool.view.creator(),
                                                         *job.out};
    followRing(job, ring, "fragment");
    return 0;
}

namespace {

int runGet(const ParsedArgs& args) {
    args.expectPositional(2, "a pool kind and a channel");
    const PoolKind& kind = findKind(args.positional()[0], "get", &PoolKind::get);
    int channel = mediaChannel(kind, args.positional()[1], "get");
    int since = args.intOption("--since", -1, 0, 24 * 3600);
    int count = args.intOption("--count", 0, 1, 2000000000);
    catchInterrupts();
    std::string path = args.stringOption("-o", args.stringOption("--output", ""));
    std::optional<Output> out;
    if (path.empty() || path == "-")
        out.emplace("get");
    else
        out.emplace(path, "get");
    GetJob job{&kind, channel, since, count, &*out};
    return kind.get(job);
}

}  // namespace

const Verb getVerb = {
    "get",
    "KIND CHANNEL [-o FILE] [--since SECONDS] [--count N]",
    "write a pool's elements to standard output or a file",
    "Reads the pool of the given kind and channel and writes its elements one\n"
    "after the other: jpg as an MJPEG stream (the pictures concatenated), mp4 as\n"
    "an H.264 Annex B stream that starts at an I frame and goes on GOP by GOP,\n"
    "pcm as a WAV file in the pool's working format (16-bit, or 8-bit for\n"
    "format codes 1 and 8), aac as an ADTS stream (the fragments concatenated).\n"
    "The WAV header goes out before the first fragment with both sizes\n"
    "0xFFFFFFFF; they are set at the end when the output is a seekable file.\n"
    "pcm fragments hold 2048 bytes each, so a stream put from a WAV file ends\n"
    "in the silence that completed its last fragment. CHANNEL is 0 for pcm.\n"
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
