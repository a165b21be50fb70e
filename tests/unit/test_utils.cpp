// Formatting helpers at their edges.
#include <gtest/gtest.h>

#include "quelm.h"

namespace {

TEST(Utils, Pow2RoundsUpWithin32Bits) {
    const uint32_t rows[][2] = {{0, 0},
                                {1, 1},
                                {3, 4},
                                {1024, 1024},
                                {1025, 2048},
                                {1u << 31, 1u << 31},
                                {(1u << 31) + 1, 0},
                                {0xFFFFFFFF, 0}};
    for (const auto &[in, out] : rows)
        EXPECT_EQ(utils_pow2(in), out) << in;
}

TEST(Utils, TextsFitTheirBuffers) {
    char quad[16], wide[48], small[8];
    EXPECT_EQ(utils_intoav4(0xFFFFFFFF, quad, sizeof quad), quad);
    EXPECT_STREQ(quad, "255.255.255.255");
    EXPECT_EQ(utils_intoav4(0x0A000102, wide, sizeof wide), wide + 39)
        << "ends at the buffer's end";
    EXPECT_STREQ(wide + 39, "10.0.1.2");
    const uint8_t v6[16] = {0xfd, 0, 0, 0x99, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    EXPECT_STREQ(utils_intoav6(v6, wide, sizeof wide), "fd00:99::1");
    EXPECT_EQ(utils_intoav6(v6, small, sizeof small), nullptr);
    const uint8_t mac[6] = {0x00, 0x1B, 0x2C, 0x0A, 0xFF, 0x05};
    EXPECT_STREQ(utils_ethtoa(mac, wide), "00:1B:2C:0A:FF:05");
    EXPECT_STREQ(utils_prototoa(58), "IPv6-ICMP");
    const char *unnamed = utils_prototoa(132);
    EXPECT_EQ(utils_prototoa(12345678), unnamed) << "unnamed numbers share one buffer";
    EXPECT_STREQ(unnamed, "1234567") << "of 8 bytes";
}

}  // namespace
