#include "quelm_sha1.h"

#include <cstring>

#include "quelm_bytes.h"

namespace quelm {
namespace {

uint32_t rotl(uint32_t x, int n) {
    return x << n | x >> (32 - n);
}

void compress(uint32_t h[5], const uint8_t block[64]) {
    uint32_t w[80];
    for (int i = 0; i < 16; i++)
        w[i] = rd32(block + 4 * i);
    for (int i = 16; i < 80; i++)
        w[i] = rotl(w[i - 3] ^ w[i - 8] ^ w[i - 14] ^ w[i - 16], 1);
    uint32_t a = h[0], b = h[1], c = h[2], d = h[3], e = h[4];
    for (int i = 0; i < 80; i++) {
        uint32_t f, k;
        if (i < 20)
            f = (b & c) | (~b & d), k = 0x5A827999;
        else if (i < 40)
            f = b ^ c ^ d, k = 0x6ED9EBA1;
        else if (i < 60)
            f = (b & c) | (b & d) | (c & d), k = 0x8F1BBCDC;
        else
            f = b ^ c ^ d, k = 0xCA62C1D6;
        const uint32_t t = rotl(a, 5) + f + e + k + w[i];
        e = d, d = c, c = rotl(b, 30), b = a, a = t;
    }
    h[0] += a, h[1] += b, h[2] += c, h[3] += d, h[4] += e;
}

}  // namespace

void sha1(const uint8_t *data, size_t len, uint8_t out[kSha1Size]) {
    uint32_t h[5] = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0};
    size_t at = 0;
    for (; len - at >= 64; at += 64)
        compress(h, data + at);
    // The tail, a 1 bit, zeros and the length in bits: one block or two.
    uint8_t tail[128] = {};
    const size_t rest = len - at;
    std::memcpy(tail, data + at, rest);
    tail[rest] = 0x80;
    const size_t blocks = rest < 56 ? 1 : 2;
    const uint64_t bits = uint64_t(len) * 8;
    for (int i = 0; i < 8; i++)
        tail[64 * blocks - 1 - i] = uint8_t(bits >> (8 * i));
    for (size_t b = 0; b < blocks; b++)
        compress(h, tail + 64 * b);
    for (int i = 0; i < 5; i++)
        wr32(out + 4 * i, h[i]);
}

}  // namespace quelm
