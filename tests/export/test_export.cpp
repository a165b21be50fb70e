// Export against a scripted libzmq and the real engine's serializer: the message header, the flow
// records, the queue and its batches, failures, and the statistics record.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <array>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include "fake_zmq.h"
#include "packet_builder.h"
#include "quelm_export.h"
#include "quelm_flow.h"
#include "quelm_table.h"
#include "quelm_wire.h"

namespace {

namespace wire = quelm::wire;
using fake_zmq::state;
using quelm_test::Frame;

constexpr const char *kKey = "rq:rM>}U?@Lns47E1%kR.o@n%FcmmsL/@{H8]yf7";  // 40 Z85 characters

// A record's elements as (key, value) text in the order written, numbers in decimal.
using Record = std::vector<std::pair<std::string, std::string>>;

std::vector<Record> decode(const fake_zmq::Message &m) {
    std::vector<Record> out;
    if (m.header.at(wire::kVersionAt) == wire::kVersionJson) {  // flat objects, maybe in an array
        const std::string text(m.payload.begin(), m.payload.end());
        static const std::regex element(R"re(([{])|"([^"]*)":(?:"([^"]*)"|(\d+)))re");
        for (std::sregex_iterator it(text.begin(), text.end(), element), end; it != end; ++it) {
            if ((*it)[1].matched)
                out.emplace_back();
            else
                out.back().push_back({(*it)[2], (*it)[(*it)[3].matched ? 3 : 4]});
        }
        return out;
    }
    pelda_tlv_reader r;
    EXPECT_EQ(pelda_tlv_reader_init(&r, m.payload.data(), uint32_t(m.payload.size())), 0);
    out.emplace_back();
    pelda_tlv_element e;
    int rc;
    while ((rc = pelda_tlv_reader_next(&r, &e)) == 1) {
        const std::string key = e.key_kind == PELDA_TLV_KEY_NUMBER
                                    ? std::to_string(e.key_number)
                                    : std::string(e.key_text, e.key_text_len);
        if (e.kind == PELDA_TLV_END_OF_RECORD)
            out.emplace_back();
        else if (e.kind == PELDA_TLV_STRING)
            out.back().push_back({key, std::string(e.string, e.string_len)});
        else
            out.back().push_back({key, std::to_string(e.number)});
    }
    EXPECT_EQ(rc, 0) << "the batch decodes to its end";
    return out;
}

// Records of message `i`, after checking its header against its payload and its place.
std::vector<Record> records(size_t i, uint8_t version = wire::kVersionTlv,
                            const std::string &topic = wire::kTopicFlow) {
    const fake_zmq::Message &m = state().messages.at(i);
    EXPECT_EQ(m.header.size(), wire::kHeaderLen);
    EXPECT_EQ(std::string(m.header.begin(), m.header.begin() + wire::kTopicLen),
              topic + std::string(wire::kTopicLen - topic.size(), '\0'));
    EXPECT_EQ(m.header.at(wire::kVersionAt), version);
    uint16_t size;
    memcpy(&size, &m.header.at(wire::kSizeAt), sizeof size);
    EXPECT_EQ(size, m.payload.size()) << "host order";
    uint32_t counter;
    memcpy(&counter, &m.header.at(wire::kCounterAt), sizeof counter);
    EXPECT_EQ(ntohl(counter), i) << "big-endian, one per message sent";
    return decode(m);
}

size_t all_records() {
    size_t n = 0;
    for (size_t i = 0; i < state().messages.size(); i++)
        n += records(i).size();
    return n;
}

class Export : public ::testing::Test {
  protected:
    void SetUp() override {
        fake_zmq::reset();
        t = quelm_create_table(0, 1024, 30, 120, 0);
        ASSERT_NE(t, nullptr);
        quelm_set_flow_export_callback(t, quelm_zmq_export_flow, t);
    }
    void TearDown() override { quelm_destroy_table(t); }
    void start(bool json = false) {
        quelm_zmq_export_configure(t, "tcp://127.0.0.1:5556", kKey, 1, 0, json);
        ASSERT_TRUE(t->exporter.initialized);
    }
    // Flows `first` to `last` - 1, one packet each from source port 1000 + n, ended by a flush.
    void flows(uint16_t first, uint16_t last, bool v6 = false) {
        for (uint16_t n = first; n < last; n++) {
            const auto f =
                v6 ? Frame().eth().ipv6("fd00::1", "fd00::2").udp(1000 + n, 53).build()
                   : Frame().eth().ipv4("10.0.0.1", "10.0.0.2").tcp(1000 + n, 80).build();
            const quelm_packet_header h{{100, 0}, uint32_t(f.size()), uint32_t(f.size())};
            const quelm_packet_ext ext{};
            quelm_process(t, f.data(), &h, &ext);
        }
        quelm_flush(t);
    }
    quelm_zmq_stats counters() {
        quelm_zmq_stats s;
        quelm_zmq_get_stats(t, &s);
        return s;
    }
    quelm_table *t = nullptr;
};

TEST_F(Export, SixteenRecordsMakeAMessage) {
    start();
    flows(0, 15);
    EXPECT_TRUE(state().messages.empty()) << "15 flows wait in the queue";
    flows(15, 48);
    ASSERT_EQ(state().messages.size(), 3u);
    for (size_t i = 0; i < 3; i++)
        EXPECT_EQ(records(i).size(), 16u);
    EXPECT_EQ(counters().num_flow_exports, 48u);
}

TEST_F(Export, RecordFieldsInTheirOrderInTlvAndJson) {
    using namespace quelm::wire;
    // clang-format off
    const std::map<uint32_t, std::array<const char *, 2>> nonzero = {  // IPv4, IPv6 ("": absent)
        {kInSrcMac, {"02:00:00:00:00:0A", "02:00:00:00:00:0A"}},
        {kInDstMac, {"02:00:00:00:00:0B", "02:00:00:00:00:0B"}},
        {kIpProtocolVersion, {"4", "6"}},
        {kIpv4SrcAddr, {"10.0.0.1", ""}},
        {kIpv4DstAddr, {"10.0.0.2", ""}},
        {kIpv6SrcAddr, {"", "fd00::1"}},
        {kIpv6DstAddr, {"", "fd00::2"}},
        {kInPkts, {"1", "1"}},
        {kInBytes, {"54", "48"}},  // IPv6 bytes are counted from the IP header on
        {kFirstSwitched, {"100", "100"}},
        {kLastSwitched, {"100", "100"}},
        {kL4SrcPort, {"1000", "1000"}},
        {kL4DstPort, {"80", "53"}},
        {kTcpFlags, {"16", "0"}},
        {kProtocol, {"6", "17"}},
        {0, {"0.0", "0.0"}},  // the application protocol, under its text key
    };
    // clang-format on
    for (int row = 0; row < 4; row++) {
        const bool json = row & 1, v6 = row & 2;
        TearDown();
        SetUp();
        start(json);
        flows(0, 1, v6);
        quelm_export_destroy(&t->exporter);  // sends the partly filled batch
        Record want;
        for (const Field &f : kFlowFields) {
            const auto it = nonzero.find(f.id);
            const std::string value = it == nonzero.end() ? "0" : it->second[v6];
            if (!value.empty()) want.push_back({f.key, value});
        }
        EXPECT_EQ(records(0, json ? kVersionJson : kVersionTlv), std::vector<Record>{want})
            << (json ? "JSON" : "TLV") << (v6 ? " IPv6" : " IPv4");
    }
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
    EXPECT_EQ(all_records(), 250u);
    EXPECT_EQ(state().closed + state().destroyed, 2);
    const Record first = records(0).at(0);
    const auto sport = std::find_if(first.begin(), first.end(), [](const auto &e) {
        return e.first == std::to_string(wire::kL4SrcPort);
    });
    ASSERT_NE(sport, first.end());
    EXPECT_EQ(sport->second, "1249") << "the newest flow first";
}

TEST_F(Export, FullQueueDropsTheArrivingFlow) {
    // Dormant: flows are queued, never drained; teardown releases them.
    const auto p = Frame().eth().ipv4("10.0.0.1", "10.0.0.2").tcp(1, 2).build();
    quelm_packet_header h{{100, 0}, uint32_t(p.size()), uint32_t(p.size())};
    quelm_packet_info info{};
    info.header = &h;
    info.is_ipv4 = 1;
    for (uint32_t n = 0; n < QUELM_EXPORT_QUEUE_MAX + 1; n++)
        quelm_zmq_export_flow(quelm_flow_new(&info, nullptr, 0), t);
    EXPECT_EQ(t->exporter.queue_len, QUELM_EXPORT_QUEUE_MAX);
    EXPECT_EQ(counters().num_flow_drops, 1u);
}

TEST_F(Export, DormantExporterKeepsFlowsUntilItStarts) {
    testing::internal::CaptureStderr();
    quelm_zmq_export_configure(t, nullptr, kKey, 1, 0, 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "no endpoint: dormant, silently";
    EXPECT_EQ(state().contexts, 0);
    flows(0, 20);
    EXPECT_EQ(t->exporter.queue_len, 20u);
    start();
    quelm_housekeeping(t, 200);
    quelm_export_destroy(&t->exporter);
    EXPECT_EQ(all_records(), 20u);
}

TEST_F(Export, FormatChangeKeepsTheVersionByteTrueToThePayload) {
    start(false);
    flows(0, 20);                // 16 sent as TLV, 4 queued
    quelm_housekeeping(t, 200);  // ... and now batched
    start(true);
    flows(20, 36);
    ASSERT_EQ(state().messages.size(), 3u);
    EXPECT_EQ(records(1, wire::kVersionTlv).size(), 4u);
    EXPECT_EQ(records(2, wire::kVersionJson).size(), 16u);
    EXPECT_EQ(state().contexts, 1) << "a running exporter keeps its socket";
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
        fake_zmq::reset();
        state().fail = c.fail;
        testing::internal::CaptureStderr();
        quelm_zmq_export_configure(t, "tcp://x:1", c.key, 1, 0, 0);
        const std::string err = testing::internal::GetCapturedStderr();
        EXPECT_NE(err.find(c.message), std::string::npos) << err;
        EXPECT_FALSE(t->exporter.initialized);
        EXPECT_EQ(state().closed, state().sockets) << c.message;
        EXPECT_EQ(state().destroyed, state().contexts) << c.message;
    }
    fake_zmq::reset();
    start();  // a later configuration tries again
}

TEST_F(Export, FailedSendCountsTheBatchAsDropped) {
    start();
    state().fail = "zmq_send";
    testing::internal::CaptureStderr();
    flows(0, 16);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("[ZMQ] Send error [flow] "), std::string::npos) << err;
    EXPECT_EQ(counters().num_flow_drops, 16u);
    EXPECT_EQ(counters().num_flow_exports, 0u);
    state().fail = "";
    flows(16, 32);
    EXPECT_EQ(records(0).size(), 16u) << "numbered 0: a failed message does not count";
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
    ex.stats_last_msec = utils_time_msec() - 4000;
    t->stats.packets = ex.stats_last_packets + 4000;
    t->stats.bytes = ex.stats_last_bytes + 500000;
    quelm_zmq_export_stats(t, "eth0", 1000, "10.1.1.1", "192.0.2.9");
    ASSERT_EQ(state().messages.size(), 2u);
    const std::string text(state().messages[1].payload.begin(), state().messages[1].payload.end());
    std::smatch pps, bps;
    ASSERT_TRUE(std::regex_search(text, pps, std::regex("\"pps\":(\\d+)"))) << text;
    ASSERT_TRUE(std::regex_search(text, bps, std::regex("\"bps\":(\\d+)"))) << text;
    // The rates divide by the wall-clock time since the previous record: a little over 4 s.
    EXPECT_GE(std::stoul(pps[1]), 900u);
    EXPECT_LE(std::stoul(pps[1]), 1000u);
    EXPECT_GE(std::stoul(bps[1]), 900000u);
    EXPECT_LE(std::stoul(bps[1]), 1000000u);
}

}  // namespace
