#include <avpool/infos.h>

#include "../common/errors.h"
#include "../common/process_lock.h"
#include "../common/segment.h"
#include "area.h"
#include "budget.h"

#include <cstring>
#include <sys/shm.h>

using namespace avpool::detail;

namespace {
constexpr Raise raise = raiseAs<InfosPutterError>;

// The encoder's messages name older methods on purpose: tools that watch the
// encoder's output match these exact texts.
constexpr const char* STATE_NOT_ATTACHED = "InfosPutter::putVideoState programming error";
constexpr const char* STATE_BAD_PROFILE = "InfosPutter::putVideoState profileID exceed MAX_MEDIA_POOL";
constexpr const char* INFO_NOT_ATTACHED = "InfosPutter::putVideoInfo programming error";
constexpr const char* INFO_BAD_PROFILE = "InfosPutter::putVideoInfo profileID exceed MAX_MEDIA_POOL";
constexpr const char* SIZE_NOT_ATTACHED = "InfosPutter::putSharedMemSize programming error";
constexpr const char* CONN_NOT_ATTACHED = "InfosPutter::getConn programming error";

// The profile bound of the put operations: a signed test against the number of
// records, so a negative ID is not refused by it.
MediaProfileInfo& boundedProfile(InfoArea* area, int profileID, const char* badProfileText) {
    MediaProfileInfo* record = profileID < MAX_MEDIA_POOL ? profileRecord(area, profileID) : nullptr;
    if (record == nullptr) raise(badProfileText);
    return *record;
}

// putSharedMemSize and GetSDPHeader have no bound of their own; an ID whose
// record is outside the segment is refused with their not-attached text.
MediaProfileInfo& unboundedProfile(InfoArea* area, int profileID, const char* text) {
    MediaProfileInfo* record = profileRecord(area, profileID);
    if (record == nullptr) raise(text);
    return *record;
}
}  // namespace

InfosPutter::InfosPutter() : shmAddr_(notAttached<InfoArea>()) {}

InfosPutter::~InfosPutter() {
    release();
}

void InfosPutter::init(int key) {
    if (shmid_ != -1 || shmAddr_ != notAttached<InfoArea>()) raise("InfosPutter::init programming error");
    // The lock exists before the area does, so a server that finds the area
    // always finds its lock.
    lockId_ = createProcessLock(key, BUDGET_SEMS, "InfosPutter::init semget failed", raise);
    shmid_ = createWithRetry([&] { return createSegment(key, INFOS_AREA_SIZE); }, [&] { forceReleaseShm(key); },
                             "InfosPutter::init shmget failed", raise, "");
    void* address = shmat(shmid_, nullptr, 0);
    if (address == notAttached()) {
        perror("InfosPutter::init shmat failed");
        release();
        raise("InfosPutter::init shmat failed");
    }
    shmAddr_ = static_cast<InfoArea*>(address);
    memset(shmAddr_, 0, INFOS_AREA_SIZE);
}

void InfosPutter::release() {
    removeSegment(shmid_, shmAddr_, notAttached<InfoArea>());
    removeProcessLock(lockId_);
}

InfoArea* InfosPutter::area(const char* notAttachedText) {
    if (!isAttached(shmAddr_)) raise(notAttachedText);
    return shmAddr_;
}

void InfosPutter::putSizeofPools(int n) {
    area(STATE_NOT_ATTACHED)->sizeofPools = n;
}

void InfosPutter::putMaxConn(int n) {
    InfoArea* info = area(STATE_NOT_ATTACHED);
    ProcessLockGuard lock(lockId_);
    info->maxConn = n < MAX_USER_SLATS ? n : MAX_USER_SLATS;
    for (int i = 0; i < info->maxConn; ++i) info->slats[i].slatID = FREE_SLAT_ID;
}

void InfosPutter::putInfo(int profileID, int state, int channel, int param3) {
    MediaProfileInfo& profile = boundedProfile(area(INFO_NOT_ATTACHED), profileID, INFO_BAD_PROFILE);
    profile.state = state;
    profile.channel = channel;
    profile.infoParam3 = param3;
}

void InfosPutter::putState(int profileID, int state) {
    boundedProfile(area(STATE_NOT_ATTACHED), profileID, STATE_BAD_PROFILE).state = state;
}

// A value of 0 or less keeps what is stored, so the encoder can change one of
// the three without knowing the others.
void InfosPutter::putVideoInfo(int profileID, int width, int height, int param3) {
    MediaProfileInfo& profile = boundedProfile(area(STATE_NOT_ATTACHED), profileID, STATE_BAD_PROFILE);
    if (width > 0) profile.width = width;
    if (height > 0) profile.height = height;
    if (param3 > 0) profile.videoParam3 = param3;
}

void InfosPutter::putAudioInfo(int profileID, int a1, int a2, int a3, int frameDuration) {
    MediaProfileInfo& profile = boundedProfile(area(STATE_NOT_ATTACHED), profileID, STATE_BAD_PROFILE);
    profile.audioParam1 = a1;
    profile.audioParam2 = a2;
    profile.audioParam3 = a3;
    profile.audioFrameDuration = frameDuration;
}

void InfosPutter::putSharedMemSize(int profileID, int size) {
    unboundedProfile(area(SIZE_NOT_ATTACHED), profileID, SIZE_NOT_ATTACHED).sharedMemSize = size;
}

int InfosPutter::getConn() {
    return area(CONN_NOT_ATTACHED)->currentTotalConnections;
}

unsigned char* InfosPutter::GetSDPHeader(int profileID) {
    return reinterpret_cast<unsigned char*>(&unboundedProfile(area(CONN_NOT_ATTACHED), profileID, CONN_NOT_ATTACHED).sdp);
}

int forceReleaseShm(int key) {
    int id = shmget(key, INFOS_AREA_SIZE, CREATE_OR_OPEN);
    if (id == -1) return id;
    return shmctl(id, IPC_RMID, nullptr);
}
