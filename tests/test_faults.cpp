// What a reader survives: a header its writer has not filled in yet, words of a
// live pool overwritten by a stray process, and a writer killed and restarted
// under it again and again. Raw writes into the segment play the stray process.
#include "jpeg_fixture.h"
#include "mp4_fixture.h"

#include <avpool/jpg.h>
#include <avpool/mp4.h>

#include <climits>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <memory>
#include <unistd.h>

using namespace avpool::test;

namespace {

// A header word and what a stray process (or the fill bytes of a writer still
// setting up) leaves there instead.
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

}  // namespace

// ---------------------------------------------------------- corrupt headers

TEST_F(JpegPool, headerThatDescribesNoPoolMakesInitSayPoolNotReadyAndLeavesTheGetterDetached) {
    using namespace jpeg_layout;
    start(4, 100, 400);
    put("a");
    const int32_t ring = static_cast<int32_t>(jpeg_layout::ring(4));
    for (const Scribble& s : std::vector<Scribble>{
             {FRAME_COUNT, 0, "frameCount not stored yet"},
             {FRAME_COUNT, 31, "more slots than a pool has"},
             {FRAME_COUNT, -1, "negative slot count"},
             {FRAME_COUNT, 8, "more slots than the tables hold"},
             {PREFIX_SIZE, 9, "prefix size"},
             {SAFE_TIME_OFFSET, 0, "safe times on the header"},
             {FRAME_INFO_OFFSET, INT32_MAX, "records past the end"},
             {DATA_OFFSET, ring + 4, "ring moved"},
         }) {
        SCOPED_TRACE(s.what);
        const int32_t saved = RawSegment(KEY).i32(s.offset);
        ASSERT_TRUE(pokeWord(KEY, s.offset, s.value));
        JPGGetter reader;
        EXPECT_EQ(failureOf<JPGGetterError>([&] { reader.init(CHANNEL); }), std::make_pair(std::string("pool not ready."), std::string()));
        EXPECT_EQ(attachmentsOf(KEY), 1) << "only the writer's: a refused reader detaches again";
        EXPECT_EQ(failureOf<JPGGetterError>([&] { reader.getFrameID(); }).first, "programming error");
        ASSERT_TRUE(pokeWord(KEY, s.offset, saved));
        reader.init(CHANNEL);
        EXPECT_EQ(reader.getFrameID(), 1u);
    }
}

TEST_F(Mp4Pool, headerThatDescribesNoPoolMakesInitSayPoolNotReady) {
    using namespace mp4_layout;
    start(3, 2, 100, 300);
    putGop("g", 2);
    for (const Scribble& s : std::vector<Scribble>{
             {GOP_COUNT, 0, "gopCount not stored yet"},
             {FRAMES_PER_GOP, 0, "no frames per GOP"},
             {GOP_COUNT, 501, "1002 slots"},
             {GOP_COUNT, 65536, "a product that wraps in 32 bits"},
             {FRAMES_PER_GOP, -2, "negative frames per GOP"},
             {PREFIX_SIZE, 0, "prefix size"},
             {DATA_OFFSET, -52, "ring before the segment"},
         }) {
        SCOPED_TRACE(s.what);
        const int32_t saved = RawSegment(KEY).i32(s.offset);
        ASSERT_TRUE(pokeWord(KEY, s.offset, s.value));
        MP4Getter reader;
        EXPECT_EQ(failureOf<MP4GetterError>([&] { reader.init(CHANNEL); }), std::make_pair(std::string("pool not ready."), std::string()));
        ASSERT_TRUE(pokeWord(KEY, s.offset, saved));
    }
    // Frames outside the GOP are the caller's mistake.
    MP4Getter reader;
    attach(reader);
    int safe = 0;
    reader.toWorkingGop(safe);
    for (int k : {-1, 2, INT_MAX})
        EXPECT_EQ(failureOf<MP4GetterError>([&] { reader.getFrameData(k); }), std::make_pair(std::string("programming error"), std::string("programming error\n")));
    EXPECT_EQ(failureOf<MP4GetterError>([&] { reader.waitFrameReady(2); }).first, "programming error");
}

// A segment as a writer leaves it between its creation and its header: all
// zero, the locks as the kernel made them (open).
TEST_F(JpegPool, readerAttachingWhileTheWriterSetsUpIsRefusedNotHandedTheHeader) {
    ASSERT_NE(plantSegment(KEY, jpeg_layout::Tables::sizeFor(4, 400) + jpeg_layout::HEADER, 0), -1);
    ASSERT_NE(plantSemSet(KEY, 4), -1);
    JPGGetter reader;
    EXPECT_EQ(failureOf<JPGGetterError>([&] { reader.init(CHANNEL); }).first, "pool not ready.");
}

// ------------------------------------------------------ scribbled records

TEST_F(JpegPool, recordsPointingOutsideTheRingAreSkippedAndARingWithNoneIntactIsReported) {
    using namespace jpeg_layout;
    start(8, 100, 400);
    put("one", 10);
    put("two", 11);
    put("three", 12);  // slots 1 to 3
    JPGGetter reader;
    reader.init(CHANNEL);
    int safe = 0;
    for (const Scribble& s : std::vector<Scribble>{
             {POSITION, 400, "position at the ring's end"},
             {POSITION, -8, "position before the ring"},
             {LENGTH, 400, "length past the ring's end"},
             {LENGTH, -1, "negative length"},
         }) {
        SCOPED_TRACE(s.what);
        ASSERT_EQ(reader.toOldestWorking(safe, 5), 1u);
        const size_t field = record(8, 1) + s.offset;
        const int32_t saved = RawSegment(KEY).i32(field);
        ASSERT_TRUE(pokeWord(KEY, field, s.value));
        reader.getFrame();
        EXPECT_EQ(std::string(reinterpret_cast<char*>(reader.frame.data), reader.frame.frameLength), "two");
        EXPECT_EQ(reader.toOldestWorking(safe, 5), 2u) << "the search passes the bad slot";
        ASSERT_TRUE(pokeWord(KEY, field, saved));
    }
    for (int slot = 0; slot < 8; ++slot) ASSERT_TRUE(pokeWord(KEY, record(8, slot) + POSITION, 1 << 30));
    EXPECT_EQ(failureOf<JPGGetterError>([&] { reader.getFrame(); }), std::make_pair(std::string("frame overwritten."), std::string()));
    // The writer's index outside the ring is taken modulo the slots; a lock
    // index outside the set fails the wait as the kernel would.
    ASSERT_TRUE(pokeWord(KEY, CURRENT, 8 * 1000 + 2));
    EXPECT_EQ(reader.toWorking(safe), 2u);
    ASSERT_TRUE(pokeWord(KEY, record(8, 2) + LOCK_INDEX, 8));
    EXPECT_EQ(failureOf<JPGGetterError>([&] { reader.waitReady(); }), std::make_pair(std::string("semop failed."), std::string("semop failed: File too large\n")));
}

TEST_F(Mp4Pool, framesPointingOutsideTheRingAreNotFramesAndLockIndexesOutsideTheSetFailTheWait) {
    using namespace mp4_layout;
    start(3, 2, 100, 300);
    putGop("a", 2);
    putGop("b", 2);
    MP4Getter reader;
    attach(reader);
    int safe = 0;
    ASSERT_EQ(reader.toWorkingGop(safe), 2u);  // GOP 2, slots 4 and 5
    ASSERT_TRUE(pokeWord(KEY, record(6, 5) + LENGTH, 300));
    EXPECT_EQ(reader.getFrameData(1), 0u);
    ASSERT_TRUE(pokeWord(KEY, record(6, 4) + POSITION, -4));
    EXPECT_EQ(reader.getFrameData(0), 0u);
    EXPECT_EQ(reader.toOldestWorkingGop(safe, 0), 1u) << "GOP 2 is no longer valid, GOP 1 still is";
    ASSERT_TRUE(pokeWord(KEY, WORKING_GOP, -2));
    EXPECT_EQ(reader.toWorkingGop(safe), 2u) << "the writer's GOP modulo the ring: 0xfffffffe % 3 is 2";
    ASSERT_TRUE(pokeWord(KEY, record(6, 4) + LOCK_INDEX, 6));
    EXPECT_EQ(failureOf<MP4GetterError>([&] { reader.waitFrameReady(0); }).first, "semop failed.");
}

// ------------------------------------------------ writers killed and restarted

namespace {

constexpr int READERS = 4;

// What the readers of one run tell the test, in memory they all share.
struct Tally {
    int32_t stop;
    int32_t accepted;
    int32_t rejected;   // overwritten before or while it was copied: skipped, as a reader must
    int32_t torn;       // accepted, yet its bytes are not what the writer wrote
    int32_t attaches;
    int32_t notReady;   // init refused a header still being filled in
    int32_t firstTorn;  // the first torn frame's ID
};

int32_t add(int32_t& counter) {
    return __atomic_add_fetch(&counter, 1, __ATOMIC_SEQ_CST);
}
bool stopped(Tally& tally) {
    return __atomic_load_n(&tally.stop, __ATOMIC_SEQ_CST) != 0;
}

// Frame id of a writer's run: its length, then its id, then bytes that follow
// from both, so that any mix of two frames fails the check.
std::vector<unsigned char> stamped(uint64_t id, int length) {
    std::vector<unsigned char> bytes(length);
    memcpy(bytes.data(), &length, 4);
    memcpy(bytes.data() + 4, &id, 8);
    for (int i = 12; i < length; ++i) bytes[i] = static_cast<unsigned char>(id * 131 + i * 7);
    return bytes;
}
bool stampHolds(const std::vector<unsigned char>& copy, uint64_t id) {
    return copy.size() >= 12 && copy == stamped(id, static_cast<int>(copy.size()));
}
int lengthOf(uint64_t id, int generation, int max) {
    return 12 + static_cast<int>((id * 977 + generation * 31) % (max - 12));
}

// The prefix in front of a frame's bytes.
uint64_t prefixOf(const unsigned char* data) {
    uint64_t id;
    memcpy(&id, data - 8, 8);
    return id;
}

// A frame is taken only as a reader must: the slot's ID unchanged across a
// wait that saw its lock open (so the frame was complete), then the bytes
// copied, then the prefix still naming it (so nothing was written over them).
void judge(Tally& tally, const unsigned char* data, int length, uint64_t id) {
    std::vector<unsigned char> copy(data, data + length);
    if (prefixOf(data) != id) {
        add(tally.rejected);
        return;
    }
    add(tally.accepted);
    if (!stampHolds(copy, id) && add(tally.torn) == 1) tally.firstTorn = static_cast<int32_t>(id);
}

int readJpeg(Tally& tally, int channel, bool slow) {
    quiet();
    JPGGetter reader;
    while (!stopped(tally)) {
        try {
            reader.release();
            reader.init(channel);
            add(tally.attaches);
        } catch (const JPGGetterError& e) {
            if (strcmp(e.what(), "pool not ready.") == 0) add(tally.notReady);
            usleep(100);
            continue;
        }
        try {
            int safe = 0;
            reader.toWorking(safe);
            while (!stopped(tally)) {
                reader.waitReady();
                reader.getFrame();
                const uint64_t id = reader.getFrameID();
                reader.waitReady();
                reader.getFrame();
                if (reader.getFrameID() != id) {
                    add(tally.rejected);
                } else {
                    judge(tally, reader.frame.data, reader.frame.frameLength, id);
                }
                if (slow) usleep(1500);
                reader.toNext(safe);
            }
        } catch (const JPGGetterError& e) {
            // "frame overwritten." goes on from the newest; "semop failed." (the
            // writer's set is gone: it died or ended) attaches again.
            if (strcmp(e.what(), "frame overwritten.") == 0) add(tally.rejected);
        }
    }
    return 0;
}

int readVideo(Tally& tally, int channel, int framesPerGop, bool slow) {
    quiet();
    MP4Getter reader;
    while (!stopped(tally)) {
        try {
            reader.release();
            reader.init(channel);
            add(tally.attaches);
        } catch (const MP4GetterError& e) {
            if (strcmp(e.what(), "pool not ready.") == 0) add(tally.notReady);
            usleep(100);
            continue;
        }
        try {
            int safe = 0;
            reader.toWorkingGop(safe);
            while (!stopped(tally)) {
                for (int k = 0; k < framesPerGop; ++k) {
                    reader.waitFrameReady(k);
                    const uint64_t before = reader.getFrameData(k);
                    reader.waitFrameReady(k);
                    const uint64_t id = reader.getFrameData(k);
                    if (id == 0 || id != before) {
                        add(tally.rejected);
                        continue;
                    }
                    judge(tally, reader.frameData, reader.frameLength, id);
                    if (slow) usleep(1500);
                }
                reader.toNextGop(safe);
            }
        } catch (const MP4GetterError&) {
        }
    }
    return 0;
}

// One writer's run: frames back to back, each a little apart, until killed
// (or, for the last run, for a while and then a clean end).
int writeJpeg(ChildLink& link, int channel, int generation, int frames) {
    quiet();
    JPGPutter writer;
    writer.init(channel, 6, 3000, 52 * 6 + 12000);
    writer.reset(64, 48, 500, 80);
    link.say("up");
    for (uint64_t id = 1; frames < 0 || id <= static_cast<uint64_t>(frames); ++id) {
        std::vector<unsigned char> frame = stamped(id, lengthOf(id, generation, 3000));
        timeval now;
        gettimeofday(&now, nullptr);
        writer.putFrame(frame.data(), static_cast<int>(frame.size()), now);
        usleep(200);
    }
    return 0;
}

int writeVideo(ChildLink& link, int channel, int generation, int frames, int framesPerGop) {
    quiet();
    MP4Putter writer;
    writer.init(channel, 4, framesPerGop, 2000, 4 * framesPerGop * 52 + 12000);
    writer.reset(64, 48, 500);
    link.say("up");
    for (uint64_t id = 1; frames < 0 || id <= static_cast<uint64_t>(frames); ++id) {
        std::vector<unsigned char> frame = stamped(id, lengthOf(id, generation, 2000));
        timeval now;
        gettimeofday(&now, nullptr);
        if ((id - 1) % framesPerGop == 0)
            writer.putIFrame(frame.data(), static_cast<int>(frame.size()), now);
        else
            writer.putPFrame(frame.data(), static_cast<int>(frame.size()), now);
        usleep(200);
    }
    return 0;
}

}  // namespace

// Writers killed at random points and restarted at once, under four readers,
// two of them slow enough to be overtaken: a quarter of the writers within
// their first 300 microseconds (inside init), the others up to 6 ms after they
// said they were up (so that slow machines and emulators see restarts too).
// AVPOOL_FAULT_CYCLES sets the number of kills for a long run.
class WriterRestarts : public ::testing::Test {
protected:
    static constexpr int CHANNEL = 7;

    template <class Reader, class Writer>
    void run(const char* kind, Reader reader, Writer writer) {
        Tally& shared = *tally;
        std::vector<std::unique_ptr<ForkedChild>> readers;
        for (int r = 0; r < READERS; ++r)
            readers.push_back(std::make_unique<ForkedChild>([&shared, reader, r](ChildLink&) { return reader(shared, r >= 2); }));

        const int kills = faultCycles(60);
        unsigned random = 2024;
        for (int generation = 1; generation <= kills; ++generation) {
            random = random * 1103515245 + 12345;
            const unsigned r = random >> 8;
            ForkedChild run([writer, generation](ChildLink& link) { return writer(link, generation, -1); });
            std::string up;
            if (r % 4 != 0) run.readLine(up, 10000);
            usleep(r % 4 == 0 ? r % 300 : r % 6000);
            run.signal(SIGKILL);
            ASSERT_EQ(run.wait().signal, SIGKILL);
        }
        ForkedChild last([writer, kills](ChildLink& link) { return writer(link, kills + 1, 150); });
        ASSERT_TRUE(last.wait(20000).ok());
        __atomic_store_n(&tally->stop, 1, __ATOMIC_SEQ_CST);

        int crashed = 0, hung = 0;
        for (auto& r : readers) {
            ExitStatus status = r->wait(10000);
            hung += status.timedOut;
            crashed += !status.timedOut && !status.ok();
        }
        const int left = ipcObjectsLeft();
        std::cout << kind << " writer kills: " << kills << ", attaches " << tally->attaches << " (refused while set up "
                  << tally->notReady << "), frames accepted " << tally->accepted << ", skipped " << tally->rejected
                  << "; torn frames accepted " << tally->torn << ", hangs " << hung << ", readers crashed " << crashed
                  << ", IPC objects left " << left << std::endl;
        EXPECT_EQ(tally->torn, 0) << "first torn frame " << tally->firstTorn;
        EXPECT_EQ(hung, 0);
        EXPECT_EQ(crashed, 0);
        EXPECT_EQ(left, 0);
        EXPECT_GT(tally->accepted, 0);
        EXPECT_GT(tally->attaches, READERS);
    }

    SharedMemory<Tally> tally;
};

TEST_F(WriterRestarts, jpegReadersNeverTakeATornFrameCrashOrHang) {
    IpcKeys keys{JPG_BASE_KEY + CHANNEL};
    run("jpg", [](Tally& t, bool slow) { return readJpeg(t, CHANNEL, slow); },
        [](ChildLink& link, int generation, int frames) { return writeJpeg(link, CHANNEL, generation, frames); });
}

TEST_F(WriterRestarts, videoReadersNeverTakeATornFrameCrashOrHang) {
    constexpr int FRAMES = 5;
    IpcKeys keys{MP4_BASE_KEY + CHANNEL, MP4_BASE_KEY + CHANNEL * 16};
    run("mp4", [](Tally& t, bool slow) { return readVideo(t, CHANNEL, FRAMES, slow); },
        [](ChildLink& link, int generation, int frames) {
            return writeVideo(link, CHANNEL, generation, frames, FRAMES);
        });
}
