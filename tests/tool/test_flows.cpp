// End-to-end tests of `quelm flows`: generated captures go in, records and exit codes come out.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <set>

#include "capture_file.h"
#include "packet_builder.h"
#include "json_lite.h"
#include "tool_runner.h"

namespace quelm_test {
namespace {

CapturedPacket at(int64_t sec, int64_t usec, const Frame &frame) {
    return {sec, usec, frame.build(), 0};
}

// A TCP exchange, an IPv6 UDP flow, an ICMP echo and a VLAN-tagged UDP flow: four flows.
std::vector<CapturedPacket> mixed_traffic() {
    auto tcp = [](bool to_server, uint8_t flags, size_t payload) {
        Frame f;
        if (to_server)
            f.eth(kClientMac, kServerMac).ipv4("10.0.0.1", "10.0.0.2").tcp(40000, 80, flags);
        else
            f.eth(kServerMac, kClientMac).ipv4("10.0.0.2", "10.0.0.1").tcp(80, 40000, flags);
        return f.payload(payload);
    };
    return {
        at(1000, 100000, tcp(true, 0x02, 0)),
        at(1000, 200000, tcp(false, 0x12, 0)),
        at(1000, 300000, tcp(true, 0x10, 100)),
        at(1000, 500000,
           Frame().eth().ipv6("2001:db8::1", "2001:db8::2").udp(5353, 53).payload(20)),
        at(1000, 600000, Frame().eth().ipv4("10.0.0.1", "10.0.0.3").icmp(8, 0)),
        at(1000, 700000,
           Frame().eth().vlan(100).ipv4("192.168.1.1", "192.168.1.2").udp(1000, 2000).payload(4)),
        at(1001, 0, tcp(false, 0x11, 0)),
    };
}

std::map<uint64_t, Json> by_flow_id(const std::vector<Json> &records) {
    std::map<uint64_t, Json> flows;
    for (const Json &r : records)
        flows[r["flow_id"].u64()] = r;
    return flows;
}

class FlowsTool : public ::testing::Test {
  protected:
    std::string capture(const std::string &name, const std::vector<CapturedPacket> &packets,
                        uint32_t link_type = CaptureFile::kEthernet, size_t cut_last = 0) {
        const std::string file = tool.path(name);
        CaptureFile::write_pcap(file, packets, link_type, cut_last);
        return file;
    }
    ToolRunner tool;
};

// ---- Records -----------------------------------------------------------------------------------

TEST_F(FlowsTool, JsonRecordsCarryEveryFieldOfEachFlow) {
    const ToolResult r =
        tool.run({"flows", "-r", capture("mixed.pcap", mixed_traffic()), "--format", "json"});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    std::map<uint64_t, Json> flows = by_flow_id(r.records());
    ASSERT_EQ(flows.size(), 4u) << r.out;

    const Json &tcp = flows[0];
    EXPECT_EQ(tcp["timestamp"].str(), "1970-01-01T00:16:40.100000+0000");
    EXPECT_EQ(tcp["event_type"].str(), "flow");
    EXPECT_EQ(tcp["src_ip"].str(), "10.0.0.1");
    EXPECT_EQ(tcp["src_port"].u64(), 40000u);
    EXPECT_EQ(tcp["dest_ip"].str(), "10.0.0.2");
    EXPECT_EQ(tcp["dest_port"].u64(), 80u);
    EXPECT_EQ(tcp["proto"].str(), "TCP");
    EXPECT_FALSE(tcp.has("vlan"));
    EXPECT_FALSE(tcp.has("tunnel"));
    EXPECT_EQ(tcp["ether"]["src_mac"].str(), "02:00:00:00:00:0a");
    EXPECT_EQ(tcp["ether"]["dest_mac"].str(), "02:00:00:00:00:0b");
    const Json &f = tcp["flow"];
    EXPECT_EQ(f["pkts_toserver"].u64(), 2u);
    EXPECT_EQ(f["pkts_toclient"].u64(), 2u);
    EXPECT_EQ(f["bytes_toserver"].u64(), 54u + 154u);
    EXPECT_EQ(f["bytes_toclient"].u64(), 54u + 54u);
    EXPECT_EQ(f["start"].str(), "1970-01-01T00:16:40.100000+0000");
    EXPECT_EQ(f["end"].str(), "1970-01-01T00:16:41.000000+0000");
    EXPECT_EQ(f["age"].u64(), 1u);
    EXPECT_EQ(f["reason"].str(), "flush");
    EXPECT_EQ(tcp["tcp"]["tcp_flags_ts"].str(), "12");  // SYN | ACK
    EXPECT_EQ(tcp["tcp"]["tcp_flags_tc"].str(), "13");  // SYN | ACK | FIN
    EXPECT_EQ(tcp["tcp"]["tcp_flags"].str(), "13");

    const Json &v6 = flows[1];
    EXPECT_EQ(v6["src_ip"].str(), "2001:db8::1");
    EXPECT_EQ(v6["dest_port"].u64(), 53u);
    EXPECT_EQ(v6["proto"].str(), "UDP");
    EXPECT_EQ(v6["flow"]["bytes_toserver"].u64(), 40u + 8u + 20u);  // IPv6 leaves out the link
    EXPECT_EQ(v6["flow"]["pkts_toclient"].u64(), 0u);
    EXPECT_EQ(v6["flow"]["age"].u64(), 0u);
    EXPECT_FALSE(v6.has("tcp"));

    const Json &icmp = flows[2];
    EXPECT_EQ(icmp["proto"].str(), "ICMP");
    EXPECT_EQ(icmp["icmp_type"].u64(), 8u);
    EXPECT_EQ(icmp["icmp_code"].u64(), 0u);
    EXPECT_FALSE(icmp.has("src_port"));
    EXPECT_FALSE(icmp.has("dest_port"));

    const Json &vlan = flows[3];
    ASSERT_EQ(vlan["vlan"].items.size(), 1u);
    EXPECT_EQ(vlan["vlan"].items[0].u64(), 100u);
}

// Detection guesses HTTP from the port of a flow without payload.
TEST_F(FlowsTool, TextRecordsAreTheLibrarysLinePerFlow) {
    const ToolResult r = tool.run({"flows", "-r", capture("mixed.pcap", mixed_traffic())});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    const std::vector<std::string> lines = r.lines();
    EXPECT_EQ(lines.size(), 4u);
    EXPECT_NE(std::find(lines.begin(), lines.end(),
                        "[TCP] 10.0.0.1:40000 <-> 10.0.0.2:80 [208/108 bytes][2/2 pkts][vlan 0]"
                        "[TCP flags: 18/19][duration: 1 sec][HTTP]"),
              lines.end())
        << r.out;
}

TEST_F(FlowsTool, EveryFlowIsWrittenExactlyOnceAtTheEndOfTheInput) {
    std::vector<CapturedPacket> packets;
    for (int round = 0; round < 3; round++)
        for (uint16_t port = 1; port <= 300; port++)
            packets.push_back(
                at(50 + round, port, Frame().eth().ipv4("10.1.1.1", "10.2.2.2").udp(port, 9)));
    const ToolResult r =
        tool.run({"flows", "-r", capture("many.pcap", packets), "--format", "json"});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    std::set<uint64_t> ids, ports;
    for (const Json &rec : r.records()) {
        EXPECT_TRUE(ids.insert(rec["flow_id"].u64()).second) << "written twice";
        ports.insert(rec["src_port"].u64());
        EXPECT_EQ(rec["flow"]["pkts_toserver"].u64(), 3u);
        EXPECT_EQ(rec["flow"]["reason"].str(), "flush");
    }
    EXPECT_EQ(ids.size(), 300u);
    EXPECT_EQ(ports.size(), 300u);
}

// ---- Expiry and table settings -----------------------------------------------------------------

Frame udp_from(uint16_t sport) {
    return Frame().eth().ipv4("10.0.0.1", "10.0.0.2").udp(sport, 7);
}

struct SettingsCase {
    const char *name;
    std::vector<std::string> args;
    std::vector<CapturedPacket> packets;
    // Expected records, in any order: "<src_port> <reason> <pkts_toserver>".
    std::vector<std::string> expected;
};

void PrintTo(const SettingsCase &c, std::ostream *os) {
    *os << c.name;
}

class FlowsToolSettings : public FlowsTool, public ::testing::WithParamInterface<SettingsCase> {};

TEST_P(FlowsToolSettings, EndFlowsAsConfigured) {
    const SettingsCase &c = GetParam();
    std::vector<std::string> args = {"flows", "-r", capture("in.pcap", c.packets), "--format",
                                     "json"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const ToolResult r = tool.run(args);
    ASSERT_EQ(r.exit_code, 0) << r.err;
    std::vector<std::string> got;
    for (const Json &rec : r.records())
        got.push_back(std::to_string(rec["src_port"].u64()) + " " + rec["flow"]["reason"].str() +
                      " " + std::to_string(rec["flow"]["pkts_toserver"].u64()));
    std::vector<std::string> expected = c.expected;
    std::sort(got.begin(), got.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(got, expected) << r.out;
}

std::vector<CapturedPacket> one_per_second(uint16_t sport, int64_t from, int64_t to) {
    std::vector<CapturedPacket> packets;
    for (int64_t t = from; t <= to; t++)
        packets.push_back(at(t, 0, udp_from(sport)));
    return packets;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, FlowsToolSettings,
    ::testing::Values(
        // Last packet at 100; idle 5 ends it once a packet of second 106 drives housekeeping.
        SettingsCase{"idle",
                     {"--idle", "5"},
                     {at(100, 0, udp_from(1)), at(105, 0, udp_from(2)), at(106, 0, udp_from(2))},
                     {"1 idle 1", "2 flush 2"}},
        SettingsCase{"idle_not_yet",
                     {"--idle", "5"},
                     {at(100, 0, udp_from(1)), at(105, 0, udp_from(2)), at(105, 0, udp_from(1))},
                     {"1 flush 2", "2 flush 1"}},
        // Started at 100: 110 continues it, 111 ends it and opens a new flow.
        SettingsCase{"lifetime",
                     {"--lifetime", "10"},
                     {at(100, 0, udp_from(1)), at(110, 0, udp_from(1)), at(111, 0, udp_from(1))},
                     {"1 lifetime 2", "1 flush 1"}},
        SettingsCase{"slices",
                     {"--slice", "5"},
                     one_per_second(1, 100, 112),
                     {"1 slice 6", "1 slice 6", "1 flush 1"}},
        SettingsCase{"vlans_apart",
                     {},
                     {at(1, 0, Frame().eth().vlan(10).ipv4("10.0.0.1", "10.0.0.2").udp(1, 7)),
                      at(1, 1, Frame().eth().vlan(20).ipv4("10.0.0.1", "10.0.0.2").udp(1, 7))},
                     {"1 flush 1", "1 flush 1"}},
        SettingsCase{"ignore_vlan",
                     {"--ignore-vlan"},
                     {at(1, 0, Frame().eth().vlan(10).ipv4("10.0.0.1", "10.0.0.2").udp(1, 7)),
                      at(1, 1, Frame().eth().vlan(20).ipv4("10.0.0.1", "10.0.0.2").udp(1, 7))},
                     {"1 flush 2"}},
        SettingsCase{"macs_ignored",
                     {},
                     {at(1, 0, Frame().eth(kClientMac).ipv4("10.0.0.1", "10.0.0.2").udp(1, 7)),
                      at(1, 1, Frame().eth(kServerMac).ipv4("10.0.0.1", "10.0.0.2").udp(1, 7))},
                     {"1 flush 2"}},
        SettingsCase{"mac_in_key",
                     {"--mac-in-key"},
                     {at(1, 0, Frame().eth(kClientMac).ipv4("10.0.0.1", "10.0.0.2").udp(1, 7)),
                      at(1, 1, Frame().eth(kServerMac).ipv4("10.0.0.1", "10.0.0.2").udp(1, 7))},
                     {"1 flush 1", "1 flush 1"}},
        SettingsCase{"count", {"-c", "3"}, one_per_second(1, 100, 110), {"1 flush 3"}},
        SettingsCase{"filter_words",
                     {"udp", "and", "src", "port", "2"},
                     {at(1, 0, udp_from(1)), at(1, 1, udp_from(2)), at(1, 2, udp_from(2))},
                     {"2 flush 2"}}),
    [](const ::testing::TestParamInfo<SettingsCase> &info) { return info.param.name; });

TEST_F(FlowsTool, TunnelsOptionTracksTheInnerFlow) {
    const Frame vxlan = Frame()
                            .eth()
                            .ipv4("192.0.2.1", "192.0.2.2")
                            .udp(40000, 4789)
                            .bytes({0x08, 0, 0, 0, 0, 0, 42, 0})  // VXLAN, VNI 42
                            .eth()
                            .ipv4("10.9.0.1", "10.9.0.2")
                            .tcp(1234, 443, 0x02);
    const std::string file = capture("vxlan.pcap", {at(1, 0, vxlan)});

    const ToolResult outer = tool.run({"flows", "-r", file, "--format", "json"});
    ASSERT_EQ(outer.exit_code, 0) << outer.err;
    const std::vector<Json> outer_records = outer.records();
    ASSERT_EQ(outer_records.size(), 1u);
    EXPECT_EQ(outer_records[0]["dest_port"].u64(), 4789u);
    EXPECT_FALSE(outer_records[0].has("tunnel"));

    const ToolResult inner = tool.run({"flows", "-r", file, "--format", "json", "--tunnels"});
    ASSERT_EQ(inner.exit_code, 0) << inner.err;
    const std::vector<Json> records = inner.records();
    ASSERT_EQ(records.size(), 1u);
    const Json &rec = records[0];
    EXPECT_EQ(rec["src_ip"].str(), "10.9.0.1");
    EXPECT_EQ(rec["dest_port"].u64(), 443u);
    EXPECT_EQ(rec["tunnel"]["type"].str(), "vxlan");
    EXPECT_EQ(rec["tunnel"]["id"].u64(), 42u);
}

// ---- Inputs ------------------------------------------------------------------------------------

TEST_F(FlowsTool, StandardInputSeveralFilesAndFilterFileReadLikeOneFile) {
    const std::vector<CapturedPacket> all = mixed_traffic();
    const std::string whole = capture("whole.pcap", all);
    const ToolResult expected = tool.run({"flows", "-r", whole, "--format", "json"});
    ASSERT_EQ(expected.exit_code, 0) << expected.err;

    const ToolResult from_stdin = tool.run({"flows", "-r", "-", "--format", "json"}, whole);
    EXPECT_EQ(from_stdin.exit_code, 0) << from_stdin.err;
    EXPECT_EQ(from_stdin.out, expected.out);

    const std::string first = capture("first.pcap", {all.begin(), all.begin() + 3});
    const std::string rest = tool.path("rest.pcapng");
    CaptureFile::write_pcapng(rest, {all.begin() + 3, all.end()});
    const ToolResult split = tool.run({"flows", "-r", first, "-r", rest, "--format", "json"});
    EXPECT_EQ(split.exit_code, 0) << split.err;
    EXPECT_EQ(split.out, expected.out);

    std::ofstream(tool.path("filter.bpf")) << "# TCP only\nip proto 6 # comment\n";
    const ToolResult filtered =
        tool.run({"flows", "-r", whole, "-F", tool.path("filter.bpf"), "--format", "json"});
    EXPECT_EQ(filtered.exit_code, 0) << filtered.err;
    const std::vector<Json> records = filtered.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0]["proto"].str(), "TCP");
}

// The same request and reply under every link type the tool adapts.
struct LinkCase {
    const char *name;
    uint32_t link_type;
    bool ipv6;
    // The link header in front of a network packet sent by the client (or by the server).
    std::function<std::vector<uint8_t>(bool from_client, uint16_t ether_type)> header;
    const char *src_mac;
};

std::vector<uint8_t> sll(bool from_client, uint16_t type) {
    std::vector<uint8_t> h = {0, uint8_t(from_client ? 4 : 0), 0, 1, 0, 6};
    const Mac &mac = from_client ? kClientMac : kServerMac;
    h.insert(h.end(), mac.begin(), mac.end());
    h.insert(h.end(), {0, 0, uint8_t(type >> 8), uint8_t(type)});
    return h;
}

std::vector<uint8_t> sll2(bool from_client, uint16_t type) {
    std::vector<uint8_t> h = {
        uint8_t(type >> 8), uint8_t(type), 0, 0, 0, 0, 0, 3, 0, 1, uint8_t(from_client ? 4 : 0), 6};
    const Mac &mac = from_client ? kClientMac : kServerMac;
    h.insert(h.end(), mac.begin(), mac.end());
    h.insert(h.end(), {0, 0});
    return h;
}

std::vector<uint8_t> no_header(bool, uint16_t) {
    return {};
}

std::vector<uint8_t> null_header(bool, uint16_t type) {
    const uint32_t family = type == 0x0800 ? 2 : 10;  // as the capturing machine stored it
    std::vector<uint8_t> h(4);
    std::memcpy(h.data(), &family, 4);
    return h;
}

std::vector<uint8_t> loop_header(bool, uint16_t type) {
    return {0, 0, 0, uint8_t(type == 0x0800 ? 2 : 24)};
}

void PrintTo(const LinkCase &c, std::ostream *os) {
    *os << c.name;
}

class FlowsToolLinkTypes : public FlowsTool, public ::testing::WithParamInterface<LinkCase> {};

TEST_P(FlowsToolLinkTypes, AdaptTheLinkHeaderToEthernet) {
    const LinkCase &c = GetParam();
    const char *client = c.ipv6 ? "fd00::1" : "10.1.0.1";
    const char *server = c.ipv6 ? "fd00::2" : "10.1.0.2";
    const uint16_t type = c.ipv6 ? 0x86DD : 0x0800;
    auto packet = [&](bool from_client) {
        Frame f;
        f.eth();
        if (c.ipv6)
            f.ipv6(from_client ? client : server, from_client ? server : client);
        else
            f.ipv4(from_client ? client : server, from_client ? server : client);
        f.udp(from_client ? 5000 : 53, from_client ? 53 : 5000).payload(12);
        std::vector<uint8_t> network = f.build();
        network.erase(network.begin(), network.begin() + 14);
        std::vector<uint8_t> data = c.header(from_client, type);
        data.insert(data.end(), network.begin(), network.end());
        return data;
    };
    const std::vector<CapturedPacket> packets = {{7, 0, packet(true), 0}, {7, 5, packet(false), 0}};
    const ToolResult r =
        tool.run({"flows", "-r", capture("link.pcap", packets, c.link_type), "--format", "json"});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    const std::vector<Json> records = r.records();
    ASSERT_EQ(records.size(), 1u) << r.out;
    const Json &rec = records[0];
    EXPECT_EQ(rec["src_ip"].str(), client);
    EXPECT_EQ(rec["dest_ip"].str(), server);
    EXPECT_EQ(rec["src_port"].u64(), 5000u);
    EXPECT_EQ(rec["dest_port"].u64(), 53u);
    EXPECT_EQ(rec["flow"]["pkts_toserver"].u64(), 1u);
    EXPECT_EQ(rec["flow"]["pkts_toclient"].u64(), 1u);
    // Counted as the same packet on Ethernet would be.
    EXPECT_EQ(rec["flow"]["bytes_toserver"].u64(), c.ipv6 ? 40u + 8 + 12 : 14u + 20 + 8 + 12);
    EXPECT_EQ(rec["ether"]["src_mac"].str(), c.src_mac);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, FlowsToolLinkTypes,
    ::testing::Values(LinkCase{"sll", 113, false, sll, "02:00:00:00:00:0a"},
                      LinkCase{"sll_ipv6", 113, true, sll, "02:00:00:00:00:0a"},
                      LinkCase{"sll2", 276, false, sll2, "02:00:00:00:00:0a"},
                      LinkCase{"raw", 101, false, no_header, "00:00:00:00:00:00"},
                      LinkCase{"raw_ipv6", 101, true, no_header, "00:00:00:00:00:00"},
                      LinkCase{"ipv4", 228, false, no_header, "00:00:00:00:00:00"},
                      LinkCase{"ipv6", 229, true, no_header, "00:00:00:00:00:00"},
                      LinkCase{"null", 0, false, null_header, "00:00:00:00:00:00"},
                      LinkCase{"null_ipv6", 0, true, null_header, "00:00:00:00:00:00"},
                      LinkCase{"loop", 108, false, loop_header, "00:00:00:00:00:00"}),
    [](const ::testing::TestParamInfo<LinkCase> &info) { return info.param.name; });

// ---- Exit codes --------------------------------------------------------------------------------

struct ExitCase {
    const char *name;
    // Arguments; "GOOD" stands for a valid capture, "DIR/x" for a file in the scratch folder.
    std::vector<std::string> args;
    int exit_code;
    const char *message;  // part of standard error
};

void PrintTo(const ExitCase &c, std::ostream *os) {
    *os << c.name;
}

class FlowsToolExitCodes : public FlowsTool, public ::testing::WithParamInterface<ExitCase> {};

TEST_P(FlowsToolExitCodes, TellWhatWentWrong) {
    const ExitCase &c = GetParam();
    const std::string good = capture("good.pcap", mixed_traffic());
    capture("wifi.pcap", mixed_traffic(), 105);
    std::ofstream(tool.path("garbage.pcap")) << "this is not a capture file at all";
    std::ofstream(tool.path("header_only.pcap")) << std::string("\xd4\xc3\xb2\xa1\x02\x00", 6);
    std::vector<std::string> args;
    for (const std::string &a : c.args)
        args.push_back(a == "GOOD" ? good : a.rfind("DIR/", 0) == 0 ? tool.path(a.substr(4)) : a);
    const ToolResult r = tool.run(args);
    EXPECT_EQ(r.exit_code, c.exit_code) << r.err;
    EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, FlowsToolExitCodes,
    ::testing::Values(
        ExitCase{"help", {"flows", "--help"}, 0, ""}, ExitCase{"no_command", {}, 64, "flows"},
        ExitCase{"no_input", {"flows"}, 64, "-r FILE"},
        ExitCase{"unknown_option", {"flows", "-r", "GOOD", "--colour"}, 64, "--colour"},
        ExitCase{"file_and_interface", {"flows", "-r", "GOOD", "-i", "lo"}, 64, "excludes"},
        ExitCase{"zero_idle", {"flows", "-r", "GOOD", "--idle", "0"}, 64, "--idle"},
        ExitCase{"bad_format", {"flows", "-r", "GOOD", "--format", "xml"}, 64, "--format"},
        ExitCase{"bad_filter", {"flows", "-r", "GOOD", "tcp", "port"}, 64, "does not compile"},
        ExitCase{"missing_file", {"flows", "-r", "DIR/nothing.pcap"}, 66, "No such file"},
        ExitCase{"missing_after_good", {"flows", "-r", "GOOD", "-r", "DIR/none"}, 66, "none"},
        ExitCase{"directory", {"flows", "-r", "DIR/"}, 66, "directory"},
        ExitCase{"missing_filter_file", {"flows", "-r", "GOOD", "-F", "DIR/no.bpf"}, 66, "no.bpf"},
        ExitCase{"not_a_capture", {"flows", "-r", "DIR/garbage.pcap"}, 65, "not a capture"},
        ExitCase{"header_cut", {"flows", "-r", "DIR/header_only.pcap"}, 65, "not a capture"},
        ExitCase{"unsupported_link", {"flows", "-r", "DIR/wifi.pcap"}, 65, "IEEE802_11"},
        ExitCase{"output_folder_missing",
                 {"flows", "-r", "GOOD", "-w", "DIR/no/out"},
                 74,
                 "cannot create"},
        ExitCase{"output_full", {"flows", "-r", "GOOD", "-w", "/dev/full"}, 74, "No space left"}),
    [](const ::testing::TestParamInfo<ExitCase> &info) { return info.param.name; });

TEST_F(FlowsTool, TruncatedCaptureWritesTheFlowsReadSoFarThenFails) {
    const ToolResult r =
        tool.run({"flows", "-r", capture("cut.pcap", mixed_traffic(), CaptureFile::kEthernet, 10),
                  "--format", "json"});
    EXPECT_EQ(r.exit_code, 65);
    EXPECT_NE(r.err.find("damaged after 6 packets"), std::string::npos) << r.err;
    std::map<uint64_t, Json> flows = by_flow_id(r.records());
    ASSERT_EQ(flows.size(), 4u);
    EXPECT_EQ(flows[0]["flow"]["pkts_toclient"].u64(), 1u);  // the cut FIN is not counted
}

TEST_F(FlowsTool, ClosedOutputPipeIsAnOutputError) {
    int pipe_fds[2];
    ASSERT_EQ(pipe(pipe_fds), 0);
    close(pipe_fds[0]);  // nobody reads: the first write fails with EPIPE
    const ToolResult r =
        tool.run({"flows", "-r", capture("mixed.pcap", mixed_traffic())}, "/dev/null", pipe_fds[1]);
    close(pipe_fds[1]);
    EXPECT_EQ(r.exit_code, 74);
    EXPECT_NE(r.err.find("Broken pipe"), std::string::npos) << r.err;
}

TEST_F(FlowsTool, StatsSummarizeTheRun) {
    std::vector<CapturedPacket> packets = mixed_traffic();
    packets.push_back(at(1001, 1, Frame().eth().ethertype(0x0806).payload(28)));  // ARP
    const ToolResult r =
        tool.run({"flows", "-r", capture("mixed.pcap", packets), "--stats", "-w", "/dev/null"});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    for (const char *line :
         {"packets              8\n", "not decoded          1\n", "flows created        4\n",
          "flows written        4 (0 slices)\n", "no room              0\n", "packets per second"})
        EXPECT_NE(r.err.find(line), std::string::npos) << line << " in\n" << r.err;
}

// ---- The bundled sample ------------------------------------------------------------------------

TEST_F(FlowsTool, BundledSampleHoldsTheDemoFlows) {
    const std::string sample = QUELM_SAMPLES_DIR "/demo.pcap";
    if (access(sample.c_str(), R_OK) != 0) GTEST_SKIP() << sample << " is not there yet";
    const ToolResult r = tool.run({"flows", "-r", sample, "--format", "json"});
    ASSERT_EQ(r.exit_code, 0) << r.err;
    bool http = false, https = false, dns = false, ping = false, ipv6 = false, vlan = false,
         fragments = false;
    std::set<uint64_t> ids;
    for (const Json &rec : r.records()) {
        EXPECT_TRUE(ids.insert(rec["flow_id"].u64()).second);
        const std::string &proto = rec["proto"].str();
        const uint64_t port = rec.has("dest_port") ? rec["dest_port"].u64() : 0;
        http |= proto == "TCP" && port == 80 && rec["flow"]["pkts_toclient"].u64() > 0;
        https |= proto == "TCP" && port == 443 && rec["flow"]["pkts_toclient"].u64() > 0;
        dns |= proto == "UDP" && port == 53 && rec["flow"]["pkts_toclient"].u64() > 0;
        ping |= proto == "ICMP" && rec["icmp_type"].u64() == 8;
        ipv6 |= rec["src_ip"].str().find(':') != std::string::npos;
        vlan |= rec.has("vlan") && rec["vlan"].items[0].u64() == 100;
        // A datagram larger than the link's MTU arrives as fragments counted to its flow.
        fragments |= proto == "UDP" && port == 7 && rec["flow"]["bytes_toserver"].u64() > 3000;
    }
    EXPECT_TRUE(http && https && dns && ping && ipv6 && vlan && fragments)
        << "http " << http << " https " << https << " dns " << dns << " ping " << ping << " ipv6 "
        << ipv6 << " vlan " << vlan << " fragments " << fragments << "\n"
        << r.out;
}

}  // namespace
}  // namespace quelm_test
