#include "peer.h"

#include "ipc_harness.h"

#include <algorithm>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace interop {

Rendezvous::Rendezvous(std::string dir, std::string kind, Side side)
    : dir_(std::move(dir)), kind_(std::move(kind)), side_(side) {}

std::string Rendezvous::path(const char* event) const {
    return dir_ + "/" + kind_ + "." + event;
}

void Rendezvous::mark(const char* event) const {
    int fd = open(path(event).c_str(), O_WRONLY | O_CREAT, 0644);
    if (fd == -1) {
        perror(path(event).c_str());
        return;
    }
    close(fd);
}

bool Rendezvous::seen(const char* event) const {
    return access(path(event).c_str(), F_OK) == 0;
}

bool Rendezvous::peerGone() const {
    bool producer = side_ == Side::Producer;
    std::string exited = dir_ + (producer ? "/consumer.exited" : "/producer.exited");
    return seen(producer ? "done" : "abort") || access(exited.c_str(), F_OK) == 0;
}

bool Rendezvous::waitFor(const char* event, int seconds) const {
    avpool::test::eventually([&] { return seen(event) || peerGone(); }, seconds * 1000);
    // The other side's last marks may have come just before it went.
    return seen(event);
}

Checks::Checks(std::string kind) : kind_(std::move(kind)) {}

bool Checks::expect(bool ok, const std::string& what, const std::string& detail) {
    ++total_;
    if (!ok) {
        ++failed_;
        report(what, detail);
    }
    return ok;
}

void Checks::report(const std::string& what, const std::string& detail) const {
    printf("FAIL %s: %s%s%s\n", kind_.c_str(), what.c_str(), detail.empty() ? "" : ": ", detail.c_str());
    fflush(stdout);
}

bool Checks::bytes(const std::string& what, const unsigned char* expected, const unsigned char* actual, size_t length,
                   size_t base, const std::function<std::string(size_t offset)>& nameAt) {
    constexpr int shownWords = 12;
    int differing = 0;
    size_t offset = 0;
    while (offset < length) {
        // Words are aligned on the segment, so a field is reported as a whole.
        size_t end = (base + offset) / 4 * 4 + 4 - base;
        if (end > length) end = length;
        bool same = true;
        for (size_t i = offset; i < end; ++i) same = same && expected[i] == actual[i];
        if (!same && differing++ < shownWords) {
            char detail[128];
            int used = snprintf(detail, sizeof detail, "offset %zu:", base + offset);
            for (size_t i = offset; i < end; ++i)
                used += snprintf(detail + used, sizeof detail - used, " %02x", expected[i]);
            used += snprintf(detail + used, sizeof detail - used, " expected, got");
            for (size_t i = offset; i < end; ++i)
                used += snprintf(detail + used, sizeof detail - used, " %02x", actual[i]);
            report(what + " " + nameAt(base + offset), detail);
        }
        offset = end;
    }
    if (differing > shownWords) report(what, std::to_string(differing - shownWords) + " more differing words");
    ++total_;
    if (differing > 0) ++failed_;
    return differing == 0;
}

void Checks::summary() const {
    printf("%s: %d checks, %d failed\n", kind_.c_str(), total_, failed_);
    fflush(stdout);
}

void printLayout(const char* type, size_t size, size_t align, std::initializer_list<Field> fields) {
    printf("%s size=%zu align=%zu", type, size, align);
    for (const Field& field : fields) printf(" %s@%zu+%zu", field.name, field.offset, field.size);
    printf("\n");
}

bool awaitLockWaiter(const Rendezvous& meet, Checks& checks, key_t key, int index, const std::string& what) {
    auto waiting = [&] { return avpool::test::lockWaiters(key, index) >= 1; };
    avpool::test::eventually([&] { return waiting() || meet.peerGone(); }, WAIT_SECONDS * 1000);
    return checks.expect(waiting(), what);
}

void expectReleased(Checks& checks, key_t segmentKey, key_t setKey) {
    checks.expect(avpool::test::shmIdOf(segmentKey) == -1, "segment removed by release");
    checks.expect(avpool::test::semIdOf(setKey) == -1, "semaphore set removed by release");
}

void checkImage(Checks& checks, const std::string& phase, const avpool::test::RawSegment& raw,
                const SegmentImage& image, const std::function<std::string(size_t offset)>& nameAt) {
    size_t size = image.image().size();
    checks.equal(phase + ": segment size", size, raw.size());
    checks.bytes(phase + ": segment", image.image().data(), raw.at(0), std::min(raw.size(), size), 0, nameAt);
}

void SegmentImage::setU64(size_t offset, unsigned long long value) {
    setWord(offset, static_cast<int>(value));
    setWord(offset + 4, static_cast<int>(value >> 32));
}

unsigned long long SegmentImage::u64(size_t offset) const {
    return readLE32(&image_[offset]) | static_cast<unsigned long long>(readLE32(&image_[offset + 4])) << 32;
}

void SegmentImage::setSafeTimes(size_t at, int slots, int c, int interval, bool fragmentForm) {
    int ahead = fragmentForm ? slots : slots - 1;
    for (int k = 0; k < ahead; ++k) setWord(at + 4 * ((c + k) % slots), interval * k);
    setWord(at + 4 * (fragmentForm ? c : (c + slots - 1) % slots), 0);
}

void putLE32(unsigned char* at, unsigned int value) {
    for (int i = 0; i < 4; ++i) at[i] = static_cast<unsigned char>(value >> (8 * i));
}

unsigned int readLE32(const unsigned char* at) {
    unsigned int value = 0;
    for (int i = 3; i >= 0; --i) value = value << 8 | at[i];
    return value;
}

}  // namespace interop
