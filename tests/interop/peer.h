// The interop peer: one program, built for the build machine and for the device
// from the same source, that produces a pool with fixed content, or consumes one
// made by the other build and checks it byte for byte, or prints the layout of
// the shared records. Each pool kind is one section (a PoolKind) of it.
#pragma once

#include "ipc_harness.h"

#include <cstddef>
#include <functional>
#include <initializer_list>
#include <string>
#include <sys/types.h>
#include <vector>

namespace interop {

// How producer and consumer of one kind tell each other where they are: marker
// files KIND.EVENT in a directory that both processes see. The driver adds
// "producer.exited" and "consumer.exited" once a side's process has ended,
// however it ended, so that the other side stops waiting for it.
class Rendezvous {
public:
    enum class Side { Producer, Consumer };
    Rendezvous(std::string dir, std::string kind, Side side);
    void mark(const char* event) const;
    bool seen(const char* event) const;
    // The other side is through with this kind: it marked "done" (consumer) or
    // "abort" (producer), or its process has exited.
    bool peerGone() const;
    // Polls until `event` is marked. False at the deadline or once the other
    // side is gone without marking it.
    bool waitFor(const char* event, int seconds) const;

private:
    std::string path(const char* event) const;

    std::string dir_;
    std::string kind_;
    Side side_;
};

// The outcome of one side's checks for one kind. Every failed check prints one
// line "FAIL <kind>: <what>: <detail>" on stdout.
class Checks {
public:
    explicit Checks(std::string kind);

    bool expect(bool ok, const std::string& what, const std::string& detail = "");
    template <class T>
    bool equal(const std::string& what, T expected, T actual) {
        return expect(expected == actual, what, "expected " + std::to_string(expected) + ", got " + std::to_string(actual));
    }
    // Compares two byte ranges (one check) word by word, words aligned on 4 from
    // the segment start when the ranges begin at offset `base` of a segment, and
    // reports each differing word under the name nameAt(its offset) gives it.
    bool bytes(const std::string& what, const unsigned char* expected, const unsigned char* actual, size_t length,
               size_t base, const std::function<std::string(size_t offset)>& nameAt);
    void fail(const std::string& what, const std::string& detail) { expect(false, what, detail); }

    int failed() const { return failed_; }
    int total() const { return total_; }
    // "<kind>: N checks, M failed"
    void summary() const;

private:
    void report(const std::string& what, const std::string& detail) const;

    std::string kind_;
    int total_ = 0;
    int failed_ = 0;
};

// Layout fingerprint of one shared record: one line with its size, alignment
// and every field's offset and size, so that two builds can be compared by diff.
struct Field {
    const char* name;
    size_t offset;
    size_t size;
};
void printLayout(const char* type, size_t size, size_t align, std::initializer_list<Field> fields);
#define INTEROP_FIELD(type, member) \
    ::interop::Field { #member, offsetof(type, member), sizeof(type::member) }

// Little-endian 32-bit words, as every integer lies in a segment on the device.
void putLE32(unsigned char* at, unsigned int value);
unsigned int readLE32(const unsigned char* at);

// A segment as its layout says it must be, built by a consumer without the
// library's record types: the fill byte, then little-endian words at explicit
// offsets. Models of the pools derive from it.
class SegmentImage {
public:
    SegmentImage(size_t size, unsigned char fill) : image_(size, fill) {}

    const std::vector<unsigned char>& image() const { return image_; }
    void setWord(size_t offset, int value) { putLE32(&image_[offset], static_cast<unsigned int>(value)); }
    int i32(size_t offset) const { return static_cast<int>(readLE32(&image_[offset])); }
    // A running number: two words, low word first.
    void setU64(size_t offset, unsigned long long value);
    unsigned long long u64(size_t offset) const;
    // The table of `slots` safe times at `at` once the writer has entered slot c:
    // the slot k ahead holds k intervals, c itself 0, and the slot just behind
    // the writer 0 (frame form) or slots - 1 intervals (fragment form).
    void setSafeTimes(size_t at, int slots, int c, int interval, bool fragmentForm);

protected:
    std::vector<unsigned char> image_;
};

// A live segment against the image it must hold: its size (one check), then
// every byte the two have (one check, each differing word named by nameAt).
void checkImage(Checks& checks, const std::string& phase, const avpool::test::RawSegment& raw,
                const SegmentImage& image, const std::function<std::string(size_t offset)>& nameAt);

// How long either side waits for the other at any one point.
constexpr int WAIT_SECONDS = 30;

// What a search that finds nothing returns, and the safe time a consumer hands
// to a call that must leave it alone.
constexpr unsigned long long NOT_FOUND_ID = 4294967295ULL;
constexpr int UNTOUCHED = -12345;

// A check's name: a text and a number.
inline std::string str(const char* text, long long number) {
    return text + std::to_string(number);
}

// A producer's live step: waits until the consumer is blocked on lock `index` of
// the set under `key` (or has gone), so that the element written next wakes it
// across the two processes. One check, named `what`.
bool awaitLockWaiter(const Rendezvous& meet, Checks& checks, key_t key, int index, const std::string& what);

// After a putter's release: no segment left under segmentKey and no semaphore
// set under setKey (the same key for most kinds).
void expectReleased(Checks& checks, key_t segmentKey, key_t setKey);
inline void expectReleased(Checks& checks, key_t key) {
    expectReleased(checks, key, key);
}

// The reader's walk of a ring of single-slot elements (JPEG, analysis pools):
// from the newest slot once round with toNext, every step's frame ID and safe
// time as the model says. The model has current(), last(), safe(slot), inSlot(slot).
template <class Getter, class Model>
void checkRingWalk(Checks& checks, Getter& getter, const Model& model, int slots) {
    int safe = -1;
    int slot = model.current();
    checks.equal("toWorking", model.last(), getter.toWorking(safe));
    checks.equal("toWorking safe time", model.safe(slot), safe);
    checks.equal("getFrameID after toWorking", model.last(), getter.getFrameID());
    for (int k = 1; k <= slots; ++k) {
        slot = (slot + 1) % slots;
        std::string step = "toNext #" + std::to_string(k);
        checks.equal(step, model.inSlot(slot), getter.toNext(safe));
        checks.equal(step + " safe time", model.safe(slot), safe);
        checks.equal(step + " getFrameID", model.inSlot(slot), getter.getFrameID());
    }
}

// Puts the reader on `slot` by the same moves.
template <class Getter, class Model>
void moveRingTo(Getter& getter, const Model& model, int slots, int slot) {
    int safe;
    getter.toWorking(safe);
    for (int s = model.current(); s != slot; s = (s + 1) % slots) getter.toNext(safe);
}

// The reader following a live writer on such a ring, `frames` times: step onto
// the closed slot after the newest (lock `slot` of the set under `key`), block
// in waitReady until the producer writes it, play that frame on the model
// (write(id)), see the locks and the header's current word (at `currentAt` in
// `raw`) move on, and read the frame with read(what, slot, id).
template <class Getter, class Model, class Read>
void followRingWriter(Checks& checks, Getter& getter, Model& model, int slots, unsigned long long frames, key_t key,
                      const avpool::test::RawSegment& raw, size_t currentAt, Read read) {
    int safe;
    checks.equal("live: toWorking", model.last(), getter.toWorking(safe));
    for (unsigned long long k = 1; k <= frames; ++k) {
        auto id = model.last() + 1;
        int slot = static_cast<int>(id % slots);
        std::string what = str("live frame ", id);
        checks.equal(what + ": toNext", model.inSlot(slot), getter.toNext(safe));
        checks.equal(what + ": safe time before", model.safe(slot), safe);
        checks.equal(what + ": lock closed before", 1, avpool::test::lockValue(key, slot));
        getter.waitReady();
        model.write(id);
        checks.equal(what + ": getFrameID", id, getter.getFrameID());
        checks.equal(what + ": lock open", 0, avpool::test::lockValue(key, slot));
        checks.equal(what + ": next lock closed", 1, avpool::test::lockValue(key, (slot + 1) % slots));
        checks.equal(what + ": header current", slot, raw.i32(currentAt));
        read(what, slot, id);
    }
}

// One pool kind's section of the peer. produce and consume may throw: the
// dispatcher counts the exception as a failed check, then marks "done" for a
// consumer however it ended and "abort" for a producer that failed.
struct PoolKind {
    const char* name;
    void (*layout)();
    void (*produce)(const Rendezvous& meet, Checks& checks);
    void (*consume)(const Rendezvous& meet, Checks& checks);
};

extern const PoolKind jpgKind;
extern const PoolKind mp4Kind;
extern const PoolKind infosKind;
extern const PoolKind lumKind;
extern const PoolKind mdKind;
extern const PoolKind pcmKind;
extern const PoolKind aacKind;
extern const PoolKind amrKind;
extern const PoolKind opusKind;

}  // namespace interop
