#include "kinds/survey.h"

#include "cli/clock.h"
#include "kinds/records.h"
#include "kinds/shm_view.h"

#include <avpool/audio.h>
#include <avpool/infos.h>
#include <avpool/jpg.h>
#include <avpool/mp4.h>

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

}  // namespace

void readJpg(const PoolKind&, const SegmentView& view, unsigned long long since, PoolState& state) {
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

void readMp4(const PoolKind&, const SegmentView& view, unsigned long long since, PoolState& state) {
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
void readAudio(const PoolKind& kind, const SegmentView& view, unsigned long long since, PoolState& state) {
    avpool::AudioPoolHeader header;
    if (!at(view, 0, header)) return;
    state.slots = kind.slots;
    state.lockSets = 1;
    for (int i = 0; i < kind.slots; ++i) {
        avpool::AudioFragmentHead head;
        if (!at(view, kind.headerSize + kind.slotSize * i, head)) return;
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
// an AnalysisHead; frameLength counts elements of the kind's elementBytes.
void readAnalysis(const PoolKind& kind, const SegmentView& view, unsigned long long since, PoolState& state) {
    AnalysisPoolHead header;
    if (view.size() < kind.headerSize || !at(view, 0, header)) return;
    state.slots = kind.slots;
    state.lockSets = 1;
    for (int i = 0; i < kind.slots; ++i) {
        AnalysisHead head;
        if (!at(view, kind.headerSize + kind.slotSize * i, head)) return;
        countSlot(state, head.frameID.get(), microseconds(head.tv_sec, head.tv_usec),
                  static_cast<long long>(head.frameLength) * kind.elementBytes, since);
    }
    state.params = pictureParams(header.workingWidth, header.workingHeight, header.workingFPS);
    state.paramsJson = pictureJson(header.workingWidth, header.workingHeight, header.workingFPS);
}

void readInfos(const PoolKind&, const SegmentView& view, unsigned long long, PoolState& state) {
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

namespace {

const FoundPool* earlierByKey(const std::vector<FoundPool>* earlier, int key) {
    if (earlier == nullptr) return nullptr;
    for (const FoundPool& pool : *earlier)
        if (pool.key == key) return &pool;
    return nullptr;
}

void probe(const PoolKind& kind, int channel, const std::vector<FoundPool>* earlier,
           std::vector<FoundPool>& found) {
    int key = segmentKey(kind, channel);
    pid_t creator = 0;
    if (!findSegment(key, creator)) return;
    try {
        SegmentView view(key, 0, std::string(kind.name) + " pool");
        const FoundPool* before = earlierByKey(earlier, key);
        bool seen = before != nullptr && before->id == view.id();
        FoundPool pool{&kind,        channel, key, view.id(), view.size(), view.attached(), view.creator(),
                       processAlive(view.creator()), seen, seen ? before->state.newest : 0, {}};
        kind.read(kind, view, pool.since, pool.state);
        found.push_back(pool);
    } catch (const CliError&) {
        // Removed between the lookup and the attach: it is gone, so not listed.
    }
}

}  // namespace

std::vector<FoundPool> findPools(const std::vector<FoundPool>* earlier) {
    std::vector<FoundPool> found;
    for (const PoolKind* kind : poolKinds())
        for (int channel = 0; channel <= (kind->perChannel ? MAX_CHANNEL : 0); ++channel)
            probe(*kind, channel, earlier, found);
    return found;
}

std::vector<int> lockKeys(const FoundPool& pool) {
    std::vector<int> keys;
    const PoolKind& kind = *pool.kind;
    int sets = pool.state.lockSets > 0 ? pool.state.lockSets : 1;
    if (kind.locks == LockKeys::Single) keys.push_back(pool.key);
    if (kind.locks == LockKeys::Grouped)
        for (int g = 0; g < sets; ++g) keys.push_back(firstLockKey(kind, pool.channel) + g);
    return keys;
}

std::string poolName(const FoundPool& pool) {
    if (!pool.kind->perChannel) return pool.kind->name;
    return std::string(pool.kind->name) + " " + std::to_string(pool.channel);
}

std::string channelText(const FoundPool& pool) {
    return pool.kind->perChannel ? std::to_string(pool.channel) : "-";
}

const char* stateText(const FoundPool& pool) {
    return pool.creatorAlive ? "live" : "stale";
}

std::string ageText(const FoundPool& pool, long long nowUs) {
    if (pool.state.newest == 0) return "-";
    char text[32];
    snprintf(text, sizeof text, "%.2f s", static_cast<double>(nowUs - pool.state.newestUs) / 1e6);
    return text;
}

}  // namespace avpool::cli
