// Detection driven by packet bytes: one row per protocol case, and truncated packets.
#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <string>

#include "support.h"

namespace {

using pt::bytes;

bytes slice(const bytes &b, size_t from, size_t to) {
    return bytes(b.begin() + long(std::min(from, b.size())),
                 b.begin() + long(std::min(to, b.size())));
}

// "expected | packets | messages": the flows' pt::summary joined by " / ", with "@N" (the
// deciding packet) if the row shows one. Packets: "tcp|udp PORT [v6] [noguess] [synack]", client
// to server PORT (TCP after a handshake, or after only the server's SYN-ACK); "pcap
// FILE [noextra] [split N]" (no extra dissection; TCP payloads re-cut into N-byte segments, fed
// past the callers' 12-packet limit); "corpus FILE", skipped when absent, of which one flow is
// expected. Messages: C or S and parts: 'text' (\r \n \0), <hex>, *N (zeros up to N bytes),
// xN (N times).
const char *const kCases = R"(
HTTP sn=www.example.test url=http://www.example.test/docs/index.html?q=1 hc=200 @6 / HTTP sn=127.0.0.1 url=http://127.0.0.1/missing hc=404 @6 | pcap http.pcap
HTTP sn=www.example.test url=http://www.example.test/docs/index.html?q=1 @4 / HTTP sn=127.0.0.1 url=http://127.0.0.1/missing @4 | pcap http.pcap noextra
TLS sn=www.example.test sha1=ccdea7530e9be420a76a4a01c8c3e327cc6b16d9 @6 | pcap tls12.pcap
TLS sn=www.example.test @231 | pcap tls12.pcap noextra split 1
TLS sn=www.example.test sha1=ccdea7530e9be420a76a4a01c8c3e327cc6b16d9 @1118 | pcap tls12.pcap split 1
TLS sn=www.example.test @5 | pcap tls12.pcap noextra split 227
TLS sn=www.example.test sha1=ccdea7530e9be420a76a4a01c8c3e327cc6b16d9 @228 | pcap tls12.pcap split 5
TLS sn=www.example.test sha1=ccdea7530e9be420a76a4a01c8c3e327cc6b16d9 @16 | pcap tls12.pcap split 100
TLS sn=www.example.test sha1=ccdea7530e9be420a76a4a01c8c3e327cc6b16d9 @6 | pcap tls12.pcap split 1000
TLS sn=tls13.example.test @6 | pcap tls13.pcap
DNS sn=www.tcpdump.org dq=1 dr=0 | corpus dns_udp.pcap
QUIC sn=clientservices.googleapis.com | corpus gquic.pcap
RADIUS | corpus RADIUS.pcap
IKE | corpus isakmp4500.pcap
TFTP | corpus tftp.pcap
SSDP | corpus eapon1.pcap
HTTP sn=proxy.example url=http://proxy.example:3128/a/b | tcp 40001 | C'GET http://proxy.example:3128/a/b HTTP/1.1\r\nUser-Agent: x\r\n\r\n'
HTTP sn=secure.example url=http://secure.example:443 | tcp 40001 | C'CONNECT secure.example:443 HTTP/1.1\r\n\r\n'
HTTP sn=2001:db8::1 url=http://2001:db8::1/form | tcp 40001 | C'POST /form HTTP/1.0\r\nhost:  [2001:db8::1]:8080 \r\n\r\n'
HTTP sn=a.example url=http://a.example/ hc=200 @3 | tcp 40001 synack | C'GET / HTTP/1.1\r\nHost: a.example\r\n\r\n' S'HTTP/1.1 200 OK\r\n\r\n'
HTTP url=http:/// | tcp 40001 | C'GET / HTTP/1.1\r\nAccept: */*\r\n\r\n'
DNS sn=www.example.com dq=28 dr=3 @2 | udp 8053 v6 | C<abcd 0100 0001 0000 0000 0000 03777777 076578616d706c65 03636f6d 00 001c 0001> S<abcd 8183 0001 0000 0000 0000 03777777 076578616d706c65 03636f6d 00 001c 0001>
DNS sn=www.example.com dq=28 dr=3 @5 | tcp 8053 v6 | C<0021><abcd 0100 0001 0000 0000 0000 03777777 076578616d706c65 03636f6d 00 001c 0001> S<0021><abcd 8183 0001 0000 0000 0000 03777777 076578616d706c65 03636f6d 00 001c 0001>
DNS sn=www.example.com dq=28 dr=3 @7 | tcp 53 v6 | C<0021> C<abcd 0100 0001 0000 0000 0000 03777777 076578616d706c65 03636f6d 00 001c 0001> S<0021> S<abcd 8183 0001 0000 0000 0000 03777777 076578616d706c65 03636f6d 00 001c 0001>
DNS sn=www.example.com dq=28 dr=0 | udp 53 | C<abcd 0100 0001 0000 0000 0000 03777777 c016 001c 0001 076578616d706c65 03636f6d 00>
MDNS sn=_http._tcp.local dq=12 dr=0 @1 | udp 5353 | C<0000 0000 0001 0000 0000 0000 055f68747470 045f746370 056c6f63616c 00 000c 0001>
Unknown | udp 40001 | C<abcd 0100 0000 0000 0000 0000>
Unknown | udp 40001 | C<abcd 0100 0001 0000 0000 0000 03 777777>
Unknown | udp 40001 | C<abcd 0100 0001 0000 0000 0000 c0 0c 0001 0001>
Unknown | udp 40001 | C<abcd 0100 0001 0000 0000 0000 03 77 0a 77 00 0001 0001>
Unknown | udp 40001 | C<abcd 7900 0001 0000 0000 0000 01 61 00 0001 0001>
Unknown | udp 40001 | C<abcd 0100 0001 0000 0000 0000 01 61 00 0001 0009>
SSH @5 | tcp 40001 | C'SSH-2.0-OpenSSH_9.2p1 Debian-2\r\n' S'SSH-2.0-x\r\n'
SMTP @7 | tcp 40001 | S'220 welcome\r\n' C'EHLO client.example\r\n' S'250 STARTTLS\r\n' C'STARTTLS\r\n' S'220 go\r\n'
FTP_CONTROL @9 | tcp 40001 | S'220 welcome\r\n' C'USER bob\r\n' S'331 password\r\n' C'PASV\r\n' S'227 Entering Passive Mode (10,0,0,2,195,80)\r\n' C'QUIT\r\n' S'221 bye\r\n'
IMAP | tcp 40001 | S'* OK [CAPABILITY IMAP4rev1 STARTTLS] ready\r\n'
Telnet | tcp 40001 | S<fffd18 fffd20 fffd23 fffd27>
VNC | tcp 40001 | S'RFB 003.008\n'
MySQL | tcp 40001 | S<4a000000 0a>'8.0.36\0'<0a000000 3132333435363738 00 ffff ff 0200 ffdf 15>*43<31323334353637383930313200>'mysql_native_password\0'
PostgreSQL | tcp 40001 | C<0000001d 00030000>'user\0bob\0database\0x\0\0'
SMB | tcp 40001 | C<00000045 fe534d42 40000000 00000000 00000000>
RDP | tcp 40001 | C<0300002b 26e00000000000>'Cookie: mstshash=alice\r\n'<01 00 0800 03000000>
BitTorrent | tcp 40001 | C<13>'BitTorrent protocol'*68
BGP | tcp 40001 | C<ffffffffffffffffffffffffffffffff 001d 01 04 fde8 00b4 01020304 00>
MQTT | tcp 40001 | C<10 10 0004 4d515454 04 02 003c 0004 74657374>
SIP | udp 40001 | C'OPTIONS sip:bob@example.com SIP/2.0\r\nVia: SIP/2.0/UDP h\r\n\r\n'
STUN | udp 40001 | C<0001 0000 2112a442 0102030405060708090a0b0c>
QUIC | udp 40001 | C<c3 00000001 08 0102030405060708 00 00 4496>*1200
WireGuard | udp 40001 | C<01000000 11223344>*148
OpenVPN | udp 40001 | C<38 1122334455667788 00 00000000> S<40 8877665544332211 01 00000000 1122334455667788 00000000>
NTP | udp 40001 | C<23>*48
DHCP | udp 40001 | C<010106>*236<63825363 350101ff>*300
SNMP | udp 40001 | C<3018 020101 0406 7075626c6963 a00b 020101 020100 020100 3000>
Kerberos | tcp 40001 | C<00000012 6a10 300e a103020105 a20302010a a3023000>
LDAP | tcp 40001 | C<300c 020101 6007 020103 0400 8000>
Syslog | udp 40001 | C'<34>Oct 11 22:14:15 mymachine su: su root failed'
NetBIOS | udp 40001 | C<8001 0110 0001 0000 0000 0000 20>'FHFAEBEECACACACACACACACACACACAAA'<00 0020 0001>
TLS.IMAPS guessed @13 | tcp 993 | C<1703030004 01020304>x8 S<1703030002 aabb>x8
MySQL guessed @13 | tcp 3306 | C'opaque bytes'x12
Unknown guessed @13 | tcp 3306 noguess | C'opaque bytes'x12
Unknown | tcp 40001 | C'SSH-3.0-future\r\n'
Unknown | tcp 40001 | C'GETX / HTTP/1.1\r\n\r\n'
Unknown | tcp 40001 | C'RFB 003.008'
Unknown | tcp 40001 | C<16 03 05 00 10 01>
Unknown | udp 40001 | C<0001 0004 2112a442 0102030405060708090a0b0c>
Unknown | udp 40001 | C<01000000>*147
Unknown | udp 40001 | C'<999>too high a priority'
Unknown | udp 40001 | C<23 11>*48
Unknown | udp 40001 | C<3018 020109 0406 7075626c6963 a00b 020101 020100 020100 3000>
)";

// The packets of a row.
std::vector<pt::packet> packets_of(const std::string &head, const std::string &m, bool *guess) {
    std::istringstream words(head);
    std::string l4, where, flag;  // where: a port or a capture
    words >> l4 >> where;
    std::vector<pt::packet> pk;
    if (l4 == "pcap" || l4 == "corpus")
        pt::read_capture(
            (l4 == "pcap" ? PELDA_TEST_DATA_DIR "/" : PELDA_CORPUS_DIR "/tcpdump/") + where, &pk);
    bool v6 = false;
    size_t split = 0;
    while (words >> flag) {
        v6 |= flag == "v6", *guess &= flag != "noguess";
        if (flag == "split") words >> split;
    }
    // split N: each TCP payload of the capture re-cut into N-byte segments (IPv4, no options).
    std::vector<pt::packet> cut;
    for (const pt::packet &p : split ? pk : cut) {
        size_t off = 20 + size_t(p.ip[32] >> 4) * 4;
        for (size_t i = off; i == off || i < p.ip.size(); i += split) {
            bytes seg = slice(p.ip, 0, off), part = slice(p.ip, i, i + split);
            seg.insert(seg.end(), part.begin(), part.end());
            seg[2] = uint8_t(seg.size() >> 8), seg[3] = uint8_t(seg.size());
            for (size_t k = 27, add = i - off; add; --k, add >>= 8)  // sequence number += i - off
                add += seg[k], seg[k] = uint8_t(add);
            cut.push_back({seg, p.time_ms});
        }
    }
    if (split) pk.swap(cut);
    pt::conversation t{{v6 ? "2001:db8::1" : "10.1.1.1", 40000},
                       {v6 ? "2001:db8::2" : "10.2.2.2", uint16_t(std::atoi(where.c_str()))}};
    t.udp = l4 == "udp";
    if (l4 == "tcp" && head.find(" synack") != std::string::npos)
        t.packets.push_back({pt::tcp(t.s, t.c, t.sseq - 1, 0x12)});
    else if (l4 == "tcp")
        t.handshake();
    for (size_t i = 0; i < m.size(); ++i) {
        if (m[i] == ' ') continue;
        bool from_client = m[i++] == 'C';
        bytes b;
        size_t times = 1;
        for (char kind; i < m.size() && (kind = m[i]) != ' '; ++i) {
            if (kind == '\'') {  // 'text'
                for (++i; m[i] != '\''; ++i) {
                    bool esc = m[i] == '\\' && ++i;
                    b.push_back(uint8_t(!esc ? m[i] : m[i] == 'r' ? '\r' : m[i] == 'n' ? '\n' : 0));
                }
                continue;
            }
            // <hex>, *size, xtimes
            size_t end = kind == '<' ? m.find('>', i) + 1
                                     : std::min(m.find_first_of(" '<*x", i + 1), m.size());
            std::string word = m.substr(i + 1, end - i - 1);
            bytes h = kind == '<' ? pt::hex(word) : bytes();
            b.insert(b.end(), h.begin(), h.end());
            if (kind == '*') b.resize(std::stoul(word));
            if (kind == 'x') times = std::stoul(word);
            i = end - 1;
        }
        for (size_t k = 0; k < times; ++k)
            t.sends(from_client, b);
    }
    return l4 == "tcp" || l4 == "udp" ? t.packets : pk;
}

TEST(Detect, CaseTable) {
    const bool have_corpus = std::filesystem::is_directory(PELDA_CORPUS_DIR "/tcpdump");
    std::istringstream lines(kCases);
    int rows = 0;
    for (std::string line; std::getline(lines, line); rows += !line.empty()) {
        size_t bar1 = line.find(" | "), bar2 = std::min(line.find(" | ", bar1 + 3), line.size());
        if (line.empty()) continue;
        std::string expect = line.substr(0, bar1), head = line.substr(bar1 + 3, bar2 - bar1 - 3);
        bool guess = true, corpus = head.rfind("corpus", 0) == 0;
        const bool skipped = corpus && !have_corpus;  // not when a capture of it reads empty
        auto pk = packets_of(head, bar2 < line.size() ? line.substr(bar2 + 3) : "", &guess);
        EXPECT_TRUE(!pk.empty() || skipped) << line;
        pt::owned_module m(guess);
        std::string got;
        bool extra = head.find("noextra") == std::string::npos,
             split = head.find(" split ") != std::string::npos;
        for (const auto &f : pt::drive(m, pk, extra, split ? 10000 : 12)) {
            std::string decided = " @" + std::to_string(f.packet_decided);
            if (corpus && !f.guessed && (f.summary + " ").rfind(expect + " ", 0) == 0) got = expect;
            if (!corpus) got += (got.empty() ? "" : " / ") + f.summary;
            if (!corpus && expect.find(" @") != std::string::npos) got += decided;
        }
        EXPECT_TRUE(got == expect || skipped) << line << "\n  got: " << got;
    }
    EXPECT_EQ(rows, 69);
}

TEST(Flow, NullAndTruncatedInputsAreHarmless) {
    pt::owned_module m;
    auto flow = pt::new_flow();
    EXPECT_EQ(pelda_detection_process_packet(nullptr, flow.get(), nullptr, 0, 0, nullptr).state +
                  pelda_detection_process_packet(m, nullptr, nullptr, 0, 0, nullptr).state +
                  pelda_detection_giveup(m, nullptr).app_protocol,
              0u);
    bytes good = pt::tcp({"10.0.0.1", 1}, {"10.0.0.2", 2}, 1, 0x18, pt::text("SSH-2.0-x\r\n"));
    for (uint32_t cut = 0; cut < 40 + 8; ++cut)  // up to a payload that still reads "SSH-2.0-"
        EXPECT_EQ(pelda_detection_process_packet(m, pt::new_flow().get(),
                                                 slice(good, 0, cut).data(), cut, 0, nullptr)
                      .app_protocol,
                  0)
            << cut;
}

}  // namespace
