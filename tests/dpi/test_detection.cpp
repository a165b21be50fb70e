// Per-flow detection in the table: packet limits, give-up, extra dissection, metadata, guessing at
// export, and the callbacks that report it, against the scripted engine.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "packet_builder.h"
#include "pelda_stub.h"
#include "quelm_flow.h"
#include "quelm_table.h"

namespace {

using pelda_stub::Answer;
using pelda_stub::result;
using pelda_stub::script;
using quelm_test::Frame;

std::vector<uint8_t> tcp_packet(bool reply = false) {
    return reply ? Frame().eth().ipv4("10.0.0.2", "10.0.0.1").tcp(80, 40000).payload(20).build()
                 : Frame().eth().ipv4("10.0.0.1", "10.0.0.2").tcp(40000, 80).payload(20).build();
}

std::vector<uint8_t> udp_packet(bool v6 = false) {
    return v6 ? Frame().eth().ipv6("fd00::1", "fd00::2").udp(5000, 6000).payload(10).build()
              : Frame().eth().ipv4("10.0.0.1", "10.0.0.2").udp(5000, 6000).payload(10).build();
}

Answer named(uint16_t master, uint16_t app, uint32_t state = 0) {
    Answer a;
    a.result = result(master, app, 12, state);
    return a;
}

class Detection : public ::testing::Test {
  protected:
    void SetUp() override {
        pelda_stub::reset(300, {{7, "HTTP"}, {91, "TLS"}, {5, "DNS"}, {3, "Slow"}, {77, "Slower"}});
        make(QUELM_FLAG_DPI);
    }
    void TearDown() override {
        quelm_destroy_table(t);
        // The leak checker of the sanitizer build proves every engine object released.
        for (quelm_flow *f : exported)
            quelm_flow_free(f);
    }
    void make(uint32_t flags) {
        if (t != nullptr) quelm_destroy_table(t);
        t = quelm_create_table(flags, 1024, 30, 120, 0);
        ASSERT_NE(t, nullptr);
        quelm_set_l7_detected_callback(
            t,
            [](const uint8_t *pkt, const quelm_packet_info *, quelm_flow *, void *u) {
                auto *self = static_cast<Detection *>(u);
                self->l7_events.push_back(pkt != nullptr ? self->packets_sent : -1);
            },
            this);
        quelm_set_flow_export_callback(
            t, [](quelm_flow *f, void *u) { static_cast<Detection *>(u)->exported.push_back(f); },
            this);
    }
    quelm_action send(const std::vector<uint8_t> &frame, int64_t sec = 100) {
        packets_sent++;
        const quelm_packet_header h{{sec, 0}, uint32_t(frame.size()), uint32_t(frame.size())};
        const quelm_packet_ext ext{};
        return quelm_process(t, frame.data(), &h, &ext);
    }
    quelm_flow *only_flow() {
        quelm_flush(t);
        EXPECT_EQ(exported.size(), 1u);
        return exported.empty() ? nullptr : exported[0];
    }

    quelm_table *t = nullptr;
    int packets_sent = 0;
    std::vector<int> l7_events;  // packet number of each L7-detected callback, -1 at export
    std::vector<quelm_flow *> exported;
};

TEST_F(Detection, UnidentifiedTcpFlowIsGivenUpOnItsThirteenthPacket) {
    script().giveup.result = result(0, 9, 4);
    for (int n = 1; n <= 15; n++)
        send(tcp_packet(n % 2 == 0));
    EXPECT_EQ(script().process_calls, 13) << "the 13th packet is still handed to the engine";
    EXPECT_EQ(script().giveup_calls, 1);
    EXPECT_EQ(l7_events, std::vector<int>{13});
    quelm_flow *f = only_flow();
    EXPECT_EQ(f->value.flags & QUELM_FLOW_FLAG_L7_GUESSED, QUELM_FLOW_FLAG_L7_GUESSED);
    EXPECT_EQ(f->value.l7_protocol.master_protocol, 9) << "master takes the application id";
    EXPECT_EQ(f->value.l7_protocol.app_protocol, 9);
    EXPECT_EQ(f->value.l7_protocol.category, 4);
    EXPECT_EQ(f->dpi_done, 1u);
    EXPECT_EQ(script().process_lengths.at(0), 20u + 20 + 20) << "from the IP header on";
}

TEST_F(Detection, UdpFlowIdentifiedOnItsFirstPacketIsDoneAtOnce) {
    script().answers.push_back(named(5, 0));
    send(udp_packet());
    send(udp_packet());
    EXPECT_EQ(script().process_calls, 1);
    EXPECT_EQ(l7_events, std::vector<int>{1});
    EXPECT_EQ(only_flow()->value.flags, 0u);
}

TEST_F(Detection, ZeroPacketLimitGivesUpOnTheFirstPacket) {
    t->dpi_min_num_tcp_packets = 0;
    send(tcp_packet());
    EXPECT_EQ(script().giveup_calls, 1);
    EXPECT_EQ(l7_events, std::vector<int>{1});
}

TEST_F(Detection, ExtraDissectionRunsUntilTheLimitOfTheProtocol) {
    struct Case {
        uint16_t protocol;
        uint16_t tcp_limit;
        int ends_on;
    } cases[] = {{3, 12, 21}, {3, 30, 31}, {77, 12, 101}, {7, 12, 13}};
    for (const Case &c : cases) {
        pelda_stub::reset(300, {{7, "HTTP"}});
        make(QUELM_FLAG_DPI | QUELM_FLAG_DPI_EXTRA_DISSECTION);
        t->dpi_min_num_tcp_packets = c.tcp_limit;
        l7_events.clear();
        packets_sent = 0;
        for (int n = 0; n < 120; n++)
            script().answers.push_back(named(c.protocol, c.protocol));
        for (int n = 1; n <= 110; n++)
            send(tcp_packet(n % 2 == 0));
        EXPECT_EQ(l7_events, std::vector<int>{c.ends_on}) << "protocol " << c.protocol;
        EXPECT_EQ(script().process_calls, c.ends_on);
        quelm_flush(t);
        for (quelm_flow *f : exported)
            quelm_flow_free(f);
        exported.clear();
    }
}

TEST_F(Detection, ExtraDissectionStopsWhenTheEngineIsDone) {
    make(QUELM_FLAG_DPI | QUELM_FLAG_DPI_EXTRA_DISSECTION);
    script().answers.push_back(named(7, 7));
    script().answers.push_back(named(7, 7, PELDA_STATE_DONE));
    for (int n = 1; n <= 5; n++)
        send(tcp_packet());
    EXPECT_EQ(l7_events, std::vector<int>{2});
    EXPECT_EQ(script().process_calls, 2);
}

TEST_F(Detection, HttpMetadataIsCopiedWithTheUrlPath) {
    struct Case {
        std::string url, path;
    } cases[] = {{"http://www.demo.quelm.test/index.html?x=1", "/index.html?x=1"},
                 {"http://www.demo.quelm.test", "/"},
                 {"http://", "/"},
                 {"http://h/a\r\nHost: evil", "/a"}};
    for (const Case &c : cases) {
        pelda_stub::reset(300, {{7, "HTTP"}});
        make(QUELM_FLAG_DPI);
        Answer a = named(0, 7);
        a.fields.server_name = "www.demo.quelm.test\tjunk";
        a.fields.url = c.url;
        a.fields.http_response_code = 404;
        a.has_fields = true;
        script().answers.push_back(a);
        send(tcp_packet());
        quelm_flow *f = only_flow();
        ASSERT_NE(f, nullptr);
        EXPECT_EQ(f->value.l7_protocol.master_protocol, 7);
        EXPECT_EQ(f->value.l7_protocol.app_protocol, 7);
        const auto &http = quelm_flow_get_value(f)->l7_metadata.http;
        EXPECT_STREQ(http.server_name, "www.demo.quelm.test");
        EXPECT_STREQ(http.url, c.path.c_str()) << c.url;
        EXPECT_EQ(http.response_code, 404);
        quelm_flow_free(f);
        exported.clear();
    }
}

TEST_F(Detection, TlsFingerprintIsCopiedOnlyWhenItsFirstBytesAreSet) {
    for (bool leading_zeros : {false, true}) {
        pelda_stub::reset(300, {{91, "TLS"}});
        make(QUELM_FLAG_DPI);
        Answer a = named(91, 0);
        a.fields.server_name = "secure.demo.quelm.test";
        a.fields.cert_sha1.assign(20, 0xAB);
        if (leading_zeros)
            a.fields.cert_sha1[0] = a.fields.cert_sha1[1] = a.fields.cert_sha1[2] = 0;
        a.has_fields = true;
        script().answers.push_back(a);
        send(tcp_packet());
        quelm_flow *f = only_flow();
        const auto &tls = f->value.l7_metadata.tls;
        EXPECT_STREQ(tls.server_name, "secure.demo.quelm.test");
        if (leading_zeros) {
            EXPECT_EQ(tls.certificate_fingerprint, nullptr);
        } else {
            ASSERT_NE(tls.certificate_fingerprint, nullptr);
            EXPECT_EQ(tls.certificate_fingerprint[19], 0xAB);
        }
        quelm_flow_free(f);
        exported.clear();
    }
}

TEST_F(Detection, DnsQueryTypeAndReplyCode) {
    Answer a = named(5, 0);
    a.fields.server_name = "nosuch.demo.quelm.test";
    a.fields.dns_query_type = 28;
    a.fields.dns_reply_code = 3;
    a.has_fields = true;
    script().answers.push_back(a);
    send(udp_packet());
    const auto &dns = only_flow()->value.l7_metadata.dns;
    EXPECT_STREQ(dns.query, "nosuch.demo.quelm.test");
    EXPECT_EQ(dns.query_type, 28);
    EXPECT_EQ(dns.reply_code, 3);
}

TEST_F(Detection, OtherProtocolsAreGuessedAtCreation) {
    script().guess.result = result(81, 0, 9);
    send(Frame().eth().ipv4("10.0.0.1", "10.0.0.2").icmp(8, 0).build());
    EXPECT_EQ(l7_events, std::vector<int>{1});
    quelm_flow *f = only_flow();
    EXPECT_EQ(f->dpi_done, 1u);
    EXPECT_EQ(f->dpi_flow, nullptr);
    EXPECT_EQ(f->value.l7_protocol.master_protocol, 81);
    EXPECT_EQ(f->value.l7_protocol.category, 0) << "a guess at creation sets no category";
    EXPECT_EQ(f->value.flags, QUELM_FLOW_FLAG_L7_GUESSED);
}

TEST_F(Detection, UndecidedFlowsAreGuessedAtExportOnlyOverIpv4) {
    script().guess.result = result(0, 44);
    send(udp_packet(false));
    send(udp_packet(true));
    quelm_flush(t);
    ASSERT_EQ(exported.size(), 2u);
    const quelm_flow *v4 = exported[0], *v6 = exported[1];
    EXPECT_EQ(v4->value.l7_protocol.master_protocol, 44);
    EXPECT_EQ(v4->value.flags, QUELM_FLOW_FLAG_L7_GUESSED);
    EXPECT_EQ(v4->dpi_done, 1u);
    EXPECT_EQ(v6->value.l7_protocol.master_protocol, 0);
    EXPECT_EQ(v6->value.l7_protocol.app_protocol, 0);
    EXPECT_EQ(v6->dpi_done, 0u) << "an IPv6 flow without protocol stays undecided";
    EXPECT_EQ(l7_events, std::vector<int>{-1}) << "settled at export, without packet";
}

TEST_F(Detection, NoGuessFlagLeavesUndecidedFlowsUnknown) {
    make(QUELM_FLAG_DPI | QUELM_FLAG_NO_L7_GUESS);
    script().guess.result = result(0, 44);
    send(udp_packet());
    quelm_flow *f = only_flow();
    EXPECT_EQ(f->value.l7_protocol.app_protocol, 0);
    EXPECT_EQ(script().guess_calls, 0);
    EXPECT_TRUE(l7_events.empty());
}

TEST_F(Detection, PendingFlowWithKnownProtocolKeepsItAtExport) {
    make(QUELM_FLAG_DPI | QUELM_FLAG_DPI_EXTRA_DISSECTION);
    Answer a = named(7, 7);
    a.fields.server_name = "www.demo.quelm.test";
    a.has_fields = true;
    script().answers.push_back(a);
    send(tcp_packet());
    quelm_flow *f = only_flow();
    EXPECT_EQ(f->value.l7_protocol.master_protocol, 7);
    EXPECT_EQ(f->value.flags, 0u);
    EXPECT_STREQ(f->value.l7_metadata.http.server_name, "www.demo.quelm.test");
    EXPECT_EQ(l7_events, std::vector<int>{-1});
}

TEST_F(Detection, SliceInheritsTheSettledProtocol) {
    quelm_flow_set_flow_slicing(t, 5);
    script().guess.result = result(0, 44);
    send(udp_packet(), 100);
    send(udp_packet(), 106);  // cuts a slice: the live flow is settled first
    quelm_flush(t);
    ASSERT_EQ(exported.size(), 2u);
    EXPECT_EQ(exported[0]->value.status, uint32_t{QUELM_FLOW_STATUS_SLICE});
    EXPECT_EQ(exported[0]->value.l7_protocol.app_protocol, 44);
    EXPECT_EQ(exported[1]->value.l7_protocol.app_protocol, 44);
    EXPECT_EQ(script().process_calls, 1) << "detection of the live flow ends at its first slice";
}

TEST_F(Detection, EngineStateIsReachableWhileTheFlowLives) {
    script().answers.push_back(named(5, 0));
    send(udp_packet());
    quelm_flow *f = only_flow();
    EXPECT_NE(quelm_flow_get_pelda_handle(f), nullptr) << "kept after detection ends";
}

}  // namespace
