#include "analysis_peer.h"

#include <cstring>

namespace interop {

using namespace avpool::test;

const AnalysisFormat& analysisFormat(const AnalysisGeometry& g, FrameId id) {
    return id < ANALYSIS_RESIZE_AT ? g.first : g.second;
}

int analysisSec(FrameId id) {
    return 7000 + 3 * static_cast<int>(id);
}

int analysisUsec(FrameId id) {
    return static_cast<int>(id * 370001 % 1000000);
}

// Every byte of an element differs from its neighbours', so a swapped byte
// order or a shifted array shows.
unsigned int analysisElement(const AnalysisGeometry& g, FrameId id, int a, int j) {
    unsigned int value = static_cast<unsigned int>(id) * 0x9E3779B1u + static_cast<unsigned int>(a) * 0x7F4A7C15u +
                         static_cast<unsigned int>(j) * 0x01030507u;
    return g.elementBytes == 4 ? value : value & 0xFFFFu;
}

// The producer's arrays in the machine's own byte order, as a caller hands
// them to putFrame: 16-bit samples or 32-bit values.
void analysisFill(const AnalysisGeometry& g, FrameId id, std::vector<unsigned char> (&arrays)[2]) {
    const AnalysisFormat& f = analysisFormat(g, id);
    int length = f.width * f.height;
    for (int a = 0; a < 2; ++a) {
        arrays[a].assign(g.arrayBytes, 0);
        if (a >= g.arrays) continue;
        for (int j = 0; j < length; ++j) {
            unsigned int value = analysisElement(g, id, a, j);
            unsigned char* at = &arrays[a][j * g.elementBytes];
            if (g.elementBytes == 2) {
                uint16_t sample = static_cast<uint16_t>(value);
                memcpy(at, &sample, sizeof sample);
            } else {
                uint32_t word = value;
                memcpy(at, &word, sizeof word);
            }
        }
    }
}

AnalysisModel::AnalysisModel(const AnalysisGeometry& g)
    : SegmentImage(g.segmentSize(), 0xCC), g_(g), locks_(g.slots, 1) {
    for (int s = 0; s < g_.slots; ++s) {
        setWord(g_.safeAt() + 4 * s, 0);
        size_t record = g_.record(s);
        for (size_t field = 0; field < AnalysisGeometry::PAYLOAD_AT; field += 4) setWord(record + field, 0);
        setWord(record + 8, s);
    }
    setWord(0, 0);
    reset(g_.first);
}

void AnalysisModel::reset(const AnalysisFormat& f) {
    setWord(4, f.fps);
    setWord(8, f.width);
    setWord(12, f.height);
    interval_ = 1000 / f.fps;
}

void AnalysisModel::write(FrameId id) {
    if (id == ANALYSIS_RESIZE_AT) reset(g_.second);
    int n = g_.slots;
    int c = analysisSlotOf(g_, id);
    locks_[(c + 1) % n] = 1;
    setSafeTimes(g_.safeAt(), n, c, interval_, g_.fragmentSafeTimes);
    size_t record = g_.record(c);
    setU64(record, id);
    setWord(0, c);
    setWord(record + 16, analysisSec(id));
    setWord(record + 20, analysisUsec(id));
    const AnalysisFormat& f = analysisFormat(g_, id);
    int length = f.width * f.height;
    for (int a = 0; a < g_.arrays; ++a)
        for (int j = 0; j < length; ++j) {
            unsigned int value = analysisElement(g_, id, a, j);
            for (size_t b = 0; b < g_.elementBytes; ++b)
                image_[payloadAt(c, a) + j * g_.elementBytes + b] = static_cast<unsigned char>(value >> (8 * b));
        }
    setWord(record + 12, length);
    locks_[c] = 0;
    last_ = id;
}

std::string AnalysisModel::fieldAt(size_t offset) const {
    static const char* const record[] = {"frameID.low", "frameID.high", "lockIndex", "frameLength", "tv_sec", "tv_usec"};
    if (offset < g_.safeAt()) return std::string("header.") + g_.headerWords[offset / 4];
    if (offset < AnalysisGeometry::HEADER_SIZE) return "safe[" + std::to_string((offset - g_.safeAt()) / 4) + "]";
    size_t s = (offset - AnalysisGeometry::HEADER_SIZE) / g_.recordSize;
    size_t in = (offset - AnalysisGeometry::HEADER_SIZE) % g_.recordSize;
    std::string slot = "info[" + std::to_string(s) + "].";
    if (in < AnalysisGeometry::PAYLOAD_AT) return slot + record[in / 4];
    in -= AnalysisGeometry::PAYLOAD_AT;
    return slot + "array" + std::to_string(in / g_.arrayBytes) + "+" + std::to_string(in % g_.arrayBytes);
}

// Everything in the segment, and every slot lock.
void analysisCheckSegment(const AnalysisGeometry& g, const RawSegment& raw, const AnalysisModel& model, Checks& checks,
                          const std::string& phase) {
    checkImage(checks, phase, raw, model, [&](size_t offset) { return model.fieldAt(offset); });
    checks.equal(phase + ": semaphores in the set", g.slots, semCountOf(semIdOf(g.key())));
    for (int s = 0; s < g.slots; ++s)
        checks.equal(phase + ": lock of slot " + std::to_string(s), model.lock(s), lockValue(g.key(), s));
}

}  // namespace interop
