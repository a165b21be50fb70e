// Community ID, version 1: a flow's identity that other monitors compute alike. SHA-1 over the
// seed, the endpoints in order (the smaller address and port first, unless the flow is one-way
// ICMP), the protocol and a zero byte, and the two ports; base64, behind "1:".
#include <string.h>

#include "quelm.h"
#include "quelm_bytes.h"
#include "quelm_sha1.h"

namespace {

constexpr uint8_t kTcp = 6, kUdp = 17, kSctp = 132, kIcmp = 1, kIcmpv6 = 58;

// ICMP and ICMPv6 types that have a counterpart (request and reply, solicitation and
// advertisement); 0 terminates each list, -1 is "none".
int counterpart(uint8_t protocol, uint8_t type) {
    static const uint8_t v4[][2] = {{8, 0}, {13, 14}, {15, 16}, {10, 9}, {17, 18}};
    static const uint8_t v6[][2] = {{128, 129}, {130, 131}, {133, 134},
                                    {135, 136}, {139, 140}, {144, 145}};
    const bool is_v4 = protocol == kIcmp;
    const auto *pairs = is_v4 ? v4 : v6;
    const size_t n = is_v4 ? sizeof v4 / sizeof v4[0] : sizeof v6 / sizeof v6[0];
    for (size_t i = 0; i < n; i++) {
        if (pairs[i][0] == type) return pairs[i][1];
        if (pairs[i][1] == type) return pairs[i][0];
    }
    return -1;
}

void base64(const uint8_t *in, size_t len, char *out) {
    static const char kDigits[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (size_t i = 0; i < len; i += 3) {
        const uint32_t v = uint32_t(in[i]) << 16 | (i + 1 < len ? uint32_t(in[i + 1]) << 8 : 0) |
                           (i + 2 < len ? in[i + 2] : 0);
        *out++ = kDigits[v >> 18];
        *out++ = kDigits[(v >> 12) & 63];
        *out++ = i + 1 < len ? kDigits[(v >> 6) & 63] : '=';
        *out++ = i + 2 < len ? kDigits[v & 63] : '=';
    }
    *out = 0;
}

}  // namespace

extern "C" {

int quelm_community_id(uint8_t ip_version, const uint8_t saddr[16], const uint8_t daddr[16],
                       uint8_t protocol, uint16_t sport, uint16_t dport, uint16_t seed, char *buf,
                       size_t size) {
    if (buf == nullptr || size < QUELM_COMMUNITY_ID_SIZE) return -1;
    const size_t alen = ip_version == 4 ? 4 : 16;
    uint8_t s[16], d[16];
    if (ip_version == 4) {  // host-order values: the hash takes network order
        quelm::wr32(s, quelm::key_ipv4(saddr));
        quelm::wr32(d, quelm::key_ipv4(daddr));
    } else {
        memcpy(s, saddr, 16);
        memcpy(d, daddr, 16);
    }
    bool one_way = false, ports = true;
    if (protocol == kIcmp || protocol == kIcmpv6) {
        const int other = counterpart(protocol, uint8_t(sport));
        one_way = other < 0;
        if (!one_way) dport = uint16_t(other);
    } else if (protocol != kTcp && protocol != kUdp && protocol != kSctp) {
        ports = false;
    }
    const int order = memcmp(s, d, alen);
    const bool swap = !one_way && (order > 0 || (order == 0 && sport > dport));
    uint8_t input[2 + 16 + 16 + 2 + 4], *p = input;
    quelm::wr16(p, seed), p += 2;
    memcpy(p, swap ? d : s, alen), p += alen;
    memcpy(p, swap ? s : d, alen), p += alen;
    *p++ = protocol;
    *p++ = 0;
    if (ports) {
        quelm::wr16(p, swap ? dport : sport), p += 2;
        quelm::wr16(p, swap ? sport : dport), p += 2;
    }
    uint8_t digest[quelm::kSha1Size];
    quelm::sha1(input, size_t(p - input), digest);
    memcpy(buf, "1:", 2);
    base64(digest, sizeof digest, buf + 2);
    return QUELM_COMMUNITY_ID_SIZE - 1;
}

int quelm_flow_community_id(quelm_flow *flow, uint16_t seed, char *buf, size_t size) {
    const quelm_flow_key &k = *quelm_flow_get_key(flow);
    const uint32_t flags = quelm_flow_get_value(flow)->flags;
    uint16_t sport = k.sport, dport = k.dport;
    if (k.protocol == kIcmp || k.protocol == kIcmpv6) {
        // The type and code of the key source's packets: the query or its reply for a query
        // flow, else as the key keeps them (type << 8 | code in the destination port).
        if (flags & QUELM_FLOW_FLAG_ICMP_QUERY) {
            const bool from_reply = (flags & QUELM_FLOW_FLAG_ICMP_FROM_REPLY) != 0;
            const uint8_t query = uint8_t((from_reply ? k.sport : k.dport) >> 8);
            sport = from_reply ? uint16_t(counterpart(k.protocol, query)) : query;
            dport = 0;
        } else {
            sport = k.dport >> 8;
            dport = k.dport & 0xFF;
        }
    }
    return quelm_community_id(k.ip_version, k.saddr, k.daddr, k.protocol, sport, dport, seed, buf,
                              size);
}

}  // extern "C"
