// The demo's information area: one profile per picture or video pool,
// published the way an encoder does before it creates its pools, the AAC
// pool's audio parameters on the video profile, and the connection units its
// consumers take, watched while the demo runs.

#include "demo/demo.h"
#include "kinds/infos_view.h"

#include <avpool/infos.h>
#include <avpool/mp4.h>

#include <cstring>
#include <string>

namespace avpool::demo {

namespace {

using avpool::cli::Family;
using avpool::cli::hasProfile;
using avpool::cli::PROFILE_JPEG;
using avpool::cli::PROFILE_STREAMING;

constexpr int PROFILE_IDLE = 0;
constexpr int MAX_CONN = 10;
constexpr unsigned char MPEG4_PROFILE_LEVEL = 3;  // Simple profile, level 3
constexpr int JPEG_PAYLOAD_TYPE = 26;
constexpr int DYNAMIC_PAYLOAD_TYPE = 96;

// The header text must leave its field a terminating NUL.
void putSdpHeader(SDPBlock& block, const std::string& text) {
    if (text.size() >= sizeof block.sdpHeader)
        throw avpool::cli::CliError("demo: SDP header of " + std::to_string(text.size()) + " bytes");
    memcpy(block.sdpHeader, text.c_str(), text.size() + 1);
}

std::string mediaLines(int payloadType, const char* encoding) {
    std::string type = std::to_string(payloadType);
    return "m=video 0 RTP/AVP " + type + "\r\na=rtpmap:" + type + " " + encoding + "/90000\r\n";
}

// The SDP lines of a JPEG profile.
void describeJpg(SDPBlock& block, const PoolPlan& plan) {
    putSdpHeader(block, mediaLines(JPEG_PAYLOAD_TYPE, "JPEG") + "a=framerate:" + std::to_string(plan.fps) + "\r\n");
}

// The SDP lines of the video profile and its MPEG-4 VOL: one VOP per frame at
// the pool's rate. The demo's video is no H.264 stream: no SPS or PPS.
void describeMp4(SDPBlock& block, const PoolPlan& plan) {
    block.volSize = fill_mpeg4_vol_header(block.vol, MPEG4_PROFILE_LEVEL, plan.width, plan.height, plan.fps, true, 1);
    char config[2 * sizeof block.vol + 1];
    fill_mpeg4_vol_hex(config, MPEG4_PROFILE_LEVEL, plan.width, plan.height, plan.fps, true, 1);
    std::string type = std::to_string(DYNAMIC_PAYLOAD_TYPE);
    putSdpHeader(block, mediaLines(DYNAMIC_PAYLOAD_TYPE, "MP4V-ES") + "a=fmtp:" + type +
                            " profile-level-id=" + std::to_string(MPEG4_PROFILE_LEVEL) + ";config=" + config +
                            "\r\n");
    block.spsSize = 0;
    block.ppsSize = 0;
}

}  // namespace

ProfilePublisher::ProfilePublisher(const PoolPlan* plans, int count) : count_(0) {
    // The key is the same for every encoder: an area of another running
    // process (a second demo beside the first) is left alone.
    connections_.owner = avpool::cli::runningCreator(INFOS_KEY);
    if (connections_.owner != 0) return;
    const PoolPlan* audio = nullptr;
    for (int p = 0; p < count; ++p) {
        if (hasProfile(*plans[p].kind)) ++count_;
        if (plans[p].kind == &avpool::cli::kinds::aac) audio = &plans[p];
    }
    area_.reset(new InfosPutter);
    InfosPutter& putter = *area_;
    putter.init(INFOS_KEY);
    putter.putSizeofPools(count_);
    putter.putMaxConn(MAX_CONN);
    int profile = 0;
    for (int p = 0; p < count; ++p) {
        const PoolPlan& plan = plans[p];
        if (!hasProfile(*plan.kind)) continue;
        putter.putInfo(profile, PROFILE_IDLE, plan.channel, plan.kind->family == Family::Pictures ? PROFILE_JPEG : 0);
        putter.putVideoInfo(profile, plan.width, plan.height, plan.fps);
        putter.putSharedMemSize(profile, segmentSize(plan));
        SDPBlock& block = *reinterpret_cast<SDPBlock*>(putter.GetSDPHeader(profile));
        if (plan.kind->family == Family::Video) {
            describeMp4(block, plan);
            // The video's sound: format, channels, rate and fragment time.
            if (audio != nullptr)
                putter.putAudioInfo(profile, audio->format, audio->audioChannels, audio->rate, audio->fragmentMs);
        } else {
            describeJpg(block, plan);
        }
        ++profile;
    }
    connections_.published = true;
    connections_.maxConn = MAX_CONN;
}

void ProfilePublisher::streaming() {
    if (area_ == nullptr) return;
    for (int p = 0; p < count_; ++p) area_->putState(p, PROFILE_STREAMING);
}

void ProfilePublisher::sample() {
    if (area_ == nullptr) return;
    int taken = area_->getConn();
    if (taken > connections_.peak) connections_.peak = taken;
}

const Connections& ProfilePublisher::finish() {
    if (area_ != nullptr) {
        sample();
        connections_.atEnd = area_->getConn();
        area_.reset();
    }
    return connections_;
}

}  // namespace avpool::demo
