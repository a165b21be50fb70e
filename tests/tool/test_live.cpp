// Live capture on the loopback of a network namespace that the test makes (root only): idle flows
// end while the link is quiet, and SIGINT writes the flows still open and exits cleanly.
#include <gtest/gtest.h>
#include <signal.h>

#include "tool_runner.h"

namespace quelm_test {
namespace {

bool shell(const std::string &command) {
    return system(command.c_str()) == 0;
}

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
    // Then echoes every 0.2 s: a flow that never idles. Its first record (lifetime) shows that the
    // tool reads them, and that the packet which ended it opened the flow that SIGINT must write.
    const pid_t pinging =
        pinger.spawn({"ip", "netns", "exec", ns, "ping", "-i", "0.2", "127.0.0.1"});
    EXPECT_TRUE(tool.wait_for("flows.json", "\"lifetime\""));
    kill(pid, SIGINT);
    const ToolResult r = tool.finish(pid);
    kill(pinging, SIGINT);
    pinger.finish(pinging);
    EXPECT_TRUE(shell("ip netns delete " + ns));
    EXPECT_TRUE(expired) << "the idle flow was not written while the link was quiet";
    EXPECT_EQ(r.exit_code, 0) << r.err;
    int idle = 0, flushed = 0;
    for (const Json &rec : json_lines(tool.read("flows.json"))) {
        idle += rec.value("dest_port", 0) == 9999 && rec["flow"]["reason"] == "idle";
        flushed += rec.value("icmp_type", -1) == 8 && rec["flow"]["reason"] == "flush";
    }
    EXPECT_EQ(std::pair(idle, flushed), std::pair(1, 1)) << tool.read("flows.json");
}

}  // namespace
}  // namespace quelm_test
