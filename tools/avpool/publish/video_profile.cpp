#include "publish/video_profile.h"

#include "media/h264_stream.h"

#include <avpool/infos.h>

#include <algorithm>
#include <cstring>
#include <sys/ipc.h>
#include <sys/shm.h>

namespace avpool::publish {

namespace {

constexpr int NAL_SPS = 7;
constexpr int NAL_PPS = 8;

// The size last, so a reader never takes more bytes than were written.
void putBlob(unsigned char* field, size_t capacity, int32_t& size, const std::vector<unsigned char>& bytes) {
    if (bytes.empty() || bytes.size() > capacity) return;
    size = 0;
    memcpy(field, bytes.data(), bytes.size());
    size = static_cast<int32_t>(bytes.size());
}

}  // namespace

int publishVideo(int channel, const VideoProfile& video) {
    int id = shmget(INFOS_KEY, INFOS_AREA_SIZE, 0600);
    if (id == -1) return 0;
    void* address = shmat(id, nullptr, 0);
    if (address == reinterpret_cast<void*>(-1)) return 0;
    InfoArea* area = static_cast<InfoArea*>(address);
    int profiles = std::min(area->sizeofPools, MAX_MEDIA_POOL);
    int told = 0;
    for (int p = 0; p < profiles; ++p) {
        MediaProfileInfo& profile = area->profiles[p];
        if (profile.channel != channel) continue;
        profile.width = video.width;
        profile.height = video.height;
        profile.videoParam3 = video.fps;
        putBlob(profile.sdp.sps, sizeof profile.sdp.sps, profile.sdp.spsSize, video.sps);
        putBlob(profile.sdp.pps, sizeof profile.sdp.pps, profile.sdp.ppsSize, video.pps);
        ++told;
    }
    shmdt(address);
    return told;
}

void findParameterSets(const unsigned char* data, size_t size, std::vector<unsigned char>& sps,
                       std::vector<unsigned char>& pps) {
    sps.clear();
    pps.clear();
    if (!media::startsWithStartCode(data, size)) return;
    try {
        for (const media::NalUnit& nal : media::findNalUnits(data, size)) {
            std::vector<unsigned char>& set = nal.type == NAL_SPS ? sps : pps;
            if ((nal.type == NAL_SPS || nal.type == NAL_PPS) && set.empty())
                set.assign(data + nal.payload, data + nal.end);
        }
    } catch (const media::FormatError&) {
        sps.clear();
        pps.clear();
    }
}

}  // namespace avpool::publish
