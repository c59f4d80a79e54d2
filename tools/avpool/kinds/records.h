// The tool's read-only views of records that the library's headers give only
// per kind: what the luminance and motion pools share at the start of their
// header and of every slot, so that one reader serves both kinds.
#pragma once

#include <avpool/common.h>
#include <avpool/lum.h>
#include <avpool/md.h>

#include <cstddef>
#include <cstdint>

namespace avpool::cli {

// The start of both analysis headers.
struct AnalysisPoolHead {
    int32_t current;
    int32_t workingFPS;
    int32_t workingWidth;
    int32_t workingHeight;
};

// The start of every luminance and motion slot.
struct AnalysisHead {
    avpool::Word64 frameID;
    int32_t lockIndex;
    int32_t frameLength;  // elements
    int32_t tv_sec;
    int32_t tv_usec;
};

// Each field of the views. lum.h and md.h pin the same offsets in
// LUMPoolHeader, MDPoolHeader and the start of their slot records.
static_assert(sizeof(AnalysisPoolHead) == 16, "AnalysisPoolHead is not 16 bytes");
static_assert(offsetof(AnalysisPoolHead, current) == 0, "AnalysisPoolHead.current is not at 0");
static_assert(offsetof(AnalysisPoolHead, workingFPS) == 4, "AnalysisPoolHead.workingFPS is not at 4");
static_assert(offsetof(AnalysisPoolHead, workingWidth) == 8, "AnalysisPoolHead.workingWidth is not at 8");
static_assert(offsetof(AnalysisPoolHead, workingHeight) == 12, "AnalysisPoolHead.workingHeight is not at 12");

static_assert(sizeof(AnalysisHead) == 24, "AnalysisHead is not 24 bytes");
static_assert(offsetof(AnalysisHead, frameID) == 0, "AnalysisHead.frameID is not at 0");
static_assert(offsetof(AnalysisHead, lockIndex) == 8, "AnalysisHead.lockIndex is not at 8");
static_assert(offsetof(AnalysisHead, frameLength) == 12, "AnalysisHead.frameLength is not at 12");
static_assert(offsetof(AnalysisHead, tv_sec) == 16, "AnalysisHead.tv_sec is not at 16");
static_assert(offsetof(AnalysisHead, tv_usec) == 20, "AnalysisHead.tv_usec is not at 20");
static_assert(offsetof(LUMFrameInfo, samples) == sizeof(AnalysisHead),
              "LUMFrameInfo.samples is not at 24, right after the AnalysisHead");
static_assert(offsetof(MDFrameInfo, firstArray) == sizeof(AnalysisHead),
              "MDFrameInfo.firstArray is not at 24, right after the AnalysisHead");

}  // namespace avpool::cli
