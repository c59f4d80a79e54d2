// Types shared by every pool header: export macro, the 64-bit word pair used in
// shared segments, the base of the per-class error types and the not-found value.
#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <string>
#include <sys/time.h>

#define AVPOOL_API __attribute__((visibility("default")))

namespace avpool {

// A 64-bit running number as it lies in a shared segment: two 32-bit words, low
// word first, so a 32-bit and a 64-bit build agree on size and alignment.
struct Word64 {
    uint32_t low;
    uint32_t high;

    unsigned long long get() const { return (static_cast<unsigned long long>(high) << 32) | low; }
    void set(unsigned long long v) {
        low = static_cast<uint32_t>(v);
        high = static_cast<uint32_t>(v >> 32);
    }
};
static_assert(sizeof(Word64) == 8, "Word64 is not 8 bytes");
static_assert(alignof(Word64) == 4, "Word64 is not aligned to 4 bytes");
static_assert(offsetof(Word64, low) == 0, "Word64.low is not at 0");
static_assert(offsetof(Word64, high) == 4, "Word64.high is not at 4");

// The semaphore sets ("groups") of a pool whose slot locks may exceed one set:
// at most four sets of at most 250 semaphores; id -1 and count 0 when absent.
struct SemGroups {
    int id[4] = {-1, -1, -1, -1};
    int count[4] = {0, 0, 0, 0};
};

// Returned by the positioning searches when nothing matched: low word all ones,
// high word zero. It can never be a running number in practice.
constexpr unsigned long long NOT_FOUND = 4294967295ULL;

// Every putter and getter class has its own error class derived from this one;
// the message is copied whole and returned by what().
class AVPOOL_API PoolError : public std::exception {
public:
    explicit PoolError(const std::string& message) : message_(message) {}
    const char* what() const noexcept override { return message_.c_str(); }

private:
    std::string message_;
};

}  // namespace avpool
