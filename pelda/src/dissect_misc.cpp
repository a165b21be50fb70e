// Line protocols (SSH, SMTP, POP3, IMAP, FTP, IRC), binary handshakes and UDP
// protocols recognised from a single message.
#include <cctype>

#include "internal.h"

namespace pelda {

namespace {

bool is_digit(uint8_t c) {
    return c >= '0' && c <= '9';
}

bool contains_nocase(const uint8_t *p, uint32_t len, const char *needle) {
    size_t n = std::strlen(needle);
    for (uint32_t i = 0; i + n <= len; ++i)
        if (starts_with_nocase(p + i, len - i, needle)) return true;
    return false;
}

// First payload of the other direction (as kept by the engine), or null.
const uint8_t *other_first(const context &c, uint32_t *len) {
    int o = c.pkt->dir ^ 1;
    *len = c.flow->first_payload_len[o];
    return *len ? c.flow->first_payload[o] : nullptr;
}

// "NNN " or "NNN-" reply line start with the given code (0: any).
bool reply_code(const uint8_t *p, uint32_t len, int code) {
    if (len < 4 || !is_digit(p[0]) || !is_digit(p[1]) || !is_digit(p[2])) return false;
    if (p[3] != ' ' && p[3] != '-' && p[3] != '\r') return false;
    return code == 0 || (p[0] - '0') * 100 + (p[1] - '0') * 10 + (p[2] - '0') == code;
}

bool ends_with_crlf_line(const uint8_t *p, uint32_t len) {
    return len >= 2 && line_length(p, len) < len;
}

bool printable_line(const uint8_t *p, uint32_t len) {
    uint32_t l = line_length(p, len);
    if (l == 0) return false;
    for (uint32_t i = 0; i < l; ++i)
        if (p[i] < 0x20 && p[i] != '\t') return false;
    return true;
}

// Length of a BER length field at p[0], value length in *v; 0 when malformed.
uint32_t ber_length(const uint8_t *p, uint32_t len, uint32_t *v) {
    if (len < 1) return 0;
    if (p[0] < 0x80) {
        *v = p[0];
        return 1;
    }
    uint32_t n = p[0] & 0x7F;
    if (n == 0 || n > 4 || len < 1 + n) return 0;
    uint32_t x = 0;
    for (uint32_t i = 1; i <= n; ++i)
        x = x << 8 | p[i];
    *v = x;
    return 1 + n;
}

}  // namespace

// ---- SSH
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

// ---- SMTP, FTP, POP3, IMAP: greeting from the server, commands from the client
namespace {

bool smtp_command(const uint8_t *p, uint32_t len) {
    return starts_with_nocase(p, len, "EHLO ") || starts_with_nocase(p, len, "HELO ");
}

bool ftp_command(const uint8_t *p, uint32_t len) {
    for (const char *cmd : {"USER ", "AUTH TLS", "AUTH SSL", "FEAT\r", "SYST\r", "OPTS "})
        if (starts_with_nocase(p, len, cmd)) return true;
    return false;
}

void remember_client_line(banner_state &b, const uint8_t *p, uint32_t len, const char *prefix) {
    size_t n = std::strlen(prefix);
    if (starts_with_nocase(p, len, prefix)) {
        uint32_t l = line_length(p, len);
        copy_text(b.client, sizeof(b.client), p + n, l > n ? l - n : 0);
    }
}

verdict greeting_protocol(context &c, bool want_smtp) {
    const packet_view &pv = *c.pkt;
    const uint8_t *p = pv.payload;
    uint32_t len = pv.len;
    uint32_t olen;
    const uint8_t *o = other_first(c, &olen);
    if (pv.dir == kServer) {
        if (!reply_code(p, len, 220)) return verdict::no;
        uint32_t l = line_length(p, len);
        bool smtp = contains_nocase(p, l, "SMTP") || contains_nocase(p, l, "mail");
        bool ftp = contains_nocase(p, l, "FTP");
        if (o) {  // the client spoke first (or the banner was missed)
            if (smtp_command(o, olen)) smtp = true;
            if (ftp_command(o, olen)) ftp = true;
        }
        if (smtp && !ftp) return want_smtp ? verdict::yes : verdict::no;
        if (ftp && !smtp) return want_smtp ? verdict::no : verdict::yes;
        return verdict::maybe;
    }
    if (o && !reply_code(o, olen, 220)) return verdict::no;
    if (want_smtp ? smtp_command(p, len) : ftp_command(p, len)) return verdict::yes;
    if (want_smtp ? ftp_command(p, len) : smtp_command(p, len)) return verdict::no;
    return o ? verdict::maybe : verdict::no;
}

// SMTP and FTP both open with a 220 greeting; once one is named, the banner state starts with the
// server's greeting line or the client's first command.
verdict detect_greeting(context &c, bool want_smtp, const char *client_command) {
    verdict v = greeting_protocol(c, want_smtp);
    if (v == verdict::yes) {
        std::memset(&c.flow->proto, 0, sizeof(c.flow->proto));
        const packet_view &pv = *c.pkt;
        if (pv.dir == kServer)
            copy_text(c.flow->proto.banner.server, sizeof(c.flow->proto.banner.server), pv.payload,
                      line_length(pv.payload, pv.len));
        else
            remember_client_line(c.flow->proto.banner, pv.payload, pv.len, client_command);
    }
    return v;
}

}  // namespace

verdict detect_smtp(context &c) {
    return detect_greeting(c, true, "EHLO ");
}

// The envelope comes within the first exchanges; after DATA, STARTTLS or QUIT
// nothing readable is left.
bool extract_smtp(context &c) {
    banner_state &b = c.flow->proto.banner;
    const packet_view &pv = *c.pkt;
    if (pv.len && pv.dir == kClient) {
        b.commands++;
        remember_client_line(b, pv.payload, pv.len, "EHLO ");
        remember_client_line(b, pv.payload, pv.len, "HELO ");
        for (const char *cmd : {"DATA", "STARTTLS", "QUIT", "BDAT"})
            if (starts_with_nocase(pv.payload, pv.len, cmd)) b.finished = 1;
        if (starts_with_nocase(pv.payload, pv.len, "STARTTLS")) b.tls_started = 1;
    }
    return b.finished;
}

verdict detect_ftp(context &c) {
    return detect_greeting(c, false, "USER ");
}

// The control channel announces data connections for the whole session, so it is
// followed until the client quits or the channel turns to TLS.
bool extract_ftp(context &c) {
    banner_state &b = c.flow->proto.banner;
    const packet_view &pv = *c.pkt;
    const uint8_t *p = pv.payload;
    uint32_t len = pv.len, l = line_length(p, len);
    if (!len) return b.finished;
    if (pv.dir == kClient) {
        b.commands++;
        remember_client_line(b, p, len, "USER ");
        if (starts_with_nocase(p, len, "QUIT")) b.finished = 1;
        if (starts_with_nocase(p, len, "PORT ")) {
            // PORT h1,h2,h3,h4,p1,p2
            uint32_t nums[6] = {}, k = 0;
            for (uint32_t i = 5; i < l && k < 6; ++i) {
                if (is_digit(p[i]))
                    nums[k] = nums[k] * 10 + uint32_t(p[i] - '0');
                else if (p[i] == ',')
                    ++k;
            }
            if (k == 5) b.data_port = uint16_t(nums[4] << 8 | nums[5]);
        }
    } else {
        if (reply_code(p, len, 227)) {  // Entering Passive Mode (h1,h2,h3,h4,p1,p2)
            uint32_t nums[6] = {}, k = 0;
            bool in = false;
            for (uint32_t i = 4; i < l && k < 6; ++i) {
                if (p[i] == '(')
                    in = true;
                else if (in && is_digit(p[i]))
                    nums[k] = nums[k] * 10 + uint32_t(p[i] - '0');
                else if (in && p[i] == ',')
                    ++k;
                else if (in && p[i] == ')')
                    break;
            }
            if (k == 5) b.data_port = uint16_t(nums[4] << 8 | nums[5]);
        } else if (reply_code(p, len, 229)) {  // Extended Passive Mode (|||port|)
            uint32_t port = 0;
            for (uint32_t i = 4; i < l; ++i)
                if (is_digit(p[i])) port = port * 10 + uint32_t(p[i] - '0');
            if (port && port < 65536) b.data_port = uint16_t(port);
        } else if (reply_code(p, len, 234) || reply_code(p, len, 221)) {
            b.finished = 1;
            b.tls_started = reply_code(p, len, 234);
        }
    }
    return b.finished;
}

verdict detect_pop3(context &c) {
    const packet_view &pv = *c.pkt;
    uint32_t olen;
    const uint8_t *o = other_first(c, &olen);
    if (pv.dir == kServer)
        return starts_with(pv.payload, pv.len, "+OK") && ends_with_crlf_line(pv.payload, pv.len)
                   ? verdict::yes
                   : verdict::no;
    if (o) return verdict::no;  // the server speaks first
    for (const char *cmd : {"CAPA\r\n", "STLS\r\n", "APOP ", "AUTH "})
        if (starts_with_nocase(pv.payload, pv.len, cmd)) return verdict::maybe;
    return verdict::no;
}

verdict detect_imap(context &c) {
    const packet_view &pv = *c.pkt;
    const uint8_t *p = pv.payload;
    uint32_t len = pv.len;
    if (pv.dir == kServer)
        return (starts_with_nocase(p, len, "* OK") || starts_with_nocase(p, len, "* PREAUTH")) &&
                       ends_with_crlf_line(p, len)
                   ? verdict::yes
                   : verdict::no;
    // A tag, a space and a command.
    uint32_t i = 0;
    while (i < len && i < 32 && std::isalnum(p[i]))
        ++i;
    if (i == 0 || i >= len || p[i] != ' ') return verdict::no;
    for (const char *cmd : {"CAPABILITY", "LOGIN ", "STARTTLS", "AUTHENTICATE ", "ID "})
        if (starts_with_nocase(p + i + 1, len - i - 1, cmd)) return verdict::yes;
    return verdict::no;
}

// ---- IRC
verdict detect_irc(context &c) {
    const packet_view &pv = *c.pkt;
    const uint8_t *p = pv.payload;
    uint32_t len = pv.len;
    if (!printable_line(p, len)) return verdict::no;
    if (pv.dir == kClient) {
        if (starts_with(p, len, "NICK ") || starts_with(p, len, "CAP LS") ||
            (starts_with(p, len, "PASS ") && contains_nocase(p, len, "\nNICK ")))
            return verdict::yes;
        return verdict::no;
    }
    // Server messages carry a prefix: ":server NOTICE ..." or ":server 001 ...".
    if (p[0] != ':') return starts_with(p, len, "NOTICE AUTH") ? verdict::yes : verdict::no;
    uint32_t sp = 0;
    while (sp < len && p[sp] != ' ')
        ++sp;
    if (sp + 4 > len) return verdict::no;
    if (starts_with(p + sp + 1, len - sp - 1, "NOTICE ")) return verdict::yes;
    if (sp + 5 <= len && is_digit(p[sp + 1]) && is_digit(p[sp + 2]) && is_digit(p[sp + 3]) &&
        p[sp + 4] == ' ')
        return verdict::yes;
    return verdict::no;
}

// ---- Telnet: option negotiation (IAC WILL/WONT/DO/DONT option)
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

// ---- VNC: the server announces "RFB 003.008\n"
verdict detect_vnc(context &c) {
    const uint8_t *p = c.pkt->payload;
    uint32_t len = c.pkt->len;
    if (len == 12 && starts_with(p, len, "RFB ") && is_digit(p[4]) && is_digit(p[6]) &&
        p[7] == '.' && is_digit(p[10]) && p[11] == '\n')
        return verdict::yes;
    return verdict::no;
}

// ---- SIP and SSDP: text requests and responses
verdict detect_sip(context &c) {
    const uint8_t *p = c.pkt->payload;
    uint32_t len = c.pkt->len, l = line_length(p, len);
    if (starts_with(p, len, "SIP/2.0 ") && len > 11) return verdict::yes;
    if (l < 16 || !starts_with(p + l - 8, 8, " SIP/2.0")) return verdict::no;
    for (const char *m :
         {"INVITE ", "REGISTER ", "OPTIONS ", "ACK ", "BYE ", "CANCEL ", "SUBSCRIBE ", "NOTIFY ",
          "MESSAGE ", "INFO ", "PRACK ", "UPDATE ", "REFER ", "PUBLISH "})
        if (starts_with(p, len, m)) return verdict::yes;
    return verdict::no;
}

verdict detect_ssdp(context &c) {
    const uint8_t *p = c.pkt->payload;
    uint32_t len = c.pkt->len;
    if (starts_with(p, len, "M-SEARCH * HTTP/1.1") || starts_with(p, len, "NOTIFY * HTTP/1.1"))
        return verdict::yes;
    if (either_port(*c.pkt, 1900) && starts_with(p, len, "HTTP/1.1 200")) return verdict::yes;
    return verdict::no;
}

// ---- Databases
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

// SMB over TCP: a session message header and the SMB1/SMB2/transform signature.
verdict detect_smb(context &c) {
    const uint8_t *p = c.pkt->payload;
    uint32_t len = c.pkt->len;
    if (len < 8 || p[0] != 0) return verdict::no;
    if ((p[4] == 0xFF || p[4] == 0xFE || p[4] == 0xFD) && p[5] == 'S' && p[6] == 'M' && p[7] == 'B')
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

// ---- BitTorrent: TCP handshake, DHT (bencoded) and UDP tracker connect
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

// ---- UDP protocols
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

verdict detect_stun(context &c) {
    const uint8_t *p = c.pkt->payload;
    uint32_t len = c.pkt->len;
    if (c.pkt->tcp && len >= 22 && rd16(p) + 2u == len) {  // framed over TCP
        p += 2;
        len -= 2;
    }
    if (len < 20 || (p[0] & 0xC0) || rd32(p + 4) != 0x2112A442) return verdict::no;
    uint32_t mlen = rd16(p + 2);
    return (mlen & 3) == 0 && mlen + 20 == len ? verdict::yes : verdict::no;
}

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

verdict detect_bgp(context &c) {
    const uint8_t *p = c.pkt->payload;
    uint32_t len = c.pkt->len;
    if (len < 19) return verdict::no;
    for (int i = 0; i < 16; ++i)
        if (p[i] != 0xFF) return verdict::no;
    uint32_t mlen = rd16(p + 16);
    return mlen >= 19 && mlen <= 65535 && p[18] >= 1 && p[18] <= 6 ? verdict::yes : verdict::no;
}

verdict detect_tftp(context &c) {
    const uint8_t *p = c.pkt->payload;
    uint32_t len = c.pkt->len;
    if (len < 4 || p[0] != 0 || (p[1] != 1 && p[1] != 2)) return verdict::no;
    uint32_t i = 2;
    while (i < len && p[i] && std::isprint(p[i]))
        ++i;
    if (i == 2 || i >= len || p[i]) return verdict::no;
    ++i;
    for (const char *mode : {"octet", "netascii", "mail"})
        if (starts_with_nocase(p + i, len - i, mode)) return verdict::yes;
    return verdict::no;
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

verdict detect_mqtt(context &c) {
    const uint8_t *p = c.pkt->payload;
    uint32_t len = c.pkt->len;
    if (len < 12 || p[0] != 0x10) return verdict::no;
    uint32_t i = 1;
    while (i < len && i < 5 && (p[i] & 0x80))
        ++i;
    ++i;
    if (i + 8 > len) return verdict::no;
    if (rd16(p + i) == 4 && std::memcmp(p + i + 2, "MQTT", 4) == 0) return verdict::yes;
    if (rd16(p + i) == 6 && i + 8 <= len && std::memcmp(p + i + 2, "MQIsdp", 6) == 0)
        return verdict::yes;
    return verdict::no;
}

verdict detect_zeromq(context &c) {
    const uint8_t *p = c.pkt->payload;
    uint32_t len = c.pkt->len;
    // Greeting signature: 0xFF, 8 padding bytes, 0x7F.
    return len >= 10 && p[0] == 0xFF && p[9] == 0x7F ? verdict::yes : verdict::no;
}

}  // namespace pelda
