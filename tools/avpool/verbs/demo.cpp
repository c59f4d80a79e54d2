// avpool demo [--seconds N] [--channel N] [--quiet]: the library at work on an
// embedded default, every element checked. The demo itself (its producer,
// consumers, profiles and report) is in demo/.

#include "demo/demo.h"
#include "kinds/pool_kinds.h"
#include "verbs/verbs.h"

namespace avpool::cli {

namespace {

constexpr int DEFAULT_SECONDS = 10;
constexpr int MAX_SECONDS = 24 * 3600;
constexpr int MAX_FIRST_CHANNEL = MAX_CHANNEL - avpool::demo::MAX_CHANNEL_OFFSET;

int runDemo(const ParsedArgs& args) {
    args.expectPositional(0, "no arguments besides options");
    int seconds = args.intOption("--seconds", DEFAULT_SECONDS, 1, MAX_SECONDS);
    int firstChannel = args.intOption("--channel", 0, 0, MAX_FIRST_CHANNEL);
    return avpool::demo::runDemo(seconds, firstChannel, args.has("--quiet"));
}

}  // namespace

const Verb demoVerb = {
    "demo",
    "[--seconds N] [--channel N] [--quiet]",
    "run a producer and checking consumers on picture, video, audio and analysis pools",
    "Creates two JPEG pools (channels 0 and 1: 12 slots at 25 fps and 8 slots at\n"
    "10 fps) and a video pool (mp4 channel 0: 8 GOPs of 30 frames at 30 fps, an\n"
    "I frame of 30 to 60 KB and P frames of 2 to 12 KB, every fifth GOP cut short\n"
    "after 18 frames) and writes frames of varying size into them at their rates.\n"
    "Every frame carries its number, length and a checksum of its bytes.\n"
    "\n"
    "Beside them it feeds the PCM pool (16-bit mono at 8 kHz: a 2048-byte\n"
    "fragment every 128 ms), an AAC pool on channel N (fragments of 64 to 512\n"
    "bytes every 256 ms, streamParam 0x1588), the Opus pool (8-bit mono at 8 kHz:\n"
    "20 to 512 bytes every 64 ms), an AMR pool on channel N (32 to 1024 bytes\n"
    "every 256 ms, streamParam 0xff, each fragment's mode 0 to 7 as its\n"
    "fragmentParam), a luminance pool (80 x 64 samples) and a motion-detection\n"
    "pool (two arrays of 64 x 48, vibration 42) on channel N, both at 30 records\n"
    "a second. Fragments and records are stamped like the frames, each md array\n"
    "on its own. The PCM and Opus pools have one key each for the machine: when\n"
    "another running process owns one, the demo leaves it alone.\n"
    "\n"
    "Twelve consumer processes follow the pools: live-0, live-1 and live-mp4 read\n"
    "every frame as it comes; slow-0, slow-1 and slow-mp4 spend longer on each\n"
    "frame than the producer allows, get overtaken and catch up again, slow-0 on\n"
    "the newest frame, slow-1 on the oldest frame still safe from the writer and\n"
    "slow-mp4 on the GOP being written. The video consumers read GOP by GOP; they\n"
    "count the GOPs they read, how the writer overtook them (frame bytes reused,\n"
    "the GOP older than 2 s, a GOP ID that is not the next one) and their jumps\n"
    "back to the GOP being written. live-pcm, live-aac, live-opus, live-amr,\n"
    "live-lum and live-md read every fragment or record and also check its format\n"
    "(streamParam, fragmentParam, picture size, vibration) against what the\n"
    "producer published; a gap in the IDs counts as an overtake. The AMR pool\n"
    "has no reader in the library: live-amr reads its segment by its layout.\n"
    "\n"
    "Each consumer checks every frame it reads: IDs rising, capture times never\n"
    "going back. A frame the writer overwrote while it was being read counts as\n"
    "overwritten; a frame that stayed untouched and is still wrong counts as an\n"
    "error. A summary is shown about once a second (a table on a terminal, one\n"
    "line per consumer otherwise) and a final table at the end. The pools are\n"
    "removed when the demo ends, also on SIGINT or SIGTERM.\n"
    "\n"
    "Exits 0 when every consumer read frames and none was damaged, 1 otherwise,\n"
    "and 128 + the signal number when interrupted.\n",
    {
        {"--seconds", "N", "how long to run (default 10)"},
        {"--channel", "N", "first pool channel: jpg N and N + 1, mp4, aac, amr, lum and md N (default 0)"},
        {"--quiet", nullptr, "no live summary, only the final table"},
    },
    runDemo,
};

}  // namespace avpool::cli
