// Formatting helpers: version text, millisecond clocks, address and protocol texts, power-of-two
// rounding. None allocates; address formatters write into caller buffers.
#include <arpa/inet.h>
#include <stdio.h>
#include <string.h>
#include <sys/time.h>

#include "quelm.h"

namespace {
constexpr uint32_t kVersionMajor = 9, kVersionMinor = 5, kVersionPatch = 0;
constexpr const char *kBuildTag = "261007";
constexpr char kHexDigits[17] = "0123456789ABCDEF";

// Decimal text of the last protocol number that has no name; shared by all callers.
char proto_string[8];
}  // namespace

extern "C" {

uint32_t quelm_debug_enabled = 0;

uint32_t utils_read_version(char *buf) {
    // 13 bytes is the documented minimum for "9.5.0.261007".
    snprintf(buf, 13, "%u.%u.%u.%s", kVersionMajor, kVersionMinor, kVersionPatch, kBuildTag);
    return kVersionMajor << 16 | kVersionMinor << 8 | kVersionPatch;
}

uint32_t quelm_version(char *buf) {
    return utils_read_version(buf);
}

uint32_t quelm_api_version(void) {
    return QUELM_API_VERSION;
}

uint64_t utils_tv_to_msec(const quelm_timeval *tv) {
    return uint64_t(tv->tv_sec) * 1000 + uint64_t(tv->tv_usec) / 1000;
}

uint64_t utils_time_msec(void) {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    const quelm_timeval qtv{tv.tv_sec, tv.tv_usec};
    return utils_tv_to_msec(&qtv);
}

const quelm_timeval *utils_get_last(const quelm_timeval *a, const quelm_timeval *b) {
    if (a->tv_sec != b->tv_sec) return a->tv_sec > b->tv_sec ? a : b;
    return a->tv_usec >= b->tv_usec ? a : b;
}

char *utils_ethtoa(const uint8_t mac[6], char *buf) {
    char *p = buf;
    for (int i = 0; i < 6; i++) {
        if (i > 0) *p++ = ':';
        *p++ = kHexDigits[mac[i] >> 4];
        *p++ = kHexDigits[mac[i] & 0x0F];
    }
    *p = '\0';
    return buf;
}

char *utils_intoav4(uint32_t addr, char *buf, uint64_t bufsize) {
    // Built backwards so that no length has to be known first; the text ends at the buffer's end.
    char *p = buf + bufsize - 1;
    *p = '\0';
    for (int octet = 0; octet < 4; octet++) {
        uint32_t byte = addr & 0xFF;
        do {
            *--p = char('0' + byte % 10);
            byte /= 10;
        } while (byte != 0);
        if (octet < 3) *--p = '.';
        addr >>= 8;
    }
    return p;
}

char *utils_intoav6(const uint8_t addr[16], char *buf, uint16_t bufsize) {
    return const_cast<char *>(inet_ntop(AF_INET6, addr, buf, bufsize));
}

const char *utils_prototoa(uint32_t proto) {
    switch (proto) {
        case 0:
            return "IP";
        case 1:
            return "ICMP";
        case 2:
            return "IGMP";
        case 6:
            return "TCP";
        case 17:
            return "UDP";
        case 47:
            return "GRE";
        case 50:
            return "ESP";
        case 58:
            return "IPv6-ICMP";
        case 89:
            return "OSPF";
        case 103:
            return "PIM";
        case 112:
            return "VRRP";
        default:
// Numbers of 8 digits and more are cut to 7: the buffer is kept at 8 bytes on purpose.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-truncation"
            snprintf(proto_string, sizeof proto_string, "%u", proto);
#pragma GCC diagnostic pop
            return proto_string;
    }
}

uint32_t utils_pow2(uint32_t v) {
    v--;
    v |= v >> 1;
    v |= v >> 2;
    v |= v >> 4;
    v |= v >> 8;
    v |= v >> 16;
    return v + 1;
}

char *utils_sanitize(char *str) {
    for (char *p = str; *p != '\0'; p++) {
        if (*p == '\t' || *p == '\n' || *p == '\r') {
            *p = '\0';
            break;
        }
    }
    return str;
}

}  // extern "C"
