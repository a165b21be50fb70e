// Live capture on the loopback of a network namespace that the test makes (root only): idle flows
// end while the link is quiet, and SIGINT writes the open flows and exits cleanly.
#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <thread>

#include "tool_runner.h"

namespace quelm_test {
namespace {

class LiveCapture : public ::testing::Test {
  protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "live capture in a network namespace needs root";
        ns_ = "quelm-tool-test-" + std::to_string(getpid());
        if (!shell("ip netns add " + ns_ + " 2>/dev/null && ip -n " + ns_ + " link set lo up"))
            GTEST_SKIP() << "cannot make a network namespace (ip netns)";
        made_ = true;
    }
    void TearDown() override {
        if (made_) shell("ip netns delete " + ns_);
    }

    static bool shell(const std::string &command) { return system(command.c_str()) == 0; }
    // One UDP datagram to a port nobody listens on, from inside the namespace.
    void send_udp(int port) {
        ASSERT_TRUE(shell("ip netns exec " + ns_ + " bash -c 'echo hello >/dev/udp/127.0.0.1/" +
                          std::to_string(port) + "'"));
    }
    static bool wait_for(const std::function<bool()> &condition, double seconds) {
        const auto end =
            std::chrono::steady_clock::now() + std::chrono::milliseconds(int(seconds * 1000));
        while (std::chrono::steady_clock::now() < end) {
            if (condition()) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        return condition();
    }

    ToolRunner tool;
    std::string ns_;
    bool made_ = false;
};

TEST_F(LiveCapture, QuietLinkExpiresIdleFlowsAndInterruptFlushesTheRest) {
    const std::string out = tool.path("flows.json");
    const pid_t pid =
        tool.start({"flows", "-i", "lo", "--idle", "1", "--format", "json", "-w", out}, "/dev/null",
                   -1, {"ip", "netns", "exec", ns_});
    ASSERT_GT(pid, 0);
    const bool capturing =
        wait_for([&] { return tool.read("stderr").find("capturing on") != std::string::npos; }, 15);
    if (!capturing) kill(pid, SIGKILL);
    ASSERT_TRUE(capturing) << tool.read("stderr");

    send_udp(9999);
    // No packet follows: only the wall clock can end this flow, two seconds later.
    const bool expired = wait_for(
        [&] { return tool.read("flows.json").find("\"dest_port\":9999") != std::string::npos; },
        10);
    send_udp(9998);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    kill(pid, SIGINT);
    const ToolResult r = tool.finish(pid);
    EXPECT_TRUE(expired) << "the idle flow was not written while the link was quiet";
    EXPECT_EQ(r.exit_code, 0) << r.err;

    ToolResult written;
    written.out = tool.read("flows.json");
    int idle = 0, flushed = 0;
    for (const Json &rec : written.records()) {
        if (!rec.has("dest_port")) continue;  // the ICMP "port unreachable" answers
        if (rec["dest_port"].u64() == 9999 && rec["flow"]["reason"].str() == "idle") idle++;
        if (rec["dest_port"].u64() == 9998 && rec["flow"]["reason"].str() == "flush") flushed++;
    }
    EXPECT_EQ(idle, 1) << written.out;
    EXPECT_EQ(flushed, 1) << written.out;
}

}  // namespace
}  // namespace quelm_test
