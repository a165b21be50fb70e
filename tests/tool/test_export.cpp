// Export end to end with real libzmq on loopback: `quelm flows --zmq` into `quelm collect`, in both
// directions of connection and both formats, with the faults a deployment meets: wrong keys,
// collectors that come late or die, malformed messages, no libzmq at all.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <zmq.h>

#include <chrono>
#include <climits>
#include <cstring>
#include <fstream>
#include <map>
#include <thread>

#include "capture_file.h"
#include "collect_command.h"
#include "packet_builder.h"
#include "json_lite.h"
#include "tool_runner.h"

namespace quelm_test {
namespace {

const std::string kSample = QUELM_SAMPLES_DIR "/demo.pcap";

// Fixed loopback ports, one per test, away from the ephemeral range.
std::string endpoint(int port) {
    return "tcp://127.0.0.1:" + std::to_string(port);
}

std::vector<std::string> file_lines(const std::string &path) {
    std::vector<std::string> lines;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

bool eventually(const std::function<bool()> &done, double seconds = 10) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (std::chrono::steady_clock::now() < deadline) {
        if (done()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return done();
}

// A key pair made by `quelm keygen`.
struct KeyPair {
    std::string public_file, secret_file;
};

KeyPair make_keys(const ToolRunner &tool, const std::string &prefix) {
    const ToolResult r = tool.run({"keygen", "-o", tool.path(prefix)});
    EXPECT_EQ(r.exit_code, 0) << r.err;
    return {tool.path(prefix + ".pub"), tool.path(prefix + ".key")};
}

// `quelm collect` in the background, writing its records to a file of its own folder.
class Collector {
  public:
    Collector(const std::string &mode, const std::string &where, const std::string &secret_file,
              const std::vector<std::string> &extra = {}) {
        std::vector<std::string> args = {"collect",   mode, where,         "--secret-key",
                                         secret_file, "-w", records_path()};
        args.insert(args.end(), extra.begin(), extra.end());
        pid_ = tool_.start(args);
        EXPECT_TRUE(eventually([this] {
            return tool_.read("stderr").find("Ctrl-C ends") != std::string::npos;
        })) << tool_.read("stderr");
    }
    ~Collector() {
        if (pid_ > 0) stop();
    }
    std::string records_path() const { return tool_.path("records"); }
    std::vector<Json> records() const {
        std::vector<Json> result;
        for (const std::string &line : file_lines(records_path()))
            result.push_back(Json::parse(line));
        return result;
    }
    size_t flow_records() const {
        size_t n = 0;
        for (const std::string &line : file_lines(records_path()))
            n += line.find("\"event_type\":\"flow\"") != std::string::npos;
        return n;
    }
    // SIGINT, as a user would; returns its result (the summary is on standard error).
    ToolResult stop() {
        kill(pid_, SIGINT);
        ToolResult r = tool_.finish(pid_);
        pid_ = -1;
        return r;
    }
    void crash() {
        kill(pid_, SIGKILL);
        tool_.finish(pid_);
        pid_ = -1;
    }

  private:
    ToolRunner tool_;
    pid_t pid_ = -1;
};

// Flows keyed by their 5-tuple with their counters: "17 10.99.0.2:4000 > 10.99.0.53:53 =
// 1/79 1/95". ICMP flows carry type << 8 | code as destination port, as the exported key does.
std::multiset<std::string> flows_of_tool_json(const std::vector<Json> &records) {
    static const std::map<std::string, int> kProto = {
        {"TCP", 6}, {"UDP", 17}, {"ICMP", 1}, {"IPv6-ICMP", 58}};
    std::multiset<std::string> flows;
    for (const Json &r : records) {
        const uint64_t sport = r.has("src_port") ? r["src_port"].u64() : 0;
        const uint64_t dport = r.has("dest_port") ? r["dest_port"].u64()
                               : r.has("icmp_type")
                                   ? r["icmp_type"].u64() << 8 | r["icmp_code"].u64()
                                   : 0;
        const Json &f = r["flow"];
        const std::string &proto = r["proto"].str();  // a name, or the number when it has none
        const int number = isdigit(proto[0]) ? std::stoi(proto) : kProto.at(proto);
        flows.insert(std::to_string(number) + " " + r["src_ip"].str() + ":" +
                     std::to_string(sport) + " > " + r["dest_ip"].str() + ":" +
                     std::to_string(dport) + " = " + std::to_string(f["pkts_toserver"].u64()) +
                     "/" + std::to_string(f["bytes_toserver"].u64()) + " " +
                     std::to_string(f["pkts_toclient"].u64()) + "/" +
                     std::to_string(f["bytes_toclient"].u64()));
    }
    return flows;
}

std::multiset<std::string> flows_of_collector(const std::vector<Json> &records) {
    std::multiset<std::string> flows;
    for (const Json &r : records) {
        if (r["event_type"].str() != "flow") continue;
        const bool v6 = r["ip_protocol_version"].u64() == 6;
        flows.insert(
            std::to_string(r["protocol"].u64()) + " " +
            r[v6 ? "ipv6_src_addr" : "ipv4_src_addr"].str() + ":" +
            std::to_string(r["l4_src_port"].u64()) + " > " +
            r[v6 ? "ipv6_dst_addr" : "ipv4_dst_addr"].str() + ":" +
            std::to_string(r["l4_dst_port"].u64()) + " = " + std::to_string(r["in_pkts"].u64()) +
            "/" + std::to_string(r["in_bytes"].u64()) + " " + std::to_string(r["out_pkts"].u64()) +
            "/" + std::to_string(r["out_bytes"].u64()));
    }
    return flows;
}

// ---- End to end --------------------------------------------------------------------------------

struct ExportSetup {
    const char *name;
    bool exporter_connects;  // else the exporter binds and the collector connects
    const char *format;
    int port;
};

void PrintTo(const ExportSetup &s, std::ostream *os) {
    *os << s.name;
}

class ExportEndToEnd : public ::testing::TestWithParam<ExportSetup> {
  protected:
    void SetUp() override {
        if (access(kSample.c_str(), R_OK) != 0) GTEST_SKIP() << kSample << " is not there";
    }
    ToolRunner tool;
};

// The collector gets every flow the table wrote, with the same counters, and a statistics record.
TEST_P(ExportEndToEnd, CollectorRecordsEqualTheWrittenFlows) {
    const ExportSetup &s = GetParam();
    const KeyPair keys = make_keys(tool, "collector");
    const std::string ep = endpoint(s.port);
    Collector collector(s.exporter_connects ? "--bind" : "--connect", ep, keys.secret_file);
    std::vector<std::string> args = {"flows",
                                     "-r",
                                     kSample,
                                     "--format",
                                     "json",
                                     "-w",
                                     tool.path("flows.json"),
                                     "--zmq",
                                     ep,
                                     "--zmq-server-key",
                                     "@" + keys.public_file,
                                     "--zmq-format",
                                     s.format,
                                     "--extra-dissection"};
    if (s.exporter_connects) args.push_back("--zmq-connect");
    const ToolResult sent = tool.run(args);
    ASSERT_EQ(sent.exit_code, 0) << sent.err;
    const std::vector<std::string> written = file_lines(tool.path("flows.json"));
    ASSERT_GT(written.size(), 40u);
    EXPECT_TRUE(eventually([&] { return collector.flow_records() >= written.size(); }))
        << collector.flow_records() << " of " << written.size();
    const ToolResult done = collector.stop();
    EXPECT_EQ(done.exit_code, 0) << done.err;
    EXPECT_NE(done.err.find(" 0 messages lost, 0 malformed"), std::string::npos) << done.err;

    std::vector<Json> tool_records;
    for (const std::string &line : written)
        tool_records.push_back(Json::parse(line));
    const std::vector<Json> received = collector.records();
    EXPECT_EQ(flows_of_collector(received), flows_of_tool_json(tool_records));

    size_t stats = 0;
    for (const Json &r : received) {
        if (r["event_type"].str() == "flow") {
            // The protocol ids and their name travel too.
            const std::string &ids = r["l7_proto"].str();
            if (ids == "7.7") {
                EXPECT_EQ(r["l7_proto_name"].str(), "HTTP");
            }
            continue;
        }
        ASSERT_EQ(r["event_type"].str(), "stats");
        EXPECT_EQ(r["iface"]["name"].str(), "file");
        EXPECT_EQ(r["probe"]["osname"].str(), "Linux");
        EXPECT_GT(r["packets"].u64(), 300u);
        EXPECT_TRUE(r.has("avg") && r.has("drops") && r.has("timeout") && r.has("zmq"));
        stats++;
    }
    EXPECT_EQ(stats, 1u) << "one statistics record for a run shorter than 3 seconds";
}

INSTANTIATE_TEST_SUITE_P(Modes, ExportEndToEnd,
                         ::testing::Values(ExportSetup{"connect_tlv", true, "tlv", 47611},
                                           ExportSetup{"connect_json", true, "json", 47612},
                                           ExportSetup{"bind_tlv", false, "tlv", 47613},
                                           ExportSetup{"bind_json", false, "json", 47614}),
                         [](const ::testing::TestParamInfo<ExportSetup> &info) {
                             return info.param.name;
                         });

class Export : public ::testing::Test {
  protected:
    void SetUp() override {
        if (access(kSample.c_str(), R_OK) != 0) GTEST_SKIP() << kSample << " is not there";
    }
    ToolRunner tool;
};

// Without the secret that matches the exporter's key, the handshake fails: nothing arrives.
TEST_F(Export, CollectorWithTheWrongSecretKeyReceivesNothing) {
    const KeyPair right = make_keys(tool, "right"), wrong = make_keys(tool, "wrong");
    const std::string ep = endpoint(47621);
    Collector collector("--bind", ep, wrong.secret_file);
    const ToolResult sent =
        tool.run({"flows", "-r", kSample, "--zmq", ep, "--zmq-connect", "--zmq-server-key",
                  "@" + right.public_file, "--zmq-wait", "1"});
    EXPECT_EQ(sent.exit_code, 0) << sent.err;
    EXPECT_NE(sent.err.find("not every endpoint has a collector that accepts the key"),
              std::string::npos)
        << sent.err;
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const ToolResult done = collector.stop();
    EXPECT_NE(done.err.find("quelm collect: 0 messages"), std::string::npos) << done.err;
    EXPECT_TRUE(file_lines(collector.records_path()).empty());
}

TEST_F(Export, ServerKeysThatAreNoKeysAreRefusedWithTheLibrarysMessage) {
    struct Case {
        std::string key;
        const char *library_message;
    } cases[] = {
        {"tooshort", "Bad ZMQ server public key size (8 != 40)"},
        {std::string(40, '~'), "Error setting ZMQ_CURVE_SERVERKEY"},  // '~' is no Z85 digit
    };
    for (const Case &c : cases) {
        const ToolResult r =
            tool.run({"flows", "-r", kSample, "--zmq", endpoint(47622), "--zmq-server-key", c.key});
        EXPECT_EQ(r.exit_code, 64) << c.key;
        EXPECT_NE(r.err.find(c.library_message), std::string::npos) << r.err;
        EXPECT_NE(r.err.find("\nquelm flows: the server key is not a CURVE public key"),
                  std::string::npos)
            << r.err;
        EXPECT_TRUE(r.out.empty()) << "no flow is written after a refused start";
    }
    const ToolResult missing = tool.run({"flows", "-r", kSample, "--zmq", endpoint(47622),
                                         "--zmq-server-key", "@" + tool.path("none.pub")});
    EXPECT_EQ(missing.exit_code, 66);
    EXPECT_NE(missing.err.find("cannot open the key file"), std::string::npos) << missing.err;
}

TEST_F(Export, WithoutServerKeyTheBuiltInKeyIsUsedAndSaidSo) {
    const ToolResult r =
        tool.run({"flows", "-r", kSample, "--zmq", endpoint(47623), "--zmq-wait", "0"});
    EXPECT_EQ(r.exit_code, 0) << r.err;
    EXPECT_NE(r.err.find("only a collector holding its secret can read the flows"),
              std::string::npos)
        << r.err;
}

TEST_F(Export, EndpointsThatCannotBeUsedAreRefusedBeforeReading) {
    const KeyPair keys = make_keys(tool, "k");
    const std::string key = "@" + keys.public_file;
    // Another program holds the port the exporter should bind.
    void *context = zmq_ctx_new();
    void *holder = zmq_socket(context, ZMQ_PULL);
    ASSERT_EQ(zmq_bind(holder, endpoint(47624).c_str()), 0);
    const ToolResult busy =
        tool.run({"flows", "-r", kSample, "--zmq", endpoint(47624), "--zmq-server-key", key});
    EXPECT_EQ(busy.exit_code, 66);
    EXPECT_NE(busy.err.find("cannot listen on tcp://127.0.0.1:47624"), std::string::npos)
        << busy.err;
    zmq_close(holder);
    zmq_ctx_term(context);
    const ToolResult bad = tool.run({"flows", "-r", kSample, "--zmq", "nonsense://x",
                                     "--zmq-connect", "--zmq-server-key", key});
    EXPECT_EQ(bad.exit_code, 64);
    EXPECT_NE(bad.err.find("cannot connect to nonsense://x"), std::string::npos) << bad.err;
}

// In connect mode the exporter waits for the collector: one that starts late loses nothing.
TEST_F(Export, CollectorStartedAfterTheExporterLosesNothing) {
    const KeyPair keys = make_keys(tool, "k");
    const std::string ep = endpoint(47625);
    const pid_t sender = tool.start({"flows", "-r", kSample, "--zmq", ep, "--zmq-connect",
                                     "--zmq-server-key", "@" + keys.public_file, "--zmq-wait", "20",
                                     "--format", "json", "-w", tool.path("flows.json")});
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
    Collector collector("--bind", ep, keys.secret_file);
    const ToolResult sent = tool.finish(sender);
    ASSERT_EQ(sent.exit_code, 0) << sent.err;
    const size_t written = file_lines(tool.path("flows.json")).size();
    EXPECT_TRUE(eventually([&] { return collector.flow_records() >= written; }));
    const ToolResult done = collector.stop();
    EXPECT_EQ(collector.flow_records(), written);
    EXPECT_NE(done.err.find(" 0 messages lost"), std::string::npos) << done.err;
}

// A capture that goes on: UDP flows, 16 per second of packet time, each ending after a second
// idle; written through a pipe as the test goes. Its descriptors are close-on-exec so that the
// programs the test starts do not hold the pipe open.
class SlowCapture {
  public:
    // Holds the pipe open both ways, so that a reader started now does not block in open().
    explicit SlowCapture(const std::string &fifo) : fifo_(fifo) {
        mkfifo(fifo.c_str(), 0600);
        hold_ = ::open(fifo.c_str(), O_RDWR | O_CLOEXEC);
    }
    ~SlowCapture() {
        close();
        if (hold_ >= 0) ::close(hold_);
    }
    void open() {
        out_ = ::open(fifo_.c_str(), O_WRONLY | O_CLOEXEC);
        ::close(hold_);  // from now on the reader sees the end when out_ closes
        hold_ = -1;
        const uint32_t header[6] = {0xa1b2c3d4, 0x00040002, 0, 0, 65535, 1};
        put(header, sizeof header);
    }
    void second() {
        for (uint16_t i = 0; i < 16; i++) {
            const std::vector<uint8_t> frame = Frame()
                                                   .eth()
                                                   .ipv4("10.5.0.1", "10.5.0.2")
                                                   .udp(uint16_t(10000 + i), 9)
                                                   .payload(8)
                                                   .build();
            const uint32_t record[4] = {uint32_t(1000 + 2 * seconds_), i, uint32_t(frame.size()),
                                        uint32_t(frame.size())};
            put(record, sizeof record);
            put(frame.data(), frame.size());
        }
        seconds_++;
    }
    void close() {
        if (out_ >= 0) ::close(out_);
        out_ = -1;
    }

  private:
    void put(const void *data, size_t n) { EXPECT_EQ(::write(out_, data, n), ssize_t(n)); }
    std::string fifo_;
    int hold_ = -1;
    int out_ = -1;
    int seconds_ = 0;
};

// Killed mid-stream and started again, the collector reports what it missed by the message
// counters, and both sides carry on.
TEST_F(Export, CollectorKilledAndRestartedReportsTheLostMessages) {
    const KeyPair keys = make_keys(tool, "k");
    const std::string ep = endpoint(47626);
    SlowCapture capture(tool.path("capture.fifo"));
    auto first = std::make_unique<Collector>("--bind", ep, keys.secret_file);
    const pid_t sender =
        tool.start({"flows", "-r", "-", "--idle", "1", "--zmq", ep, "--zmq-connect",
                    "--zmq-server-key", "@" + keys.public_file, "--zmq-wait", "10"},
                   tool.path("capture.fifo"));
    capture.open();
    for (int i = 0; i < 5; i++)
        capture.second();
    EXPECT_TRUE(eventually([&] { return first->flow_records() >= 48; })) << first->flow_records();
    first->crash();
    for (int i = 0; i < 5; i++) {  // sent while nobody listens: lost
        capture.second();
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    Collector second("--bind", ep, keys.secret_file);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));  // the exporter reconnects
    for (int i = 0; i < 5; i++)
        capture.second();
    capture.close();
    const ToolResult sent = tool.finish(sender);
    EXPECT_EQ(sent.exit_code, 0) << sent.err;
    EXPECT_TRUE(eventually([&] { return second.flow_records() >= 64; })) << second.flow_records();
    const ToolResult done = second.stop();
    EXPECT_EQ(done.exit_code, 0);
    EXPECT_NE(done.err.find("messages lost before message"), std::string::npos) << done.err;
    EXPECT_EQ(done.err.find(" 0 messages lost"), std::string::npos) << done.err;
    EXPECT_NE(done.err.find(" 0 malformed"), std::string::npos) << done.err;
}

// Whatever arrives, the collector counts what it cannot use and goes on.
TEST_F(Export, MalformedMessagesAreCountedAndReportedNeverACrash) {
    const KeyPair keys = make_keys(tool, "k");
    std::string server_key;
    std::ifstream(keys.public_file) >> server_key;
    const std::string ep = endpoint(47627);
    Collector collector("--bind", ep, keys.secret_file);

    void *context = zmq_ctx_new();
    void *pub = zmq_socket(context, ZMQ_PUB);
    char client_public[41], client_secret[41];
    zmq_curve_keypair(client_public, client_secret);
    zmq_setsockopt(pub, ZMQ_CURVE_SERVERKEY, server_key.c_str(), 41);
    zmq_setsockopt(pub, ZMQ_CURVE_PUBLICKEY, client_public, 41);
    zmq_setsockopt(pub, ZMQ_CURVE_SECRETKEY, client_secret, 41);
    ASSERT_EQ(zmq_connect(pub, ep.c_str()), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));

    uint32_t counter = 0;
    auto header = [&counter](const char *topic, uint8_t version, size_t size) {
        std::string h(24, '\0');
        std::memcpy(h.data(), topic, std::strlen(topic));
        h[16] = char(version);
        const uint16_t s = uint16_t(size);
        std::memcpy(h.data() + 18, &s, 2);
        const uint32_t c = htonl(counter++);
        std::memcpy(h.data() + 20, &c, 4);
        return h;
    };
    auto send = [pub](const std::vector<std::string> &parts) {
        for (size_t i = 0; i < parts.size(); i++)
            zmq_send(pub, parts[i].data(), parts[i].size(), i + 1 < parts.size() ? ZMQ_SNDMORE : 0);
    };
    const std::string good = "{\"8\":\"10.0.0.1\",\"4\":17,\"47521.118\":\"5.5\"}";
    send({header("flow", 3, good.size()), good});                               // says TLV, is JSON
    send({header("flow", 2, 5), "{\"8\":"});                                    // cut JSON
    send({header("flow", 2, good.size() + 3), good});                           // wrong size
    send({header("flow", 9, good.size()), good});                               // unknown version
    send({header("flow", 3, 4), std::string("\x01\x11\x3a", 3) + char(0x80)});  // cut TLV
    send({header("flow", 2, 2), "[1"});                                         // a cut batch
    send({"flow-but-short", good});                                             // no header
    send({header("flow", 2, good.size()), good, "extra"});                      // three parts
    send({header("flow", 2, 300), std::string(150, '[') + std::string(150, ']')});  // deep
    send({header("flow", 2, good.size()), good});  // finally a good one
    EXPECT_TRUE(eventually([&] { return collector.flow_records() == 1; }));
    zmq_close(pub);
    zmq_ctx_term(context);

    const ToolResult done = collector.stop();
    EXPECT_EQ(done.exit_code, 0);
    EXPECT_NE(done.err.find("10 messages, 1 flow records, 0 statistics records, 0 messages "
                            "lost, 9 malformed"),
              std::string::npos)
        << done.err;
    const std::vector<Json> records = collector.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0]["ipv4_src_addr"].str(), "10.0.0.1");
    EXPECT_EQ(records[0]["l7_proto_name"].str(), "DNS");
}

// libzmq hidden from the process: the tool still tracks flows; export and keys say what to do.
TEST_F(Export, WithoutLibzmqFlowsStillWorkAndExportSaysWhatToInstall) {
    if (geteuid() != 0) GTEST_SKIP() << "hiding libzmq needs a mount namespace (root)";
    char real[PATH_MAX];
    if (realpath("/usr/lib/x86_64-linux-gnu/libzmq.so.5", real) == nullptr)
        GTEST_SKIP() << "libzmq.so.5 is not where this test hides it";
    const std::string script =
        std::string("mount --bind /dev/null ") + real + " || exit 77; tool=" + QUELM_TOOL_PATH +
        "; $tool flows -r " + kSample + " -w " + tool.path("plain.txt") + "; echo plain=$?; " +
        "$tool flows -r " + kSample + " --zmq " + endpoint(47628) + " --zmq-wait 0; echo zmq=$?; " +
        "$tool keygen -o " + tool.path("k") + "; echo keygen=$?";
    const ToolResult r = tool.run_command({"unshare", "-m", "sh", "-c", script});
    if (r.exit_code == 77 || r.err.find("unshare failed") != std::string::npos)
        GTEST_SKIP() << "no mount namespace here: " << r.err;
    EXPECT_NE(r.out.find("plain=0"), std::string::npos) << r.out << r.err;
    EXPECT_GT(file_lines(tool.path("plain.txt")).size(), 40u);
    EXPECT_NE(r.out.find("*** libzmq not found, please install it ***"), std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("zmq=69"), std::string::npos) << r.out;
    EXPECT_NE(r.err.find("quelm flows: cannot export: libzmq is not installed"), std::string::npos)
        << r.err;
    EXPECT_NE(r.out.find("keygen=69"), std::string::npos) << r.out;
}

// ---- The collector's pieces -------------------------------------------------------------------

std::string header_bytes(const char *topic, uint8_t version, uint16_t size, uint32_t counter) {
    std::string h(24, '\0');
    std::memcpy(h.data(), topic, std::strlen(topic));
    h[16] = char(version);
    std::memcpy(h.data() + 18, &size, 2);
    const uint32_t c = htonl(counter);
    std::memcpy(h.data() + 20, &c, 4);
    return h;
}

TEST(CollectorDecoding, HeadersArePeckedAtEveryField) {
    const std::string json = "[{\"8\":\"10.0.0.1\"},{\"8\":\"10.0.0.2\"}]";
    const std::string tlv = std::string("\x01\x11\x3a\x00", 4);  // one record: 58 = u32 0
    struct Case {
        const char *name;
        std::vector<std::string> parts;
        const char *problem;  // empty: decodes
        size_t records;
    } cases[] = {
        {"json batch", {header_bytes("flow", 2, uint16_t(json.size()), 7), json}, "", 2},
        {"tlv", {header_bytes("flow", 3, uint16_t(tlv.size()), 7), tlv}, "", 1},
        {"size in the other order",
         {header_bytes("flow", 3, htons(uint16_t(tlv.size())), 7), tlv},
         "",
         1},
        {"stats", {header_bytes("event", 2, 8, 7), "{\"a\":{}}"}, "", 1},
        {"stats in tlv", {header_bytes("event", 3, 4, 7), tlv}, "must be JSON", 0},
        {"topic", {header_bytes("counter", 2, 2, 7), "{}"}, "unknown topic 'counter'", 0},
        {"topic not padded",
         {std::string("flow\0x", 6) + header_bytes("", 2, 2, 7).substr(6), "{}"},
         "not zero-padded",
         0},
        {"version", {header_bytes("flow", 1, 2, 7), "{}"}, "unknown version byte 1", 0},
        {"json said, tlv sent", {header_bytes("flow", 2, 4, 7), tlv}, "says JSON", 0},
        {"size", {header_bytes("flow", 2, 3, 7), "{}"}, "is not the payload's 2 bytes", 0},
        {"short header", {"flow", "{}"}, "a header of 4 bytes", 0},
        {"one part", {header_bytes("flow", 2, 2, 7)}, "1 parts instead of 2", 0},
        {"bad json", {header_bytes("flow", 2, 3, 7), "{1}"}, "bad JSON", 0},
        {"json of numbers", {header_bytes("flow", 2, 3, 7), "[1]"}, "other than records", 0},
        {"bad tlv", {header_bytes("flow", 3, 2, 7), std::string("\x01\x77", 2)}, "malformed", 0},
        {"tlv block left open",
         {header_bytes("flow", 3, 4, 7), std::string("\x01\x24\x01\x62", 4)},
         "malformed",  // the reader refuses a batch that ends inside a block
         0},
    };
    for (const Case &c : cases) {
        const quelm_tool::DecodedMessage m = quelm_tool::decode_message(c.parts);
        EXPECT_EQ(m.ok, *c.problem == 0) << c.name << ": " << m.problem;
        EXPECT_NE(m.problem.find(c.problem), std::string::npos) << c.name << ": " << m.problem;
        EXPECT_EQ(m.records.size(), c.records) << c.name;
        if (c.parts[0].size() == 24) {
            EXPECT_EQ(m.counter, 7u) << c.name;
        }
    }
}

TEST(CollectorDecoding, CountersReportGapsRestartsAndLateJoins) {
    struct Case {
        std::vector<uint32_t> counters;
        std::vector<uint32_t> lost_before_each;
        uint64_t lost;
    } cases[] = {
        {{0, 1, 2, 3}, {0, 0, 0, 0}, 0},
        {{0, 1, 4, 5}, {0, 0, 2, 0}, 2},
        {{5, 6}, {5, 0}, 5},                    // joined late: the first five never arrived
        {{0, 1, 0, 1, 3}, {0, 0, 0, 0, 1}, 1},  // the exporter restarted, then lost one
        {{0xFFFFFFFE, 0xFFFFFFFF}, {0xFFFFFFFE, 0}, 0xFFFFFFFE},
    };
    for (const Case &c : cases) {
        quelm_tool::CounterTracker t;
        std::vector<uint32_t> lost;
        for (uint32_t counter : c.counters)
            lost.push_back(t.see(counter));
        EXPECT_EQ(lost, c.lost_before_each);
        EXPECT_EQ(t.lost(), c.lost);
    }
}

// TLV and JSON of the same record name the same fields with the same values.
TEST(CollectorDecoding, TlvAndJsonOfARecordGiveTheSameNamedFields) {
    const std::string json =
        "{\"58\":0,\"8\":\"10.0.0.1\",\"2\":3,\"47521.118\":\"7.7\",\"999\":1}";
    std::string tlv = std::string("\x01\x11\x3a\x00\x13\x08\x08", 7) + "10.0.0.1" +
                      std::string("\x12\x02\x03\x23\x09", 5) + "47521.118" +
                      std::string("\x03", 1) + "7.7" + std::string("\x11\xe7\x07\x01", 4);
    const auto from_json =
        quelm_tool::decode_message({header_bytes("flow", 2, uint16_t(json.size()), 0), json});
    const auto from_tlv =
        quelm_tool::decode_message({header_bytes("flow", 3, uint16_t(tlv.size()), 0), tlv});
    ASSERT_TRUE(from_json.ok) << from_json.problem;
    ASSERT_TRUE(from_tlv.ok) << from_tlv.problem;
    auto named = [](const quelm_tool::DecodedMessage &m) {
        std::string out;
        quelm_tool::write_record_json(
            quelm_tool::name_flow_fields(m.records.at(0),
                                         [](const std::string &ids) {
                                             return ids == "7.7" ? std::string("HTTP")
                                                                 : std::string();
                                         }),
            &out);
        return out;
    };
    EXPECT_EQ(named(from_json),
              "{\"event_type\":\"flow\",\"src_vlan\":0,\"ipv4_src_addr\":\"10.0.0.1\","
              "\"in_pkts\":3,\"l7_proto\":\"7.7\",\"l7_proto_name\":\"HTTP\",\"field_999\":1}");
    EXPECT_EQ(named(from_tlv), named(from_json));
}

TEST(CollectorDecoding, JsonReaderRejectsWhatIsNotJsonAndKeepsBytes) {
    const char *bad[] = {"",    "{",  "{\"a\"}",     "{\"a\":1,}", "[1 2]", "\"\\x\"",
                         "01x", "1.", "\"\\ud800\"", "tru",        "{} {}", "\"a\nb\""};
    for (const char *text : bad) {
        quelm_tool::Record v;
        std::string error;
        EXPECT_FALSE(quelm_tool::parse_record_json(text, &v, &error)) << text;
        EXPECT_FALSE(error.empty());
    }
    quelm_tool::Record v;
    std::string error;
    const std::string text =
        "{\"s\":\"\\u00ff\\u00e9\\ud83d\\ude00\\n\",\"n\":-15,\"b\":[true,null]}";
    ASSERT_TRUE(quelm_tool::parse_record_json(text, &v, &error)) << error;
    EXPECT_EQ(v["s"], "\xff\xe9\xf0\x9f\x98\x80\n");  // \u00XX: the byte itself
    std::string out;
    quelm_tool::write_record_json(v, &out);
    EXPECT_EQ(out, "{\"s\":\"\\u00ff\\u00e9\xf0\x9f\x98\x80\\u000a\",\"n\":-15,\"b\":[true,null]}");
}

}  // namespace
}  // namespace quelm_test
