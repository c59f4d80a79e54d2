// The information area: one 6552-byte segment under key 1168 in which the encoder
// publishes its media profiles and the connection budget, and where servers take
// and return weighted connection slots ("slats") and list the active users.
//
// A C program may include this header: it then sees only the three active-user
// functions at the end.
#pragma once

#ifdef __cplusplus

#include <avpool/common.h>

#include <cstddef>
#include <cstdint>

constexpr int INFOS_KEY = 0x490;  // 1168, used by every process of the system
constexpr int INFOS_AREA_SIZE = 6552;
constexpr int MAX_MEDIA_POOL = 5;
constexpr int MAX_USER_SLATS = 10;
constexpr int FREE_SLAT_ID = 32767;
constexpr int USER_SLAT_SIZE = 108;

/*
 * Segment (6552 bytes):
 *
 *   0      12                         1092             1132                                6552
 *   +------+--------------------------+----------------+-----------------------------------+
 *   | 3    | UserSlat x 10            | slatWeight     | MediaProfileInfo x 5              |
 *   | ints | 108 bytes each           | int32 x 10     | 1084 bytes each                   |
 *   +------+--------------------------+----------------+-----------------------------------+
 *
 *   MediaProfileInfo:  0      44                                                        1084
 *                      +------+---------------------------------------------------------+
 *                      | 11   | SDPBlock: word, header text, SPS, size, PPS, size,      |
 *                      | ints | VOL, size (written by the encoder in place)             |
 *                      +------+---------------------------------------------------------+
 */
struct UserSlat {
    int32_t slatID;  // its own index when in use, 32767 when free
    int32_t userType;
    char userName[32];
    char userInfo[64];
    int32_t loginTime;  // seconds since 1970 when allocated
};
static_assert(sizeof(UserSlat) == USER_SLAT_SIZE, "UserSlat is not USER_SLAT_SIZE (108) bytes");
static_assert(offsetof(UserSlat, slatID) == 0, "UserSlat.slatID is not at 0");
static_assert(offsetof(UserSlat, userType) == 4, "UserSlat.userType is not at 4");
static_assert(offsetof(UserSlat, userName) == 8, "UserSlat.userName is not at 8");
static_assert(offsetof(UserSlat, userInfo) == 40, "UserSlat.userInfo is not at 40");
static_assert(offsetof(UserSlat, loginTime) == 104, "UserSlat.loginTime is not at 104");

struct SDPBlock {
    int32_t sdpBlockWord;
    char sdpHeader[256];
    unsigned char sps[256];
    int32_t spsSize;
    unsigned char pps[256];
    int32_t ppsSize;
    unsigned char vol[256];
    int32_t volSize;
};
static_assert(sizeof(SDPBlock) == 1040, "SDPBlock is not 1040 bytes");
static_assert(offsetof(SDPBlock, sdpBlockWord) == 0, "SDPBlock.sdpBlockWord is not at 0");
static_assert(offsetof(SDPBlock, sdpHeader) == 4, "SDPBlock.sdpHeader is not at 4");
static_assert(offsetof(SDPBlock, sps) == 260, "SDPBlock.sps is not at 260");
static_assert(offsetof(SDPBlock, spsSize) == 516, "SDPBlock.spsSize is not at 516");
static_assert(offsetof(SDPBlock, pps) == 520, "SDPBlock.pps is not at 520");
static_assert(offsetof(SDPBlock, ppsSize) == 776, "SDPBlock.ppsSize is not at 776");
static_assert(offsetof(SDPBlock, vol) == 780, "SDPBlock.vol is not at 780");
static_assert(offsetof(SDPBlock, volSize) == 1036, "SDPBlock.volSize is not at 1036");

struct MediaProfileInfo {
    int32_t state;
    int32_t channel;  // the media pool channel of this profile
    int32_t infoParam3;
    int32_t width;
    int32_t height;
    int32_t videoParam3;
    int32_t audioParam1;
    int32_t audioParam2;
    int32_t audioParam3;
    int32_t audioFrameDuration;
    int32_t sharedMemSize;
    SDPBlock sdp;
};
static_assert(sizeof(MediaProfileInfo) == 1084, "MediaProfileInfo is not 1084 bytes");
static_assert(offsetof(MediaProfileInfo, state) == 0, "MediaProfileInfo.state is not at 0");
static_assert(offsetof(MediaProfileInfo, channel) == 4, "MediaProfileInfo.channel is not at 4");
static_assert(offsetof(MediaProfileInfo, infoParam3) == 8, "MediaProfileInfo.infoParam3 is not at 8");
static_assert(offsetof(MediaProfileInfo, width) == 12, "MediaProfileInfo.width is not at 12");
static_assert(offsetof(MediaProfileInfo, height) == 16, "MediaProfileInfo.height is not at 16");
static_assert(offsetof(MediaProfileInfo, videoParam3) == 20, "MediaProfileInfo.videoParam3 is not at 20");
static_assert(offsetof(MediaProfileInfo, audioParam1) == 24, "MediaProfileInfo.audioParam1 is not at 24");
static_assert(offsetof(MediaProfileInfo, audioParam2) == 28, "MediaProfileInfo.audioParam2 is not at 28");
static_assert(offsetof(MediaProfileInfo, audioParam3) == 32, "MediaProfileInfo.audioParam3 is not at 32");
static_assert(offsetof(MediaProfileInfo, audioFrameDuration) == 36, "MediaProfileInfo.audioFrameDuration is not at 36");
static_assert(offsetof(MediaProfileInfo, sharedMemSize) == 40, "MediaProfileInfo.sharedMemSize is not at 40");
static_assert(offsetof(MediaProfileInfo, sdp) == 44, "MediaProfileInfo.sdp is not at 44");

struct InfoArea {
    int32_t sizeofPools;
    int32_t maxConn;
    int32_t currentTotalConnections;
    UserSlat slats[MAX_USER_SLATS];
    int32_t slatWeight[MAX_USER_SLATS];
    MediaProfileInfo profiles[MAX_MEDIA_POOL];
};
static_assert(sizeof(InfoArea) == INFOS_AREA_SIZE, "InfoArea is not INFOS_AREA_SIZE (6552) bytes");
static_assert(offsetof(InfoArea, sizeofPools) == 0, "InfoArea.sizeofPools is not at 0");
static_assert(offsetof(InfoArea, maxConn) == 4, "InfoArea.maxConn is not at 4");
static_assert(offsetof(InfoArea, currentTotalConnections) == 8, "InfoArea.currentTotalConnections is not at 8");
static_assert(offsetof(InfoArea, slats) == 12, "InfoArea.slats is not at 12");
static_assert(offsetof(InfoArea, slatWeight) == 1092, "InfoArea.slatWeight is not at 1092");
static_assert(offsetof(InfoArea, profiles) == 1132, "InfoArea.profiles is not at 1132");

class AVPOOL_API InfosPutterError : public avpool::PoolError {
public:
    using avpool::PoolError::PoolError;
};

class AVPOOL_API InfosGetterError : public avpool::PoolError {
public:
    using avpool::PoolError::PoolError;
};

// The encoder's side: creates and clears the area and publishes into it.
// Beside the segment it creates a one-semaphore set under the same key that
// serialises the budget and slat operations of all servers. Errors are
// InfosPutterError with the texts below; a put before init throws and changes
// nothing.
class AVPOOL_API InfosPutter {
public:
    InfosPutter();
    // Calls release(): the area goes with its putter.
    virtual ~InfosPutter();
    InfosPutter(const InfosPutter&) = delete;
    InfosPutter& operator=(const InfosPutter&) = delete;

    // Creates the lock set and the 6552-byte area under key (1168 on a
    // device), zero-filled; an area left under the key is removed and creation
    // tried once more. Throws "InfosPutter::init programming error" when this
    // object already holds an area, else "InfosPutter::init semget failed",
    // "InfosPutter::init shmget failed" or "InfosPutter::init shmat failed"
    // (each after perror of the same text), or "semctl failed.".
    void init(int key);
    // Detaches and removes the area and its lock set; reports nothing.
    void release();

    // The number of profiles published (not bounded). Before init:
    // "InfosPutter::putVideoState programming error".
    void putSizeofPools(int n);
    // The connection budget, at most 10 units; frees slats 0 to n - 1. Before
    // init: "InfosPutter::putVideoState programming error".
    void putMaxConn(int n);
    // A profile's state (2 once streaming), pool channel and infoParam3 (1 for
    // JPEG). Throws "InfosPutter::putVideoInfo programming error" before init
    // and "InfosPutter::putVideoInfo profileID exceed MAX_MEDIA_POOL" for a
    // profile ID of 5 or more.
    void putInfo(int profileID, int state, int channel, int param3);
    // A profile's state; its picture width, height and third value, each only
    // when positive; its audio parameters and fragment duration. Throw
    // "InfosPutter::putVideoState programming error" before init and
    // "InfosPutter::putVideoState profileID exceed MAX_MEDIA_POOL" for a
    // profile ID of 5 or more.
    void putState(int profileID, int state);
    void putVideoInfo(int profileID, int width, int height, int param3);
    void putAudioInfo(int profileID, int a1, int a2, int a3, int frameDuration);
    // The size of a profile's pool segment. Throws "InfosPutter::putSharedMemSize
    // programming error" before init or for a profile outside the area.
    void putSharedMemSize(int profileID, int size);
    // The connection units taken now. Throws "InfosPutter::getConn
    // programming error" before init.
    int getConn();
    // The profile's SDPBlock, for the encoder to write the SDP header text, SPS,
    // PPS, VOL and their sizes in place. Throws "InfosPutter::getConn
    // programming error" before init or for a profile outside the area.
    unsigned char* GetSDPHeader(int profileID);

private:
    InfoArea* area(const char* notAttachedText);

    int shmid_ = -1;
    InfoArea* shmAddr_;
    int lockId_ = -1;
};

// Removes the information area under key (creating it first if absent).
// Returns shmctl's result (0), or -1 when the segment cannot be had.
AVPOOL_API int forceReleaseShm(int key);

// A server's side: reads the published parameters, takes and returns slats.
// Errors are InfosGetterError with the texts below. The budget and slat
// operations hold the area's lock when the encoder created one, and as they
// take it they heal the budget: a slat whose taker died in the middle of
// changing it goes back to free, and the slats of a dead process that took
// them with autoReturn are returned.
class AVPOOL_API InfosGetter {
public:
    InfosGetter();
    // Calls release() with the slat of the last takeConn.
    virtual ~InfosGetter();
    InfosGetter(const InfosGetter&) = delete;
    InfosGetter& operator=(const InfosGetter&) = delete;

    // Attaches to the area under key (1168 on a device), first releasing one
    // this object held. Throws "shmget failed." when no encoder created it,
    // else "shmat failed." (each after perror).
    void init(int key);
    // Returns slat first when this object took it with autoReturn, then detaches.
    void release(int slat);

    // Connection budget.
    // Whether weight more units fit strictly below maxConn (a request that
    // exactly fills the budget does not). Before init: "programming error\n"
    // on stderr and false.
    bool probeConn(int weight);
    // Takes the first free slat for a client of weight units: userName (31
    // bytes kept) and userInfo (63), userType, the login time. With autoReturn
    // this object's release gives it back, and so does the budget when this
    // process dies; without, the slat outlives its taker until someone returns
    // it. Returns the slat (0 to 9). Throws
    // "programming error" before init, "no more slat." when the weight would
    // pass maxConn, "slat alloc fail." when no slat below maxConn is free.
    int takeConn(const char* userName, const char* userInfo, int userType, int weight, bool autoReturn);
    // Frees slat and takes its weight off the budget; a negative or unknown
    // slat changes nothing. Before init: "programming error\n" on stderr only.
    void retConn(int slat);
    // Frees every slat and sets the budget taken to 0. Throws "programming
    // error" (with "programming error\n" on stderr) before init.
    void resetAllConnections();
    // maxConn and the units taken now. Throw "programming error" before init.
    int getMaxConnections();
    int getCurrentTotalConnections();

    // Stream parameters.
    // The number of published profiles. Throws "programming error" (with
    // "programming error\n" on stderr) before init.
    int getSizeofPools();
    // A published profile's state, channel and infoParam3; its state; its
    // picture width, height and third value; its audio parameters; the weight
    // of one of its clients (3 up to 640 x 480 pixels, else 4). Throw
    // "programming error" (with "programming error\n" on stderr) before init
    // or for a profile ID not below sizeofPools.
    void getInfo(int profileID, int& state, int& channel, int& param3);
    int getState(int profileID);
    void getVideoInfo(int profileID, int& width, int& height, int& param3);
    void getAudioInfo(int profileID, int& a1, int& a2, int& a3);
    int getUseSSLWeight(int profileID);
    // A profile's values whatever sizeofPools says: its audio fragment
    // duration, pool segment size, SDP header text, SPS, PPS and VOL (pointers
    // into the area) and their sizes, which never exceed the 256 bytes of
    // their field nor fall below 0. Before init, or for a profile outside the
    // area, each writes its own text on stderr and throws it:
    // "InfosPutter::getVOLSize programming error" (getAudioFrameDuration and
    // getVOLSize), "InfosPutter::getSharedMemSize programming error",
    // "InfosPutter::getH264SDPHeader programming error", "InfosPutter::getH264SPS
    // programming error", "InfosPutter::getH264SPSSize programming error",
    // "InfosPutter::getH264PPS programming error", "InfosPutter::getH264PPSSize
    // programming error", "InfosPutter::getVOL programming error".
    int getAudioFrameDuration(int profileID);
    int getSharedMemSize(int profileID);
    char* getSDPHeader(int profileID);
    unsigned char* getSPS(int profileID);
    int getSPSSize(int profileID);
    unsigned char* getPPS(int profileID);
    int getPPSSize(int profileID);
    unsigned char* getVOL(int profileID);
    int getVOLSize(int profileID);
    // The segment size of the first of the five profiles on channel (an unused
    // one is on channel 0), or -1. Before init: "InfosPutter::getProfileIDby
    // programming error" on stderr and thrown.
    int getSharedMemSizebyChannel(int channel);

    // User slats, leaving the budget alone; they report by their results only.
    // Fills the first free slat; returns it, or -1 when none is free (or
    // before init).
    int allocUserSlat(const char* userName, const char* userInfo, int weight, int userType);
    // Frees a slat; returns the weight it held, 0 for one out of range (or
    // before init).
    int deleteUserSlat(int slat);
    // Packs the slats in use, 108 bytes each, into buffer as far as size
    // allows; returns how many (0 before init).
    int getUserList(char* buffer, int size);
    // Renames a slat in use (a null text is left as it is); returns 1 for an
    // index out of range (or before init), else 0.
    int resetUserSlat(const char* userName, const char* userInfo, int slat);

private:
    bool attached() const;
    MediaProfileInfo& publishedProfile(int profileID);
    MediaProfileInfo& anyProfile(int profileID, const char* text);

    int shmid_ = -1;
    InfoArea* shmAddr_;
    bool autoReturn_ = false;
    int slatID_ = -1;
    int lockId_ = -1;
    int lockSems_ = 0;
};

extern "C" {
#endif  // __cplusplus

#ifndef AVPOOL_API
#define AVPOOL_API __attribute__((visibility("default")))
#endif

// Active users: slats of weight 1 and type 4 that outlive the process that added
// them, in the information area under key 1168. Failures are reported by the
// result and one line on standard error: "Add_Active_User failed: " (and so
// on) followed by the area's error, e.g. "shmget failed." without an area.

// Takes a slat with userName as its name and userInfo as its information (in
// this order of the arguments); returns the slat, or -1 (also for a null text,
// a full budget "no more slat." or no free slat "slat alloc fail.").
AVPOOL_API int Add_Active_User(char* userInfo, char* userName);
// Frees the slat and takes its weight off the budget; returns 0, or 1 for a
// negative slat or without an area.
AVPOOL_API int Delete_Active_User(int slat);
// Packs the slats in use, 108 bytes each, into buffer as far as size allows;
// returns how many, or -1 for a null buffer or without an area.
AVPOOL_API int Get_Active_User_Table(char* buffer, int size);

#ifdef __cplusplus
}
#endif
