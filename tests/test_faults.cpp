// What a reader survives: a header not filled in yet, words of a live pool
// overwritten by a stray process (raw writes play it), and a writer killed and
// restarted under it again and again.
#include "pools.h"

#include <climits>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <memory>
#include <sys/mman.h>
#include <unistd.h>

using namespace avpool::test;

namespace {

// A word and what a stray process (or a writer still setting up) leaves there.
struct Scribble {
    size_t offset;
    int32_t value;
    const char* what;
};

void quiet() {
    int null = open("/dev/null", O_WRONLY);
    dup2(null, 1);
    dup2(null, 2);
}

// Each scribble makes init refuse the header and leave the getter detached.
template <class Error, class Getter, class Detached>
void expectNotReady(key_t key, int channel, const std::vector<Scribble>& scribbles, Detached detached) {
    for (const Scribble& s : scribbles) {
        const int32_t saved = RawSegment(key).i32(s.offset);
        ASSERT_TRUE(pokeWord(key, s.offset, s.value));
        Getter reader;
        EXPECT_EQ(failureOf<Error>([&] { reader.init(channel); }), std::make_pair(std::string("pool not ready."), std::string()))
            << s.what;
        EXPECT_EQ(attachmentsOf(key), 1) << s.what << ": a refused reader detaches again";
        EXPECT_EQ(failureOf<Error>([&] { detached(reader); }).first, "programming error") << s.what;
        ASSERT_TRUE(pokeWord(key, s.offset, saved));
        reader.init(channel);
    }
}

}  // namespace

using JpegFaults = Pool<JpegKind>;
using Mp4Faults = Pool<Mp4Kind>;

// JPEG header: frameCount 0, prefix size 28, table offsets 160, 164, 168. Record of
// slot s at 196 + 48 * s: lock index at 8, length at 12, data position at 40.
TEST_F(JpegFaults, corruptHeaderMakesInitSayPoolNotReadyAndRecordsOutsideTheRingAreSkipped) {
    JpegKind::start(putter);
    putRange(1, 3);  // slots 1 to 3, stamped 1 to 3
    expectNotReady<JPGGetterError, JPGGetter>(
        JpegKind::KEY, JpegKind::CHANNEL,
        {{0, 0, "frameCount not stored yet"}, {0, 31, "more slots than a pool has"}, {0, -1, "negative slot count"},
         {0, 8, "more slots than the tables hold"}, {28, 9, "prefix size"}, {160, 0, "safe times on the header"},
         {164, INT32_MAX, "records past the end"}, {168, 172 + 52 * 6 + 4, "ring moved"}},
        [](JPGGetter& g) { g.getFrameID(); });
    JPGGetter reader;
    reader.init(JpegKind::CHANNEL);
    int safe = 0;
    const size_t one = 196 + 48;
    for (const Scribble& s : std::vector<Scribble>{{40, 1024, "position at the ring's end"},
                                                   {40, -8, "position before the ring"},
                                                   {12, 1024, "length past the ring's end"},
                                                   {12, -1, "negative length"}}) {
        ASSERT_EQ(reader.toOldestWorking(safe, 1), 1u);
        const int32_t saved = RawSegment(JpegKind::KEY).i32(one + s.offset);
        ASSERT_TRUE(pokeWord(JpegKind::KEY, one + s.offset, s.value));
        reader.getFrame();
        EXPECT_EQ(idIn(reader.frame.data), 2u) << s.what;
        EXPECT_EQ(reader.toOldestWorking(safe, 1), 2u) << s.what << ": the search passes the bad slot";
        ASSERT_TRUE(pokeWord(JpegKind::KEY, one + s.offset, saved));
    }
    for (int slot = 0; slot < 6; ++slot) ASSERT_TRUE(pokeWord(JpegKind::KEY, 196 + 48 * slot + 40, 1 << 30));
    EXPECT_EQ(failureOf<JPGGetterError>([&] { reader.getFrame(); }),
              std::make_pair(std::string("frame overwritten."), std::string()));
    // The writer's index outside the ring is taken modulo the slots; a lock index
    // outside the set fails the wait as the kernel would.
    ASSERT_TRUE(pokeWord(JpegKind::KEY, 8, 6 * 1000 + 2));
    EXPECT_EQ(reader.toWorking(safe), 2u);
    ASSERT_TRUE(pokeWord(JpegKind::KEY, 196 + 48 * 2 + 8, 6));
    EXPECT_EQ(failureOf<JPGGetterError>([&] { reader.waitReady(); }),
              std::make_pair(std::string("semop failed."), std::string("semop failed: File too large\n")));
    // A segment as a writer leaves it before its header: all zero, locks open.
    putter.release();
    reader.release();
    ASSERT_NE(plantSegment(JpegKind::KEY, JpegKind::SEGMENT, 0), -1);
    ASSERT_NE(plantSemSet(JpegKind::KEY, 6), -1);
    EXPECT_EQ(failureOf<JPGGetterError>([&] { reader.init(JpegKind::CHANNEL); }).first, "pool not ready.");
}

// Video header: gopCount 0, framesPerGop 4, prefix size 36, data offset 48. Record
// of slot s at 124 + 48 * s: lock index at 28, length at 32, data position at 44.
TEST_F(Mp4Faults, corruptHeaderMakesInitSayPoolNotReadyAndFramesOrLockIndexesOutsideTheRingAreRefused) {
    Mp4Kind::start(putter);
    putRange(1, 2);  // GOPs 1 and 2
    expectNotReady<MP4GetterError, MP4Getter>(
        Mp4Kind::KEY, Mp4Kind::CHANNEL,
        {{0, 0, "gopCount not stored yet"}, {4, 0, "no frames per GOP"}, {0, 334, "1002 slots"},
         {0, 1431655766, "a product that wraps in 32 bits"}, {4, -2, "negative frames per GOP"},
         {36, 0, "prefix size"}, {48, -52, "ring before the segment"}},
        [](MP4Getter& g) { g.getGopID(); });
    MP4Getter reader;
    reader.init(Mp4Kind::CHANNEL);
    int safe = 0;
    ASSERT_EQ(reader.toWorkingGop(safe), 2u);  // slots 6, 7 and 8
    for (int k : {-1, 3, INT_MAX})
        EXPECT_EQ(failureOf<MP4GetterError>([&] { reader.getFrameData(k); }),
                  std::make_pair(std::string("programming error"), std::string("programming error\n")));
    auto field = [](int slot, size_t offset) { return 124 + 48 * static_cast<size_t>(slot) + offset; };
    ASSERT_TRUE(pokeWord(Mp4Kind::KEY, field(7, 32), 2048));
    EXPECT_EQ(reader.getFrameData(1), 0u);
    ASSERT_TRUE(pokeWord(Mp4Kind::KEY, field(6, 44), -4));
    EXPECT_EQ(reader.getFrameData(0), 0u);
    EXPECT_EQ(reader.toOldestWorkingGop(safe, 1), 1u) << "GOP 2 is no longer valid, GOP 1 still is";
    ASSERT_TRUE(pokeWord(Mp4Kind::KEY, 12, -2));
    EXPECT_EQ(reader.toWorkingGop(safe), 2u) << "the writer's GOP modulo the ring: 0xfffffffe % 6 is 2";
    ASSERT_TRUE(pokeWord(Mp4Kind::KEY, field(6, 28), 18));
    EXPECT_EQ(failureOf<MP4GetterError>([&] { reader.waitFrameReady(0); }).first, "semop failed.");
}

// ------------------------------------------------ writers killed and restarted

namespace {

constexpr int READERS = 4, CHANNEL = 7, FRAMES_PER_GOP = 5;

// What the readers of one run tell the test, in memory they all share.
struct Tally {
    int32_t stop, accepted, attaches;
    int32_t rejected;   // overwritten before or while it was copied: skipped, as a reader must
    int32_t torn;       // accepted, yet its bytes are not what the writer wrote
    int32_t firstTorn;  // the first torn frame's ID
};
int32_t add(int32_t& counter) { return __atomic_add_fetch(&counter, 1, __ATOMIC_SEQ_CST); }
bool stopped(Tally& tally) { return __atomic_load_n(&tally.stop, __ATOMIC_SEQ_CST) != 0; }

// A frame of a writer's run: its length, its id, then bytes that follow from both,
// so that any mix of two frames fails the check.
Bytes stamped(uint64_t id, int length) {
    Bytes bytes(length);
    memcpy(bytes.data(), &length, 4);
    memcpy(bytes.data() + 4, &id, 8);
    for (int i = 12; i < length; ++i) bytes[i] = static_cast<unsigned char>(id * 131 + i * 7);
    return bytes;
}

// A frame is taken only as a reader must: the slot's ID unchanged across a wait
// that saw its lock open (so the frame was complete), then the bytes copied, then
// the prefix still naming it (so nothing was written over them).
void judge(Tally& tally, uint64_t before, uint64_t id, const unsigned char* data, int length) {
    if (id == 0 || id != before) return (void)add(tally.rejected);
    Bytes copy(data, data + length);
    if (idIn(data - 8) != id) return (void)add(tally.rejected);
    add(tally.accepted);
    if (copy != stamped(id, length) && add(tally.torn) == 1) tally.firstTorn = static_cast<int32_t>(id);
}

// Attaches again and again (after "semop failed.": the writer's set is gone) and
// reads every frame twice, each time after its lock opened, until stopped.
template <class Kind>
int readAll(Tally& tally, bool slow) {
    constexpr bool video = std::is_same_v<Kind, Mp4Kind>;
    quiet();
    typename Kind::Getter reader;
    auto take = [&reader](int k) -> uint64_t {  // the frame's ID; the frame copied out
        if constexpr (video) return reader.waitFrameReady(k), reader.getFrameData(k);
        else return reader.waitReady(), reader.getFrame(), reader.getFrameID();
    };
    while (!stopped(tally)) {
        bool attached = false;
        try {
            reader.release();
            reader.init(CHANNEL);
            attached = true;
            add(tally.attaches);
            int safe = 0;
            for (Kind::toWorking(reader, safe); !stopped(tally); Kind::toNext(reader, safe)) {
                for (int k = 0; k < (video ? FRAMES_PER_GOP : 1); ++k) {
                    const uint64_t before = take(k), after = take(k);
                    if constexpr (video) judge(tally, before, after, reader.frameData, reader.frameLength);
                    else judge(tally, before, after, reader.frame.data, reader.frame.frameLength);
                    if (slow) usleep(1500);
                }
            }
        } catch (const typename Kind::GetterError& e) {
            if (!attached) usleep(100);  // "pool not ready." while the writer sets up, or its set gone
            else if (strcmp(e.what(), "frame overwritten.") == 0) add(tally.rejected);
        }
    }
    return 0;
}

// One writer's run: frames of up to MAX bytes back to back, each a little apart,
// until killed (or, for the last run, a number of frames and then a clean end).
template <class Kind>
int writeAll(ChildLink& link, int generation, int frames) {
    constexpr bool video = std::is_same_v<Kind, Mp4Kind>;
    constexpr int MAX = video ? 2000 : 3000;
    quiet();
    typename Kind::Putter writer;
    if constexpr (video) {
        writer.init(CHANNEL, 4, FRAMES_PER_GOP, MAX, 4 * FRAMES_PER_GOP * 52 + 12000);
        writer.reset(64, 48, 500);
    } else {
        writer.init(CHANNEL, 6, MAX, 52 * 6 + 12000);
        writer.reset(64, 48, 500, 80);
    }
    link.say("up");
    for (uint64_t id = 1; frames < 0 || id <= static_cast<uint64_t>(frames); ++id) {
        Bytes frame = stamped(id, 12 + static_cast<int>((id * 977 + generation * 31) % (MAX - 12)));
        timeval now;
        gettimeofday(&now, nullptr);
        if constexpr (!video) writer.putFrame(frame.data(), static_cast<int>(frame.size()), now);
        else if ((id - 1) % FRAMES_PER_GOP == 0) writer.putIFrame(frame.data(), static_cast<int>(frame.size()), now);
        else writer.putPFrame(frame.data(), static_cast<int>(frame.size()), now);
        usleep(200);
    }
    return 0;
}

}  // namespace

// Writers killed at random points and restarted at once, under four readers, two
// of them slow enough to be overtaken: a quarter of the writers within their first
// 300 microseconds (inside init), the others up to 6 ms after they said they were
// up. AVPOOL_FAULT_CYCLES sets the number of kills for a long run.
class WriterRestarts : public ::testing::Test {
protected:
    template <class Kind>
    void run() {
        ASSERT_NE(tally, MAP_FAILED);
        Tally& shared = *tally;
        std::vector<std::unique_ptr<ForkedChild>> readers;
        for (int r = 0; r < READERS; ++r)
            readers.push_back(std::make_unique<ForkedChild>([&shared, r](ChildLink&) { return readAll<Kind>(shared, r >= 2); }));
        const int kills = faultCycles(60);
        unsigned random = 2024;
        for (int generation = 1; generation <= kills; ++generation) {
            random = random * 1103515245 + 12345;
            const unsigned r = random >> 8;
            ForkedChild run([generation](ChildLink& link) { return writeAll<Kind>(link, generation, -1); });
            std::string up;
            if (r % 4 != 0) run.readLine(up, 10000);
            usleep(r % 4 == 0 ? r % 300 : r % 6000);
            run.signal(SIGKILL);
            ASSERT_EQ(run.wait().signal, SIGKILL);
        }
        ForkedChild last([kills](ChildLink& link) { return writeAll<Kind>(link, kills + 1, 150); });
        ASSERT_TRUE(last.wait(20000).ok());
        __atomic_store_n(&tally->stop, 1, __ATOMIC_SEQ_CST);
        int crashed = 0, hung = 0;
        for (auto& r : readers) {
            ExitStatus status = r->wait(10000);
            hung += status.timedOut;
            crashed += !status.timedOut && !status.ok();
        }
        std::cout << "writer kills " << kills << ", frames accepted " << tally->accepted << ", skipped "
                  << tally->rejected << "; torn " << tally->torn << ", hangs " << hung << ", readers crashed "
                  << crashed << std::endl;
        EXPECT_EQ(tally->torn, 0) << "first torn frame " << tally->firstTorn;
        EXPECT_EQ(hung, 0);
        EXPECT_EQ(crashed, 0);
        EXPECT_EQ(ipcObjectsLeft(), 0);
        EXPECT_GT(tally->accepted, 0);
        EXPECT_GT(tally->attaches, READERS);
    }
    // In a shared mapping, seen alike by the readers and the test.
    Tally* tally = static_cast<Tally*>(
        mmap(nullptr, sizeof(Tally), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ~WriterRestarts() override { munmap(tally, sizeof(Tally)); }
};

TEST_F(WriterRestarts, jpegReadersNeverTakeATornFrameCrashOrHang) {
    IpcKeys keys{JPG_BASE_KEY + CHANNEL};
    run<JpegKind>();
}

TEST_F(WriterRestarts, videoReadersNeverTakeATornFrameCrashOrHang) {
    IpcKeys keys{MP4_BASE_KEY + CHANNEL, MP4_BASE_KEY + CHANNEL * 16};
    run<Mp4Kind>();
}
