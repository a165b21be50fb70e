#include <gtest/gtest.h>

#include <string>

#include "quelm.h"
#include "quelm_flow.h"

namespace {

TEST(Utils, Pow2RoundsUpWithin32Bits) {
    struct Case {
        uint32_t in, out;
    } cases[] = {{0, 0},
                 {1, 1},
                 {2, 2},
                 {3, 4},
                 {1000, 1024},
                 {1024, 1024},
                 {1025, 2048},
                 {512000, 524288},
                 {1u << 31, 1u << 31},
                 {(1u << 31) + 1, 0},
                 {0xFFFFFFFF, 0}};
    for (const Case &c : cases)
        EXPECT_EQ(utils_pow2(c.in), c.out) << c.in;
}

TEST(Utils, Ipv4TextEndsAtBufferEnd) {
    struct Case {
        uint32_t addr;
        const char *text;
    } cases[] = {{0xC0A80001, "192.168.0.1"},
                 {0, "0.0.0.0"},
                 {0xFFFFFFFF, "255.255.255.255"},
                 {0x0A000102, "10.0.1.2"},
                 {0x01020304, "1.2.3.4"}};
    for (const Case &c : cases) {
        char buf[48];
        const char *text = utils_intoav4(c.addr, buf, sizeof buf);
        EXPECT_STREQ(text, c.text);
        EXPECT_EQ(text + strlen(c.text), buf + 47) << "text must end at the buffer's last byte";
    }
    char tight[16];
    EXPECT_STREQ(utils_intoav4(0xFFFFFFFF, tight, sizeof tight), "255.255.255.255");
    EXPECT_EQ(utils_intoav4(0xFFFFFFFF, tight, sizeof tight), tight);
}

TEST(Utils, Ipv6TextUsesCompressedFormAndRefusesSmallBuffers) {
    const uint8_t addr[16] = {0xfd, 0, 0, 0x99, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01};
    char buf[48];
    EXPECT_STREQ(utils_intoav6(addr, buf, sizeof buf), "fd00:99::1");
    char small[8];
    EXPECT_EQ(utils_intoav6(addr, small, sizeof small), nullptr);
}

TEST(Utils, MacTextKeepsLeadingZeros) {
    const uint8_t mac[6] = {0x00, 0x1B, 0x2C, 0x0A, 0xFF, 0x05};
    char buf[18];
    EXPECT_STREQ(utils_ethtoa(mac, buf), "00:1B:2C:0A:FF:05");
}

TEST(Utils, ProtocolTextNamesKnownNumbersAndSharesOneBufferForOthers) {
    const std::pair<uint32_t, const char *> named[] = {
        {0, "IP"},   {1, "ICMP"},       {2, "IGMP"},  {6, "TCP"},   {17, "UDP"},  {47, "GRE"},
        {50, "ESP"}, {58, "IPv6-ICMP"}, {89, "OSPF"}, {103, "PIM"}, {112, "VRRP"}};
    for (const auto &[num, text] : named)
        EXPECT_STREQ(utils_prototoa(num), text);
    const char *first = utils_prototoa(132);
    EXPECT_STREQ(first, "132");
    const char *second = utils_prototoa(200);
    EXPECT_EQ(first, second);
    EXPECT_STREQ(first, "200");
    EXPECT_STREQ(utils_prototoa(9999999), "9999999");
}

TEST(Utils, LaterTimestampPrefersFirstArgumentWhenEqual) {
    const quelm_timeval a{10, 5}, b{10, 5}, c{10, 6}, d{9, 999999}, neg{-1, 0};
    EXPECT_EQ(utils_get_last(&a, &b), &a);
    EXPECT_EQ(utils_get_last(&a, &c), &c);
    EXPECT_EQ(utils_get_last(&c, &a), &c);
    EXPECT_EQ(utils_get_last(&d, &a), &a);
    EXPECT_EQ(utils_get_last(&neg, &d), &d);
}

TEST(Utils, MillisecondsTruncate) {
    const quelm_timeval tv{1700000000, 5999};
    EXPECT_EQ(utils_tv_to_msec(&tv), 1700000000005ull);
    const uint64_t now = utils_time_msec();
    EXPECT_GT(now, 1600000000000ull);
}

TEST(Utils, VersionTextAndNumbers) {
    char buf[32];
    EXPECT_EQ(utils_read_version(buf), 0x90500u);
    EXPECT_STREQ(buf, "9.5.0.261007");
    char exact[13];
    EXPECT_EQ(quelm_version(exact), 0x90500u);
    EXPECT_STREQ(exact, "9.5.0.261007");
    EXPECT_EQ(quelm_api_version(), 107u);
}

TEST(Utils, SanitizeCutsAtFirstControlCharacter) {
    const std::pair<std::string, std::string> cases[] = {{"www.example.com", "www.example.com"},
                                                         {"/path\r\nHost: x", "/path"},
                                                         {"a\tb", "a"},
                                                         {"\nx", ""},
                                                         {"", ""}};
    for (const auto &[in, out] : cases) {
        std::string s = in;
        EXPECT_STREQ(utils_sanitize(s.data()), out.c_str());
    }
}

}  // namespace
