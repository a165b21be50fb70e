// Mail and news: SMTP (envelope until DATA, STARTTLS or QUIT), POP3, IMAP; their TLS ports.
#include <cctype>

#include "internal.h"

namespace pelda {

namespace {

bool ends_with_crlf_line(const uint8_t *p, uint32_t len) {
    return len >= 2 && line_length(p, len) < len;
}

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

constexpr protocol_def kRows[] = {
    row(3, "SMTP", cat::Email).tcp(25, 587).dissector(kTcp, 230, detect_smtp, extract_smtp),
    row(2, "POP3", cat::Email).tcp(110).dissector(kTcp, 250, detect_pop3),
    row(4, "IMAP", cat::Email).tcp(143).dissector(kTcp, 260, detect_imap),
    row(89, "SMTPS", cat::Email).tcp(465),
    row(90, "IMAPS", cat::Email).tcp(993),
    row(92, "POP3S", cat::Email).tcp(995),
    row(78, "NNTP", cat::News).tcp(119),
};

}  // namespace

PELDA_DEFINE_FAMILY(mail, kRows);

}  // namespace pelda
