// Helpers shared by dissectors, bounded stream buffers and the dissector table.
#include <cctype>

#include "internal.h"

namespace pelda {

constexpr uint8_t kTcp = 1, kUdp = 2, kBoth = 3;

// Order matters for flows on no well-known port: specific signatures come first,
// weak heuristics last.
const dissector kDissectors[] = {
    {P_TLS, kTcp, detect_tls, extract_tls},
    {P_HTTP, kTcp, detect_http, extract_http},
    {P_RTSP, kTcp, detect_rtsp, nullptr},
    {P_SIP, kBoth, detect_sip, nullptr},
    {P_SSDP, kUdp, detect_ssdp, nullptr},
    {P_SSH, kTcp, detect_ssh, extract_ssh},
    {P_QUIC, kUdp, detect_quic, nullptr},
    {P_BITTORRENT, kBoth, detect_bittorrent, nullptr},
    {P_STUN, kBoth, detect_stun, nullptr},
    {P_DHCP, kUdp, detect_dhcp, nullptr},
    {P_WIREGUARD, kUdp, detect_wireguard, nullptr},
    {P_BGP, kTcp, detect_bgp, nullptr},
    {P_MYSQL, kTcp, detect_mysql, nullptr},
    {P_POSTGRESQL, kTcp, detect_postgresql, nullptr},
    {P_SMB, kTcp, detect_smb, nullptr},
    {P_NETBIOS, kBoth, detect_netbios, nullptr},
    {P_RDP, kTcp, detect_rdp, nullptr},
    {P_VNC, kTcp, detect_vnc, nullptr},
    {P_MQTT, kTcp, detect_mqtt, nullptr},
    {P_ZEROMQ, kTcp, detect_zeromq, nullptr},
    {P_IKE, kUdp, detect_ike, nullptr},
    {P_DNS, kBoth, detect_dns, extract_dns},
    {P_SMTP, kTcp, detect_smtp, extract_smtp},
    {P_FTP_CONTROL, kTcp, detect_ftp, extract_ftp},
    {P_POP3, kTcp, detect_pop3, nullptr},
    {P_IMAP, kTcp, detect_imap, nullptr},
    {P_IRC, kTcp, detect_irc, nullptr},
    {P_REDIS, kTcp, detect_redis, nullptr},
    {P_TELNET, kTcp, detect_telnet, nullptr},
    {P_SNMP, kUdp, detect_snmp, nullptr},
    {P_KERBEROS, kBoth, detect_kerberos, nullptr},
    {P_LDAP, kBoth, detect_ldap, nullptr},
    {P_OPENVPN, kBoth, detect_openvpn, nullptr},
    {P_NTP, kUdp, detect_ntp, nullptr},
    {P_TFTP, kUdp, detect_tftp, nullptr},
    {P_RADIUS, kUdp, detect_radius, nullptr},
    {P_SYSLOG, kBoth, detect_syslog, nullptr},
};
const uint32_t kNumDissectors = sizeof(kDissectors) / sizeof(kDissectors[0]);

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
