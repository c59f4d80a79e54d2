// The demo's cast: the pools its producer writes (JPEG frames, GOPs of video,
// PCM, AAC, Opus and AMR audio fragments, luminance and motion records), the
// consumers that follow them in their own processes, and the board
// in shared anonymous memory where every process publishes its counters for
// the live summary.
#pragma once

#include "cli/children.h"
#include "kinds/pool_kinds.h"

#include <avpool/infos.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <sys/types.h>
#include <type_traits>
#include <utility>

namespace avpool::demo {

// The fragmentParam the producer gives AMR fragment `number`: the mode it was
// coded in, cycling through the eight AMR-NB modes, so that a reader can tell
// each fragment's from its neighbours'.
int amrMode(unsigned long long number);

// Whether a putter or getter serves the one pool of a fixed-key kind (PCM,
// Opus): its init takes no channel.
template <class T, class = void>
struct OneOnMachine : std::false_type {};
template <class T>
struct OneOnMachine<T, std::void_t<decltype(std::declval<T&>().init())>> : std::true_type {};
template <class T>
constexpr bool oneOnMachine = OneOnMachine<T>::value;

struct PoolPlan {
    const avpool::cli::PoolKind* kind;  // the kind's row: keys, writer, consumer
    int channel;
    int slots;         // jpg: frames in the ring; mp4: GOPs in the ring
    int framesPerGop;  // mp4: frame slots per GOP (jpg: 1)
    int fps;
    int width;
    int height;
    int quality;    // jpg only
    int minFrame;   // jpg: every frame's length varies between these two;
    int maxFrame;   // mp4: every P frame's
    int minKey;     // mp4: the I frames' lengths
    int maxKey;
    int shortGop;   // mp4: every shortGop-th GOP ends early,
    int shortLength;  // after this many frames
    int ringBytes;  // length of the data ring
    // Audio: the putter's reset values, and what they make of a fragment.
    int format;
    int audioChannels;
    int rate;
    int streamParam;  // aac, amr
    int fragmentMs;
    int samples;      // per channel and fragment
    // Analysis: records at fps of width x height elements; md's level.
    int vibration;
    int parts;  // stamped arrays per element: 2 for md, else 1
};

// The pool's segment key, and how the report names it: "jpg 0 ", "pcm - ".
int segmentKey(const PoolPlan& plan);
// The key of the pool's first semaphore set; every pool of the demo keeps its
// locks in one set.
int lockKey(const PoolPlan& plan);
const char* poolLabel(const PoolPlan& plan, char* text, int size);
// Time between two elements.
long long periodNs(const PoolPlan& plan);

// The pool's maxFrameSize: the longest frame it is given.
int maxFrameSize(const PoolPlan& plan);
// The size its putter is given for the tables and the data ring, and the size
// of the segment that makes.
int dataSize(const PoolPlan& plan);
int segmentSize(const PoolPlan& plan);

// How a consumer gets back into step once the writer has overtaken it.
enum class Catchup {
    Newest,  // toWorking (toWorkingGop): jump to the frame (GOP) being written
    Oldest,  // toOldestWorking: the oldest frame still safe from the writer
};

struct ConsumerPlan {
    const char* name;
    int pool;     // index into the pool plans
    int pauseMs;  // time spent on each frame; more than the frame period falls behind
    Catchup catchup;
};

constexpr int MAX_POOLS = 10;
constexpr int GOP_HISTORY = 64;
constexpr int MAX_CONSUMERS = 12;
constexpr int ERROR_TEXT = 160;

static_assert(std::atomic<unsigned long long>::is_always_lock_free,
              "the board is shared between processes and needs lock-free counters");

struct PoolBoard {
    std::atomic<unsigned long long> started{0};    // number of the frame being put
    std::atomic<unsigned long long> completed{0};  // number of the last frame put
    // Video: the number of the first frame of GOP g at [g % GOP_HISTORY], set
    // before that frame is put. Tells a reader where a GOP ended.
    std::atomic<unsigned long long> gopFirst[GOP_HISTORY] = {};
};

struct ConsumerBoard {
    std::atomic<unsigned long long> read{0};         // frames verified whole
    std::atomic<unsigned long long> skipped{0};      // frames between two reads that were never read
    std::atomic<unsigned long long> overwritten{0};  // reads given up because the writer got there first
    std::atomic<unsigned long long> overtaken{0};    // gaps: times the writer went past it
    std::atomic<unsigned long long> errors{0};       // frames intact before and after reading, yet wrong
    // Video readers only.
    std::atomic<unsigned long long> gops{0};       // GOPs entered and read from their first frame on
    std::atomic<unsigned long long> agedOut{0};    // GOPs left because probeAge said "age too old"
    std::atomic<unsigned long long> gopJumps{0};   // steps to a GOP whose ID was not the next one
    std::atomic<unsigned long long> jumps{0};      // jumps back to the working GOP
    std::atomic<unsigned long long> lastId{0};
    std::atomic<long long> lastCaptureUs{0};
    char firstError[ERROR_TEXT] = {};  // written before errors first becomes 1
};

struct Board {
    std::atomic<int> ready{0};  // the pools exist
    std::atomic<int> published{0};  // set before ready: the profiles are in the information area
    std::atomic<int> stop{0};
    PoolBoard pools[MAX_POOLS];
    ConsumerBoard consumers[MAX_CONSUMERS];
};

// What a consumer process needs; it runs until board->stop or the pool goes away.
struct ConsumerJob {
    const ConsumerPlan* plan;
    const PoolPlan* pool;
    Board* board;
    ConsumerBoard* counters;  // this consumer's place on the board
};

// Body of a consumer process (a ConsumerJob for any kind of pool): runs the
// consumer of the pool's kind; its result is the process's exit code.
int runConsumer(void* job);

// The demo's profiles in the information area, one per pool, published as an
// encoder does; consumers take a connection slat each while they run.
struct Connections {
    bool published = false;
    pid_t owner = 0;  // when not published: the running process whose area it is
    int maxConn = 0;
    int peak = 0;   // units taken at most, sampled while the demo ran
    int atEnd = 0;  // units still taken once every consumer had ended
};

class ProfilePublisher {
public:
    // Creates the area and publishes the profiles with their pools not yet
    // streaming, unless the area belongs to another running process.
    ProfilePublisher(const PoolPlan* plans, int count);

    bool published() const { return connections_.published; }
    void streaming();  // the pools exist and are being written
    void sample();     // notes the units taken now
    // Takes the final count (every consumer must have ended) and removes the area.
    const Connections& finish();
    const Connections& connections() const { return connections_; }

private:
    std::unique_ptr<InfosPutter> area_;  // none when not published
    int count_;
    Connections connections_;
};

// Weight of a consumer's connection slat, and its userType.
constexpr int CONSUMER_WEIGHT = 1;
constexpr int CONSUMER_USER_TYPE = 1;

// Everything the summaries show.
struct RunView {
    const PoolPlan* pools;
    int poolCount;
    const ConsumerPlan* consumers;
    int consumerCount;
    const Board* board;
    const avpool::cli::Child* children;
    int seconds;  // planned length of the run
    const Connections* connections;
    // Fixed-key pools not run because another running process owns them.
    const PoolPlan* leftAlone;
    const pid_t* leftAloneOwners;
    int leftAloneCount;
};

// The summary while the demo runs, about once a second: on a terminal a table
// redrawn in place, otherwise one line per consumer.
class LiveSummary {
public:
    explicit LiveSummary(const RunView& run);
    void show(double elapsedSeconds);

private:
    void showTable(double elapsedSeconds);
    void showLines(double elapsedSeconds);

    const RunView& run_;
    bool terminal_;
    int drawnLines_ = 0;
};

// The closing table and verdict; returns the number of failures found (damaged
// frames, consumers that read nothing or did not end cleanly, connection units
// still taken at the end).
int printFinalReport(const RunView& run, double elapsedSeconds, int interruptSignal);

// The demo's pools lie on the first channel and the one above it (jpg N + 1).
constexpr int MAX_CHANNEL_OFFSET = 1;

// Runs the demo for seconds on the pools of firstChannel and the one above it,
// with the live summary unless quiet; returns the tool's exit code: 0, 1 on
// any failure, 128 + the signal when interrupted.
int runDemo(int seconds, int firstChannel, bool quiet);

}  // namespace avpool::demo
