// What an encoder tells the information area about a video stream it writes
// into a pool: the picture size, the rate and the H.264 parameter sets, for
// the profiles that name the pool's channel. A server reads them to describe
// the stream to its clients before a frame of it has arrived.
#pragma once

#include <cstddef>
#include <vector>

namespace avpool::publish {

struct VideoProfile {
    int width = 0;
    int height = 0;
    int fps = 0;  // stored as the profile's third video value
    // Without start codes; an empty one leaves the profile's as it is.
    std::vector<unsigned char> sps;
    std::vector<unsigned char> pps;
};

// Writes the stream's values into every profile the encoder announced (below
// sizeofPools) whose channel is this one, and returns how many those were.
// Without an information area there is nobody to tell: 0. A parameter set
// larger than its 256-byte field is left out.
int publishVideo(int channel, const VideoProfile& video);

// The first SPS and PPS of an H.264 access unit in Annex B, without start
// codes, into sps and pps; each is left empty when the unit has none (or is
// not Annex B).
void findParameterSets(const unsigned char* data, size_t size, std::vector<unsigned char>& sps,
                       std::vector<unsigned char>& pps);

}  // namespace avpool::publish
