// Packet decoding. Every header is checked against `caplen` before it is read, and every refusal
// names its reason. First IPv4 fragments are keyed on their ports; later fragments are credited to
// their flow through the fragment table and end here as "not decoded" (reason: fragment).
//
// Tables with QUELM_FLAG_EXTENDED_DECODING take the designed path first and leave it only where
// the designed decoding would give up (an EtherType it does not know, an IPv6 extension header, an
// ICMP query), so packets the designed path keys cost one flag test more at most.
#include "quelm_decode.h"

#include "quelm_bytes.h"
#include "quelm_flow.h"
#include "quelm_fragment_hash.h"
#include "quelm_hash.h"

#include <algorithm>
#include <initializer_list>

namespace {

using quelm::rd16;
using quelm::rd32;

// Longer packets are not decoded: they are not Ethernet frames of any link we key.
// Encapsulations nest at most this deep (tunnels in tunnels); deeper packets are not decoded.
constexpr int kMaxDecodeDepth = 8;

constexpr uint16_t kEthIpv4 = 0x0800, kEthIpv6 = 0x86DD, kEthVlan = 0x8100, kEthMpls = 0x8847,
                   kEthPppoe = 0x8864;
// Extended decoding: service tags (802.1ad, and the pre-standard QinQ value), backbone service
// instance tags (PBB), virtual network tags; values up to 1500 are 802.3 lengths (LLC follows).
constexpr uint16_t kEthQinq = 0x88A8, kEthQinqLegacy = 0x9100, kEthPbb = 0x88E7, kEthVnTag = 0x8926,
                   kEthMacsec = 0x88E5, kEthMaxLength = 1500;
// MACsec tag: TCI and association number, short length, packet number; the secure channel id
// follows when SC is set. E or C set: the payload is encrypted (or changed) and cannot be read.
constexpr uint32_t kMacsecTagLen = 6, kMacsecSciLen = 8;
constexpr uint8_t kMacsecSc = 0x20, kMacsecEncrypted = 0x0C;
// Tags and inner headers that one frame may stack before its network header.
constexpr int kMaxLinkTags = 8;
constexpr uint16_t kPppIpv4 = 0x0021, kPppIpv6 = 0x0057;
constexpr uint8_t kProtoIcmp = 1, kProtoTcp = 6, kProtoUdp = 17, kProtoIcmpv6 = 58,
                  kIpv6DestOptions = 60;
// IPv6 extension headers the extended decoding walks, and how many of them it follows.
constexpr uint8_t kIpv6HopByHop = 0, kIpv6Routing = 43, kIpv6Fragment = 44, kIpv6Auth = 51,
                  kIpv6Mobility = 135;
constexpr int kMaxIpv6Extensions = 8;

// One bit per IP protocol number: set for the extension headers above.
struct ProtocolSet {
    uint64_t bits[4];
    constexpr ProtocolSet(std::initializer_list<uint8_t> protocols) : bits{} {
        for (uint8_t p : protocols)
            bits[p >> 6] |= uint64_t{1} << (p & 63);
    }
    constexpr bool has(uint8_t p) const { return (bits[p >> 6] >> (p & 63)) & 1; }
};
constexpr ProtocolSet kIpv6Extensions = {kIpv6HopByHop, kIpv6Routing,     kIpv6Fragment,
                                         kIpv6Auth,     kIpv6DestOptions, kIpv6Mobility};
constexpr uint16_t kPortGtpU = 2152, kPortL2tp = 1701, kPortCapwapData = 5247, kPortVxlan = 4789;

enum class Layer { link, network, done };

struct Decoder {
    const quelm_decode_context &ctx;
    quelm_packet_info &info;
    const uint8_t *pkt;
    uint32_t caplen;
    quelm_not_decoded_reason why = QUELM_NOT_DECODED_TRUNCATED;
    uint32_t inner_frame = 0;  // Ethernet header behind a VXLAN tunnel

    bool extended() const { return (ctx.flags & QUELM_FLAG_EXTENDED_DECODING) != 0; }
    // The bytes behind an IP header of `header_len` by the wire length, at most 65535: the length
    // of offloaded frames whose IP length field says 0.
    uint16_t wire_payload(uint32_t header_len) const {
        const uint64_t end = uint64_t{info.l3_offset} + header_len;
        return uint16_t(info.header->len > end ? std::min<uint64_t>(info.header->len - end, 0xFFFF)
                                               : 0);
    }
    bool fits(uint32_t offset, uint32_t len) const { return uint64_t{offset} + len <= caplen; }
    bool refuse(quelm_not_decoded_reason reason) {
        why = reason;
        return false;
    }
    bool need(uint32_t offset, uint32_t len) {
        return fits(offset, len) || refuse(QUELM_NOT_DECODED_TRUNCATED);
    }

    bool link(uint32_t frame);
    bool tags(uint16_t &type, uint32_t &cursor);
    bool network(Layer &next);
    bool fragment(uint16_t frag);
    bool credit_fragment(bool first, bool more, uint32_t key, uint16_t id, const uint8_t *source);
    bool ipv6_extensions(uint32_t &l4);
    void icmp_query(uint32_t l4);
    void tunnel(Layer &next);
    void gtp(uint32_t u);
    bool l2tp(uint32_t u);
    bool capwap(uint32_t u);
    bool ip();
    bool transport(uint32_t l4);
};

// Link layer from `frame`: Ethernet, 802.1Q tags (the innermost id is kept), an MPLS stack (whose
// payload is taken to be IPv4 by design, either version with extended decoding).
bool Decoder::link(uint32_t frame) {
    if (!need(frame, 14)) return false;
    info.l2_offset = uint16_t(frame);
    info.eth = pkt + frame;
    uint16_t type = rd16(pkt + frame + 12);
    uint32_t cursor = frame + 14;
    while (type == kEthVlan) {
        if (!need(cursor, 4)) return false;
        info.vlan_id = rd16(pkt + cursor) & 0x0FFF;
        type = rd16(pkt + cursor + 2);
        cursor += 4;
    }
    if (type != kEthIpv4 && type != kEthIpv6 && extended() && !tags(type, cursor)) return false;
    if (type == kEthMpls) {
        for (;;) {
            if (!need(cursor, 4)) return false;
            const bool bottom = (pkt[cursor + 2] & 1) != 0;
            cursor += 4;
            if (bottom) break;
        }
        // The label stack does not say what it carries: the version nibble does (IPv4 by design).
        type = extended() && fits(cursor, 1) && (pkt[cursor] >> 4) == 6 ? kEthIpv6 : kEthIpv4;
    }
    info.eth_type = type;
    info.l3_offset = uint16_t(cursor);
    return cursor <= 0xFFFF || refuse(QUELM_NOT_DECODED_TOO_LONG);
}

// Extended decoding: the tags and inner headers in front of the network header, in any order,
// from `type` found at `cursor - 2`; both end at the network header's EtherType and offset.
bool Decoder::tags(uint16_t &type, uint32_t &cursor) {
    for (int n = 0; n < kMaxLinkTags; n++) {
        switch (type) {
            case kEthVlan:
            case kEthQinq:
            case kEthQinqLegacy:
                if (!need(cursor, 4)) return false;
                info.vlan_id = rd16(pkt + cursor) & 0x0FFF;
                type = rd16(pkt + cursor + 2);
                cursor += 4;
                break;
            case kEthPbb:  // 4-byte I-tag, then the customer's Ethernet header
                if (!need(cursor, 4 + 14)) return false;
                info.eth = pkt + cursor + 4;
                type = rd16(pkt + cursor + 4 + 12);
                cursor += 4 + 14;
                break;
            case kEthMacsec: {  // integrity only: the protected frame's EtherType follows
                if (!need(cursor, kMacsecTagLen)) return false;
                const uint8_t tci = pkt[cursor];
                if (tci & kMacsecEncrypted) return refuse(QUELM_NOT_DECODED_NOT_IP);
                const uint32_t len = kMacsecTagLen + (tci & kMacsecSc ? kMacsecSciLen : 0);
                if (!need(cursor, len + 2)) return false;
                type = rd16(pkt + cursor + len);
                cursor += len + 2;
                break;
            }
            case kEthVnTag:  // 4-byte tag, then the EtherType
                if (!need(cursor, 6)) return false;
                type = rd16(pkt + cursor + 4);
                cursor += 6;
                break;
            default:
                if (type > kEthMaxLength) return true;
                // 802.3 length: IP only in LLC/SNAP (DSAP, SSAP 0xAA, UI, OUI 0, EtherType).
                if (!need(cursor, 8)) return false;
                if (rd16(pkt + cursor) != 0xAAAA || pkt[cursor + 2] != 0x03 ||
                    (rd32(pkt + cursor + 2) & 0x00FFFFFF) != 0)
                    return refuse(QUELM_NOT_DECODED_NOT_IP);
                type = rd16(pkt + cursor + 6);
                cursor += 8;
                break;
        }
    }
    return refuse(QUELM_NOT_DECODED_TOO_DEEP);
}

// Network layer at info.l3_offset; `next` says which layer decoding goes on with.
bool Decoder::network(Layer &next) {
    info.fragment = nullptr;
    if (info.eth_type == kEthPppoe) {
        // PPPoE header and PPP protocol; by design the session carries IPv4.
        uint16_t type = kEthIpv4;
        if (extended()) {
            if (!need(info.l3_offset, 8)) return false;
            const uint16_t ppp = rd16(pkt + info.l3_offset + 6);
            type = ppp == kPppIpv4 ? kEthIpv4 : ppp == kPppIpv6 ? kEthIpv6 : 0;
        }
        info.l3_offset = uint16_t(info.l3_offset + 8);
        info.eth_type = type;
    }
    if (info.eth_type != kEthIpv4 && info.eth_type != kEthIpv6)
        return refuse(QUELM_NOT_DECODED_NOT_IP);
    if (info.l3_offset >= caplen) return refuse(QUELM_NOT_DECODED_TRUNCATED);
    const bool v6 = info.eth_type == kEthIpv6;
    if ((pkt[info.l3_offset] >> 4) != (v6 ? 6 : 4)) return refuse(QUELM_NOT_DECODED_BAD_HEADER);
    info.l3 = pkt + info.l3_offset;
    next = Layer::done;
    if (v6) {
        info.ip_version = 6;
        // Within 16 bits as designed (a wire length shorter than the headers wraps there).
        const uint32_t len = info.header->len;
        info.len = uint16_t(len - info.l3_offset);
        info.bytes = len > 0xFFFF && len > info.l3_offset ? len - info.l3_offset : info.len;
        return true;
    }
    info.ip_version = 4;
    info.bytes = info.header->len;
    info.len = uint16_t(info.bytes);
    if (!need(info.l3_offset, 20)) return false;
    const uint16_t frag = rd16(info.l3 + 6);
    if ((frag & 0x3FFF) != 0 && !fragment(frag)) return false;
    if (info.l3[9] == kProtoUdp && (ctx.flags & QUELM_FLAG_TUNNEL_DECODING)) tunnel(next);
    return true;
}

// An IPv4 fragment: see credit_fragment.
bool Decoder::fragment(uint16_t frag) {
    const uint8_t *ip = info.l3;
    const uint16_t id_le = uint16_t(ip[4] | ip[5] << 8);
    const uint32_t saddr = rd32(ip + 12), daddr = rd32(ip + 16);
    const uint32_t key = 7 * uint32_t{id_le} + ip[9] + 3 * daddr + saddr;
    return credit_fragment((frag & 0x1FFF) == 0, (frag & 0x2000) != 0, key, id_le, ip + 12);
}

// Credits a fragment of the datagram `key`/`id` through the fragment table; true when decoding
// goes on (first fragment). A later fragment that reaches no flow is refused as such.
bool Decoder::credit_fragment(bool first, bool more, uint32_t key, uint16_t id,
                              const uint8_t *source) {
    quelm_fragment_entry *e = quelm_fragment_hash_find(ctx.fragments, key, id, info.header);
    info.fragment = e;
    if (e == nullptr) {
        if (!first) why = QUELM_DECODE_FRAGMENT_NO_FLOW;
        return first;
    }
    e->bytes += info.bytes;
    e->pkts++;
    if (quelm_flow *flow = e->flow) {
        const bool forward = info.eth_type == kEthIpv4
                                 ? rd32(source) == quelm::key_ipv4(flow->key.saddr)
                                 : memcmp(source, flow->key.saddr, 16) == 0;
        quelm_flow_dir_value &d = flow->value.direction[forward ? 0 : 1];
        d.last = info.header->ts;
        d.pkts++;
        d.bytes += info.bytes;
        if (&d == &flow->value.direction[1] && d.first.tv_sec == 0) d.first = info.header->ts;
        if (!more) quelm_fragment_entry_unlink_flow(e, flow);
        info.fragment = nullptr;
        return refuse(QUELM_NOT_DECODED_FRAGMENT);
    }
    if (!more) {
        e->expire = 0;
        info.fragment = nullptr;
    }
    if (!first) why = QUELM_DECODE_FRAGMENT_NO_FLOW;
    return first;
}

// UDP tunnels over IPv4. On a match the inner packet is set up and `next` says where decoding goes
// on; anything that does not match or fit leaves the packet as plain UDP.
void Decoder::tunnel(Layer &next) {
    const uint32_t ihl = uint32_t(info.l3[0] & 0x0F) * 4;
    const uint32_t udp = info.l3_offset + ihl, u = udp + 8;
    if (ihl == 0 || !fits(udp, 8)) return;
    const uint16_t sport = rd16(pkt + udp), dport = rd16(pkt + udp + 2);
    if (sport == kPortGtpU || dport == kPortGtpU) {
        gtp(u);
    } else if (sport == kPortL2tp && dport == kPortL2tp) {
        if (l2tp(u)) next = Layer::network;
    } else if ((sport == kPortCapwapData && dport > 1024) ||
               (dport == kPortCapwapData && sport > 1024)) {
        if (capwap(u)) next = Layer::network;
    } else if (dport == kPortVxlan && fits(u, 8 + 14)) {
        info.tunnel_type = QUELM_TUNNEL_VXLAN;
        if (pkt[u] & 0x08) info.tunnel_id = uint32_t(pkt[u + 4]) << 16 | rd16(pkt + u + 5);
        next = Layer::link;
        inner_frame = u + 8;
    }
}

void Decoder::gtp(uint32_t u) {
    if (!fits(u, 8) || (pkt[u] >> 5) != 1 || pkt[u + 1] != 0xFF) return;
    info.tunnel_type = QUELM_TUNNEL_GTP_U;
    info.hash = 0;  // the capture layer's hash is of the outer packet
    const uint32_t inner = u + 8 + ((pkt[u] & 0x07) ? 4 : 0);
    if (inner < caplen && (pkt[inner] >> 4) == 4) {
        info.l3_offset = uint16_t(inner);
        info.l3 = pkt + inner;
    }
}

bool Decoder::l2tp(uint32_t u) {
    if (!fits(u, 6)) return false;
    const uint16_t flags = rd16(pkt + u);
    if ((flags & 0x8000) || !(flags & 0x0002)) return false;
    const bool has_length = flags & 0x4000;
    const uint32_t id_at = has_length ? u + 4 : u + 2;
    uint32_t end = has_length ? u + 8 : u + 6;
    const uint32_t tunnel_id = fits(id_at, 2) ? rd16(pkt + id_at) : 0;
    if (flags & 0x0800) end += 4;  // Ns, Nr
    if (flags & 0x0200) {          // offset size, then that many bytes of padding
        if (!fits(end, 2)) return false;
        end += 2 + rd16(pkt + end);
    }
    if (!fits(end, 4)) return false;
    const uint16_t ppp_proto = rd16(pkt + end + 2);
    if (ppp_proto != kPppIpv4 && ppp_proto != kPppIpv6) return false;
    info.eth_type = ppp_proto == kPppIpv4 ? kEthIpv4 : kEthIpv6;
    info.tunnel_type = QUELM_TUNNEL_L2TP;
    info.tunnel_id = tunnel_id;
    info.l3_offset = uint16_t(end + 4);
    return true;
}

bool Decoder::capwap(uint32_t u) {
    if (uint64_t{caplen} <= uint64_t{u} + 40) return false;
    const uint32_t hlen = uint32_t(pkt[u + 1] >> 3) * 4;
    const uint32_t end = u + hlen;
    if (!fits(end, 32) || pkt[end] != 2) return false;
    const uint16_t type = rd16(pkt + end + 30);
    if (type == 0) return false;
    info.eth_type = type;
    info.tunnel_type = QUELM_TUNNEL_CAPWAP;
    info.l3_offset = uint16_t(end + 32);
    return true;
}

// IP header: addresses, the transport protocol and where its header starts; the bucket of the
// capture layer's hash is prefetched as early as it is known.
bool Decoder::ip() {
    info.is_ipv4 = info.eth_type == kEthIpv4;
    info.tcp_flags = 0;
    info.saddr_v4 = info.daddr_v4 = 0;
    quelm_hash *hash = info.is_ipv4 ? ctx.hash_v4 : ctx.hash_v6;
    if (info.hash != 0) {
        info.hash_idx = info.hash & hash->mask;
        if (hash->num_buckets != 0) __builtin_prefetch(&hash->buckets[info.hash_idx], 0, 3);
    }
    const uint8_t *ip = info.l3;
    const uint32_t avail = caplen - info.l3_offset;
    uint32_t l4 = 0;
    if (!info.is_ipv4) {
        if (avail < 40) return refuse(QUELM_NOT_DECODED_TRUNCATED);
        l4 = info.l3_offset + 40u;
        info.l3_payload_len = rd16(ip + 4);
        info.l4_protocol = ip[6];
        if (kIpv6Extensions.has(info.l4_protocol) && extended()) {
            if (!ipv6_extensions(l4)) return false;
        } else if (info.l4_protocol == kIpv6DestOptions) {
            if (avail < 40 + 2) return refuse(QUELM_NOT_DECODED_TRUNCATED);
            const uint32_t ext_len = 8 * (uint32_t(ip[41]) + 1);
            if (avail < 40 + ext_len) return refuse(QUELM_NOT_DECODED_TRUNCATED);
            info.l4_protocol = ip[40];
            l4 += ext_len;
        }
        uint32_t s, d;
        memcpy(&s, ip + 8 + 12, 4);
        memcpy(&d, ip + 24 + 12, 4);
        info.hash_seed = s + d;
    } else {
        if (avail < 20) return refuse(QUELM_NOT_DECODED_TRUNCATED);
        const uint32_t hlen = uint32_t(ip[0] & 0x0F) * 4;
        if (hlen == 0) return refuse(QUELM_NOT_DECODED_BAD_HEADER);
        info.l3_payload_len = uint16_t(rd16(ip + 2) - hlen);
        if (rd16(ip + 2) == 0 && extended()) info.l3_payload_len = wire_payload(hlen);
        info.saddr_v4 = rd32(ip + 12);
        info.daddr_v4 = rd32(ip + 16);
        info.l4_protocol = ip[9];
        info.hash_seed = info.saddr_v4 + info.daddr_v4;
        l4 = info.l3_offset + hlen;
    }
    if (l4 > 0xFFFF) return refuse(QUELM_NOT_DECODED_TOO_LONG);
    info.l4_offset = uint16_t(l4);
    if (!transport(l4)) return false;
    if (info.hash == 0) quelm_hash_compute_hash_index(hash, &info);
    return true;
}

// Extended decoding: the IPv6 extension headers from `l4` (just past the fixed header), which ends
// at the transport header; the payload length loses what they take. A later fragment is credited
// to its flow and refused.
bool Decoder::ipv6_extensions(uint32_t &l4) {
    // A jumbogram, as offloaded frames beyond 64 KiB are, has its length in a hop-by-hop option.
    if (info.l3_payload_len == 0 && info.l4_protocol == kIpv6HopByHop)
        info.l3_payload_len = wire_payload(40);
    for (int n = 0;; n++) {
        const uint8_t next = info.l4_protocol;
        if (!kIpv6Extensions.has(next)) return true;
        if (n == kMaxIpv6Extensions) return refuse(QUELM_NOT_DECODED_TOO_DEEP);
        if (!need(l4, 8)) return false;  // every extension header is at least 8 bytes
        const uint8_t *h = pkt + l4;
        const uint32_t len = next == kIpv6Fragment ? 8
                             : next == kIpv6Auth   ? 4 * (uint32_t(h[1]) + 2)
                                                   : 8 * (uint32_t(h[1]) + 1);
        if (len > info.l3_payload_len) return refuse(QUELM_NOT_DECODED_BAD_HEADER);
        if (next == kIpv6Fragment) {
            const uint16_t offset = rd16(h + 2) & 0xFFF8;
            const bool more = (h[3] & 1) != 0;
            if (offset != 0 || more) {
                // The datagram: its identification, addresses and upper protocol, as for IPv4.
                const uint32_t id = rd32(h + 4);
                uint32_t addresses = 0;
                for (int i = 0; i < 32; i += 4)
                    addresses = addresses * 3 + rd32(info.l3 + 8 + i);
                const uint32_t key = 7 * id + h[0] + addresses;
                if (!credit_fragment(offset == 0, more, key, uint16_t(id), info.l3 + 8))
                    return false;
            }
        }
        info.l4_protocol = h[0];
        info.l3_payload_len = uint16_t(info.l3_payload_len - len);
        l4 += len;
    }
}

// Extended decoding: a query and its reply share one flow, keyed by the query's type and its
// identifier (echo, timestamp, information and address mask for ICMP; echo and node information,
// whose query type stands in for the identifier, for ICMPv6).
void Decoder::icmp_query(uint32_t l4) {
    if (!fits(l4, 6)) return;
    const uint8_t type = pkt[l4];
    int query = -1;
    bool reply = false;
    if (info.l4_protocol == kProtoIcmp && info.is_ipv4) {
        if (type == 0 || type == 8)
            query = 8, reply = type == 0;
        else if (type >= 13 && type <= 18)
            query = type - (type + 1) % 2, reply = type % 2 == 0;
    } else if (info.l4_protocol == kProtoIcmpv6 && !info.is_ipv4) {
        if (type == 128 || type == 129)
            query = 128, reply = type == 129;
        else if (type == 139 || type == 140)
            query = 139, reply = type == 140;
    }
    if (query < 0) return;
    const uint16_t id = rd16(pkt + l4 + 4), query_port = uint16_t(query << 8);
    info.sport = reply ? query_port : id;
    info.dport = reply ? id : query_port;
    info.icmp_query = reply ? 2 : 1;
}

// Ports, flags and payload. A transport header that the IP length promises but the capture cut
// short is keyed on its ports when those are captured (its flags read 0 when cut); without its
// ports it is refused.
bool Decoder::transport(uint32_t l4) {
    switch (info.l4_protocol) {
        case kProtoTcp: {
            if (info.l3_payload_len < 20) return refuse(QUELM_NOT_DECODED_BAD_HEADER);
            if (!need(l4, 4)) return false;
            info.l4 = pkt + l4;
            info.sport = rd16(info.l4);
            info.dport = rd16(info.l4 + 2);
            if (fits(l4, 14)) info.tcp_flags = info.l4[13];
            const uint32_t thlen = fits(l4, 13) ? uint32_t(info.l4[12] >> 4) * 4 : 20;
            info.payload_len =
                info.l3_payload_len > thlen ? uint16_t(info.l3_payload_len - thlen) : 0;
            const uint32_t off = l4 + (thlen < info.l3_payload_len ? thlen : info.l3_payload_len);
            info.payload_offset = uint16_t(off);
            info.payload = pkt + info.payload_offset;
            return true;
        }
        case kProtoUdp:
            if (info.l3_payload_len < 8) return refuse(QUELM_NOT_DECODED_BAD_HEADER);
            if (!need(l4, 4)) return false;
            info.l4 = pkt + l4;
            info.sport = rd16(info.l4);
            info.dport = rd16(info.l4 + 2);
            info.payload_len = uint16_t(info.l3_payload_len - 8);
            info.payload_offset = uint16_t(l4 + 8);
            info.payload = pkt + info.payload_offset;
            return true;
        default:
            info.payload_len = 0;
            info.payload = nullptr;
            info.sport = info.dport = 0;
            if (info.l4_protocol == kProtoIcmp || info.l4_protocol == kProtoIcmpv6) {
                if (fits(l4, 1)) info.icmp_type = pkt[l4];
                if (fits(l4, 2)) info.icmp_code = pkt[l4 + 1];
                info.dport = uint16_t(info.icmp_type << 8 | info.icmp_code);
                if (extended()) icmp_query(l4);
            }
            return true;
    }
}

}  // namespace

bool quelm_decode(const quelm_decode_context &ctx, quelm_packet_info &info, const uint8_t *pkt,
                  const quelm_packet_header *header, const quelm_packet_ext *ext,
                  quelm_not_decoded_reason *why) {
    info = quelm_packet_info{};
    info.header = header;
    info.ext = ext;
    info.data = pkt;
    info.hash = (ctx.flags & QUELM_FLAG_IGNORE_PACKET_HASH) ? 0 : ext->hash;
    Decoder d{ctx, info, pkt, header->caplen};
    bool keyed = false;
    if (header->len > ctx.max_packet_len) {
        d.refuse(QUELM_NOT_DECODED_TOO_LONG);
    } else {
        Layer layer = Layer::link;
        uint32_t frame = 0;
        int depth = 0;
        for (; depth < kMaxDecodeDepth; depth++) {
            if (layer == Layer::link && !d.link(frame)) break;
            Layer next = Layer::done;
            if (!d.network(next)) break;
            if (next == Layer::done) {
                keyed = d.ip();
                break;
            }
            if (next == Layer::link) frame = d.inner_frame;
            layer = next;
        }
        if (depth == kMaxDecodeDepth) d.refuse(QUELM_NOT_DECODED_TOO_DEEP);
    }
    if (!keyed) *why = d.why;
    return keyed;
}
