// Decoding, one row per encapsulation, tunnel and refusal, naming the fields it checks
// (`key=value`, or `why=reason`); packets end at their capture length, so the sanitizers catch
// reads past it.
#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "test_table.h"

using namespace quelm_test;
constexpr const char *E = "192.0.2.1", *F = "192.0.2.2";  // outer addresses of tunnels

const Frame kTcp4 = Frame().eth().ipv4("10.1.0.1", "10.2.0.2").tcp(40000, 80, 0x18).payload(10);
const auto v4 = [](Ipv4Options o) { return Frame().eth().ipv4(A, B, o); };
static Frame vxlan(uint8_t flags) {
    Frame f = Frame().eth().vlan(3).ipv4(E, F).udp(33333, 4789);
    return f.bytes({flags, 0, 0, 0, 0x12, 0x34, 0x56, 0}).eth().ipv4(A, B).tcp(1111, 22);
}
static Frame nested_vxlan(int n) {
    Frame f = Frame().eth();
    for (int i = 0; i < n; i++)
        f.ipv4(A, B).udp(1, 4789).bytes({8, 0, 0, 0, 0, 0, 1, 0}).eth();
    return f.ipv4(A, B).udp(1, 2);
}
static Frame gtp(bool inner_v6, uint8_t type = 0xFF, uint8_t flags = 0x30) {
    Frame f = Frame().eth().ipv4(E, F).udp(2152, 2152).bytes({flags, type, 0, 0, 0, 0, 0, 1});
    if (flags & 0x07) f.bytes({0, 0, 0, 0});
    return inner_v6 ? f.ipv6(C, D).udp(53, 53) : f.ipv4("10.8.0.1", "10.8.0.2").udp(53, 5353);
}
static Frame l2tp(uint16_t flags, uint16_t ppp, std::initializer_list<uint8_t> extra = {}) {
    Frame f = Frame().eth().ipv4(E, F).udp(1701, 1701).bytes({uint8_t(flags >> 8), uint8_t(flags)});
    if (flags & 0x4000) f.bytes({0, 0});  // length
    f.bytes({0, 42, 0, 7}).bytes(extra).bytes({0xFF, 3, uint8_t(ppp >> 8), uint8_t(ppp)});
    return ppp == 0x0057 ? f.ipv6(C, D).tcp(1, 2) : f.ipv4("10.7.0.1", "10.7.0.2").tcp(3, 4);
}

constexpr uint32_t T = QUELM_FLAG_TUNNEL_DECODING, X = QUELM_FLAG_EXTENDED_DECODING;
const Frame kQinq = Frame().eth().tag(0x88A8, 100).vlan(20).ipv4(A, B).udp(1, 2);
static Frame v6_chain(int headers) {
    Frame f = Frame().eth().ipv6(C, D);
    for (int i = 0; i < headers; i++)
        f.ipv6_ext(60);
    return f.udp(1, 2).payload(4);
}

// clang-format off
struct Row { const char *name; uint32_t flags; Frame frame; const char *want; int caplen = -1; uint32_t wire = 0; };
const Row kRows[] = {  // caplen -1: the whole frame; wire 0: the frame's length
    {"ipv4_tcp", 0, kTcp4, "v=4 proto=6 src=10.1.0.1 sport=40000 dport=80 l3=14 l4=34 pay=54 plen=10 len=64 flags=24 vlan=0 tun=0 hash=703710"},
    {"capture_hash_ignored", QUELM_FLAG_IGNORE_PACKET_HASH, kTcp4, "hash=335861177"},
    {"two_vlan_tags_keep_the_inner_id", 0, Frame().eth().vlan(10).vlan(20).ipv4(A, B).udp(1, 2), "vlan=20 l3=22 proto=17"},
    {"mpls_stack", 0, Frame().eth().mpls(1, false).mpls(2, false).mpls(3, true).ipv4(A, B).udp(1, 2), "v=4 l3=26"},
    {"pppoe_ipv4", 0, Frame().eth().pppoe().ipv4(A, B).tcp(1, 2), "l3=22 l4=42"},
    {"ipv6_len_without_link_header", 0, Frame().eth().ipv6(C, D).udp(5353, 53).payload(20), "v=6 proto=17 l4=54 plen=20 len=68 sport=5353"},
    {"ipv6_destination_options_skipped", 0, Frame().eth().ipv6(C, D, true).tcp(1, 443), "proto=6 l4=62 dport=443"},
    {"icmp_type_and_code_as_port", 0, Frame().eth().ipv4(A, B).icmp(3, 1), "proto=1 sport=0 dport=769 plen=0 pay=-"},
    {"icmpv6", 0, Frame().eth().ipv6(C, D).icmp(128, 0, 58), "proto=58 dport=32768"},
    {"icmp_type_beyond_capture_reads_0", 0, Frame().eth().ipv4(A, B).icmp(3, 1), "proto=1 dport=0", 34},
    {"tcp_data_offset_beyond_ip_payload", 0, Frame().eth().ipv4(A, B).tcp(1, 2, 0x10, 15), "pay=94 plen=0"},
    {"tcp_data_offset_beyond_short_ip_length", 0, v4({.total_length = 44}).tcp(1, 2, 0x10, 15), "pay=58 plen=0"},
    {"tcp_ports_captured_flags_cut", 0, kTcp4, "sport=40000 dport=80 flags=0", 47},
    {"ip_options_move_the_transport", 0, v4({.ihl = 7}).udp(7, 9), "l4=42 sport=7"},
    {"other_protocols_have_no_ports", 0, Frame().eth().ipv4(A, B).l4(47).payload(8), "proto=47 sport=0 dport=0 pay=-"},
    {"vxlan_without_tunnel_decoding", 0, vxlan(8), "dport=4789 tun=0 src=192.0.2.1"},
    {"wire_length_16384", 0, kTcp4, "len=16384", -1, 16384},
    {"wire_length_16385", 0, kTcp4, "why=too_long", -1, 16385},
    {"mpls_carrying_ipv6", 0, Frame().eth().mpls(1, true).ipv6(C, D).udp(1, 2), "why=bad_header"},
    {"pppoe_ipv6", 0, Frame().eth().pppoe(0x0057).ipv6(C, D).tcp(1, 2), "why=bad_header"},
    {"ipv4_version_6", 0, v4({.version = 6}).udp(1, 2), "why=bad_header"},
    {"ipv4_ihl_0", 0, v4({.ihl = 0}).udp(1, 2).payload(20), "why=bad_header"},
    {"udp_in_short_ip_length", 0, v4({.total_length = 27}).udp(1, 2), "why=bad_header"},
    {"tcp_in_short_ip_length", 0, v4({.total_length = 39}).tcp(1, 2), "why=bad_header"},
    {"arp", 0, Frame().eth().ethertype(0x0806).payload(28), "why=not_ip"},
    {"later_fragment", 0, v4({.more_fragments = true, .fragment_offset = 185}).l4(17).payload(8), "why=fragment"},
    {"ethernet_cut", 0, kTcp4, "why=truncated", 13},
    {"vlan_tag_cut", 0, Frame().eth().vlan(5).ipv4(A, B).udp(1, 2), "why=truncated", 16},
    {"mpls_label_cut", 0, Frame().eth().mpls(1, false).mpls(2, true).ipv4(A, B).udp(1, 2), "why=truncated", 20},
    {"ipv4_cut", 0, kTcp4, "why=truncated", 33},
    {"ipv6_cut", 0, Frame().eth().ipv6(C, D).udp(1, 2), "why=truncated", 53},
    {"ipv6_destination_options_cut", 0, Frame().eth().ipv6(C, D, true).tcp(1, 443), "why=truncated", 58},
    {"tcp_ports_cut", 0, kTcp4, "why=truncated", 37},
    {"vxlan", T, vxlan(8), "vlan=3 l4=88 sport=1111 dport=22 tun=5 tid=1193046 src=10.0.0.1"},
    {"vxlan_without_vni", T, vxlan(0), "tun=5 tid=0"},
    {"vxlan_inner_frame_cut", T, vxlan(8), "dport=4789 tun=0", 64},
    {"vxlan_7_deep", T, nested_vxlan(7), "dport=2 tun=5"},
    {"vxlan_8_deep", T, nested_vxlan(8), "why=too_deep"},
    {"gtp_u_hash_is_computed", T, gtp(false), "l3=50 sport=53 dport=5353 tun=1 tid=0 src=10.8.0.1 hash=336609134"},
    {"gtp_u_with_sequence", T, gtp(false, 0xFF, 0x32), "l3=54 tun=1"},
    {"gtp_u_carrying_ipv6_keys_outer", T, gtp(true), "l3=14 dport=2152 tun=1 src=192.0.2.1"},
    {"gtp_control_is_plain_udp", T, gtp(false, 0x01), "dport=2152 tun=0"},
    {"l2tp", T, l2tp(0x0002, 0x0021), "l3=52 sport=3 tun=4 tid=42"},
    {"l2tp_length_and_sequence", T, l2tp(0x4802, 0x0021, {0, 1, 0, 2}), "l3=58 tun=4 tid=42"},
    {"l2tp_offset_padding", T, l2tp(0x0202, 0x0021, {0, 3, 0xEE, 0xEE, 0xEE}), "l3=57 sport=3 tun=4"},
    {"l2tp_ipv6", T, l2tp(0x0002, 0x0057), "v=6 tun=4 tid=42"},
    {"l2tp_lcp_is_plain_udp", T, l2tp(0x0002, 0xC021), "dport=1701 tun=0"},
    {"l2tp_control_is_plain_udp", T, l2tp(0x8002, 0x0021), "dport=1701 tun=0"},
    {"capwap_8_byte_header_and_32_to_the_ethertype", T, Frame().eth().ipv4(E, F).udp(40000, 5247).bytes({0, 0x10, 0, 0, 0, 0, 0, 0, 2}).payload(29, 0).bytes({8, 0}).ipv4("10.6.0.1", "10.6.0.2").udp(67, 68), "l3=82 sport=67 tun=2 src=10.6.0.1"},
    {"qinq_is_not_ip_by_design", 0, kQinq, "why=not_ip"},
    {"qinq_802_1ad_outside_802_1q", X, kQinq, "vlan=20 l3=22 proto=17"},
    {"qinq_pre_standard_tpid", X, Frame().eth().tag(0x9100, 7).ipv4(A, B).udp(1, 2), "vlan=7 l3=18"},
    {"pbb_customer_frame_and_its_tag", X, Frame().eth().tag(0x88A8, 5).pbb(0x123456).vlan(9).ipv4(A, B).tcp(1, 2), "vlan=9 l3=40 sport=1"},
    {"vn_tag", X, Frame().eth().tag(0x8926, 0x1234).ipv4(A, B).tcp(1, 2), "l3=20 sport=1"},
    {"llc_snap", X, Frame().eth().llc_snap().ipv4(A, B).tcp(1, 2), "l3=22 sport=1"},
    {"macsec_integrity_only", X, Frame().eth().ethertype(0x88E5).bytes({0x20, 0, 0, 0, 0, 1}).payload(8, 7).bytes({8, 0}).ipv4(A, B).udp(1, 2), "l3=30 sport=1"},
    {"macsec_encrypted", X, Frame().eth().ethertype(0x88E5).bytes({0x2C, 0, 0, 0, 0, 1}).payload(30), "why=not_ip"},
    {"llc_without_snap", X, Frame().eth().llc_snap(0x42).ipv4(A, B).tcp(1, 2), "why=not_ip"},
    {"pppoe_ipv6_extended", X, Frame().eth().pppoe(0x0057).ipv6(C, D).tcp(1, 2), "v=6 l3=22 l4=62"},
    {"pppoe_lcp", X, Frame().eth().pppoe(0xC021).payload(20), "why=not_ip"},
    {"mpls_carrying_ipv6_extended", X, Frame().eth().mpls(1, true).ipv6(C, D).udp(1, 2), "v=6 l3=18"},
    {"ipv6_extension_chain", X, Frame().eth().ipv6(C, D).ipv6_ext(0).ipv6_ext(43, 24).ipv6_ext(60).ipv6_ext(51, 16).ipv6_ext(135).udp(1, 2).payload(4), "proto=17 l4=118 plen=4 sport=1"},
    {"ipv6_8_extension_headers", X, v6_chain(8), "l4=118 plen=4"},
    {"offloaded_ipv4_length_0", X, v4({.total_length = 0}).tcp(1, 2).payload(30), "plen=30"},
    {"offloaded_ipv6_jumbogram", X, Frame().eth().ipv6(C, D).ip_length(0).ipv6_ext(0).tcp(1, 2).payload(30), "l4=62 plen=30"},
    {"ipv6_9_extension_headers", X, v6_chain(9), "why=too_deep"},
    {"ipv6_extension_cut", X, v6_chain(2), "why=truncated", 67},
    {"ipv6_first_fragment_keyed_on_ports", X, Frame().eth().ipv6(C, D).ipv6_fragment(0, true, 7).tcp(1, 443), "proto=6 l4=62 dport=443"},
    {"ipv6_later_fragment", X, Frame().eth().ipv6(C, D).ipv6_fragment(100, false, 7).l4(6).payload(16), "why=fragment"},
    {"icmp_echo_keyed_on_its_identifier", X, Frame().eth().ipv4(A, B).icmp(8, 0, 1, 9), "sport=9 dport=2048"},
    {"icmp_echo_reply_the_other_way_round", X, Frame().eth().ipv4(A, B).icmp(0, 0, 1, 9), "sport=2048 dport=9"},
    {"icmp_address_mask_reply", X, Frame().eth().ipv4(A, B).icmp(18, 0, 1, 3), "sport=4352 dport=3"},
    {"icmp_error_keeps_type_and_code", X, Frame().eth().ipv4(A, B).icmp(3, 1), "sport=0 dport=769"},
    {"icmpv6_node_information_reply", X, Frame().eth().ipv6(C, D).icmp(140, 0, 58, 2), "sport=35584 dport=2"},
    {"icmp_identifier_cut", X, Frame().eth().ipv4(A, B).icmp(8, 0), "sport=0 dport=2048", 39},
};
const char *const kReasons[] = {"too_long", "truncated", "not_ip", "bad_header", "fragment", "too_deep"};
// clang-format on

TEST(Decode, EveryEncapsulationTunnelAndRefusal) {
    for (const Row &r : kRows) {
        SCOPED_TRACE(r.name);
        Bench b(r.flags);
        std::vector<uint8_t> bytes = r.frame.build();
        const uint32_t caplen = r.caplen < 0 ? uint32_t(bytes.size()) : uint32_t(r.caplen);
        const quelm_packet_header h{{100, 0}, caplen, r.wire ? r.wire : uint32_t(bytes.size())};
        bytes.resize(h.caplen);
        bytes.shrink_to_fit();                      // nothing readable past the capture
        const quelm_packet_ext ext{0xABCDE, 0, 0};  // the capture layer's hash
        quelm_process(b.t, bytes.data(), &h, &ext);
        const quelm_stats *s = quelm_get_stats(b.t);
        const quelm_packet_info &i = b.t->packet;
        char src[16];
        auto n = [](uint64_t v) { return std::to_string(v); };
        // clang-format off
        std::map<std::string, std::string> got = {{"v", n(i.ip_version)}, {"proto", n(i.l4_protocol)},
            {"sport", n(i.sport)}, {"dport", n(i.dport)}, {"vlan", n(i.vlan_id)}, {"l3", n(i.l3_offset)},
            {"l4", n(i.l4_offset)}, {"pay", i.payload != nullptr ? n(i.payload_offset) : "-"}, {"plen", n(i.payload_len)}, {"len", n(i.len)},
            {"flags", n(i.tcp_flags)}, {"tun", n(i.tunnel_type)}, {"tid", n(i.tunnel_id)}, {"hash", n(i.hash)},
            {"src", utils_intoav4(i.saddr_v4, src, sizeof src)}};
        // clang-format on
        uint64_t refused = 0;
        for (int why = 0; why < QUELM_NOT_DECODED_REASONS; why++) {
            refused += s->not_decoded[why];
            if (s->not_decoded[why] != 0) got = {{"why", kReasons[why]}};
        }
        EXPECT_EQ(refused, s->packets_not_decoded);
        EXPECT_EQ(s->total_flows + refused, 1u);
        std::istringstream want(r.want);
        for (std::string kv; want >> kv;)
            EXPECT_EQ(got[kv.substr(0, kv.find('='))], kv.substr(kv.find('=') + 1)) << kv;
    }
}

// Beyond 64 KiB too (offloaded frames): every byte is credited, the 16-bit `len` aside.
TEST(Decode, LongPacketsWithinARaisedLimit) {
    Bench b(0);
    const Frame big = Frame().eth().ipv4(A, B).tcp(1, 2).payload(20000);
    b.send(big, 100);
    EXPECT_EQ(quelm_get_stats(b.t)->not_decoded[QUELM_NOT_DECODED_TOO_LONG], 1u) << "16384 first";
    EXPECT_EQ(quelm_set_max_packet_len(b.t, 0), -1);
    EXPECT_EQ(quelm_set_max_packet_len(b.t, 262144), 0);
    b.send(big, 100);
    const Frame bigger = Frame().eth().ipv6(C, D).tcp(1, 2).payload(100000);
    const std::vector<uint8_t> bytes = bigger.build();
    const quelm_packet_header h{{100, 0}, uint32_t(bytes.size()), 200000};
    const quelm_packet_ext ext{};
    quelm_process(b.t, bytes.data(), &h, &ext);
    quelm_flush(b.t);
    EXPECT_EQ(b.exports(), "0:4:1:20054 1:4:1:199986");
}
