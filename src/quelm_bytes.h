// Byte order, flow-key and number-text helpers shared by the decoder, the flow hash, flow records,
// export and the tool.
#pragma once

#include <stdint.h>
#include <string.h>

namespace quelm {

// Big-endian (network order) reads; the caller has checked that the bytes were captured.
inline uint16_t rd16(const uint8_t *p) {
    return uint16_t(p[0] << 8 | p[1]);
}
inline uint32_t rd32(const uint8_t *p) {
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}

// Big-endian writes.
inline void wr16(uint8_t *p, uint16_t v) {
    p[0] = uint8_t(v >> 8), p[1] = uint8_t(v);
}
inline void wr32(uint8_t *p, uint32_t v) {
    wr16(p, uint16_t(v >> 16)), wr16(p + 2, uint16_t(v));
}

// The IPv4 address of a key's 16-byte address field, as the decoder stores it (host order).
inline uint32_t key_ipv4(const uint8_t addr[16]) {
    uint32_t v;
    memcpy(&v, addr, sizeof v);
    return v;
}

// Writes `n` in decimal at `out` (at most 20 characters, no terminator); returns the end.
inline char *write_decimal(uint64_t n, char *out) {
    char digits[20];
    int len = 0;
    do {
        digits[len++] = char('0' + n % 10);
        n /= 10;
    } while (n != 0);
    while (len > 0)
        *out++ = digits[--len];
    return out;
}

}  // namespace quelm
