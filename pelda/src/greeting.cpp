// The 220 greeting SMTP and FTP share: which of the two a greeting (or the client's first
// command) belongs to, and the banner state that starts with it.
#include "internal.h"

namespace pelda {

namespace {

bool smtp_command(const uint8_t *p, uint32_t len) {
    return starts_with_nocase(p, len, "EHLO ") || starts_with_nocase(p, len, "HELO ");
}

bool ftp_command(const uint8_t *p, uint32_t len) {
    for (const char *cmd : {"USER ", "AUTH TLS", "AUTH SSL", "FEAT\r", "SYST\r", "OPTS "})
        if (starts_with_nocase(p, len, cmd)) return true;
    return false;
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

}  // namespace

void remember_client_line(banner_state &b, const uint8_t *p, uint32_t len, const char *prefix) {
    size_t n = std::strlen(prefix);
    if (starts_with_nocase(p, len, prefix)) {
        uint32_t l = line_length(p, len);
        copy_text(b.client, sizeof(b.client), p + n, l > n ? l - n : 0);
    }
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

}  // namespace pelda
