// Link headers rewritten into Ethernet: where the network header lands, its EtherType, the MACs,
// the byte count, and frames cut anywhere in their link header.
#include <gtest/gtest.h>

#include "link_adapter.h"
#include "packet_builder.h"

namespace quelm_test {
namespace {

using quelm_tool::LinkAdapter;
using quelm_tool::LinkRefusal;
using Bytes = std::vector<uint8_t>;

Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes &p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}
Bytes host16(uint16_t v) {  // NFLOG's TLV fields are in the order of the machine reading them
    return Bytes(reinterpret_cast<uint8_t *>(&v), reinterpret_cast<uint8_t *>(&v) + 2);
}
// An 802.11 header with addresses A1..A3 of bytes A1..A3, and `more` (A4, QoS, HT control).
Bytes wifi(uint8_t fc0, uint8_t fc1, const Bytes &more = {}) {
    return cat({{fc0, fc1, 0, 0}, Bytes(6, 0xA1), Bytes(6, 0xA2), Bytes(6, 0xA3), {0, 0}, more});
}
const Bytes kSnapIpv4 = {0xAA, 0xAA, 0x03, 0, 0, 0, 0x08, 0x00};
const Bytes kSnapIpv6 = {0xAA, 0xAA, 0x03, 0, 0, 0, 0x86, 0xDD};
const Bytes kFcs = {1, 2, 3, 4};

TEST(LinkAdapter, NetworkHeaderFollowsAnEthernetHeader) {
    const Bytes v4 = Frame().ipv4("10.0.0.1", "10.0.0.2").udp(1000, 53).payload(9).build_ip();
    const Bytes v6 = Frame().ipv6("fd00::1", "fd00::2").udp(1000, 53).payload(9).build_ip();
    const Bytes v4_tlv = cat({host16(uint16_t(4 + v4.size())), host16(9)});
    // The bytes in front of the packet, the EtherType (0x86DD: the packet is IPv6), the bytes of
    // the destination and source MACs, the bytes behind the packet, the file's FCS length.
    struct Case {
        const char *name;
        int link_type;
        Bytes header;
        uint16_t ether_type = 0x0800, macs = 0;
        Bytes trailer = {};
        uint32_t fcs_len = 0;
        LinkRefusal refusal = LinkRefusal::kNone;
    } const cases[] = {
        // clang-format off
        {"ppp compressed protocol", 9, {0x57}, 0x86DD},
        {"ppp, fcs from the file", 50, {0xFF, 0x03, 0x00, 0x21}, 0x0800, 0, {0xAB, 0xCD}, 2},
        {"ppp serial, cisco hdlc", 50, {0x8F, 0x00, 0x86, 0xDD}, 0x86DD},
        {"pppoe", 51, {0x11, 0, 0, 1, 0, 0x3F, 0x00, 0x21}},
        {"frame relay snap", 107, {0x18, 0x40, 0x41, 0x03, 0x00, 0x80, 0, 0, 0, 0x86, 0xDD},
         0x86DD},
        {"frame relay, cisco's", 107, {0x48, 0xE1, 0x08, 0x00}},
        {"slip", 8, Bytes(16, 0)},
        // A TLV padded to 4 bytes before the packet's, another behind it.
        {"nflog", 239, cat({{2, 0, 0, 1}, host16(7), host16(10), {'a', 'b', 0, 0}, v4_tlv}), 0x0800,
         0, cat({Bytes((4 - v4.size() % 4) % 4, 0), host16(8), host16(1), kFcs})},
        {"802.11 from ds", 105, cat({wifi(0x08, 0x02), kSnapIpv4}), 0x0800, 0xA1A3},
        {"802.11 qos 4-address ht", 105,
         cat({wifi(0x88, 0x83, cat({Bytes(6, 0xA4), Bytes(6, 0)})), kSnapIpv6}), 0x86DD, 0xA3A4},
        {"802.11 protected", 105, wifi(0x08, 0x41), 0, 0, {}, 0, LinkRefusal::kEncrypted},
        {"802.11 null data", 105, wifi(0x48, 0x01), 0},
        {"802.11 not snap", 105, cat({wifi(0x08, 0x01), {0x42, 0x42, 0x03}}), 0, 0xA3A2},
        // TSFT and flags: an FCS at the end.
        {"radiotap fcs", 127, cat({{0, 0, 17, 0, 3, 0, 0, 0}, Bytes(8, 0), {0x10}, wifi(0x08, 0x01),
         kSnapIpv4}), 0x0800, 0xA3A2, kFcs},
        // Two present words; flags: the 802.11 header is padded to 4 bytes (26 + 2).
        {"radiotap data pad", 127, cat({{0, 0, 13, 0, 2, 0, 0, 0x80, 0, 0, 0, 0, 0x20},
         wifi(0x88, 0x01, {0, 0, 0, 0}), kSnapIpv4}), 0x0800, 0xA3A2},
        {"ppi", 192, cat({{0, 0, 8, 0, 105, 0, 0, 0}, wifi(0x08, 0x00), kSnapIpv6}), 0x86DD,
         0xA1A2},
        {"ipoib", 242, cat({Bytes(40, 0), {0x08, 0x00, 0, 0}})},
        {"fddi", 10, cat({{0x50}, Bytes(6, 0xD1), Bytes(6, 0x51), kSnapIpv6}), 0x86DD, 0xD151},
        {"atm llc", 11, kSnapIpv6, 0x86DD},
        {"atm vc-multiplexed", 19, {}},
        {"sunatm", 123, cat({{0x02, 0, 0, 42}, kSnapIpv4})},
        {"ipnet", 226, cat({{1, 26}, Bytes(22, 0)}), 0x86DD},
        // clang-format on
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        const Bytes &ip = c.ether_type == 0x86DD ? v6 : v4;
        const Bytes packet = cat({c.header, ip, c.trailer});
        const uint32_t len = uint32_t(packet.size());
        LinkAdapter adapter(c.link_type, c.fcs_len);
        const auto frame = adapter.adapt(packet.data(), len, len);
        EXPECT_EQ(frame.refusal, c.refusal);
        EXPECT_EQ(frame.data[12] << 8 | frame.data[13], c.ether_type);
        EXPECT_EQ(Bytes(frame.data, frame.data + 12),
                  cat({Bytes(6, uint8_t(c.macs >> 8)), Bytes(6, uint8_t(c.macs))}));
        if (c.ether_type == 0 || c.refusal != LinkRefusal::kNone) continue;
        EXPECT_EQ(Bytes(frame.data + 14, frame.data + frame.caplen), ip);
        EXPECT_EQ(frame.len, 14 + ip.size());
        // Cut inside the link header: no IP; 10 bytes into the packet: the byte count stays. Copies
        // of the exact size, so that the sanitizer build sees any read past the end.
        for (uint32_t n = 0, size = uint32_t(c.header.size()); n <= size; n++) {
            const uint32_t cut = n < size ? n : size + 10;
            const auto f =
                adapter.adapt(Bytes(packet.data(), packet.data() + cut).data(), cut, len);
            const bool no_ip = f.caplen == 14 || (f.data[12] << 8 | f.data[13]) != c.ether_type;
            EXPECT_TRUE(n < size ? no_ip : f.caplen == 24 && f.len == 14 + ip.size()) << cut;
        }
    }
}

}  // namespace
}  // namespace quelm_test
