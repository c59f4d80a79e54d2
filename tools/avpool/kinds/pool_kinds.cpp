#include "kinds/pool_kinds.h"

#include "demo/consumer.h"
#include "demo/writers.h"
#include "kinds/survey.h"
#include "verbs/per_kind.h"

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

namespace avpool::cli {

namespace kinds {

namespace demo = avpool::demo;

// name, base key, one pool per channel, lock keys, family;
// slots, header size, slot size, safe-time offset, segment size, audio extras,
// analysis element bytes, vibration level;
// ls/watch reader, stat, put, get; demo writer, demo consumer, demo stream
const PoolKind jpg = {
    "jpg", JPG_BASE_KEY, true, LockKeys::Single, Family::Pictures,
    0, JPG_HEADER_SIZE, sizeof(JPGFrameInfo), 0, 0, 0, 0, false,
    readJpg, statJpg, putJpg, getJpg, demo::writeJpg, demo::consumeJpg, 0,
};
const PoolKind mp4 = {
    "mp4", MP4_BASE_KEY, true, LockKeys::Grouped, Family::Video,
    0, MP4_HEADER_SIZE, sizeof(MP4FrameInfo), 0, 0, 0, 0, false,
    readMp4, statMp4, putMp4, getMp4, demo::writeMp4, demo::consumeMp4, 1,
};
const PoolKind pcm = {
    "pcm", PCM_KEY, false, LockKeys::Grouped, Family::Audio,
    AUDIO_SLOT_COUNT, AUDIO_HEADER_SIZE, sizeof(PCMFragmentInfo), offsetof(PCMPoolHeader, safeTime),
    PCM_SEGMENT_SIZE, 0, 0, false,
    readAudio, statAudio, putPcm, getPcm, demo::writePcm, demo::consumePcm, 2,
};
const PoolKind aac = {
    "aac", AAC_BASE_KEY, true, LockKeys::Grouped, Family::Audio,
    AUDIO_SLOT_COUNT, AUDIO_HEADER_SIZE, sizeof(AACFragmentInfo), offsetof(AACPoolHeader, safeTime),
    AAC_SEGMENT_SIZE, 1, 0, false,
    readAudio, statAudio, putAac, getAac, demo::writeAac, demo::consumeAac, 3,
};
const PoolKind amr = {
    "amr", AMR_BASE_KEY, true, LockKeys::Grouped, Family::Audio,
    AUDIO_SLOT_COUNT, AUDIO_HEADER_SIZE, sizeof(AMRFragmentInfo), offsetof(AMRPoolHeader, safeTime),
    AMR_SEGMENT_SIZE, 2, 0, false,
    readAudio, statAudio, nullptr, nullptr, demo::writeAmr, demo::consumeAmr, 5,
};
const PoolKind opus = {
    "opus", OPUS_KEY, false, LockKeys::Grouped, Family::Audio,
    AUDIO_SLOT_COUNT, AUDIO_HEADER_SIZE, sizeof(OPUSFragmentInfo), offsetof(OPUSPoolHeader, safeTime),
    OPUS_SEGMENT_SIZE, 0, 0, false,
    readAudio, statAudio, nullptr, nullptr, demo::writeOpus, demo::consumeOpus, 4,
};
const PoolKind lum = {
    "lum", LUM_BASE_KEY, true, LockKeys::Single, Family::Analysis,
    LUM_FRAME_COUNT, sizeof(LUMPoolHeader), sizeof(LUMFrameInfo), offsetof(LUMPoolHeader, safeTime),
    LUM_POOL_SIZE, 0, 2, false,
    readAnalysis, statAnalysis, nullptr, nullptr, demo::writeLum, demo::consumeLum, 6,
};
const PoolKind md = {
    "md", MD_BASE_KEY, true, LockKeys::Single, Family::Analysis,
    MD_FRAME_COUNT, sizeof(MDPoolHeader), sizeof(MDFrameInfo), offsetof(MDPoolHeader, safeTime),
    MD_POOL_SIZE, 0, 8, true,
    readAnalysis, statAnalysis, nullptr, nullptr, demo::writeMd, demo::consumeMd, 7,
};
const PoolKind infos = {
    "infos", INFOS_KEY, false, LockKeys::Single, Family::InfoArea,
    0, INFOS_AREA_SIZE, 0, 0, INFOS_AREA_SIZE, 0, 0, false,
    readInfos, nullptr, nullptr, nullptr, nullptr, nullptr, 0,
};

}  // namespace kinds

const std::vector<const PoolKind*>& poolKinds() {
    static const std::vector<const PoolKind*> rows = {
        &kinds::jpg, &kinds::mp4, &kinds::pcm, &kinds::aac, &kinds::amr,
        &kinds::opus, &kinds::lum, &kinds::md, &kinds::infos,
    };
    return rows;
}

int mp4SlotCount(const MP4PoolHeader& header) {
    if (header.gopCount < 1 || header.framesPerGop < 1 || header.gopCount > MP4_MAX_FRAME_COUNT ||
        header.framesPerGop > MP4_MAX_FRAME_COUNT || header.gopCount * header.framesPerGop > MP4_MAX_FRAME_COUNT)
        return 0;
    return header.gopCount * header.framesPerGop;
}

int segmentKey(const PoolKind& kind, int channel) {
    return kind.baseKey + (kind.perChannel ? channel : 0);
}

// A grouped pool's sets are 16 keys apart per channel.
int firstLockKey(const PoolKind& kind, int channel) {
    if (kind.locks == LockKeys::Grouped) return kind.baseKey + (kind.perChannel ? channel * 16 : 0);
    return segmentKey(kind, channel);
}

int parseChannel(const PoolKind& kind, const std::string& text, const char* verb, FixedKeyRefusal refusal) {
    int channel = parseInt(text, (std::string(verb) + ": channel").c_str(), 0, MAX_CHANNEL);
    if (!kind.perChannel && channel != 0) throw UsageError(refusal(verb, kind, text, channel));
    return channel;
}

}  // namespace avpool::cli
