#include "pool_kinds.h"

#include <avpool/aac.h>
#include <avpool/jpg.h>
#include <avpool/lum.h>
#include <avpool/mp4.h>
#include <avpool/opus.h>
#include <avpool/pcm.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <sys/ipc.h>
#include <sys/shm.h>

namespace avpool::gst {

namespace {

constexpr int LOCK_GROUP_SIZE = 250;  // semaphores in one set of a grouped pool
constexpr int LOCK_GROUP_STRIDE = 16;  // a channel's sets are 16 keys apart

}  // namespace

const char* kindName(Kind kind) {
    switch (kind) {
        case Kind::Jpg: return "jpg";
        case Kind::Mp4: return "mp4";
        case Kind::Pcm: return "pcm";
        case Kind::Aac: return "aac";
        case Kind::Opus: return "opus";
        case Kind::Lum: return "lum";
    }
    return "?";
}

bool perChannel(Kind kind) {
    return kind != Kind::Pcm && kind != Kind::Opus;
}

std::string poolName(Kind kind, int channel) {
    std::string name = std::string(kindName(kind)) + " pool";
    if (perChannel(kind)) name += " on channel " + std::to_string(channel);
    return name;
}

PoolKeys keysOf(Kind kind, int channel) {
    switch (kind) {
        case Kind::Jpg: return {JPG_BASE_KEY + channel, JPG_BASE_KEY + channel, JPG_MAX_FRAME_COUNT};
        case Kind::Mp4:
            return {MP4_BASE_KEY + channel, MP4_BASE_KEY + channel * LOCK_GROUP_STRIDE, LOCK_GROUP_SIZE};
        case Kind::Pcm: return {PCM_KEY, PCM_KEY, LOCK_GROUP_SIZE};
        case Kind::Aac:
            return {AAC_BASE_KEY + channel, AAC_BASE_KEY + channel * LOCK_GROUP_STRIDE, LOCK_GROUP_SIZE};
        case Kind::Opus: return {OPUS_KEY, OPUS_KEY, LOCK_GROUP_SIZE};
        case Kind::Lum: return {LUM_BASE_KEY + channel, LUM_BASE_KEY + channel, LUM_FRAME_COUNT};
    }
    return {-1, -1, 1};
}

std::string hexKey(int key) {
    char text[16];
    snprintf(text, sizeof text, "0x%x", static_cast<unsigned>(key));
    return text;
}

bool processAlive(pid_t pid) {
    return pid > 0 && (kill(pid, 0) == 0 || errno == EPERM);
}

Presence probePool(Kind kind, int channel, pid_t& creator) {
    creator = 0;
    int id = shmget(keysOf(kind, channel).segment, 0, 0);
    shmid_ds info{};
    if (id == -1 || shmctl(id, IPC_STAT, &info) == -1) return Presence::Missing;
    creator = info.shm_cpid;
    return processAlive(creator) ? Presence::Live : Presence::Stale;
}

std::string absenceText(Kind kind, int channel, Presence presence, pid_t creator) {
    if (presence == Presence::Stale)
        return "the " + poolName(kind, channel) + " is stale: its creator " + std::to_string(creator) + " is gone";
    return "no " + poolName(kind, channel) + " (key " + hexKey(keysOf(kind, channel).segment) + ")";
}

}  // namespace avpool::gst
