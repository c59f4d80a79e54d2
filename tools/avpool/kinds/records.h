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

static_assert(sizeof(AnalysisPoolHead) == 16, "AnalysisPoolHead layout");
static_assert(offsetof(AnalysisPoolHead, current) == offsetof(LUMPoolHeader, current), "analysis header head");
static_assert(offsetof(AnalysisPoolHead, workingFPS) == offsetof(LUMPoolHeader, workingFPS), "analysis header head");
static_assert(offsetof(AnalysisPoolHead, workingWidth) == offsetof(LUMPoolHeader, workingWidth), "analysis header head");
static_assert(offsetof(AnalysisPoolHead, workingHeight) == offsetof(LUMPoolHeader, workingHeight), "analysis header head");
static_assert(offsetof(AnalysisPoolHead, current) == offsetof(MDPoolHeader, current), "analysis header head");
static_assert(offsetof(AnalysisPoolHead, workingFPS) == offsetof(MDPoolHeader, workingFPS), "analysis header head");
static_assert(offsetof(AnalysisPoolHead, workingWidth) == offsetof(MDPoolHeader, workingWidth), "analysis header head");
static_assert(offsetof(AnalysisPoolHead, workingHeight) == offsetof(MDPoolHeader, workingHeight), "analysis header head");

static_assert(sizeof(AnalysisHead) == offsetof(LUMFrameInfo, samples), "analysis slot head");
static_assert(sizeof(AnalysisHead) == offsetof(MDFrameInfo, firstArray), "analysis slot head");

}  // namespace avpool::cli
