// Remote access: SSH (both banners), Telnet, VNC, RDP; XDMCP by port.
#include "internal.h"

namespace pelda {

namespace {

verdict detect_ssh(context &c) {
    const packet_view &pv = *c.pkt;
    if (!starts_with(pv.payload, pv.len, "SSH-")) return verdict::no;
    if (!starts_with(pv.payload, pv.len, "SSH-2.0-") &&
        !starts_with(pv.payload, pv.len, "SSH-1.99-") &&
        !starts_with(pv.payload, pv.len, "SSH-1.5-"))
        return verdict::no;
    std::memset(&c.flow->proto, 0, sizeof(c.flow->proto));
    banner_state &b = c.flow->proto.banner;
    copy_text(pv.dir == kClient ? b.client : b.server, sizeof(b.client), pv.payload,
              line_length(pv.payload, pv.len));
    return verdict::yes;
}

bool extract_ssh(context &c) {
    banner_state &b = c.flow->proto.banner;
    const packet_view &pv = *c.pkt;
    if (pv.len && starts_with(pv.payload, pv.len, "SSH-")) {
        char *dst = pv.dir == kClient ? b.client : b.server;
        if (!dst[0]) copy_text(dst, sizeof(b.client), pv.payload, line_length(pv.payload, pv.len));
    }
    return b.client[0] && b.server[0];
}

verdict detect_telnet(context &c) {
    const uint8_t *p = c.pkt->payload;
    uint32_t len = c.pkt->len;
    if (len < 3 || p[0] != 0xFF || p[1] < 0xFB || p[1] > 0xFE || p[2] > 50) return verdict::no;
    for (uint32_t i = 0; i + 2 < len; i += 3) {
        if (p[i] != 0xFF) break;
        if (p[i + 1] < 0xFA) return verdict::no;
    }
    return verdict::yes;
}

verdict detect_vnc(context &c) {
    const uint8_t *p = c.pkt->payload;
    uint32_t len = c.pkt->len;
    if (len == 12 && starts_with(p, len, "RFB ") && is_digit(p[4]) && is_digit(p[6]) &&
        p[7] == '.' && is_digit(p[10]) && p[11] == '\n')
        return verdict::yes;
    return verdict::no;
}

// RDP: TPKT + X.224 connection request/confirm with the cookie or a negotiation block.
verdict detect_rdp(context &c) {
    const uint8_t *p = c.pkt->payload;
    uint32_t len = c.pkt->len;
    if (len < 11 || p[0] != 3 || p[1] != 0 || rd16(p + 2) != len) return verdict::no;
    uint8_t li = p[4], code = p[5] & 0xF0;
    if (li + 5u > len || (code != 0xE0 && code != 0xD0)) return verdict::no;
    if (contains_nocase(p + 11, len - 11, "Cookie: mstshash=")) return verdict::yes;
    if (len >= 19 && (p[len - 8] == 0x01 || p[len - 8] == 0x02 || p[len - 8] == 0x03) &&
        p[len - 6] == 8 && p[len - 5] == 0)
        return verdict::yes;  // RDP_NEG_REQ / RSP / FAILURE, 8 bytes long
    return verdict::no;
}

constexpr protocol_def kRows[] = {
    row(32, "SSH", cat::RemoteAccess).tcp(22).dissector(kTcp, 60, detect_ssh, extract_ssh),
    row(28, "Telnet", cat::RemoteAccess).tcp(23).dissector(kTcp, 290, detect_telnet),
    row(29, "VNC", cat::RemoteAccess).tcp({5900, 5903}).dissector(kTcp, 180, detect_vnc),
    row(33, "RDP", cat::RemoteAccess).tcp(3389).udp(3389).dissector(kTcp, 170, detect_rdp),
    row(15, "XDMCP", cat::RemoteAccess).udp(177),
};

}  // namespace

PELDA_DEFINE_FAMILY(remote, kRows);

}  // namespace pelda
