// The table: lifecycle and settings, packet decoding, the per-packet pipeline that returns the
// verdict, housekeeping (expiry, settling, export) and flush.
#include "quelm_table.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "quelm_dpi.h"
#include "quelm_export.h"
#include "quelm_flow.h"
#include "quelm_fragment_hash.h"
#include "quelm_hash.h"

extern "C" {
uint32_t quelm_debug_enabled = 0;
}

namespace {

constexpr uint32_t kDefaultMaxFlows = 512000;
constexpr uint32_t kDefaultIdleTimeout = 30;
constexpr uint32_t kDefaultLifetimeTimeout = 120;
constexpr uint16_t kDefaultDpiTcpPackets = 12;
constexpr uint16_t kDefaultDpiUdpPackets = 5;
// Housekeeping runs at least once per this many packets, even within one packet second.
constexpr uint32_t kHousekeepingPackets = 1000000;
// Longer packets are not decoded: they are not Ethernet frames of any link we key.
constexpr uint32_t kMaxPacketLen = 16384;
// Bytes added to every packet in the byte statistics (preamble, gap and CRC on the wire).
constexpr uint64_t kWireOverhead = 24;
// Encapsulations nest at most this deep (tunnels in tunnels); deeper packets are not decoded.
constexpr int kMaxDecodeDepth = 8;

constexpr uint16_t kEthIpv4 = 0x0800, kEthIpv6 = 0x86DD, kEthVlan = 0x8100, kEthMpls = 0x8847,
                   kEthPppoe = 0x8864;
constexpr uint8_t kProtoIcmp = 1, kProtoTcp = 6, kProtoUdp = 17, kProtoIcmpv6 = 58,
                  kIpv6DestOptions = 60;
constexpr uint16_t kPortGtpU = 2152, kPortL2tp = 1701, kPortCapwapData = 5247, kPortVxlan = 4789;

uint16_t rd16(const uint8_t *p) {
    return uint16_t(p[0] << 8 | p[1]);
}
uint32_t rd32(const uint8_t *p) {
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}

quelm_hash *hash_of(quelm_table *t, const quelm_packet_info &info) {
    return info.is_ipv4 ? t->hash_v4 : t->hash_v6;
}

// ---- Decoding
// ------------------------------------------------------------------------------------
//
// Every header is checked against `caplen` before it is read. A packet is keyed (1) or not decoded
// (0); first fragments are keyed, later fragments are credited through the fragment table and end
// here as "not decoded".

enum class Layer { link, network, done };

struct Decoder {
    quelm_table *t;
    quelm_packet_info &info;
    const uint8_t *pkt;
    uint32_t caplen;

    bool fits(uint32_t offset, uint32_t len) const { return uint64_t{offset} + len <= caplen; }

    // Link layer from `frame`: Ethernet, 802.1Q tags (the innermost id is kept), an MPLS stack
    // (whose payload is taken to be IPv4).
    bool link(uint32_t frame) {
        if (!fits(frame, 14)) return false;
        info.l2_offset = uint16_t(frame);
        info.eth = pkt + frame;
        uint16_t type = rd16(pkt + frame + 12);
        uint32_t cursor = frame + 14;
        while (type == kEthVlan) {
            if (!fits(cursor, 4)) return false;
            info.vlan_id = rd16(pkt + cursor) & 0x0FFF;
            type = rd16(pkt + cursor + 2);
            cursor += 4;
        }
        if (type == kEthMpls) {
            for (;;) {
                if (!fits(cursor, 4)) return false;
                const bool bottom = (pkt[cursor + 2] & 1) != 0;
                cursor += 4;
                if (bottom) break;
            }
            type = kEthIpv4;
        }
        info.eth_type = type;
        info.l3_offset = uint16_t(cursor);
        return cursor <= 0xFFFF;
    }

    // Network layer at info.l3_offset. Returns the next layer to decode, or nothing on rejection.
    bool network(Layer &next) {
        info.fragment = nullptr;
        if (info.eth_type == kEthPppoe) {
            info.l3_offset = uint16_t(info.l3_offset + 8);  // PPPoE header and PPP protocol
            info.eth_type = kEthIpv4;
        }
        if (info.eth_type == kEthIpv6) {
            if (info.l3_offset >= caplen || (pkt[info.l3_offset] >> 4) != 6) return false;
            info.l3 = pkt + info.l3_offset;
            info.ip_version = 6;
            info.len = uint16_t(info.header->len - info.l3_offset);
            next = Layer::done;
            return true;
        }
        if (info.eth_type != kEthIpv4) return false;
        if (info.l3_offset >= caplen || (pkt[info.l3_offset] >> 4) != 4) return false;
        info.l3 = pkt + info.l3_offset;
        info.ip_version = 4;
        info.len = uint16_t(info.header->len);
        const uint8_t *ip = info.l3;
        if (!fits(info.l3_offset, 20)) return false;
        const uint16_t frag = rd16(ip + 6);
        if ((frag & 0x3FFF) != 0 && !fragment(frag)) return false;
        next = Layer::done;
        if (ip[9] == kProtoUdp && (t->flags & QUELM_FLAG_TUNNEL_DECODING)) tunnel(next);
        return true;
    }

    // Credits a fragment through the fragment table; true when decoding goes on (first fragment).
    bool fragment(uint16_t frag) {
        const uint8_t *ip = info.l3;
        const bool more = (frag & 0x2000) != 0;
        const bool first = (frag & 0x1FFF) == 0;
        const uint16_t id_le = uint16_t(ip[4] | ip[5] << 8);
        const uint32_t saddr = rd32(ip + 12), daddr = rd32(ip + 16);
        const uint32_t key = 7 * uint32_t{id_le} + ip[9] + 3 * daddr + saddr;
        quelm_fragment_entry *e = quelm_fragment_hash_find(t->fragments, key, id_le, info.header);
        info.fragment = e;
        if (e == nullptr) return first;
        e->bytes += info.len;
        e->pkts++;
        if (quelm_flow *flow = e->flow) {
            uint32_t key_saddr;
            memcpy(&key_saddr, flow->key.saddr, 4);
            quelm_flow_dir_value &d = flow->value.direction[saddr == key_saddr ? 0 : 1];
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

    // UDP tunnels over IPv4. On a match the inner packet is set up and `next` says where decoding
    // goes on; anything that does not match or fit leaves the packet as plain UDP.
    void tunnel(Layer &next) {
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

    void gtp(uint32_t u) {
        if (!fits(u, 8) || (pkt[u] >> 5) != 1 || pkt[u + 1] != 0xFF) return;
        info.tunnel_type = QUELM_TUNNEL_GTP_U;
        info.hash = 0;  // the capture layer's hash is of the outer packet
        const uint32_t inner = u + 8 + ((pkt[u] & 0x07) ? 4 : 0);
        if (inner < caplen && (pkt[inner] >> 4) == 4) {
            info.l3_offset = uint16_t(inner);
            info.l3 = pkt + inner;
        }
    }

    bool l2tp(uint32_t u) {
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
        if (ppp_proto == 0x0021)
            info.eth_type = kEthIpv4;
        else if (ppp_proto == 0x0057)
            info.eth_type = kEthIpv6;
        else
            return false;
        info.tunnel_type = QUELM_TUNNEL_L2TP;
        info.tunnel_id = tunnel_id;
        info.l3_offset = uint16_t(end + 4);
        return true;
    }

    bool capwap(uint32_t u) {
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

    // IP and transport headers: addresses, ports, flags and the flow hash.
    bool ip_and_transport();

    uint32_t inner_frame = 0;
};

bool Decoder::ip_and_transport() {
    quelm_hash *hash;
    info.is_ipv4 = info.eth_type == kEthIpv4;
    info.tcp_flags = 0;
    info.saddr_v4 = info.daddr_v4 = 0;
    hash = hash_of(t, info);
    if (info.hash != 0) {
        info.hash_idx = info.hash & hash->mask;
        if (hash->num_buckets != 0) __builtin_prefetch(&hash->buckets[info.hash_idx], 0, 3);
    }
    const uint8_t *ip = info.l3;
    const uint32_t avail = caplen - info.l3_offset;
    uint32_t l4 = 0;
    if (!info.is_ipv4) {
        if (avail < 40) return false;
        l4 = info.l3_offset + 40u;
        info.l3_payload_len = rd16(ip + 4);
        info.l4_protocol = ip[6];
        if (info.l4_protocol == kIpv6DestOptions) {
            const uint32_t ext_len = 8 * (uint32_t(ip[41]) + 1);
            if (avail < 40 + 2 || avail < 40 + ext_len) return false;
            info.l4_protocol = ip[40];
            l4 += ext_len;
        }
        uint32_t s, d;
        memcpy(&s, ip + 8 + 12, 4);
        memcpy(&d, ip + 24 + 12, 4);
        info.hash_seed = s + d;
    } else {
        if (avail < 20) return false;
        const uint32_t hlen = uint32_t(ip[0] & 0x0F) * 4;
        if (hlen == 0) return false;
        info.l3_payload_len = uint16_t(rd16(ip + 2) - hlen);
        info.saddr_v4 = rd32(ip + 12);
        info.daddr_v4 = rd32(ip + 16);
        info.l4_protocol = ip[9];
        info.hash_seed = info.saddr_v4 + info.daddr_v4;
        l4 = info.l3_offset + hlen;
    }
    if (l4 > 0xFFFF) return false;
    info.l4_offset = uint16_t(l4);

    // A transport header that the IP length promises but the capture cut short is keyed on its
    // ports when those are captured (its flags read 0 when cut); without its ports it is refused.
    switch (info.l4_protocol) {
        case kProtoTcp: {
            if (info.l3_payload_len < 20 || !fits(l4, 4)) return false;
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
            break;
        }
        case kProtoUdp:
            if (info.l3_payload_len < 8 || !fits(l4, 4)) return false;
            info.l4 = pkt + l4;
            info.sport = rd16(info.l4);
            info.dport = rd16(info.l4 + 2);
            info.payload_len = uint16_t(info.l3_payload_len - 8);
            info.payload_offset = uint16_t(l4 + 8);
            info.payload = pkt + info.payload_offset;
            break;
        default:
            info.payload_len = 0;
            info.payload = nullptr;
            info.sport = info.dport = 0;
            if (info.l4_protocol == kProtoIcmp || info.l4_protocol == kProtoIcmpv6) {
                if (fits(l4, 1)) info.icmp_type = pkt[l4];
                if (fits(l4, 2)) info.icmp_code = pkt[l4 + 1];
                info.dport = uint16_t(info.icmp_type << 8 | info.icmp_code);
            }
            break;
    }
    if (info.hash == 0) quelm_hash_compute_hash_index(hash, &info);
    return true;
}

// Decodes the packet into the table's packet record; 1 when it can be keyed.
bool decode(quelm_table *t, const uint8_t *pkt, const quelm_packet_header *header,
            const quelm_packet_ext *ext) {
    quelm_packet_info &info = t->packet;
    info = quelm_packet_info{};
    info.header = header;
    info.ext = ext;
    info.data = pkt;
    info.hash = (t->flags & QUELM_FLAG_IGNORE_PACKET_HASH) ? 0 : ext->hash;
    if (header->len > kMaxPacketLen) return false;

    Decoder d{t, info, pkt, header->caplen};
    Layer layer = Layer::link;
    uint32_t frame = 0;
    for (int depth = 0; depth < kMaxDecodeDepth; depth++) {
        if (layer == Layer::link) {
            if (!d.link(frame)) return false;
            layer = Layer::network;
        }
        Layer next = Layer::done;
        if (!d.network(next)) return false;
        if (next == Layer::done) return d.ip_and_transport();
        if (next == Layer::link) frame = d.inner_frame;
        layer = next;
    }
    return false;
}

// ---- Rules -----------------------------------------------------------------------------------

// First non-zero entry for a flow's protocol pair, application, master and category.
uint8_t rule_value(const quelm_table *t, const uint8_t *protocols, const uint8_t *categories,
                   const quelm_l7_protocol &p) {
    const quelm_rules &r = t->rules;
    const uint32_t m = p.master_protocol, a = p.app_protocol;
    if (protocols != nullptr) {
        if (m != 0 && a != 0 && m != a) {
            const uint32_t pair = m << t->protocol_shift | a;
            if (pair < r.protocol_table_size && protocols[pair] != 0) return protocols[pair];
        }
        if (a < r.protocol_table_size) {
            if (protocols[a] != 0) return protocols[a];
            if (m != a && m < r.protocol_table_size && protocols[m] != 0) return protocols[m];
        }
    }
    if (categories != nullptr && p.category >= 0 && uint32_t(p.category) < r.category_table_size &&
        categories[p.category] != 0)
        return categories[p.category];
    return 0;
}

uint8_t shunt_limit(const quelm_table *t, const quelm_flow *flow, uint8_t l4_protocol,
                    bool detected) {
    const quelm_rules &r = t->rules;
    if (detected) {
        const uint8_t s =
            rule_value(t, r.shunt_protocol, r.shunt_category, flow->value.l7_protocol);
        if (s != 0) return s;
    }
    if (l4_protocol == kProtoTcp && r.shunt_tcp != 0) return r.shunt_tcp;
    if (l4_protocol == kProtoUdp && r.shunt_udp != 0) return r.shunt_udp;
    return r.shunt_default;
}

// Caps a flow at `limit` packets: beyond it the flow is discarded.
void apply_shunt(quelm_flow *flow, uint8_t limit) {
    if (limit != 0 && quelm::flow_total_packets(flow) > limit) flow->action = QUELM_ACTION_DISCARD;
}

quelm_action verdict(quelm_table *t, quelm_flow *flow, bool is_new, bool detected) {
    const uint8_t l4 = t->packet.l4_protocol;
    if (!is_new && flow->action != 0 && !detected) return flow->action;
    if (!detected) {
        apply_shunt(flow, shunt_limit(t, flow, l4, flow->dpi_done != 0));
        return flow->action;
    }
    const uint8_t s = shunt_limit(t, flow, l4, true);
    apply_shunt(flow, s);
    const uint8_t f =
        rule_value(t, t->rules.filter_protocol, t->rules.filter_category, flow->value.l7_protocol);
    if (f != 0) {
        flow->action = f;
        return f;
    }
    if (flow->action != 0 || s != 0) return flow->action;
    if (t->default_action != 0) flow->action = t->default_action;
    return flow->action;
}

// ---- Per-packet accounting -------------------------------------------------------------------

void account(quelm_flow *flow, const quelm_packet_info &info) {
    quelm_flow_dir_value &d = flow->value.direction[info.direction];
    d.last = info.header->ts;
    d.pkts++;
    d.bytes += info.len;
    d.tcp_flags |= info.tcp_flags;
    if (info.icmp_type != 0) flow->value.l7_metadata.icmp.icmp_type = info.icmp_type;
    if (info.icmp_code != 0) flow->value.l7_metadata.icmp.icmp_code = info.icmp_code;
    if (info.ext->if_index != 0) d.if_index = info.ext->if_index;
    if (info.ext->port_id != 0) d.port_id = info.ext->port_id;
    if (info.direction == 1 && d.first.tv_sec == 0) d.first = info.header->ts;
}

// ---- Export ----------------------------------------------------------------------------------

void release_rule_tables(quelm_rules &r) {
    free(r.filter_protocol);
    free(r.filter_category);
    free(r.shunt_protocol);
    free(r.shunt_category);
    r = quelm_rules{};
}

}  // namespace

// Gathers the flows that left both hashes and hands them to exactly one receiver.
void quelm_export_flows(quelm_table *table) {
    quelm_list_merge(&table->export_list, &table->hash_v4->expired);
    quelm_list_merge(&table->export_list, &table->hash_v6->expired);
    if (table->export_list.count == 0) return;
    if (table->flow_list_export_callback != nullptr) {
        table->flow_list_export_callback(&table->export_list, table->flow_list_export_user);
        // The receiver took every flow; an empty list is what the next pass starts from.
        table->export_list = quelm_list{};
    } else if (table->flow_export_callback != nullptr) {
        while (quelm_flow *flow = quelm_list_pop_head(&table->export_list))
            table->flow_export_callback(flow, table->flow_export_user);
    } else {
        quelm_list_cleanup(&table->export_list);
    }
}

extern "C" {

// ---- Lifecycle and settings ------------------------------------------------------------------

void quelm_debug(void) {
    quelm_debug_enabled = 1;
}

quelm_table *quelm_create_table(uint32_t flags, uint32_t max_flows, uint32_t flow_idle_timeout,
                                uint32_t flow_lifetime_timeout, uint16_t user_size) {
    auto *t = static_cast<quelm_table *>(calloc(1, sizeof(quelm_table)));
    if (t == nullptr) return nullptr;
    t->flags = flags;
    t->user_size = user_size;
    t->dpi_min_num_tcp_packets = kDefaultDpiTcpPackets;
    t->dpi_min_num_udp_packets = kDefaultDpiUdpPackets;
    const uint32_t size = utils_pow2(max_flows != 0 ? max_flows : kDefaultMaxFlows);
    t->flow_idle_timeout = flow_idle_timeout != 0 ? flow_idle_timeout : kDefaultIdleTimeout;
    t->flow_lifetime_timeout =
        flow_lifetime_timeout != 0 ? flow_lifetime_timeout : kDefaultLifetimeTimeout;
    const uint32_t ignore_vlan = (flags & QUELM_FLAG_IGNORE_VLAN) ? 1 : 0;
    const uint32_t mac_in_key = (flags & QUELM_FLAG_MAC_IN_KEY) ? 1 : 0;

    t->hash_v4 = quelm_hash_alloc(size, t->flow_idle_timeout, ignore_vlan, mac_in_key);
    if (t->hash_v4 != nullptr)
        t->hash_v6 = quelm_hash_alloc(size / 2, t->flow_idle_timeout, ignore_vlan, mac_in_key);
    if (t->hash_v6 != nullptr) t->fragments = quelm_fragment_hash_alloc(size / 8);
    bool ok = t->fragments != nullptr;
    if (ok && (flags & QUELM_FLAG_DPI)) {
        t->pelda = quelm_dpi_alloc((flags & QUELM_FLAG_NO_L7_GUESS) ? 0 : 1);
        t->owns_pelda = t->pelda != nullptr;
        ok = t->pelda != nullptr && __quelm_table_pelda_update(t) == 0;
    }
    if (!ok) {
        release_rule_tables(t->rules);
        if (t->owns_pelda) quelm_dpi_free(t->pelda);
        quelm_fragment_hash_free(t->fragments);
        quelm_hash_free(t->hash_v6);
        quelm_hash_free(t->hash_v4);
        free(t);
        return nullptr;
    }
    t->housekeeping_countdown = kHousekeepingPackets;
    return t;
}

void quelm_destroy_table(quelm_table *table) {
    if (table == nullptr) return;
    quelm_export_destroy(&table->exporter);
    if (table->pelda != nullptr) {
        release_rule_tables(table->rules);
        if (table->owns_pelda) quelm_dpi_free(table->pelda);
    }
    quelm_fragment_hash_free(table->fragments);
    // Flows that ended but were not exported yet are released with those still in the hashes.
    quelm_list_cleanup(&table->export_list);
    quelm_list_cleanup(&table->hash_v6->expired);
    quelm_list_cleanup(&table->hash_v4->expired);
    quelm_hash_free(table->hash_v6);
    quelm_hash_free(table->hash_v4);
    free(table->exporter.zmq.endpoint);
    free(table->exporter.zmq.server_public_key);
    free(table);
}

void quelm_flow_set_flow_slicing(quelm_table *table, uint32_t flow_slicing) {
    table->flow_slicing = flow_slicing;
    table->hash_v4->slice_timeout = flow_slicing;
    table->hash_v6->slice_timeout = flow_slicing;
}

void quelm_set_new_flow_callback(quelm_table *table, quelm_new_flow_callback cb, void *user) {
    table->new_flow_callback = cb;
    table->new_flow_user = user;
}

void quelm_set_flow_packet_callback(quelm_table *table, quelm_flow_packet_callback cb, void *user) {
    table->flow_packet_callback = cb;
    table->flow_packet_user = user;
}

void quelm_set_l7_detected_callback(quelm_table *table, quelm_l7_detected_callback cb, void *user) {
    table->l7_detected_callback = cb;
    table->l7_detected_user = user;
}

void quelm_set_flow_export_callback(quelm_table *table, quelm_flow_export_callback cb, void *user) {
    table->flow_export_callback = cb;
    table->flow_export_user = user;
}

void quelm_set_flow_list_export_callback(quelm_table *table, quelm_flow_list_export_callback cb,
                                         void *user) {
    table->flow_list_export_callback = cb;
    table->flow_list_export_user = user;
}

void quelm_set_default_action(quelm_table *table, quelm_action action) {
    table->default_action = action;
}

void quelm_table_inc_active_flows(quelm_table *table, uint32_t count) {
    table->stats.active_flows += count;
}

void quelm_table_dec_active_flows(quelm_table *table, uint32_t count) {
    table->stats.active_flows -= count;
}

quelm_stats *quelm_get_stats(quelm_table *table) {
    const uint32_t v4 = table->hash_v4->max_bucket_walk, v6 = table->hash_v6->max_bucket_walk;
    table->stats.max_bucket_walk = v4 > v6 ? v4 : v6;
    return &table->stats;
}

void *quelm_get_pelda_handle(quelm_table *table) {
    return table->pelda;
}

int quelm_set_pelda_handle(quelm_table *table, void *pelda) {
    if (table->pelda != nullptr && table->owns_pelda) {
        quelm_dpi_free(table->pelda);
    } else if (table->pelda == nullptr && quelm_dpi_init() < 0) {
        return -1;
    }
    table->pelda = pelda;
    table->flags |= QUELM_FLAG_DPI;
    table->owns_pelda = 0;
    return __quelm_table_pelda_update(table);
}

// ---- Rule tables sized from the engine -------------------------------------------------------

uint32_t __compute_protocol_filter_size(quelm_table *table) {
    const uint32_t n = utils_pow2(quelm_dpi_get_num_supported_protocols(table->pelda));
    table->protocol_shift = uint8_t(__builtin_popcount(n - 1));
    return n * n;
}

int __quelm_table_pelda_update(quelm_table *table) {
    const uint32_t p = __compute_protocol_filter_size(table);
    const uint32_t m = quelm_dpi_get_num_supported_categories();
    uint8_t *fresh[4] = {static_cast<uint8_t *>(calloc(p, 1)), static_cast<uint8_t *>(calloc(p, 1)),
                         static_cast<uint8_t *>(calloc(m, 1)),
                         static_cast<uint8_t *>(calloc(m, 1))};
    if (!fresh[0] || !fresh[1] || !fresh[2] || !fresh[3]) {
        for (uint8_t *f : fresh)
            free(f);
        return -1;
    }
    quelm_rules &r = table->rules;
    uint8_t **old[4] = {&r.filter_protocol, &r.shunt_protocol, &r.filter_category,
                        &r.shunt_category};
    const uint32_t old_size[4] = {r.protocol_table_size, r.protocol_table_size,
                                  r.category_table_size, r.category_table_size};
    const uint32_t new_size[4] = {p, p, m, m};
    for (int i = 0; i < 4; i++) {
        if (*old[i] != nullptr) {
            memcpy(fresh[i], *old[i], old_size[i] < new_size[i] ? old_size[i] : new_size[i]);
            free(*old[i]);
        }
        *old[i] = fresh[i];
    }
    r.protocol_table_size = p;
    r.category_table_size = m;
    if (table->flags & QUELM_FLAG_DPI_EXTRA_DISSECTION) table->dpi_extra_dissection = 1;
    return 0;
}

// ---- Per-packet pipeline ---------------------------------------------------------------------

quelm_action quelm_process(quelm_table *table, const uint8_t *packet,
                           const quelm_packet_header *header, const quelm_packet_ext *ext) {
    quelm_stats &stats = table->stats;
    stats.packets++;
    stats.bytes += uint64_t{header->len} + kWireOverhead;
    const uint32_t now = uint32_t(header->ts.tv_sec);
    quelm_packet_info &info = table->packet;

    if (!decode(table, packet, header, ext)) {
        stats.packets_not_decoded++;
        info.action = QUELM_ACTION_DEFAULT;
    } else {
        quelm_hash *hash = hash_of(table, info);
        info.direction = 0;
        quelm_flow *flow = quelm_hash_find(table, hash, &info, &info.direction);
        bool is_new = false, detected = false;
        if (flow != nullptr) {
            const uint32_t start = uint32_t(quelm::flow_first_seen(flow));
            if (uint32_t(now - start) > table->flow_lifetime_timeout) {
                flow->value.status = QUELM_FLOW_STATUS_LIFETIME_TIMEOUT;
                quelm_hash_export_flow(table, hash, flow);
                flow = nullptr;  // the packet opens a new flow with its own orientation
            } else if (table->flow_slicing != 0 &&
                       uint32_t(now - (flow->last_slice != 0 ? flow->last_slice : start)) >
                           table->flow_slicing) {
                flow->value.status = QUELM_FLOW_STATUS_SLICE;
                quelm_hash_export_flow_slice(table, hash, flow, now);
            }
        }
        if (flow == nullptr) {
            info.flow = nullptr;
            if (hash->num_flows >= hash->capacity) {
                stats.flows_no_room++;
                info.action = QUELM_ACTION_DEFAULT;
                goto housekeeping;
            }
            flow = quelm_flow_new(&info, table->pelda, table->user_size);
            if (flow == nullptr) {
                stats.flows_no_memory++;
                info.action = QUELM_ACTION_DEFAULT;
                goto housekeeping;
            }
            if (!quelm_hash_add(hash, flow)) {
                quelm_flow_free(flow);
                stats.flows_no_room++;
                info.action = QUELM_ACTION_DEFAULT;
                goto housekeeping;
            }
            flow->id = table->next_flow_id++;
            flow->action = QUELM_ACTION_DEFAULT;
            info.direction = 0;
            stats.active_flows++;
            stats.total_flows++;
            is_new = true;
            detected = flow->dpi_done != 0;
        }
        info.flow = flow;
        if (info.fragment != nullptr) quelm_fragment_entry_bind_flow(info.fragment, flow);
        account(flow, info);
        if (table->pelda != nullptr && !flow->dpi_done) {
            quelm_flow_dpi_run(table->dpi_min_num_tcp_packets, table->dpi_min_num_udp_packets,
                               table->dpi_extra_dissection, flow, &info, table->pelda);
            detected = flow->dpi_done != 0;
        }
        info.action = verdict(table, flow, is_new, detected);
        if (is_new && table->new_flow_callback != nullptr)
            table->new_flow_callback(flow, table->new_flow_user);
        if (detected && table->l7_detected_callback != nullptr)
            table->l7_detected_callback(packet, &info, flow, table->l7_detected_user);
        if (table->flow_packet_callback != nullptr)
            table->flow_packet_callback(packet, &info, flow, table->flow_packet_user);
    }

housekeeping:
    if (--table->housekeeping_countdown == 0 ||
        uint64_t{table->housekeeping_sec} != uint64_t(header->ts.tv_sec)) {
        quelm_housekeeping(table, now);
        table->housekeeping_countdown = kHousekeepingPackets;
    }
    return info.action;
}

// ---- Housekeeping, settling, flush -----------------------------------------------------------

int quelm_housekeeping(quelm_table *table, uint32_t now) {
    int ran = 0;
    if (now != table->housekeeping_sec) {
        uint32_t ended = quelm_hash_check_expired_flows(table, table->hash_v4, now) +
                         quelm_hash_check_expired_flows(table, table->hash_v6, now);
        ended += quelm_hash_harvest_expired_flows(table, table->hash_v4, now) +
                 quelm_hash_harvest_expired_flows(table, table->hash_v6, now);
        if (ended == 0 && table->hash_v4->expired.count == 0 && table->hash_v6->expired.count == 0)
            table->housekeeping_sec = now;
        else
            quelm_export_flows(table);
        ran = 1;
    }
    quelm_export_process_queue(&table->exporter, 1);
    return ran;
}

void quelm_pre_export(quelm_table *table, quelm_flow *flow) {
    if (table->pelda == nullptr || flow->dpi_done) return;
    const uint32_t guess = (table->flags & QUELM_FLAG_NO_L7_GUESS) ? 0 : 1;
    quelm_flow_prepare_for_export(flow, table->pelda, guess);
    if (flow->dpi_done && table->l7_detected_callback != nullptr)
        table->l7_detected_callback(nullptr, nullptr, flow, table->l7_detected_user);
}

void quelm_flush(quelm_table *table) {
    quelm_hash_harvest_expired_flows(table, table->hash_v4, QUELM_HASH_FLUSH_TIME);
    quelm_hash_harvest_expired_flows(table, table->hash_v6, QUELM_HASH_FLUSH_TIME);
    quelm_export_flows(table);
}

}  // extern "C"

// ---- Names, files and rules ------------------------------------------------------------------

namespace {

// Protocol index of an engine name ("HTTP") or pair ("TLS.YouTube"), or -1 (reported).
int64_t protocol_index(quelm_table *table, const char *name) {
    char copy[128];
    snprintf(copy, sizeof copy, "%.127s", name);
    uint32_t index;
    if (char *dot = strchr(copy, '.')) {
        *dot = '\0';
        const uint16_t m = quelm_dpi_get_protocol_id_by_name(table->pelda, copy);
        const uint16_t a = quelm_dpi_get_protocol_id_by_name(table->pelda, dot + 1);
        if (m == 0 || a == 0)
            index = 0;
        else
            index = uint32_t(m) << table->protocol_shift | a;
    } else {
        index = quelm_dpi_get_protocol_id_by_name(table->pelda, copy);
    }
    if (index == 0) {
        if (quelm_debug_enabled) printf("[QUELM] Error: unknown protocol '%s'\n", name);
        return -1;
    }
    return index;
}

enum class RuleKind { shunt, filter };

void set_protocol_rule(quelm_table *table, const char *name, uint8_t value, quelm_rules *rules,
                       RuleKind kind) {
    if (table->pelda == nullptr) return;
    const int64_t index = protocol_index(table, name);
    if (index < 0) return;
    if (uint64_t(index) >= rules->protocol_table_size) {
        if (quelm_debug_enabled)
            printf("[QUELM] Error: protocol '%s' #%d out of %d supported protocols\n", name,
                   int(index), int(rules->protocol_table_size));
        return;
    }
    if (kind == RuleKind::shunt) {
        if (quelm_debug_enabled)
            printf("[QUELM] Adding shunt rule (%u packets) for %s (%d)\n", value, name, int(index));
        rules->shunt_protocol[index] = value;
    } else {
        if (quelm_debug_enabled) printf("[QUELM] Adding filter for %s (%d)\n", name, int(index));
        rules->filter_protocol[index] = value;
    }
}

void set_category_rule(quelm_table *table, const char *name, uint8_t value, quelm_rules *rules,
                       RuleKind kind) {
    // Without a handle a filter does nothing; a shunt reports the name as unknown.
    if (table->pelda == nullptr && kind == RuleKind::filter) return;
    const int id = quelm_dpi_get_category_id_by_name(table->pelda, name);
    if (id < 0) {
        if (quelm_debug_enabled) printf("[QUELM] Error: unknown category '%s'\n", name);
        return;
    }
    if (uint32_t(id) >= rules->category_table_size) {
        if (quelm_debug_enabled)
            printf("[QUELM] Error: category '%s' #%d out of %d supported categories\n", name, id,
                   int(rules->category_table_size));
        return;
    }
    if (kind == RuleKind::shunt) {
        if (quelm_debug_enabled)
            printf("[QUELM] Adding shunt rule (%u packets) for category %s (%d)\n", value, name,
                   id);
        rules->shunt_category[id] = value;
    } else {
        if (quelm_debug_enabled) printf("[QUELM] Adding filter for category %s (%d)\n", name, id);
        rules->filter_category[id] = value;
    }
}

// A packet limit from a configuration value: decimal, capped at 255, stored as its low byte.
uint8_t packets_value(const char *value) {
    long n = strtol(value, nullptr, 10);
    if (n > 255) n = 255;
    return uint8_t(n);
}

}  // namespace

extern "C" {

const char *quelm_l7_protocol_name(quelm_table *table, const quelm_l7_protocol *protocol, char *buf,
                                   uint32_t buf_len) {
    return quelm_dpi_get_protocol_name_by_id(table->pelda, protocol, buf, buf_len);
}

uint16_t quelm_l7_protocol_id(quelm_table *table, const char *name) {
    return quelm_dpi_get_protocol_id_by_name(table->pelda, name);
}

char *quelm_category_name(quelm_table *table, uint32_t id, char *buf, int buf_len) {
    return quelm_dpi_get_category_name_by_id(table->pelda, id, buf, buf_len);
}

int quelm_category_id(quelm_table *table, const char *name) {
    return quelm_dpi_get_category_id_by_name(table->pelda, name);
}

int quelm_load_pelda_protocols(quelm_table *table, const char *path) {
    if (table->pelda == nullptr) return -1;
    const int r = quelm_dpi_load_protocols(table->pelda, path);
    if (r < 0) return r;
    if (quelm_debug_enabled)
        printf("[QUELM] The number of supported protocols is now %u\n",
               quelm_dpi_get_num_supported_protocols(table->pelda));
    return __quelm_table_pelda_update(table);
}

int quelm_load_pelda_categories(quelm_table *table, const char *path) {
    if (table->pelda == nullptr) return -1;
    return quelm_dpi_load_categories(table->pelda, path);
}

void __quelm_set_shunt_protocol_by_name(quelm_table *table, const char *name, uint8_t packets,
                                        quelm_rules *rules) {
    set_protocol_rule(table, name, packets, rules, RuleKind::shunt);
}

void quelm_set_shunt_protocol_by_name(quelm_table *table, const char *name, uint8_t packets) {
    set_protocol_rule(table, name, packets, &table->rules, RuleKind::shunt);
}

void __quelm_set_filter_protocol_by_name(quelm_table *table, const char *name, uint8_t action,
                                         quelm_rules *rules) {
    set_protocol_rule(table, name, action, rules, RuleKind::filter);
}

void quelm_set_filter_protocol_by_name(quelm_table *table, const char *name, uint8_t action) {
    set_protocol_rule(table, name, action, &table->rules, RuleKind::filter);
}

void __quelm_set_shunt_category_by_name(quelm_table *table, const char *name, uint8_t packets,
                                        quelm_rules *rules) {
    set_category_rule(table, name, packets, rules, RuleKind::shunt);
}

void quelm_set_shunt_category_by_name(quelm_table *table, const char *name, uint8_t packets) {
    set_category_rule(table, name, packets, &table->rules, RuleKind::shunt);
}

void __quelm_set_filter_category_by_name(quelm_table *table, const char *name, uint8_t action,
                                         quelm_rules *rules) {
    set_category_rule(table, name, action, rules, RuleKind::filter);
}

void quelm_set_filter_category_by_name(quelm_table *table, const char *name, uint8_t action) {
    set_category_rule(table, name, action, &table->rules, RuleKind::filter);
}

void quelm_set_filter_all_protocols(quelm_table *table, uint8_t action) {
    if (table->pelda != nullptr && table->rules.filter_protocol != nullptr)
        memset(table->rules.filter_protocol, action, table->rules.protocol_table_size);
}

void quelm_set_filter_all_categories(quelm_table *table, uint8_t action) {
    if (table->pelda != nullptr && table->rules.filter_category != nullptr)
        memset(table->rules.filter_category, action, table->rules.category_table_size);
}

const quelm_rules *quelm_get_rules(quelm_table *table) {
    return &table->rules;
}

void quelm_conf_rule_handler(const char *section, const char *key, const char *value,
                             quelm_table *table, quelm_rules *rules) {
    quelm_rules *set = rules != nullptr ? rules : &table->rules;
    if (quelm_debug_enabled) printf("[QUELM] Evaluating rule [%s] %s = %s\n", section, key, value);
    if (strcasecmp(section, "shunt") == 0) {
        const uint8_t packets = packets_value(value);
        if (strcasecmp(key, "default") == 0)
            set->shunt_default = packets;
        else if (strcasecmp(key, "tcp") == 0)
            set->shunt_tcp = packets;
        else if (strcasecmp(key, "udp") == 0)
            set->shunt_udp = packets;
        else
            __quelm_set_shunt_protocol_by_name(table, key, packets, set);
    } else if (strcasecmp(section, "filter") == 0) {
        char word[64];
        snprintf(word, sizeof word, "%.63s", value);
        __quelm_set_filter_protocol_by_name(table, key, utils_string2action(word), set);
    } else if (strcasecmp(section, "global") == 0 && rules == nullptr) {
        if (strcasecmp(key, "default") == 0) {
            char word[64];
            snprintf(word, sizeof word, "%.63s", value);
            quelm_set_default_action(table, utils_string2action(word));
        } else if (strcasecmp(key, "dpi_min_num_tcp_packets") == 0) {
            table->dpi_min_num_tcp_packets = uint16_t(strtol(value, nullptr, 10));
        } else if (strcasecmp(key, "dpi_min_num_udp_packets") == 0) {
            table->dpi_min_num_udp_packets = uint16_t(strtol(value, nullptr, 10));
        } else if (strcasecmp(key, "flow_idle_timeout") == 0) {
            table->hash_v4->idle_timeout = uint32_t(strtol(value, nullptr, 10));
            table->hash_v6->idle_timeout = uint32_t(strtol(value, nullptr, 10));
        } else if (strcasecmp(key, "flow_lifetime_timeout") == 0) {
            table->flow_lifetime_timeout = uint32_t(strtol(value, nullptr, 10));
        }
    }
}

int quelm_load_configuration(quelm_table *table, const char *path) {
    if (table->pelda == nullptr) return -1;
    return utils_configuration_file_iterator(path, quelm_conf_rule_handler, table, nullptr);
}

int quelm_load_configuration_ext(quelm_table *table, const char *path, quelm_rules *rules) {
    if (table->pelda == nullptr) return -1;
    if (rules->filter_protocol != nullptr && rules->shunt_protocol != nullptr) {
        memset(rules->filter_protocol, 0, rules->protocol_table_size);
        memset(rules->shunt_protocol, 0, rules->protocol_table_size);
    } else {
        const uint32_t size = __compute_protocol_filter_size(table);
        rules->filter_protocol = static_cast<uint8_t *>(calloc(size, 1));
        if (rules->filter_protocol == nullptr) return -1;
        rules->shunt_protocol = static_cast<uint8_t *>(calloc(size, 1));
        if (rules->shunt_protocol == nullptr) {
            free(rules->filter_protocol);
            rules->filter_protocol = nullptr;
            return -1;
        }
        rules->protocol_table_size = size;
    }
    rules->shunt_default = rules->shunt_tcp = rules->shunt_udp = 0;
    return utils_configuration_file_iterator(path, quelm_conf_rule_handler, table, rules);
}

}  // extern "C"
