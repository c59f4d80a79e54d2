#include "audio_peer.h"

#include <avpool/audio.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <functional>
#include <sys/sem.h>

namespace interop {

using namespace avpool::test;

namespace {

// Slot offsets, straight from the layout tables.
constexpr size_t LOCK_INDEX_AT = 0;
constexpr size_t ID_AT = 8;
constexpr size_t LENGTH_AT = 16;
constexpr size_t FORMAT_AT = 20;
constexpr size_t CHANNELS_AT = 24;
constexpr size_t RATE_AT = 28;
constexpr size_t SEC_AT = 32;
constexpr size_t USEC_AT = 36;
constexpr size_t SAMPLES_AT = 40;
constexpr size_t STREAM_PARAM_AT = 44;
constexpr size_t FRAGMENT_PARAM_AT = 48;

constexpr int SLOTS = AudioGeometry::SLOTS;

int bitsOf(int format) {
    switch (format) {
        case 1: return 8;
        case 4: return 4;
        case 8: return 8;
        default: return 16;
    }
}

}  // namespace

const AudioFormat& audioFormat(const AudioGeometry& g, FragmentId id) {
    return g.resetAt != 0 && id >= g.resetAt ? g.second : g.first;
}

// Three fragments a second, whose microseconds are not in time order within
// their second: the searches that compare seconds and microseconds each on its
// own pass over fragments that a time comparison would take.
int audioSec(FragmentId id) {
    return 91000 + static_cast<int>(id / 3);
}

int audioUsec(FragmentId id) {
    static const int within[3] = {610000, 130000, 970000};
    return within[id % 3] + static_cast<int>(id % 1000);
}

// Lengths at and around the room of a slot (0, the room, one more, far more)
// between others below it.
int audioLength(const AudioGeometry& g, FragmentId id) {
    int room = static_cast<int>(g.dataBytes);
    switch (id % 7) {
        case 0: return 0;
        case 1: return room;
        case 2: return room + 1;
        case 3: return room + 300;
        default: return static_cast<int>(id * 37 % static_cast<FragmentId>(room));
    }
}

int audioFragmentParam(FragmentId id) {
    return static_cast<int>(static_cast<unsigned int>(id) * 2654435761u);
}

// Each fragment's bytes differ from the one it overwrites, so bytes left from
// an older fragment, or a data area shifted by a word, show.
unsigned char audioByte(FragmentId id, size_t j) {
    return static_cast<unsigned char>(id * 151 + j * 13 + (j >> 6) * 7);
}

int audioFragmentTime(const AudioGeometry& g, const AudioFormat& f) {
    return g.bitBudget / (f.rate / 1000) / bitsOf(f.format) / f.channels * g.factor;
}

int audioSampleNumber(const AudioGeometry& g, const AudioFormat& f) {
    return g.bitBudget / bitsOf(f.format) / f.channels * g.factor;
}

// After init (fill, zeroed working fields of every slot, current 0) and the
// producer's first reset.
AudioModel::AudioModel(const AudioGeometry& g)
    : SegmentImage(g.segmentSize(), 0xCC), g_(g), locks_(AudioGeometry::SLOTS, 1) {
    for (int s = 0; s < SLOTS; ++s) {
        setWord(AudioGeometry::SAFE_AT + 4 * s, 0);
        size_t record = g_.record(s);
        setWord(record + LOCK_INDEX_AT, s);
        setU64(record + ID_AT, 0);
        setWord(record + LENGTH_AT, 0);
        setWord(record + SEC_AT, 0);
        setWord(record + USEC_AT, 0);
    }
    setWord(0, 0);
    reset(g_.first);
}

void AudioModel::reset(const AudioFormat& f) {
    setWord(4, f.format);
    setWord(8, f.channels);
    setWord(12, f.rate);
    fragmentTime_ = audioFragmentTime(g_, f);
    sampleNumber_ = audioSampleNumber(g_, f);
    streamParam_ = f.streamParam;
}

void AudioModel::write(FragmentId id) {
    if (id == g_.resetAt) reset(g_.second);
    int c = audioSlotOf(id);
    locks_[(c + 1) % SLOTS] = 1;
    setSafeTimes(AudioGeometry::SAFE_AT, SLOTS, c, fragmentTime_, true);

    size_t record = g_.record(c);
    setU64(record + ID_AT, id);
    setWord(0, c);
    setWord(record + SEC_AT, audioSec(id));
    setWord(record + USEC_AT, audioUsec(id));
    const AudioFormat& f = audioFormat(g_, id);
    setWord(record + FORMAT_AT, f.format);
    setWord(record + CHANNELS_AT, f.channels);
    setWord(record + RATE_AT, f.rate);
    if (g_.streamParam) setWord(record + STREAM_PARAM_AT, streamParam_);
    if (g_.fragmentParam) setWord(record + FRAGMENT_PARAM_AT, audioFragmentParam(id));

    int length = audioLength(g_, id);
    int room = static_cast<int>(g_.dataBytes);
    int copied = room, stored = room;
    switch (g_.copy) {
        case AudioCopy::Whole: break;
        case AudioCopy::AsGiven: stored = length; break;
        case AudioCopy::UpToSize: copied = stored = std::min(length, room); break;
    }
    for (int j = 0; j < copied; ++j) image_[record + g_.dataAt + j] = audioByte(id, j);
    setWord(record + SAMPLES_AT, sampleNumber_);
    setWord(record + LENGTH_AT, stored);
    locks_[c] = 0;
    last_ = id;
}

FragmentId AudioModel::inSlot(int slot) const {
    return u64(g_.record(slot) + ID_AT);
}

std::string AudioModel::fieldAt(size_t offset) const {
    static const char* const header[] = {"current", "workingFormat", "workingChannels", "workingRate"};
    static const char* const head[] = {"lockIndex", "padding",  "fragmentID.low", "fragmentID.high",
                                       "length",    "format",   "channels",       "rate",
                                       "tv_sec",    "tv_usec",  "sampleNumber"};
    if (offset < AudioGeometry::SAFE_AT) return std::string("header.") + header[offset / 4];
    if (offset < AudioGeometry::HEADER_SIZE) return "safe[" + std::to_string((offset - AudioGeometry::SAFE_AT) / 4) + "]";
    size_t s = (offset - AudioGeometry::HEADER_SIZE) / g_.recordSize;
    size_t in = (offset - AudioGeometry::HEADER_SIZE) % g_.recordSize;
    std::string slot = "slot[" + std::to_string(s) + "].";
    if (in < STREAM_PARAM_AT) return slot + head[in / 4];
    if (in >= g_.dataAt + g_.dataBytes) return slot + "trailing padding";
    if (in >= g_.dataAt) return slot + "data+" + std::to_string(in - g_.dataAt);
    if (in < FRAGMENT_PARAM_AT) return slot + (g_.streamParam ? "streamParam" : "padding");
    return slot + "fragmentParam";
}

// Everything in the segment, and every slot lock.
void audioCheckSegment(const AudioGeometry& g, const RawSegment& raw, const AudioModel& model, Checks& checks,
                       const std::string& phase) {
    checkImage(checks, phase, raw, model, [&](size_t offset) { return model.fieldAt(offset); });
    checks.equal(phase + ": semaphores in the set", SLOTS, semCountOf(semIdOf(g.setKey())));
    std::vector<int> locks = lockValues(g.setKey(), SLOTS);
    int wrong = 0;
    for (int s = 0; s < SLOTS; ++s) {
        int got = s < static_cast<int>(locks.size()) ? locks[s] : -1;
        if (got != model.lock(s) && wrong++ < 5)
            checks.fail(phase + ": lock of slot " + std::to_string(s),
                        "expected " + std::to_string(model.lock(s)) + ", got " + std::to_string(got));
    }
    checks.expect(wrong == 0, phase + ": locks of all slots", std::to_string(wrong) + " differ");
}

bool audioWaitOpen(key_t key, int index, int seconds) {
    int set = semIdOf(key);
    if (set == -1) return false;
    sembuf wait{static_cast<unsigned short>(index), 0, 0};
    timespec deadline{seconds, 0};
    int result;
    do result = semtimedop(set, &wait, 1, &deadline);
    while (result == -1 && errno == EINTR);
    if (result == -1) perror("semtimedop");
    return result == 0;
}

// --------------------------------------------------------------- getter side

void AudioReading::checkWorking(int format, int channels, int rate) {
    const AudioFormat& f = audioFormat(g_, model_.last());
    checks_.equal("getWorkingFormat", f.format, format);
    checks_.equal("getWorkingChannels", f.channels, channels);
    checks_.equal("getWorkingRate", f.rate, rate);
}

void AudioReading::checkMove(const std::string& what, FragmentId expected, FragmentId got, int safe, int slot,
                             FragmentId idAfter) {
    checks_.equal(what, expected, got);
    checks_.equal(what + " safe time", model_.safe(slot), safe);
    checks_.equal(what + " getFragmentID", expected, idAfter);
}

void AudioReading::checkFragment(const std::string& what, int slot, const Seen& seen) {
    size_t record = g_.record(slot);
    checks_.equal(what + " format", model_.i32(record + FORMAT_AT), seen.format);
    checks_.equal(what + " channels", model_.i32(record + CHANNELS_AT), seen.channels);
    checks_.equal(what + " rate", model_.i32(record + RATE_AT), seen.rate);
    checks_.equal(what + " sampleNumber", model_.i32(record + SAMPLES_AT), seen.sampleNumber);
    if (g_.streamParam) checks_.equal(what + " streamParam", model_.i32(record + STREAM_PARAM_AT), seen.streamParam);
    checks_.equal(what + " tv_sec", static_cast<long long>(model_.i32(record + SEC_AT)), seen.sec);
    checks_.equal(what + " tv_usec", static_cast<long long>(model_.i32(record + USEC_AT)), seen.usec);
    checks_.equal(what + " length", model_.i32(record + LENGTH_AT), seen.length);
    // Where the data lie, relative to the first data pointer handed out.
    size_t dataAt = record + g_.dataAt;
    if (reference_ == nullptr) {
        reference_ = seen.data;
        referenceAt_ = dataAt;
    }
    long long expectedAt = static_cast<long long>(dataAt) - static_cast<long long>(referenceAt_);
    if (!checks_.equal(what + " data offset in the segment", expectedAt, static_cast<long long>(seen.data - reference_)))
        return;
    checks_.bytes(what + " data", model_.image().data() + dataAt, seen.data, g_.dataBytes, dataAt,
                  [this](size_t offset) { return model_.fieldAt(offset); });
}

// Seconds around the ring's ends, the reset and the middle, each alone and
// with microseconds around those of its fragments and at the extremes.
std::vector<AudioReading::Search> AudioReading::searches() const {
    FragmentId last = model_.last();
    std::vector<int> seconds{0,
                             audioSec(last - SLOTS + 1),  // the oldest slot, before where the searches start
                             audioSec(last - SLOTS + 3),
                             audioSec(last - SLOTS / 2),
                             audioSec(last - 1),
                             audioSec(last),
                             audioSec(last) + 1};
    if (g_.resetAt != 0) seconds.push_back(audioSec(g_.resetAt));
    std::vector<Search> all;
    for (int sec : seconds) {
        std::vector<int> usecs{-1, 0, 999999};
        for (FragmentId id = 3 * static_cast<FragmentId>(std::max(sec - audioSec(0), 0)); audioSec(id) == sec; ++id)
            for (int d = -1; d <= 1; ++d) usecs.push_back(audioUsec(id) + d);
        for (int usec : usecs) {
            all.push_back({false, sec, usec});
            all.push_back({true, sec, usec});
        }
    }
    return all;
}

// The outcome the reading rules give: the searches start three slots after
// the newest (skipping the slot written next and the one after it);
// toOldestWorking never tests the newest and ends there when nothing earlier
// qualifies; toExactWorking tests the newest too, gives up at once when the
// second is older than its first candidate, and otherwise ends on the slot
// after the newest when nothing matches.
void AudioReading::checkSearch(const Search& search, FragmentId got, int safe, FragmentId idAfter) {
    FragmentId last = model_.last();
    FragmentId first = last - SLOTS + 3;
    bool withUsec = search.usec >= 0;
    std::string what = std::string(search.exact ? "toExactWorking(" : "toOldestWorking(") + std::to_string(search.sec) +
                       (withUsec ? ", " + std::to_string(search.usec) : std::string()) + ")";
    auto landed = [&](FragmentId id) { checkMove(what, id, got, safe, audioSlotOf(id), idAfter); };

    if (!search.exact) {
        auto qualifies = [&](FragmentId id) {
            return audioSec(id) >= search.sec && (!withUsec || audioUsec(id) >= search.usec);
        };
        FragmentId want = last;
        for (FragmentId id = first; id < last && want == last; ++id)
            if (qualifies(id)) want = id;
        landed(want);
        if (withUsec) {
            // Where a comparison of whole times would have stopped.
            FragmentId byTime = last;
            for (FragmentId id = first; id < last && byTime == last; ++id)
                if (audioSec(id) > search.sec || (audioSec(id) == search.sec && audioUsec(id) >= search.usec))
                    byTime = id;
            if (byTime != want) ++perFieldSkips_;
        }
        return;
    }
    if (search.sec < audioSec(first)) {
        ++earlyMisses_;
        checks_.equal(what, NOT_FOUND_ID, got);
        checks_.equal(what + " leaves the safe time alone", static_cast<int>(UNTOUCHED), safe);
        checks_.equal(what + " stays on its first candidate", first, idAfter);
        return;
    }
    for (FragmentId id = first; id <= last; ++id)
        if (audioSec(id) == search.sec && (!withUsec || audioUsec(id) <= search.usec)) {
            ++found_;
            landed(id);
            return;
        }
    ++missed_;
    int after = audioSlotOf(last + 1);
    checks_.equal(what, NOT_FOUND_ID, got);
    checks_.equal(what + " safe time of the slot after the newest", model_.safe(after), safe);
    checks_.equal(what + " ends on the slot after the newest", model_.inSlot(after), idAfter);
}

void AudioReading::checkSearchCoverage() {
    checks_.expect(found_ > 0 && missed_ > 0 && earlyMisses_ > 0,
                   "scenario has exact searches that find, miss after the scan and miss at once");
    checks_.expect(perFieldSkips_ > 0, "scenario has searches where seconds and microseconds compared apart matter");
}

void audioSharedLayout() {
    using avpool::AudioFragmentHead;
    using avpool::AudioPoolHeader;
    printf("audio constants AUDIO_SLOT_COUNT=%d AUDIO_HEADER_SIZE=%d\n", AUDIO_SLOT_COUNT, AUDIO_HEADER_SIZE);
    printLayout("AudioPoolHeader", sizeof(AudioPoolHeader), alignof(AudioPoolHeader),
                {INTEROP_FIELD(AudioPoolHeader, current), INTEROP_FIELD(AudioPoolHeader, workingFormat),
                 INTEROP_FIELD(AudioPoolHeader, workingChannels), INTEROP_FIELD(AudioPoolHeader, workingRate),
                 INTEROP_FIELD(AudioPoolHeader, safeTime)});
    printLayout("AudioFragmentHead", sizeof(AudioFragmentHead), alignof(AudioFragmentHead),
                {INTEROP_FIELD(AudioFragmentHead, lockIndex), INTEROP_FIELD(AudioFragmentHead, unused),
                 INTEROP_FIELD(AudioFragmentHead, fragmentID), INTEROP_FIELD(AudioFragmentHead, length),
                 INTEROP_FIELD(AudioFragmentHead, format), INTEROP_FIELD(AudioFragmentHead, channels),
                 INTEROP_FIELD(AudioFragmentHead, rate), INTEROP_FIELD(AudioFragmentHead, tv_sec),
                 INTEROP_FIELD(AudioFragmentHead, tv_usec), INTEROP_FIELD(AudioFragmentHead, sampleNumber)});
}

}  // namespace interop
