// Formatting helpers at their edges.
#include <gtest/gtest.h>

#include "quelm.h"

TEST(Utils, Pow2RoundsUpWithin32Bits) {
    // clang-format off
    const uint32_t rows[][2] = {{0, 0}, {1, 1}, {3, 4}, {1024, 1024}, {1025, 2048}, {1u << 31, 1u << 31}, {(1u << 31) + 1, 0}, {~0u, 0}};
    // clang-format on
    for (const auto &[in, out] : rows)
        EXPECT_EQ(utils_pow2(in), out) << in;
}

TEST(Utils, TextsFitTheirBuffers) {
    char quad[16], wide[48], small[8];
    EXPECT_STREQ(utils_intoav4(0xFFFFFFFF, quad, sizeof quad), "255.255.255.255");
    EXPECT_EQ(utils_intoav4(0x0A000102, wide, sizeof wide), wide + 39)
        << "ends at the buffer's end";
    EXPECT_STREQ(wide + 39, "10.0.1.2");
    const uint8_t v6[16] = {0xfd, 0, 0, 0x99, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    EXPECT_EQ(utils_intoav6(v6, small, sizeof small), nullptr);
    const char *unnamed = utils_prototoa(132);
    EXPECT_EQ(utils_prototoa(12345678), unnamed) << "unnamed protocols share one buffer";
    EXPECT_STREQ(unnamed, "1234567") << "of 8 bytes";
}
