// `quelm flows` end to end, and the exit statuses of every command.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <algorithm>

#include "flow_writer.h"
#include "packet_builder.h"
#include "pcapng_builder.h"
#include "tool_runner.h"

namespace quelm_test {
namespace {

using ::testing::HasSubstr;

const std::string kSample = QUELM_SAMPLES_DIR "/demo.pcap";
constexpr uint32_t kLinkEthernet = 1;

struct CapturedPacket {
    int64_t sec = 0, usec = 0;
    std::vector<uint8_t> data;
};

CapturedPacket at(int64_t sec, int64_t usec, const Frame &frame) {
    return {sec, usec, frame.build()};
}

Frame tcp(bool up, uint8_t flags, size_t payload = 0) {
    if (up)
        return Frame().eth().ipv4("10.0.0.1", "10.0.0.2").tcp(40000, 80, flags).payload(payload);
    return Frame().eth(kServerMac, kClientMac).ipv4("10.0.0.2", "10.0.0.1").tcp(80, 40000, flags);
}

// A TCP exchange, an IPv6 UDP flow, an ICMP echo and a VLAN-tagged UDP flow: four flows.
const std::vector<CapturedPacket> kMixed = {
    at(1000, 100000, tcp(true, 0x02)),
    at(1000, 200000, tcp(false, 0x12)),
    at(1000, 300000, tcp(true, 0x10, 100)),
    at(1000, 500000, Frame().eth().ipv6("2001:db8::1", "2001:db8::2").udp(5353, 53).payload(20)),
    at(1000, 600000, Frame().eth().ipv4("10.0.0.1", "10.0.0.3").icmp(8, 0)),
    at(1000, 700000, Frame().eth().vlan(100).ipv4("192.168.1.1", "192.168.1.2").udp(1000, 2000)),
    at(1001, 0, tcp(false, 0x11))};

CapturedPacket u(int64_t sec, uint16_t sport, uint16_t vlan = 0, const Mac &mac = kClientMac) {
    Frame f;
    f.eth(mac);
    if (vlan != 0) f.vlan(vlan);
    return at(sec, 0, f.ipv4("10.0.0.1", "10.0.0.2").udp(sport, 7));
}

class FlowsTool : public ::testing::Test {
  protected:
    // A pcap file in the machine's byte order; `cut_last` bytes cut from its end.
    std::string capture(const std::string &name, const std::vector<CapturedPacket> &packets,
                        uint32_t link_type = kLinkEthernet, size_t cut_last = 0) {
        std::string b;
        auto put = [&b](std::initializer_list<uint32_t> words) {
            for (uint32_t v : words)
                b.append(reinterpret_cast<const char *>(&v), 4);
        };
        put({0xA1B2C3D4, 0x00040002, 0, 0, 262144, link_type});  // version 2.4, snapshot length
        for (const CapturedPacket &p : packets) {
            put({uint32_t(p.sec), uint32_t(p.usec), uint32_t(p.data.size()),
                 uint32_t(p.data.size())});
            b.append(p.data.begin(), p.data.end());
        }
        std::ofstream(tool.path(name), std::ios::binary) << b.substr(0, b.size() - cut_last);
        return tool.path(name);
    }
    // The same packets as pcapng, in the other byte order, after an interface of 802.15.4.
    Pcapng pcapng(const std::vector<CapturedPacket> &packets) {
        Pcapng file(true);
        file.interface(195, 0).interface(kLinkEthernet, 262144);
        for (const CapturedPacket &p : packets)
            file.packet(1, uint64_t(p.sec) * 1000000 + uint64_t(p.usec), p.data);
        return file;
    }
    ToolRunner tool;
};

TEST_F(FlowsTool, OutputsEqualTheirBaselines) {
    capture("mixed.pcap", kMixed);
    tool.write("mixed.pcapng", pcapng(kMixed).bytes());
    capture("cut.pcap", kMixed, kLinkEthernet, 10);
    Frame vxlan;
    vxlan.eth().ipv4("192.0.2.1", "192.0.2.2").udp(40000, 4789).bytes({8, 0, 0, 0, 0, 0, 42, 0});
    capture("vxlan.pcap", {at(1, 0, vxlan.eth().ipv4("10.9.0.1", "10.9.0.2").tcp(1234, 443, 2))});
    // No protocol in it: SMTP is guessed from the port.
    const Frame smtp = Frame().eth().ipv4("10.0.0.1", "10.0.0.2").tcp(40000, 25, 0x18).payload(30);
    capture("smtp.pcap", {at(1, 0, smtp), at(1, 1, smtp), at(1, 2, smtp)});
    tool.write("limits.conf", "[global]\ndpi_min_num_tcp_packets = 50\n");
    tool.write("rules.conf",
               "# drop the web\n[filter]\nHTTP = discard\nDNS = forward\n\n[shunt]\n"
               "SSH = 10\nTLS = 100\n");
    tool.write("more.txt", "DemoWeb host:www.demo.quelm.test\n");
    tool.write("web.conf", "[filter]\nHTTP.DemoWeb = user_2\n");
    tool.write("bad.rules",
               "HTTP = discard\n[filter]\nHTTPS = discard\nTLS = drop\nHTTP.Nothing = forward\n"
               "[shunt]\nDNS = many\nTLS = 300\n[global]\ncolour = blue\n[firewall]\n");
    const std::pair<const char *, const char *> cases[] = {
        {"mixed.json", "flows -r mixed.pcap --format json"},  // TCP, IPv6, ICMP, VLAN fields
        {"mixed.json", "flows -r mixed.pcapng --format json"},
        {"mixed.txt", "flows -r mixed.pcap"},  // [IPv6]:port, ICMP type/code, flags of TCP only
        {"vxlan.json", "flows -r vxlan.pcap --format json"},  // the outer flow only (VNI 42)
        {"cut.json", "flows -r cut.pcap --format json"},  // the flows before the damage; exit 65
        {"vxlan-tunnels.json", "flows -r vxlan.pcap --format json --tunnels"},
        {"smtp-noguess.json", "flows -r smtp.pcap --format json --no-guess"},
        {"demo.txt", "flows -r SAMPLE"},
        {"demo.json", "flows -r SAMPLE --format json"},  // request details, no answers
        {"demo-extra.json", "flows -r SAMPLE --format json --extra-dissection"},
        {"demo-nodpi.txt", "flows -r SAMPLE --no-dpi"},                        // every flow Unknown
        {"demo-stats.err", "flows -r SAMPLE --stats --slice 5 -w /dev/null"},  // timings left out
        {"demo-rules.json", "flows -r SAMPLE --format json --rules rules.conf"},  // actions
        // The rules file's packet limit leaves HTTP named; the command line's (1) wins over it.
        {"demo-80-limits.json", "flows --rules limits.conf -r SAMPLE --format json tcp port 80"},
        {"demo-80-1packet.json",
         "flows --rules limits.conf --dpi-tcp-packets 1 -r SAMPLE --format json tcp port 80"},
        // A protocol of a protocols file is listed, detected by its rule and usable in rules.
        {"protocols-more.txt", "protocols --protocols more.txt"},
        {"demo-more.json",
         "flows -r SAMPLE --format json --protocols more.txt --rules web.conf tcp"},
        {"bad-rules.err", "flows -r SAMPLE --rules bad.rules"},  // every bad line, then refused
    };
    for (const auto &[baseline, line] : cases) {
        const ToolResult r = tool.run(tool.words(line, {{"SAMPLE", kSample}}));
        const std::string name = baseline;
        ASSERT_EQ(r.exit_code, name == "cut.json" || name == "bad-rules.err" ? 65 : 0)
            << line << r.err;
        std::string out = r.out;
        std::istringstream err(r.err);
        for (std::string l; name.ends_with(".err") && std::getline(err, l);)
            if (!l.starts_with("elapsed") && !l.starts_with("packets per second")) out += l + "\n";
        expect_baseline(name, out);
    }
}

std::vector<CapturedPacket> one_per_second(int64_t from, int64_t to) {
    std::vector<CapturedPacket> packets;
    for (int64_t t = from; t <= to; t++)
        packets.push_back(u(t, 1));
    return packets;
}

// Expiry, table settings, inputs and filters.
TEST_F(FlowsTool, FlowsEndAsConfigured) {
    const std::vector<std::string> mixed = {"40000 flush 2", "5353 flush 1", "0 flush 1",
                                            "1000 flush 1"};
    const struct {
        const char *args;  // in.pcap holds the packets; head.pcap and tail.pcap, split after 3
        std::vector<CapturedPacket> packets;
        std::vector<std::string> expected;  // in any order: "<src_port> <reason> <pkts_toserver>"
    } cases[] = {
        // Idle since 100: a packet of 106 ends it, one of 105 does not.
        {"-r in.pcap --idle 5", {u(100, 1), u(105, 2), u(106, 2)}, {"1 idle 1", "2 flush 2"}},
        {"-r in.pcap --idle 5", {u(100, 1), u(105, 2), u(105, 1)}, {"1 flush 2", "2 flush 1"}},
        {"-r in.pcap --lifetime 10",
         {u(100, 1), u(110, 1), u(111, 1)},
         {"1 lifetime 2", "1 flush 1"}},
        {"-r in.pcap --slice 5", one_per_second(100, 112), {"1 slice 6", "1 slice 6", "1 flush 1"}},
        {"-r in.pcap", {u(1, 1, 10), u(1, 1, 20)}, {"1 flush 1", "1 flush 1"}},
        {"-r in.pcap --ignore-vlan", {u(1, 1, 10), u(1, 1, 20)}, {"1 flush 2"}},
        {"-r in.pcap", {u(1, 1), u(1, 1, 0, kServerMac)}, {"1 flush 2"}},
        {"-r in.pcap --mac-in-key", {u(1, 1), u(1, 1, 0, kServerMac)}, {"1 flush 1", "1 flush 1"}},
        {"-r in.pcap -c 3", one_per_second(100, 110), {"1 flush 3"}},
        {"-r in.pcap udp and src port 2", {u(1, 1), u(1, 2), u(1, 2)}, {"2 flush 2"}},
        {"-r in.pcap -F tcp.bpf", kMixed, {"40000 flush 2"}},
        {"-r -", kMixed, mixed},                       // standard input
        {"-r head.pcap -r tail.pcap", kMixed, mixed},  // one stream: TCP spans the two
    };
    tool.write("tcp.bpf", "# TCP only\nip proto 6 # to the end of the line\n");
    for (const auto &c : cases) {
        const std::string in = capture("in.pcap", c.packets);
        const size_t half = std::min<size_t>(3, c.packets.size());
        capture("head.pcap", {c.packets.begin(), c.packets.begin() + half});
        capture("tail.pcap", {c.packets.begin() + half, c.packets.end()});
        const ToolResult r = tool.run(tool.words(std::string("flows --format json ") + c.args), in);
        std::vector<std::string> got, expected = c.expected;
        for (const Json &rec : json_lines(r.out))
            got.push_back(text(rec.value("src_port", 0)) + " " + text(rec["quelm"]["reason"]) +
                          " " + text(rec["flow"]["pkts_toserver"]));
        std::sort(got.begin(), got.end());
        std::sort(expected.begin(), expected.end());
        EXPECT_EQ(got, expected) << c.args << "\n" << r.err << r.out;
    }
}

// A DNS query behind the link type's header (none for Ethernet and raw IP).
std::vector<CapturedPacket> query(uint32_t link_type, bool ipv6) {
    Frame f;
    ipv6 ? f.eth().ipv6("fd00::1", "fd00::2") : f.eth().ipv4("10.1.0.1", "10.1.0.2");
    f.udp(5000, 53).payload(12);
    const uint8_t hi = ipv6 ? 0x86 : 0x08, lo = ipv6 ? 0xDD : 0;  // the EtherType
    // Radiotap with no fields, then 802.11 data from the access point: DA, BSSID, SA.
    const std::vector<uint8_t> wifi = {0, 0,    8, 0,    0,    0,    0, 0, 0x08, 0x02, 0,  0, 2, 0,
                                       0, 0,    0, 0x0B, 1,    1,    1, 1, 1,    1,    2,  0, 0, 0,
                                       0, 0x0A, 0, 0,    0xAA, 0xAA, 3, 0, 0,    0,    hi, lo};
    std::map<uint32_t, std::vector<uint8_t>> headers = {
        {113, {0, 4, 0, 1, 0, 6, 2, 0, 0, 0, 0, 0x0A, 0, 0, hi, lo}},  // cooked: sent by this host
        {276, {hi, lo, 0, 0, 0, 0, 0, 3, 0, 1, 4, 6, 2, 0, 0, 0, 0, 0x0A, 0, 0}},
        {0, {uint8_t(ipv6 ? 10 : 2), 0, 0, 0}},  // the address family, in host order
        {108, {0, 0, 0, uint8_t(ipv6 ? 24 : 2)}},
        {9, {0xFF, 0x03, 0, uint8_t(ipv6 ? 0x57 : 0x21)}},
        {107, {0x18, 0x41, 0x03, uint8_t(ipv6 ? 0x8E : 0xCC)}},
        {127, wifi}};
    std::vector<uint8_t> &data = headers[link_type];
    const std::vector<uint8_t> rest = link_type == kLinkEthernet ? f.build() : f.build_ip();
    data.insert(data.end(), rest.begin(), rest.end());
    return {{7, 0, data}};
}

// Under every link type the record is the one of Ethernet; only cooked captures and 802.11 know
// the sender's MAC.
TEST_F(FlowsTool, LinkHeadersAreAdaptedToEthernet) {
    auto record = [this](uint32_t link_type, bool ipv6) {
        capture("link.pcap", query(link_type, ipv6), link_type);
        const std::vector<Json> records =
            json_lines(tool.run({"flows", "-r", "link.pcap", "--format", "json"}).out);
        return records.size() == 1 ? records[0] : Json::object();
    };
    for (const std::string link : {"113", "113 v6", "276", "101", "101 v6", "228", "229 v6", "0",
                                   "0 v6", "108", "9", "107 v6", "127 v6"}) {
        SCOPED_TRACE("link type " + link);
        const uint32_t link_type = std::stoul(link);
        const bool ipv6 = link.find("v6") != std::string::npos;
        Json ethernet = record(kLinkEthernet, ipv6), got = record(link_type, ipv6);
        const bool cooked = link_type == 113 || link_type == 276 || link_type == 127;
        EXPECT_EQ(got.value("/ether/src_mac"_json_pointer, ""),
                  cooked ? "02:00:00:00:00:0a" : "00:00:00:00:00:00");
        ethernet.erase("ether");
        got.erase("ether");
        EXPECT_EQ(got, ethernet);
    }
}

// Every way a command is refused, with its exit status and part of the message that says why.
TEST_F(FlowsTool, ExitStatusesTellWhatWentWrong) {
    capture("good.pcap", kMixed);
    capture("zigbee.pcap", kMixed, 195);
    capture("cut.pcap", kMixed, kLinkEthernet, 10);
    tool.write("garbage.pcap", "this is not a capture file at all");
    const std::vector<uint8_t> udp = Frame().ipv4("10.0.0.1", "10.0.0.2").udp(1, 2).build();
    tool.write("zigbee.pcapng", Pcapng().interface(195, 0).packet(0, 0, udp).bytes());
    // 802.15.4, Ethernet and raw IP
    const std::string three =
        pcapng(kMixed).interface(101, 0).packet(2, 2e9, udp).packet(0, 2e9, udp).bytes();
    tool.write("three.pcapng", three);
    tool.write("cut.pcapng", three.substr(0, three.size() - 1));
    tool.write("bad.key", "not a key");
    tool.write("bad.allow", "# a comment, a blank line and no key\n\nnot a key\n");
    tool.write("secret.allow", "secret-key " + std::string(40, '0') + "\n");
    tool.write("good.rules",
               "; comment\n[filter]\nTLS = discard\nHTTP.SSH = user_1\n[shunt]\n"
               "default = 0\nudp=5\n[global]\ndefault = forward\ndpi_min_num_udp_packets = 3\n");
    tool.write("bad.protocols", "CorpApp tcp:8443\nBroken tcp:99999\n");
    tool.write("bad.categories", "NoSuchCategory host:a.example\n");
    const std::tuple<const char *, int, const char *> cases[] = {
        {"keygen -o k", 0, ""},  // the key of the collector's rows
        {"keygen -o no/k", 73, "no/k"},
        {"", 64, "flows"},
        {"flows", 64, "-r FILE"},
        {"flows -r GOOD --colour", 64, "--colour"},
        {"flows -r GOOD -i lo", 64, "excludes"},
        {"flows -r GOOD --idle 0", 64, "--idle"},
        {"flows -r GOOD --format xml", 64, "--format"},
        {"flows -r GOOD tcp port", 64, "does not compile"},
        {"flows -r GOOD --no-dpi --rules GOOD", 64, "excludes"},
        {"flows -r GOOD --no-dpi --protocols GOOD", 64, "excludes"},
        {"flows -r GOOD --no-dpi --categories GOOD", 64, "excludes"},
        {"flows -r GOOD --no-dpi --extra-dissection", 64, "excludes"},
        {"flows -r GOOD --rules good.rules", 0, ""},
        {"flows -r GOOD --rules .", 66, "'.' is a directory; give a file"},
        {"flows -r GOOD --rules /dev/zero", 65, "'/dev/zero', line 1: a NUL byte"},
        {"flows -r GOOD --protocols .", 66, "'.' is a directory; give a file"},
        {"flows -r GOOD --categories /dev/zero", 65, "/dev/zero:1: NUL byte"},
        {"flows -r GOOD -F /dev/zero", 65, "'/dev/zero', line 1: a NUL byte"},
        {"flows -r GOOD --protocols bad.protocols", 65, "bad.protocols:2: bad port"},
        {"flows -r GOOD --protocols none.txt", 66, "cannot open 'none.txt'"},
        {"flows -r GOOD --categories bad.categories", 65, "bad.categories:1: unknown category"},
        {"flows -r nothing.pcap", 66, "No such file"},
        {"flows -r GOOD -r none", 66, "none"},
        {"flows -r .", 66, "directory"},
        {"flows -r GOOD -F no.bpf", 66, "no.bpf"},
        {"flows -r garbage.pcap", 65, "not a capture"},
        {"flows -r zigbee.pcap", 65, "IEEE802_15_4 (195) is not supported"},
        {"flows -r zigbee.pcapng", 65, "IEEE802_15_4"},
        {"flows -r three.pcapng", 0,
         "1 of 9 packets made no flow: of link type IEEE802_15_4 (195), which"},
        {"flows -r three.pcapng --stats", 0, "IEEE802_15_4 not read 1\nflows created        5"},
        {"flows -r three.pcapng --stats udp", 0, "flows created        2"},
        {"flows -r three.pcapng ether host 1:2:3:4:5:6", 64, "does not compile"},  // raw IP
        {"flows -r cut.pcapng -w /dev/null", 65, "damaged after 8 packets (a block cut short"},
        {"flows -r cut.pcap -w /dev/null", 65, "damaged after 6 packets"},
        {"flows -r GOOD -w no/out", 74, "cannot create"},
        {"flows -r GOOD -w /dev/full", 74, "No space left"},
        {"flows -r GOOD --zmq ANY --zmq-server-key NOKEY", 64,
         "the server key is not a CURVE public key"},
        {"flows -r GOOD --zmq ANY --zmq-server-key @no.pub", 66, "cannot open 'no.pub'"},
        {"flows -r GOOD --zmq nonsense://x --zmq-connect", 64, "cannot connect to nonsense://x"},
        // Without a server key the library's built-in one is used, and the user is told.
        {"flows -r GOOD --zmq ANY --zmq-timeout 0", 69,
         "only a collector holding its secret can read"},
        {"collect --secret-key bad.key", 64, "--bind ENDPOINT"},
        {"collect --bind ANY --secret-key no.key", 66, "cannot open 'no.key'"},
        {"collect --bind nonsense://x --secret-key k.key", 66, "cannot listen on nonsense://x"},
        {"collect --bind ANY --secret-key k.key -w no/out", 74, "no/out"},
        {"collect --bind ANY --secret-key k.key --allow-keys bad.allow", 65,
         "'bad.allow', line 3: not a"},
        {"collect --bind ANY --secret-key k.key --allow-keys secret.allow", 65,
         "allow', line 1: a secret"},
    };
    for (const auto &[line, exit_code, message] : cases) {
        const ToolResult r = tool.run(tool.words(line, {{"GOOD", "good.pcap"},
                                                        {"ANY", "tcp://127.0.0.1:*"},
                                                        {"NOKEY", std::string(40, '~')}}));
        EXPECT_EQ(r.exit_code, exit_code) << line << "\n" << r.err;
        EXPECT_THAT(r.err, HasSubstr(message)) << line;
        EXPECT_TRUE(exit_code != 64 || r.out.empty()) << line << ": written after a refusal";
    }
}

// Standard output a FIFO whose only reader is gone before the tool starts: writing fails (EPIPE).
TEST_F(FlowsTool, ClosedOutputPipeIsAnOutputError) {
    const char *script = R"(mkfifo pipe && exec 3<>pipe >pipe 3<&- && exec "$0" flows -r "$1")";
    const ToolResult r =
        tool.finish(tool.spawn({"sh", "-c", script, QUELM_TOOL_PATH, capture("m.pcap", kMixed)}));
    EXPECT_EQ(r.exit_code, 74);
    EXPECT_THAT(r.err, HasSubstr("Broken pipe"));
}

// Ctrl-C while the tool waits for more of a FIFO ends the input: the flows are written, exit 0.
TEST_F(FlowsTool, InterruptWhileReadingAFifoWritesTheFlows) {
    for (const std::string &bytes :
         {read_file(capture("m.pcap", kMixed)), pcapng(kMixed).bytes()}) {
        const std::string fifo = tool.path("fifo");
        ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
        const pid_t pid = tool.spawn({QUELM_TOOL_PATH, "flows", "-r", fifo, "--format", "json"});
        const int fd = open(fifo.c_str(), O_WRONLY | O_CLOEXEC);  // the writer stays: no end
        ASSERT_EQ(write(fd, bytes.data(), bytes.size()), ssize_t(bytes.size()));
        // Read when the FIFO is empty and the tool asleep, waiting for more.
        EXPECT_TRUE(eventually([fd, pid] {
            int unread = 0;
            const std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
            return ioctl(fd, FIONREAD, &unread) == 0 && unread == 0 &&
                   stat.substr(stat.rfind(')') + 2, 1) == "S";
        }));
        kill(pid, SIGINT);
        const ToolResult r = tool.finish(pid);
        close(fd);
        unlink(fifo.c_str());
        EXPECT_EQ(r.exit_code, 0) << r.err;
        EXPECT_EQ(json_lines(r.out).size(), 4u) << r.err;
        EXPECT_THAT(r.out, HasSubstr("\"reason\":\"shutdown\"")) << "the flush after Ctrl-C";
    }
}

bool shell(const std::string &command) {
    return system(command.c_str()) == 0;
}

// Live capture in a network namespace (root only): idle flows end while the link is quiet, and
// SIGINT writes the flows still open.
TEST(LiveCapture, QuietLinkExpiresIdleFlowsAndInterruptFlushesTheRest) {
    if (geteuid() != 0) GTEST_SKIP() << "live capture in a network namespace needs root";
    const std::string ns = "quelm-tool-test-" + std::to_string(getpid());
    if (!shell("ip netns add " + ns + " 2>/dev/null && ip -n " + ns + " link set lo up"))
        GTEST_SKIP() << "cannot make a network namespace (ip netns)";
    ToolRunner tool, pinger;
    const pid_t pid =
        tool.spawn({"ip", "netns", "exec", ns, QUELM_TOOL_PATH, "flows", "-i", "lo", "--idle", "1",
                    "--lifetime", "1", "--format", "json", "-w", tool.path("flows.json")});
    EXPECT_TRUE(tool.wait_for("stderr", "capturing on")) << tool.read("stderr");
    // One datagram that nothing follows: only the wall clock can end it.
    EXPECT_TRUE(shell("ip netns exec " + ns + " bash -c 'echo hello >/dev/udp/127.0.0.1/9999'"));
    const bool expired = tool.wait_for("flows.json", "\"dest_port\":9999");
    // Then echoes that never idle: a lifetime record shows them read and opens the flow to flush.
    const pid_t pinging =
        pinger.spawn({"ip", "netns", "exec", ns, "ping", "-i", "0.2", "127.0.0.1"});
    EXPECT_TRUE(tool.wait_for("flows.json", "\"reason\":\"lifetime\""));
    kill(pid, SIGINT);
    const ToolResult r = tool.finish(pid);
    kill(pinging, SIGINT);
    pinger.finish(pinging);
    EXPECT_TRUE(shell("ip netns delete " + ns));
    EXPECT_TRUE(expired) << "the idle flow was not written while the link was quiet";
    EXPECT_EQ(r.exit_code, 0) << r.err;
    int idle = 0, flushed = 0;
    for (const Json &rec : json_lines(tool.read("flows.json"))) {
        idle += rec.value("dest_port", 0) == 9999 && rec["flow"]["reason"] == "timeout" &&
                rec["in_iface"] == "lo";
        flushed += rec.value("icmp_type", -1) == 8 && rec["flow"]["reason"] == "shutdown";
    }
    EXPECT_EQ(std::pair(idle, flushed), std::pair(1, 1)) << tool.read("flows.json");
}

// A limit cuts the text, never a UTF-8 sequence in two (the rest of the escaping: test_export);
// DNS codes without a mnemonic are written by number.
TEST(FlowWriter, LimitsAndFallbacks) {
    using namespace quelm_tool;
    char out[16];
    EXPECT_EQ(std::string(out, format_json_string("abcdef", out, 3)), "\"abc\"");
    EXPECT_EQ(std::string(out, format_json_string("caf\xc3\xa9", out, 4)), "\"caf\\u00c3\"");
    EXPECT_EQ(dns_type_name(65280) + dns_rcode_name(11), "TYPE65280RCODE11");
}

}  // namespace
}  // namespace quelm_test
