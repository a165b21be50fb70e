// Detection driven by packet bytes: one table row per protocol case (payloads on ports that
// are not the protocol's own, and the metadata callers read), captures made with real
// clients and servers, handshakes split, retransmitted and cut, direction, give-up, guessing.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "flow.h"
#include "support.h"

namespace {

using pt::bytes;
using pt::hex;
using pt::text;

constexpr bool C = true, S = false;  // sent by the client, by the server

bytes padded(bytes b, size_t n) {
    b.resize(n, 0);
    return b;
}

bytes join(const std::vector<bytes> &parts) {
    bytes out;
    for (const bytes &p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

bytes slice(const bytes &b, size_t from, size_t to) {
    return bytes(b.begin() + long(std::min(from, b.size())),
                 b.begin() + long(std::min(to, b.size())));
}

pt::drive_options extra() {
    pt::drive_options o;
    o.extra_dissection = true;
    return o;
}

struct detect_case {
    const char *expect;  // pt::summary after extra dissection
    bool tcp;
    std::vector<std::pair<bool, bytes>> exchange;
    uint16_t server_port = 40001;
    bool v6 = false;
};

std::vector<pt::packet> packets_of(const detect_case &c) {
    pt::endpoint cl{c.v6 ? "2001:db8::1" : "10.1.1.1", 40000};
    pt::endpoint sv{c.v6 ? "2001:db8::2" : "10.2.2.2", c.server_port};
    pt::conversation t(cl, sv);
    if (c.tcp) t.handshake();
    for (const auto &[from_client, payload] : c.exchange) {
        if (c.tcp) {
            from_client ? t.client_sends(payload) : t.server_sends(payload);
        } else {
            bytes ip = from_client ? pt::udp(cl, sv, payload) : pt::udp(sv, cl, payload);
            t.packets.push_back({ip, t.packets.size() + 1});
        }
    }
    return t.packets;
}

TEST(Detect, OneRowPerCase) {
    const bytes query =
        hex("abcd 0100 0001 0000 0000 0000 03 777777 07 6578616d706c65 03 636f6d 00 001c 0001");
    bytes reply = query;
    reply[2] = 0x81, reply[3] = 0x83;  // response, NXDOMAIN
    const bytes q2 = join({{0, uint8_t(query.size())}, query});
    const bytes r2 = join({{0, uint8_t(reply.size())}, reply});
    const char *dns = "DNS sn=www.example.com dq=28 dr=3";
    const bytes mysql = join({hex("4a000000 0a"),
                              text("8.0.36"),
                              hex("00 0a000000 3132333435363738 00 ffff ff 0200 ffdf 15"
                                  "00000000000000000000 31323334353637383930313200"),
                              text("mysql_native_password"),
                              {0}});
    const bytes rdp = join({hex("0300002b 26e00000000000"), text("Cookie: mstshash=alice\r\n"),
                            hex("01 00 0800 03000000")});
    bytes dhcp(300, 0);
    dhcp[0] = dhcp[1] = 1, dhcp[2] = 6;
    std::copy_n(hex("63825363 350101ff").begin(), 8, dhcp.begin() + 236);
    const detect_case cases[] = {
        // HTTP request forms: host and URL.
        {"HTTP sn=proxy.example url=http://proxy.example:3128/a/b",
         true,
         {{C, text("GET http://proxy.example:3128/a/b HTTP/1.1\r\nUser-Agent: x\r\n\r\n")}}},
        {"HTTP sn=secure.example url=http://secure.example:443",
         true,
         {{C, text("CONNECT secure.example:443 HTTP/1.1\r\n\r\n")}}},
        {"HTTP sn=2001:db8::1 url=http://2001:db8::1/form",
         true,
         {{C,
           text(
               "POST /form HTTP/1.0\r\nhost:  [2001:db8::1]:8080 \r\nContent-Length: 0\r\n\r\n")}}},
        {"HTTP url=http:///", true, {{C, text("GET / HTTP/1.1\r\nAccept: */*\r\n\r\n")}}},
        {"HTTP sn=h.example url=http://h.example/x hc=404",
         true,
         {{C, text("HEAD /x HTTP/1.1\r\nHost: h.example\r\n")},
          {S, text("HTTP/1.1 404 No\r\n\r\n")}}},
        // DNS over UDP and TCP (the length in a segment of its own too), on its port and off it.
        {dns, false, {{C, query}, {S, reply}}, 53, true},
        {dns, false, {{C, query}, {S, reply}}, 8053, true},
        {dns, true, {{C, q2}, {S, r2}}, 53, true},
        {dns, true, {{C, q2}, {S, r2}}, 8053, true},
        {dns, true, {{C, slice(q2, 0, 2)}, {C, query}, {S, slice(r2, 0, 2)}, {S, reply}}, 53, true},
        {dns,
         true,
         {{C, slice(q2, 0, 2)}, {C, query}, {S, slice(r2, 0, 2)}, {S, reply}},
         8053,
         true},
        {"MDNS sn=_http._tcp.local dq=12 dr=0",
         false,
         {{C, hex("0000 0000 0001 0000 0000 0000 05 5f68747470 04 5f746370 05 6c6f63616c 00 000c "
                  "0001")}},
         5353},
        // DNS lookalikes.
        {"Unknown", false, {{C, hex("abcd 0100 0000 0000 0000 0000")}}},  // query, no question
        {"Unknown", false, {{C, hex("abcd 0100 0001 0000 0000 0000 03 777777")}}},  // name cut
        {"Unknown", false, {{C, hex("abcd 0100 0001 0000 0000 0000 c0 0c 0001 0001")}}},  // loop
        {"Unknown", false, {{C, hex("abcd 0100 0001 0000 0000 0000 03 77 0a 77 00 0001 0001")}}},
        {"Unknown",
         false,
         {{C, hex("abcd 7900 0001 0000 0000 0000 01 61 00 0001 0001")}}},  // op 15
        {"Unknown",
         false,
         {{C, hex("abcd 0100 0001 0000 0000 0000 01 61 00 0001 0009")}}},  // class
        // One payload per dissector.
        {"SSH", true, {{C, text("SSH-2.0-OpenSSH_9.2p1 Debian-2\r\n")}}},
        {"SMTP", true, {{S, text("220 mail.example.com ESMTP Postfix\r\n")}}},
        {"SMTP", true, {{S, text("220 welcome\r\n")}, {C, text("EHLO client.example\r\n")}}},
        {"FTP_CONTROL", true, {{S, text("220 ProFTPD Server (FTP) ready\r\n")}}},
        {"FTP_CONTROL", true, {{S, text("220 welcome\r\n")}, {C, text("USER anonymous\r\n")}}},
        {"POP3", true, {{S, text("+OK POP3 server ready <1896.697170952@dbc.mtview.ca.us>\r\n")}}},
        {"IMAP", true, {{S, text("* OK [CAPABILITY IMAP4rev1 STARTTLS] ready\r\n")}}},
        {"IMAP", true, {{C, text("a001 CAPABILITY\r\n")}}},
        {"IRC", true, {{C, text("NICK alice\r\nUSER alice 0 * :Alice\r\n")}}},
        {"IRC", true, {{S, text(":irc.example.net NOTICE * :*** Looking up your hostname\r\n")}}},
        {"Telnet", true, {{S, hex("fffd18 fffd20 fffd23 fffd27")}}},
        {"VNC", true, {{S, text("RFB 003.008\n")}}},
        {"MySQL", true, {{S, mysql}}},
        {"PostgreSQL", true, {{C, hex("00000008 04d2162f")}}},
        {"PostgreSQL",
         true,
         {{C, text(std::string("\0\0\0\x1d\0\3\0\0user\0bob\0database\0x\0\0", 29))}}},
        {"Redis", true, {{C, text("*1\r\n$4\r\nPING\r\n")}}},
        {"SMB", true, {{C, hex("00000045 fe534d42 40000000 00000000 00000000")}}},
        {"RDP", true, {{C, rdp}}},
        {"BitTorrent", true, {{C, padded(hex("13 426974546f7272656e742070726f746f636f6c"), 68)}}},
        {"BGP",
         true,
         {{C, hex("ffffffffffffffffffffffffffffffff 001d 01 04 fde8 00b4 01020304 00")}}},
        {"MQTT", true, {{C, hex("10 10 0004 4d515454 04 02 003c 0004 74657374")}}},
        {"SIP",
         false,
         {{C, text("OPTIONS sip:bob@example.com SIP/2.0\r\nVia: SIP/2.0/UDP h\r\n\r\n")}}},
        {"SIP", true, {{C, text("REGISTER sip:example.com SIP/2.0\r\nCSeq: 1 REGISTER\r\n\r\n")}}},
        {"SSDP", false, {{C, text("M-SEARCH * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\n\r\n")}}},
        {"STUN", false, {{C, hex("0001 0000 2112a442 0102030405060708090a0b0c")}}},
        {"QUIC", false, {{C, padded(hex("c3 00000001 08 0102030405060708 00 00 4496"), 1200)}}},
        {"WireGuard", false, {{C, padded(hex("01000000 11223344"), 148)}}},
        {"OpenVPN",
         false,
         {{C, hex("38 1122334455667788 00 00000000")},
          {S, hex("40 8877665544332211 01 00000000 1122334455667788 00000000")}}},
        {"NTP", false, {{C, padded(hex("23"), 48)}}},
        {"DHCP", false, {{C, dhcp}}},
        {"SNMP", false, {{C, hex("3018 020101 0406 7075626c6963 a00b 020101 020100 020100 3000")}}},
        {"Kerberos", false, {{C, hex("6a10 300e a103020105 a20302010a a3023000")}}},
        {"Kerberos", true, {{C, hex("00000012 6a10 300e a103020105 a20302010a a3023000")}}},
        {"LDAP", true, {{C, hex("300c 020101 6007 020103 0400 8000")}}},
        {"Syslog", false, {{C, text("<34>Oct 11 22:14:15 mymachine su: 'su root' failed")}}},
        {"NetBIOS",
         false,
         {{C, hex("8001 0110 0001 0000 0000 0000 20 4648464145424545434143414341434143414341"
                  "4341434143414341434141 41 00 0020 0001")}}},
        {"TFTP", false, {{C, text(std::string("\0\1file1\0octet\0", 14))}}},
        {"BitTorrent",
         false,
         {{C, text("d1:ad2:id20:abcdefghij0123456789e1:q4:ping1:t2:aa1:y1:qe")}}},
        {"RTSP",
         true,
         {{C, text("OPTIONS rtsp://cam.example/stream RTSP/1.0\r\nCSeq: 1\r\n\r\n")}}},
        {"ZeroMQ", true, {{C, hex("ff 0000000000000001 7f 03")}}},
        // Near misses stay unknown.
        {"Unknown", true, {{C, text("SSH-3.0-future\r\n")}}},
        {"Unknown", true, {{C, text("GETX / HTTP/1.1\r\n\r\n")}}},
        {"Unknown", true, {{C, text("RFB 003.008")}}},       // no newline
        {"Unknown", true, {{C, hex("16 03 05 00 10 01")}}},  // TLS version byte too high
        {"Unknown", false, {{C, hex("0001 0004 2112a442 0102030405060708090a0b0c")}}},  // length
        {"Unknown", false, {{C, padded(hex("01000000"), 147)}}},  // WireGuard size off by one
        {"Unknown", false, {{C, text("<999>too high a priority")}}},
        {"Unknown",
         false,
         {{C, hex("3018 020109 0406 7075626c6963 a00b 020101 020100 020100 3000")}}},
    };
    for (const auto &c : cases) {
        pt::owned_module m;
        auto f = pt::drive(m, packets_of(c), extra());
        ASSERT_EQ(f.size(), 1u);
        EXPECT_EQ(f[0].summary, c.expect) << "case #" << (&c - cases);
    }
}

TEST(Detect, Captures) {
    const std::pair<const char *, std::vector<std::string>> cases[] = {
        {"http.pcap",
         {"HTTP sn=www.example.test url=http://www.example.test/docs/index.html?q=1 hc=200",
          "HTTP sn=127.0.0.1 url=http://127.0.0.1/missing hc=404"}},
        {"tls12.pcap", {"TLS sn=www.example.test sha1=ccdea7530e9be420a76a4a01c8c3e327cc6b16d9"}},
        {"tls13.pcap", {"TLS sn=tls13.example.test"}},  // no certificate in the clear
    };
    for (const auto &[file, want] : cases) {
        std::vector<pt::packet> pk;
        ASSERT_TRUE(pt::read_capture(pt::data_file(file), &pk)) << file;
        pt::owned_module m;
        auto flows = pt::drive(m, pk, extra());
        ASSERT_EQ(flows.size(), want.size()) << file;
        for (size_t i = 0; i < want.size(); ++i) {
            EXPECT_EQ(flows[i].summary, want[i]);
            EXPECT_EQ(flows[i].result.state, uint32_t(PELDA_STATE_DONE));
            EXPECT_EQ(flows[i].result.category, 5u);  // Web
        }
        if (std::string(file) == "tls12.pcap") {
            EXPECT_EQ(flows[0].packet_decided, 6u);  // the server's first flight
        }
    }
    // Without extra dissection the request decides.
    std::vector<pt::packet> pk;
    pt::read_capture(pt::data_file("http.pcap"), &pk);
    pt::owned_module m;
    auto flows = pt::drive(m, pk);
    EXPECT_EQ(flows[0].packet_decided, 4u);  // SYN, SYN+ACK, ACK, request
    EXPECT_EQ(flows[0].result.state, uint32_t(PELDA_STATE_EXTRACTING));
    EXPECT_EQ(flows[0].summary,
              "HTTP sn=www.example.test url=http://www.example.test/docs/index.html?q=1");
}

// The ClientHello and the server's first flight of tls12.pcap.
std::pair<bytes, bytes> tls12_flights() {
    std::vector<pt::packet> pk;
    pt::read_capture(pt::data_file("tls12.pcap"), &pk);
    bytes hello, server;
    for (const auto &p : pk) {
        size_t off = 20 + size_t(p.ip[32] >> 4) * 4;  // IPv4 without options
        bool from_server = p.ip[20] == 0x38 && (p.ip[21] == 0x61 || p.ip[21] == 0x62);  // 1443x
        bytes &dst = from_server ? server : hello;
        if (off < p.ip.size() && dst.empty()) dst.assign(p.ip.begin() + long(off), p.ip.end());
    }
    return {hello, server};
}

// The handshake cut into segments of every size gives the same result; buffers are gone
// once the flow is done.
TEST(Tls, HandshakeSpanningSegments) {
    auto [hello, server] = tls12_flights();
    ASSERT_FALSE(hello.empty() || server.empty());
    for (size_t seg : {1, 2, 5, 64, 100, 227, 1000}) {
        pt::owned_module m;
        auto flow = pt::new_flow();
        pt::conversation c({"192.0.2.1", 51000}, {"192.0.2.2", 7000});
        c.handshake();
        for (size_t i = 0; i < hello.size(); i += seg)
            c.client_sends(slice(hello, i, i + seg));
        long last = long(c.packets.size()) - 1;  // the ClientHello's last segment names TLS
        for (size_t i = 0; i < server.size(); i += seg)
            c.server_sends(slice(server, i, i + seg));
        auto part = [&](long from, long to) {
            return std::vector<pt::packet>(c.packets.begin() + from, c.packets.begin() + to);
        };
        EXPECT_EQ(pt::feed(m, flow.get(), part(0, last)).app_protocol, 0) << seg;
        EXPECT_EQ(pt::feed(m, flow.get(), part(last, last + 1)).app_protocol, 91) << seg;
        pelda_protocol r = pt::feed(m, flow.get(), part(last + 1, long(c.packets.size())));
        EXPECT_EQ(r.state, uint32_t(PELDA_STATE_DONE)) << seg;
        EXPECT_EQ(pt::summary(m, r, flow.get()),
                  "TLS sn=www.example.test sha1=ccdea7530e9be420a76a4a01c8c3e327cc6b16d9");
        EXPECT_EQ(flow->stream[0], nullptr);
        EXPECT_EQ(flow->stream[1], nullptr);
    }
}

TEST(Tls, RetransmittedOverlappingAndLostSegments) {
    bytes ch = tls12_flights().first;
    pt::endpoint cl{"192.0.2.1", 51000}, sv{"192.0.2.2", 443};
    auto seg = [&](uint32_t seq, size_t from, size_t to) {
        return pt::packet{pt::tcp(cl, sv, seq, 0x18, slice(ch, from, to)), 1};
    };
    pt::owned_module m;
    auto flow = pt::new_flow();
    pelda_protocol r = pt::feed(m, flow.get(),
                                {{pt::tcp(cl, sv, 99, 0x02), 1},
                                 seg(100, 0, 50),
                                 seg(100, 0, 50),
                                 seg(130, 30, 120),
                                 seg(220, 120, ch.size())});
    EXPECT_EQ(pt::summary(m, r, flow.get()), "TLS sn=www.example.test");
    // 60 bytes lost: not misread; the give-up knows TLS, the port adds nothing (443 is TLS).
    flow = pt::new_flow();
    r = pt::feed(m, flow.get(), {seg(100, 0, 40), seg(200, 100, ch.size())});
    EXPECT_EQ(pt::summary(m, r, flow.get()), "Unknown");
    r = pelda_detection_giveup(m, flow.get());
    EXPECT_EQ(r.master_protocol, PELDA_PROTOCOL_TLS);
    EXPECT_EQ(r.app_protocol, 0);
    EXPECT_EQ(flow->guessed_protocol, 0);
}

TEST(Tls, MidSessionRecordsGiveUpAsTlsWithPortApplication) {
    pt::owned_module m;
    pt::conversation c({"10.0.0.1", 50000}, {"10.0.0.2", 993});
    for (int i = 0; i < 8; ++i) {
        c.client_sends(hex("17 03 03 00 04 01 02 03 04"));
        c.server_sends(hex("17 03 03 00 02 aa bb"));
    }
    auto f = pt::drive(m, c.packets);
    ASSERT_EQ(f.size(), 1u);
    EXPECT_EQ(f[0].packet_decided, 13u);
    EXPECT_EQ(f[0].summary, "TLS.IMAPS guessed");
}

// Extra dissection of the long-running protocols ends when nothing is left to read.
TEST(Detect, SmtpAndFtpExtraDissectionEnds) {
    pt::owned_module m;
    pt::conversation smtp({"10.0.0.1", 40000}, {"10.0.0.2", 25});
    smtp.handshake();
    for (const char *line : {"220 mx.example ESMTP\r\n", "EHLO client.example\r\n",
                             "250-mx.example\r\n250 STARTTLS\r\n", "STARTTLS\r\n", "220 go\r\n"})
        line[0] == '2' ? smtp.server_sends(text(line)) : smtp.client_sends(text(line));
    auto f = pt::drive(m, smtp.packets, extra());
    EXPECT_EQ(f[0].summary, "SMTP");
    EXPECT_EQ(f[0].result.state, uint32_t(PELDA_STATE_DONE));
    EXPECT_EQ(f[0].packet_decided, 7u);

    pt::conversation ftp({"10.0.0.1", 40000}, {"10.0.0.2", 21});
    ftp.handshake();
    for (const char *line : {"220 FTP ready\r\n", "USER bob\r\n", "331 password\r\n", "PASV\r\n",
                             "227 Entering Passive Mode (10,0,0,2,195,80)\r\n", "QUIT\r\n"})
        line[0] <= '9' ? ftp.server_sends(text(line)) : ftp.client_sends(text(line));
    auto flow = pt::new_flow();
    pelda_protocol r = pt::feed(m, flow.get(), ftp.packets);
    EXPECT_EQ(r.app_protocol, 77);
    EXPECT_EQ(r.state, uint32_t(PELDA_STATE_DONE));
    EXPECT_STREQ(flow->proto.banner.client, "bob");
    EXPECT_EQ(flow->proto.banner.data_port, 195 * 256 + 80);
}

// ---- Direction, give-up and guessing

TEST(Flow, FirstSynAckMakesItsSenderTheServer) {
    pt::owned_module m;
    auto flow = pt::new_flow();
    pt::endpoint cl{"10.0.0.1", 40000}, sv{"10.0.0.2", 40001};
    bytes req = text("GET / HTTP/1.1\r\nHost: a.example\r\n\r\n");
    pelda_protocol r = pt::feed(
        m, flow.get(), {{pt::tcp(sv, cl, 10, 0x12), 1}, {pt::tcp(cl, sv, 1, 0x18, req), 2}});
    EXPECT_EQ(r.app_protocol, PELDA_PROTOCOL_HTTP);
    EXPECT_EQ(flow->client_port, 40000);
    EXPECT_EQ(flow->packets[pelda::kServer], 1u);
}

TEST(Flow, GiveUpGuessesByPortUnlessDisabled) {
    for (bool guess : {true, false}) {
        pt::owned_module m(guess);
        pt::conversation t({"10.0.0.1", 40000}, {"10.0.0.2", 3306});
        t.handshake();
        for (int i = 0; i < 12; ++i)
            t.client_sends(text("opaque bytes"));
        auto f = pt::drive(m, t.packets);
        ASSERT_EQ(f.size(), 1u);
        EXPECT_EQ(f[0].packet_decided, 13u);
        EXPECT_EQ(f[0].summary, guess ? "MySQL guessed" : "Unknown guessed");
        EXPECT_EQ(f[0].result.confidence,
                  uint32_t(guess ? PELDA_CONFIDENCE_GUESS_PORT : PELDA_CONFIDENCE_UNKNOWN));
    }
}

TEST(Flow, GuessOtherIpProtocolsAndPorts) {
    pt::owned_module m;
    const std::pair<uint8_t, const char *> cases[] = {
        {1, "ICMP"},   {58, "ICMPv6"}, {2, "IGMP"},     {47, "GRE"},
        {50, "ESP"},   {51, "AH"},     {89, "OSPF"},    {132, "SCTP"},
        {112, "VRRP"}, {103, "PIM"},   {4, "IP_in_IP"}, {250, "Unknown"}};
    for (const auto &[proto, name] : cases) {
        pelda_protocol r =
            pelda_guess_undetected_protocol_v4(m, nullptr, proto, 0x0a000001, 0, 0x0a000002, 0);
        EXPECT_EQ(pt::summary(m, r, nullptr), name);
        EXPECT_EQ(r.category, pelda_get_proto_category(m, r.app_protocol));
    }
    pelda_protocol r = pelda_guess_undetected_protocol_v4(m, nullptr, 17, 0, 40000, 0, 53);
    EXPECT_EQ(r.app_protocol, PELDA_PROTOCOL_DNS);
    EXPECT_EQ(r.confidence, uint32_t(PELDA_CONFIDENCE_GUESS_PORT));
    r = pelda_guess_undetected_protocol_v4(m, nullptr, 6, 0, 443, 0, 40000);
    EXPECT_EQ(r.app_protocol, PELDA_PROTOCOL_TLS);
}

TEST(Flow, NullAndTruncatedInputsAreHarmless) {
    pt::owned_module m;
    auto flow = pt::new_flow();
    EXPECT_EQ(
        pelda_detection_process_packet(nullptr, flow.get(), nullptr, 0, 0, nullptr).app_protocol,
        0);
    EXPECT_EQ(pelda_detection_process_packet(m, nullptr, nullptr, 0, 0, nullptr).app_protocol, 0);
    EXPECT_EQ(pelda_detection_process_packet(m, flow.get(), nullptr, 0, 0, nullptr).app_protocol,
              0);
    bytes good = pt::tcp({"10.0.0.1", 1}, {"10.0.0.2", 2}, 1, 0x18, text("SSH-2.0-x\r\n"));
    for (size_t cut = 0; cut < 40 + 8; ++cut) {  // up to a payload that still reads "SSH-2.0-"
        auto f = pt::new_flow();
        EXPECT_EQ(pelda_detection_process_packet(m, f.get(), good.data(), uint32_t(cut), 0, nullptr)
                      .app_protocol,
                  0)
            << cut;
    }
    EXPECT_EQ(pelda_detection_giveup(m, nullptr).app_protocol, 0);
    pelda_free_flow(nullptr);
}

}  // namespace
