#include <avpool/infos.h>
#include <avpool/jpg.h>

#include <cstring>

namespace {
constexpr int STATE_STREAMING = 2;
constexpr int PARAM3_JPEG = 1;
constexpr int CAPABILITY_PROFILE = 5;
constexpr int SCALE_COUNT = 11;
}  // namespace

int JPGGetter::snapshot(unsigned char* buffer, unsigned int bufferSize, int profileID) {
    JPGGetter getter;
    InfosGetter infos;
    infos.init(INFOS_KEY);
    int state, channel, param3;
    infos.getInfo(profileID, state, channel, param3);
    try {
        getter.init(channel);
        if (bufferSize < static_cast<unsigned int>(getter.maxFrameSize_)) return 0;
        if (state != STATE_STREAMING || param3 != PARAM3_JPEG) return 0;
        int safeTime = 0;
        getter.toWorking(safeTime);
        // 0: the newest picture may still be being written.
        if (safeTime == 0) getter.waitReady();
        getter.getFrame();
        memcpy(buffer, getter.frame.data, getter.frame.frameLength);
        return getter.frame.frameLength;
    } catch (const JPGGetterError&) {
        return 0;
    }
}

int JPGGetter::snapshot(unsigned char*, unsigned int, int, int) {
    return 0;
}

int JPGGetter::getScaleByWidthAndHeight(int width, int height) {
    for (int scale = 0; scale < SCALE_COUNT; ++scale) {
        int w = 0, h = 0, a = 0, b = 0;
        get_real_capability_by_profile_n_scale(w, h, a, b, CAPABILITY_PROFILE, scale);
        if (w == width && h == height) return scale;
    }
    return -1;
}
