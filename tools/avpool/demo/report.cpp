// What the demo prints: the live summary and the closing report.

#include "cli/clock.h"
#include "demo/demo.h"

#include <cstdio>
#include <cstring>
#include <sys/wait.h>
#include <unistd.h>

namespace avpool::demo {

namespace {

using avpool::cli::Family;

unsigned long long load(const std::atomic<unsigned long long>& counter) {
    return counter.load(std::memory_order_relaxed);
}

void paceText(const ConsumerPlan& consumer, char* text, int size) {
    if (consumer.pauseMs == 0)
        snprintf(text, size, "live");
    else
        snprintf(text, size, "%dms", consumer.pauseMs);
}

// Frames the producer has put since consumer i's last read.
unsigned long long framesBehind(const RunView& run, int i) {
    unsigned long long last = load(run.board->consumers[i].lastId);
    unsigned long long newest = load(run.board->pools[run.consumers[i].pool].completed);
    return newest > last ? newest - last : 0;
}

// Frames the producer has put since the consumer's last read, and how old the
// frame it read last is.
void lagText(const RunView& run, int i, char* text, int size) {
    const ConsumerBoard& counters = run.board->consumers[i];
    if (load(counters.lastId) == 0) {
        snprintf(text, size, "-");
        return;
    }
    long long ageMs = (avpool::cli::wallClockUs() - counters.lastCaptureUs.load(std::memory_order_relaxed)) / 1000;
    snprintf(text, size, "%llu fr, %lld ms", framesBehind(run, i), ageMs);
}

void printConsumerHeader(int lagWidth) {
    printf("%-9s %-6s %6s %8s %8s %11s %9s %6s  %-*s", "consumer", "pool", "pace", "read", "skipped",
           "overwritten", "overtaken", "errors", lagWidth, "lag");
}

void printConsumerRow(const RunView& run, int i, const char* lag) {
    const ConsumerPlan& consumer = run.consumers[i];
    const ConsumerBoard& counters = run.board->consumers[i];
    char pace[16];
    paceText(consumer, pace, sizeof pace);
    char label[24];
    poolLabel(run.pools[consumer.pool], label, sizeof label);
    printf("%-9s %-6s %6s %8llu %8llu %11llu %9llu %6llu  %s", consumer.name, label, pace, load(counters.read),
           load(counters.skipped), load(counters.overwritten), load(counters.overtaken), load(counters.errors), lag);
}

// One pool of the closing table: its key, ring and rate, what it holds and
// how many elements were put.
void printPoolRow(const PoolPlan& pool, unsigned long long put) {
    char label[24];
    char slots[24];
    char rate[16];
    char picture[24];
    char sizes[96];
    poolLabel(pool, label, sizeof label);
    snprintf(slots, sizeof slots, "%d", pool.slots);
    snprintf(rate, sizeof rate, "%d", pool.fps);
    snprintf(picture, sizeof picture, "%dx%d", pool.width, pool.height);
    snprintf(sizes, sizeof sizes, "%d..%d", pool.minFrame, pool.maxFrame);
    switch (pool.kind->family) {
    case Family::Video:
        snprintf(slots, sizeof slots, "%dx%d", pool.slots, pool.framesPerGop);
        snprintf(sizes, sizeof sizes, "I %d..%d, P %d..%d", pool.minKey, pool.maxKey, pool.minFrame, pool.maxFrame);
        break;
    case Family::Audio:
        snprintf(rate, sizeof rate, "-");
        snprintf(picture, sizeof picture, "%dHz", pool.rate);
        snprintf(sizes + strlen(sizes), sizeof sizes - strlen(sizes), ", %d samples in %d ms", pool.samples,
                 pool.fragmentMs);
        if (pool.kind->extras >= 1)
            snprintf(sizes + strlen(sizes), sizeof sizes - strlen(sizes), ", streamParam 0x%x", pool.streamParam);
        if (pool.kind->extras >= 2)
            snprintf(sizes + strlen(sizes), sizeof sizes - strlen(sizes), ", fragmentParam ID %% 8");
        break;
    case Family::Analysis:
        // Two bytes a luminance sample; two arrays of four bytes an element in
        // a motion map, whose header also has the vibration level.
        if (pool.kind->vibration)
            snprintf(sizes, sizeof sizes, "%d x %d elements, vibration %d", pool.parts, pool.maxFrame / 4,
                     pool.vibration);
        else
            snprintf(sizes, sizeof sizes, "%d samples", pool.maxFrame / 2);
        break;
    default:
        break;
    }
    printf("%-6s 0x%-5x %5s %4s %9s %8llu  %s\n", label, segmentKey(pool), slots, rate, picture, put, sizes);
}

}  // namespace

LiveSummary::LiveSummary(const RunView& run) : run_(run), terminal_(isatty(STDOUT_FILENO) != 0) {}

void LiveSummary::show(double elapsedSeconds) {
    if (terminal_)
        showTable(elapsedSeconds);
    else
        showLines(elapsedSeconds);
    fflush(stdout);
}

void LiveSummary::showTable(double elapsedSeconds) {
    if (drawnLines_ > 0) printf("\033[%dA", drawnLines_);
    printf("\r\033[Kavpool demo: %.0f of %d s ", elapsedSeconds, run_.seconds);
    for (int p = 0; p < run_.poolCount; ++p) {
        char label[24];
        printf("  %s: %llu", poolLabel(run_.pools[p], label, sizeof label), load(run_.board->pools[p].completed));
    }
    printf("\n\033[K");
    printConsumerHeader(0);
    printf("\n");
    for (int i = 0; i < run_.consumerCount; ++i) {
        char lag[48];
        lagText(run_, i, lag, sizeof lag);
        printf("\033[K");
        printConsumerRow(run_, i, lag);
        printf("\n");
    }
    drawnLines_ = 2 + run_.consumerCount;
}

void LiveSummary::showLines(double elapsedSeconds) {
    for (int i = 0; i < run_.consumerCount; ++i) {
        const ConsumerPlan& consumer = run_.consumers[i];
        const ConsumerBoard& counters = run_.board->consumers[i];
        char lag[48];
        lagText(run_, i, lag, sizeof lag);
        const PoolPlan& pool = run_.pools[consumer.pool];
        char label[24];
        printf("[%3.0f s] %-9s %s: read %llu, ", elapsedSeconds, consumer.name, poolLabel(pool, label, sizeof label),
               load(counters.read));
        if (pool.kind->family == Family::Video) printf("gops %llu, jumps %llu, ", load(counters.gops), load(counters.jumps));
        printf("skipped %llu, overwritten %llu, overtaken %llu, errors %llu, lag %s\n", load(counters.skipped),
               load(counters.overwritten), load(counters.overtaken), load(counters.errors), lag);
    }
}

int printFinalReport(const RunView& run, double elapsedSeconds, int interruptSignal) {
    printf("\navpool demo: %.1f s, %d pools, %d consumers\n\n", elapsedSeconds, run.poolCount, run.consumerCount);
    printf("%-6s %-7s %5s %4s %9s %8s  %s\n", "pool", "key", "slots", "fps", "picture", "frames", "frame sizes");
    for (int p = 0; p < run.poolCount; ++p) printPoolRow(run.pools[p], load(run.board->pools[p].completed));
    for (int p = 0; p < run.leftAloneCount; ++p) {
        char label[24];
        printf("%-6s 0x%-5x  not run: the pool belongs to running pid %d\n",
               poolLabel(run.leftAlone[p], label, sizeof label), segmentKey(run.leftAlone[p]),
               static_cast<int>(run.leftAloneOwners[p]));
    }
    printf("\n");
    constexpr int LAG_WIDTH = 9;
    printConsumerHeader(LAG_WIDTH);
    printf(" %8s  %s\n", "pid", "ended");
    for (int i = 0; i < run.consumerCount; ++i) {
        const avpool::cli::Child& child = run.children[i];
        char lag[32];
        snprintf(lag, sizeof lag, "%-*llu", LAG_WIDTH, framesBehind(run, i));
        char outcome[40];
        printConsumerRow(run, i, lag);
        printf(" %8d  %s\n", static_cast<int>(child.pid), avpool::cli::childOutcome(child, outcome, sizeof outcome));
    }

    printf("\n");
    for (int i = 0; i < run.consumerCount; ++i) {
        if (run.pools[run.consumers[i].pool].kind->family != Family::Video) continue;
        const ConsumerBoard& counters = run.board->consumers[i];
        printf("%s: %llu GOPs read; overtaken: %llu frames overwritten, %llu GOPs too old, %llu GOP ID jumps; "
               "%llu jumps back to the working GOP\n",
               run.consumers[i].name, load(counters.gops), load(counters.overwritten), load(counters.agedOut),
               load(counters.gopJumps), load(counters.jumps));
    }

    const Connections& connections = *run.connections;
    if (connections.published)
        printf("connections: peak %d of %d units, %d at the end\n", connections.peak, connections.maxConn,
               connections.atEnd);
    else
        printf("connections: not counted, the information area belongs to running pid %d\n",
               static_cast<int>(connections.owner));

    int failures = 0;
    printf("\n");
    if (connections.published && connections.atEnd != 0) {
        printf("FAILED: %d connection unit%s still taken at the end\n", connections.atEnd,
               connections.atEnd == 1 ? "" : "s");
        ++failures;
    }
    for (int i = 0; i < run.consumerCount; ++i) {
        const char* name = run.consumers[i].name;
        const ConsumerBoard& counters = run.board->consumers[i];
        const avpool::cli::Child& child = run.children[i];
        unsigned long long errors = counters.errors.load(std::memory_order_acquire);
        if (errors > 0) {
            printf("FAILED: %s: %llu damaged frame%s, first: %s\n", name, errors, errors == 1 ? "" : "s",
                   counters.firstError);
            ++failures;
        }
        if (load(counters.read) == 0) {
            printf("FAILED: %s read no frame\n", name);
            ++failures;
        }
        if (child.running || !WIFEXITED(child.status) || WEXITSTATUS(child.status) != 0) {
            char outcome[40];
            printf("FAILED: %s ended with %s\n", name, avpool::cli::childOutcome(child, outcome, sizeof outcome));
            ++failures;
        }
    }
    if (interruptSignal != 0)
        printf("result: interrupted by signal %d%s\n", interruptSignal, failures ? ", with failures" : "");
    else
        printf("result: %s\n", failures ? "FAILED" : "ok");
    fflush(stdout);
    return failures;
}

}  // namespace avpool::demo
