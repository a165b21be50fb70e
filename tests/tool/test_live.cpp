// Live capture on a veth pair between two network namespaces (root only), against a reference
// capture of the same interface taken at the same time.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pcap/pcap.h>
#include <signal.h>
#include <unistd.h>

#include <map>

#include "tool_runner.h"

using namespace quelm_test;

namespace {

bool shell(const std::string &command) {
    return system(command.c_str()) == 0;
}

// Two namespaces joined by a veth pair, a (10.77.0.1) and b (10.77.0.2); removed at the end.
struct VethPair {
    std::string a, b;
    bool ok;
    VethPair()
        : a("quelm-live-a-" + std::to_string(getpid())),
          b("quelm-live-b-" + std::to_string(getpid())) {
        ok = shell("ip netns add " + a + " && ip netns add " + b + " && ip link add va netns " + a +
                   " type veth peer name vb netns " + b + " && ip -n " + a +
                   " addr add 10.77.0.1/24 dev va && ip -n " + b +
                   " addr add 10.77.0.2/24 dev vb && ip -n " + a + " link set va up && ip -n " + b +
                   " link set vb up");
    }
    ~VethPair() { shell("ip netns delete " + a + " 2>/dev/null; ip netns delete " + b); }
    std::vector<std::string> in(const std::string &ns, std::vector<std::string> args) const {
        args.insert(args.begin(), {"ip", "netns", "exec", ns});
        return args;
    }
};

// Packets and bytes (frame lengths) of each direction of the TCP connection to `port`, and the
// longest frame, as a pcap file holds them.
struct Reference {
    std::map<bool, std::pair<uint64_t, uint64_t>> to_server;  // true: towards the port
    uint32_t longest = 0;
};

Reference read_reference(const std::string &path, uint16_t port) {
    Reference r;
    char errbuf[PCAP_ERRBUF_SIZE];
    pcap_t *p = pcap_open_offline(path.c_str(), errbuf);
    if (p == nullptr) return r;
    pcap_pkthdr *h;
    const u_char *d;
    while (pcap_next_ex(p, &h, &d) == 1) {
        // Ethernet, IPv4 without options towards or from the port, TCP.
        if (h->caplen < 38 || d[12] != 0x08 || d[13] != 0x00 || d[23] != 6) continue;
        const uint16_t sport = uint16_t(d[34] << 8 | d[35]), dport = uint16_t(d[36] << 8 | d[37]);
        if (sport != port && dport != port) continue;
        auto &[pkts, bytes] = r.to_server[dport == port];
        pkts++;
        bytes += h->len;
        r.longest = std::max(r.longest, h->len);
    }
    pcap_close(p);
    return r;
}

}  // namespace

// With receive offload the kernel merges segments into frames of up to 64 KiB before the capture
// sees them: every byte still counts, as the reference capture has it.
TEST(LiveCapture, OffloadedFramesCountInFull) {
    if (geteuid() != 0) GTEST_SKIP() << "live capture in network namespaces needs root";
    for (const char *program : {"ethtool", "nc", "tcpdump"})
        if (!shell(std::string("command -v ") + program + " >/dev/null"))
            GTEST_SKIP() << program << " is missing (scripts/setup installs it)";
    VethPair net;
    if (!net.ok || !shell("ip netns exec " + net.b + " ethtool -K vb gro on >/dev/null"))
        GTEST_SKIP() << "cannot make a veth pair with receive offload";
    ToolRunner tool, reference, server, client;
    // An idle flow is written a second after its last packet, which is how the test knows that
    // the tool has read them all.
    const pid_t quelm = tool.spawn(net.in(net.b, {QUELM_TOOL_PATH, "flows", "-i", "vb", "--idle",
                                                  "1", "--format", "json", "-w", "flows.json"}));
    const pid_t dump =
        reference.spawn(net.in(net.b, {"tcpdump", "-i", "vb", "-s", "262144", "--immediate-mode",
                                       "-B", "65536", "-w", "ref.pcap"}));
    ASSERT_TRUE(tool.wait_for("stderr", "capturing on")) << tool.read("stderr");
    ASSERT_TRUE(reference.wait_for("stderr", "listening on")) << reference.read("stderr");
    // The server takes an ephemeral port and names it.
    const pid_t listener = server.spawn(net.in(net.b, {"nc", "-n", "-v", "-l", "10.77.0.2", "0"}));
    ASSERT_TRUE(server.wait_for("stderr", "Listening on 10.77.0.2 ")) << server.read("stderr");
    const std::string listening = server.read("stderr");
    const uint16_t port = uint16_t(std::stoi(listening.substr(listening.find("0.2 ") + 4)));
    ASSERT_TRUE(shell("head -c 3000000 /dev/urandom >" + client.path("data")));
    const ToolResult sent = client.finish(client.spawn(
        net.in(net.a, {"nc", "-N", "10.77.0.2", std::to_string(port)}), client.path("data")));
    EXPECT_EQ(sent.exit_code, 0) << sent.err;
    server.finish(listener);
    EXPECT_TRUE(tool.wait_for("flows.json", "\"dest_port\":" + std::to_string(port) + ","));
    std::vector<uint64_t> got, want;
    for (const Json &rec : json_lines(tool.read("flows.json")))
        if (rec.value("dest_port", 0) == port)
            got = {rec["flow"]["pkts_toserver"], rec["flow"]["bytes_toserver"],
                   rec["flow"]["pkts_toclient"], rec["flow"]["bytes_toclient"]};
    kill(dump, SIGINT);
    const std::string dumped = reference.finish(dump).err;
    Reference ref = read_reference(reference.path("ref.pcap"), port);
    want = {ref.to_server[true].first, ref.to_server[true].second, ref.to_server[false].first,
            ref.to_server[false].second};
    EXPECT_EQ(got, want) << dumped;
    EXPECT_GT(ref.longest, 16384u) << "the kernel merged no segments: the test proves little";
    EXPECT_GT(want[1], 3000000u);
    kill(quelm, SIGINT);
    EXPECT_EQ(tool.finish(quelm).exit_code, 0) << tool.read("stderr");
}
