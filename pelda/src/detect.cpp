// Per-packet detection: IP/TCP/UDP decoding, direction, TCP sequence tracking,
// dissector dispatch, give-up and guessing.
#include <cctype>

#include "internal.h"

using namespace pelda;

namespace {

// Dissection stops after this many payload packets without a result, and metadata
// extraction after this many packets: both bound the work spent on one flow.
constexpr uint32_t kMaxInspectPayloads = 32;
constexpr uint32_t kMaxExtractPackets = 128;

struct l4_view {
    uint8_t version;
    uint8_t proto;
    const uint8_t *src, *dst;  // 4 or 16 bytes, network order
    uint16_t sport, dport;
    uint8_t tcp_flags;
    uint32_t seq;
    const uint8_t *payload;
    uint32_t payload_len;
};

// Decodes an IP packet down to TCP/UDP; false for anything without usable ports.
bool decode(const uint8_t *p, uint32_t len, l4_view *v) {
    if (len < 1) return false;
    uint8_t version = p[0] >> 4;
    const uint8_t *l4;
    uint32_t l4_len;
    uint8_t proto;
    if (version == 4) {
        if (len < 20) return false;
        uint32_t ihl = uint32_t(p[0] & 15) * 4;
        uint32_t total = rd16(p + 2);
        if (ihl < 20 || ihl > len) return false;
        if (total == 0) total = len;  // segmentation offload leaves it 0
        if (total < ihl) return false;
        if (total < len) len = total;
        if (rd16(p + 6) & 0x1FFF) return false;  // not the first fragment: no L4 header
        proto = p[9];
        v->src = p + 12;
        v->dst = p + 16;
        l4 = p + ihl;
        l4_len = len - ihl;
    } else if (version == 6) {
        if (len < 40) return false;
        uint32_t plen = rd16(p + 4);
        if (plen != 0 && plen + 40 < len) len = plen + 40;  // 0: jumbogram, keep caplen
        proto = p[6];
        v->src = p + 8;
        v->dst = p + 24;
        l4 = p + 40;
        l4_len = len - 40;
        for (int hops = 0; hops < 8; ++hops) {
            uint32_t ext;
            if (proto == 0 || proto == 43 || proto == 60) {
                if (l4_len < 8) return false;
                ext = (uint32_t(l4[1]) + 1) * 8;
            } else if (proto == 44) {
                if (l4_len < 8 || (rd16(l4 + 2) & 0xFFF8)) return false;
                ext = 8;
            } else if (proto == 51) {
                if (l4_len < 8) return false;
                ext = (uint32_t(l4[1]) + 2) * 4;
            } else {
                break;
            }
            if (ext > l4_len) return false;
            proto = l4[0];
            l4 += ext;
            l4_len -= ext;
        }
    } else {
        return false;
    }
    v->version = version;
    v->proto = proto;
    if (proto == 6) {
        if (l4_len < 20) return false;
        uint32_t off = uint32_t(l4[12] >> 4) * 4;
        if (off < 20 || off > l4_len) return false;
        v->sport = rd16(l4);
        v->dport = rd16(l4 + 2);
        v->seq = rd32(l4 + 4);
        v->tcp_flags = l4[13];
        v->payload = l4 + off;
        v->payload_len = l4_len - off;
        return true;
    }
    if (proto == 17) {
        if (l4_len < 8) return false;
        uint32_t ulen = rd16(l4 + 4);
        v->sport = rd16(l4);
        v->dport = rd16(l4 + 2);
        v->tcp_flags = 0;
        v->seq = 0;
        v->payload = l4 + 8;
        v->payload_len = l4_len - 8;
        if (ulen >= 8 && ulen - 8 < v->payload_len) v->payload_len = ulen - 8;
        return true;
    }
    return false;
}

uint32_t ipv4_host_order(const uint8_t *a) {
    return rd32(a);
}

void start_flow(pelda_detection_module *m, pelda_flow *f, const l4_view &v) {
    // The first packet's sender is the client, except a SYN+ACK, which the server sends.
    bool from_server = v.proto == 6 && (v.tcp_flags & 0x12) == 0x12;
    const uint8_t *c = from_server ? v.dst : v.src, *s = from_server ? v.src : v.dst;
    size_t alen = v.version == 4 ? 4 : 16;
    std::memcpy(f->client_addr, c, alen);
    std::memcpy(f->server_addr, s, alen);
    f->client_port = from_server ? v.dport : v.sport;
    f->server_port = from_server ? v.sport : v.dport;
    f->ip_version = v.version;
    f->l4_protocol = v.proto;
    f->started = 1;
    if (v.version == 4) {
        uint16_t id = 0;
        if (m->protocol_networks.match(ipv4_host_order(f->server_addr), &id) ||
            m->protocol_networks.match(ipv4_host_order(f->client_addr), &id))
            f->protocol_by_ip = id;
    }
}

int direction(const pelda_flow *f, const l4_view &v) {
    size_t alen = v.version == 4 ? 4 : 16;
    return std::memcmp(v.src, f->client_addr, alen) == 0 && v.sport == f->client_port ? kClient
                                                                                      : kServer;
}

// TCP: the part of the payload not seen before; tracks the next expected sequence number.
void new_tcp_bytes(pelda_flow *f, int dir, const l4_view &v, const uint8_t **p, uint32_t *n) {
    uint32_t seq = v.seq;
    if (v.tcp_flags & 0x02) {  // SYN takes one sequence number
        seq += 1;
        if (!f->seq_known[dir]) {
            f->next_seq[dir] = seq;
            f->seq_known[dir] = 1;
        }
    }
    *p = v.payload;
    *n = v.payload_len;
    if (v.payload_len == 0) return;
    if (!f->seq_known[dir]) {
        f->next_seq[dir] = seq;
        f->seq_known[dir] = 1;
    }
    int32_t diff = int32_t(seq - f->next_seq[dir]);
    if (diff < 0) {  // retransmission or overlap: keep only what is new
        uint32_t old = uint32_t(-int64_t(diff));
        if (old >= v.payload_len) {
            *n = 0;
            return;
        }
        *p += old;
        *n -= old;
    } else if (diff > 0) {
        f->stream_gap[dir] = 1;  // bytes before this segment were missed
    }
    f->next_seq[dir] = seq + v.payload_len;
}

pelda_protocol result_of(const pelda_flow *f) {
    pelda_protocol r{};
    r.master_protocol = f->master_protocol;
    r.app_protocol = f->app_protocol;
    r.protocol_by_ip = f->protocol_by_ip;
    r.confidence = f->confidence;
    r.category = f->category;
    r.state = f->state;
    return r;
}

uint16_t host_category(const pelda_detection_module *m, const pelda_flow *f, uint16_t fallback) {
    int c = match_host_category(m, f->server_name);
    if (c >= 0) return uint16_t(c);
    if (f->ip_version == 4) {
        uint16_t v;
        if (m->category_networks.match(ipv4_host_order(f->server_addr), &v) ||
            m->category_networks.match(ipv4_host_order(f->client_addr), &v))
            return v;
    }
    return fallback;
}

// Fills master/app/category once `proto` is named. Carrier protocols get the custom
// protocol of their server name as application.
void set_detected(pelda_detection_module *m, pelda_flow *f, uint16_t proto, uint8_t confidence) {
    uint16_t app = 0;
    const protocol_def *def = builtin(proto);
    if (def && def->is_carrier) app = match_host_protocol(m, f->server_name);
    if (app && app != proto) {
        f->master_protocol = proto;
        f->app_protocol = app;
    } else {
        f->master_protocol = 0;
        f->app_protocol = proto;
    }
    f->confidence = confidence;
    f->category = host_category(m, f, category_of(m, app ? app : proto));
}

bool port_in(const port_range *r, uint16_t port) {
    for (int i = 0; i < 3 && r[i].lo; ++i)
        if (port >= r[i].lo && port <= r[i].hi) return true;
    return false;
}

bool builtin_port_match(const protocol_def &p, bool tcp, uint16_t a, uint16_t b) {
    const port_range *r = tcp ? p.tcp_ports : p.udp_ports;
    return port_in(r, a) || port_in(r, b);
}

uint16_t custom_port_match(const pelda_detection_module *m, uint8_t l4, uint16_t port) {
    for (const custom_port_rule &r : m->port_rules)
        if (r.l4 == l4 && port >= r.lo && port <= r.hi) return r.proto;
    return 0;
}

// Built-in protocol of the well-known port, the server's (first argument) first.
uint16_t builtin_port_guess(uint8_t l4, uint16_t server_port, uint16_t client_port) {
    const builtin_table &t = builtins();
    for (uint16_t port : {server_port, client_port})
        for (uint32_t i = 1; i < t.count; ++i)
            if (port_in(l4 == 6 ? t.by_id[i]->tcp_ports : t.by_id[i]->udp_ports, port))
                return uint16_t(i);
    return 0;
}

bool excluded(const pelda_flow *f, uint16_t proto) {
    return proto < kExcludedWords * 32 && (f->excluded[proto / 32] >> (proto % 32)) & 1;
}

void exclude(pelda_flow *f, uint16_t proto) {
    if (proto < kExcludedWords * 32) f->excluded[proto / 32] |= 1u << (proto % 32);
}

void finish(pelda_flow *f) {
    f->state = PELDA_STATE_DONE;
    stream_free(f);
}

void inspect(pelda_detection_module *m, pelda_flow *f, const packet_view &pv) {
    context c{m, f, &pv, 0};
    uint8_t l4bit = pv.tcp ? kTcp : kUdp;
    const builtin_table &t = builtins();
    // Dissectors of the flow's well-known ports first, then the others by rank.
    for (int round = 0; round < 2; ++round) {
        for (uint32_t i = 0; i < t.num_dissectors; ++i) {
            const protocol_def &d = *t.dissectors[i];
            if (!(d.l4 & l4bit) || excluded(f, d.id)) continue;
            bool on_port = builtin_port_match(d, pv.tcp, f->server_port, f->client_port);
            if (on_port != (round == 0)) continue;
            c.detected = 0;
            verdict v = d.detect(c);
            if (v == verdict::no) {
                exclude(f, d.id);
            } else if (v == verdict::yes) {
                uint16_t proto = c.detected ? c.detected : d.id;
                set_detected(m, f, proto, PELDA_CONFIDENCE_DPI);
                f->partial_protocol = 0;
                const protocol_def *named = builtin(proto);
                f->state = named && named->extract ? PELDA_STATE_EXTRACTING : PELDA_STATE_DONE;
                if (f->state == PELDA_STATE_EXTRACTING) {
                    // Let the extractor say at once whether this packet already told everything.
                    packet_view none = pv;
                    none.len = 0;
                    context e{m, f, &none, 0};
                    if (named->extract(e)) finish(f);
                } else {
                    finish(f);
                }
                return;
            }
            if (f->state != PELDA_STATE_INSPECTING) return;
        }
    }
}

void keep_first_payload(pelda_flow *f, int dir, const uint8_t *p, uint32_t n) {
    if (f->payload_packets[dir] != 0 || n == 0) return;
    uint32_t keep = n < kFirstPayloadKeep ? n : kFirstPayloadKeep;
    std::memcpy(f->first_payload[dir], p, keep);
    f->first_payload_len[dir] = uint16_t(keep);
    f->first_payload_full_len[dir] = n;
}

}  // namespace

extern "C" {

uint32_t pelda_detection_get_sizeof_pelda_flow_struct(void) {
    return sizeof(pelda_flow);
}

void pelda_free_flow(pelda_flow *f) {
    if (!f) return;
    stream_free(f);
    std::free(f->server_name);
    std::free(f->url);
    std::free(f);
}

const char *pelda_flow_server_name(const pelda_flow *f) {
    return f ? f->server_name : nullptr;
}

pelda_protocol pelda_detection_process_packet(pelda_detection_module *m, pelda_flow *f,
                                              const uint8_t *packet, uint32_t len, uint64_t time_ms,
                                              void *extra) {
    (void)extra;  // no extra input is defined yet
    if (!m || !f) return pelda_protocol{};
    if (f->state == PELDA_STATE_DONE || !packet) return result_of(f);
    l4_view v{};
    if (!decode(packet, len, &v)) return result_of(f);
    if (!f->started) {
        start_flow(m, f, v);
        f->first_time_ms = time_ms;
        uint16_t custom = custom_port_match(m, v.proto, f->server_port);
        if (!custom) custom = custom_port_match(m, v.proto, f->client_port);
        if (custom) {
            f->app_protocol = custom;
            f->confidence = PELDA_CONFIDENCE_CUSTOM_RULE;
            f->category = host_category(m, f, category_of(m, custom));
            finish(f);
            return result_of(f);
        }
    } else if (v.proto != f->l4_protocol) {
        return result_of(f);  // not this flow's packet
    }
    f->last_time_ms = time_ms;
    int dir = direction(f, v);
    f->packets[dir]++;

    packet_view pv{};
    pv.dir = dir;
    pv.tcp = v.proto == 6;
    pv.sport = v.sport;
    pv.dport = v.dport;
    pv.time_ms = time_ms;
    if (pv.tcp) {
        new_tcp_bytes(f, dir, v, &pv.payload, &pv.len);
    } else {
        pv.payload = v.payload;
        pv.len = v.payload_len;
    }
    if (pv.len == 0) return result_of(f);

    if (f->state == PELDA_STATE_INSPECTING) {
        keep_first_payload(f, dir, pv.payload, pv.len);
        f->payload_packets[dir]++;
        // A handshake being reassembled is bounded by its buffers, not by this count.
        if (f->payload_packets[0] + f->payload_packets[1] <= kMaxInspectPayloads ||
            f->partial_protocol)
            inspect(m, f, pv);
    } else if (f->state == PELDA_STATE_EXTRACTING) {
        const protocol_def *d = builtin(f->master_protocol ? f->master_protocol : f->app_protocol);
        context c{m, f, &pv, 0};
        bool reassembling = f->stream[0] || f->stream[1];  // bounded by the buffers
        if (!d || !d->extract || d->extract(c) ||
            (++f->extract_packets >= kMaxExtractPackets && !reassembling))
            finish(f);
    }
    return result_of(f);
}

pelda_protocol pelda_detection_giveup(pelda_detection_module *m, pelda_flow *f) {
    if (!m || !f) return pelda_protocol{};
    if (f->app_protocol || f->master_protocol) {
        finish(f);
        return result_of(f);
    }
    uint8_t l4 = f->l4_protocol;
    uint16_t guess = 0;
    uint8_t confidence = PELDA_CONFIDENCE_UNKNOWN;
    if (m->guess_on_giveup && f->started) {
        guess = custom_port_match(m, l4, f->server_port);
        if (!guess) guess = custom_port_match(m, l4, f->client_port);
        if (guess) confidence = PELDA_CONFIDENCE_CUSTOM_RULE;
        if (!guess && f->protocol_by_ip) {
            guess = f->protocol_by_ip;
            confidence = PELDA_CONFIDENCE_GUESS_IP;
        }
        if (!guess && (l4 == 6 || l4 == 17)) {
            guess = builtin_port_guess(l4, f->server_port, f->client_port);
            if (guess) confidence = PELDA_CONFIDENCE_GUESS_PORT;
        }
    }
    if (f->partial_protocol) {
        // The carrier is known from the payload; the application comes from the guess.
        f->master_protocol = f->partial_protocol;
        f->app_protocol = 0;
        f->guessed_protocol = guess != f->partial_protocol ? guess : 0;
        f->confidence = PELDA_CONFIDENCE_DPI_PARTIAL;
        f->category = host_category(m, f, category_of(m, guess ? guess : f->partial_protocol));
    } else {
        f->app_protocol = guess;
        f->confidence = confidence;
        f->category = host_category(m, f, category_of(m, guess));
    }
    f->guessed = 1;
    finish(f);
    return result_of(f);
}

pelda_protocol pelda_guess_undetected_protocol_v4(pelda_detection_module *m, pelda_flow *f,
                                                  uint8_t proto, uint32_t saddr, uint16_t sport,
                                                  uint32_t daddr, uint16_t dport) {
    pelda_protocol r{};
    if (!m) return r;
    uint16_t guess = 0;
    uint8_t confidence = PELDA_CONFIDENCE_UNKNOWN;
    if (proto == 6 || proto == 17) {
        guess = custom_port_match(m, proto, dport);
        if (!guess) guess = custom_port_match(m, proto, sport);
        if (guess) confidence = PELDA_CONFIDENCE_CUSTOM_RULE;
    } else {
        const builtin_table &t = builtins();
        for (uint32_t i = 1; i < t.count && !guess; ++i)
            if (t.by_id[i]->ip_protocol == proto) guess = uint16_t(i);
        if (guess) confidence = PELDA_CONFIDENCE_GUESS_PROTO;
    }
    uint16_t by_ip = 0;
    if (!m->protocol_networks.match(daddr, &by_ip)) m->protocol_networks.match(saddr, &by_ip);
    r.protocol_by_ip = by_ip;
    if (!guess && by_ip && (daddr || saddr)) {
        guess = by_ip;
        confidence = PELDA_CONFIDENCE_GUESS_IP;
    }
    if (!guess && (proto == 6 || proto == 17)) {
        guess = builtin_port_guess(proto, dport, sport);
        if (guess) confidence = PELDA_CONFIDENCE_GUESS_PORT;
    }
    uint16_t category = category_of(m, guess);
    uint16_t v;
    if (m->category_networks.match(daddr, &v) || m->category_networks.match(saddr, &v))
        category = v;
    if (f && f->partial_protocol) {
        r.master_protocol = f->partial_protocol;
        r.app_protocol = guess != f->partial_protocol ? guess : 0;
    } else {
        r.app_protocol = guess;
    }
    r.confidence = confidence;
    r.category = category;
    r.state = PELDA_STATE_DONE;
    return r;
}

}  // extern "C"
