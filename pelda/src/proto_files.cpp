// File transfer, sharing and printing: FTP control channel (data ports until QUIT or TLS),
// TFTP, SMB; the others by port.
#include <cctype>

#include "internal.h"

namespace pelda {

namespace {

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

// SMB over TCP: a session message header and the SMB1/SMB2/transform signature.
verdict detect_smb(context &c) {
    const uint8_t *p = c.pkt->payload;
    uint32_t len = c.pkt->len;
    if (len < 8 || p[0] != 0) return verdict::no;
    if ((p[4] == 0xFF || p[4] == 0xFE || p[4] == 0xFD) && p[5] == 'S' && p[6] == 'M' && p[7] == 'B')
        return verdict::yes;
    return verdict::no;
}

constexpr protocol_def kRows[] = {
    row(77, "FTP_CONTROL", cat::DataTransfer).tcp(21).dissector(kTcp, 240, detect_ftp, extract_ftp),
    row(1, "FTP_DATA", cat::DataTransfer).tcp(20),
    row(35, "TFTP", cat::DataTransfer).udp(69).dissector(kUdp, 350, detect_tftp),
    row(16, "SMB", cat::System).tcp(445).dissector(kTcp, 150, detect_smb),
    row(11, "NFS", cat::DataTransfer).tcp(2049).udp(2049),
    row(63, "AFS", cat::DataTransfer).udp({7000, 7009}),
    row(81, "Rsync", cat::DataTransfer).tcp(873),
    row(83, "Git", cat::Collaborative).tcp(9418),
    row(6, "IPP", cat::System).tcp(631),
    row(82, "LPD", cat::System).tcp(515),
};

}  // namespace

PELDA_DEFINE_FAMILY(files, kRows);

}  // namespace pelda
