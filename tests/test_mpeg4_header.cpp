// The MPEG-4 configuration header: the known bytes of one stream, and the layer
// header of several parameter sets read back field by field with a bit reader
// of the test's own.
#include <avpool/mp4.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

// Reads big-endian bit fields, most significant bit first.
class BitReader {
public:
    explicit BitReader(const Bytes& bytes) : bytes_(bytes) {}
    unsigned read(int n) {
        unsigned value = 0;
        for (int i = 0; i < n; ++i, ++position_) {
            if (position_ / 8 >= bytes_.size()) {
                ADD_FAILURE() << "read past the end at bit " << position_;
                return value;
            }
            value = value << 1 | (bytes_[position_ / 8] >> (7 - position_ % 8) & 1u);
        }
        return value;
    }
    size_t position() const { return position_; }

private:
    const Bytes& bytes_;
    size_t position_ = 0;
};

struct Layer {
    int width, height, resolution;
    int fixedRate;  // any non-zero value turns it on
    int increment;
    bool resyncDisable;
};

Bytes generate(const Layer& p) {
    Bytes out(64, 0xEE);
    int length = gen_mpeg4_header(out.data(), p.width, p.height, p.resolution, p.fixedRate, p.increment,
                                  p.resyncDisable);
    EXPECT_EQ(out[length], 0xEE) << "written past the returned length";
    out.resize(length);
    return out;
}

struct Field {
    int bits;
    unsigned value;
    const char* name;
};

// The layer header's fields in stream order, as the parameters must give them.
std::vector<Field> layerFields(const Layer& p) {
    std::vector<Field> fields = {
        {32, 0x00000100u, "video_object_start_code"},
        {32, 0x00000120u, "video_object_layer_start_code"},
        {1, 0, "random_accessible_vol"},
        {8, 1, "video_object_type_indication"},
        {1, 1, "is_object_layer_identifier"},
        {4, 1, "video_object_layer_verid"},
        {3, 1, "video_object_layer_priority"},
        {4, 1, "aspect_ratio_info"},
        {1, 0, "vol_control_parameters"},
        {2, 0, "video_object_layer_shape"},
        {1, 1, "marker"},
        {16, static_cast<unsigned>(p.resolution), "vop_time_increment_resolution"},
        {1, 1, "marker"},
        {1, p.fixedRate != 0 ? 1u : 0u, "fixed_vop_rate"},
    };
    // As wide as the resolution itself needs.
    if (p.fixedRate != 0)
        fields.push_back({count_min_bits(p.resolution), static_cast<unsigned>(p.increment), "fixed_vop_time_increment"});
    const std::vector<Field> tail = {
        {1, 1, "marker"},
        {13, static_cast<unsigned>(p.width), "video_object_layer_width"},
        {1, 1, "marker"},
        {13, static_cast<unsigned>(p.height), "video_object_layer_height"},
        {1, 1, "marker"},
        {1, 0, "interlaced"},
        {1, 1, "obmc_disable"},
        {1, 0, "sprite_enable"},
        {1, 0, "not_8_bit"},
        {1, 0, "quant_type"},
        {1, 1, "complexity_estimation_disable"},
        {1, p.resyncDisable ? 1u : 0u, "resync_marker_disable"},
        {1, 0, "data_partitioned"},
        {1, 0, "scalability"},
    };
    fields.insert(fields.end(), tail.begin(), tail.end());
    return fields;
}

// Parses a layer header and checks every field, the stuffing and the length.
void expectLayer(const Bytes& out, const Layer& p) {
    BitReader bits(out);
    for (const Field& field : layerFields(p)) EXPECT_EQ(bits.read(field.bits), field.value) << field.name;

    // A 0 and then 1s up to the byte boundary; nothing at all when aligned.
    const size_t used = bits.position();
    EXPECT_EQ(used, 145u + (p.fixedRate != 0 ? count_min_bits(p.resolution) : 0));
    if (used % 8 != 0) {
        EXPECT_EQ(bits.read(1), 0u) << "first stuffing bit";
        while (bits.position() % 8 != 0) EXPECT_EQ(bits.read(1), 1u) << "stuffing bit " << bits.position();
    }
    EXPECT_EQ(out.size() * 8, bits.position());
}

const Bytes EXAMPLE = {0x00, 0x00, 0x01, 0xB0, 0x01, 0x00, 0x00, 0x01, 0xB5, 0x09, 0x00, 0x00, 0x01, 0x00, 0x00,
                       0x00, 0x01, 0x20, 0x00, 0xC4, 0x88, 0x80, 0x0F, 0x51, 0x40, 0x43, 0xC1, 0x44, 0x3F};

}  // namespace

TEST(Mpeg4Header, countMinBitsCountsUpToTheHighestSetBit) {
    const std::pair<unsigned, int> cases[] = {{0, 0}, {1, 1}, {30, 5}, {31, 5}, {32, 6}, {65535, 16}, {0x80000000u, 32}};
    for (const auto& [value, bits] : cases) EXPECT_EQ(count_min_bits(value), bits) << value;
}

TEST(Mpeg4Header, volHeaderOf640x480At30IsTheKnown29Bytes) {
    Bytes out(40, 0xEE);
    ASSERT_EQ(fill_mpeg4_vol_header(out.data(), 1, 640, 480, 30, false, 0), 29);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + 29), EXAMPLE);
    EXPECT_EQ(out[29], 0xEE);

    // The profile byte is the only one of the prefix that changes; an increment
    // without a fixed rate is not written.
    ASSERT_EQ(fill_mpeg4_vol_header(out.data(), 0xF5, 640, 480, 30, false, 7), 29);
    Bytes expected = EXAMPLE;
    expected[4] = 0xF5;
    EXPECT_EQ(Bytes(out.begin(), out.begin() + 29), expected);
}

TEST(Mpeg4Header, volHeaderIsThePrefixAndTheLayerHeaderWithResyncMarkersOn) {
    Bytes out(40, 0xEE);
    const int length = fill_mpeg4_vol_header(out.data(), 3, 176, 144, 32, true, 17);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + 10),
              (Bytes{0x00, 0x00, 0x01, 0xB0, 0x03, 0x00, 0x00, 0x01, 0xB5, 0x09}));
    Bytes layer = generate({176, 144, 32, 1, 17, false});
    ASSERT_EQ(length, 10 + static_cast<int>(layer.size()));
    EXPECT_EQ(Bytes(out.begin() + 10, out.begin() + length), layer);
}

TEST(Mpeg4Header, hexFormIsTwoUpperCaseDigitsPerByteAndANul) {
    char text[80];
    memset(text, 'Z', sizeof text);
    ASSERT_EQ(fill_mpeg4_vol_hex(text, 1, 640, 480, 30, false, 0), 58);
    EXPECT_EQ(std::string(text), "000001B001000001B509000001000000012000C488800F514043C1443F");
    EXPECT_EQ(text[59], 'Z');
}

TEST(Mpeg4Header, layerHeaderFieldsReadBackForSeveralParameterSets) {
    const Layer cases[] = {
        {640, 480, 30, 0, 0, false},         // 81 bits: 7 stuffing bits
        {176, 144, 30, 1, 1, false},         // 5-bit increment, 2 stuffing bits
        {352, 288, 32, 5, 31, true},         // 6 bits for a power of two, 1 stuffing bit
        {1920, 1080, 100, 1, 99, false},     // 7 bits: 88, already aligned
        {8191, 8191, 65535, 1, 65535, true}, // every field at its widest
        {1, 1, 1, 1, 1, true},
        {0, 0, 0, 0, 0, false},
    };
    for (const Layer& p : cases) {
        SCOPED_TRACE(std::to_string(p.width) + "x" + std::to_string(p.height) + " res " + std::to_string(p.resolution) +
                     " fixed " + std::to_string(p.fixedRate));
        Bytes out = generate(p);
        expectLayer(out, p);
    }
    EXPECT_EQ(generate({1920, 1080, 100, 1, 99, false}).size(), 19u);
    EXPECT_EQ(generate({8191, 8191, 65535, 1, 65535, true}).size(), 21u);
}

// The width field starts at bit 108 of the layer header, with four bits pending:
// resolution's last bit, a marker, fixed_vop_rate, a marker. Two excess high bits
// of the width land on the last two of them, so fixed_vop_rate (bit 106) reads 1.
TEST(Mpeg4Header, valueWiderThanItsFieldOrsItsExcessBitsIntoThePendingByte) {
    Bytes fitting = generate({640, 480, 30, 0, 0, false});
    Bytes wide = generate({640 + (3 << 13), 480, 30, 0, 0, false});
    Bytes expected = fitting;
    expected[106 / 8] |= 0x80 >> (106 % 8);
    EXPECT_EQ(wide, expected);
}
