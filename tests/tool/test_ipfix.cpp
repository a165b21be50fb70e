// IPFIX messages byte by byte, and `quelm flows --ipfix` into a real collector (nfcapd), read back
// with nfdump against the tool's own JSON records.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <set>

#include "ipfix_export.h"
#include "tool_runner.h"

namespace quelm_test {
namespace {

using quelm_tool::IpfixFlow;
using quelm_tool::IpfixMessages;

std::string hex(const std::vector<uint8_t> &bytes) {
    std::string s;
    char two[3];
    for (const uint8_t b : bytes) {
        snprintf(two, sizeof two, "%02x", b);
        s += two;
    }
    return s;
}

// Hex digits with spaces between fields for reading.
std::string packed(std::string text) {
    text.erase(std::remove(text.begin(), text.end(), ' '), text.end());
    return text;
}

// Fields up to the strings, which both families share: reverse elements carry 29305 (7279).
const std::string kTemplateTail =
    "0007 0002 000b 0002 0004 0001 0006 0002 8006 0002 00007279 0001 0008 0002 0008 "
    "8001 0008 00007279 8002 0008 00007279 003a 0002 ";
const std::string kStrings = "0060 ffff 8001 ffff 00007ed9 8002 ffff 00007ed9 8003 ffff 00007ed9";

TEST(IpfixMessages, TemplatesAndOneRecordOfEachFamily) {
    IpfixMessages m(7, 1400);
    EXPECT_EQ(hex(m.templates(0x5f000000)),
              packed("000a 00ec 5f000000 00000000 00000007  0002 00dc "
                     "0100 0014 0098 0008 0099 0008 0008 0004 000c 0004 " +
                     kTemplateTail + "0020 0002 0088 0001 " + kStrings +
                     "0101 0014 0098 0008 0099 0008 001b 0010 001c 0010 " + kTemplateTail +
                     "008b 0002 0088 0001 " + kStrings));

    IpfixFlow v4;
    v4.saddr = {10, 0, 0, 1};
    v4.daddr = {192, 168, 1, 2};
    v4.sport = 40000, v4.dport = 80, v4.protocol = 6, v4.vlan = 10;
    v4.start_ms = 1000, v4.end_ms = 2500;
    v4.bytes[0] = 500, v4.packets[0] = 5, v4.bytes[1] = 3000, v4.packets[1] = 4;
    v4.tcp_flags[0] = 0x1a, v4.tcp_flags[1] = 0x12;
    v4.end_reason = 1, v4.application = "HTTP", v4.http_host = "a.b";
    IpfixFlow v6;
    v6.ip_version = 6;
    v6.saddr[15] = 1;
    v6.daddr = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2};
    v6.sport = 5353, v6.dport = 53, v6.protocol = 17;
    v6.bytes[0] = 80, v6.packets[0] = 1, v6.bytes[1] = 120, v6.packets[1] = 1;
    v6.icmp_type_code = 0x8000, v6.end_reason = 4, v6.application = "DNS";
    v6.dns_query = "example.org";
    ASSERT_TRUE(m.add(v4));
    ASSERT_TRUE(m.add(v6));
    EXPECT_EQ(hex(m.take(0x5f000001)),
              packed("000a 00d9 5f000001 00000000 00000007  0100 0055 "
                     "00000000000003e8 00000000000009c4 0a000001 c0a80102 9c40 0050 06 001a 0012 "
                     "00000000000001f4 0000000000000005 0000000000000bb8 0000000000000004 "
                     "000a 0000 01 0448545450 03612e62 00 00 "
                     "0101 0074 "
                     "00000000000000000000000000000000 00000000000000000000000000000001 "
                     "20010db8000000000000000000000002 14e9 0035 11 0000 0000 "
                     "0000000000000050 0000000000000001 0000000000000078 0000000000000001 "
                     "0000 8000 04 03444e53 00 00 0b6578616d706c652e6f7267"));
    // Names longer than 255 bytes are cut, with the three-byte length form.
    v4.http_host.assign(300, 'h');
    ASSERT_TRUE(m.add(v4));
    EXPECT_EQ(hex(m.take(0)).substr(2 * (16 + 4 + 70 + 5), 8), "ff00ff68");
}

// Sequence numbers count the data records sent before a message; templates count none.
TEST(IpfixMessages, BatchesBelowTheLimitAndCountsRecords) {
    IpfixMessages m(0, 1400);
    IpfixFlow flow;
    flow.application = "Unknown";
    size_t first = 0;
    while (m.add(flow))
        first++;
    const std::vector<uint8_t> full = m.take(0);
    EXPECT_LE(full.size(), 1400u);
    EXPECT_GT(full.size() + 81, 1400u);  // one more record (81 bytes) would not have fitted
    EXPECT_EQ(hex(full).substr(16, 8), "00000000");
    ASSERT_TRUE(m.add(flow));
    ASSERT_TRUE(m.add(flow));
    EXPECT_EQ(hex(m.take(0)).substr(16, 8), "000000" + hex({uint8_t(first)}));
    EXPECT_EQ(hex(m.templates(0)).substr(16, 8), "000000" + hex({uint8_t(first + 2)}));
    m.restart();  // a new connection
    EXPECT_EQ(hex(m.templates(0)).substr(16, 8), "00000000");
}

// A port nobody uses now (the collector takes it a moment later: a small race).
int free_port(int type) {
    const int fd = socket(AF_INET, type, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    bind(fd, reinterpret_cast<sockaddr *>(&a), len);
    getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
    close(fd);
    return ntohs(a.sin_port);
}

// Datagrams waiting in the receive queue of the UDP socket bound to 127.0.0.1:port, or -1.
int udp_backlog(int port) {
    std::istringstream in(read_file("/proc/net/udp"));
    char local[32];
    snprintf(local, sizeof local, "0100007F:%04X", port);
    for (std::string line; std::getline(in, line);) {
        std::istringstream fields(line);
        std::string slot, address, remote, state, queues;
        fields >> slot >> address >> remote >> state >> queues;
        if (address == local) return std::stoi(queues.substr(queues.find(':') + 1), nullptr, 16);
    }
    return -1;
}

// One line per record of the fields under `names` (JSON pointers; "a|b": b where the record has
// no a); a field left out (ICMP ports, nfdump's counters of 0) reads 0.
std::multiset<std::string> flows_of(const std::vector<Json> &records,
                                    const std::vector<std::string> &names) {
    std::multiset<std::string> flows;
    for (const Json &r : records) {
        std::string line;
        for (const std::string &name : names) {
            const size_t bar = name.find('|');
            const bool first = bar == std::string::npos || r.contains(name.substr(0, bar));
            const std::string key = first ? name.substr(0, bar) : name.substr(bar + 1);
            line += text(r.value(Json::json_pointer("/" + key), Json(0))) + " ";
        }
        flows.insert(line);
    }
    return flows;
}

TEST(IpfixExport, ACollectorReadsWhatTheToolWrites) {
    if (access("/usr/bin/nfcapd", X_OK) != 0 || access("/usr/bin/nfdump", X_OK) != 0)
        GTEST_SKIP() << "nfcapd and nfdump are missing (Debian package nfdump; scripts/setup)";
    const std::string sample = QUELM_SAMPLES_DIR "/demo.pcap";
    ToolRunner collector, tool;
    const std::string port = std::to_string(free_port(SOCK_DGRAM));
    std::filesystem::create_directory(collector.path("flows"));
    const pid_t nfcapd = collector.spawn(
        collector.words("/usr/bin/nfcapd -b 127.0.0.1 -p PORT -w flows", {{"PORT", port}}));
    struct Stop {  // on any failure below
        pid_t pid;
        ~Stop() {
            if (pid > 0 && kill(pid, SIGTERM) == 0) waitpid(pid, nullptr, 0);
        }
    } stop{nfcapd};
    ASSERT_TRUE(collector.wait_for("stderr", "Startup nfcapd."));
    const ToolResult sent = tool.run({"flows", "-r", sample, "--ipfix", "udp://127.0.0.1:" + port});
    ASSERT_EQ(sent.exit_code, 0) << sent.err;
    EXPECT_TRUE(eventually([&] { return udp_backlog(std::stoi(port)) == 0; }));
    kill(nfcapd, SIGTERM);  // writes and closes its file
    stop.pid = -1;
    ASSERT_EQ(collector.finish(nfcapd).exit_code, 0);
    std::string file;
    for (const auto &entry : std::filesystem::directory_iterator(collector.path("flows")))
        file = entry.path();
    const ToolResult dump = tool.finish(tool.spawn({"/usr/bin/nfdump", "-r", file, "-o", "json"}));
    const ToolResult json = tool.run({"flows", "-r", sample, "--format", "json"});
    std::vector<Json> records = json_lines(json.out);
    const std::map<std::string, int> numbers = {
        {"TCP", 6}, {"UDP", 17}, {"ICMP", 1}, {"IPv6-ICMP", 58}};
    for (Json &r : records)
        r["proto"] = numbers.at(r["proto"]);
    const std::multiset<std::string> expected = flows_of(
        records, {"proto", "src_ip", "src_port", "dest_ip", "dest_port", "flow/pkts_toserver",
                  "flow/bytes_toserver", "flow/pkts_toclient", "flow/bytes_toclient"});
    EXPECT_EQ(expected.size(), 48u);
    EXPECT_EQ(flows_of(Json::parse(dump.out).get<std::vector<Json>>(),
                       {"proto", "src4_addr|src6_addr", "src_port", "dst4_addr|dst6_addr",
                        "dst_port", "in_packets", "in_bytes", "out_packets", "out_bytes"}),
              expected)
        << dump.err;
}

// A TCP collector that is not there: every record is counted as not sent, and the run says so.
TEST(IpfixExport, RecordsWithoutACollectorAreCounted) {
    ToolRunner tool;
    const std::string url = "tcp://127.0.0.1:" + std::to_string(free_port(SOCK_STREAM));
    const ToolResult r =
        tool.run({"flows", "-r", QUELM_SAMPLES_DIR "/demo.pcap", "--ipfix", url, "--stats"});
    EXPECT_EQ(r.exit_code, 75);
    EXPECT_NE(r.err.find("warning: 48 IPFIX records not sent to " + url +
                         ": 48 without a "
                         "connection (last error: Connection refused)"),
              std::string::npos)
        << r.err;
    EXPECT_NE(r.err.find("0 records to " + url + ", 48 not sent"), std::string::npos) << r.err;
}

}  // namespace
}  // namespace quelm_test
