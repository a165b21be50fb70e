// `quelm flows --zmq` into `quelm collect` over real libzmq, and the faults a deployment meets;
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

#include "packet_builder.h"
#include "quelm_wire.h"
#include "tool_runner.h"
#include "wire_header.h"

namespace quelm_test {
namespace {

using quelm_test::Frame;
using ::testing::HasSubstr;
using ::testing::Not;

namespace wire = quelm::wire;
const std::string kSample = QUELM_SAMPLES_DIR "/demo.pcap";

// `quelm collect` in the background, writing its records to a file of its own folder.
class Collector {
  public:
    Collector(const std::string &mode, const std::string &where, const std::string &key,
              std::vector<std::string> more = {}) {
        more.insert(more.begin(), {QUELM_TOOL_PATH, "collect", mode, where, "--secret-key",
                                   key + ".key", "-w", tool_.path("out")});
        pid_ = tool_.spawn(more);
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
    pid_t pid() const { return pid_; }
    uint64_t lines() const {  // whole lines written
        const std::string out = output();
        return uint64_t(std::count(out.begin(), out.end(), '\n'));
    }
    uint64_t flow_records() const {
        const std::string out = output(), flow = "\"event_type\":\"flow\"";
        uint64_t n = 0;
        for (size_t at = out.find(flow); at != std::string::npos; at = out.find(flow, at + 1))
            n++;
        return n;
    }
    bool wait_for(const std::string &text) const { return tool_.wait_for("stderr", text); }
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

// The flows of the tool's or the collector's records: the fields of the flow object that an
// export record carries, as one text each.
std::multiset<std::string> flows_of(const std::vector<Json> &records) {
    std::multiset<std::string> flows;
    for (const Json &r : records) {
        std::string flow;
        for (const char *field :
             {"/src_ip", "/src_port", "/dest_ip", "/dest_port", "/icmp_type", "/icmp_code",
              "/proto", "/vlan", "/ether", "/flow/pkts_toserver", "/flow/bytes_toserver",
              "/flow/pkts_toclient", "/flow/bytes_toclient", "/tcp/tcp_flags_ts", "/quelm/icmp_id",
              "/quelm/app_proto", "/quelm/app_proto_id", "/community_id"})
            flow += text(r.value(Json::json_pointer(field), Json())) + " ";
        if (r.value("event_type", "") == "flow") flows.insert(flow);
    }
    return flows;
}

// Every flow record of `file` valid against the flow schema (python3-jsonschema).
void expect_valid_records(const ToolRunner &tool, const std::string &file) {
    const ToolResult r = tool.finish(tool.spawn(
        {"/usr/bin/python3", QUELM_VALIDATE_RECORDS, QUELM_FLOW_SCHEMA, tool.path(file)}));
    EXPECT_EQ(r.exit_code, 0) << r.err;
}

// Each test's folder, with a key pair k.pub and k.key made by `quelm keygen`.
class Export : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(tool.run({"keygen", "-o", "k"}).exit_code, 0); }
    // `quelm flows` over a capture, exporting to `endpoint` for the holder of k.key.
    pid_t send(const std::string &endpoint, const std::string &options,
               const std::string &capture = kSample) const {
        return tool.spawn(
            tool.words("QUELM flows -r IN --zmq END --zmq-server-key @k.pub " + options,
                       {{"QUELM", QUELM_TOOL_PATH}, {"IN", capture}, {"END", endpoint}}));
    }
    ToolRunner tool;
    const std::string key = tool.path("k");
};

// Both ways of connecting, both formats: the collector gets every flow written (the same fields,
// valid against the schema; or, with --netflow-names, as received) and one statistics record; an
// exporter that connects waits for a collector that starts after it.
TEST_F(Export, CollectorRecordsEqualTheWrittenFlows) {
    int run = 0;
    for (const std::string mode :
         {"--zmq-connect --zmq-format tlv", "--zmq-connect --zmq-format json", "--zmq-format tlv",
          "--zmq-format json", "--zmq-format tlv --netflow-names"}) {
        SCOPED_TRACE(mode);
        const std::string sending = mode.substr(0, mode.find(" --netflow-names"));
        const std::vector<std::string> naming(sending != mode, "--netflow-names");
        const std::string endpoint = "ipc://" + tool.path("export" + std::to_string(run++));
        std::optional<Collector> collector;  // an exporter that binds starts after its collector
        if (!mode.starts_with("--zmq-connect"))
            collector.emplace("--connect", endpoint, key, naming);
        const pid_t sender =
            send(endpoint, "--extra-dissection --format json -w flows.json " + sending);
        if (!collector) {
            EXPECT_TRUE(tool.wait_for("stderr", "exporting to"));
            collector.emplace("--bind", endpoint, key, naming);
        }
        const ToolResult sent = tool.finish(sender);
        ASSERT_EQ(sent.exit_code, 0) << sent.err;
        const std::vector<Json> written = json_lines(tool.read("flows.json"));
        // every flow and the statistics record
        EXPECT_TRUE(eventually([&] { return collector->lines() > written.size(); }));
        const ToolResult done = collector->stop();
        EXPECT_EQ(done.exit_code, 0) << done.err;
        EXPECT_THAT(done.err, HasSubstr(" 0 messages lost, 0 malformed"));
        const std::vector<Json> received = json_lines(collector->output());
        if (naming.empty()) {
            EXPECT_EQ(flows_of(received), flows_of(written));
            tool.write("received.json", collector->output());
            expect_valid_records(tool, "received.json");
        } else {  // as received, every field by its NetFlow name
            EXPECT_EQ(size_t(std::count_if(received.begin(), received.end(),
                                           [](const Json &r) { return r.contains("in_pkts"); })),
                      written.size());
        }
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

// Nobody to take the flows, or a collector with the wrong secret: flows are counted as dropped and
// the run fails as unavailable. An exporter binding the collector's endpoint finds it busy.
TEST_F(Export, UndeliveredFlowsAreCountedAndBusyEndpointIsRefused) {
    ASSERT_EQ(tool.run({"keygen", "-o", "wrong"}).exit_code, 0);
    Collector collector("--bind", "tcp://127.0.0.1:*", tool.path("wrong"));
    for (const std::string &endpoint : {"ipc://" + tool.path("nobody"), collector.endpoint}) {
        const ToolResult sent = tool.finish(send(endpoint, "--zmq-connect --zmq-timeout 1"));
        EXPECT_EQ(sent.exit_code, 69) << sent.err;
        EXPECT_THAT(sent.err, HasSubstr("exported 0 flows to 0 collectors, 48 dropped"));
    }
    const ToolResult busy = tool.finish(send(collector.endpoint, ""));
    EXPECT_EQ(busy.exit_code, 66);
    EXPECT_THAT(busy.err, HasSubstr("cannot listen on " + collector.endpoint));
    EXPECT_THAT(collector.stop().err, HasSubstr("quelm collect: 0 messages"));
}

// More flows than the sockets hold, into a collector that stalls (SIGSTOP, then SIGCONT) or dies
// and is replaced on its port: a stall loses nothing; a death is counted on one side at least.
TEST_F(Export, BackPressureLosesNothingAndADeadCollectorIsCounted) {
    constexpr uint64_t kFlows = 40000;  // 2,500 messages: more than the sockets queue
    {  // one UDP packet per flow, told apart by source address and port
        std::vector<uint8_t> frame = Frame().eth().ipv4("10.0.0.1", "10.1.0.1").udp(1, 53).build();
        const uint32_t record[4] = {1700000000, 0, uint32_t(frame.size()), uint32_t(frame.size())};
        const uint32_t file_header[6] = {0xA1B2C3D4, 0x00040002, 0, 0, 65535, 1};
        std::string pcap(reinterpret_cast<const char *>(file_header), sizeof file_header);
        for (uint32_t i = 0; i < kFlows; i++) {
            memcpy(&frame[28], &i, 2);     // the low bytes of the source address
            frame[35] = uint8_t(i >> 16);  // and of its port
            pcap.append(reinterpret_cast<const char *>(record), sizeof record);
            pcap.append(frame.begin(), frame.end());
        }
        tool.write("many.pcap", pcap);
    }
    for (const bool replace : {false, true}) {
        SCOPED_TRACE(replace ? "collector replaced" : "collector stalled");
        std::optional<Collector> collector;
        collector.emplace("--bind", "tcp://127.0.0.1:*", key);
        const std::string endpoint = collector->endpoint;
        if (!replace) kill(collector->pid(), SIGSTOP);
        const pid_t sender =
            send(endpoint, "--no-dpi --zmq-connect --zmq-timeout 600", "many.pcap");
        uint64_t before = 0;
        bool sending = true;  // the exporter had messages left when its collector died
        if (replace) {
            ASSERT_TRUE(eventually([&] { return collector->output().size() > 100000; }));
            // The exporter waits while its collector is replaced. One that has already written
            // every message into the dead collector's socket has nothing left to show the loss
            // with: that case proves nothing here.
            kill(sender, SIGSTOP);
            std::ifstream stat("/proc/" + std::to_string(sender) + "/stat");
            std::string pid, name, state;
            stat >> pid >> name >> state;
            sending = state != "Z";
            kill(collector->pid(), SIGKILL);
            before = collector->flow_records();
            collector->stop();
            collector.emplace("--bind", endpoint, key);
            kill(sender, SIGCONT);
        } else {
            usleep(1000000);  // the stall itself, not a wait for anything
            kill(collector->pid(), SIGCONT);
        }
        const ToolResult sent = tool.finish(sender);
        // The exporter's last message: the statistics record with its final count.
        const std::string exported = sent.err.substr(sent.err.find("exported ") + 9);
        const std::string last =
            "\"num_flow_exports\":" + exported.substr(0, exported.find(' ')) + ",";
        EXPECT_TRUE(!sending || eventually(
                                    [&] {
                                        const std::string out = collector->output();
                                        return out.find(last, out.rfind('\n', out.size() - 2)) !=
                                               std::string::npos;
                                    },
                                    100));
        const uint64_t received = before + collector->flow_records();
        const std::string report = collector->stop().err;
        if (!replace) {
            EXPECT_EQ(sent.exit_code, 0) << sent.err;
            EXPECT_THAT(report, HasSubstr(" 0 messages lost, 0 malformed"));
            EXPECT_EQ(received, kFlows) << "every flow";
        } else if (sending && sent.exit_code == 0 && received < kFlows) {
            EXPECT_THAT(report, Not(HasSubstr(" 0 messages lost"))) << "a loss nobody counted";
        }
    }
}

// The collector writes what it can read, reports what it cannot and what each exporter's counter
// says went missing, and goes on; a key not allowed gets nothing through. Records and report
// against collector.json and collector.txt.
TEST_F(Export, CollectorReadsReportsAndCountsEveryMessage) {
    const auto header = wire_header;
    // Fixed keys, so that the baselines can name a and b; the forged key is a fresh one.
    const char *a_key = "R[d(.5LCvE@g@dPp)tQ}6pzZiub9TwliD)^/J]d>",
               *b_key = "+zz=d]u?2!}F]O-)gb3NDBnu[pOj}%[jUc7)NIy9";
    char forged_key[41], forged_secret[41];
    zmq_curve_keypair(forged_key, forged_secret);
    tool.write("allowed", std::string("# probe a\n") + a_key + "\n\n# b\n" + b_key + "\n");
    Collector collector("--bind", "tcp://127.0.0.1:*", key, {"--allow-keys", tool.path("allowed")});
    const std::string pub = tool.read("k.pub"), server_key = pub.substr(pub.size() - 41, 40);
    void *context = zmq_ctx_new();
    auto exporter = [&](const char *public_key, const char *secret_key, int reconnect_ms) {
        void *pub = zmq_socket(context, ZMQ_XPUB);
        zmq_setsockopt(pub, ZMQ_CURVE_SERVERKEY, server_key.c_str(), 41);
        zmq_setsockopt(pub, ZMQ_CURVE_PUBLICKEY, public_key, 41);
        zmq_setsockopt(pub, ZMQ_CURVE_SECRETKEY, secret_key, 41);
        for (auto [option, value] : {std::pair{ZMQ_RCVTIMEO, 20000},
                                     {ZMQ_XPUB_VERBOSE, 1},
                                     {ZMQ_RECONNECT_IVL, reconnect_ms}})
            zmq_setsockopt(pub, option, &value, sizeof value);
        EXPECT_EQ(zmq_connect(pub, collector.endpoint.c_str()), 0);
        return pub;
    };
    // The collector has subscribed to flows (again after a reconnection: verbose): it is heard.
    auto subscribed = [](void *pub) {
        char s[16];
        const std::string flow_subscription = std::string(1, '\1') + wire::kTopicFlow;
        for (int n = 0; std::string(s, std::max(n, 0)) != flow_subscription;)
            if ((n = zmq_recv(pub, s, sizeof s, 0)) < 0) return false;
        return true;
    };
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
    const std::vector<std::vector<std::string>> messages = {
        {header("flow", 2, j, 5), json},  // a collector that joined late: five lost before
        {header("flow", 3, t, 6), tlv},
        {header("flow", 3, htons(t), 7), tlv},
        {header("flow", 2, uint16_t(bytes.size()), 8), bytes},
        {header("flow", 2, j, 0), json},  // b's, its counter from 0
        {header("flow", 2, j, 1), json},
        {header("flow", 2, 0, 2), std::string(wire::kHeaderLen + 65536, '[')},  // too large
        {header("flow", 2, j, 3), json},                                        // one lost
        {header("flow", 3, j, 9), json},                                        // says TLV, is JSON
        {header("flow", 2, t, 10), tlv},                                        // says JSON, is TLV
        {header("event", 3, t, 11), tlv},                                       // statistics in TLV
        {header("flows", 2, 2, 12), "{}"},                                      // unknown topic
        {std::string("flow\0x", 6) + header("", 2, 2, 13).substr(6), "{}"},     // topic not padded
        {header("flow", 1, 2, 14), "{}"},                                       // unknown version
        {header("flow", 2, 3, 15), "{}"},                                       // wrong size
        {"flow-but-short", "{}"},                                               // no header
        {header("flow", 2, 2, 16)},                                             // one part
        {header("flow", 2, 2, 17), "{}", "extra"},                              // three parts
        {header("flow", 2, 3, 18), "{1}"},                                      // bad JSON
        {header("flow", 2, 3, 19), "[1]"},  // a batch of numbers
        {header("flow", 2, 300, 20), std::string(150, '[') + std::string(150, ']')},  // deep
        {header("flow", 3, 4, 21), std::string("\x01\x11\x3a", 3) + char(0x80)},      // cut TLV
        {header("flow", 2, j, 3), json},                         // the exporter restarted
        {header("flow", 2, j, 0xFFFFFFFF), json},                // 4294967291 lost
        {header("flow", 2, j, 0), json},                         // and the counter wraps
        {header("event", 2, 20, 1), R"({"probe":1,"last":1})"},  // "probe" is the collector's
    };
    void *a = exporter(a_key, "ooz52IO[GdFn6r1y(9aW-I@+fEa+}!9dqo}]sR)?", 100);
    void *b = exporter(b_key, "9kbE@5BOL2Ttk!Bn3l=]:/#5lZFq*yN]:3Q*)w@k", 100);
    ASSERT_TRUE(subscribed(a) && subscribed(b));
    // a's first four messages, b's four (its connection closed by the third and made anew), a's
    // others, each time until the collector has written all their records.
    const std::tuple<void *, size_t, size_t, size_t> steps[] = {
        {a, 0, 4, 5}, {b, 4, 7, 7}, {b, 7, 8, 8}, {a, 8, messages.size(), 12}};
    for (const auto &[pub, from, to, lines] : steps) {
        for (size_t m = from; m < to; m++)
            for (size_t i = 0; i < messages[m].size(); i++)
                zmq_send(pub, messages[m][i].data(), messages[m][i].size(),
                         i + 1 < messages[m].size() ? ZMQ_SNDMORE : 0);
        EXPECT_TRUE(eventually([&, lines = lines] { return collector.lines() == lines; }) &&
                    (to != 7 || subscribed(b)));
    }
    void *forged = exporter(forged_key, forged_secret, -1);  // one try: one refusal
    EXPECT_TRUE(collector.wait_for("refused exporter"));
    for (void *pub : {a, b, forged})
        zmq_close(pub);
    zmq_ctx_term(context);
    std::string report = collector.stop().err;
    report.replace(report.find(forged_key), 40, "FORGED");
    expect_baseline("collector.json", collector.output());  // a's first three lines the same
    expect_baseline("collector.txt", report.substr(report.find('\n') + 1));
}

// libzmq hidden from the process: the tool still tracks flows; export and keys say what to do.
TEST_F(Export, WithoutLibzmqFlowsStillWorkAndExportSaysWhatToInstall) {
    if (geteuid() != 0) GTEST_SKIP() << "hiding libzmq needs a mount namespace (root)";
    char real[PATH_MAX];
    if (realpath("/usr/lib/x86_64-linux-gnu/libzmq.so.5", real) == nullptr)
        GTEST_SKIP() << "libzmq.so.5 is not where this test hides it";
    const char *script = R"(mount --bind /dev/null "$2" || exit 77; "$0" flows -r "$1" -w plain.txt
        echo plain=$?; "$0" flows -r "$1" --zmq 'tcp://127.0.0.1:*'; echo zmq=$?
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
