#include "kinds/media_kinds.h"

#include "kinds/pool_kinds.h"

namespace avpool::cli {

namespace {

const MediaKind kinds[] = {
    {"jpg", putJpg, getJpg},
    {"mp4", putMp4, getMp4},
    {"pcm", putPcm, getPcm},
    {"aac", putAac, getAac},
};

}  // namespace

const MediaKind& findMediaKind(const std::string& name, const char* verb) {
    return findKind(kinds, name, verb);
}

const PoolKindInfo& MediaKind::pool() const {
    return *findPoolKind(name);  // every media kind has a row there
}

int mediaChannel(const MediaKind& kind, const std::string& text, const char* verb) {
    return parseChannel(kind.pool(), text, verb, [](const char* named, const PoolKindInfo& pool, const std::string& given, int) {
        return std::string(named) + ": there is one " + pool.name + " pool per machine: CHANNEL must be 0, not " +
               given;
    });
}

}  // namespace avpool::cli
