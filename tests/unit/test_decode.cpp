#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "packet_builder.h"
#include "quelm_table.h"

namespace {

using quelm_test::Frame;
using quelm_test::Ipv4Options;

std::vector<uint8_t> tcp4() {
    return Frame().eth().ipv4("10.1.0.1", "10.2.0.2").tcp(40000, 80, 0x18).payload(10).build();
}

// What decoding must leave in the table's packet record; unset fields are not checked.
struct Want {
    bool decoded = true;
    std::optional<uint16_t> vlan{}, l3_offset{}, l4_offset{}, payload_offset{}, payload_len{},
        len{}, sport{}, dport{}, eth_type{};
    std::optional<uint8_t> ip_version{}, l4_protocol{}, tcp_flags{}, icmp_type{}, icmp_code{};
    std::optional<uint32_t> tunnel_type{}, tunnel_id{}, saddr{};
};

struct Case {
    std::string name;
    std::function<std::vector<uint8_t>()> frame;
    Want want;
    uint32_t flags = 0;
    int caplen = -1;    // -1: whole frame; otherwise cut short
    int wire_len = -1;  // -1: the frame's length
};

const Case kCases[] = {
    {"ipv4_tcp",
     tcp4,
     {.l3_offset = 14,
      .l4_offset = 34,
      .payload_offset = 54,
      .payload_len = 10,
      .len = 64,
      .sport = 40000,
      .dport = 80,
      .eth_type = 0x0800,
      .ip_version = 4,
      .l4_protocol = 6,
      .tcp_flags = 0x18,
      .saddr = 0x0A010001}},
    {"two_vlan_tags_keep_the_inner_id",
     [] { return Frame().eth().vlan(10).vlan(20).ipv4("10.0.0.1", "10.0.0.2").udp(1, 2).build(); },
     {.vlan = 20, .l3_offset = 22, .l4_protocol = 17}},
    {"mpls_three_labels",
     [] {
         return Frame()
             .eth()
             .mpls(1, false)
             .mpls(2, false)
             .mpls(3, true)
             .ipv4("10.0.0.1", "10.0.0.2")
             .udp(1, 2)
             .build();
     },
     {.l3_offset = 26, .eth_type = 0x0800, .ip_version = 4}},
    {"mpls_carrying_ipv6_is_refused",
     [] {
         return Frame().eth().mpls(1, true).bytes({}).ipv6("fd00::1", "fd00::2").udp(1, 2).build();
     },
     {.decoded = false}},
    {"pppoe_ipv4",
     [] { return Frame().eth().pppoe().ipv4("10.0.0.1", "10.0.0.2").tcp(1, 2).build(); },
     {.l3_offset = 22, .l4_offset = 42, .eth_type = 0x0800}},
    {"pppoe_ipv6_is_refused",
     [] { return Frame().eth().pppoe(0x0057).ipv6("fd00::1", "fd00::2").tcp(1, 2).build(); },
     {.decoded = false}},
    {"ipv6_udp_credits_length_without_link_header",
     [] { return Frame().eth().ipv6("fd00::1", "fd00::2").udp(5353, 53).payload(20).build(); },
     {.l3_offset = 14,
      .l4_offset = 54,
      .payload_len = 20,
      .len = 14 + 40 + 8 + 20 - 14,
      .sport = 5353,
      .dport = 53,
      .ip_version = 6,
      .l4_protocol = 17}},
    {"ipv6_destination_options_are_skipped",
     [] { return Frame().eth().ipv6("fd00::1", "fd00::2", true).tcp(1, 443).build(); },
     {.l4_offset = 14 + 40 + 8, .dport = 443, .l4_protocol = 6}},
    {"ipv6_destination_options_cut_short",
     [] { return Frame().eth().ipv6("fd00::1", "fd00::2", true).tcp(1, 443).build(); },
     {.decoded = false},
     0,
     14 + 40 + 4},
    {"icmp_echo_request_keys_type_and_code_as_port",
     [] { return Frame().eth().ipv4("10.0.0.1", "10.0.0.2").icmp(8, 0).build(); },
     {.payload_len = 0, .sport = 0, .dport = 0x0800, .l4_protocol = 1, .icmp_type = 8}},
    {"icmpv6",
     [] { return Frame().eth().ipv6("fd00::1", "fd00::2").icmp(128, 0, 58).build(); },
     {.sport = 0, .dport = 128 << 8, .l4_protocol = 58, .icmp_type = 128}},
    {"icmp_type_beyond_capture_reads_zero",
     [] { return Frame().eth().ipv4("10.0.0.1", "10.0.0.2").icmp(3, 1).build(); },
     {.dport = 0, .icmp_type = 0, .icmp_code = 0},
     0,
     34},
    {"tcp_data_offset_beyond_ip_payload",
     [] { return Frame().eth().ipv4("10.0.0.1", "10.0.0.2").tcp(1, 2, 0x10, 15).build(); },
     {.payload_offset = 14 + 20 + 60, .payload_len = 0}},
    {"tcp_data_offset_beyond_short_ip_payload",
     [] {
         Ipv4Options o;
         o.total_length = 20 + 24;  // promises 24 bytes of TCP, the header claims 60
         return Frame().eth().ipv4("10.0.0.1", "10.0.0.2", o).tcp(1, 2, 0x10, 15).build();
     },
     {.payload_offset = 14 + 20 + 24, .payload_len = 0}},
    {"tcp_ports_captured_flags_cut",
     tcp4,
     {.sport = 40000, .dport = 80, .tcp_flags = 0},
     0,
     34 + 4},
    {"tcp_ports_cut", tcp4, {.decoded = false}, 0, 34 + 3},
    {"ip_options_move_the_transport_header",
     [] {
         Ipv4Options o;
         o.ihl = 7;
         return Frame().eth().ipv4("10.0.0.1", "10.0.0.2", o).udp(7, 9).build();
     },
     {.l4_offset = 14 + 28, .sport = 7}},
    {"arp_is_refused",
     [] { return Frame().eth().ethertype(0x0806).payload(28).build(); },
     {.decoded = false}},
    {"ethernet_header_cut", tcp4, {.decoded = false}, 0, 13},
    {"vlan_tag_cut",
     [] { return Frame().eth().vlan(5).ipv4("10.0.0.1", "10.0.0.2").udp(1, 2).build(); },
     {.decoded = false},
     0,
     16},
    {"mpls_label_cut",
     [] {
         return Frame()
             .eth()
             .mpls(1, false)
             .mpls(2, true)
             .ipv4("10.0.0.1", "10.0.0.2")
             .udp(1, 2)
             .build();
     },
     {.decoded = false},
     0,
     20},
    {"ipv4_header_cut", tcp4, {.decoded = false}, 0, 14 + 19},
    {"ipv4_version_mismatch",
     [] {
         Ipv4Options o;
         o.version = 6;
         return Frame().eth().ipv4("10.0.0.1", "10.0.0.2", o).udp(1, 2).build();
     },
     {.decoded = false}},
    {"ipv4_ihl_zero",
     [] {
         Ipv4Options o;
         o.ihl = 0;
         return Frame().eth().ipv4("10.0.0.1", "10.0.0.2", o).udp(1, 2).payload(20).build();
     },
     {.decoded = false}},
    {"ipv6_header_cut",
     [] { return Frame().eth().ipv6("fd00::1", "fd00::2").udp(1, 2).build(); },
     {.decoded = false},
     0,
     14 + 39},
    {"udp_in_short_ip_payload",
     [] {
         Ipv4Options o;
         o.total_length = 20 + 7;
         return Frame().eth().ipv4("10.0.0.1", "10.0.0.2", o).udp(1, 2).build();
     },
     {.decoded = false}},
    {"tcp_in_short_ip_payload",
     [] {
         Ipv4Options o;
         o.total_length = 20 + 19;
         return Frame().eth().ipv4("10.0.0.1", "10.0.0.2", o).tcp(1, 2).build();
     },
     {.decoded = false}},
    {"wire_length_above_16384", tcp4, {.decoded = false}, 0, -1, 16385},
    {"other_protocols_have_no_ports",
     [] { return Frame().eth().ipv4("10.0.0.1", "10.0.0.2").l4(47).payload(8).build(); },
     {.sport = 0, .dport = 0, .l4_protocol = 47}},
};

std::vector<uint8_t> vxlan(uint8_t flags = 0x08) {
    return Frame()
        .eth()
        .vlan(3)
        .ipv4("192.0.2.1", "192.0.2.2")
        .udp(33333, 4789)
        .bytes({flags, 0, 0, 0, 0x12, 0x34, 0x56, 0})
        .eth()
        .ipv4("10.9.0.1", "10.9.0.2")
        .tcp(1111, 22)
        .build();
}

std::vector<uint8_t> gtp(bool inner_v6, uint8_t type = 0xFF, uint8_t flags = 0x30) {
    Frame f;
    f.eth().ipv4("192.0.2.1", "192.0.2.2").udp(2152, 2152).bytes({flags, type, 0, 0, 0, 0, 0, 1});
    if (flags & 0x07) f.bytes({0, 0, 0, 0});
    if (inner_v6)
        f.bytes({}).ethertype(0).ipv6("fd00::1", "fd00::2").udp(53, 53);
    else
        f.ipv4("10.8.0.1", "10.8.0.2").udp(53, 5353);
    return f.build();
}

std::vector<uint8_t> l2tp(uint16_t flags, uint16_t ppp, std::initializer_list<uint8_t> extra = {}) {
    Frame f;
    f.eth().ipv4("192.0.2.1", "192.0.2.2").udp(1701, 1701);
    f.bytes({uint8_t(flags >> 8), uint8_t(flags)});
    if (flags & 0x4000) f.bytes({0, 0});  // length
    f.bytes({0x00, 0x2A, 0x00, 0x07});    // tunnel 42, session 7
    f.bytes(extra);
    f.bytes({0xFF, 0x03, uint8_t(ppp >> 8), uint8_t(ppp)});
    if (ppp == 0x0057)
        f.ipv6("fd00::1", "fd00::2").tcp(1, 2);
    else
        f.ipv4("10.7.0.1", "10.7.0.2").tcp(3, 4);
    return f.build();
}

std::vector<uint8_t> capwap() {
    Frame f;
    f.eth().ipv4("192.0.2.1", "192.0.2.2").udp(40000, 5247);
    f.bytes({0x00, 0x10, 0x00, 0x00, 0, 0, 0, 0});       // HLEN 2: 8-byte header
    f.bytes({0x02}).payload(29, 0).bytes({0x08, 0x00});  // the 32 bytes behind the header
    f.ipv4("10.6.0.1", "10.6.0.2").udp(67, 68);
    return f.build();
}

const Case kTunnelCases[] = {
    {"vxlan_keys_the_inner_frame",
     [] { return vxlan(); },
     {.vlan = 3,
      .l4_offset = 14 + 4 + 20 + 8 + 8 + 14 + 20,
      .sport = 1111,
      .dport = 22,
      .tunnel_type = 5,
      .tunnel_id = 0x123456,
      .saddr = 0x0A090001},
     QUELM_FLAG_TUNNEL_DECODING},
    {"vxlan_without_vni_flag",
     [] { return vxlan(0); },
     {.tunnel_type = 5, .tunnel_id = 0},
     QUELM_FLAG_TUNNEL_DECODING},
    {"vxlan_without_tunnel_decoding_is_plain_udp",
     [] { return vxlan(); },
     {.dport = 4789, .tunnel_type = 0, .saddr = 0xC0000201}},
    {"vxlan_inner_frame_cut_is_plain_udp",
     [] { return vxlan(); },
     {.dport = 4789, .tunnel_type = 0},
     QUELM_FLAG_TUNNEL_DECODING,
     14 + 4 + 20 + 8 + 8 + 10},
    {"gtp_u_keys_the_inner_ipv4",
     [] { return gtp(false); },
     {.l3_offset = 14 + 20 + 8 + 8,
      .sport = 53,
      .dport = 5353,
      .tunnel_type = 1,
      .tunnel_id = 0,
      .saddr = 0x0A080001},
     QUELM_FLAG_TUNNEL_DECODING},
    {"gtp_u_with_sequence_flag",
     [] { return gtp(false, 0xFF, 0x32); },
     {.l3_offset = 14 + 20 + 8 + 12, .tunnel_type = 1},
     QUELM_FLAG_TUNNEL_DECODING},
    {"gtp_u_carrying_ipv6_is_keyed_as_outer_udp",
     [] { return gtp(true); },
     {.l3_offset = 14, .dport = 2152, .tunnel_type = 1, .saddr = 0xC0000201},
     QUELM_FLAG_TUNNEL_DECODING},
    {"gtp_control_message_is_plain_udp",
     [] { return gtp(false, 0x01); },
     {.dport = 2152, .tunnel_type = 0},
     QUELM_FLAG_TUNNEL_DECODING},
    {"l2tp_ipv4",
     [] { return l2tp(0x0002, 0x0021); },
     {.l3_offset = 14 + 20 + 8 + 6 + 4, .sport = 3, .tunnel_type = 4, .tunnel_id = 42},
     QUELM_FLAG_TUNNEL_DECODING},
    {"l2tp_with_length_and_sequence",
     [] {
         return l2tp(0x4802, 0x0021, {0, 1, 0, 2});
     },
     {.l3_offset = 14 + 20 + 8 + 8 + 4 + 4, .tunnel_type = 4, .tunnel_id = 42},
     QUELM_FLAG_TUNNEL_DECODING},
    {"l2tp_offset_pad_is_skipped",
     [] {
         return l2tp(0x0202, 0x0021, {0, 3, 0xEE, 0xEE, 0xEE});
     },
     {.l3_offset = 14 + 20 + 8 + 6 + 5 + 4, .sport = 3, .tunnel_type = 4},
     QUELM_FLAG_TUNNEL_DECODING},
    {"l2tp_ipv6",
     [] { return l2tp(0x0002, 0x0057); },
     {.ip_version = 6, .tunnel_type = 4, .tunnel_id = 42},
     QUELM_FLAG_TUNNEL_DECODING},
    {"l2tp_control_protocol_is_plain_udp",
     [] { return l2tp(0x0002, 0xC021); },
     {.dport = 1701, .tunnel_type = 0},
     QUELM_FLAG_TUNNEL_DECODING},
    {"l2tp_control_message_is_plain_udp",
     [] { return l2tp(0x8002, 0x0021); },
     {.dport = 1701, .tunnel_type = 0},
     QUELM_FLAG_TUNNEL_DECODING},
    {"capwap_data",
     capwap,
     {.l3_offset = 14 + 20 + 8 + 8 + 32, .sport = 67, .tunnel_type = 2, .saddr = 0x0A060001},
     QUELM_FLAG_TUNNEL_DECODING},
};

// Test listings show a case by its name, not its bytes.
void PrintTo(const Case &c, std::ostream *os) {
    *os << c.name;
}

class Decode : public ::testing::TestWithParam<Case> {};

TEST_P(Decode, Fields) {
    const Case &c = GetParam();
    quelm_table *t = quelm_create_table(c.flags, 1024, 0, 0, 0);
    ASSERT_NE(t, nullptr);
    const std::vector<uint8_t> frame = c.frame();
    const uint32_t wire = c.wire_len >= 0 ? uint32_t(c.wire_len) : uint32_t(frame.size());
    const uint32_t cap = c.caplen >= 0 ? uint32_t(c.caplen) : uint32_t(frame.size());
    // Only the captured bytes are handed over, so that the sanitizer catches any read past them.
    std::vector<uint8_t> captured(frame.begin(), frame.begin() + cap);
    const quelm_packet_header h{{100, 0}, cap, wire};
    const quelm_packet_ext ext{};
    quelm_process(t, captured.data(), &h, &ext);
    const quelm_packet_info &i = t->packet;
    const quelm_stats *s = quelm_get_stats(t);
    EXPECT_EQ(s->packets_not_decoded, c.want.decoded ? 0u : 1u);
    EXPECT_EQ(s->total_flows, c.want.decoded ? 1u : 0u);
    const Want &w = c.want;
#define CHECK_FIELD(f)                  \
    do {                                \
        if (w.f) {                      \
            EXPECT_EQ(i.f, *w.f) << #f; \
        }                               \
    } while (0)
    CHECK_FIELD(l3_offset);
    CHECK_FIELD(l4_offset);
    CHECK_FIELD(payload_offset);
    CHECK_FIELD(payload_len);
    CHECK_FIELD(len);
    CHECK_FIELD(sport);
    CHECK_FIELD(dport);
    CHECK_FIELD(eth_type);
    CHECK_FIELD(ip_version);
    CHECK_FIELD(l4_protocol);
    CHECK_FIELD(tcp_flags);
    CHECK_FIELD(icmp_type);
    CHECK_FIELD(icmp_code);
    CHECK_FIELD(tunnel_type);
    CHECK_FIELD(tunnel_id);
#undef CHECK_FIELD
    if (w.vlan) {
        EXPECT_EQ(i.vlan_id, *w.vlan);
    }
    if (w.saddr) {
        EXPECT_EQ(i.saddr_v4, *w.saddr);
    }
    if (w.decoded && i.l4 == nullptr) {
        EXPECT_EQ(i.payload, nullptr);
    }
    quelm_destroy_table(t);
}

std::string case_name(const testing::TestParamInfo<Case> &info) {
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(Encapsulations, Decode, testing::ValuesIn(kCases), case_name);
INSTANTIATE_TEST_SUITE_P(Tunnels, Decode, testing::ValuesIn(kTunnelCases), case_name);

TEST(DecodeHash, CaptureHashIsUsedUnlessIgnored) {
    const std::vector<uint8_t> frame = tcp4();
    const quelm_packet_header h{{100, 0}, uint32_t(frame.size()), uint32_t(frame.size())};
    const quelm_packet_ext ext{0xABCDE, 0, 0};
    for (uint32_t flags : {0u, uint32_t{QUELM_FLAG_IGNORE_PACKET_HASH}}) {
        quelm_table *t = quelm_create_table(flags, 1024, 0, 0, 0);
        quelm_process(t, frame.data(), &h, &ext);
        const uint32_t computed = 3 * (40000 + 80) + 6 + 0x0A010001 + 0x0A020002;
        EXPECT_EQ(t->packet.hash, flags ? computed : 0xABCDEu);
        EXPECT_EQ(t->packet.hash_idx, t->packet.hash & 1023);
        quelm_destroy_table(t);
    }
}

TEST(DecodeHash, GtpFlowHashIsAlwaysComputed) {
    const std::vector<uint8_t> frame = gtp(false);
    const quelm_packet_header h{{100, 0}, uint32_t(frame.size()), uint32_t(frame.size())};
    const quelm_packet_ext ext{0xABCDE, 0, 0};
    quelm_table *t = quelm_create_table(QUELM_FLAG_TUNNEL_DECODING, 1024, 0, 0, 0);
    quelm_process(t, frame.data(), &h, &ext);
    EXPECT_EQ(t->packet.hash, 3u * (53 + 5353) + 17 + 0x0A080001 + 0x0A080002);
    quelm_destroy_table(t);
}

}  // namespace
