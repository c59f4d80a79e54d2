#include "kinds/pool_kinds.h"

#include "cli/cli.h"
#include "cli/clock.h"

#include <avpool/aac.h>
#include <avpool/amr.h>
#include <avpool/infos.h>
#include <avpool/jpg.h>
#include <avpool/lum.h>
#include <avpool/md.h>
#include <avpool/mp4.h>
#include <avpool/opus.h>
#include <avpool/pcm.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace avpool::cli {

namespace {

// Copies a record out of the segment; false when it lies outside.
template <class T>
bool at(const SegmentView& view, size_t offset, T& out) {
    return view.read(offset, &out, sizeof out);
}

std::string pictureParams(int width, int height, int fps) {
    char text[64];
    snprintf(text, sizeof text, "%dx%d %d fps", width, height, fps);
    return text;
}

std::string pictureJson(int width, int height, int fps) {
    char text[96];
    snprintf(text, sizeof text, "\"width\": %d, \"height\": %d, \"fps\": %d", width, height, fps);
    return text;
}

// Notes one slot: the newest running number wins, and elements above since
// add their length.
void countSlot(PoolState& state, unsigned long long id, long long us, long long length, unsigned long long since) {
    if (id == 0) return;
    if (id > state.newest) {
        state.newest = id;
        state.newestUs = us;
    }
    if (id > since && length > 0) state.bytesSince += static_cast<unsigned long long>(length);
}

void readJpg(const SegmentView& view, unsigned long long since, PoolState& state) {
    JPGPoolHeader header;
    if (!at(view, 0, header) || header.frameCount < 1 || header.frameCount > JPG_MAX_FRAME_COUNT) return;
    state.slots = header.frameCount;
    state.lockSets = 1;
    for (int i = 0; i < header.frameCount; ++i) {
        JPGFrameInfo info;
        if (!at(view, header.frameInfoOffset + sizeof info * i, info)) return;
        countSlot(state, info.frameID.get(), microseconds(info.tv_sec, info.tv_usec), info.frameLength, since);
    }
    state.params = pictureParams(header.workingWidth, header.workingHeight, header.workingFPS);
    state.paramsJson = pictureJson(header.workingWidth, header.workingHeight, header.workingFPS);
}

void readMp4(const SegmentView& view, unsigned long long since, PoolState& state) {
    MP4PoolHeader header;
    if (!at(view, 0, header)) return;
    int n = mp4SlotCount(header);
    if (n == 0) return;
    state.slots = n;
    state.lockSets = (n + GroupedLockView::GROUP_SIZE - 1) / GroupedLockView::GROUP_SIZE;
    for (int i = 0; i < n; ++i) {
        MP4FrameInfo info;
        if (!at(view, header.frameInfoOffset + sizeof info * i, info)) return;
        countSlot(state, info.frameID.get(), microseconds(info.tv_sec, info.tv_usec), info.frameLength, since);
    }
    state.params = pictureParams(header.width, header.height, header.workingFPS) + ", " +
                   std::to_string(header.gopCount) + " GOPs of " + std::to_string(header.framesPerGop);
    state.paramsJson = pictureJson(header.width, header.height, header.workingFPS) +
                       ", \"gops\": " + std::to_string(header.gopCount) +
                       ", \"framesPerGop\": " + std::to_string(header.framesPerGop);
}

// The audio pools share one header and one head in front of each slot; only
// the slot's size is the kind's.
template <size_t SlotSize>
void readAudio(const SegmentView& view, unsigned long long since, PoolState& state) {
    avpool::AudioPoolHeader header;
    if (!at(view, 0, header)) return;
    state.slots = AUDIO_SLOT_COUNT;
    state.lockSets = 1;
    for (int i = 0; i < AUDIO_SLOT_COUNT; ++i) {
        avpool::AudioFragmentHead head;
        if (!at(view, AUDIO_HEADER_SIZE + SlotSize * i, head)) return;
        countSlot(state, head.fragmentID.get(), microseconds(head.tv_sec, head.tv_usec), head.length, since);
    }
    char text[96];
    snprintf(text, sizeof text, "format %d, %d ch, %d Hz", header.workingFormat, header.workingChannels,
             header.workingRate);
    state.params = text;
    snprintf(text, sizeof text, "\"format\": %d, \"channels\": %d, \"rate\": %d", header.workingFormat,
             header.workingChannels, header.workingRate);
    state.paramsJson = text;
}

// The analysis pools: the kind's header, then the slots, each starting with
// an AnalysisHead; frameLength counts elements of BytesPerElement bytes.
template <class Header, class FrameInfo, int Slots, int BytesPerElement>
void readAnalysis(const SegmentView& view, unsigned long long since, PoolState& state) {
    Header header;
    if (!at(view, 0, header)) return;
    state.slots = Slots;
    state.lockSets = 1;
    for (int i = 0; i < Slots; ++i) {
        AnalysisHead head;
        if (!at(view, sizeof header + sizeof(FrameInfo) * i, head)) return;
        countSlot(state, head.frameID.get(), microseconds(head.tv_sec, head.tv_usec),
                  static_cast<long long>(head.frameLength) * BytesPerElement, since);
    }
    state.params = pictureParams(header.workingWidth, header.workingHeight, header.workingFPS);
    state.paramsJson = pictureJson(header.workingWidth, header.workingHeight, header.workingFPS);
}

void readInfos(const SegmentView& view, unsigned long long, PoolState& state) {
    int32_t profiles, maxConnections, connections;
    if (!at(view, offsetof(InfoArea, sizeofPools), profiles) || !at(view, offsetof(InfoArea, maxConn), maxConnections) ||
        !at(view, offsetof(InfoArea, currentTotalConnections), connections))
        return;
    char text[96];
    snprintf(text, sizeof text, "%d profiles, connections %d of %d", profiles, connections, maxConnections);
    state.params = text;
    snprintf(text, sizeof text, "\"profiles\": %d, \"connections\": %d, \"maxConnections\": %d", profiles,
             connections, maxConnections);
    state.paramsJson = text;
}

const std::vector<PoolKindInfo> kinds = {
    {"jpg", JPG_BASE_KEY, true, LockKeys::Single, readJpg},
    {"mp4", MP4_BASE_KEY, true, LockKeys::Grouped, readMp4},
    {"pcm", PCM_KEY, false, LockKeys::Grouped, readAudio<sizeof(PCMFragmentInfo)>},
    {"aac", AAC_BASE_KEY, true, LockKeys::Grouped, readAudio<sizeof(AACFragmentInfo)>},
    {"amr", AMR_BASE_KEY, true, LockKeys::Grouped, readAudio<sizeof(AMRFragmentInfo)>},
    {"opus", OPUS_KEY, false, LockKeys::Grouped, readAudio<sizeof(OPUSFragmentInfo)>},
    {"lum", LUM_BASE_KEY, true, LockKeys::Single, readAnalysis<LUMPoolHeader, LUMFrameInfo, LUM_FRAME_COUNT, 2>},
    {"md", MD_BASE_KEY, true, LockKeys::Single, readAnalysis<MDPoolHeader, MDFrameInfo, MD_FRAME_COUNT, 8>},
    {"infos", INFOS_KEY, false, LockKeys::None, readInfos},
};

}  // namespace

const std::vector<PoolKindInfo>& poolKinds() {
    return kinds;
}

const PoolKindInfo* findPoolKind(const std::string& name) {
    for (const PoolKindInfo& kind : kinds)
        if (name == kind.name) return &kind;
    return nullptr;
}

int mp4SlotCount(const MP4PoolHeader& header) {
    if (header.gopCount < 1 || header.framesPerGop < 1 || header.gopCount > MP4_MAX_FRAME_COUNT ||
        header.framesPerGop > MP4_MAX_FRAME_COUNT || header.gopCount * header.framesPerGop > MP4_MAX_FRAME_COUNT)
        return 0;
    return header.gopCount * header.framesPerGop;
}

int segmentKey(const PoolKindInfo& kind, int channel) {
    return kind.baseKey + (kind.perChannel ? channel : 0);
}

// A grouped pool's sets are 16 keys apart per channel.
int firstLockKey(const PoolKindInfo& kind, int channel) {
    if (kind.locks == LockKeys::Grouped) return kind.baseKey + (kind.perChannel ? channel * 16 : 0);
    return segmentKey(kind, channel);
}

int parseChannel(const PoolKindInfo& kind, const std::string& text, const char* verb, FixedKeyRefusal refusal) {
    int channel = parseInt(text, (std::string(verb) + ": channel").c_str(), 0, MAX_CHANNEL);
    if (!kind.perChannel && channel != 0) throw UsageError(refusal(verb, kind, text, channel));
    return channel;
}

}  // namespace avpool::cli
