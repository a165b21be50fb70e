// Export end to end with real libzmq, `quelm flows --zmq` into `quelm collect`, and the faults a
// deployment meets. Sockets bind ports the system picks or socket files of the test's folder;
// the tests wait for readiness lines and output, never for time.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <zmq.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <optional>
#include <set>

#include "quelm_wire.h"
#include "tool_runner.h"

namespace quelm_test {
namespace {

using ::testing::HasSubstr;

namespace wire = quelm::wire;
const std::string kSample = QUELM_SAMPLES_DIR "/demo.pcap";

// A record field's names, as the wire table gives them: the collector's (`netflow`) and the tool's.
const wire::Field &field(uint32_t id) {
    return *std::find_if(std::begin(wire::kFlowFields), std::end(wire::kFlowFields),
                         [id](const wire::Field &f) { return f.id == id; });
}

// `quelm collect` in the background, writing its records to a file of its own folder.
class Collector {
  public:
    Collector(const std::string &mode, const std::string &where, const std::string &key) {
        pid_ = tool_.spawn({QUELM_TOOL_PATH, "collect", mode, where, "--secret-key", key + ".key",
                            "-w", tool_.path("out")});
        // "quelm collect: listening on tcp://127.0.0.1:41234; Ctrl-C ends", once it is.
        EXPECT_TRUE(tool_.wait_for("stderr", "; Ctrl-C ends"));
        const std::string err = tool_.read("stderr");
        const size_t from = err.find(mode == "--bind" ? " on " : " to ") + 4;
        endpoint = err.substr(from, err.find(';') - from);
    }
    ~Collector() {
        if (pid_ > 0) stop();
    }
    std::string output() const { return tool_.read("out"); }
    ToolResult stop() {  // SIGINT, as a user would; the summary is on standard error
        kill(pid_, SIGINT);
        const ToolResult r = tool_.finish(pid_);
        pid_ = -1;
        return r;
    }
    std::string endpoint;  // as bound

  private:
    ToolRunner tool_;
    pid_t pid_ = -1;
};

// Flows by addresses, ports and counters, "10.99.0.2 4000 10.99.0.53 53 1 79 1 95", of the tool's
// records or of the collector's flow records. ICMP flows carry type << 8 | code as destination
// port, as the exported key does.
std::multiset<std::string> flows_of(const std::vector<Json> &records, bool collector) {
    std::multiset<std::string> flows;
    for (Json r : records) {
        if (r.contains("icmp_type"))
            r["dest_port"] = int(r["icmp_type"]) << 8 | int(r["icmp_code"]);
        const bool v6 = r.contains(field(wire::kIpv6SrcAddr).netflow);
        std::string flow;
        for (uint32_t id : {v6 ? wire::kIpv6SrcAddr : wire::kIpv4SrcAddr, wire::kL4SrcPort,
                            v6 ? wire::kIpv6DstAddr : wire::kIpv4DstAddr, wire::kL4DstPort,
                            wire::kInPkts, wire::kInBytes, wire::kOutPkts, wire::kOutBytes}) {
            std::string name =
                collector ? field(id).netflow : field(id).eve;  // "flow.pkts_toserver"
            std::replace(name.begin(), name.end(), '.', '/');
            flow += text(r.value(Json::json_pointer("/" + name), Json(0))) + " ";
        }
        if (r.value("event_type", "") == "flow") flows.insert(flow);
    }
    return flows;
}

// Each test's folder, with a key pair k.pub and k.key made by `quelm keygen`.
class Export : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(tool.run({"keygen", "-o", "k"}).exit_code, 0); }
    // `quelm flows` over the sample, exporting to `endpoint` for the holder of k.key.
    pid_t send(const std::string &endpoint, const std::string &options) const {
        return tool.spawn(
            tool.words("QUELM flows -r SAMPLE --zmq END --zmq-server-key @k.pub " + options,
                       {{"QUELM", QUELM_TOOL_PATH}, {"SAMPLE", kSample}, {"END", endpoint}}));
    }
    ToolRunner tool;
    const std::string key = tool.path("k");
};

// Both ways of connecting, both formats: the collector gets every flow the table wrote, with the
// same counters, and one statistics record. An exporter that connects waits for its collector: one
// that starts after it loses nothing.
TEST_F(Export, CollectorRecordsEqualTheWrittenFlows) {
    int run = 0;
    for (const std::string mode :
         {"--zmq-connect --zmq-format tlv", "--zmq-connect --zmq-format json", "--zmq-format tlv",
          "--zmq-format json"}) {
        SCOPED_TRACE(mode);
        const std::string endpoint = "ipc://" + tool.path("export" + std::to_string(run++));
        std::optional<Collector> collector;  // an exporter that binds starts after its collector
        if (!mode.starts_with("--zmq-connect")) collector.emplace("--connect", endpoint, key);
        const pid_t sender =
            send(endpoint, "--extra-dissection --format json -w flows.json --zmq-wait 20 " + mode);
        if (!collector) {
            EXPECT_TRUE(tool.wait_for("stderr", "waiting up to"));
            collector.emplace("--bind", endpoint, key);
        }
        const ToolResult sent = tool.finish(sender);
        ASSERT_EQ(sent.exit_code, 0) << sent.err;
        const std::vector<Json> written = json_lines(tool.read("flows.json"));
        EXPECT_TRUE(eventually([&] {  // every flow and the statistics record, in whole lines
            const std::string out = collector->output();
            return size_t(std::count(out.begin(), out.end(), '\n')) > written.size();
        }));
        const ToolResult done = collector->stop();
        EXPECT_EQ(done.exit_code, 0) << done.err;
        EXPECT_THAT(done.err, HasSubstr(" 0 messages lost, 0 malformed"));
        const std::vector<Json> received = json_lines(collector->output());
        EXPECT_EQ(flows_of(received, true), flows_of(written, false));
        size_t stats = 0;
        for (const Json &r : received) {
            if (r["event_type"] != "stats") continue;
            EXPECT_EQ(r["iface"]["name"], "file");
            EXPECT_GT(r["packets"], 300);
            EXPECT_TRUE(r.contains("avg") && r.contains("drops") && r.contains("timeout") &&
                        r.contains("zmq"));
            stats++;
        }
        EXPECT_EQ(stats, 1u) << "one statistics record for a run shorter than 3 seconds";
    }
}

// Without the secret that matches the exporter's key the handshake fails: nothing arrives. An
// exporter that should bind the collector's endpoint finds it busy and stops before reading.
TEST_F(Export, WrongSecretKeyReceivesNothingAndBusyEndpointIsRefused) {
    ASSERT_EQ(tool.run({"keygen", "-o", "wrong"}).exit_code, 0);
    Collector collector("--bind", "tcp://127.0.0.1:*", tool.path("wrong"));
    const ToolResult sent = tool.finish(send(collector.endpoint, "--zmq-connect --zmq-wait 1"));
    EXPECT_EQ(sent.exit_code, 0) << sent.err;
    EXPECT_THAT(sent.err, HasSubstr("not every endpoint has a collector that accepts the key"));
    const ToolResult busy = tool.finish(send(collector.endpoint, ""));
    EXPECT_EQ(busy.exit_code, 66);
    EXPECT_THAT(busy.err, HasSubstr("cannot listen on " + collector.endpoint));
    EXPECT_THAT(collector.stop().err, HasSubstr("quelm collect: 0 messages"));
}

std::string header(const char *topic, uint8_t version, uint16_t size, uint32_t counter) {
    std::string h(wire::kHeaderLen, '\0');
    std::memcpy(h.data(), topic, std::strlen(topic));
    h[wire::kVersionAt] = char(version);
    std::memcpy(h.data() + wire::kSizeAt, &size, 2);
    const uint32_t c = htonl(counter);
    std::memcpy(h.data() + wire::kCounterAt, &c, 4);
    return h;
}

// Whatever arrives, the collector writes the records it can read, reports what it cannot and what
// went missing by the counters, and goes on. Its records and its report (after the listening line)
// must equal the baselines collector.json and collector.txt.
TEST_F(Export, CollectorReadsReportsAndCountsEveryMessage) {
    Collector collector("--bind", "tcp://127.0.0.1:*", key);
    const std::string file = tool.read("k.pub"), server_key = file.substr(file.find('\n') + 1, 40);
    char client_public[41], client_secret[41];
    zmq_curve_keypair(client_public, client_secret);
    void *context = zmq_ctx_new(), *pub = zmq_socket(context, ZMQ_XPUB);
    zmq_setsockopt(pub, ZMQ_CURVE_SERVERKEY, server_key.c_str(), 41);
    zmq_setsockopt(pub, ZMQ_CURVE_PUBLICKEY, client_public, 41);
    zmq_setsockopt(pub, ZMQ_CURVE_SECRETKEY, client_secret, 41);
    ASSERT_EQ(zmq_connect(pub, collector.endpoint.c_str()), 0);
    const int timeout_ms = 20000;
    zmq_setsockopt(pub, ZMQ_RCVTIMEO, &timeout_ms, sizeof timeout_ms);
    char subscription[16];  // wait until the collector has subscribed to flows: it is heard
    const std::string flow_subscription = std::string(1, '\1') + wire::kTopicFlow;
    for (int n = 0; std::string(subscription, std::max(n, 0)) != flow_subscription;)
        ASSERT_GT(n = zmq_recv(pub, subscription, sizeof subscription, 0), 0);
    // One record three ways (JSON, TLV, TLV with the size in the other byte order): 58 = 0,
    // 8 = "10.0.0.1", 2 = 3, the protocol "7.7" (HTTP) and 999 = 1, a field without a name.
    const std::string json = R"({"58":0,"8":"10.0.0.1","2":3,"47521.118":"7.7","999":1})";
    const std::string tlv = std::string("\x01\x11\x3a\x00\x13\x08\x08", 7) + "10.0.0.1" +
                            std::string("\x12\x02\x03\x23\x09", 5) + "47521.118" +
                            std::string("\x03", 1) + "7.7" + std::string("\x11\xe7\x07\x01", 4);
    const std::string bytes =  // bytes that are not UTF-8 come escaped, and are written so again
        R"([{"8":"café \u00e9 \u00c0\u00af \u00ed\u00a0\u0080 \u00c3 \ud83d\ude00)"
        R"( \\u00e9 \" \t"},{"7":1}])";
    const uint16_t j = uint16_t(json.size()), t = uint16_t(tlv.size());
    const std::vector<std::string> messages[] = {
        {header("flow", 2, j, 5), json},  // a collector that joined late: five lost before
        {header("flow", 3, t, 6), tlv},
        {header("flow", 3, htons(t), 7), tlv},
        {header("flow", 2, uint16_t(bytes.size()), 8), bytes},
        {header("flow", 3, j, 9), json},                                     // says TLV, is JSON
        {header("flow", 2, t, 10), tlv},                                     // says JSON, is TLV
        {header("event", 3, t, 11), tlv},                                    // statistics in TLV
        {header("flows", 2, 2, 12), "{}"},                                   // unknown topic
        {std::string("flow\0x", 6) + header("", 2, 2, 13).substr(6), "{}"},  // topic not padded
        {header("flow", 1, 2, 14), "{}"},                                    // unknown version
        {header("flow", 2, 3, 15), "{}"},                                    // wrong size
        {"flow-but-short", "{}"},                                            // no header
        {header("flow", 2, 2, 16)},                                          // one part
        {header("flow", 2, 2, 17), "{}", "extra"},                           // three parts
        {header("flow", 2, 3, 18), "{1}"},                                   // bad JSON
        {header("flow", 2, 3, 19), "[1]"},                                   // a batch of numbers
        {header("flow", 2, 300, 20), std::string(150, '[') + std::string(150, ']')},  // deep
        {header("flow", 3, 4, 21), std::string("\x01\x11\x3a", 3) + char(0x80)},      // cut TLV
        {header("flow", 3, 4, 22), std::string("\x01\x24\x01\x62", 4)},  // TLV block left open
        {header("flow", 2, j, 25), json},                                // two lost before
        {header("flow", 2, j, 3), json},                                 // the exporter restarted
        {header("flow", 2, j, 0xFFFFFFFF), json},                        // 4294967291 lost
        {header("flow", 2, j, 0), json},                                 // and the counter wraps
        {header("event", 2, 10, 1), R"({"last":1})"},
    };
    for (const std::vector<std::string> &parts : messages)
        for (size_t i = 0; i < parts.size(); i++)
            zmq_send(pub, parts[i].data(), parts[i].size(), i + 1 < parts.size() ? ZMQ_SNDMORE : 0);
    EXPECT_TRUE(
        eventually([&] { return collector.output().find("\"last\"") != std::string::npos; }));
    zmq_close(pub);
    zmq_ctx_term(context);
    const std::string report = collector.stop().err;
    expect_baseline("collector.json", collector.output());  // the first three lines the same
    expect_baseline("collector.txt", report.substr(report.find('\n') + 1));
}

// libzmq hidden from the process: the tool still tracks flows; export and keys say what to do.
TEST_F(Export, WithoutLibzmqFlowsStillWorkAndExportSaysWhatToInstall) {
    if (geteuid() != 0) GTEST_SKIP() << "hiding libzmq needs a mount namespace (root)";
    char real[PATH_MAX];
    if (realpath("/usr/lib/x86_64-linux-gnu/libzmq.so.5", real) == nullptr)
        GTEST_SKIP() << "libzmq.so.5 is not where this test hides it";
    const char *script = R"(mount --bind /dev/null "$2" || exit 77; "$0" flows -r "$1" -w plain.txt
        echo plain=$?; "$0" flows -r "$1" --zmq 'tcp://127.0.0.1:*' --zmq-wait 0; echo zmq=$?
        "$0" keygen -o k; echo keygen=$?)";
    const ToolResult r = tool.finish(
        tool.spawn({"unshare", "-m", "sh", "-c", script, QUELM_TOOL_PATH, kSample, real}));
    if (r.exit_code == 77 || r.err.find("unshare failed") != std::string::npos)
        GTEST_SKIP() << r.err;
    for (const char *line :
         {"plain=0", "*** libzmq not found, please install it ***", "zmq=69", "keygen=69"})
        EXPECT_THAT(r.out, HasSubstr(line));
    EXPECT_THAT(r.err, HasSubstr("quelm flows: cannot export: libzmq is not installed"));
    expect_baseline("demo.txt", tool.read("plain.txt"));
}

}  // namespace
}  // namespace quelm_test
