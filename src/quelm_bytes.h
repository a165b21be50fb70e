// Byte order and flow-key helpers shared by the decoder, the flow hash, flow records and export.
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

// The IPv4 address of a key's 16-byte address field, as the decoder stores it (host order).
inline uint32_t key_ipv4(const uint8_t addr[16]) {
    uint32_t v;
    memcpy(&v, addr, sizeof v);
    return v;
}

}  // namespace quelm
