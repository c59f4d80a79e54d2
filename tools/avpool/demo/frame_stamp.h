// The self-describing payload of the demo's frames. Every frame starts with a
// 20-byte stamp, so a reader can tell a frame that arrived whole from one that
// was damaged, without knowing anything else about the producer:
//
//   0   magic "AVD1"          (32-bit)
//   4   frame number          (64-bit, low word first)
//   12  frame length          (32-bit, stamp included)
//   16  FNV-1a of bytes 20..  (32-bit)
//   20  payload from a generator seeded by the stream and the frame number
#pragma once

#include <cstddef>
#include <cstdint>

namespace avpool::demo {

constexpr uint32_t STAMP_MAGIC = 0x31445641;  // "AVD1" in memory order
constexpr int STAMP_SIZE = 20;

// The length of frame `number` of `stream`, spread over [minLength, maxLength];
// minLength must be at least STAMP_SIZE.
int stampedLength(unsigned long long number, uint32_t stream, int minLength, int maxLength);

// Writes the stamp and payload of a frame of `length` bytes into out.
void stampFrame(unsigned char* out, int length, unsigned long long number, uint32_t stream);

// Checks a frame read in place: it must carry `number`, `length` bytes and the
// checksum of its payload. Returns true when it does; otherwise writes the first
// problem found to why.
bool checkStamp(const unsigned char* data, int length, unsigned long long number, char* why, size_t whySize);

}  // namespace avpool::demo
