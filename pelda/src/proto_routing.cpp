// Routing: BGP messages; the others by port or IP protocol.
#include "internal.h"

namespace pelda {

namespace {

verdict detect_bgp(context &c) {
    const uint8_t *p = c.pkt->payload;
    uint32_t len = c.pkt->len;
    if (len < 19) return verdict::no;
    for (int i = 0; i < 16; ++i)
        if (p[i] != 0xFF) return verdict::no;
    uint32_t mlen = rd16(p + 16);
    return mlen >= 19 && mlen <= 65535 && p[18] >= 1 && p[18] <= 6 ? verdict::yes : verdict::no;
}

constexpr protocol_def kRows[] = {
    row(13, "BGP", cat::Routing).tcp(179).dissector(kTcp, 120, detect_bgp),
    row(43, "OSPF", cat::Routing).ip(89),
    row(51, "RIP", cat::Routing).udp({520, 521}),
    row(52, "Babel", cat::Routing).udp(6696),
    row(54, "LDP", cat::Routing).tcp(646).udp(646),
    row(55, "RPKI_RTR", cat::Routing).tcp(323),
    row(46, "PIM", cat::Routing).ip(103),
    row(94, "EIGRP", cat::Routing).ip(88),
    row(103, "AODV", cat::Routing).udp(654),
    row(104, "OLSR", cat::Routing).udp(698),
};

}  // namespace

PELDA_DEFINE_FAMILY(routing, kRows);

}  // namespace pelda
