// Detection driven by packet bytes: captures made with real clients and servers
// (tests/data), payloads of each dissector on ports that are not their own,
// handshakes split across segments, direction, give-up and guessing.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "flow.h"
#include "support.h"

namespace {

using pt::bytes;

const bytes kNoSha1(20, 0);

std::vector<pt::packet> capture(const std::string &name) {
    std::vector<pt::packet> p;
    EXPECT_TRUE(pt::read_capture(pt::data_file(name), &p)) << name;
    return p;
}

bytes slice(const bytes &b, size_t from, size_t to) {
    to = std::min(to, b.size());
    bytes out;
    for (size_t i = from; i < to; ++i)
        out.push_back(b[i]);
    return out;
}

bytes tcp_payload(const bytes &ip) {
    if (ip.size() < 40) return {};
    size_t ihl = size_t(ip[0] & 15) * 4, off = ihl + size_t(ip[ihl + 12] >> 4) * 4;
    if (off >= ip.size()) return {};
    return slice(ip, off, ip.size());
}

std::string hex_of(const bytes &b) {
    std::string s;
    char t[3];
    for (uint8_t c : b) {
        snprintf(t, sizeof(t), "%02x", c);
        s += t;
    }
    return s;
}

pt::drive_options extra() {
    pt::drive_options o;
    o.extra_dissection = true;
    return o;
}

// ---- HTTP

TEST(Http, RequestHostUrlAndResponseCode) {
    pt::owned_module m;
    auto flows = pt::drive(m, capture("http.pcap"), extra());
    ASSERT_EQ(flows.size(), 2u);
    struct {
        const char *host, *url;
        uint16_t code;
    } want[] = {{"www.example.test", "http://www.example.test/docs/index.html?q=1", 200},
                {"127.0.0.1", "http://127.0.0.1/missing", 404}};
    for (size_t i = 0; i < 2; ++i) {
        const auto &f = flows[i];
        EXPECT_EQ(f.result.app_protocol, PELDA_PROTOCOL_HTTP);
        EXPECT_EQ(f.result.state, uint32_t(PELDA_STATE_DONE));
        EXPECT_EQ(f.result.category, uint32_t(pelda_get_category_by_name(m, "Web")));
        EXPECT_EQ(f.fields.server_name, want[i].host);
        EXPECT_EQ(f.fields.url, want[i].url);
        EXPECT_EQ(f.fields.http_response_code, want[i].code);
        EXPECT_FALSE(f.guessed);
    }
}

TEST(Http, WithoutExtraDissectionTheRequestDecides) {
    pt::owned_module m;
    auto flows = pt::drive(m, capture("http.pcap"));
    ASSERT_EQ(flows.size(), 2u);
    EXPECT_EQ(flows[0].packet_decided, 4u);  // SYN, SYN+ACK, ACK, request
    EXPECT_EQ(flows[0].result.state, uint32_t(PELDA_STATE_EXTRACTING));
    EXPECT_EQ(flows[0].fields.server_name, "www.example.test");
    EXPECT_EQ(flows[0].fields.http_response_code, 0);
}

TEST(Http, RequestForms) {
    struct {
        const char *request, *host, *url;
    } cases[] = {
        {"GET http://proxy.example:3128/a/b HTTP/1.1\r\nUser-Agent: x\r\n\r\n", "proxy.example",
         "http://proxy.example:3128/a/b"},
        {"CONNECT secure.example:443 HTTP/1.1\r\n\r\n", "secure.example",
         "http://secure.example:443"},
        {"POST /form HTTP/1.0\r\nhost:  [2001:db8::1]:8080 \r\nContent-Length: 0\r\n\r\n",
         "2001:db8::1", "http://2001:db8::1/form"},
        {"GET / HTTP/1.1\r\nAccept: */*\r\n\r\n", "", "http:///"},
        {"HEAD /x HTTP/1.1\r\nHost: h.example\r\n", "h.example", "http://h.example/x"},
    };
    for (const auto &c : cases) {
        pt::owned_module m;
        pt::tcp_conversation t({"10.0.0.1", 50000}, {"10.0.0.2", 50001});
        t.handshake();
        t.client_sends(pt::text(c.request));
        auto f = pt::drive(m, t.packets);
        ASSERT_EQ(f.size(), 1u);
        EXPECT_EQ(f[0].result.app_protocol, PELDA_PROTOCOL_HTTP) << c.request;
        EXPECT_EQ(f[0].fields.server_name, c.host) << c.request;
        EXPECT_EQ(f[0].fields.has_server_name, c.host[0] != '\0');
        EXPECT_EQ(f[0].fields.url, c.url) << c.request;
    }
}

// ---- TLS

struct tls_capture {
    bytes client_hello, server_flight;
};

tls_capture tls_payloads(const std::string &file) {
    tls_capture t;
    auto pk = capture(file);
    for (const auto &p : pk) {
        bytes pl = tcp_payload(p.ip);
        if (pl.empty()) continue;
        // Source port 14433 (0x3861) or 14434 is the server's.
        bool from_client = p.ip[20] != 0x38 || (p.ip[21] != 0x61 && p.ip[21] != 0x62);
        if (from_client && t.client_hello.empty()) t.client_hello = pl;
        if (!from_client && t.server_flight.empty()) t.server_flight = pl;
    }
    return t;
}

TEST(Tls, Tls12ServerNameAndCertificateFingerprint) {
    pt::owned_module m;
    auto flows = pt::drive(m, capture("tls12.pcap"), extra());
    ASSERT_EQ(flows.size(), 1u);
    const auto &f = flows[0];
    EXPECT_EQ(f.result.app_protocol, PELDA_PROTOCOL_TLS);
    EXPECT_EQ(f.fields.server_name, "www.example.test");
    // openssl x509 -outform DER < cert.pem | sha1sum
    EXPECT_EQ(hex_of(f.fields.sha1), "ccdea7530e9be420a76a4a01c8c3e327cc6b16d9");
    EXPECT_EQ(f.result.state, uint32_t(PELDA_STATE_DONE));
    EXPECT_EQ(f.packet_decided, 6u);  // the server's first flight
}

TEST(Tls, Tls13HasNoCertificateInTheClear) {
    pt::owned_module m;
    auto flows = pt::drive(m, capture("tls13.pcap"), extra());
    ASSERT_EQ(flows.size(), 1u);
    EXPECT_EQ(flows[0].result.app_protocol, PELDA_PROTOCOL_TLS);
    EXPECT_EQ(flows[0].fields.server_name, "tls13.example.test");
    EXPECT_EQ(flows[0].fields.sha1, kNoSha1);
    EXPECT_EQ(flows[0].result.state, uint32_t(PELDA_STATE_DONE));
}

// The handshake cut into segments of every size gives the same result; buffers
// are gone once the flow is done.
TEST(Tls, HandshakeSpanningSegments) {
    tls_capture t = tls_payloads("tls12.pcap");
    ASSERT_FALSE(t.client_hello.empty());
    ASSERT_FALSE(t.server_flight.empty());
    for (size_t seg : {1, 2, 5, 64, 100, 227, 1000}) {
        pt::owned_module m;
        auto flow = pt::new_flow();
        pt::tcp_conversation c({"192.0.2.1", 51000}, {"192.0.2.2", 7000});
        c.handshake();
        for (size_t i = 0; i < t.client_hello.size(); i += seg)
            c.client_sends(slice(t.client_hello, i, i + seg));
        for (size_t i = 0; i < t.server_flight.size(); i += seg)
            c.server_sends(slice(t.server_flight, i, i + seg));
        pelda_protocol r{};
        uint32_t named_at = 0, n = 0;
        for (const auto &p : c.packets) {
            ++n;
            r = pelda_detection_process_packet(m, flow.get(), p.ip.data(), uint32_t(p.ip.size()),
                                               p.time_ms, nullptr);
            if (r.app_protocol && !named_at) named_at = n;
        }
        EXPECT_EQ(named_at, 3 + (t.client_hello.size() + seg - 1) / seg) << seg;
        EXPECT_EQ(r.app_protocol, PELDA_PROTOCOL_TLS) << seg;
        EXPECT_EQ(r.state, uint32_t(PELDA_STATE_DONE)) << seg;
        auto fields = pt::read_fields(flow.get());
        EXPECT_EQ(fields.server_name, "www.example.test") << seg;
        EXPECT_EQ(hex_of(fields.sha1), "ccdea7530e9be420a76a4a01c8c3e327cc6b16d9") << seg;
        EXPECT_EQ(flow->stream[0], nullptr);
        EXPECT_EQ(flow->stream[1], nullptr);
    }
}

TEST(Tls, RetransmittedAndOverlappingSegments) {
    tls_capture t = tls_payloads("tls12.pcap");
    pt::owned_module m;
    auto flow = pt::new_flow();
    pt::endpoint cl{"192.0.2.1", 51000}, sv{"192.0.2.2", 443};
    const bytes &ch = t.client_hello;
    auto part = [&](size_t a, size_t b) { return slice(ch, a, b); };
    std::vector<bytes> pk = {
        pt::ipv4_tcp(cl, sv, 99, 0x02, {}),
        pt::ipv4_tcp(cl, sv, 100, 0x18, part(0, 50)),
        pt::ipv4_tcp(cl, sv, 100, 0x18, part(0, 50)),    // retransmission
        pt::ipv4_tcp(cl, sv, 130, 0x18, part(30, 120)),  // overlaps the first
        pt::ipv4_tcp(cl, sv, 220, 0x18, part(120, ch.size())),
    };
    pelda_protocol r{};
    for (const auto &p : pk)
        r = pelda_detection_process_packet(m, flow.get(), p.data(), uint32_t(p.size()), 1, nullptr);
    EXPECT_EQ(r.app_protocol, PELDA_PROTOCOL_TLS);
    EXPECT_EQ(pt::read_fields(flow.get()).server_name, "www.example.test");
}

TEST(Tls, MissingSegmentIsNotMisread) {
    tls_capture t = tls_payloads("tls12.pcap");
    pt::owned_module m;
    auto flow = pt::new_flow();
    pt::endpoint cl{"192.0.2.1", 51000}, sv{"192.0.2.2", 443};
    const bytes &ch = t.client_hello;
    std::vector<bytes> pk = {
        pt::ipv4_tcp(cl, sv, 100, 0x18, slice(ch, 0, 40)),
        pt::ipv4_tcp(cl, sv, 200, 0x18, slice(ch, 100, ch.size())),  // 60 bytes lost
    };
    pelda_protocol r{};
    for (const auto &p : pk)
        r = pelda_detection_process_packet(m, flow.get(), p.data(), uint32_t(p.size()), 1, nullptr);
    EXPECT_EQ(r.app_protocol, 0);
    EXPECT_FALSE(pt::read_fields(flow.get()).has_server_name);
    // Give-up: the handshake start proves TLS; the application comes from the port.
    r = pelda_detection_giveup(m, flow.get());
    EXPECT_EQ(r.master_protocol, PELDA_PROTOCOL_TLS);
    EXPECT_EQ(r.app_protocol, 0);
    EXPECT_EQ(pt::read_fields(flow.get()).giveup_app, 0);  // 443 is TLS itself
    EXPECT_EQ(r.state, uint32_t(PELDA_STATE_DONE));
}

TEST(Tls, MidSessionRecordsGiveUpAsTlsWithPortApplication) {
    pt::owned_module m;
    pt::tcp_conversation c({"10.0.0.1", 50000}, {"10.0.0.2", 993});
    for (int i = 0; i < 8; ++i) {
        c.client_sends(pt::hex("17 03 03 00 04 01 02 03 04"));
        c.server_sends(pt::hex("17 03 03 00 02 aa bb"));
    }
    auto f = pt::drive(m, c.packets);
    ASSERT_EQ(f.size(), 1u);
    EXPECT_TRUE(f[0].guessed);
    EXPECT_EQ(f[0].packet_decided, 13u);
    EXPECT_EQ(f[0].result.master_protocol, PELDA_PROTOCOL_TLS);
    EXPECT_EQ(f[0].result.app_protocol, pelda_get_proto_by_name(m, "IMAPS"));
    EXPECT_EQ(f[0].name, "TLS.IMAPS");
}

// ---- DNS

TEST(Dns, QueryNameTypeAndReplyCode) {
    const bytes query =
        pt::hex("abcd 0100 0001 0000 0000 0000 03 777777 07 6578616d706c65 03 636f6d 00 001c 0001");
    const bytes reply =
        pt::hex("abcd 8183 0001 0000 0000 0000 03 777777 07 6578616d706c65 03 636f6d 00 001c 0001");
    for (int mode : {0, 1, 2}) {  // UDP, TCP, TCP with the length in its own segment
        bool tcp = mode > 0;
        for (uint16_t port : {53, 8053}) {
            pt::owned_module m;
            std::vector<pt::packet> pk;
            pt::endpoint cl{"2001:db8::1", 40000}, sv{"2001:db8::2", port};
            if (tcp) {
                pt::tcp_conversation c(cl, sv, true);
                c.handshake();
                bytes q = {0, uint8_t(query.size())}, r = {0, uint8_t(reply.size())};
                q.insert(q.end(), query.begin(), query.end());
                r.insert(r.end(), reply.begin(), reply.end());
                if (mode == 2) {
                    c.client_sends(slice(q, 0, 2));
                    c.client_sends(query);
                    c.server_sends(slice(r, 0, 2));
                    c.server_sends(reply);
                } else {
                    c.client_sends(q);
                    c.server_sends(r);
                }
                pk = c.packets;
            } else {
                pk = {{pt::ipv6_udp(cl, sv, query), 1}, {pt::ipv6_udp(sv, cl, reply), 2}};
            }
            auto f = pt::drive(m, pk, extra());
            ASSERT_EQ(f.size(), 1u);
            EXPECT_EQ(f[0].result.app_protocol, PELDA_PROTOCOL_DNS) << mode << " " << port;
            EXPECT_EQ(f[0].fields.server_name, "www.example.com");
            EXPECT_EQ(f[0].fields.dns_query_type, 28);
            EXPECT_EQ(f[0].fields.dns_reply_code, 3);  // NXDOMAIN
            EXPECT_EQ(f[0].result.state, uint32_t(PELDA_STATE_DONE));
        }
    }
}

TEST(Dns, RejectsLookalikes) {
    const char *cases[] = {
        "abcd 0100 0000 0000 0000 0000",                           // query without a question
        "abcd 0100 0001 0000 0000 0000 03 777777",                 // name runs past the end
        "abcd 0100 0001 0000 0000 0000 c0 0c 0001 0001",           // pointer loop
        "abcd 0100 0001 0000 0000 0000 03 77 0a 77 00 0001 0001",  // control byte in a label
        "abcd 7900 0001 0000 0000 0000 01 61 00 0001 0001",        // opcode 15
        "abcd 0100 0001 0000 0000 0000 01 61 00 0001 0009",        // class 9
    };
    for (const char *h : cases) {
        pt::owned_module m;
        std::vector<pt::packet> pk = {
            {pt::ipv4_udp({"10.0.0.1", 40000}, {"10.0.0.2", 40001}, pt::hex(h)), 1}};
        auto f = pt::drive(m, pk);
        EXPECT_NE(f[0].result.app_protocol, PELDA_PROTOCOL_DNS) << h;
    }
}

// ---- One payload per dissector, on ports that are not the protocol's own.

bytes mysql_greeting() {
    bytes body = {0x0a};
    for (char ch : std::string("8.0.36"))
        body.push_back(uint8_t(ch));
    body.push_back(0);
    bytes rest = pt::hex(
        "0a000000 3132333435363738 00 ffff ff 0200 ffdf 15 00000000000000000000"
        "31323334353637383930313200");
    body.insert(body.end(), rest.begin(), rest.end());
    for (char ch : std::string("mysql_native_password"))
        body.push_back(uint8_t(ch));
    body.push_back(0);
    bytes p = {uint8_t(body.size()), 0, 0, 0};
    p.insert(p.end(), body.begin(), body.end());
    return p;
}

bytes rdp_request() {
    std::string cookie = "Cookie: mstshash=alice\r\n";
    bytes x224 = {0xe0, 0, 0, 0, 0, 0};
    x224.insert(x224.end(), cookie.begin(), cookie.end());
    bytes neg = pt::hex("01 00 0800 03000000");
    x224.insert(x224.end(), neg.begin(), neg.end());
    bytes p = {3, 0, 0, 0, uint8_t(x224.size())};
    p.insert(p.end(), x224.begin(), x224.end());
    p[3] = uint8_t(p.size());
    return p;
}

bytes padded(bytes b, size_t n) {
    b.resize(n, 0);
    return b;
}

bytes dhcp_discover() {
    bytes p(300, 0);
    p[0] = 1;
    p[1] = 1;
    p[2] = 6;
    p[236] = 0x63;
    p[237] = 0x82;
    p[238] = 0x53;
    p[239] = 0x63;
    p[240] = 53;
    p[241] = 1;
    p[242] = 1;
    p[243] = 255;
    return p;
}

struct payload_case {
    const char *expect;  // protocol name
    bool tcp;
    std::vector<std::pair<bool, bytes>> exchange;  // (from client, payload)
    uint16_t server_port = 40001;
};

TEST(Dissectors, RecognisedOnAnyPort) {
    const bytes nbns = pt::hex(
        "8001 0110 0001 0000 0000 0000 20 "
        "46484641454245454341434143414341434143414341434143414341434141 41 00 0020 0001");
    const payload_case cases[] = {
        {"SSH", true, {{true, pt::text("SSH-2.0-OpenSSH_9.2p1 Debian-2\r\n")}}},
        {"SMTP", true, {{false, pt::text("220 mail.example.com ESMTP Postfix\r\n")}}},
        {"SMTP",
         true,
         {{false, pt::text("220 welcome\r\n")}, {true, pt::text("EHLO client.example\r\n")}}},
        {"FTP_CONTROL", true, {{false, pt::text("220 ProFTPD Server (FTP) ready\r\n")}}},
        {"FTP_CONTROL",
         true,
         {{false, pt::text("220 welcome\r\n")}, {true, pt::text("USER anonymous\r\n")}}},
        {"POP3",
         true,
         {{false, pt::text("+OK POP3 server ready <1896.697170952@dbc.mtview.ca.us>\r\n")}}},
        {"IMAP", true, {{false, pt::text("* OK [CAPABILITY IMAP4rev1 STARTTLS] ready\r\n")}}},
        {"IMAP", true, {{true, pt::text("a001 CAPABILITY\r\n")}}},
        {"IRC", true, {{true, pt::text("NICK alice\r\nUSER alice 0 * :Alice\r\n")}}},
        {"IRC",
         true,
         {{false, pt::text(":irc.example.net NOTICE * :*** Looking up your hostname\r\n")}}},
        {"Telnet", true, {{false, pt::hex("fffd18 fffd20 fffd23 fffd27")}}},
        {"VNC", true, {{false, pt::text("RFB 003.008\n")}}},
        {"MySQL", true, {{false, mysql_greeting()}}},
        {"PostgreSQL", true, {{true, pt::hex("00000008 04d2162f")}}},
        {"PostgreSQL",
         true,
         {{true, pt::text(std::string("\0\0\0\x1d\0\3\0\0user\0bob\0database\0x\0\0", 29))}}},
        {"Redis", true, {{true, pt::text("*1\r\n$4\r\nPING\r\n")}}},
        {"SMB", true, {{true, pt::hex("00000045 fe534d42 40000000 00000000 00000000")}}},
        {"RDP", true, {{true, rdp_request()}}},
        {"BitTorrent",
         true,
         {{true, padded(pt::hex("13 426974546f7272656e742070726f746f636f6c"), 68)}}},
        {"BGP",
         true,
         {{true, pt::hex("ffffffffffffffffffffffffffffffff 001d 01 04 fde8 00b4 01020304 00")}}},
        {"MQTT", true, {{true, pt::hex("10 10 0004 4d515454 04 02 003c 0004 74657374")}}},
        {"SIP",
         false,
         {{true, pt::text("OPTIONS sip:bob@example.com SIP/2.0\r\nVia: SIP/2.0/UDP h\r\n\r\n")}}},
        {"SIP",
         true,
         {{true, pt::text("REGISTER sip:example.com SIP/2.0\r\nCSeq: 1 REGISTER\r\n\r\n")}}},
        {"SSDP",
         false,
         {{true, pt::text("M-SEARCH * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nMAN: "
                          "\"ssdp:discover\"\r\n\r\n")}}},
        {"STUN", false, {{true, pt::hex("0001 0000 2112a442 0102030405060708090a0b0c")}}},
        {"QUIC",
         false,
         {{true, padded(pt::hex("c3 00000001 08 0102030405060708 00 00 4496"), 1200)}}},
        {"WireGuard", false, {{true, padded(pt::hex("01000000 11223344"), 148)}}},
        {"OpenVPN",
         false,
         {{true, pt::hex("38 1122334455667788 00 00000000")},
          {false, pt::hex("40 8877665544332211 01 00000000 1122334455667788 00000000")}}},
        {"NTP", false, {{true, padded(pt::hex("23"), 48)}}},
        {"DHCP", false, {{true, dhcp_discover()}}},
        {"SNMP",
         false,
         {{true, pt::hex("3018 020101 0406 7075626c6963 a00b 020101 020100 020100 3000")}}},
        {"Kerberos", false, {{true, pt::hex("6a10 300e a103020105 a20302010a a3023000")}}},
        {"Kerberos", true, {{true, pt::hex("00000012 6a10 300e a103020105 a20302010a a3023000")}}},
        {"LDAP", true, {{true, pt::hex("300c 020101 6007 020103 0400 8000")}}},
        {"Syslog", false, {{true, pt::text("<34>Oct 11 22:14:15 mymachine su: 'su root' failed")}}},
        {"NetBIOS", false, {{true, nbns}}},
        {"TFTP", false, {{true, pt::text(std::string("\0\1file1\0octet\0", 14))}}},
        {"BitTorrent",
         false,
         {{true, pt::text("d1:ad2:id20:abcdefghij0123456789e1:q4:ping1:t2:aa1:y1:qe")}}},
        {"MDNS",
         false,
         {{true, pt::hex("0000 0000 0001 0000 0000 0000 05 5f68747470 04 5f746370 05 6c6f63616c 00 "
                         "000c 0001")}},
         5353},
        {"RTSP",
         true,
         {{true, pt::text("OPTIONS rtsp://cam.example/stream RTSP/1.0\r\nCSeq: 1\r\n\r\n")}}},
        {"ZeroMQ", true, {{true, pt::hex("ff 0000000000000001 7f 03")}}},
    };
    for (const auto &c : cases) {
        pt::owned_module m;
        std::vector<pt::packet> pk;
        pt::endpoint cl{"10.1.1.1", 40000}, sv{"10.2.2.2", c.server_port};
        if (c.tcp) {
            pt::tcp_conversation t(cl, sv);
            t.handshake();
            for (const auto &[from_client, payload] : c.exchange)
                from_client ? t.client_sends(payload) : t.server_sends(payload);
            pk = t.packets;
        } else {
            uint64_t ts = 1;
            for (const auto &[from_client, payload] : c.exchange)
                pk.push_back(
                    {from_client ? pt::ipv4_udp(cl, sv, payload) : pt::ipv4_udp(sv, cl, payload),
                     ts++});
        }
        auto f = pt::drive(m, pk);
        ASSERT_EQ(f.size(), 1u);
        EXPECT_EQ(f[0].name, c.expect) << c.expect << " #" << (&c - cases);
        EXPECT_FALSE(f[0].guessed) << c.expect;
        EXPECT_EQ(f[0].result.confidence, uint32_t(PELDA_CONFIDENCE_DPI)) << c.expect;
    }
}

// Payloads that resemble a protocol's without being it stay unknown.
TEST(Dissectors, NearMissesStayUnknown) {
    const std::pair<bool, bytes> cases[] = {
        {true, pt::text("SSH-3.0-future\r\n")},
        {true, pt::text("GETX / HTTP/1.1\r\n\r\n")},
        {true, pt::text("RFB 003.008")},       // no newline
        {true, pt::hex("16 03 05 00 10 01")},  // TLS version byte too high
        {false, pt::hex("0001 0004 2112a442 0102030405060708090a0b0c")},  // STUN length mismatch
        {false, padded(pt::hex("01000000"), 147)},  // WireGuard size off by one
        {false, pt::text("<999>too high a priority")},
        {false,
         pt::hex("3018 020109 0406 7075626c6963 a00b 020101 020100 020100 3000")},  // SNMP v10
    };
    for (const auto &[tcp, payload] : cases) {
        pt::owned_module m(false);
        std::vector<pt::packet> pk;
        pt::endpoint cl{"10.1.1.1", 40000}, sv{"10.2.2.2", 40001};
        if (tcp) {
            pt::tcp_conversation t(cl, sv);
            t.handshake();
            t.client_sends(payload);
            pk = t.packets;
        } else {
            pk = {{pt::ipv4_udp(cl, sv, payload), 1}};
        }
        auto f = pt::drive(m, pk);
        EXPECT_EQ(f[0].result.app_protocol, 0) << f[0].name << " " << hex_of(payload);
    }
}

// Extra dissection of the long-running protocols ends when nothing is left to read.
TEST(Dissectors, SmtpAndFtpExtraDissectionEnds) {
    {
        pt::owned_module m;
        pt::tcp_conversation t({"10.0.0.1", 40000}, {"10.0.0.2", 25});
        t.handshake();
        t.server_sends(pt::text("220 mx.example ESMTP\r\n"));
        t.client_sends(pt::text("EHLO client.example\r\n"));
        t.server_sends(pt::text("250-mx.example\r\n250 STARTTLS\r\n"));
        t.client_sends(pt::text("STARTTLS\r\n"));
        t.server_sends(pt::text("220 go ahead\r\n"));
        auto f = pt::drive(m, t.packets, extra());
        EXPECT_EQ(f[0].result.app_protocol, 3);
        EXPECT_EQ(f[0].result.state, uint32_t(PELDA_STATE_DONE));
        EXPECT_EQ(f[0].packet_decided, 7u);
    }
    {
        pt::owned_module m;
        pt::tcp_conversation t({"10.0.0.1", 40000}, {"10.0.0.2", 21});
        t.handshake();
        t.server_sends(pt::text("220 FTP ready\r\n"));
        t.client_sends(pt::text("USER bob\r\n"));
        t.server_sends(pt::text("331 password\r\n"));
        t.client_sends(pt::text("PASV\r\n"));
        t.server_sends(pt::text("227 Entering Passive Mode (10,0,0,2,195,80)\r\n"));
        t.client_sends(pt::text("QUIT\r\n"));
        auto flow = pt::new_flow();
        pelda_protocol r{};
        for (const auto &p : t.packets)
            r = pelda_detection_process_packet(m, flow.get(), p.ip.data(), uint32_t(p.ip.size()),
                                               p.time_ms, nullptr);
        EXPECT_EQ(r.app_protocol, 77);
        EXPECT_EQ(r.state, uint32_t(PELDA_STATE_DONE));
        EXPECT_STREQ(flow->proto.banner.client, "bob");
        EXPECT_EQ(flow->proto.banner.data_port, 195 * 256 + 80);
    }
}

// ---- Direction, give-up and guessing

TEST(Flow, FirstSynAckMakesItsSenderTheServer) {
    pt::owned_module m;
    auto flow = pt::new_flow();
    pt::endpoint cl{"10.0.0.1", 40000}, sv{"10.0.0.2", 40001};
    bytes synack = pt::ipv4_tcp(sv, cl, 10, 0x12, {});
    bytes req =
        pt::ipv4_tcp(cl, sv, 1, 0x18, pt::text("GET / HTTP/1.1\r\nHost: a.example\r\n\r\n"));
    pelda_detection_process_packet(m, flow.get(), synack.data(), uint32_t(synack.size()), 1,
                                   nullptr);
    pelda_protocol r =
        pelda_detection_process_packet(m, flow.get(), req.data(), uint32_t(req.size()), 2, nullptr);
    EXPECT_EQ(r.app_protocol, PELDA_PROTOCOL_HTTP);
    EXPECT_EQ(flow->client_port, 40000);
    EXPECT_EQ(flow->packets[pelda::kServer], 1u);
}

TEST(Flow, GiveUpGuessesByPortUnlessDisabled) {
    for (bool guess : {true, false}) {
        pt::owned_module m(guess);
        pt::tcp_conversation t({"10.0.0.1", 40000}, {"10.0.0.2", 3306});
        t.handshake();
        for (int i = 0; i < 12; ++i)
            t.client_sends(pt::text("opaque bytes"));
        auto f = pt::drive(m, t.packets);
        ASSERT_EQ(f.size(), 1u);
        EXPECT_TRUE(f[0].guessed);
        EXPECT_EQ(f[0].packet_decided, 13u);
        EXPECT_EQ(f[0].result.app_protocol, guess ? 20 : 0);
        EXPECT_EQ(f[0].result.confidence,
                  uint32_t(guess ? PELDA_CONFIDENCE_GUESS_PORT : PELDA_CONFIDENCE_UNKNOWN));
    }
}

TEST(Flow, GuessOtherIpProtocols) {
    pt::owned_module m;
    const std::pair<uint8_t, const char *> cases[] = {
        {1, "ICMP"},   {58, "ICMPv6"}, {2, "IGMP"},     {47, "GRE"},
        {50, "ESP"},   {51, "AH"},     {89, "OSPF"},    {132, "SCTP"},
        {112, "VRRP"}, {103, "PIM"},   {4, "IP_in_IP"}, {250, "Unknown"}};
    for (const auto &[proto, name] : cases) {
        pelda_protocol r =
            pelda_guess_undetected_protocol_v4(m, nullptr, proto, 0x0a000001, 0, 0x0a000002, 0);
        char buf[32];
        EXPECT_STREQ(pelda_protocol2name(m, {r.master_protocol, r.app_protocol}, buf, sizeof(buf)),
                     name);
        EXPECT_EQ(r.category, pelda_get_proto_category(m, r.app_protocol));
    }
    pelda_protocol r = pelda_guess_undetected_protocol_v4(m, nullptr, 17, 0, 40000, 0, 53);
    EXPECT_EQ(r.app_protocol, PELDA_PROTOCOL_DNS);
    EXPECT_EQ(r.confidence, uint32_t(PELDA_CONFIDENCE_GUESS_PORT));
    r = pelda_guess_undetected_protocol_v4(m, nullptr, 6, 0, 443, 0, 40000);
    EXPECT_EQ(r.app_protocol, PELDA_PROTOCOL_TLS);
}

TEST(Flow, NullAndMalformedInputsAreHarmless) {
    pt::owned_module m;
    auto flow = pt::new_flow();
    EXPECT_EQ(
        pelda_detection_process_packet(nullptr, flow.get(), nullptr, 0, 0, nullptr).app_protocol,
        0);
    EXPECT_EQ(pelda_detection_process_packet(m, nullptr, nullptr, 0, 0, nullptr).app_protocol, 0);
    EXPECT_EQ(pelda_detection_process_packet(m, flow.get(), nullptr, 0, 0, nullptr).app_protocol,
              0);
    bytes good = pt::ipv4_tcp({"10.0.0.1", 1}, {"10.0.0.2", 2}, 1, 0x18, pt::text("SSH-2.0-x\r\n"));
    for (size_t cut = 0; cut < 40 + 8; ++cut) {  // up to a payload that still reads "SSH-2.0-"
        auto f = pt::new_flow();
        pelda_protocol r =
            pelda_detection_process_packet(m, f.get(), good.data(), uint32_t(cut), 0, nullptr);
        EXPECT_EQ(r.app_protocol, 0) << cut;
    }
    EXPECT_EQ(pelda_detection_giveup(m, nullptr).app_protocol, 0);
    pelda_free_flow(nullptr);
}

}  // namespace
