// MPEG-4 visual configuration header (visual object sequence, visual object,
// video object and video object layer) for a Simple-profile stream.
#include <avpool/mp4.h>

#include <cstdio>

namespace {

// One pending byte and its bit count, shared by the whole process and reset by
// every gen_mpeg4_header call; the output position belongs to the caller.
unsigned char pendingByte = 0;
int pendingBits = 0;

void resetBits() {
    pendingByte = 0;
    pendingBits = 0;
}

// Appends the n low bits of value, most significant first. A value wider than n
// is not masked: its excess high bits land in the pending byte with the first chunk.
void putBits(unsigned char*& out, int n, unsigned int value) {
    int remaining = n;
    while (remaining > 0) {
        int k = remaining < 8 - pendingBits ? remaining : 8 - pendingBits;
        int rest = remaining - k;
        pendingByte = static_cast<unsigned char>((pendingByte << k) | (value >> rest));
        value &= rest >= 32 ? ~0u : (1u << rest) - 1;
        pendingBits += k;
        remaining = rest;
        if (pendingBits == 8) {
            *out++ = pendingByte;
            resetBits();
        }
    }
}

void putStartCode(unsigned char*& out, unsigned int code) {
    putBits(out, 24, 0x000001);
    putBits(out, 8, code);
}

// A 0 bit then 1 bits up to the byte boundary; nothing when already aligned.
void alignBits(unsigned char*& out) {
    if (pendingBits == 0) return;
    putBits(out, 1, 0);
    while (pendingBits != 0) putBits(out, 1, 1);
}

const unsigned char VISUAL_OBJECT_PREFIX[10] = {0x00, 0x00, 0x01, 0xB0, 0x01, 0x00, 0x00, 0x01, 0xB5, 0x09};
constexpr int PROFILE_LEVEL_OFFSET = 4;

}  // namespace

int count_min_bits(unsigned int value) {
    int bits = 0;
    for (; value != 0; value >>= 1) ++bits;
    return bits;
}

int gen_mpeg4_header(unsigned char* out, int width, int height, int timeIncrementResolution, int fixedVopRate,
                     int fixedVopTimeIncrement, bool resyncMarkerDisable) {
    unsigned char* p = out;
    resetBits();
    putStartCode(p, 0x00);  // video_object_start_code
    putStartCode(p, 0x20);  // video_object_layer_start_code
    putBits(p, 1, 0);       // random_accessible_vol
    putBits(p, 8, 1);       // video_object_type_indication: simple
    putBits(p, 1, 1);       // is_object_layer_identifier
    putBits(p, 4, 1);       // video_object_layer_verid
    putBits(p, 3, 1);       // video_object_layer_priority
    putBits(p, 4, 1);       // aspect_ratio_info: 1:1
    putBits(p, 1, 0);       // vol_control_parameters
    putBits(p, 2, 0);       // video_object_layer_shape: rectangular
    putBits(p, 1, 1);       // marker
    putBits(p, 16, static_cast<unsigned int>(timeIncrementResolution));
    putBits(p, 1, 1);  // marker
    putBits(p, 1, fixedVopRate != 0 ? 1 : 0);
    // The increment is as wide as the resolution itself needs, not resolution - 1:
    // one bit more than necessary for powers of two.
    if (fixedVopRate != 0)
        putBits(p, count_min_bits(static_cast<unsigned int>(timeIncrementResolution)),
                static_cast<unsigned int>(fixedVopTimeIncrement));
    putBits(p, 1, 1);  // marker
    putBits(p, 13, static_cast<unsigned int>(width));
    putBits(p, 1, 1);  // marker
    putBits(p, 13, static_cast<unsigned int>(height));
    putBits(p, 1, 1);  // marker
    putBits(p, 1, 0);  // interlaced
    putBits(p, 1, 1);  // obmc_disable
    putBits(p, 1, 0);  // sprite_enable
    putBits(p, 1, 0);  // not_8_bit
    putBits(p, 1, 0);  // quant_type
    putBits(p, 1, 1);  // complexity_estimation_disable
    putBits(p, 1, resyncMarkerDisable ? 1 : 0);
    putBits(p, 1, 0);  // data_partitioned
    putBits(p, 1, 0);  // scalability
    alignBits(p);
    return static_cast<int>(p - out);
}

int fill_mpeg4_vol_header(unsigned char* out, unsigned char profileLevel, int width, int height,
                          int timeIncrementResolution, bool fixedVopRate, int fixedVopTimeIncrement) {
    for (int i = 0; i < 10; ++i) out[i] = VISUAL_OBJECT_PREFIX[i];
    out[PROFILE_LEVEL_OFFSET] = profileLevel;
    return 10 + gen_mpeg4_header(out + 10, width, height, timeIncrementResolution, fixedVopRate,
                                 fixedVopRate ? fixedVopTimeIncrement : 0, false);
}

int fill_mpeg4_vol_hex(char* out, unsigned char profileLevel, int width, int height, int timeIncrementResolution,
                       bool fixedVopRate, int fixedVopTimeIncrement) {
    unsigned char bytes[64];
    int count = fill_mpeg4_vol_header(bytes, profileLevel, width, height, timeIncrementResolution, fixedVopRate,
                                      fixedVopTimeIncrement);
    for (int i = 0; i < count; ++i) snprintf(out + 2 * i, 3, "%02X", bytes[i]);
    out[2 * count] = '\0';
    return 2 * count;
}
