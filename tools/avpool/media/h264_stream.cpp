#include "h264_stream.h"

#include <string>

namespace avpool::media {

namespace {

constexpr int NAL_SLICE = 1;
constexpr int NAL_IDR = 5;
constexpr int NAL_SEI = 6;
constexpr int NAL_SPS = 7;
constexpr int NAL_PPS = 8;
constexpr int NAL_AUD = 9;

// Reads the RBSP bit by bit, most significant first; running past the end is
// a format error, not a read of zeros.
class BitReader {
public:
    BitReader(const std::vector<unsigned char>& bytes, const char* what) : bytes_(bytes), what_(what) {}

    unsigned bit() {
        if (pos_ >= bytes_.size() * 8) throw FormatError(std::string(what_) + " is cut short");
        unsigned value = (bytes_[pos_ / 8] >> (7 - pos_ % 8)) & 1;
        ++pos_;
        return value;
    }
    unsigned bits(int count) {
        unsigned value = 0;
        for (int i = 0; i < count; ++i) value = (value << 1) | bit();
        return value;
    }
    // Exp-Golomb ue(v): leading zeros, a one, then as many bits.
    unsigned ue() {
        int zeros = 0;
        while (bit() == 0)
            if (++zeros > 31) throw FormatError(std::string(what_) + " has an exp-Golomb code over 32 bits");
        return ((1u << zeros) - 1) + bits(zeros);
    }
    int se() {
        unsigned code = ue();
        return (code & 1) ? static_cast<int>((code + 1) / 2) : -static_cast<int>(code / 2);
    }

private:
    const std::vector<unsigned char>& bytes_;
    const char* what_;
    size_t pos_ = 0;
};

bool isVcl(int type) { return type >= NAL_SLICE && type <= NAL_IDR; }

// Skips a scaling_list() of the given size.
void skipScalingList(BitReader& in, int size) {
    int last = 8;
    int next = 8;
    for (int j = 0; j < size; ++j) {
        if (next != 0) next = (last + in.se() + 256) % 256;
        last = next == 0 ? last : next;
    }
}

// The profiles whose SPS carries chroma format, bit depths and scaling lists.
bool hasChromaInfo(unsigned profile) {
    switch (profile) {
    case 100: case 110: case 122: case 244: case 44: case 83: case 86: case 118: case 128: case 138:
    case 139: case 134: case 135:
        return true;
    default:
        return false;
    }
}

void readVuiTiming(BitReader& in, SpsInfo& info) {
    if (in.bit()) {  // aspect_ratio_info_present_flag
        if (in.bits(8) == 255) in.bits(32);  // Extended_SAR: sar_width, sar_height
    }
    if (in.bit()) in.bit();  // overscan_info_present_flag, overscan_appropriate_flag
    if (in.bit()) {          // video_signal_type_present_flag
        in.bits(4);          // video_format, video_full_range_flag
        if (in.bit()) in.bits(24);  // colour primaries, transfer, matrix
    }
    if (in.bit()) {  // chroma_loc_info_present_flag
        in.ue();
        in.ue();
    }
    if (in.bit()) {  // timing_info_present_flag
        unsigned unitsInTick = in.bits(32);
        unsigned timeScale = in.bits(32);
        if (unitsInTick > 0) info.fps = static_cast<int>(timeScale / (2 * static_cast<unsigned long long>(unitsInTick)));
    }
}

}  // namespace

bool startsWithStartCode(const unsigned char* data, size_t size) {
    if (size >= 3 && data[0] == 0 && data[1] == 0 && data[2] == 1) return true;
    return size >= 4 && data[0] == 0 && data[1] == 0 && data[2] == 0 && data[3] == 1;
}

std::vector<NalUnit> findNalUnits(const unsigned char* data, size_t size) {
    std::vector<NalUnit> units;
    size_t i = 0;
    while (i + 2 < size) {
        if (data[i] != 0 || data[i + 1] != 0 || data[i + 2] != 1) {
            ++i;
            continue;
        }
        size_t start = (i > 0 && data[i - 1] == 0) ? i - 1 : i;
        if (!units.empty()) units.back().end = start;
        units.push_back({start, i + 3, size, 0});
        i += 3;
    }
    for (const NalUnit& unit : units) {
        if (unit.payload >= unit.end)
            throw FormatError("empty NAL unit at byte " + std::to_string(unit.offset));
        unsigned char header = data[unit.payload];
        if (header & 0x80)
            throw FormatError("NAL unit at byte " + std::to_string(unit.offset) + " has its forbidden bit set");
    }
    for (NalUnit& unit : units) unit.type = data[unit.payload] & 0x1F;
    return units;
}

std::vector<unsigned char> unescapeRbsp(const unsigned char* data, size_t size) {
    std::vector<unsigned char> rbsp;
    rbsp.reserve(size);
    int zeros = 0;
    for (size_t i = 1; i < size; ++i) {  // byte 0 is the NAL header
        if (zeros >= 2 && data[i] == 3) {
            zeros = 0;
            continue;
        }
        zeros = data[i] == 0 ? zeros + 1 : 0;
        rbsp.push_back(data[i]);
    }
    return rbsp;
}

SpsInfo parseSps(const unsigned char* nal, size_t size) {
    std::vector<unsigned char> rbsp = unescapeRbsp(nal, size);
    BitReader in(rbsp, "sequence parameter set");
    unsigned profile = in.bits(8);
    in.bits(16);  // constraint flags, level_idc
    in.ue();      // seq_parameter_set_id
    unsigned chromaFormat = 1;
    bool separatePlanes = false;
    if (hasChromaInfo(profile)) {
        chromaFormat = in.ue();
        if (chromaFormat > 3) throw FormatError("sequence parameter set has chroma format " + std::to_string(chromaFormat));
        if (chromaFormat == 3) separatePlanes = in.bit();
        in.ue();  // bit_depth_luma_minus8
        in.ue();  // bit_depth_chroma_minus8
        in.bit();  // qpprime_y_zero_transform_bypass_flag
        if (in.bit()) {  // seq_scaling_matrix_present_flag
            int lists = chromaFormat == 3 ? 12 : 8;
            for (int i = 0; i < lists; ++i)
                if (in.bit()) skipScalingList(in, i < 6 ? 16 : 64);
        }
    }
    in.ue();  // log2_max_frame_num_minus4
    unsigned pocType = in.ue();
    if (pocType == 0) {
        in.ue();  // log2_max_pic_order_cnt_lsb_minus4
    } else if (pocType == 1) {
        in.bit();  // delta_pic_order_always_zero_flag
        in.se();   // offset_for_non_ref_pic
        in.se();   // offset_for_top_to_bottom_field
        unsigned cycle = in.ue();
        if (cycle > 255) throw FormatError("sequence parameter set has a picture order cycle of " + std::to_string(cycle));
        for (unsigned i = 0; i < cycle; ++i) in.se();
    }
    in.ue();   // max_num_ref_frames
    in.bit();  // gaps_in_frame_num_value_allowed_flag
    unsigned widthInMbs = in.ue() + 1;
    unsigned heightInMapUnits = in.ue() + 1;
    unsigned frameMbsOnly = in.bit();
    if (!frameMbsOnly) in.bit();  // mb_adaptive_frame_field_flag
    in.bit();                     // direct_8x8_inference_flag
    unsigned cropLeft = 0, cropRight = 0, cropTop = 0, cropBottom = 0;
    if (in.bit()) {
        cropLeft = in.ue();
        cropRight = in.ue();
        cropTop = in.ue();
        cropBottom = in.ue();
    }
    if (widthInMbs > 1024 || heightInMapUnits > 1024)
        throw FormatError("sequence parameter set has a picture of " + std::to_string(widthInMbs) + " x " +
                          std::to_string(heightInMapUnits) + " macroblocks");
    // Cropping is in chroma sample units: 4:2:0 halves both ways, 4:2:2 only
    // across; field coding doubles the vertical unit.
    unsigned arrayType = separatePlanes ? 0 : chromaFormat;
    unsigned cropUnitX = arrayType == 0 ? 1 : (arrayType == 3 ? 1 : 2);
    unsigned cropUnitY = (arrayType == 1 ? 2 : 1) * (2 - frameMbsOnly);
    long width = static_cast<long>(widthInMbs) * 16 - static_cast<long>(cropUnitX) * (cropLeft + cropRight);
    long height = static_cast<long>(2 - frameMbsOnly) * heightInMapUnits * 16 -
                  static_cast<long>(cropUnitY) * (cropTop + cropBottom);
    if (width <= 0 || height <= 0) throw FormatError("sequence parameter set crops the whole picture away");
    SpsInfo info;
    info.width = static_cast<int>(width);
    info.height = static_cast<int>(height);
    if (in.bit()) readVuiTiming(in, info);
    return info;
}

unsigned readFirstMbInSlice(const unsigned char* nal, size_t size) {
    // ue(v) of at most 32 bits lies within the first few bytes.
    std::vector<unsigned char> rbsp = unescapeRbsp(nal, size < 16 ? size : 16);
    BitReader in(rbsp, "slice header");
    return in.ue();
}

H264Stream splitH264(const unsigned char* data, size_t size) {
    if (size == 0) throw FormatError("the file is empty");
    if (!startsWithStartCode(data, size))
        throw FormatError("not an H.264 Annex B stream: it does not begin with a start code");
    std::vector<NalUnit> nals = findNalUnits(data, size);
    H264Stream stream;
    bool haveSps = false;
    bool open = false;      // an access unit has begun
    bool hasSlice = false;  // ... and holds a slice already
    bool anySlice = false;  // the stream holds a slice
    for (const NalUnit& nal : nals) {
        const unsigned char* bytes = data + nal.payload;
        size_t length = nal.end - nal.payload;
        bool starts = false;
        if (nal.type == NAL_AUD) {
            starts = true;
        } else if (nal.type == NAL_SPS || nal.type == NAL_PPS || nal.type == NAL_SEI ||
                   (nal.type >= 14 && nal.type <= 18)) {
            starts = hasSlice;
        } else if (isVcl(nal.type)) {
            starts = hasSlice && readFirstMbInSlice(bytes, length) == 0;
        }
        if (starts || !open) {
            if (open) stream.units.back().length = nal.offset - stream.units.back().offset;
            stream.units.push_back({nal.offset, 0, false});
            open = true;
            hasSlice = false;
        }
        if (isVcl(nal.type)) hasSlice = anySlice = true;
        if (nal.type == NAL_IDR) stream.units.back().idr = true;
        if (nal.type == NAL_SPS && !haveSps) {
            stream.picture = parseSps(bytes, length);
            stream.sps.assign(bytes, bytes + length);
            haveSps = true;
        }
        if (nal.type == NAL_PPS && stream.pps.empty()) stream.pps.assign(bytes, bytes + length);
    }
    if (open) stream.units.back().length = size - stream.units.back().offset;
    if (!haveSps) throw FormatError("H.264 stream has no sequence parameter set");
    if (stream.pps.empty()) throw FormatError("H.264 stream has no picture parameter set");
    if (!anySlice) throw FormatError("H.264 stream has no picture");
    return stream;
}

}  // namespace avpool::media
