// Web: HTTP requests (host, URL, user agent) and responses (status, content type).
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

constexpr protocol_def kRows[] = {
    row(PELDA_PROTOCOL_HTTP, "HTTP", cat::Web)
        .tcp(80, 8080)
        .dissector(kTcp, 20, detect_http, extract_http)
        .carrier(),
    row(80, "HTTP_Proxy", cat::Web).tcp(3128, 8118),
};

}  // namespace

PELDA_DEFINE_FAMILY(http, kRows);

}  // namespace pelda
