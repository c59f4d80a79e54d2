// avpool put KIND CHANNEL FILE: a producer fed from a media file. The file is
// split into the kind's elements (pictures, access units), the pool is sized
// for them, and the elements are put at the stream's rate, stamped with the
// time they are put. At the end of the file (or on SIGINT/SIGTERM) it lingers
// so consumers can drain, then removes its pool.

#include "cli/clock.h"
#include "cli/interrupt.h"
#include "cli/io.h"
#include "kinds/pool_kinds.h"
#include "kinds/shm_view.h"
#include "media/adts_stream.h"
#include "media/h264_stream.h"
#include "media/jpeg_stream.h"
#include "media/wav_stream.h"
#include "publish/video_profile.h"
#include "verbs/per_kind.h"
#include "verbs/verbs.h"

#include <avpool/aac.h>
#include <avpool/jpg.h>
#include <avpool/mp4.h>
#include <avpool/pcm.h>

#include <algorithm>
#include <cstring>

namespace avpool::cli {

namespace {

constexpr int DEFAULT_FPS = 25;
constexpr int MAX_FPS = 1000;
constexpr int MAX_BYTES = 1 << 30;
constexpr int JPG_DEFAULT_SLOTS = JPG_MAX_FRAME_COUNT;
constexpr int MP4_DEFAULT_GOPS = 8;
constexpr int MP4_MIN_GOPS = 3;
constexpr int RECORD_OVERHEAD = 8 + 3;  // frame-ID prefix and padding in the data ring
constexpr int SLOT_RECORDS = 52;        // safe time and frame info per slot
constexpr long long AAC_FRAME_SAMPLES = 1024;  // per channel, in one raw data block

// Elements of the file in order, each with what the pool's put call needs.
struct Element {
    size_t offset;
    size_t length;
    bool key;  // mp4: starts a GOP
};

// How long one element lasts: ns / per nanoseconds, kept as a fraction so
// that rates like 1024 samples at 44100 Hz do not drift.
struct Period {
    long long ns;
    long long per;
};

[[noreturn]] void badFile(const PutJob& job, const std::exception& error) {
    throw CliError("put: " + job.path + ": " + error.what());
}

// A live producer must not lose its pool: creating one under its key would
// remove the segment it writes.
void refuseLivePool(const PutJob& job) {
    pid_t creator = runningCreator(segmentKey(*job.pool, job.channel));
    if (creator != 0)
        throw CliError("put: the " + poolName(job.pool->name, job.channel) + " is in use by process " +
                       std::to_string(creator));
}

// Creates the kind's pool through init, silencing the pool's set-up
// diagnostics; a failure becomes one line naming the pool.
template <class PutterError, class Init>
void createPool(const PutJob& job, Init init) {
    refuseLivePool(job);
    quietly<PutterError>("put: cannot create the " + poolName(job.pool->name, job.channel), init);
}

// The file split by the kind's splitter; a format error names the file.
template <class Split>
auto splitFile(const PutJob& job, Split split) {
    try {
        return split(job.bytes.data(), job.bytes.size());
    } catch (const media::FormatError& error) {
        badFile(job, error);
    }
}

// Puts one element per period, from the start again with --loop, until the
// end or an interrupt; then lingers.
template <class PutOne>
void pace(const PutJob& job, const std::vector<Element>& elements, Period period, PutOne putOne) {
    catchInterrupts();
    long long step = period.ns / period.per;
    long long remainder = period.ns % period.per;
    long long carried = 0;
    long long due = monotonicNs();
    do {
        for (const Element& element : elements) {
            sleepUntilNs(due);
            if (interrupted) return;
            timeval now;
            gettimeofday(&now, nullptr);
            putOne(element, now);
            due += step;
            carried += remainder;
            if (carried >= period.per) {
                ++due;
                carried -= period.per;
            }
        }
    } while (job.loop && !interrupted);
    sleepUntilNs(monotonicNs() + static_cast<long long>(job.lingerMs) * 1000000);
}

// The put calls take a non-const pointer but only copy from it.
void* elementData(const PutJob& job, const Element& element) {
    return const_cast<unsigned char*>(job.bytes.data() + element.offset);
}

int largest(const std::vector<Element>& elements) {
    size_t most = 0;
    for (const Element& element : elements) most = std::max(most, element.length);
    return static_cast<int>(most);
}

}  // namespace

int putJpg(const PutJob& job) {
    std::vector<media::JpegPicture> pictures = splitFile(job, media::splitMjpeg);
    std::vector<Element> elements;
    for (const media::JpegPicture& picture : pictures) elements.push_back({picture.offset, picture.length, true});
    const ParsedArgs& args = *job.args;
    int fps = args.intOption("--fps", DEFAULT_FPS, 1, MAX_FPS);
    int slots = args.intOption("--slots", JPG_DEFAULT_SLOTS, 1, JPG_MAX_FRAME_COUNT);
    int maxFrame = args.intOption("--max-frame", largest(elements), 1, MAX_BYTES);
    int dataSize = args.intOption("--data-size", slots * (SLOT_RECORDS + maxFrame + RECORD_OVERHEAD), 1, MAX_BYTES);

    JPGPutter putter;
    createPool<JPGPutterError>(job, [&] { putter.init(job.channel, slots, maxFrame, dataSize); });
    putter.reset(pictures[0].width, pictures[0].height, fps, 0);
    size_t next = 0;
    pace(job, elements, {NS_PER_S, fps}, [&](const Element& element, const timeval& now) {
        const media::JpegPicture& picture = pictures[next++ % pictures.size()];
        putter.reset(picture.width, picture.height, 0, -1);
        putter.putFrame(elementData(job, element), static_cast<int>(element.length), now);
    });
    return 0;
}

int putMp4(const PutJob& job) {
    media::H264Stream stream = splitFile(job, media::splitH264);
    // A GOP begins at an IDR picture; pictures before the first have nothing
    // to refer to and are left out.
    std::vector<Element> elements;
    int gopFrames = 0;
    int longestGop = 0;
    size_t gopBytes = 0;
    size_t mostGopBytes = 0;
    for (const media::AccessUnit& unit : stream.units) {
        if (elements.empty() && !unit.idr) continue;
        if (unit.idr) {
            gopFrames = 0;
            gopBytes = 0;
        }
        ++gopFrames;
        gopBytes += unit.length + RECORD_OVERHEAD;
        longestGop = std::max(longestGop, gopFrames);
        mostGopBytes = std::max(mostGopBytes, gopBytes);
        elements.push_back({unit.offset, unit.length, unit.idr});
    }
    if (elements.empty()) throw CliError("put: " + job.path + " has no IDR picture to start a GOP with");
    const ParsedArgs& args = *job.args;
    int fps = args.intOption("--fps", stream.picture.fps > 0 ? stream.picture.fps : DEFAULT_FPS, 1, MAX_FPS);
    int framesPerGop = args.intOption("--gop-frames", longestGop, 1, MP4_MAX_FRAME_COUNT / MP4_MIN_GOPS);
    int gops = args.intOption("--slots", std::max(MP4_MIN_GOPS, std::min(MP4_DEFAULT_GOPS, MP4_MAX_FRAME_COUNT / framesPerGop)),
                              MP4_MIN_GOPS, MP4_MAX_FRAME_COUNT);
    if (gops * framesPerGop > MP4_MAX_FRAME_COUNT)
        throw UsageError("put: " + std::to_string(gops) + " GOPs of " + std::to_string(framesPerGop) +
                         " frames exceed the pool's " + std::to_string(MP4_MAX_FRAME_COUNT) + " frame slots");
    int maxFrame = args.intOption("--max-frame", largest(elements), 1, MAX_BYTES);
    long long ring = static_cast<long long>(gops) * static_cast<long long>(mostGopBytes);
    int dataSize = args.intOption("--data-size", static_cast<int>(std::min<long long>(ring, MAX_BYTES)), 1, MAX_BYTES);

    MP4Putter putter;
    createPool<MP4PutterError>(job, [&] {
        putter.init(job.channel, gops, framesPerGop, maxFrame, dataSize + gops * framesPerGop * SLOT_RECORDS);
    });
    putter.reset(stream.picture.width, stream.picture.height, fps);
    // The profiles the encoder announced for this channel learn what a server
    // describes the stream with; without an information area nobody is told.
    publish::publishVideo(job.channel, {stream.picture.width, stream.picture.height, fps, stream.sps, stream.pps});
    pace(job, elements, {NS_PER_S, fps}, [&](const Element& element, const timeval& now) {
        void* data = elementData(job, element);
        if (element.key)
            putter.putIFrame(data, static_cast<int>(element.length), now);
        else
            putter.putPFrame(data, static_cast<int>(element.length), now);
    });
    return 0;
}

// The samples of a WAV file in windows of PCM_FRAGMENT_SIZE bytes, one per
// fragment, paced by the file's byte rate (the pool's own fragment time is
// truncated to whole milliseconds and would drift). A pcm fragment always
// carries PCM_FRAGMENT_SIZE bytes, so the last window is completed with silence.
int putPcm(const PutJob& job) {
    media::WavAudio audio = splitFile(job, media::readWav);
    std::vector<Element> elements;
    for (size_t at = 0; at < audio.dataLength; at += PCM_FRAGMENT_SIZE)
        elements.push_back({audio.dataOffset + at, std::min<size_t>(PCM_FRAGMENT_SIZE, audio.dataLength - at), false});

    PCMPutter putter;
    createPool<PCMPutterError>(job, [&] { putter.init(); });
    // The format code is the number of bits per sample.
    putter.reset(audio.bits, audio.channels, audio.rate);
    unsigned char last[PCM_FRAGMENT_SIZE];
    memset(last, audio.bits == 8 ? 0x80 : 0, sizeof last);  // 8-bit samples are unsigned
    long long bytesPerSecond = static_cast<long long>(audio.rate) * audio.channels * (audio.bits / 8);
    pace(job, elements, {PCM_FRAGMENT_SIZE * NS_PER_S, bytesPerSecond}, [&](const Element& element, const timeval& now) {
        void* data = elementData(job, element);
        if (element.length < PCM_FRAGMENT_SIZE) data = memcpy(last, data, element.length);
        putter.putFragment(data, PCM_FRAGMENT_SIZE, now);
    });
    return 0;
}

// Each ADTS frame, header included, is one fragment, paced at 1024 samples
// per frame at the stream's rate. The fragment's stream parameter is the
// audio object type (2 for AAC LC). A frame too long for a fragment is an
// error rather than split, since a consumer takes each fragment as a frame.
int putAac(const PutJob& job) {
    media::AdtsStream stream = splitFile(job, media::splitAdts);
    std::vector<Element> elements;
    for (const media::AdtsFrame& frame : stream.frames) {
        if (frame.length > AAC_MAX_FRAGMENT_SIZE)
            throw CliError("put: " + job.path + ": ADTS frame at byte " + std::to_string(frame.offset) + " has " +
                           std::to_string(frame.length) + " bytes, more than an aac fragment holds (" +
                           std::to_string(AAC_MAX_FRAGMENT_SIZE) + ")");
        elements.push_back({frame.offset, frame.length, false});
    }

    AACPutter putter;
    createPool<AACPutterError>(job, [&] { putter.init(job.channel); });
    putter.reset(16, stream.channels, stream.rate, stream.objectType);
    pace(job, elements, {AAC_FRAME_SAMPLES * NS_PER_S, stream.rate}, [&](const Element& element, const timeval& now) {
        putter.putFragment(elementData(job, element), static_cast<int>(element.length), now);
    });
    return 0;
}

int mediaChannel(const PoolKind& kind, const std::string& text, const char* verb) {
    return parseChannel(kind, text, verb, [](const char* named, const PoolKind& pool, const std::string& given, int) {
        return std::string(named) + ": there is one " + pool.name + " pool per machine: CHANNEL must be 0, not " +
               given;
    });
}

namespace {

int runPut(const ParsedArgs& args) {
    args.expectPositional(3, "a pool kind, a channel and a file");
    const PoolKind& kind = findKind(args.positional()[0], "put", &PoolKind::put);
    PutJob job{&kind, mediaChannel(kind, args.positional()[1], "put"), args.positional()[2], {}, &args,
               args.has("--loop"), args.intOption("--linger", 1000, 0, 3600 * 1000)};
    job.bytes = readWholeFile(job.path, "put");
    return kind.put(job);
}

}  // namespace

const Verb putVerb = {
    "put",
    "KIND CHANNEL FILE [--loop] [options]",
    "produce a pool's elements from a media file",
    "Creates the pool of the given kind and channel and puts the elements of\n"
    "FILE into it at the stream's rate, stamped with the time each is put; at\n"
    "the end of the file (or on SIGINT/SIGTERM) it waits --linger milliseconds\n"
    "for consumers to drain and removes the pool.\n"
    "\n"
    "jpg: FILE is an MJPEG stream (JPEG pictures one after the other); each\n"
    "picture is one frame, its size taken from its frame header. Default rate 25.\n"
    "mp4: FILE is an H.264 Annex B stream; each access unit is one frame, IDR\n"
    "pictures start GOPs. Picture size and rate come from the SPS (rate 25 when\n"
    "it has none). When the information area exists, the profiles it announces\n"
    "for this channel get the picture size, the rate (as the third video value)\n"
    "and the SPS and PPS without start codes.\n"
    "pcm: FILE is a WAV file of PCM samples, 8 or 16 bits, any number of\n"
    "channels, at least 1000 Hz; every 2048 bytes of samples are one fragment,\n"
    "the last completed with silence. There is one pcm pool: CHANNEL is 0.\n"
    "aac: FILE is an AAC stream in ADTS frames of at most 512 bytes; each frame\n"
    "is one fragment, 1024 samples long, with its audio object type as the\n"
    "stream parameter.\n"
    "\n"
    "The pool is sized from the file unless told otherwise. Refuses to replace a\n"
    "pool whose creator still runs.\n",
    {{"--loop", nullptr, "start the file again at its end, until interrupted"},
     {"--fps", "N", "jpg, mp4: elements per second (default: from the stream, else 25)"},
     {"--linger", "MS", "milliseconds to keep the pool after the end (default 1000)"},
     {"--slots", "N", "jpg: frames in the ring (default 30); mp4: GOPs in the ring (default 8)"},
     {"--gop-frames", "N", "mp4: frame slots per GOP (default: the file's longest GOP)"},
     {"--max-frame", "BYTES", "largest element accepted (default: the file's largest)"},
     {"--data-size", "BYTES", "length of the data ring (default: room for every slot)"}},
    runPut,
};

}  // namespace avpool::cli
