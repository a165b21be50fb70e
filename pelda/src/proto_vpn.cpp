// VPNs and tunnels: OpenVPN, WireGuard and IKE handshakes; the others by port or IP protocol.
#include "internal.h"

namespace pelda {

namespace {

verdict detect_openvpn(context &c) {
    const uint8_t *p = c.pkt->payload;
    uint32_t len = c.pkt->len;
    if (c.pkt->tcp) {
        if (len < 3 || rd16(p) + 2u != len) return verdict::no;
        p += 2;
        len -= 2;
    }
    if (len < 14) return verdict::no;
    uint8_t opcode = p[0] >> 3;
    if (c.pkt->dir == kClient) {
        // Hard reset from the client: plain, or with an HMAC (SHA-1 or SHA-256) in front.
        if (opcode != 7 && opcode != 10) return verdict::no;
        if (len == 14 || len == 42 || len == 54 || len == 86 || len == 98)
            return either_port(*c.pkt, 1194) ? verdict::yes : verdict::maybe;
        return verdict::no;
    }
    uint32_t olen;
    const uint8_t *o = other_first(c, &olen);
    if (opcode == 8 && o && olen > 0) {
        if (c.pkt->tcp && olen >= 3) o += 2;
        if ((o[0] >> 3) == 7 || (o[0] >> 3) == 10) return verdict::yes;
    }
    return verdict::no;
}

verdict detect_wireguard(context &c) {
    const uint8_t *p = c.pkt->payload;
    uint32_t len = c.pkt->len;
    if (len < 32 || p[1] || p[2] || p[3]) return verdict::no;
    if ((p[0] == 1 && len == 148) || (p[0] == 2 && len == 92)) return verdict::yes;
    if (p[0] == 3 && len == 64) return verdict::maybe;
    if (p[0] == 4 && (len - 16) % 16 == 0) return verdict::maybe;
    return verdict::no;
}

verdict detect_ike(context &c) {
    const uint8_t *p = c.pkt->payload;
    uint32_t len = c.pkt->len;
    if (len >= 4 && rd32(p) == 0 && either_port(*c.pkt, 4500)) {  // non-ESP marker
        p += 4;
        len -= 4;
    }
    if (len < 28 || (rd32(p) == 0 && rd32(p + 4) == 0)) return verdict::no;
    uint8_t version = p[17], exchange = p[18];
    if (version != 0x10 && version != 0x20) return verdict::no;
    bool v1 = version == 0x10 && exchange >= 1 && exchange <= 5;
    bool v1_more = version == 0x10 && (exchange == 32 || exchange == 33);
    bool v2 = version == 0x20 && exchange >= 34 && exchange <= 37;
    if (!v1 && !v1_more && !v2) return verdict::no;
    return rd32(p + 24) == len ? verdict::yes : verdict::no;
}

constexpr protocol_def kRows[] = {
    row(30, "OpenVPN", cat::VPN).tcp(1194).udp(1194).dissector(kBoth, 330, detect_openvpn),
    row(31, "WireGuard", cat::VPN).udp(51820).dissector(kUdp, 110, detect_wireguard),
    row(48, "IKE", cat::VPN).udp(500).dissector(kUdp, 210, detect_ike),
    row(108, "IPsec_NAT_T", cat::VPN).udp(4500),
    row(49, "L2TP", cat::VPN).udp(1701),
    row(50, "PPTP", cat::VPN).tcp(1723),
    row(40, "ESP", cat::VPN).ip(50),
    row(41, "AH", cat::VPN).ip(51),
    row(39, "GRE", cat::Tunnel).ip(47),
    row(47, "IP_in_IP", cat::Tunnel).ip(4),
    row(95, "IPv6_in_IP", cat::Tunnel).ip(41),
    row(56, "LISP", cat::Tunnel).udp({4341, 4342}),
    row(57, "VXLAN", cat::Tunnel).udp(4789, 8472),
    row(58, "Geneve", cat::Tunnel).udp(6081),
    row(79, "SOCKS", cat::Tunnel).tcp(1080),
};

}  // namespace

PELDA_DEFINE_FAMILY(vpn, kRows);

}  // namespace pelda
