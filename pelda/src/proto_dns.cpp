// Name services: DNS over UDP and TCP (name, type, reply code; mDNS and LLMNR by port),
// NetBIOS, and DNS over TLS by port.
#include <cctype>

#include "internal.h"

namespace pelda {

namespace {

constexpr uint16_t kMdns = 8, kLlmnr = 65;  // DNS on their ports

struct dns_message {
    uint16_t id;
    uint16_t flags;
    uint16_t qdcount, ancount, nscount, arcount;
    char name[256];
    uint32_t name_len;
    uint16_t qtype;
    uint16_t qclass;
};

// Reads a (possibly compressed) name at *pos into out (dotted, at most 253 bytes).
bool read_name(const uint8_t *m, uint32_t len, uint32_t *pos, char *out, uint32_t *out_len) {
    uint32_t p = *pos, n = 0, jumps = 0;
    bool jumped = false;
    for (;;) {
        if (p >= len) return false;
        uint8_t l = m[p];
        if (l == 0) {
            if (!jumped) *pos = p + 1;
            break;
        }
        if ((l & 0xC0) == 0xC0) {
            if (p + 1 >= len || ++jumps > 16) return false;
            uint32_t target = uint32_t(l & 0x3F) << 8 | m[p + 1];
            if (!jumped) *pos = p + 2;
            jumped = true;
            if (target >= len) return false;
            p = target;
            continue;
        }
        if (l & 0xC0) return false;
        if (p + 1 + l > len || n + l + 1 > 253) return false;
        if (n) out[n++] = '.';
        for (uint32_t i = 0; i < l; ++i) {
            uint8_t ch = m[p + 1 + i];
            if (ch < 0x20 || ch >= 0x7F) return false;
            out[n++] = char(std::tolower(ch));
        }
        p += 1 + l;
    }
    out[n] = '\0';
    *out_len = n;
    return true;
}

bool parse_dns(const uint8_t *m, uint32_t len, dns_message *d) {
    if (len < 12) return false;
    d->id = rd16(m);
    d->flags = rd16(m + 2);
    d->qdcount = rd16(m + 4);
    d->ancount = rd16(m + 6);
    d->nscount = rd16(m + 8);
    d->arcount = rd16(m + 10);
    uint8_t opcode = (d->flags >> 11) & 15;
    if (opcode > 6 || opcode == 3) return false;
    if ((d->flags & 0x0040) && !(d->flags & 0x8000)) return false;  // Z bit in a query
    if (d->qdcount == 0) {
        // Only a response may come without a question (some servers answer errors so).
        if (!(d->flags & 0x8000) || d->ancount > 0) return false;
        d->name[0] = '\0';
        d->name_len = 0;
        d->qtype = 0;
        d->qclass = 0;
        return true;
    }
    if (d->qdcount > 16 || d->ancount > 512 || d->nscount > 512 || d->arcount > 512) return false;
    uint32_t pos = 12;
    if (!read_name(m, len, &pos, d->name, &d->name_len)) return false;
    if (pos + 4 > len) return false;
    d->qtype = rd16(m + pos);
    d->qclass = rd16(m + pos + 2);
    uint16_t cls = d->qclass & 0x7FFF;  // mDNS uses the top bit for unicast responses
    return d->qtype != 0 && (cls == 1 || cls == 3 || cls == 4 || cls == 254 || cls == 255);
}

// The DNS message of this packet: UDP datagram or TCP message behind its 2-byte
// length (`raw`: the length came in a segment of its own).
bool dns_payload(const packet_view &pv, const uint8_t **m, uint32_t *len, bool raw = false) {
    if (!pv.tcp || raw) {
        *m = pv.payload;
        *len = pv.len;
        return true;
    }
    if (pv.len < 14) return false;
    uint32_t mlen = rd16(pv.payload);
    if (mlen < 12) return false;
    *m = pv.payload + 2;
    *len = mlen < pv.len - 2 ? mlen : pv.len - 2;
    return true;
}

void store(pelda_flow *f, const dns_message &d) {
    dns_state &s = f->proto.dns;
    if (!f->server_name && d.name_len) set_string(&f->server_name, d.name, d.name_len, false);
    if (d.qtype && !f->dns_query_type) f->dns_query_type = d.qtype;
    if (d.flags & 0x8000) {
        f->dns_reply_code = uint8_t(d.flags & 15);
        s.response_seen = 1;
        s.answers = d.ancount;
    } else {
        s.query_seen = 1;
        s.id = d.id;
    }
}

verdict detect_dns(context &c) {
    const packet_view &pv = *c.pkt;
    const uint8_t *m;
    uint32_t len;
    dns_message d;
    pelda_flow *f = c.flow;
    // Some resolvers send the TCP length prefix in a segment of its own.
    if (pv.tcp && pv.len == 2 && f->payload_packets[pv.dir] == 1) return verdict::maybe;
    bool raw = pv.tcp && f->first_payload_full_len[pv.dir] == 2 && f->payload_packets[pv.dir] == 2;
    if (!dns_payload(pv, &m, &len, raw) || !parse_dns(m, len, &d)) return verdict::no;
    if (!(d.flags & 0x8000) && pv.dir == kServer && c.flow->payload_packets[kClient] == 0 &&
        d.qdcount == 0)
        return verdict::no;
    std::memset(&c.flow->proto, 0, sizeof(c.flow->proto));
    store(c.flow, d);
    if (either_port(pv, 5353))
        c.detected = kMdns;
    else if (either_port(pv, 5355))
        c.detected = kLlmnr;
    return verdict::yes;
}

bool extract_dns(context &c) {
    pelda_flow *f = c.flow;
    const packet_view &pv = *c.pkt;
    if (pv.len) {
        const uint8_t *m;
        uint32_t len;
        dns_message d;
        bool ok = dns_payload(pv, &m, &len) && parse_dns(m, len, &d);
        if (!ok && pv.tcp) ok = dns_payload(pv, &m, &len, true) && parse_dns(m, len, &d);
        if (ok && (d.flags & 0x8000)) store(f, d);
    }
    return f->proto.dns.response_seen;
}

// NetBIOS name service (DNS-like, encoded names), datagram service and session requests.
verdict detect_netbios(context &c) {
    const packet_view &pv = *c.pkt;
    const uint8_t *p = pv.payload;
    uint32_t len = pv.len;
    if (!pv.tcp) {
        // Name service: header, then a 32-byte first-level encoded name (letters A-P).
        if (len >= 50 && p[12] == 32) {
            uint16_t qd = rd16(p + 4), an = rd16(p + 6);
            if (qd + an == 0 || qd > 1 || an > 1) return verdict::no;
            for (int i = 0; i < 32; ++i)
                if (p[13 + i] < 'A' || p[13 + i] > 'P') return verdict::no;
            return verdict::yes;
        }
        // Datagram service: message type 0x10-0x16 and the sender's port 138.
        if (len >= 14 && p[0] >= 0x10 && p[0] <= 0x16 && rd16(p + 8) == 138) return verdict::yes;
        return verdict::no;
    }
    // Session service: session request (0x81) with two encoded names of 32 letters.
    if (len >= 72 && p[0] == 0x81 && p[4] == 32 && rd16(p + 2) + 4u == len) return verdict::yes;
    if (len >= 4 && (p[0] == 0x82 || p[0] == 0x83 || p[0] == 0x85) && p[1] == 0 &&
        rd16(p + 2) + 4u == len && either_port(pv, 139))
        return verdict::yes;
    return verdict::no;
}

constexpr protocol_def kRows[] = {
    row(PELDA_PROTOCOL_DNS, "DNS", cat::Network)
        .tcp(53)
        .udp(53)
        .dissector(kBoth, 220, detect_dns, extract_dns)
        .carrier(),
    row(kMdns, "MDNS", cat::Network).udp(5353).carrier(),
    row(kLlmnr, "LLMNR", cat::Network).udp(5355),
    row(10, "NetBIOS", cat::System).tcp(139).udp({137, 138}).dissector(kBoth, 160, detect_netbios),
    row(93, "DNS_over_TLS", cat::Network).tcp(853),
};

}  // namespace

PELDA_DEFINE_FAMILY(dns, kRows);

}  // namespace pelda
