// Export against a scripted libzmq and the real engine's serializer.
#include <gtest/gtest.h>

#include <optional>
#include <regex>
#include <string>
#include <vector>

#include "fake_zmq.h"
#include "quelm_export.h"
#include "test_table.h"
#include "tlv_copy.h"
#include "wire_header.h"

namespace {

namespace wire = quelm::wire;
using fake_zmq::state;
using quelm_test::Frame;

constexpr const char *kKey = "rq:rM>}U?@Lns47E1%kR.o@n%FcmmsL/@{H8]yf7";  // 40 Z85 characters

// Records of message `i` as "key=value " text, its header checked against payload and place.
std::vector<std::string> records(size_t i, uint8_t version = wire::kVersionTlv,
                                 const char *topic = wire::kTopicFlow) {
    const fake_zmq::Message &m = state().messages.at(i);
    EXPECT_EQ(std::string(m.header.begin(), m.header.end()),
              quelm_test::wire_header(topic, version, uint16_t(m.payload.size()), uint32_t(i)));
    std::string text(m.payload.begin(), m.payload.end());
    if (version == wire::kVersionTlv) {  // as JSON, by the engine's serializer
        pelda_serializer s;
        pelda_init_serializer(&s, PELDA_SERIALIZATION_FORMAT_JSON);
        EXPECT_TRUE(pt::tlv_copy(text.data(), text.size(), &s)) << "the batch decodes to its end";
        uint32_t len = 0;
        text = pelda_serializer_get_buffer(&s, &len);
        pelda_term_serializer(&s);
    }
    std::vector<std::string> out;  // of flat objects, maybe in an array
    static const std::regex element(R"re(\{|"([^"]*)":"?([^",}]*))re");
    for (std::sregex_iterator it(text.begin(), text.end(), element), end; it != end; ++it)
        if ((*it)[1].matched)
            out.back() += (*it)[1].str() + "=" + (*it)[2].str() + " ";
        else
            out.emplace_back();
    return out;
}

class Export : public ::testing::Test {
  protected:
    void SetUp() override {
        state() = {};
        t = b.emplace().t;
        ASSERT_NE(t, nullptr);
        quelm_set_flow_export_callback(t, quelm_zmq_export_flow, t);
    }
    void TearDown() override { b.reset(); }
    void start(bool json = false) {
        quelm_zmq_export_configure(t, "tcp://127.0.0.1:5556", kKey, 1, 0, json);
        ASSERT_TRUE(t->exporter.initialized);
    }
    // Flows `first` to `last` - 1, one packet each from source port 1000 + n, ended by a flush.
    void flows(uint16_t first, uint16_t last, bool v6 = false, bool flush = true) {
        for (uint16_t n = first; n < last; n++)
            b->send(v6 ? Frame().eth().ipv6("fd00::1", "fd00::2").udp(1000 + n, 53)
                       : Frame().eth().ipv4("10.0.0.1", "10.0.0.2").tcp(1000 + n, 80),
                    100);
        if (flush) quelm_flush(t);
    }
    std::optional<quelm_test::Bench> b;
    quelm_table *t = nullptr;
};

TEST_F(Export, RecordFieldsInTheirOrderAndAFormatChangeBetweenBatches) {
    const std::string macs = "58=0 56=02:00:00:00:00:0A 80=02:00:00:00:00:0B ";
    const std::string rest = "22=100 21=100 7=1000 ", tail = "5=0 10=0 14=0 300=0 47521.118=0.0 ";
    start();
    flows(0, 1);
    quelm_housekeeping(t, 200);  // the queued flow is batched as TLV ...
    start(true);                 // ... and sent before the format changes
    flows(0, 1, true);
    quelm_export_destroy(&t->exporter);  // sends the partly filled batch
    ASSERT_EQ(state().messages.size(), 2u);
    EXPECT_EQ(records(0, wire::kVersionTlv),
              std::vector<std::string>{macs + "60=4 8=10.0.0.1 12=10.0.0.2 2=1 1=54 24=0 23=0 " +
                                       rest + "11=80 6=16 4=6 " + tail});
    // IPv6 bytes are counted from the IP header on
    EXPECT_EQ(records(1, wire::kVersionJson),
              std::vector<std::string>{macs + "60=6 27=fd00::1 28=fd00::2 2=1 1=48 24=0 23=0 " +
                                       rest + "11=53 6=0 4=17 " + tail});
    EXPECT_EQ(state().contexts, 1) << "a running exporter keeps its socket";
}

TEST_F(Export, QueueDrainsNewestFirstWithinItsBudget) {
    start();
    quelm_export &ex = t->exporter;
    quelm_set_flow_export_callback(
        t,
        [](quelm_flow *f, void *u) {
            quelm_export_enqueue_flow(&static_cast<quelm_table *>(u)->exporter, f);
        },
        t);
    flows(0, 250);
    ASSERT_EQ(ex.queue_len, 250u);
    ex.last_dequeue_msec = 0;  // a new millisecond: the budget refills
    EXPECT_EQ(quelm_export_process_queue(&ex, 0), 1);
    EXPECT_EQ(ex.queue_len, 150u);
    ex.last_dequeue_msec = UINT64_MAX;  // still the same millisecond
    EXPECT_EQ(quelm_export_process_queue(&ex, 0), 1);
    EXPECT_EQ(ex.queue_len, 150u);
    EXPECT_EQ(quelm_export_process_queue(&ex, 1), 0) << "a forced drain empties the queue";
    EXPECT_EQ(ex.queue_len, 0u);
    quelm_export_destroy(&ex);  // sends the partly filled batch, closes the transport
    EXPECT_EQ(ex.num_flow_exports, 250u);
    EXPECT_EQ(state().closed + state().destroyed, 2);
    EXPECT_NE(records(0).at(0).find(" 7=1249 "), std::string::npos) << "the newest flow first";
}

TEST_F(Export, DormantExporterKeepsFlowsUntilItStartsUpToItsLimit) {
    testing::internal::CaptureStderr();
    quelm_zmq_export_configure(t, nullptr, kKey, 1, 0, 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "no endpoint: dormant, silently";
    EXPECT_EQ(state().contexts, 0);
    flows(0, 20);
    EXPECT_EQ(t->exporter.queue_len, 20u);
    start();
    quelm_housekeeping(t, 200);
    quelm_export_destroy(&t->exporter);
    EXPECT_EQ(records(1).size(), 4u) << "16 and 4";
    // Dormant again: a full queue drops the arriving flow; teardown releases the others.
    t->exporter.queue_len = QUELM_EXPORT_QUEUE_MAX - 1;  // as if full but for one
    flows(20, 22);
    EXPECT_EQ(t->exporter.queue_len, QUELM_EXPORT_QUEUE_MAX);
    EXPECT_EQ(t->exporter.num_flow_drops, 1u);
}

TEST_F(Export, FailedStartsReleaseWhatTheyMade) {
    // clang-format off
    const struct { const char *key, *fail, *message; } cases[] = {
        {"short", "", "Bad ZMQ server public key size (5 != 40) 'short'"},
        {kKey, "zmq_curve_keypair", "Error generating ZMQ client key pair"},
        {kKey, "zmq_setsockopt", "Error setting ZMQ_CURVE_SERVERKEY = "},
        {kKey, "zmq_socket", "Unable to initialize ZMQ tcp://x:1 (publisher)"},
        {kKey, "zmq_ctx_new", "Unable to initialize ZMQ tcp://x:1 (context)"},
    };
    // clang-format on
    for (const auto &c : cases) {
        state() = {};
        state().fail = c.fail;
        testing::internal::CaptureStderr();
        quelm_zmq_export_configure(t, "tcp://x:1", c.key, 1, 0, 0);
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_NE(err.find(c.message), std::string::npos) << err;
        EXPECT_FALSE(t->exporter.initialized);
        EXPECT_EQ(state().closed, state().sockets) << c.message;
        EXPECT_EQ(state().destroyed, state().contexts) << c.message;
    }
    state() = {};
    start();  // a later configuration tries again
}

TEST_F(Export, StatisticsRecordEveryThreeSeconds) {
    quelm_zmq_export_stats(t, "eth0", 1000, nullptr, nullptr);
    EXPECT_TRUE(state().messages.empty()) << "no running exporter: nothing is sent";
    start();
    quelm_zmq_export_stats(t, "eth0", 1000, nullptr, nullptr);
    records(0, wire::kVersionJson, wire::kTopicEvent);
    quelm_export &ex = t->exporter;
    ex.stats_last_msec = utils_time_msec() - 2900;
    quelm_zmq_export_stats(t, "eth0", 1000, nullptr, nullptr);
    ASSERT_EQ(state().messages.size(), 1u) << "nor does one 2.9 s later";
    ex.stats_last_msec = utils_time_msec() - 3100;
    quelm_zmq_export_stats(t, "eth0", 1000, nullptr, nullptr);
    records(1, wire::kVersionJson, wire::kTopicEvent);
}

}  // namespace

// The packet path never waits: what collectors refuse stays queued; a forced drain waits up to the
// timeout once, then counts the rest as dropped.
TEST_F(Export, RefusedSendsKeepFlowsUntilAForcedDrainGivesUp) {
    // clang-format off
    const struct { int refusals; bool subscribed; uint32_t exported, dropped; } cases[] = {
        {3, true, 40, 0},    // a collector's queue is full for a while
        {-1, true, 0, 40},   // and stays full
        {0, false, 0, 40},   // nobody subscribes
    };
    // clang-format on
    for (const auto &c : cases) {
        TearDown(), SetUp();
        if (!c.subscribed) state().subscriptions.clear();
        start();
        quelm_zmq_set_timeout(t, 50);
        state().refuse_sends = c.refusals;
        flows(0, 40, false, false);
        quelm_housekeeping(t, 200);  // ended by idle time in the packet path
        EXPECT_EQ(t->exporter.num_flow_drops, 0u) << "the packet path drops nothing";
        const uint64_t before = utils_time_msec();
        quelm_zmq_export_drain(t);
        EXPECT_LT(utils_time_msec() - before, 1000u) << "one timeout, not one per batch";
        EXPECT_EQ(t->exporter.num_flow_exports, c.exported);
        EXPECT_EQ(t->exporter.num_flow_drops, c.dropped);
    }
}
