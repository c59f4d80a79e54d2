#include "demo/frame_stamp.h"

#include <cstdio>
#include <cstring>

namespace avpool::demo {

namespace {

constexpr uint32_t FNV_OFFSET = 2166136261u;
constexpr uint32_t FNV_PRIME = 16777619u;

uint32_t fnv1a(const unsigned char* bytes, size_t count) {
    uint32_t hash = FNV_OFFSET;
    for (size_t i = 0; i < count; ++i) hash = (hash ^ bytes[i]) * FNV_PRIME;
    return hash;
}

// splitmix64: a well-mixed 64-bit value for any (stream, number) pair.
uint64_t mix(uint64_t x) {
    x += 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
}

uint64_t seedOf(unsigned long long number, uint32_t stream) {
    return mix(number ^ (static_cast<uint64_t>(stream) << 48));
}

void put32(unsigned char* out, uint32_t value) {
    memcpy(out, &value, sizeof value);
}

uint32_t get32(const unsigned char* in) {
    uint32_t value;
    memcpy(&value, in, sizeof value);
    return value;
}

}  // namespace

int stampedLength(unsigned long long number, uint32_t stream, int minLength, int maxLength) {
    uint64_t span = static_cast<uint64_t>(maxLength - minLength) + 1;
    return minLength + static_cast<int>(mix(seedOf(number, stream)) % span);
}

void stampFrame(unsigned char* out, int length, unsigned long long number, uint32_t stream) {
    // xorshift64 fills the payload eight bytes at a time.
    uint64_t state = seedOf(number, stream) | 1;
    for (int i = STAMP_SIZE; i < length; i += 8) {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        size_t count = length - i < 8 ? static_cast<size_t>(length - i) : 8;
        memcpy(out + i, &state, count);
    }
    put32(out, STAMP_MAGIC);
    put32(out + 4, static_cast<uint32_t>(number));
    put32(out + 8, static_cast<uint32_t>(number >> 32));
    put32(out + 12, static_cast<uint32_t>(length));
    put32(out + 16, fnv1a(out + STAMP_SIZE, static_cast<size_t>(length - STAMP_SIZE)));
}

bool checkStamp(const unsigned char* data, int length, unsigned long long number, char* why, size_t whySize) {
    if (length < STAMP_SIZE) {
        snprintf(why, whySize, "frame %llu: %d bytes, shorter than its stamp", number, length);
        return false;
    }
    if (get32(data) != STAMP_MAGIC) {
        snprintf(why, whySize, "frame %llu: no stamp at the start of its bytes", number);
        return false;
    }
    unsigned long long carried = (static_cast<unsigned long long>(get32(data + 8)) << 32) | get32(data + 4);
    if (carried != number) {
        snprintf(why, whySize, "frame %llu: its bytes carry frame number %llu", number, carried);
        return false;
    }
    uint32_t carriedLength = get32(data + 12);
    if (carriedLength != static_cast<uint32_t>(length)) {
        snprintf(why, whySize, "frame %llu: length %d in the slot, %u in the stamp", number, length, carriedLength);
        return false;
    }
    uint32_t sum = fnv1a(data + STAMP_SIZE, static_cast<size_t>(length - STAMP_SIZE));
    uint32_t stampedSum = get32(data + 16);
    if (sum != stampedSum) {
        snprintf(why, whySize, "frame %llu: payload checksum 0x%08x, stamp says 0x%08x", number, sum, stampedSum);
        return false;
    }
    return true;
}

}  // namespace avpool::demo
