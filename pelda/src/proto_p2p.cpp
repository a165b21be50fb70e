// Peer to peer: BitTorrent (TCP handshake, DHT, UDP tracker); Bitcoin by port.
#include "internal.h"

namespace pelda {

namespace {

verdict detect_bittorrent(context &c) {
    const uint8_t *p = c.pkt->payload;
    uint32_t len = c.pkt->len;
    if (len >= 20 && p[0] == 19 && std::memcmp(p + 1, "BitTorrent protocol", 19) == 0)
        return verdict::yes;
    if (c.pkt->tcp) return verdict::no;
    if (starts_with(p, len, "d1:ad2:id20:") || starts_with(p, len, "d1:rd2:id20:") ||
        starts_with(p, len, "d1:eli"))
        return verdict::yes;
    if (len == 16 && rd32(p) == 0x417 && rd32(p + 4) == 0x27101980 && rd32(p + 8) == 0)
        return verdict::yes;
    return verdict::no;
}

constexpr protocol_def kRows[] = {
    row(24, "BitTorrent", cat::Download)
        .tcp({6881, 6889})
        .udp({6881, 6889})
        .dissector(kBoth, 80, detect_bittorrent),
    row(87, "Bitcoin", cat::Mining).tcp(8333),
};

}  // namespace

PELDA_DEFINE_FAMILY(p2p, kRows);

}  // namespace pelda
