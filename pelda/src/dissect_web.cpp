// HTTP, RTSP, TLS over TCP and QUIC.
#include <cctype>

#include "internal.h"

namespace pelda {

namespace {

const char *const kHttpMethods[] = {"GET",     "POST",   "HEAD",      "PUT",   "DELETE",
                                    "OPTIONS", "PATCH",  "CONNECT",   "TRACE", "PROPFIND",
                                    "MKCOL",   "COPY",   "MOVE",      "LOCK",  "UNLOCK",
                                    "SEARCH",  "REPORT", "PROPPATCH", nullptr};

// 1-based index of the request method that starts the payload (followed by a space), or 0.
int http_method(const uint8_t *p, uint32_t len) {
    for (int i = 0; kHttpMethods[i]; ++i) {
        size_t n = std::strlen(kHttpMethods[i]);
        if (len > n && std::memcmp(p, kHttpMethods[i], n) == 0 && p[n] == ' ') return i + 1;
    }
    return 0;
}

// Finds `needle` in the first line; returns its offset or -1.
int find_in(const uint8_t *p, uint32_t len, const char *needle) {
    size_t n = std::strlen(needle);
    for (uint32_t i = 0; i + n <= len; ++i)
        if (std::memcmp(p + i, needle, n) == 0) return int(i);
    return -1;
}

// Value of header `name` (with its colon) within the header block, trimmed.
bool header_value(const uint8_t *p, uint32_t len, const char *name, const uint8_t **v,
                  uint32_t *vlen) {
    size_t n = std::strlen(name);
    uint32_t pos = line_length(p, len);
    while (pos < len) {
        while (pos < len && (p[pos] == '\r' || p[pos] == '\n'))
            ++pos;
        uint32_t l = line_length(p + pos, len - pos);
        if (l == 0) return false;  // end of headers
        if (l >= n && starts_with_nocase(p + pos, l, name)) {
            uint32_t s = pos + uint32_t(n), e = pos + l;
            while (s < e && (p[s] == ' ' || p[s] == '\t'))
                ++s;
            while (e > s && (p[e - 1] == ' ' || p[e - 1] == '\t'))
                --e;
            *v = p + s;
            *vlen = e - s;
            return true;
        }
        pos += l;
    }
    return false;
}

// Host without port: "example.com:8080" -> "example.com", "[::1]:80" -> "::1".
void host_without_port(const uint8_t *h, uint32_t n, const uint8_t **out, uint32_t *out_len) {
    if (n > 0 && h[0] == '[') {
        uint32_t e = 1;
        while (e < n && h[e] != ']')
            ++e;
        *out = h + 1;
        *out_len = e - 1;
        return;
    }
    uint32_t e = 0;
    while (e < n && h[e] != ':')
        ++e;
    *out = h;
    *out_len = e;
}

bool http_status(const uint8_t *p, uint32_t len, uint16_t *code) {
    if (!starts_with(p, len, "HTTP/1.") && !starts_with(p, len, "HTTP/2") &&
        !starts_with(p, len, "HTTP/3"))
        return false;
    uint32_t i = 0;
    while (i < len && p[i] != ' ')
        ++i;
    if (i + 4 > len) return false;
    uint16_t c = 0;
    for (uint32_t k = i + 1; k < i + 4; ++k) {
        if (!std::isdigit(p[k])) return false;
        c = uint16_t(c * 10 + (p[k] - '0'));
    }
    if (c < 100 || c > 999) return false;
    *code = c;
    return true;
}

void http_request_metadata(context &c, int method) {
    pelda_flow *f = c.flow;
    const uint8_t *p = c.pkt->payload;
    uint32_t len = c.pkt->len;
    uint32_t line = line_length(p, len);
    http_state &h = f->proto.http;
    h.request_seen = 1;
    h.method = uint8_t(method);
    // Request target: between the first and the last space of the request line.
    uint32_t start = uint32_t(std::strlen(kHttpMethods[method - 1])) + 1, end = line;
    while (end > start && p[end - 1] != ' ')
        --end;
    if (end > start) --end;  // drop the space before the version
    if (end <= start) end = line;
    const uint8_t *target = p + start;
    uint32_t tlen = end - start;

    const uint8_t *host = nullptr;
    uint32_t host_len = 0;
    const uint8_t *hv;
    uint32_t hvl;
    if (header_value(p, len, "Host:", &hv, &hvl)) host_without_port(hv, hvl, &host, &host_len);
    bool absolute = tlen > 7 && starts_with_nocase(target, tlen, "http://");
    if (!host_len && absolute) {  // proxy request: host from the target
        const uint8_t *a = target + 7;
        uint32_t alen = 0;
        while (7 + alen < tlen && a[alen] != '/')
            ++alen;
        host_without_port(a, alen, &host, &host_len);
    }
    if (!host_len && method == 8) host_without_port(target, tlen, &host, &host_len);  // CONNECT
    if (host_len && host_len < 256 && !f->server_name)
        set_string(&f->server_name, reinterpret_cast<const char *>(host), host_len, true);

    if (!f->url) {
        if (absolute) {
            set_string(&f->url, reinterpret_cast<const char *>(target), tlen, false);
        } else {
            // "http://" + host (lower case, like the server name) + target; CONNECT's
            // target is the authority itself.
            if (method == 8) host_len = 0;
            size_t n = 7 + host_len + tlen;
            char *u = static_cast<char *>(std::malloc(n + 1));
            if (u) {
                std::memcpy(u, "http://", 7);
                for (uint32_t i = 0; i < host_len; ++i)
                    u[7 + i] = char(std::tolower(host[i]));
                std::memcpy(u + 7 + host_len, target, tlen);
                u[n] = '\0';
                f->url = u;
            }
        }
    }
    if (header_value(p, len, "User-Agent:", &hv, &hvl))
        copy_text(h.user_agent, sizeof(h.user_agent), hv, hvl);
}

}  // namespace

verdict detect_http(context &c) {
    const packet_view &pv = *c.pkt;
    const uint8_t *p = pv.payload;
    uint32_t len = pv.len, line = line_length(p, len);
    int method = http_method(p, len);
    if (method) {
        if (find_in(p, line, " RTSP/") >= 0 || find_in(p, line, " SIP/") >= 0) return verdict::no;
        bool has_version = find_in(p, line, " HTTP/1.") >= 0 || find_in(p, line, " HTTP/2") >= 0;
        if (!has_version) {
            // A request line cut by the segment end may still be HTTP.
            return line == len && len < 2048 ? verdict::maybe : verdict::no;
        }
        http_request_metadata(c, method);
        return verdict::yes;
    }
    uint16_t code;
    if (http_status(p, len, &code)) {
        if (either_port(pv, 1900) && !pv.tcp) return verdict::no;
        c.flow->proto.http.response_seen = 1;
        c.flow->http_response_code = code;
        return verdict::yes;
    }
    // A client that sends something else first is not speaking HTTP/1.
    return pv.dir == kClient || c.flow->payload_packets[kClient] == 0 ? verdict::no
                                                                      : verdict::maybe;
}

bool extract_http(context &c) {
    pelda_flow *f = c.flow;
    const packet_view &pv = *c.pkt;
    if (pv.len && pv.dir == kServer && !f->proto.http.response_seen) {
        uint16_t code;
        if (http_status(pv.payload, pv.len, &code)) {
            f->http_response_code = code;
            f->proto.http.response_seen = 1;
            const uint8_t *hv;
            uint32_t hvl;
            if (header_value(pv.payload, pv.len, "Content-Type:", &hv, &hvl))
                copy_text(f->proto.http.content_type, sizeof(f->proto.http.content_type), hv, hvl);
        }
    }
    return f->proto.http.response_seen;  // nothing after the status line is extracted
}

verdict detect_rtsp(context &c) {
    const uint8_t *p = c.pkt->payload;
    uint32_t len = c.pkt->len, line = line_length(p, len);
    if (starts_with(p, len, "RTSP/1.0 ")) return verdict::yes;
    if (find_in(p, line, " RTSP/1.0") > 0) {
        for (const char *m : {"OPTIONS ", "DESCRIBE ", "SETUP ", "PLAY ", "PAUSE ", "ANNOUNCE ",
                              "TEARDOWN ", "GET_PARAMETER ", "SET_PARAMETER ", "RECORD "})
            if (starts_with(p, len, m)) return verdict::yes;
    }
    return verdict::no;
}

// ---- TLS --------------------------------------------------------------------

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

bool parse_client_hello(pelda_flow *f, const uint8_t *m, uint32_t len) {
    reader r{m, len};
    tls_state &t = f->proto.tls;
    t.client_version = uint16_t(r.u16());
    r.bytes(32);
    r.bytes(r.u8());   // session id
    r.bytes(r.u16());  // cipher suites
    r.bytes(r.u8());   // compression methods
    if (!r.ok) return false;
    if (r.pos == len) return true;  // no extensions
    uint32_t ext_len = r.u16();
    if (!r.need(ext_len)) return false;
    reader e{r.p + r.pos, ext_len};
    while (e.ok && e.pos < e.len) {
        uint32_t type = e.u16(), elen = e.u16();
        const uint8_t *d = e.bytes(elen);
        if (!d) return false;
        reader x{d, elen};
        if (type == 0) {  // server_name
            x.u16();
            while (x.ok && x.pos < x.len) {
                uint32_t kind = x.u8(), nlen = x.u16();
                const uint8_t *name = x.bytes(nlen);
                if (name && kind == 0 && nlen > 0 && nlen < 256 && !f->server_name) {
                    set_string(&f->server_name, reinterpret_cast<const char *>(name), nlen, true);
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
    }
    return e.ok;
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
    if (r.pos < len) {
        uint32_t ext_len = r.u16();
        if (!r.need(ext_len)) return false;
        reader e{r.p + r.pos, ext_len};
        while (e.ok && e.pos < e.len) {
            uint32_t type = e.u16(), elen = e.u16();
            const uint8_t *d = e.bytes(elen);
            if (d && type == 43 && elen == 2) t.server_version = rd16(d);
        }
    }
    return true;
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

}  // namespace

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
            f->partial_protocol = P_TLS;
            return verdict::maybe;
        }
    }
    if (!tls_feed(f, pv)) {
        release_stream(f, kClient);
        release_stream(f, kServer);
        if (f->partial_protocol == P_TLS) f->partial_protocol = 0;
        std::memset(&f->proto, 0, sizeof(f->proto));
        return verdict::no;
    }
    if (t.client_hello_seen || t.server_hello_seen) return verdict::yes;
    f->partial_protocol = P_TLS;
    return verdict::maybe;
}

bool extract_tls(context &c) {
    pelda_flow *f = c.flow;
    const tls_state &t = f->proto.tls;
    if (c.pkt->len && !tls_feed(f, *c.pkt)) return true;
    return client_finished(t) && server_finished(t);
}

// ---- QUIC -------------------------------------------------------------------

namespace {

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

}  // namespace

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

}  // namespace pelda
