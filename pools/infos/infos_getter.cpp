#include <avpool/infos.h>

#include "../common/errors.h"
#include "../common/process_lock.h"
#include "../common/segment.h"
#include "area.h"
#include "budget.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <sys/shm.h>

using namespace avpool::detail;

namespace {
constexpr Raise raise = raiseAs<InfosGetterError>;
constexpr const char* PROGRAMMING_ERROR = "programming error";

bool slatInUse(const InfoArea* area, int i) {
    return area->slats[i].slatID != FREE_SLAT_ID && area->slatWeight[i] != 0;
}

// The two texts are copied as strncpy does: at most 31 and 63 bytes, the rest of
// those bytes padded with NULs; the last byte of each field stays 0.
void writeNames(UserSlat& slat, const char* userName, const char* userInfo) {
    if (userName != nullptr) strncpy(slat.userName, userName, sizeof slat.userName - 1);
    if (userInfo != nullptr) strncpy(slat.userInfo, userInfo, sizeof slat.userInfo - 1);
}

// A blob's size as the encoder wrote it, but never more than its 256-byte field
// (nor below 0): a caller reads that many bytes from the blob's address.
int blobSize(int32_t size) {
    constexpr int32_t field = sizeof(SDPBlock::sps);
    return size < 0 ? 0 : size > field ? field : size;
}

void takeBack(InfoArea* area, int weight) {
    area->currentTotalConnections = wrappingSub(area->currentTotalConnections, weight);
    if (area->currentTotalConnections < 0) area->currentTotalConnections = 0;
}

// The slat operations proper; the public methods hold the budget's lock around
// them and make each change of a slat inside the journal's mark.
int freeSlat(const InfoArea* area) {
    for (int i = 0; i < area->maxConn && i < MAX_USER_SLATS; ++i)
        if (area->slats[i].slatID == FREE_SLAT_ID && area->slatWeight[i] == 0) return i;
    return -1;
}

void fillSlat(InfoArea* area, int i, const char* userName, const char* userInfo, int weight, int userType) {
    UserSlat& slat = area->slats[i];
    slat.slatID = i;
    writeNames(slat, userName, userInfo);
    slat.userType = userType;
    slat.loginTime = static_cast<int32_t>(time(nullptr));
    area->slatWeight[i] = weight;
}

int allocSlat(BudgetSession& budget, InfoArea* area, const char* userName, const char* userInfo, int weight,
              int userType, bool holdIt = false, int32_t addToTotal = 0) {
    int i = freeSlat(area);
    if (i < 0) return -1;
    budget.change(i, [&] {
        fillSlat(area, i, userName, userInfo, weight, userType);
        area->currentTotalConnections = wrappingAdd(area->currentTotalConnections, addToTotal);
        budget.setHolder(i, holdIt);
    });
    return i;
}

// Slats at maxConn and above are left alone.
int deleteSlat(BudgetSession& budget, InfoArea* area, int i, bool takeBackWeight = false) {
    if (i < 0 || i >= area->maxConn || i >= MAX_USER_SLATS) return 0;
    int weight = 0;
    budget.change(i, [&] {
        weight = clearSlat(area, i);
        if (takeBackWeight) takeBack(area, weight);
        budget.setHolder(i, false);
    });
    return weight;
}

// Whether weight more units fit, compared without overflow.
bool fits(const InfoArea* area, int weight, bool strict) {
    int64_t wanted = int64_t{area->currentTotalConnections} + weight;
    return strict ? wanted < area->maxConn : wanted <= area->maxConn;
}

}  // namespace

InfosGetter::InfosGetter() : shmAddr_(notAttached<InfoArea>()) {}

InfosGetter::~InfosGetter() {
    release(slatID_);
}

void InfosGetter::init(int key) {
    // Attaching again first gives back what this object holds, like release.
    if (attached()) release(slatID_);
    shmAddr_ = static_cast<InfoArea*>(openPoolSegment(shmid_, key, INFOS_AREA_SIZE, AttachFailure::MinusOne, raise));
    // An area made by an encoder that creates no lock is used unlocked.
    lockId_ = findProcessLock(key);
    lockSems_ = budgetSems(lockId_);
}

bool InfosGetter::attached() const {
    return isAttached(shmAddr_);
}

void InfosGetter::release(int slat) {
    if (autoReturn_) {
        retConn(slat);
        autoReturn_ = false;
    }
    detachSegment(shmid_, shmAddr_, notAttached<InfoArea>());
    lockId_ = -1;
    lockSems_ = 0;
}

// A request that would exactly fill the budget does not fit here, though
// takeConn accepts it. It takes the lock only to heal what dead holders left.
bool InfosGetter::probeConn(int weight) {
    if (!attached()) {
        fputs("programming error\n", stderr);
        return false;
    }
    BudgetSession budget(lockId_, lockSems_, shmAddr_);
    return fits(shmAddr_, weight, true);
}

int InfosGetter::takeConn(const char* userName, const char* userInfo, int userType, int weight, bool autoReturn) {
    if (!attached()) raise(PROGRAMMING_ERROR);
    BudgetSession budget(lockId_, lockSems_, shmAddr_);
    if (!fits(shmAddr_, weight, false)) raise("no more slat.");
    // A slat returned automatically belongs to this process: if it dies
    // holding it, the budget gets it back.
    slatID_ = allocSlat(budget, shmAddr_, userName, userInfo, weight, userType, autoReturn, weight);
    if (slatID_ < 0) raise("slat alloc fail.");
    autoReturn_ = autoReturn;
    return slatID_;
}

void InfosGetter::retConn(int slat) {
    if (slat < 0) return;
    if (!attached()) {
        fputs("programming error\n", stderr);
        return;
    }
    BudgetSession budget(lockId_, lockSems_, shmAddr_);
    deleteSlat(budget, shmAddr_, slat, true);
}

void InfosGetter::resetAllConnections() {
    if (!attached()) programmingError(raise);
    BudgetSession budget(lockId_, lockSems_, shmAddr_);
    for (int i = 0; i < shmAddr_->maxConn && i < MAX_USER_SLATS; ++i) {
        budget.change(i, [&] {
            int32_t& total = shmAddr_->currentTotalConnections;
            total = wrappingSub(total, clearSlat(shmAddr_, i));
            budget.setHolder(i, false);
        });
    }
    takeBack(shmAddr_, 0);
}

int InfosGetter::getMaxConnections() {
    if (!attached()) raise(PROGRAMMING_ERROR);
    return shmAddr_->maxConn;
}

int InfosGetter::getCurrentTotalConnections() {
    if (!attached()) raise(PROGRAMMING_ERROR);
    BudgetSession budget(lockId_, lockSems_, shmAddr_);
    return shmAddr_->currentTotalConnections;
}

int InfosGetter::getSizeofPools() {
    if (!attached()) programmingError(raise);
    return shmAddr_->sizeofPools;
}

// Bounded by the number of profiles the encoder published, a signed test.
MediaProfileInfo& InfosGetter::publishedProfile(int profileID) {
    if (!attached() || profileID >= shmAddr_->sizeofPools) programmingError(raise);
    MediaProfileInfo* record = profileRecord(shmAddr_, profileID);
    if (record == nullptr) programmingError(raise);
    return *record;
}

// The other accessors take the ID on trust; only one whose record is outside the
// segment is refused, with the accessor's own text.
MediaProfileInfo& InfosGetter::anyProfile(int profileID, const char* text) {
    MediaProfileInfo* record = attached() ? profileRecord(shmAddr_, profileID) : nullptr;
    if (record == nullptr) reportedError(text, raise, Newline::No);
    return *record;
}

void InfosGetter::getInfo(int profileID, int& state, int& channel, int& param3) {
    const MediaProfileInfo& profile = publishedProfile(profileID);
    state = profile.state;
    channel = profile.channel;
    param3 = profile.infoParam3;
}

int InfosGetter::getState(int profileID) {
    return publishedProfile(profileID).state;
}

void InfosGetter::getVideoInfo(int profileID, int& width, int& height, int& param3) {
    const MediaProfileInfo& profile = publishedProfile(profileID);
    width = profile.width;
    height = profile.height;
    param3 = profile.videoParam3;
}

void InfosGetter::getAudioInfo(int profileID, int& a1, int& a2, int& a3) {
    const MediaProfileInfo& profile = publishedProfile(profileID);
    a1 = profile.audioParam1;
    a2 = profile.audioParam2;
    a3 = profile.audioParam3;
}

// Up to 640 x 480 pixels a client counts 3 units, above that 4. The product is
// the 32-bit one the encoder's firmware computes, wrapping included.
int InfosGetter::getUseSSLWeight(int profileID) {
    int width, height, param3;
    getVideoInfo(profileID, width, height, param3);
    int32_t pixels = static_cast<int32_t>(static_cast<uint32_t>(width) * static_cast<uint32_t>(height));
    return pixels < 307201 ? 3 : 4;
}

int InfosGetter::getAudioFrameDuration(int profileID) {
    return anyProfile(profileID, "InfosPutter::getVOLSize programming error").audioFrameDuration;
}

int InfosGetter::getSharedMemSize(int profileID) {
    return anyProfile(profileID, "InfosPutter::getSharedMemSize programming error").sharedMemSize;
}

// All five records are looked at whatever sizeofPools says; unused ones have
// channel 0, so a query for channel 0 can match one of them.
int InfosGetter::getSharedMemSizebyChannel(int channel) {
    if (!attached()) reportedError("InfosPutter::getProfileIDby programming error", raise, Newline::No);
    for (const MediaProfileInfo& profile : shmAddr_->profiles)
        if (profile.channel == channel) return profile.sharedMemSize;
    return -1;
}

// The text after the block's first word: 4 bytes on from the encoder's pointer.
char* InfosGetter::getSDPHeader(int profileID) {
    return anyProfile(profileID, "InfosPutter::getH264SDPHeader programming error").sdp.sdpHeader;
}

unsigned char* InfosGetter::getSPS(int profileID) {
    return anyProfile(profileID, "InfosPutter::getH264SPS programming error").sdp.sps;
}

int InfosGetter::getSPSSize(int profileID) {
    return blobSize(anyProfile(profileID, "InfosPutter::getH264SPSSize programming error").sdp.spsSize);
}

unsigned char* InfosGetter::getPPS(int profileID) {
    return anyProfile(profileID, "InfosPutter::getH264PPS programming error").sdp.pps;
}

int InfosGetter::getPPSSize(int profileID) {
    return blobSize(anyProfile(profileID, "InfosPutter::getH264PPSSize programming error").sdp.ppsSize);
}

unsigned char* InfosGetter::getVOL(int profileID) {
    return anyProfile(profileID, "InfosPutter::getVOL programming error").sdp.vol;
}

int InfosGetter::getVOLSize(int profileID) {
    return blobSize(anyProfile(profileID, "InfosPutter::getVOLSize programming error").sdp.volSize);
}

// The slat operations report by their results only; on an unattached getter
// they give their "nothing done" result.
int InfosGetter::allocUserSlat(const char* userName, const char* userInfo, int weight, int userType) {
    if (!attached()) return -1;
    BudgetSession budget(lockId_, lockSems_, shmAddr_);
    return allocSlat(budget, shmAddr_, userName, userInfo, weight, userType);
}

int InfosGetter::deleteUserSlat(int slat) {
    if (!attached()) return 0;
    BudgetSession budget(lockId_, lockSems_, shmAddr_);
    return deleteSlat(budget, shmAddr_, slat);
}

int InfosGetter::getUserList(char* buffer, int size) {
    if (!attached() || buffer == nullptr) return 0;
    BudgetSession budget(lockId_, lockSems_, shmAddr_);
    int count = 0;
    for (int i = 0; i < shmAddr_->maxConn && i < MAX_USER_SLATS && size >= USER_SLAT_SIZE; ++i) {
        if (!slatInUse(shmAddr_, i)) continue;
        memcpy(buffer, &shmAddr_->slats[i], USER_SLAT_SIZE);
        buffer += USER_SLAT_SIZE;
        size -= USER_SLAT_SIZE;
        ++count;
    }
    return count;
}

// 0 also when the slat is free and nothing was done: only an index out of range
// is reported.
int InfosGetter::resetUserSlat(const char* userName, const char* userInfo, int slat) {
    if (!attached()) return 1;
    if (slat < 0 || slat >= shmAddr_->maxConn || slat >= MAX_USER_SLATS) return 1;
    BudgetSession budget(lockId_, lockSems_, shmAddr_);
    if (slatInUse(shmAddr_, slat)) writeNames(shmAddr_->slats[slat], userName, userInfo);
    return 0;
}
