// Network services and monitoring: NTP, DHCP, SNMP, Syslog and SSDP messages; the others
// by port or IP protocol.
#include <cctype>

#include "internal.h"

namespace pelda {

namespace {

verdict detect_ntp(context &c) {
    const uint8_t *p = c.pkt->payload;
    uint32_t len = c.pkt->len;
    if (len < 12) return verdict::no;
    uint8_t version = (p[0] >> 3) & 7, mode = p[0] & 7;
    bool on_port = either_port(*c.pkt, 123);
    if (version < 1 || version > 4) return verdict::no;
    if (mode == 6 || mode == 7) return on_port ? verdict::yes : verdict::no;  // control, private
    if (mode == 0 || len < 48) return verdict::no;
    if (len != 48 && len != 52 && len != 60 && len != 68 && len != 72 && len != 120)
        return verdict::no;
    if (p[1] > 16) return verdict::no;  // stratum
    return verdict::yes;
}

verdict detect_dhcp(context &c) {
    const uint8_t *p = c.pkt->payload;
    uint32_t len = c.pkt->len;
    if (len < 240 || (p[0] != 1 && p[0] != 2) || p[2] > 16) return verdict::no;
    return rd32(p + 236) == 0x63825363 ? verdict::yes : verdict::no;
}

verdict detect_snmp(context &c) {
    const uint8_t *p = c.pkt->payload;
    uint32_t len = c.pkt->len, v;
    if (len < 10 || p[0] != 0x30) return verdict::no;
    uint32_t n = ber_length(p + 1, len - 1, &v);
    if (!n || 1 + n + v > len) return verdict::no;
    uint32_t i = 1 + n;
    if (i + 3 > len || p[i] != 0x02 || p[i + 1] != 1) return verdict::no;
    uint8_t version = p[i + 2];
    i += 3;
    if (i >= len) return verdict::no;
    if (version == 3) return p[i] == 0x30 ? verdict::yes : verdict::no;
    if (version > 1 || p[i] != 0x04) return verdict::no;
    n = ber_length(p + i + 1, len - i - 1, &v);
    if (!n) return verdict::no;
    i += 1 + n + v;
    return i < len && p[i] >= 0xA0 && p[i] <= 0xA8 ? verdict::yes : verdict::no;
}

verdict detect_syslog(context &c) {
    const uint8_t *p = c.pkt->payload;
    uint32_t len = c.pkt->len;
    if (c.pkt->tcp) {  // octet counting: "<length> <message>"
        uint32_t i = 0;
        while (i < len && i < 6 && is_digit(p[i]))
            ++i;
        if (i && i < len && p[i] == ' ') {
            p += i + 1;
            len -= i + 1;
        }
    }
    if (len < 5 || p[0] != '<') return verdict::no;
    uint32_t i = 1, pri = 0;
    while (i < len && i < 4 && is_digit(p[i]))
        pri = pri * 10 + uint32_t(p[i++] - '0');
    if (i == 1 || i >= len || p[i] != '>' || pri > 191) return verdict::no;
    ++i;
    return i < len && (std::isalnum(p[i]) || p[i] == ' ') ? verdict::yes : verdict::no;
}

verdict detect_ssdp(context &c) {
    const uint8_t *p = c.pkt->payload;
    uint32_t len = c.pkt->len;
    if (starts_with(p, len, "M-SEARCH * HTTP/1.1") || starts_with(p, len, "NOTIFY * HTTP/1.1"))
        return verdict::yes;
    if (either_port(*c.pkt, 1900) && starts_with(p, len, "HTTP/1.1 200")) return verdict::yes;
    return verdict::no;
}

constexpr protocol_def kRows[] = {
    row(9, "NTP", cat::System).udp(123).dissector(kUdp, 340, detect_ntp),
    row(18, "DHCP", cat::Network).udp({67, 68}).dissector(kUdp, 100, detect_dhcp),
    row(85, "DHCPv6", cat::Network).udp({546, 547}),
    row(14, "SNMP", cat::Network).udp({161, 162}).dissector(kUdp, 300, detect_snmp),
    row(17, "Syslog", cat::System).tcp(601).udp(514).dissector(kBoth, 370, detect_syslog),
    row(12, "SSDP", cat::System).udp(1900).dissector(kUdp, 50, detect_ssdp),
    row(37, "ICMP", cat::Network).ip(1),
    row(38, "IGMP", cat::Network).ip(2),
    row(42, "ICMPv6", cat::Network).ip(58),
    row(44, "SCTP", cat::Network).ip(132),
    row(45, "VRRP", cat::Network).ip(112),
    row(53, "BFD", cat::Network).udp({3784, 3785}, 4784),
    row(64, "HSRP", cat::Network).udp(1985),
    row(96, "DCCP", cat::Network).ip(33),
    row(97, "RSVP", cat::Network).ip(46),
    row(101, "PGM", cat::Network).ip(113),
    row(86, "NAT_PMP", cat::Network).udp(5351),
    row(100, "PTP", cat::System).udp({319, 320}),
    row(107, "WCCP", cat::Network).udp(2048),
    row(106, "AHCP", cat::Network).udp(5359),
    row(105, "HNCP", cat::Network).udp(8231),
    row(102, "OpenFlow", cat::Network).tcp(6633, 6653),
    row(59, "sFlow", cat::Monitoring).udp(6343),
    row(60, "NetFlow", cat::Monitoring).udp(2055, {9995, 9996}),
    row(61, "IPFIX", cat::Monitoring).tcp(4739).udp(4739),
    row(62, "Whois", cat::Network).tcp(43),
};

}  // namespace

PELDA_DEFINE_FAMILY(network, kRows);

}  // namespace pelda
