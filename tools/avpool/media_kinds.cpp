#include "media_kinds.h"

#include "pool_kinds.h"

namespace avpool::cli {

namespace {

const MediaKind kinds[] = {
    {"jpg", true, putJpg, getJpg},
    {"mp4", true, putMp4, getMp4},
    {"pcm", false, putPcm, getPcm},
    {"aac", true, putAac, getAac},
};

}  // namespace

const MediaKind& findMediaKind(const std::string& name, const char* verb) {
    return findKind(kinds, name, verb);
}

int mediaChannel(const MediaKind& kind, const std::string& text, const char* verb) {
    int channel = parseInt(text, (std::string(verb) + ": channel").c_str(), 0, MAX_CHANNEL);
    if (!kind.perChannel && channel != 0)
        throw UsageError(std::string(verb) + ": there is one " + kind.name +
                         " pool per machine: CHANNEL must be 0, not " + text);
    return channel;
}

}  // namespace avpool::cli
