// Packet decoding. Every header is checked against `caplen` before it is read, and every refusal
// names its reason. First IPv4 fragments are keyed on their ports; later fragments are credited to
// their flow through the fragment table and end here as "not decoded" (reason: fragment).
#include "quelm_decode.h"

#include "quelm_bytes.h"
#include "quelm_flow.h"
#include "quelm_fragment_hash.h"
#include "quelm_hash.h"

namespace {

using quelm::rd16;
using quelm::rd32;

// Longer packets are not decoded: they are not Ethernet frames of any link we key.
// Encapsulations nest at most this deep (tunnels in tunnels); deeper packets are not decoded.
constexpr int kMaxDecodeDepth = 8;

constexpr uint16_t kEthIpv4 = 0x0800, kEthIpv6 = 0x86DD, kEthVlan = 0x8100, kEthMpls = 0x8847,
                   kEthPppoe = 0x8864;
constexpr uint16_t kPppIpv4 = 0x0021, kPppIpv6 = 0x0057;
constexpr uint8_t kProtoIcmp = 1, kProtoTcp = 6, kProtoUdp = 17, kProtoIcmpv6 = 58,
                  kIpv6DestOptions = 60;
constexpr uint16_t kPortGtpU = 2152, kPortL2tp = 1701, kPortCapwapData = 5247, kPortVxlan = 4789;

enum class Layer { link, network, done };

struct Decoder {
    const quelm_decode_context &ctx;
    quelm_packet_info &info;
    const uint8_t *pkt;
    uint32_t caplen;
    quelm_not_decoded_reason why = QUELM_NOT_DECODED_TRUNCATED;
    uint32_t inner_frame = 0;  // Ethernet header behind a VXLAN tunnel

    bool fits(uint32_t offset, uint32_t len) const { return uint64_t{offset} + len <= caplen; }
    bool refuse(quelm_not_decoded_reason reason) {
        why = reason;
        return false;
    }
    bool need(uint32_t offset, uint32_t len) {
        return fits(offset, len) || refuse(QUELM_NOT_DECODED_TRUNCATED);
    }

    bool link(uint32_t frame);
    bool network(Layer &next);
    bool fragment(uint16_t frag);
    void tunnel(Layer &next);
    void gtp(uint32_t u);
    bool l2tp(uint32_t u);
    bool capwap(uint32_t u);
    bool ip();
    bool transport(uint32_t l4);
};

// Link layer from `frame`: Ethernet, 802.1Q tags (the innermost id is kept), an MPLS stack (whose
// payload is taken to be IPv4).
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
    if (type == kEthMpls) {
        for (;;) {
            if (!need(cursor, 4)) return false;
            const bool bottom = (pkt[cursor + 2] & 1) != 0;
            cursor += 4;
            if (bottom) break;
        }
        type = kEthIpv4;
    }
    info.eth_type = type;
    info.l3_offset = uint16_t(cursor);
    return cursor <= 0xFFFF || refuse(QUELM_NOT_DECODED_TOO_LONG);
}

// Network layer at info.l3_offset; `next` says which layer decoding goes on with.
bool Decoder::network(Layer &next) {
    info.fragment = nullptr;
    if (info.eth_type == kEthPppoe) {
        info.l3_offset = uint16_t(info.l3_offset + 8);  // PPPoE header and PPP protocol
        info.eth_type = kEthIpv4;
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
        info.len = uint16_t(info.header->len - info.l3_offset);
        return true;
    }
    info.ip_version = 4;
    info.len = uint16_t(info.header->len);
    if (!need(info.l3_offset, 20)) return false;
    const uint16_t frag = rd16(info.l3 + 6);
    if ((frag & 0x3FFF) != 0 && !fragment(frag)) return refuse(QUELM_NOT_DECODED_FRAGMENT);
    if (info.l3[9] == kProtoUdp && (ctx.flags & QUELM_FLAG_TUNNEL_DECODING)) tunnel(next);
    return true;
}

// Credits a fragment through the fragment table; true when decoding goes on (first fragment).
bool Decoder::fragment(uint16_t frag) {
    const uint8_t *ip = info.l3;
    const bool more = (frag & 0x2000) != 0;
    const bool first = (frag & 0x1FFF) == 0;
    const uint16_t id_le = uint16_t(ip[4] | ip[5] << 8);
    const uint32_t saddr = rd32(ip + 12), daddr = rd32(ip + 16);
    const uint32_t key = 7 * uint32_t{id_le} + ip[9] + 3 * daddr + saddr;
    quelm_fragment_entry *e = quelm_fragment_hash_find(ctx.fragments, key, id_le, info.header);
    info.fragment = e;
    if (e == nullptr) return first;
    e->bytes += info.len;
    e->pkts++;
    if (quelm_flow *flow = e->flow) {
        quelm_flow_dir_value &d =
            flow->value.direction[saddr == quelm::key_ipv4(flow->key.saddr) ? 0 : 1];
        d.last = info.header->ts;
        d.pkts++;
        d.bytes += info.len;
        if (&d == &flow->value.direction[1] && d.first.tv_sec == 0) d.first = info.header->ts;
        if (!more) quelm_fragment_entry_unlink_flow(e, flow);
        info.fragment = nullptr;
        return false;
    }
    if (!more) {
        e->expire = 0;
        info.fragment = nullptr;
    }
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
        if (info.l4_protocol == kIpv6DestOptions) {
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
