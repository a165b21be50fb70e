// Export: the transport's set-up and message header, the flow and statistics records, the queue,
// its batches and teardown, against a scripted libzmq and the real engine's serializer.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <string>
#include <variant>
#include <vector>

#include "fake_zmq.h"
#include "packet_builder.h"
#include "quelm_export.h"
#include "quelm_flow.h"
#include "quelm_table.h"

namespace {

using fake_zmq::state;
using quelm_test::Frame;

constexpr const char *kKey = "rq:rM>}U?@Lns47E1%kR.o@n%FcmmsL/@{H8]yf7";  // 40 Z85 characters

using Value = std::variant<uint64_t, std::string>;
struct Element {
    std::string key;
    Value value;
    bool operator==(const Element &) const = default;
};
using Record = std::vector<Element>;

// Records of a TLV batch, keys as text (numbers in decimal), blocks flattened as "block.key".
std::vector<Record> decode_tlv(const std::vector<uint8_t> &batch) {
    pelda_tlv_reader r;
    EXPECT_EQ(pelda_tlv_reader_init(&r, batch.data(), uint32_t(batch.size())), 0);
    std::vector<Record> out(1);
    pelda_tlv_element e;
    int rc;
    while ((rc = pelda_tlv_reader_next(&r, &e)) == 1) {
        if (e.kind == PELDA_TLV_END_OF_RECORD) {
            out.emplace_back();
            continue;
        }
        const std::string key = e.key_kind == PELDA_TLV_KEY_NUMBER
                                    ? std::to_string(e.key_number)
                                    : std::string(e.key_text, e.key_text_len);
        if (e.kind == PELDA_TLV_STRING)
            out.back().push_back({key, std::string(e.string, e.string_len)});
        else if (e.kind == PELDA_TLV_UINT32 || e.kind == PELDA_TLV_UINT64)
            out.back().push_back({key, e.number});
    }
    EXPECT_EQ(rc, 0) << "the batch must decode to its end";
    return out;
}

// Records of a flat JSON batch (one object, or an array of objects) of the same shape.
std::vector<Record> decode_json(const std::string &text) {
    std::vector<Record> out;
    size_t i = 0;
    auto skip = [&] {
        while (i < text.size() && (text[i] == ' ' || text[i] == '\n' || text[i] == ','))
            i++;
    };
    auto str = [&] {
        std::string s;
        for (i++; i < text.size() && text[i] != '"'; i++)
            s += text[i] == '\\' ? text[++i] : text[i];
        i++;
        return s;
    };
    while (i < text.size()) {
        skip();
        if (i >= text.size()) break;
        if (text[i] == '[' || text[i] == ']') {
            i++;
        } else if (text[i] == '{') {
            out.emplace_back();
            i++;
        } else if (text[i] == '}') {
            i++;
        } else if (text[i] == '"') {
            const std::string key = str();
            i++;  // ':'
            if (text[i] == '"') {
                out.back().push_back({key, str()});
            } else if (text[i] == '{') {
                i++;  // blocks are not nested in flow records
            } else {
                size_t end = i;
                while (end < text.size() && isdigit(static_cast<unsigned char>(text[end])))
                    end++;
                out.back().push_back({key, uint64_t(std::stoull(text.substr(i, end - i)))});
                i = end;
            }
        } else {
            ADD_FAILURE() << "unexpected JSON at " << i << ": " << text.substr(i, 20);
            break;
        }
    }
    return out;
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
    void start(bool json = false, const char *endpoints = "tcp://127.0.0.1:5556",
               uint8_t connect = 1) {
        quelm_zmq_export_configure(t, endpoints, kKey, connect, 0, json);
        ASSERT_TRUE(t->exporter.initialized);
    }
    // Sends the first packet of flow `n` (distinct source ports 1000 + n).
    void flow(uint16_t n, bool v6 = false) {
        const auto f = v6 ? Frame().eth().ipv6("fd00::1", "fd00::2").udp(1000 + n, 53).build()
                          : Frame().eth().ipv4("10.0.0.1", "10.0.0.2").tcp(1000 + n, 80).build();
        const quelm_packet_header h{{100, 0}, uint32_t(f.size()), uint32_t(f.size())};
        const quelm_packet_ext ext{};
        quelm_process(t, f.data(), &h, &ext);
    }
    quelm_zmq_stats counters() {
        quelm_zmq_stats s;
        quelm_zmq_get_stats(t, &s);
        return s;
    }
    static std::vector<uint64_t> sports(const std::vector<Record> &records) {
        std::vector<uint64_t> out;
        for (const Record &r : records)
            for (const Element &e : r)
                if (e.key == "7") out.push_back(std::get<uint64_t>(e.value));
        return out;
    }
    quelm_table *t = nullptr;
};

TEST_F(Export, TransportConnectsToEveryEndpointWithCurveKeys) {
    start(false, "tcp://127.0.0.1:1,,tcp://127.0.0.1:2,");
    EXPECT_EQ(state().connected,
              (std::vector<std::string>{"tcp://127.0.0.1:1", "tcp://127.0.0.1:2"}));
    EXPECT_EQ(state().options[50], std::string(kKey) + '\0') << "server key with its terminator";
    EXPECT_EQ(state().options[48], std::string(40, 'P') + '\0');
    EXPECT_EQ(state().options[49], std::string(40, 'S') + '\0');
    int sndbuf;
    ASSERT_EQ(state().options[11].size(), sizeof sndbuf);
    memcpy(&sndbuf, state().options[11].data(), sizeof sndbuf);
    EXPECT_EQ(sndbuf, 8 * 1024 * 1024);
    int hwm;
    ASSERT_EQ(state().options[23].size(), sizeof hwm);
    memcpy(&hwm, state().options[23].data(), sizeof hwm);
    EXPECT_GE(hwm, 500000 / 16) << "room for a whole export queue drained at once";
}

TEST_F(Export, BindModeKeepsTheDefaultSendBufferAndSkipsBadEndpoints) {
    testing::internal::CaptureStderr();
    start(false, "tcp://bad:1,tcp://127.0.0.1:2", 0);
    EXPECT_NE(
        testing::internal::GetCapturedStderr().find("Unable to bind ZMQ endpoint tcp://bad:1"),
        std::string::npos);
    EXPECT_EQ(state().bound.size(), 2u);
    EXPECT_EQ(state().options.count(11), 0u);
}

TEST_F(Export, DefaultKeyIsUsedWithoutOne) {
    quelm_zmq_export_configure(t, "tcp://127.0.0.1:1", nullptr, 1, 0, 0);
    EXPECT_EQ(state().options[50], std::string("Q7w.Fk2-Tz9m!xR4b^Lp8vN0c=Hs6yJe3Ud5aG1o") + '\0');
}

TEST_F(Export, FailedStartsAreReportedAndReleaseWhatTheyMade) {
    struct Case {
        const char *key;
        void (*script)();
        const char *message;
    } cases[] = {
        {"short", [] {}, "Bad ZMQ server public key size (5 != 40) 'short'"},
        {kKey, [] { state().fail_keypair = true; }, "Error generating ZMQ client key pair"},
        {kKey, [] { state().fail_option[50] = true; }, "Error setting ZMQ_CURVE_SERVERKEY = "},
        {kKey, [] { state().fail_socket = true; },
         "Unable to initialize ZMQ tcp://x:1 (publisher)"},
        {kKey, [] { state().fail_context = true; }, "Unable to initialize ZMQ tcp://x:1 (context)"},
    };
    for (const Case &c : cases) {
        fake_zmq::reset();
        c.script();
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

TEST_F(Export, NoEndpointLeavesTheExporterDormantSilently) {
    testing::internal::CaptureStderr();
    quelm_zmq_export_configure(t, nullptr, kKey, 1, 0, 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_FALSE(t->exporter.initialized);
    EXPECT_EQ(state().contexts, 0);
}

TEST_F(Export, SixteenFlowsMakeOneMessageWithItsHeader) {
    start();
    for (uint16_t n = 0; n < 15; n++)
        flow(n);
    quelm_flush(t);
    EXPECT_TRUE(state().messages.empty());
    EXPECT_EQ(counters().buffered_records, 0u) << "15 flows wait in the queue";
    flow(15);
    quelm_flush(t);
    ASSERT_EQ(state().messages.size(), 1u);
    const fake_zmq::Message &m = state().messages[0];
    ASSERT_EQ(m.header.size(), 24u);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(m.header.data())), "flow");
    for (int i = 4; i < 16; i++)
        EXPECT_EQ(m.header[i], 0) << i;
    EXPECT_EQ(m.header[16], 3) << "TLV";
    EXPECT_EQ(m.header[17], 0);
    uint16_t size;
    memcpy(&size, &m.header[18], 2);
    EXPECT_EQ(size, m.payload.size()) << "host order";
    EXPECT_EQ(m.header[20] | m.header[21] | m.header[22] | m.header[23], 0);
    const std::vector<Record> records = decode_tlv(m.payload);
    ASSERT_EQ(records.size(), 16u);
    EXPECT_EQ(counters().num_flow_exports, 16u);
}

TEST_F(Export, MessageCounterIsBigEndianAndCountsOn) {
    start();
    for (uint16_t n = 0; n < 48; n++)
        flow(n);
    quelm_flush(t);
    ASSERT_EQ(state().messages.size(), 3u);
    for (uint32_t i = 0; i < 3; i++) {
        uint32_t id;
        memcpy(&id, &state().messages[i].header[20], 4);
        EXPECT_EQ(ntohl(id), i);
    }
}

TEST_F(Export, FlowRecordElementsInOrderSameInTlvAndJson) {
    const Record want = {{"58", 0u},
                         {"56", "02:00:00:00:00:0A"},
                         {"80", "02:00:00:00:00:0B"},
                         {"60", 4u},
                         {"8", "10.0.0.1"},
                         {"12", "10.0.0.2"},
                         {"2", 1u},
                         {"1", 54u},
                         {"24", 0u},
                         {"23", 0u},
                         {"22", 100u},
                         {"21", 100u},
                         {"7", 1000u},
                         {"11", 80u},
                         {"6", 0x10u},
                         {"4", 6u},
                         {"5", 0u},
                         {"10", 0u},
                         {"14", 0u},
                         {"300", 0u},
                         {"47521.118", "0.0"}};
    for (bool json : {false, true}) {
        fake_zmq::reset();
        quelm_destroy_table(t);
        SetUp();
        start(json);
        flow(0);
        quelm_flush(t);
        quelm_destroy_table(t);  // sends the partly filled batch
        t = quelm_create_table(0, 16, 0, 0, 0);
        ASSERT_EQ(state().messages.size(), 1u);
        const auto &payload = state().messages[0].payload;
        EXPECT_EQ(state().messages[0].header[16], json ? 2 : 3);
        const std::vector<Record> got =
            json ? decode_json(std::string(payload.begin(), payload.end())) : decode_tlv(payload);
        ASSERT_EQ(got.size(), 1u);
        EXPECT_EQ(got[0], want) << (json ? "JSON" : "TLV");
    }
}

TEST_F(Export, Ipv6RecordsCarryTheirOwnAddressKeys) {
    start();
    flow(1, true);
    quelm_flush(t);
    quelm_export_destroy(&t->exporter);
    const Record r = decode_tlv(state().messages.at(0).payload).at(0);
    EXPECT_EQ(r[4], (Element{"27", "fd00::1"}));
    EXPECT_EQ(r[5], (Element{"28", "fd00::2"}));
}

TEST_F(Export, QueueDrainsNewestFirst) {
    start();
    for (uint16_t n = 0; n < 3; n++)
        flow(n);
    quelm_flush(t);
    quelm_export_destroy(&t->exporter);
    EXPECT_EQ(sports(decode_tlv(state().messages.at(0).payload)),
              (std::vector<uint64_t>{1002, 1001, 1000}));
}

TEST_F(Export, TeardownSendsQueuedAndBatchedRecordsInOneMessage) {
    start();
    quelm_export &ex = t->exporter;
    for (uint16_t n = 0; n < 8; n++)
        flow(n);
    quelm_flush(t);  // 8 flows queued, none drained yet
    ex.dequeue_budget = 5;
    ex.last_dequeue_msec = UINT64_MAX;  // within the same millisecond: no refill
    EXPECT_EQ(quelm_export_process_queue(&ex, 0), 1);
    EXPECT_EQ(ex.batch_records, 5u);
    EXPECT_EQ(ex.queue_len, 3u);
    quelm_export_destroy(&ex);
    ASSERT_EQ(state().messages.size(), 1u);
    EXPECT_EQ(decode_tlv(state().messages[0].payload).size(), 8u);
    EXPECT_EQ(state().closed, 1);
    EXPECT_EQ(state().destroyed, 1);
}

TEST_F(Export, UnforcedDrainHonoursThePerMillisecondBudget) {
    start();
    quelm_export &ex = t->exporter;
    quelm_set_flow_export_callback(
        t,
        [](quelm_flow *f, void *u) {
            quelm_export_enqueue_flow(&static_cast<quelm_table *>(u)->exporter, f);
        },
        t);
    for (uint16_t n = 0; n < 250; n++)
        flow(n);
    quelm_flush(t);
    ASSERT_EQ(ex.queue_len, 250u);
    ex.last_dequeue_msec = 0;  // a new millisecond: the budget refills
    EXPECT_EQ(quelm_export_process_queue(&ex, 0), 1);
    EXPECT_EQ(ex.queue_len, 150u);
    ex.last_dequeue_msec = UINT64_MAX;  // still the same millisecond
    EXPECT_EQ(quelm_export_process_queue(&ex, 0), 1);
    EXPECT_EQ(ex.queue_len, 150u);
    EXPECT_EQ(quelm_export_process_queue(&ex, 1), 0) << "a forced drain empties the queue";
    EXPECT_EQ(ex.queue_len, 0u);
    EXPECT_EQ(ex.dequeue_budget, 0u);
}

TEST_F(Export, FlushOfAnEmptyBatchSendsNothing) {
    start();
    quelm_export_flush(&t->exporter);
    EXPECT_TRUE(state().messages.empty());
    EXPECT_EQ(counters().num_flow_exports, 0u);
    EXPECT_EQ(counters().num_flow_drops, 0u);
}

TEST_F(Export, FailedSendCountsTheBatchAsDropped) {
    start();
    state().fail_sends_after = 0;
    testing::internal::CaptureStderr();
    for (uint16_t n = 0; n < 16; n++)
        flow(n);
    quelm_flush(t);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(counters().num_flow_drops, 16u);
    EXPECT_EQ(counters().num_flow_exports, 0u);
    EXPECT_NE(err.find("rc=-1 - errno=11/"), std::string::npos) << err;
    EXPECT_NE(err.find("[ZMQ] Send error [flow] "), std::string::npos);
    EXPECT_LT(err.size(), 600u) << "the payload shown is bounded";
    state().fail_sends_after = -1;
    for (uint16_t n = 16; n < 32; n++)
        flow(n);
    quelm_flush(t);
    uint32_t id;
    memcpy(&id, &state().messages.at(0).header[20], 4);
    EXPECT_EQ(ntohl(id), 0u) << "a failed message does not advance the counter";
}

TEST_F(Export, FullQueueDropsTheArrivingFlow) {
    quelm_export &ex = t->exporter;  // dormant: flows are queued, never drained
    auto p = Frame().eth().ipv4("10.0.0.1", "10.0.0.2").tcp(1, 2).build();
    quelm_packet_header h{{100, 0}, uint32_t(p.size()), uint32_t(p.size())};
    quelm_packet_info info{};
    info.header = &h;
    info.is_ipv4 = 1;
    for (uint32_t n = 0; n < QUELM_EXPORT_QUEUE_MAX + 1; n++)
        quelm_zmq_export_flow(quelm_flow_new(&info, nullptr, 0), t);
    EXPECT_EQ(ex.queue_len, QUELM_EXPORT_QUEUE_MAX);
    EXPECT_EQ(counters().num_flow_drops, 1u);
    // Teardown of a dormant exporter releases every queued flow (the leak checker proves it).
}

TEST_F(Export, FlowsQueuedWhileDormantGoOutOnceTheExporterStarts) {
    for (uint16_t n = 0; n < 20; n++)
        flow(n);
    quelm_flush(t);
    EXPECT_EQ(t->exporter.queue_len, 20u);
    start();
    quelm_housekeeping(t, 200);
    quelm_export_destroy(&t->exporter);
    size_t records = 0;
    for (const auto &m : state().messages)
        records += decode_tlv(m.payload).size();
    EXPECT_EQ(records, 20u);
}

TEST_F(Export, FormatChangeKeepsVersionByteTrueToThePayload) {
    start(false);
    for (uint16_t n = 0; n < 20; n++)
        flow(n);
    quelm_flush(t);              // 16 sent as TLV, 4 queued
    quelm_housekeeping(t, 200);  // ... and now batched
    quelm_zmq_export_configure(t, "tcp://127.0.0.1:5556", kKey, 1, 0, 1);
    for (uint16_t n = 20; n < 36; n++)
        flow(n);
    quelm_flush(t);
    ASSERT_EQ(state().messages.size(), 3u);
    EXPECT_EQ(state().messages[1].header[16], 3);
    EXPECT_EQ(decode_tlv(state().messages[1].payload).size(), 4u);
    EXPECT_EQ(state().messages[2].header[16], 2);
    EXPECT_EQ(state().messages[2].payload.at(0), '[');
    EXPECT_EQ(state().contexts, 1) << "a running exporter keeps its socket";
}

TEST_F(Export, StatisticsRecordEveryThreeSeconds) {
    quelm_zmq_export_stats(t, "eth0", 1000, nullptr, nullptr);
    EXPECT_TRUE(state().messages.empty()) << "no running exporter: nothing is sent";
    start();
    quelm_zmq_export_stats(t, "eth0", 1000, nullptr, nullptr);
    ASSERT_EQ(state().messages.size(), 1u);
    const fake_zmq::Message &m = state().messages[0];
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(m.header.data())), "event");
    EXPECT_EQ(m.header[16], 2);
    const std::string text(m.payload.begin(), m.payload.end());
    for (const char *part : {"\"iface\":{\"name\":\"eth0\",\"speed\":1000,\"ip\":\"\"}",
                             "\"version\":\"9.5.0.261007\"", "\"osname\":\"Linux\"",
                             "\"ip\":\"127.0.0.1\"", "\"avg\":{\"bps\":0,\"pps\":0}",
                             "\"drops\":{\"export_queue_too_long\":0,\"too_many_flows\":0}",
                             "\"timeout\":{\"lifetime\":120,\"idle\":30}", "\"num_exporters\":1"})
        EXPECT_NE(text.find(part), std::string::npos) << part << " in " << text;
    quelm_zmq_export_stats(t, "eth0", 1000, nullptr, nullptr);
    EXPECT_EQ(state().messages.size(), 1u) << "less than 3 seconds later";
    quelm_export &ex = t->exporter;
    ex.stats_last_msec = utils_time_msec() - 4000;
    ex.stats_last_packets = t->stats.packets;
    ex.stats_last_bytes = t->stats.bytes;
    t->stats.packets += 4000;
    t->stats.bytes += 500000;
    quelm_zmq_export_stats(t, "eth0", 1000, "10.1.1.1", "192.0.2.9");
    ASSERT_EQ(state().messages.size(), 2u);
    const std::vector<Record> rec = decode_json(
        std::string(state().messages[1].payload.begin(), state().messages[1].payload.end()));
    uint64_t pps = 0, bps = 0;
    for (const Element &e : rec.at(0)) {
        if (e.key == "pps") pps = std::get<uint64_t>(e.value);
        if (e.key == "bps") bps = std::get<uint64_t>(e.value);
    }
    // The rates divide by the wall-clock time since the previous record: a little over 4 s.
    EXPECT_GE(pps, 900u);
    EXPECT_LE(pps, 1000u);
    EXPECT_GE(bps, 900000u);
    EXPECT_LE(bps, 1000000u);
}

TEST(ExportIdentity, SourceIdFollowsItsInputs) {
    // The identity starts from the probe address as inet_addr gives it, plus each digest byte
    // shifted by 1..15, 1..15, 1, 2.
    const char *text = "eth0-1000--127.0.0.1-120-30";
    uint8_t digest[32];
    pelda_sha256(text, strlen(text), digest);
    uint32_t want = inet_addr("127.0.0.1");
    for (int i = 0; i < 32; i++)
        want += uint32_t(digest[i]) << (1 + i % 15);
    EXPECT_EQ(quelm_export_source_id("eth0", 1000, nullptr, "127.0.0.1", 120, 30), want);
    EXPECT_NE(quelm_export_source_id("eth1", 1000, nullptr, "127.0.0.1", 120, 30), want);
    EXPECT_EQ(quelm_export_source_id("eth0", 1000, "", "127.0.0.1", 120, 30), want)
        << "an absent interface address reads as empty";
    const uint32_t bad = quelm_export_source_id("eth0", 1000, nullptr, "not-an-ip", 120, 30);
    EXPECT_EQ(bad, quelm_export_source_id("eth0", 1000, nullptr, "not-an-ip", 120, 30));
}

}  // namespace
