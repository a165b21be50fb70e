// Community ID: the definition's published reference values (seeds 0 and 1), each direction of a
// flow where it has two, then flows of a table, whichever side and decoding made them.
#include <gtest/gtest.h>

#include "quelm_sha1.h"
#include "test_table.h"

using namespace quelm_test;

namespace {

// A key's address field from text: IPv4 as the host-order value the key stores.
std::array<uint8_t, 16> key_address(const char *text, uint8_t *version) {
    std::array<uint8_t, 16> a{};
    *version = std::string_view(text).find(':') == std::string_view::npos ? 4 : 6;
    inet_pton(*version == 4 ? AF_INET : AF_INET6, text, a.data());
    if (*version == 4) {
        const uint32_t v = ntohl(*reinterpret_cast<const uint32_t *>(a.data()));
        memcpy(a.data(), &v, 4);
    }
    return a;
}

std::string community_id(uint8_t proto, const char *src, const char *dst, uint16_t sport,
                         uint16_t dport, uint16_t seed = 0) {
    uint8_t version;
    const auto s = key_address(src, &version), d = key_address(dst, &version);
    char id[QUELM_COMMUNITY_ID_SIZE];
    const int n =
        quelm_community_id(version, s.data(), d.data(), proto, sport, dport, seed, id, sizeof id);
    return n < 0 ? "" : std::string(id, size_t(n));
}

}  // namespace

TEST(CommunityId, PublishedReferenceValues) {
    const char *L1 = "fe80::200:86ff:fe05:80da", *L2 = "fe80::260:97ff:fe07:69ea";
    const char *V6 = "3ffe:507:0:1:200:86ff:fe05:80da",
               *T1 = "2001:470:e5bf:dead:4957:2174:e82c:4887", *T2 = "2607:f8b0:400c:c03::1a";
    // clang-format off
    struct Row { uint8_t proto; const char *src, *dst; uint16_t sport, dport, seed; const char *want; } const rows[] = {
        {58, L1, L2, 135, 0, 0, "1:dGHyGvjMfljg6Bppwm3bg0LO8TY="},  // neighbour solicitation...
        {58, L2, L1, 136, 0, 0, "1:dGHyGvjMfljg6Bppwm3bg0LO8TY="},  // ...and its advertisement
        {58, L2, L1, 135, 0, 0, "1:zavyT/cezQr1fmImYCwYnMXbgck="},
        {58, "3ffe:501:1800:2345::2", V6, 3, 0, 0, "1:2ObVBgIn28oZvibYZhZMBgh7WdQ="},  // one-way
        {58, "3ffe:501:410:0:2c0:dfff:fe47:33e", V6, 1, 4, 0, "1:hLZd0XGWojozrvxqE0dWB1iM6R0="},
        {58, V6, "3ffe:501:0:1001::2", 128, 0, 0, "1:+TW+HtLHvV1xnGhV1lv7XoJrqQg="},
        {58, "3ffe:501:0:1001::2", V6, 129, 0, 0, "1:+TW+HtLHvV1xnGhV1lv7XoJrqQg="},
        {58, L1, "ff02::2", 133, 0, 0, "1:hO+sN4H+MG5MY/8hIrXPqc4ZQz0="},
        {1, "192.168.0.89", "192.168.0.1", 8, 0, 0, "1:X0snYXpgwiv9TZtqg64sgzUn6Dk="},
        {1, "192.168.0.1", "192.168.0.89", 0, 0, 0, "1:X0snYXpgwiv9TZtqg64sgzUn6Dk="},
        {1, "10.0.0.1", "10.0.0.2", 11, 0, 0, "1:YHxtAirCG//0OzkcVAukqKQN9xM="},
        {6, T1, T2, 63943, 25, 0, "1:/qFaeAR+gFe1KYjMzVDsMv+wgU4="},
        {6, T2, T1, 25, 63943, 0, "1:/qFaeAR+gFe1KYjMzVDsMv+wgU4="},
        {132, "192.168.170.56", "192.168.170.8", 7, 7, 0, "1:MP2EtRCAUIZvTw6MxJHLV7N7JDs="},
        {6, "66.35.250.204", "128.232.110.120", 80, 34855, 0, "1:LQU9qZlK+B5F3KDmev6m5PMibrg="},
        {17, "192.168.1.52", "8.8.8.8", 54585, 53, 0, "1:d/FP5EW3wiY1vCndhwleRRKHowQ="},
        {46, "10.1.12.2", "10.1.12.1", 0, 0, 0, "1:KHlLkgoJW7ifUTyTSgyVfkFHzKw="},  // no ports
        {58, L1, L2, 135, 0, 1, "1:kHa1FhMYIT6Ym2Vm2AOtoOARDzY="},
        {1, "192.168.0.1", "192.168.0.89", 0, 0, 1, "1:03g6IloqVBdcZlPyX8r0hgoE7kA="},
        {6, "128.232.110.120", "66.35.250.204", 34855, 80, 1, "1:3V71V58M3Ksw/yuFALMcW0LAHvc="},
        {17, "8.8.8.8", "192.168.1.52", 53, 54585, 1, "1:Q9We8WO3piVF8yEQBNJF4uiSVrI="},
        {46, "10.1.12.1", "10.1.12.2", 0, 0, 1, "1:rYir8gphR31noO9iDRQmF/BteEI="},
    };
    // clang-format on
    for (const Row &r : rows)
        EXPECT_EQ(community_id(r.proto, r.src, r.dst, r.sport, r.dport, r.seed), r.want)
            << int(r.proto) << " " << r.src << " " << r.dst << " " << r.sport << " seed " << r.seed;
    char small[QUELM_COMMUNITY_ID_SIZE - 1];
    EXPECT_EQ(quelm_community_id(4, nullptr, nullptr, 6, 1, 2, 0, small, sizeof small), -1);
    // Beyond one block, which no reference value reaches.
    const std::string two_blocks = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";
    uint8_t digest[quelm::kSha1Size];
    quelm::sha1(reinterpret_cast<const uint8_t *>(two_blocks.data()), two_blocks.size(), digest);
    EXPECT_EQ(digest[0] << 8 | digest[19], 0x84F1);  // 84983e44...e54670f1
}

// A ping, in one flow (extended decoding, either side first) or two (designed decoding), and a
// TCP flow seen from either end: every flow has the id of its packets.
TEST(CommunityId, FlowsOfATableWhicheverSideCameFirst) {
    const char *want_ping = "1:X0snYXpgwiv9TZtqg64sgzUn6Dk=";
    const char *P = "192.168.0.89", *Q = "192.168.0.1";
    for (const uint32_t flags : {uint32_t{QUELM_FLAG_EXTENDED_DECODING}, 0u}) {
        for (const bool reply_first : {false, true}) {
            Bench b(flags);
            const Frame request = Frame().eth().ipv4(P, Q).icmp(8, 0, 1, 7);
            const Frame reply = Frame().eth().ipv4(Q, P).icmp(0, 0, 1, 7);
            b.send(reply_first ? reply : request, 100);
            b.send(reply_first ? request : reply, 100);
            b.send(tcp(reply_first ? "66.35.250.204" : "128.232.110.120", reply_first ? 80 : 34855,
                       reply_first ? "128.232.110.120" : "66.35.250.204", reply_first ? 34855 : 80),
                   100);
            quelm_flush(b.t);
            ASSERT_EQ(b.exported.size(), flags != 0 ? 2u : 3u);
            for (size_t i = 0; i < b.exported.size(); i++) {
                char id[QUELM_COMMUNITY_ID_SIZE];
                ASSERT_EQ(quelm_flow_community_id(b.exported[i], 0, id, sizeof id), 30);
                EXPECT_STREQ(
                    id, i + 1 == b.exported.size() ? "1:LQU9qZlK+B5F3KDmev6m5PMibrg=" : want_ping)
                    << "flags " << flags << " reply first " << reply_first << " flow " << i;
            }
        }
    }
}
