// Helpers shared by dissectors and bounded stream buffers.
#include <cctype>

#include "internal.h"

namespace pelda {

bool starts_with(const uint8_t *p, uint32_t len, const char *prefix) {
    size_t n = std::strlen(prefix);
    return len >= n && std::memcmp(p, prefix, n) == 0;
}

bool starts_with_nocase(const uint8_t *p, uint32_t len, const char *prefix) {
    size_t n = std::strlen(prefix);
    if (len < n) return false;
    for (size_t i = 0; i < n; ++i)
        if (std::tolower(p[i]) != std::tolower((unsigned char)prefix[i])) return false;
    return true;
}

bool either_port(const packet_view &p, uint16_t port) {
    return p.sport == port || p.dport == port;
}

bool set_string(char **dst, const char *src, size_t len, bool lower) {
    char *s = static_cast<char *>(std::malloc(len + 1));
    if (!s) return false;
    for (size_t i = 0; i < len; ++i) {
        char c = src[i];
        s[i] = lower ? char(std::tolower((unsigned char)c)) : c;
    }
    s[len] = '\0';
    std::free(*dst);
    *dst = s;
    return true;
}

void copy_text(char *dst, size_t dst_size, const uint8_t *src, size_t len) {
    if (dst_size == 0) return;
    size_t n = len < dst_size - 1 ? len : dst_size - 1;
    for (size_t i = 0; i < n; ++i)
        dst[i] = std::isprint(src[i]) ? char(src[i]) : '?';
    dst[n] = '\0';
}

uint32_t line_length(const uint8_t *p, uint32_t len) {
    for (uint32_t i = 0; i < len; ++i)
        if (p[i] == '\r' || p[i] == '\n') return i;
    return len;
}

bool contains_nocase(const uint8_t *p, uint32_t len, const char *needle) {
    size_t n = std::strlen(needle);
    for (uint32_t i = 0; i + n <= len; ++i)
        if (starts_with_nocase(p + i, len - i, needle)) return true;
    return false;
}

uint32_t ber_length(const uint8_t *p, uint32_t len, uint32_t *v) {
    if (len < 1) return 0;
    if (p[0] < 0x80) {
        *v = p[0];
        return 1;
    }
    uint32_t n = p[0] & 0x7F;
    if (n == 0 || n > 4 || len < 1 + n) return 0;
    uint32_t x = 0;
    for (uint32_t i = 1; i <= n; ++i)
        x = x << 8 | p[i];
    *v = x;
    return 1 + n;
}

const uint8_t *other_first(const context &c, uint32_t *len) {
    int o = c.pkt->dir ^ 1;
    *len = c.flow->first_payload_len[o];
    return *len ? c.flow->first_payload[o] : nullptr;
}

bool reply_code(const uint8_t *p, uint32_t len, int code) {
    if (len < 4 || !is_digit(p[0]) || !is_digit(p[1]) || !is_digit(p[2])) return false;
    if (p[3] != ' ' && p[3] != '-' && p[3] != '\r') return false;
    return code == 0 || (p[0] - '0') * 100 + (p[1] - '0') * 10 + (p[2] - '0') == code;
}

bool stream_append(pelda_flow *f, int dir, const uint8_t *p, uint32_t len) {
    uint32_t max = dir == kClient ? kClientStreamMax : kServerStreamMax;
    uint32_t need = f->stream_len[dir] + len;
    if (len > max || need > max) return false;
    if (need > f->stream_cap[dir]) {
        uint32_t cap = f->stream_cap[dir] ? f->stream_cap[dir] : 2048;
        while (cap < need)
            cap *= 2;
        if (cap > max) cap = max;
        void *n = std::realloc(f->stream[dir], cap);
        if (!n) return false;
        f->stream[dir] = static_cast<uint8_t *>(n);
        f->stream_cap[dir] = cap;
    }
    std::memcpy(f->stream[dir] + f->stream_len[dir], p, len);
    f->stream_len[dir] = need;
    return true;
}

void stream_consume(pelda_flow *f, int dir, uint32_t n) {
    if (n >= f->stream_len[dir]) {
        f->stream_len[dir] = 0;
        return;
    }
    std::memmove(f->stream[dir], f->stream[dir] + n, f->stream_len[dir] - n);
    f->stream_len[dir] -= n;
}

void stream_free(pelda_flow *f) {
    for (int d = 0; d < 2; ++d) {
        std::free(f->stream[d]);
        f->stream[d] = nullptr;
        f->stream_len[d] = 0;
        f->stream_cap[d] = 0;
    }
}

}  // namespace pelda
