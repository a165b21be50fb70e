// Authentication and directories: Kerberos, LDAP (and CLDAP), RADIUS.
#include "internal.h"

namespace pelda {

namespace {

verdict detect_kerberos(context &c) {
    const uint8_t *p = c.pkt->payload;
    uint32_t len = c.pkt->len, v;
    if (c.pkt->tcp) {  // record mark: 4-byte length
        if (len < 8 || rd32(p) > 65536) return verdict::no;
        p += 4;
        len -= 4;
    }
    if (len < 12) return verdict::no;
    uint8_t tag = p[0];
    if (tag != 0x6A && tag != 0x6B && tag != 0x6C && tag != 0x6D && tag != 0x6E && tag != 0x6F &&
        tag != 0x7E)
        return verdict::no;
    uint32_t n = ber_length(p + 1, len - 1, &v);
    if (!n) return verdict::no;
    uint32_t i = 1 + n;
    if (i >= len || p[i] != 0x30) return verdict::no;
    n = ber_length(p + i + 1, len - i - 1, &v);
    if (!n) return verdict::no;
    i += 1 + n;
    // The first element is pvno ([0] or [1] INTEGER 5).
    if (i + 5 <= len && (p[i] == 0xA0 || p[i] == 0xA1) && p[i + 1] == 3 && p[i + 2] == 2 &&
        p[i + 3] == 1 && p[i + 4] == 5)
        return verdict::yes;
    return verdict::no;
}

verdict detect_ldap(context &c) {
    const uint8_t *p = c.pkt->payload;
    uint32_t len = c.pkt->len, v;
    if (len < 7 || p[0] != 0x30) return verdict::no;
    uint32_t n = ber_length(p + 1, len - 1, &v);
    if (!n || v < 5) return verdict::no;
    uint32_t i = 1 + n;
    if (i + 2 > len || p[i] != 0x02 || p[i + 1] < 1 || p[i + 1] > 4) return verdict::no;
    i += 2 + p[i + 1];
    if (i >= len) return verdict::no;
    uint8_t op = p[i];
    bool ok = (op >= 0x60 && op <= 0x6E) || op == 0x73 || op == 0x77 || op == 0x78 || op == 0x42 ||
              op == 0x4A || op == 0x50;
    return ok ? verdict::yes : verdict::no;
}

verdict detect_radius(context &c) {
    const uint8_t *p = c.pkt->payload;
    uint32_t len = c.pkt->len;
    if (len < 20 || rd16(p + 2) != len) return verdict::no;
    uint8_t code = p[0];
    if (!((code >= 1 && code <= 5) || (code >= 11 && code <= 13) || (code >= 40 && code <= 45)))
        return verdict::no;
    for (uint32_t i = 20; i < len;) {  // attributes: type, length (>= 2), value
        if (i + 2 > len || p[i + 1] < 2 || i + p[i + 1] > len) return verdict::no;
        i += p[i + 1];
    }
    return verdict::yes;
}

constexpr protocol_def kRows[] = {
    row(25, "Kerberos", cat::Authentication).tcp(88).udp(88).dissector(kBoth, 310, detect_kerberos),
    row(26, "LDAP", cat::System).tcp(389).udp(389).dissector(kBoth, 320, detect_ldap),
    row(36, "RADIUS", cat::Authentication)
        .udp({1645, 1646}, 1700, {1812, 1813})
        .dissector(kUdp, 360, detect_radius),
};

}  // namespace

PELDA_DEFINE_FAMILY(auth, kRows);

}  // namespace pelda
