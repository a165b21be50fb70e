// Databases: MySQL, PostgreSQL and Redis handshakes; the others by port.
#include "internal.h"

namespace pelda {

namespace {

verdict detect_redis(context &c) {
    const uint8_t *p = c.pkt->payload;
    uint32_t len = c.pkt->len;
    if (c.pkt->dir == kClient) {
        // RESP array of bulk strings: "*<n>\r\n$<len>\r\n"
        if (len >= 8 && p[0] == '*' && is_digit(p[1])) {
            uint32_t i = 1;
            while (i < len && is_digit(p[i]))
                ++i;
            if (i + 3 < len && p[i] == '\r' && p[i + 1] == '\n' && p[i + 2] == '$' &&
                is_digit(p[i + 3]))
                return verdict::yes;
        }
        for (const char *cmd : {"PING\r\n", "AUTH ", "INFO\r\n", "HELLO "})
            if (starts_with(p, len, cmd))
                return either_port(*c.pkt, 6379) ? verdict::yes : verdict::maybe;
        return verdict::no;
    }
    uint32_t olen;
    if (other_first(c, &olen) &&
        (starts_with(p, len, "+PONG\r\n") || starts_with(p, len, "+OK\r\n")))
        return verdict::yes;
    return verdict::no;
}

verdict detect_mysql(context &c) {
    const uint8_t *p = c.pkt->payload;
    uint32_t len = c.pkt->len;
    // Server greeting: 3-byte little-endian length, sequence 0, protocol 10, version text.
    if (c.pkt->dir != kServer || len < 40) return verdict::no;
    uint32_t plen = p[0] | p[1] << 8 | p[2] << 16;
    if (plen + 4 != len || p[3] != 0 || p[4] != 10 || !is_digit(p[5])) return verdict::no;
    for (uint32_t i = 5; i < len && i < 5 + 64; ++i)
        if (p[i] == 0) return verdict::yes;
    return verdict::no;
}

verdict detect_postgresql(context &c) {
    const uint8_t *p = c.pkt->payload;
    uint32_t len = c.pkt->len;
    if (c.pkt->dir != kClient || len < 8) return verdict::no;
    uint32_t mlen = rd32(p), code = rd32(p + 4);
    if (mlen == 8 && len == 8 && (code == 80877103 || code == 80877104)) return verdict::yes;
    if (code == 0x00030000 && mlen == len && mlen < 10000 && p[len - 1] == 0) return verdict::yes;
    if (code == 80877102 && mlen == 16 && len == 16) return verdict::yes;  // cancel request
    return verdict::no;
}

constexpr protocol_def kRows[] = {
    row(20, "MySQL", cat::Database).tcp(3306).dissector(kTcp, 130, detect_mysql),
    row(19, "PostgreSQL", cat::Database).tcp(5432).dissector(kTcp, 140, detect_postgresql),
    row(21, "Redis", cat::Database).tcp(6379).dissector(kTcp, 280, detect_redis),
    row(66, "MSSQL", cat::Database).tcp(1433).udp(1434),
    row(67, "MongoDB", cat::Database).tcp(27017),
    row(68, "Memcached", cat::Database).tcp(11211).udp(11211),
    row(84, "Cassandra", cat::Database).tcp(9042),
};

}  // namespace

PELDA_DEFINE_FAMILY(db, kRows);

}  // namespace pelda
