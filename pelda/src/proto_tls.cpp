// Encrypted web transports: TLS over TCP (handshake across segments, server name, ALPN,
// versions, first certificate) and QUIC (versions, early versions' server name).
#include <cctype>

#include "internal.h"

namespace pelda {

namespace {

bool is_grease(uint16_t v) {
    return (v & 0x0F0F) == 0x0A0A && (v >> 8) == (v & 0xFF);
}

void release_stream(pelda_flow *f, int dir) {
    std::free(f->stream[dir]);
    f->stream[dir] = nullptr;
    f->stream_len[dir] = 0;
    f->stream_cap[dir] = 0;
}

struct reader {
    const uint8_t *p;
    uint32_t len, pos = 0;
    bool ok = true;
    bool need(uint32_t n) { return ok = ok && n <= len - pos; }
    uint32_t u8() { return need(1) ? p[pos++] : 0; }
    uint32_t u16() {
        if (!need(2)) return 0;
        pos += 2;
        return rd16(p + pos - 2);
    }
    uint32_t u24() {
        if (!need(3)) return 0;
        pos += 3;
        return rd24(p + pos - 3);
    }
    const uint8_t *bytes(uint32_t n) {
        if (!need(n)) return nullptr;
        pos += n;
        return p + pos - n;
    }
};

// Calls visit(type, reader over its data) for each extension after the fixed part `r` has
// read: -1 when the extension block overruns the message, 0 when an extension is cut
// short, 1 when all were read (or there are none).
template <typename F>
int for_each_extension(reader &r, F visit) {
    if (r.pos == r.len) return 1;
    uint32_t ext_len = r.u16();
    if (!r.need(ext_len)) return -1;
    reader e{r.p + r.pos, ext_len};
    while (e.pos < e.len) {
        uint32_t type = e.u16(), elen = e.u16();
        const uint8_t *d = e.bytes(elen);
        if (!d) return 0;
        visit(type, reader{d, elen});
    }
    return 1;
}

bool parse_client_hello(pelda_flow *f, const uint8_t *m, uint32_t len) {
    reader r{m, len};
    tls_state &t = f->proto.tls;
    t.client_version = uint16_t(r.u16());
    r.bytes(32);
    r.bytes(r.u8());   // session id
    r.bytes(r.u16());  // cipher suites
    r.bytes(r.u8());   // compression methods
    if (!r.ok) return false;
    return for_each_extension(r, [&](uint32_t type, reader x) {
               if (type == 0) {  // server_name
                   x.u16();
                   while (x.ok && x.pos < x.len) {
                       uint32_t kind = x.u8(), nlen = x.u16();
                       const uint8_t *name = x.bytes(nlen);
                       if (name && kind == 0 && nlen > 0 && nlen < 256 && !f->server_name) {
                           set_string(&f->server_name, reinterpret_cast<const char *>(name), nlen,
                                      true);
                           break;
                       }
                   }
               } else if (type == 16) {  // application_layer_protocol_negotiation
                   x.u16();
                   uint32_t plen = x.u8();
                   const uint8_t *proto = x.bytes(plen);
                   if (proto) copy_text(t.alpn, sizeof(t.alpn), proto, plen);
               } else if (type == 43) {  // supported_versions
                   uint32_t vlen = x.u8();
                   for (uint32_t i = 0; i + 1 < vlen && x.ok; i += 2) {
                       uint16_t v = uint16_t(x.u16());
                       if (!is_grease(v) && v > t.client_version) t.client_version = v;
                   }
               }
           }) == 1;
}

bool parse_server_hello(pelda_flow *f, const uint8_t *m, uint32_t len) {
    reader r{m, len};
    tls_state &t = f->proto.tls;
    t.server_version = uint16_t(r.u16());
    r.bytes(32);
    r.bytes(r.u8());
    t.cipher = uint16_t(r.u16());
    r.u8();
    if (!r.ok) return false;
    // A ServerHello whose extensions are cut short still counts.
    return for_each_extension(r, [&](uint32_t type, reader x) {
               if (type == 43 && x.len == 2) t.server_version = rd16(x.p);
           }) >= 0;
}

// Hashes the first certificate once its bytes are in; false while incomplete.
bool first_certificate(pelda_flow *f, const uint8_t *m, uint32_t avail) {
    reader r{m, avail};
    r.u24();  // certificate_list length
    uint32_t clen = r.u24();
    const uint8_t *cert = r.bytes(clen);
    if (!cert || clen == 0) return false;
    sha1(cert, clen, f->tls_certificate_sha1);
    f->proto.tls.certificate_seen = 1;
    return true;
}

bool server_finished(const tls_state &t) {
    return t.certificate_seen || t.broken[kServer] || t.encrypted[kServer] ||
           t.server_version == 0x0304;
}

bool client_finished(const tls_state &t) {
    return t.client_hello_seen || t.broken[kClient] || t.encrypted[kClient];
}

// Handshake bytes are kept at the start of the stream buffer (tls_state::hs_len);
// record bytes not yet complete follow them. Returns false when the stream is not TLS.
bool tls_process(pelda_flow *f, int dir) {
    tls_state &t = f->proto.tls;
    uint8_t *b = f->stream[dir];
    uint32_t &len = f->stream_len[dir];
    uint32_t hs = t.hs_len[dir];
    while (len - hs >= 5 && !t.encrypted[dir]) {
        uint8_t *rec = b + hs;
        uint8_t type = rec[0];
        uint32_t rlen = rd16(rec + 3);
        if (type < 20 || type > 24 || rec[1] != 3 || rlen > 18432) return false;
        if (len - hs < 5 + rlen) break;
        if (type == 22) {
            std::memmove(rec, rec + 5, len - hs - 5);
            len -= 5;
            hs += rlen;
        } else {
            if (type == 20 || type == 23) t.encrypted[dir] = 1;
            std::memmove(rec, rec + 5 + rlen, len - hs - 5 - rlen);
            len -= 5 + rlen;
        }
    }
    // Complete handshake messages.
    while (hs >= 4) {
        uint8_t mtype = b[0];
        uint32_t mlen = rd24(b + 1);
        if (mtype == 11 && dir == kServer && !t.certificate_seen && t.server_version < 0x0304 &&
            first_certificate(f, b + 4, hs - 4))
            break;
        if (hs < 4 + mlen) {
            if (4 + mlen > (dir == kClient ? kClientStreamMax : kServerStreamMax))
                t.broken[dir] = 1;
            break;
        }
        if (mtype == 1 && dir == kClient) {
            if (!parse_client_hello(f, b + 4, mlen)) return false;
            t.client_hello_seen = 1;
        } else if (mtype == 2 && dir == kServer) {
            if (!parse_server_hello(f, b + 4, mlen)) return false;
            t.server_hello_seen = 1;
        }
        std::memmove(b, b + 4 + mlen, len - 4 - mlen);
        len -= 4 + mlen;
        hs -= 4 + mlen;
    }
    t.hs_len[dir] = uint16_t(hs);
    return true;
}

// Feeds new bytes of one direction; false when they cannot be TLS.
bool tls_feed(pelda_flow *f, const packet_view &pv) {
    tls_state &t = f->proto.tls;
    int dir = pv.dir;
    if (dir == kClient ? client_finished(t) : server_finished(t)) return true;
    if (f->stream_gap[dir] || !stream_append(f, dir, pv.payload, pv.len)) {
        t.broken[dir] = 1;
        release_stream(f, dir);
        return true;
    }
    bool ok = tls_process(f, dir);
    if (dir == kClient ? client_finished(t) : server_finished(t)) release_stream(f, dir);
    return ok;
}

bool looks_like_record(const uint8_t *p, uint32_t len) {
    if (len < 3) return len > 0 && p[0] == 22;
    return p[0] >= 20 && p[0] <= 24 && p[1] == 3 && p[2] <= 4;
}

verdict detect_tls(context &c) {
    pelda_flow *f = c.flow;
    const packet_view &pv = *c.pkt;
    tls_state &t = f->proto.tls;
    bool started = t.hs_len[0] || t.hs_len[1] || f->stream[0] || f->stream[1] ||
                   t.client_hello_seen || t.server_hello_seen;
    if (!started || f->payload_packets[pv.dir] == 1) {
        if (!looks_like_record(pv.payload, pv.len)) return started ? verdict::maybe : verdict::no;
        if (pv.payload[0] != 22) {
            // Encrypted records without a handshake: a capture that started mid-session.
            f->partial_protocol = PELDA_PROTOCOL_TLS;
            return verdict::maybe;
        }
    }
    if (!tls_feed(f, pv)) {
        release_stream(f, kClient);
        release_stream(f, kServer);
        if (f->partial_protocol == PELDA_PROTOCOL_TLS) f->partial_protocol = 0;
        std::memset(&f->proto, 0, sizeof(f->proto));
        return verdict::no;
    }
    if (t.client_hello_seen || t.server_hello_seen) return verdict::yes;
    f->partial_protocol = PELDA_PROTOCOL_TLS;
    return verdict::maybe;
}

bool extract_tls(context &c) {
    pelda_flow *f = c.flow;
    const tls_state &t = f->proto.tls;
    if (c.pkt->len && !tls_feed(f, *c.pkt)) return true;
    return client_finished(t) && server_finished(t);
}

// ---- QUIC

bool known_quic_version(uint32_t v) {
    return v == 0x00000001 || v == 0x6b3343cf || (v & 0xFFFFFF00) == 0xFF000000 ||
           (v & 0xFFFFFFF0) == 0xFACEB000 || v == 0 ||
           ((v >> 24) == 'Q' && std::isdigit(v >> 16 & 0xFF) && std::isdigit(v >> 8 & 0xFF) &&
            std::isdigit(v & 0xFF));
}

// Server name from the SNI tag of a plaintext client hello ("CHLO" message).
void gquic_sni(pelda_flow *f, const uint8_t *p, uint32_t len) {
    for (uint32_t i = 0; i + 8 <= len; ++i) {
        if (std::memcmp(p + i, "CHLO", 4) != 0) continue;
        uint32_t tags = p[i + 4] | p[i + 5] << 8;
        uint32_t index = i + 8, values = index + tags * 8;
        if (tags == 0 || tags > 64 || values > len) return;
        uint32_t prev_end = 0;
        for (uint32_t k = 0; k < tags; ++k) {
            const uint8_t *e = p + index + k * 8;
            uint32_t end = rd32le(e + 4);
            if (end < prev_end || values + end > len) return;
            if (std::memcmp(e, "SNI\0", 4) == 0 && end > prev_end && end - prev_end < 256) {
                set_string(&f->server_name, reinterpret_cast<const char *>(p + values + prev_end),
                           end - prev_end, true);
                return;
            }
            prev_end = end;
        }
        return;
    }
}

verdict detect_quic(context &c) {
    const uint8_t *p = c.pkt->payload;
    uint32_t len = c.pkt->len;
    if (len < 7) return verdict::no;
    if ((p[0] & 0x80) && (p[0] & 0x40)) {  // long header
        uint32_t version = rd32(p + 1);
        if (!known_quic_version(version)) return verdict::no;
        if (version >> 24 == 'Q') {  // early long header: nibble-coded connection id lengths
            gquic_sni(c.flow, p, len);
            return verdict::yes;
        }
        uint32_t dcid = p[5];
        if (dcid > 20 || 6 + dcid >= len) return verdict::no;
        uint32_t scid = p[6 + dcid];
        if (scid > 20 || 7 + dcid + scid > len) return verdict::no;
        return verdict::yes;
    }
    if ((p[0] & 0x01) && (p[0] & 0x08) && len >= 13) {
        // Early public header: flags, 8-byte connection id, version "Q0xx".
        uint32_t version = rd32(p + 9);
        if ((version >> 24) == 'Q' && known_quic_version(version)) {
            gquic_sni(c.flow, p, len);
            return verdict::yes;
        }
    }
    return verdict::no;
}

constexpr protocol_def kRows[] = {
    row(PELDA_PROTOCOL_TLS, "TLS", cat::Web)
        .tcp(443)
        .dissector(kTcp, 10, detect_tls, extract_tls)
        .carrier(),
    row(34, "QUIC", cat::Web).udp(443).dissector(kUdp, 70, detect_quic).carrier(),
};

}  // namespace

PELDA_DEFINE_FAMILY(tls, kRows);

}  // namespace pelda
