// The MPEG-4 configuration header byte for byte: the video object layer header of
// several parameter sets, and the visual object prefix with its profile byte in
// front of it, binary and as hex text.
#include <avpool/mp4.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace {

std::string hexOf(const unsigned char* bytes, int count) {
    std::string text;
    char digits[3];
    for (int i = 0; i < count; ++i) {
        snprintf(digits, sizeof digits, "%02X", bytes[i]);
        text += digits;
    }
    return text;
}

const char EXAMPLE[] = "000001B001000001B509000001000000012000C488800F514043C1443F";  // 640x480, 30, no fixed rate

}  // namespace

TEST(Mpeg4Header, countMinBitsCountsUpToTheHighestSetBit) {
    const std::pair<unsigned, int> cases[] = {{0, 0}, {1, 1}, {30, 5}, {31, 5}, {32, 6}, {65535, 16}, {1u << 31, 32}};
    for (const auto& [value, bits] : cases) EXPECT_EQ(count_min_bits(value), bits) << value;
}

// The layer header: two start codes, 81 bits of fields plus a fixed rate's increment as
// wide as count_min_bits of the resolution (one more bit than needed for a power of two),
// then a 0 and 1s up to the byte boundary, nothing when already aligned.
TEST(Mpeg4Header, layerHeaderOfEachParameterSetIsItsKnownBytes) {
    const struct {
        int width, height, resolution, fixedRate, increment;
        bool resyncDisable;
        const char* hex;
    } cases[] = {
        {640, 480, 30, 0, 0, false, "000001000000012000C488800F514043C1443F"},           // 7 stuffing bits
        {176, 144, 30, 1, 1, false, "000001000000012000C488800F6182C2090A21"},           // 5-bit increment
        {352, 288, 32, 5, 31, true, "000001000000012000C48880106FC2C1090518"},           // 6 bits for a power of two
        {176, 144, 32, 1, 17, false, "000001000000012000C488801068C161048510"},
        {1920, 1080, 100, 1, 99, false, "000001000000012000C488803278E78090E288"},       // aligned: no stuffing
        {8191, 8191, 65535, 1, 65535, true, "000001000000012000C488FFFFFFFFFFFFFFFF463F"}, // every field at its widest
        {1, 1, 1, 1, 1, true, "000001000000012000C4888000F8006001A31F"},
        {0, 0, 0, 0, 0, false, "000001000000012000C488800050004001443F"},
        // A width wider than its field is not masked: its two excess high bits are ORed into
        // the two bits before it: fixed_vop_rate (bit 106 of the header) and a marker.
        {640 + (3 << 13), 480, 30, 0, 0, false, "000001000000012000C488800F714043C1443F"},
    };
    for (const auto& c : cases) {
        unsigned char out[64];
        memset(out, 0xEE, sizeof out);
        const int length =
            gen_mpeg4_header(out, c.width, c.height, c.resolution, c.fixedRate, c.increment, c.resyncDisable);
        EXPECT_EQ(hexOf(out, length), c.hex);
        EXPECT_EQ(out[length], 0xEE) << c.hex << ": written past the returned length";
    }
}

TEST(Mpeg4Header, volHeaderIsThePrefixWithItsProfileByteAndTheLayerHeader) {
    char text[100];
    memset(text, 'Z', sizeof text);
    ASSERT_EQ(fill_mpeg4_vol_hex(text, 1, 640, 480, 30, false, 0), 58);
    EXPECT_EQ(std::string(text), EXAMPLE);  // two upper-case digits a byte, then a NUL and nothing more
    EXPECT_EQ(std::string(text + 59, sizeof text - 59), std::string(sizeof text - 59, 'Z'));

    // An increment without a fixed rate is not written; resync markers stay on.
    unsigned char out[40];
    memset(out, 0xEE, sizeof out);
    ASSERT_EQ(fill_mpeg4_vol_header(out, 0xF5, 640, 480, 30, false, 7), 29);
    EXPECT_EQ(hexOf(out, 30), std::string(EXAMPLE).replace(8, 2, "F5") + "EE");
    fill_mpeg4_vol_hex(text, 3, 176, 144, 32, true, 17);
    EXPECT_EQ(std::string(text), "000001B003000001B509000001000000012000C488801068C161048510");
}
