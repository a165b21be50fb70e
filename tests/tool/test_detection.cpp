// End-to-end tests of detection in `quelm flows` and of `quelm protocols`: the bundled sample and
// real captures must get the protocols and details an analyst would name; rules and engine files
// must act, or be refused with the bad line named.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <set>

#include "capture_file.h"
#include "flow_writer.h"
#include "packet_builder.h"
#include "json_lite.h"
#include "tool_runner.h"

namespace quelm_test {
namespace {

const std::string kSample = QUELM_SAMPLES_DIR "/demo.pcap";
const std::string kCorpus = QUELM_CORPUS_DIR "/tcpdump/";

// "TCP 10.99.0.10:80 vlan 100 HTTP host=... url=... status=200": the server side (client ports
// change when the sample is remade), the protocol and every detail the record holds.
std::string describe(const Json &r) {
    std::string s = r["proto"].str() + " " + r["dest_ip"].str();
    if (r.has("dest_port")) s += ":" + std::to_string(r["dest_port"].u64());
    if (r.has("vlan")) s += " vlan " + std::to_string(r["vlan"].items[0].u64());
    s += " " + r["app_proto"].str();
    if (r["l7_guessed"].boolean) s += " (guessed)";
    if (r.has("http")) {
        const Json &h = r["http"];
        if (h.has("hostname")) s += " host=" + h["hostname"].str();
        if (h.has("url")) s += " url=" + h["url"].str();
        if (h.has("status")) s += " status=" + std::to_string(h["status"].u64());
    }
    if (r.has("tls")) {
        if (r["tls"].has("sni")) s += " sni=" + r["tls"]["sni"].str();
        if (r["tls"].has("cert_sha1")) s += " cert";
    }
    if (r.has("dns")) {
        const Json &d = r["dns"];
        s += " query=" + d["rrname"].str();
        if (d.has("rrtype"))
            s += " type=" + d["rrtype"].str() + "/" + std::to_string(d["rrtype_id"].u64());
        if (d.has("rcode"))
            s += " rcode=" + d["rcode"].str() + "/" + std::to_string(d["rcode_id"].u64());
    }
    if (r.has("action")) s += " action=" + r["action"].str();
    return s;
}

std::multiset<std::string> described(const ToolResult &r) {
    std::multiset<std::string> lines;
    for (const Json &rec : r.records())
        lines.insert(describe(rec));
    return lines;
}

std::string joined(const std::multiset<std::string> &lines) {
    std::string all;
    for (const std::string &l : lines)
        all += l + "\n";
    return all;
}

// Every expected line must be there as often as it is listed.
void expect_flows(const std::multiset<std::string> &got, const std::vector<std::string> &expected) {
    std::map<std::string, size_t> want;
    for (const std::string &e : expected)
        want[e]++;
    for (const auto &[line, count] : want)
        EXPECT_EQ(got.count(line), count) << line << "\nflows:\n" << joined(got);
}

class Detection : public ::testing::Test {
  protected:
    void SetUp() override {
        if (access(kSample.c_str(), R_OK) != 0) GTEST_SKIP() << kSample << " is not there";
    }
    std::string file(const std::string &name, const std::string &text) {
        std::ofstream(tool.path(name)) << text;
        return tool.path(name);
    }
    ToolRunner tool;
};

// ---- The sample ------------------------------------------------------------------------------

// Detection ends on the packet that names the protocol: host names, URLs, server names and DNS
// questions are known; the answers are not read.
TEST_F(Detection, SampleFlowsGetProtocolsAndRequestDetails) {
    const ToolResult r = tool.run({"flows", "-r", kSample, "--format", "json"});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    expect_flows(described(r),
                 {
                     "TCP 10.99.0.10:80 HTTP host=www.demo.quelm.test url=/index.html",
                     "TCP 10.99.0.10:80 HTTP host=www.demo.quelm.test url=/api/login",
                     "TCP 10.99.0.10:80 HTTP host=www.demo.quelm.test url=/missing.html",
                     "TCP 10.99.0.10:80 HTTP host=www.demo.quelm.test url=/report.txt",
                     "TCP fd00:99::10:80 HTTP host=www.demo.quelm.test url=/index.html",
                     "TCP 10.99.100.1:80 vlan 100 HTTP host=intranet.demo.quelm.test url=/",
                     "TCP 10.99.0.11:443 TLS sni=secure.demo.quelm.test",
                     "TCP 10.99.0.11:443 TLS sni=secure.demo.quelm.test",
                     "TCP fd00:99::12:443 TLS sni=login.demo.quelm.test",
                     "UDP 10.99.0.53:53 DNS query=nosuch.demo.quelm.test type=A/1",
                     "UDP 10.99.0.53:53 DNS query=demo.quelm.test type=MX/15",
                     "UDP 10.99.0.53:53 DNS query=demo.quelm.test type=TXT/16",
                     "UDP 10.99.0.53:53 DNS query=10.0.99.10.in-addr.arpa type=PTR/12",
                     "UDP 10.99.0.53:53 DNS query=www.demo.quelm.test type=AAAA/28",
                     "UDP fd00:99::53:53 DNS query=login.demo.quelm.test type=AAAA/28",
                     "TCP 10.99.0.53:53 DNS query=secure.demo.quelm.test type=A/1",
                     "TCP 10.99.0.22:22 SSH",
                     "ICMP 10.99.0.1 ICMP (guessed)",
                 });
    for (const Json &rec : r.records()) {
        EXPECT_FALSE(rec.has("dns") && rec["dns"].has("rcode")) << "no answer was read";
        EXPECT_FALSE(rec.has("http") && rec["http"].has("status")) << "no answer was read";
    }
}

TEST_F(Detection, ExtraDissectionAddsTheAnswers) {
    const ToolResult r =
        tool.run({"flows", "-r", kSample, "--format", "json", "--extra-dissection"});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    expect_flows(described(r),
                 {
                     "TCP 10.99.0.10:80 HTTP host=www.demo.quelm.test url=/index.html status=200",
                     "TCP 10.99.0.10:80 HTTP host=www.demo.quelm.test url=/api/login status=200",
                     "TCP 10.99.0.10:80 HTTP host=www.demo.quelm.test url=/missing.html status=404",
                     "TCP 10.99.0.10:80 HTTP host=www.demo.quelm.test url=/report.txt status=200",
                     "TCP 10.99.100.1:80 vlan 100 HTTP host=intranet.demo.quelm.test url=/ "
                     "status=200",
                     // TLS 1.2 shows its certificate; TLS 1.3 encrypts it.
                     "TCP 10.99.0.11:443 TLS sni=secure.demo.quelm.test cert",
                     "TCP 10.99.0.11:443 TLS sni=secure.demo.quelm.test",
                     "UDP 10.99.0.53:53 DNS query=nosuch.demo.quelm.test type=A/1 rcode=NXDOMAIN/3",
                     "UDP 10.99.0.53:53 DNS query=demo.quelm.test type=MX/15 rcode=NOERROR/0",
                     "UDP fd00:99::53:53 DNS query=login.demo.quelm.test type=AAAA/28 "
                     "rcode=NOERROR/0",
                     "TCP 10.99.0.53:53 DNS query=secure.demo.quelm.test type=A/1 rcode=NOERROR/0",
                 });
    size_t certificates = 0;
    for (const Json &rec : r.records()) {
        if (!rec.has("tls") || !rec["tls"].has("cert_sha1")) continue;
        const std::string &sha1 = rec["tls"]["cert_sha1"].str();
        EXPECT_EQ(sha1.size(), 40u);
        EXPECT_EQ(sha1.find_first_not_of("0123456789abcdef"), std::string::npos) << sha1;
        certificates++;
    }
    EXPECT_EQ(certificates, 1u);
}

TEST_F(Detection, TextLinesNameTheProtocol) {
    const ToolResult r = tool.run({"flows", "-r", kSample, "tcp", "port", "22"});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    ASSERT_EQ(r.lines().size(), 1u) << r.out;
    EXPECT_NE(r.out.find("][SSH]"), std::string::npos) << r.out;
}

TEST_F(Detection, NoDpiLeavesEveryFlowUnknown) {
    const ToolResult r = tool.run({"flows", "-r", kSample, "--format", "json", "--no-dpi"});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    const std::vector<Json> records = r.records();
    ASSERT_GT(records.size(), 40u);
    for (const Json &rec : records) {
        EXPECT_EQ(rec["app_proto"].str(), "Unknown");
        EXPECT_EQ(rec["app_proto_id"].items[0].u64() + rec["app_proto_id"].items[1].u64(), 0u);
        EXPECT_FALSE(rec["l7_guessed"].boolean);
        EXPECT_FALSE(rec.has("http") || rec.has("tls") || rec.has("dns"));
    }
}

// Per protocol: flows that ended (slices aside), packets and bytes, the most bytes first.
TEST_F(Detection, StatsAddProtocolTotalsSortedByBytes) {
    const ToolResult r = tool.run({"flows", "-r", kSample, "--stats", "--slice", "5", "-w",
                                   tool.path("flows.json"), "--format", "json"});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    const size_t table = r.err.find("application protocol");
    ASSERT_NE(table, std::string::npos) << r.err;
    std::istringstream rows(r.err.substr(table));
    std::string header, name;
    std::getline(rows, header);
    std::map<std::string, std::vector<uint64_t>> totals;
    std::vector<uint64_t> bytes_in_order;
    uint64_t flows, packets, bytes;
    while (rows >> name >> flows >> packets >> bytes) {
        totals[name] = {flows, packets, bytes};
        bytes_in_order.push_back(bytes);
    }
    EXPECT_TRUE(std::is_sorted(bytes_in_order.rbegin(), bytes_in_order.rend())) << r.err;
    // The same sums, computed from the records that were written.
    std::map<std::string, std::vector<uint64_t>> expected;
    std::ifstream written(tool.path("flows.json"));
    for (std::string line; std::getline(written, line);) {
        const Json rec = Json::parse(line);
        std::vector<uint64_t> &e = expected[rec["app_proto"].str()];
        e.resize(3);
        const Json &f = rec["flow"];
        e[0] += f["reason"].str() == "slice" ? 0 : 1;
        e[1] += f["pkts_toserver"].u64() + f["pkts_toclient"].u64();
        e[2] += f["bytes_toserver"].u64() + f["bytes_toclient"].u64();
    }
    EXPECT_EQ(totals, expected) << r.err;
    EXPECT_EQ(totals["HTTP"][0], 6u);
    EXPECT_EQ(totals["DNS"][0], 19u);
}

// ---- Options that change detection ---------------------------------------------------------

// A TCP flow to the SMTP port whose payload is no protocol at all: detection gives up and guesses
// from the port, unless told not to guess.
std::vector<CapturedPacket> opaque_smtp_port() {
    std::vector<CapturedPacket> packets;
    for (int i = 0; i < 3; i++)
        packets.push_back(
            {1, i,
             Frame().eth().ipv4("10.0.0.1", "10.0.0.2").tcp(40000, 25, 0x18).payload(30).build(),
             0});
    return packets;
}

TEST_F(Detection, GuessingFollowsNoGuess) {
    const std::string capture = tool.path("smtp.pcap");
    CaptureFile::write_pcap(capture, opaque_smtp_port());
    for (const bool guess : {true, false}) {
        std::vector<std::string> args = {"flows", "-r", capture, "--format", "json"};
        if (!guess) args.push_back("--no-guess");
        const ToolResult r = tool.run(args);
        ASSERT_EQ(r.exit_code, 0) << r.err;
        const std::vector<Json> records = r.records();
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(records[0]["app_proto"].str(), guess ? "SMTP" : "Unknown");
        EXPECT_EQ(records[0]["l7_guessed"].boolean, guess);
    }
}

// The packet limit of the command line wins over the rules file's: with one TCP packet the
// handshake's SYN is all detection sees, so HTTP is only guessed from the port.
TEST_F(Detection, PacketLimitsOfTheCommandLineWinOverTheRulesFile) {
    const std::string rules = file("limits.conf", "[global]\ndpi_min_num_tcp_packets = 50\n");
    struct Case {
        std::vector<std::string> extra;
        bool guessed;
    } cases[] = {
        {{}, false},
        {{"--rules", rules}, false},
        {{"--dpi-tcp-packets", "1"}, true},
        {{"--rules", rules, "--dpi-tcp-packets", "1"}, true},
    };
    for (const Case &c : cases) {
        std::vector<std::string> args = {"flows", "-r",  kSample, "--format",
                                         "json",  "tcp", "port",  "80"};
        args.insert(args.begin() + 1, c.extra.begin(), c.extra.end());
        const ToolResult r = tool.run(args);
        ASSERT_EQ(r.exit_code, 0) << r.err;
        const std::vector<Json> records = r.records();
        ASSERT_EQ(records.size(), 5u) << r.out;  // the filter leaves out VLAN 100
        for (const Json &rec : records) {
            EXPECT_EQ(rec["app_proto"].str(), "HTTP");
            EXPECT_EQ(rec["l7_guessed"].boolean, c.guessed) << describe(rec);
            EXPECT_EQ(rec.has("http"), !c.guessed) << describe(rec);
        }
    }
}

// Filters give a protocol's flows an action; a shunt discards a flow's packets beyond a count.
TEST_F(Detection, FilterAndShuntRulesSetTheFlowsAction) {
    const std::string rules =
        file("rules.conf",
             "# drop the web, keep DNS\n[filter]\nHTTP = discard\nDNS = forward\n\n[shunt]\n"
             "SSH = 10\nTLS = 100\n");
    const ToolResult r = tool.run({"flows", "-r", kSample, "--format", "json", "--rules", rules});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    size_t http = 0, dns = 0;
    for (const Json &rec : r.records()) {
        const std::string &proto = rec["app_proto"].str();
        const std::string action = rec.has("action") ? rec["action"].str() : "default";
        if (proto == "HTTP") {
            EXPECT_EQ(action, "discard") << describe(rec);
            http++;
        } else if (proto == "DNS") {
            EXPECT_EQ(action, "forward") << describe(rec);
            dns++;
        } else if (proto == "SSH") {
            EXPECT_EQ(action, "discard") << "29 packets, more than 10: " << describe(rec);
        } else {
            EXPECT_EQ(action, "default") << describe(rec);
        }
    }
    EXPECT_EQ(http, 6u);
    EXPECT_EQ(dns, 19u);
}

// ---- Files that are refused ----------------------------------------------------------------

struct FileCase {
    const char *name;
    const char *option;    // --rules, --protocols or --categories
    const char *contents;  // nullptr: the file does not exist
    int exit_code;
    std::vector<std::string> messages;  // parts of standard error; FILE stands for its path
};

void PrintTo(const FileCase &c, std::ostream *os) {
    *os << c.name;
}

class DetectionFiles : public Detection, public ::testing::WithParamInterface<FileCase> {};

TEST_P(DetectionFiles, AreRefusedWithTheLineNamed) {
    const FileCase &c = GetParam();
    const std::string path =
        c.contents != nullptr ? file("given.txt", c.contents) : tool.path("absent.txt");
    const ToolResult r = tool.run({"flows", "-r", kSample, c.option, path, "-w", "/dev/null"});
    EXPECT_EQ(r.exit_code, c.exit_code) << r.err;
    for (std::string m : c.messages) {
        for (size_t at; (at = m.find("FILE")) != std::string::npos;)
            m.replace(at, 4, path);
        EXPECT_NE(r.err.find(m), std::string::npos) << m << " in\n" << r.err;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, DetectionFiles,
    ::testing::Values(
        FileCase{"rules_good",
                 "--rules",
                 "; comment\n[filter]\nTLS = discard\nHTTP.SSH = user_1\n[shunt]\ndefault = 0\n"
                 "udp=5\n[global]\ndefault = forward\ndpi_min_num_udp_packets = 3\n",
                 0,
                 {}},
        FileCase{"rules_missing", "--rules", nullptr, 66, {"cannot open the rules file"}},
        FileCase{"rules_bad_lines",
                 "--rules",
                 "HTTP = discard\n[filter]\nHTTPS = discard\nTLS = drop\nHTTP.Nothing = forward\n"
                 "[shunt]\nDNS = many\nTLS = 300\n[global]\ncolour = blue\n[firewall]\n",
                 65,
                 {"FILE:1: a rule before any [section]", "FILE:3: unknown protocol 'HTTPS'",
                  "FILE:4: 'drop' is not an action", "FILE:5: unknown protocol 'HTTP.Nothing'",
                  "FILE:7: 'many' is not a packet count", "FILE:8: '300' is not a packet count",
                  "FILE:10: unknown setting 'colour'", "FILE:11: unknown section [firewall]",
                  "8 bad lines"}},
        FileCase{"protocols_bad",
                 "--protocols",
                 "CorpApp tcp:8443\nBroken tcp:99999\n",
                 65,
                 {"FILE:2", "was refused"}},
        FileCase{"protocols_missing", "--protocols", nullptr, 66, {"cannot open 'FILE'"}},
        FileCase{"categories_bad",
                 "--categories",
                 "NoSuchCategory host:a.example\n",
                 65,
                 {"FILE:1", "was refused"}}),
    [](const ::testing::TestParamInfo<FileCase> &info) { return info.param.name; });

TEST_F(Detection, OptionsOfDetectionNeedDetection) {
    for (const char *option : {"--rules", "--protocols", "--categories"}) {
        const ToolResult r = tool.run({"flows", "-r", kSample, "--no-dpi", option, kSample});
        EXPECT_EQ(r.exit_code, 64) << option;
        EXPECT_NE(r.err.find("excludes"), std::string::npos) << r.err;
    }
    const ToolResult r = tool.run({"flows", "-r", kSample, "--no-dpi", "--extra-dissection"});
    EXPECT_EQ(r.exit_code, 64);
}

// A protocol of a protocols file is listed, detected by its rule and usable in rules.
TEST_F(Detection, ProtocolsFileAddsProtocolsForListsRulesAndFlows) {
    const std::string protocols = file("protocols.txt", "DemoWeb host:www.demo.quelm.test\n");
    const ToolResult list = tool.run({"protocols", "--protocols", protocols});
    ASSERT_EQ(list.exit_code, 0) << list.err;
    EXPECT_NE(list.out.find("   109  DemoWeb\n"), std::string::npos) << list.out;

    const std::string rules = file("rules.conf", "[filter]\nHTTP.DemoWeb = user_2\n");
    const ToolResult r = tool.run({"flows", "-r", kSample, "--format", "json", "--protocols",
                                   protocols, "--rules", rules, "tcp", "port", "80"});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    expect_flows(described(r),
                 {"TCP 10.99.0.10:80 HTTP.DemoWeb host=www.demo.quelm.test url=/index.html "
                  "action=user_2",
                  "TCP fd00:99::10:80 HTTP.DemoWeb host=www.demo.quelm.test url=/index.html "
                  "action=user_2"});
    // The other host of the sample is no DemoWeb.
    const ToolResult vlan = tool.run({"flows", "-r", kSample, "--format", "json", "--protocols",
                                      protocols, "--rules", rules, "vlan", "and", "tcp"});
    expect_flows(described(vlan),
                 {"TCP 10.99.100.1:80 vlan 100 HTTP host=intranet.demo.quelm.test url=/"});
}

TEST_F(Detection, ProtocolsListsEveryProtocolAndCategory) {
    const ToolResult r = tool.run({"protocols"});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    for (const char *line : {"Protocols (109):\n", "     0  Unknown\n", "     5  DNS\n",
                             "     7  HTTP\n", "    91  TLS\n", "   108  IPsec_NAT_T\n",
                             "Categories (164):\n", "     5  Web\n", "   163  Custom_163\n"})
        EXPECT_NE(r.out.find(line), std::string::npos) << line;
    EXPECT_EQ(r.lines().size(), 1u + 109 + 1 + 1 + 164);
}

// ---- Real captures ---------------------------------------------------------------------------

struct CorpusCase {
    const char *file;
    std::vector<std::string> flows;  // as describe() writes them
};

TEST(DetectionCorpus, RealCapturesGetTheProtocolsAnAnalystWouldName) {
    if (access(kCorpus.c_str(), R_OK) != 0) GTEST_SKIP() << "no captures at " << kCorpus;
    const CorpusCase cases[] = {
        {"dns_udp.pcap",
         {"UDP 209.87.249.18:53 DNS query=www.tcpdump.org type=A/1 rcode=NOERROR/0"}},
        // By its payload on a port that is not DNS's.
        {"dns_tcp_8053.pcap",
         {"TCP 209.87.249.18:8053 DNS query=www.tcpdump.org type=A/1 rcode=NOERROR/0"}},
        {"accecn_handshake.pcap",
         {"TCP 66.228.43.12:80 HTTP host=66.228.43.12 url=/1M status=200"}},
        {"ssh.pcap", {"TCP 223.132.53.222:22 SSH"}},
        {"ntp.pcap", {"UDP 192.168.100.1:123 NTP"}},
        {"tftp.pcap", {"UDP 192.168.1.1:69 TFTP"}},
        {"dhcp-rfc3004.pcap", {"UDP 255.255.255.255:67 DHCP"}},
        {"ISAKMP_sa_setup.pcap", {"UDP 10.0.0.2:500 IKE"}},
        {"RADIUS-port1700.pcap", {"UDP 127.0.0.1:1700 RADIUS"}},
        {"afs.pcap", {"UDP 131.151.1.60:88 Kerberos"}},
        {"gquic.pcap", {"UDP 216.58.195.67:443 QUIC"}},
        {"bgp-4byte-asn.pcap", {"TCP 1.0.2.1:179 BGP"}},
        {"eapon1.pcap", {"UDP 239.255.255.250:1900 SSDP", "UDP 192.168.1.255:138 NetBIOS"}},
    };
    ToolResult r;
    for (const CorpusCase &c : cases) {
        SCOPED_TRACE(c.file);
        ToolRunner tool;
        r = tool.run({"flows", "-r", kCorpus + c.file, "--format", "json", "--extra-dissection"});
        ASSERT_EQ(r.exit_code, 0) << r.err;
        const std::multiset<std::string> got = described(r);
        for (const std::string &want : c.flows)
            EXPECT_GE(got.count(want), 1u) << want << "\nflows:\n" << joined(got);
    }
}

// ---- Formatting helpers ----------------------------------------------------------------------

TEST(JsonText, IsAlwaysValidUtf8AndBounded) {
    struct Case {
        std::string in;
        size_t max_len;
        std::string out;
    } cases[] = {
        {"plain", SIZE_MAX, "\"plain\""},
        {"quote\" back\\slash", SIZE_MAX, "\"quote\\\" back\\\\slash\""},
        {"tab\there", SIZE_MAX, "\"tab\\u0009here\""},
        {"caf\xc3\xa9", SIZE_MAX, "\"caf\xc3\xa9\""},             // valid UTF-8 stays
        {"bad\xff", SIZE_MAX, "\"bad\\u00ff\""},                  // a stray byte
        {"cut\xc3", SIZE_MAX, "\"cut\\u00c3\""},                  // a sequence cut short
        {"\xc0\xaf", SIZE_MAX, "\"\\u00c0\\u00af\""},             // an overlong form
        {"\xed\xa0\x80", SIZE_MAX, "\"\\u00ed\\u00a0\\u0080\""},  // a surrogate
        {"\xf0\x9f\x98\x80", SIZE_MAX, "\"\xf0\x9f\x98\x80\""},   // four bytes
        {"abcdef", 3, "\"abc\""},
        {"caf\xc3\xa9", 4, "\"caf\\u00c3\""},  // the limit cuts a sequence: escaped, still valid
    };
    for (const Case &c : cases) {
        char out[128];
        const size_t n = quelm_tool::format_json_string(c.in.c_str(), out, c.max_len);
        EXPECT_EQ(std::string(out, n), c.out) << c.in;
    }
}

TEST(DnsNames, MnemonicsAndFallbacks) {
    EXPECT_EQ(quelm_tool::dns_type_name(1), "A");
    EXPECT_EQ(quelm_tool::dns_type_name(28), "AAAA");
    EXPECT_EQ(quelm_tool::dns_type_name(65), "HTTPS");
    EXPECT_EQ(quelm_tool::dns_type_name(65280), "TYPE65280");
    EXPECT_EQ(quelm_tool::dns_rcode_name(0), "NOERROR");
    EXPECT_EQ(quelm_tool::dns_rcode_name(3), "NXDOMAIN");
    EXPECT_EQ(quelm_tool::dns_rcode_name(10), "NOTZONE");
    EXPECT_EQ(quelm_tool::dns_rcode_name(11), "RCODE11");
}

}  // namespace
}  // namespace quelm_test
