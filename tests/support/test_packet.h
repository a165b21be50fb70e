// Decoded packets for storage tests: a packet_info as the decoder would leave it, backed by real
// Ethernet and IP header bytes (flows read MAC and IPv6 addresses from them).
#pragma once

#include <arpa/inet.h>
#include <string.h>

#include <cstdint>
#include <memory>
#include <string>

#include "quelm.h"

namespace quelm_test {

struct Endpoint {
    std::string addr;  // IPv4 dotted quad or IPv6 text
    uint16_t port = 0;
};

struct TestPacket {
    uint8_t bytes[128] = {};
    quelm_packet_header header = {};
    quelm_packet_ext ext = {};
    quelm_packet_info info = {};

    TestPacket() = default;
    TestPacket(const TestPacket &) = delete;  // info points into bytes and header
    TestPacket &operator=(const TestPacket &) = delete;
};

struct PacketSpec {
    Endpoint src, dst;
    uint8_t protocol = 6;
    int64_t sec = 100;
    int64_t usec = 0;
    uint16_t vlan = 0;
    uint32_t wire_len = 60;
    uint8_t tcp_flags = 0;
    uint8_t smac[6] = {0x02, 0, 0, 0, 0, 0x01};
    uint8_t dmac[6] = {0x02, 0, 0, 0, 0, 0x02};
};

inline std::unique_ptr<TestPacket> make_packet(const PacketSpec &spec) {
    auto p = std::make_unique<TestPacket>();
    memcpy(p->bytes, spec.dmac, 6);
    memcpy(p->bytes + 6, spec.smac, 6);
    p->header.ts = {spec.sec, spec.usec};
    p->header.len = spec.wire_len;
    p->header.caplen = sizeof p->bytes;
    quelm_packet_info &i = p->info;
    i.header = &p->header;
    i.ext = &p->ext;
    i.data = p->bytes;
    i.eth = p->bytes;
    i.l3_offset = 14;
    i.l3 = p->bytes + 14;
    i.vlan_id = spec.vlan;
    i.l4_protocol = spec.protocol;
    i.sport = spec.src.port;
    i.dport = spec.dst.port;
    i.tcp_flags = spec.tcp_flags;
    uint8_t *l3 = p->bytes + 14;
    in_addr a4{}, b4{};
    if (inet_pton(AF_INET, spec.src.addr.c_str(), &a4) == 1 &&
        inet_pton(AF_INET, spec.dst.addr.c_str(), &b4) == 1) {
        i.is_ipv4 = 1;
        i.ip_version = 4;
        i.eth_type = 0x0800;
        i.saddr_v4 = ntohl(a4.s_addr);
        i.daddr_v4 = ntohl(b4.s_addr);
        i.hash_seed = i.saddr_v4 + i.daddr_v4;
        i.len = uint16_t(spec.wire_len);
        l3[0] = 0x45;
        memcpy(l3 + 12, &a4, 4);
        memcpy(l3 + 16, &b4, 4);
    } else {
        i.is_ipv4 = 0;
        i.ip_version = 6;
        i.eth_type = 0x86DD;
        l3[0] = 0x60;
        inet_pton(AF_INET6, spec.src.addr.c_str(), l3 + 8);
        inet_pton(AF_INET6, spec.dst.addr.c_str(), l3 + 24);
        uint32_t s, d;
        memcpy(&s, l3 + 8 + 12, 4);
        memcpy(&d, l3 + 24 + 12, 4);
        i.hash_seed = s + d;
        i.len = uint16_t(spec.wire_len - 14);
    }
    return p;
}

// The same packet seen in the other direction.
inline PacketSpec reversed(PacketSpec spec) {
    std::swap(spec.src, spec.dst);
    uint8_t tmp[6];
    memcpy(tmp, spec.smac, 6);
    memcpy(spec.smac, spec.dmac, 6);
    memcpy(spec.dmac, tmp, 6);
    return spec;
}

}  // namespace quelm_test
