// Filter and shunt rules: setters, their messages, and how a flow's verdict reads them.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "packet_builder.h"
#include "pelda_stub.h"
#include "quelm_table.h"

namespace {

using pelda_stub::result;
using pelda_stub::script;
using quelm_test::Frame;

constexpr uint16_t kHttp = 7, kTls = 91, kDns = 5, kVideo = 120, kChat = 121;

class Rules : public ::testing::Test {
  protected:
    void SetUp() override {
        pelda_stub::reset(
            300,
            {{kHttp, "HTTP"}, {kTls, "TLS"}, {kDns, "DNS"}, {kVideo, "Video"}, {kChat, "Chat"}});
        t = quelm_create_table(QUELM_FLAG_DPI, 1024, 30, 120, 0);
        ASSERT_NE(t, nullptr);
    }
    void TearDown() override {
        quelm_destroy_table(t);
        quelm_debug_enabled = 0;
    }
    // Verdicts of a TCP flow whose detection names `master.app` on packet `detected_on`.
    std::vector<quelm_action> verdicts(uint16_t master, uint16_t app, int detected_on, int packets,
                                       int32_t category = 0, uint16_t port = 1000) {
        for (int n = 1; n < detected_on; n++)
            script().answers.push_back({});
        pelda_stub::Answer a;
        a.result = result(master, app, uint32_t(category));
        script().answers.push_back(a);
        const auto frame =
            Frame().eth().ipv4("10.0.0.1", "10.0.0.2").tcp(port, 80).payload(10).build();
        const quelm_packet_header h{{100, 0}, uint32_t(frame.size()), uint32_t(frame.size())};
        const quelm_packet_ext ext{};
        std::vector<quelm_action> out;
        for (int n = 0; n < packets; n++)
            out.push_back(quelm_process(t, frame.data(), &h, &ext));
        script().answers.clear();
        return out;
    }
    static std::vector<quelm_action> expect(int discard_from, int packets,
                                            quelm_action action = QUELM_ACTION_DISCARD,
                                            quelm_action before = 0) {
        std::vector<quelm_action> out;
        for (int n = 1; n <= packets; n++)
            out.push_back(n >= discard_from ? action : before);
        return out;
    }
    std::string debug_lines(const std::function<void()> &fn) {
        quelm_debug();
        testing::internal::CaptureStdout();
        fn();
        quelm_debug_enabled = 0;
        return testing::internal::GetCapturedStdout();
    }
    quelm_table *t = nullptr;
};

TEST_F(Rules, ProtocolShuntCountsPacketsOfBothDirectionsFromTheStart) {
    quelm_set_shunt_protocol_by_name(t, "HTTP", 10);
    quelm_set_default_action(t, QUELM_ACTION_FORWARD);
    EXPECT_EQ(verdicts(kHttp, kHttp, 3, 14), expect(11, 14))
        << "the default action is not given to a shunted flow";
}

TEST_F(Rules, FilterWinsOverShuntOfTheSameProtocol) {
    quelm_set_filter_protocol_by_name(t, "HTTP", QUELM_ACTION_FORWARD);
    quelm_set_shunt_protocol_by_name(t, "HTTP", 5);
    EXPECT_EQ(verdicts(kHttp, kHttp, 3, 10), expect(3, 10, QUELM_ACTION_FORWARD));
}

TEST_F(Rules, FilterActsFromTheDetectingPacketAndDefaultOnlyWithoutRules) {
    quelm_set_filter_protocol_by_name(t, "TLS", QUELM_ACTION_DISCARD);
    quelm_set_default_action(t, QUELM_ACTION_USER_2);
    EXPECT_EQ(verdicts(kTls, kTls, 4, 6), expect(4, 6));
    EXPECT_EQ(verdicts(kDns, kDns, 2, 4, 0, 2000), expect(2, 4, QUELM_ACTION_USER_2));
}

TEST_F(Rules, LookupOrderIsPairThenApplicationThenMasterThenCategory) {
    quelm_set_filter_protocol_by_name(t, "TLS.Video", QUELM_ACTION_USER_1);
    quelm_set_filter_protocol_by_name(t, "Video", QUELM_ACTION_USER_2);
    quelm_set_filter_protocol_by_name(t, "TLS", QUELM_ACTION_FORWARD);
    quelm_set_filter_category_by_name(t, "Cat9", QUELM_ACTION_DISCARD);
    struct Case {
        uint16_t master, app;
        int32_t category;
        quelm_action want;
    } cases[] = {
        {kTls, kVideo, 9, QUELM_ACTION_USER_1},   // exact pair
        {kHttp, kVideo, 9, QUELM_ACTION_USER_2},  // same app, other master: the app's rule
        {kTls, kChat, 9, QUELM_ACTION_FORWARD},   // no pair or app rule: the master's
        {kHttp, kChat, 9, QUELM_ACTION_DISCARD},  // nothing but the category
        {kHttp, kChat, 8, QUELM_ACTION_DEFAULT},
        {0, kTls, 9, QUELM_ACTION_FORWARD},  // master 0 takes the application id
    };
    uint16_t port = 3000;
    for (const Case &c : cases)
        EXPECT_EQ(verdicts(c.master, c.app, 1, 1, c.category, port++).at(0), c.want)
            << c.master << "." << c.app << " category " << c.category;
}

TEST_F(Rules, TransportAndGlobalShuntsApplyWhileDetectionIsPending) {
    t->rules.shunt_tcp = 2;
    quelm_set_shunt_protocol_by_name(t, "HTTP", 6);
    EXPECT_EQ(verdicts(kHttp, kHttp, 5, 8), expect(3, 8))
        << "the TCP limit acts before detection names the protocol";
}

TEST_F(Rules, ProtocolShuntReplacesTransportShuntOnceDetected) {
    t->rules.shunt_default = 2;
    quelm_set_shunt_protocol_by_name(t, "HTTP", 6);
    EXPECT_EQ(verdicts(kHttp, kHttp, 1, 8), expect(7, 8));
    quelm_set_shunt_protocol_by_name(t, "HTTP", 0);
    EXPECT_EQ(verdicts(kHttp, kHttp, 1, 8, 0, 2000), expect(3, 8)) << "0 removes the limit";
}

TEST_F(Rules, FilterAllReachesUnknownFlowsAndPairs) {
    quelm_set_filter_all_protocols(t, QUELM_ACTION_DISCARD);
    quelm_set_filter_protocol_by_name(t, "Video", QUELM_ACTION_FORWARD);
    script().giveup.result = result(0, 0);
    EXPECT_EQ(verdicts(0, kVideo, 1, 1, 0, 4000).at(0), QUELM_ACTION_FORWARD);
    EXPECT_EQ(verdicts(kVideo, kVideo, 1, 1, 0, 4001).at(0), QUELM_ACTION_FORWARD);
    EXPECT_EQ(verdicts(kTls, kVideo, 1, 1, 0, 4002).at(0), QUELM_ACTION_DISCARD)
        << "the pair entry, also set by the filter-all, comes first";
    t->dpi_min_num_tcp_packets = 0;
    EXPECT_EQ(verdicts(0, 0, 99, 1, 0, 4003).at(0), QUELM_ACTION_DISCARD) << "via entry 0";
}

TEST_F(Rules, SetterMessagesUnderDebug) {
    const std::string long_name(200, 'x');
    const std::string out = debug_lines([&] {
        quelm_set_shunt_protocol_by_name(t, "http", 9);
        quelm_set_filter_protocol_by_name(t, "TLS.Video", 2);
        quelm_set_filter_protocol_by_name(t, "TLS.Nope", 2);
        quelm_set_filter_protocol_by_name(t, long_name.c_str(), 2);
        quelm_set_shunt_category_by_name(t, "cat4", 3);
        quelm_set_filter_category_by_name(t, "Cat5", 1);
        quelm_set_shunt_category_by_name(t, "NoSuch", 3);
    });
    const std::string want =
        "[QUELM] Adding shunt rule (9 packets) for http (7)\n"
        "[QUELM] Adding filter for TLS.Video (46712)\n"
        "[QUELM] Error: unknown protocol 'TLS.Nope'\n"
        "[QUELM] Error: unknown protocol '" +
        long_name +
        "'\n"
        "[QUELM] Adding shunt rule (3 packets) for category cat4 (4)\n"
        "[QUELM] Adding filter for category Cat5 (5)\n"
        "[QUELM] Error: unknown category 'NoSuch'\n";
    EXPECT_EQ(out, want);
    const quelm_rules *r = quelm_get_rules(t);
    EXPECT_EQ(r->shunt_protocol[kHttp], 9);
    EXPECT_EQ(r->filter_protocol[kTls << 9 | kVideo], 2);
    EXPECT_EQ(r->shunt_category[4], 3);
    EXPECT_EQ(r->filter_category[5], 1);
}

TEST_F(Rules, LongNameResolvesFromItsFirst127Characters) {
    std::string name(127, 'y');
    script().protocols.push_back(name);
    quelm_set_filter_protocol_by_name(t, (name + std::string(73, 'z')).c_str(), 3);
    EXPECT_EQ(quelm_get_rules(t)->filter_protocol[300], 3);
}

TEST_F(Rules, CallerOwnedSetOfSizeZeroRefusesEverything) {
    quelm_rules mine{};
    const std::string out =
        debug_lines([&] { __quelm_set_filter_protocol_by_name(t, "HTTP", 2, &mine); });
    EXPECT_EQ(out, "[QUELM] Error: protocol 'HTTP' #7 out of 0 supported protocols\n");
}

TEST_F(Rules, SettersWithoutHandleDoNothing) {
    quelm_table *plain = quelm_create_table(0, 64, 0, 0, 0);
    const std::string out = debug_lines([&] {
        quelm_set_filter_protocol_by_name(plain, "HTTP", 2);
        quelm_set_filter_category_by_name(plain, "Cat1", 2);
        quelm_set_shunt_category_by_name(plain, "Cat1", 2);
        quelm_set_filter_all_protocols(plain, 2);
    });
    EXPECT_EQ(out, "[QUELM] Error: unknown category 'Cat1'\n");
    EXPECT_EQ(quelm_get_rules(plain)->filter_protocol, nullptr);
    quelm_destroy_table(plain);
}

}  // namespace
