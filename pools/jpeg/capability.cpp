// Stand-in for the device library's capability query, used when no device
// library is linked. Weak, so the device's own definition replaces it.
#include <avpool/jpg.h>

namespace {
struct Capability {
    int width;
    int height;
    int maxFPS;
};
constexpr Capability SCALES[] = {
    {1920, 1080, 30}, {1280, 720, 30}, {800, 600, 30}, {640, 480, 30}, {640, 360, 30}, {320, 240, 30}, {176, 144, 15},
};
constexpr int SCALE_COUNT = sizeof SCALES / sizeof SCALES[0];
}  // namespace

__attribute__((weak)) int get_real_capability_by_profile_n_scale(int& width, int& height, int& a, int& b,
                                                                  int /*profile*/, int scale) {
    if (scale < 0 || scale >= SCALE_COUNT) {
        width = height = a = b = 0;
        return -1;
    }
    width = SCALES[scale].width;
    height = SCALES[scale].height;
    a = SCALES[scale].maxFPS;
    b = 0;
    return 0;
}
