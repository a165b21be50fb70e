#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "packet_builder.h"
#include "quelm_flow.h"
#include "quelm_fragment_hash.h"
#include "quelm_hash.h"
#include "quelm_table.h"

namespace {

using quelm_test::Frame;
using quelm_test::Ipv4Options;

std::vector<uint8_t> tcp(const char *src, uint16_t sport, const char *dst, uint16_t dport,
                         uint8_t flags = 0x10) {
    return Frame().eth().ipv4(src, dst).tcp(sport, dport, flags).payload(6).build();
}

std::vector<uint8_t> tcp6(const char *src, uint16_t sport, const char *dst, uint16_t dport) {
    return Frame().eth().ipv6(src, dst).tcp(sport, dport).build();
}

// A table and a log of everything its callbacks saw.
class TableTest : public ::testing::Test {
  protected:
    void SetUp() override { make(0, 1024, 30, 120); }
    void TearDown() override {
        quelm_destroy_table(t);
        for (quelm_flow *f : exported)
            quelm_flow_free(f);
    }
    void make(uint32_t flags, uint32_t max_flows, uint32_t idle, uint32_t lifetime,
              uint16_t user_size = 0) {
        if (t != nullptr) quelm_destroy_table(t);
        t = quelm_create_table(flags, max_flows, idle, lifetime, user_size);
        ASSERT_NE(t, nullptr);
        quelm_set_new_flow_callback(t, on_new, this);
        quelm_set_l7_detected_callback(t, on_l7, this);
        quelm_set_flow_packet_callback(t, on_packet, this);
        quelm_set_flow_export_callback(t, on_export, this);
    }
    quelm_action send(const std::vector<uint8_t> &frame, int64_t sec, int64_t usec = 0,
                      quelm_packet_ext ext = {}) {
        const quelm_packet_header h{{sec, usec}, uint32_t(frame.size()), uint32_t(frame.size())};
        return quelm_process(t, frame.data(), &h, &ext);
    }
    static void on_new(quelm_flow *f, void *u) { log(u, "new", f); }
    static void on_l7(const uint8_t *, const quelm_packet_info *, quelm_flow *f, void *u) {
        log(u, "l7", f);
    }
    static void on_packet(const uint8_t *, const quelm_packet_info *i, quelm_flow *f, void *u) {
        log(u, "pkt" + std::to_string(i->direction), f);
    }
    static void on_export(quelm_flow *f, void *u) {
        static_cast<TableTest *>(u)->exported.push_back(f);
    }
    static void log(void *u, const std::string &what, quelm_flow *f) {
        static_cast<TableTest *>(u)->events.push_back(what + ":" +
                                                      std::to_string(quelm_flow_get_id(f)));
    }
    std::vector<uint32_t> exported_statuses() const {
        std::vector<uint32_t> out;
        for (quelm_flow *f : exported)
            out.push_back(quelm_flow_get_value(f)->status);
        return out;
    }

    quelm_table *t = nullptr;
    std::vector<std::string> events;
    std::vector<quelm_flow *> exported;
};

TEST(TableLifecycle, SizesAndDefaults) {
    struct Case {
        uint32_t max_flows, v4, v6, fragments;
    } cases[] = {{0, 524288, 262144, 65536}, {1000, 1024, 512, 128}, {1, 1, 0, 0}, {4, 4, 2, 0}};
    for (const Case &c : cases) {
        quelm_table *t = quelm_create_table(0, c.max_flows, 0, 0, 0);
        ASSERT_NE(t, nullptr);
        EXPECT_EQ(t->hash_v4->num_buckets, c.v4);
        EXPECT_EQ(t->hash_v6->num_buckets, c.v6);
        EXPECT_EQ(t->fragments->num_slots, c.fragments);
        EXPECT_EQ(t->flow_lifetime_timeout, 120u);
        EXPECT_EQ(t->hash_v4->expiry->idle_timeout, 30u);
        EXPECT_EQ(t->dpi_min_num_tcp_packets, 12);
        EXPECT_EQ(t->dpi_min_num_udp_packets, 5);
        EXPECT_EQ(quelm_get_pelda_handle(t), nullptr);
        quelm_destroy_table(t);
    }
    quelm_table *t =
        quelm_create_table(QUELM_FLAG_IGNORE_VLAN | QUELM_FLAG_MAC_IN_KEY, 64, 5, 9, 0);
    EXPECT_EQ(t->hash_v6->ignore_vlan, 1u);
    EXPECT_EQ(t->hash_v4->mac_in_key, 1u);
    EXPECT_EQ(t->flow_lifetime_timeout, 9u);
    quelm_flow_set_flow_slicing(t, 15);
    EXPECT_EQ(t->hash_v4->expiry->slice_timeout, 15u);
    EXPECT_EQ(t->hash_v6->expiry->slice_timeout, 15u);
    quelm_destroy_table(t);
}

TEST(TableLifecycle, TinyTableWithoutIpv6RoomStillRuns) {
    quelm_table *t = quelm_create_table(0, 1, 0, 0, 0);
    const std::vector<uint8_t> v6 = tcp6("fd00::1", 1, "fd00::2", 2);
    const quelm_packet_header h{{100, 0}, uint32_t(v6.size()), uint32_t(v6.size())};
    const quelm_packet_ext ext{};
    EXPECT_EQ(quelm_process(t, v6.data(), &h, &ext), QUELM_ACTION_DEFAULT);
    EXPECT_EQ(quelm_get_stats(t)->flows_no_room, 1u);
    quelm_destroy_table(t);
}

TEST_F(TableTest, OversizedPacketIsCountedAndStillTriggersHousekeeping) {
    std::vector<uint8_t> frame = tcp("10.0.0.1", 1, "10.0.0.2", 2);
    const quelm_packet_header h{{500, 0}, uint32_t(frame.size()), 16385};
    const quelm_packet_ext ext{};
    EXPECT_EQ(quelm_process(t, frame.data(), &h, &ext), QUELM_ACTION_DEFAULT);
    const quelm_stats *s = quelm_get_stats(t);
    EXPECT_EQ(s->packets, 1u);
    EXPECT_EQ(s->bytes, 16409u);
    EXPECT_EQ(s->packets_not_decoded, 1u);
    EXPECT_EQ(t->housekeeping_sec, 500u);
    EXPECT_TRUE(events.empty());
}

TEST_F(TableTest, CountersPerDirection) {
    const auto fwd = tcp("10.0.0.1", 1000, "10.0.0.2", 80, 0x02);
    const auto rev = tcp("10.0.0.2", 80, "10.0.0.1", 1000, 0x12);
    send(fwd, 100, 10, {0, 7, 3});
    send(rev, 101, 20, {0, 0, 4});
    send(Frame().eth().ipv4("10.0.0.1", "10.0.0.2").tcp(1000, 80, 0x10).payload(6).build(), 102,
         30);
    ASSERT_EQ(events.size(), 5u);
    quelm_stats *s = quelm_get_stats(t);
    EXPECT_EQ(s->active_flows, 1u);
    EXPECT_EQ(s->total_flows, 1u);
    EXPECT_EQ(s->bytes, 3 * (fwd.size() + 24));
    quelm_flush(t);
    ASSERT_EQ(exported.size(), 1u);
    const quelm_flow_value *v = quelm_flow_get_value(exported[0]);
    EXPECT_EQ(v->direction[0].pkts, 2u);
    EXPECT_EQ(v->direction[0].bytes, 2 * fwd.size());
    EXPECT_EQ(v->direction[0].tcp_flags, 0x02 | 0x10);
    EXPECT_EQ(v->direction[0].port_id, 7);
    EXPECT_EQ(v->direction[0].if_index, 3);
    EXPECT_EQ(v->direction[0].last.tv_usec, 30);
    EXPECT_EQ(v->direction[1].pkts, 1u);
    EXPECT_EQ(v->direction[1].first.tv_sec, 101);
    EXPECT_EQ(v->direction[1].first.tv_usec, 20);
    EXPECT_EQ(v->direction[1].tcp_flags, 0x12);
    EXPECT_EQ(v->direction[1].if_index, 4);
    EXPECT_EQ(v->direction[1].port_id, 0);
}

TEST_F(TableTest, OneWayFlowKeepsReverseDirectionEmpty) {
    send(tcp("10.0.0.1", 1, "10.0.0.2", 2), 100);
    quelm_flush(t);
    const quelm_flow_value *v = quelm_flow_get_value(exported.at(0));
    EXPECT_EQ(v->direction[1].first.tv_sec, 0);
    EXPECT_EQ(v->direction[1].last.tv_sec, 0);
    EXPECT_EQ(v->direction[1].last.tv_usec, 0);
}

TEST_F(TableTest, Ipv6LosesTheLinkHeaderInByteCounts) {
    const auto v4 = Frame().eth().ipv4("10.0.0.1", "10.0.0.2").udp(1, 2).payload(52).build();
    const auto v6 = Frame().eth().ipv6("fd00::1", "fd00::2").udp(1, 2).payload(32).build();
    ASSERT_EQ(v4.size(), v6.size());
    send(v4, 100);
    send(v6, 100);
    quelm_flush(t);
    ASSERT_EQ(exported.size(), 2u);
    EXPECT_EQ(quelm_flow_get_value(exported[0])->direction[0].bytes, v4.size());
    EXPECT_EQ(quelm_flow_get_value(exported[1])->direction[0].bytes, v6.size() - 14);
}

TEST_F(TableTest, IcmpRequestAndReplyAreTwoFlows) {
    const auto req = Frame().eth().ipv4("10.0.0.1", "10.0.0.2").icmp(8, 0).build();
    const auto rep = Frame().eth().ipv4("10.0.0.2", "10.0.0.1").icmp(0, 0).build();
    send(req, 100);
    send(rep, 100);
    EXPECT_EQ(quelm_get_stats(t)->total_flows, 2u);
    quelm_flush(t);
    EXPECT_EQ(quelm_flow_get_value(exported.at(0))->l7_metadata.icmp.icmp_type, 8);
}

TEST_F(TableTest, CallbacksFireInOrderAndL7OncePerFlowWithoutEngine) {
    send(tcp("10.0.0.1", 1, "10.0.0.2", 2), 100);
    send(tcp("10.0.0.2", 2, "10.0.0.1", 1), 100);
    send(tcp("10.0.0.3", 1, "10.0.0.2", 2), 100);
    const std::vector<std::string> want = {"new:0", "l7:0", "pkt0:0", "pkt1:0",
                                           "new:1", "l7:1", "pkt0:1"};
    EXPECT_EQ(events, want);
}

TEST_F(TableTest, DefaultActionIsGivenAtCreationAndSticks) {
    quelm_set_default_action(t, QUELM_ACTION_USER_1);
    EXPECT_EQ(send(tcp("10.0.0.1", 1, "10.0.0.2", 2), 100), QUELM_ACTION_USER_1);
    quelm_set_default_action(t, QUELM_ACTION_DEFAULT);
    EXPECT_EQ(send(tcp("10.0.0.2", 2, "10.0.0.1", 1), 100), QUELM_ACTION_USER_1);
    EXPECT_EQ(send(tcp("10.0.0.5", 2, "10.0.0.1", 1), 100), QUELM_ACTION_DEFAULT);
    EXPECT_EQ(t->packet.action, QUELM_ACTION_DEFAULT);
}

TEST_F(TableTest, ActionSetByCallbackGovernsTheNextPackets) {
    quelm_set_new_flow_callback(
        t, [](quelm_flow *f, void *) { quelm_flow_set_action(f, QUELM_ACTION_FORWARD); }, nullptr);
    const auto p = tcp("10.0.0.1", 1, "10.0.0.2", 2);
    EXPECT_EQ(send(p, 100), QUELM_ACTION_DEFAULT) << "the verdict was fixed before the callback";
    EXPECT_EQ(send(p, 100), QUELM_ACTION_FORWARD);
}

TEST_F(TableTest, ShuntLimitsDiscardBeyondTheirCount) {
    struct Case {
        uint8_t tcp, udp, all;
        bool is_tcp;
        int first_discarded;  // 0: never
    } cases[] = {{10, 0, 0, true, 11}, {10, 0, 0, false, 0}, {0, 3, 0, false, 4},
                 {0, 0, 2, true, 3},   {5, 0, 2, true, 6},   {0, 0, 0, true, 0}};
    for (const Case &c : cases) {
        make(0, 1024, 30, 120);
        t->rules.shunt_tcp = c.tcp;
        t->rules.shunt_udp = c.udp;
        t->rules.shunt_default = c.all;
        const auto p = c.is_tcp ? tcp("10.0.0.1", 1, "10.0.0.2", 2)
                                : Frame().eth().ipv4("10.0.0.1", "10.0.0.2").udp(1, 2).build();
        for (int n = 1; n <= 14; n++) {
            const quelm_action want =
                c.first_discarded != 0 && n >= c.first_discarded ? QUELM_ACTION_DISCARD : 0;
            EXPECT_EQ(send(p, 100), want) << "packet " << n << " tcp " << int(c.tcp) << " udp "
                                          << int(c.udp) << " all " << int(c.all);
        }
    }
}

TEST_F(TableTest, LifetimeEndsFlowAndNextPacketOpensANewOne) {
    const auto fwd = tcp("10.0.0.1", 1, "10.0.0.2", 2);
    const auto rev = tcp("10.0.0.2", 2, "10.0.0.1", 1);
    send(fwd, 100);
    send(rev, 220);
    EXPECT_EQ(quelm_get_stats(t)->total_flows, 1u);
    send(rev, 221);
    EXPECT_EQ(quelm_get_stats(t)->total_flows, 2u);
    ASSERT_EQ(exported.size(), 1u) << "delivered by the housekeeping of the same packet";
    EXPECT_EQ(quelm_flow_get_value(exported[0])->status,
              uint32_t{QUELM_FLOW_STATUS_LIFETIME_TIMEOUT});
    EXPECT_EQ(quelm_flow_get_id(exported[0]), 0u);
    quelm_flush(t);
    ASSERT_EQ(exported.size(), 2u);
    const quelm_flow_key *k = quelm_flow_get_key(exported[1]);
    EXPECT_EQ(quelm_flow_get_id(exported[1]), 1u);
    EXPECT_EQ(k->sport, 2) << "the new flow follows the orientation of its first packet";
}

TEST_F(TableTest, IdleFlowsLeaveOneSecondAfterTheirTimeout) {
    send(tcp("10.0.0.1", 1, "10.0.0.2", 2), 100);
    EXPECT_EQ(quelm_housekeeping(t, 130), 1);
    EXPECT_TRUE(exported.empty());
    EXPECT_EQ(quelm_housekeeping(t, 130), 0) << "a second that found nothing is not redone";
    EXPECT_EQ(quelm_housekeeping(t, 131), 1);
    ASSERT_EQ(exported.size(), 1u);
    EXPECT_EQ(quelm_flow_get_value(exported[0])->status, uint32_t{QUELM_FLOW_STATUS_IDLE_TIMEOUT});
    EXPECT_EQ(quelm_get_stats(t)->active_flows, 0u);
}

TEST_F(TableTest, SlicesCarryThePacketsOfTheirPeriod) {
    quelm_flow_set_flow_slicing(t, 10);
    const auto p = tcp("10.0.0.1", 1, "10.0.0.2", 2);
    for (int sec = 1000; sec <= 1040; sec++)
        send(p, sec);
    quelm_flush(t);
    ASSERT_GE(exported.size(), 4u);
    uint64_t total = 0;
    for (size_t i = 0; i < exported.size(); i++) {
        const quelm_flow_value *v = quelm_flow_get_value(exported[i]);
        total += v->direction[0].pkts;
        EXPECT_EQ(quelm_flow_get_id(exported[i]), 0u) << "slices share their flow's id";
        if (i + 1 < exported.size()) {
            EXPECT_EQ(v->status, uint32_t{QUELM_FLOW_STATUS_SLICE});
            EXPECT_EQ(v->direction[0].pkts, 11u) << "slice " << i;
        }
    }
    EXPECT_EQ(exported.back()->value.status, uint32_t{QUELM_FLOW_STATUS_FLUSHED});
    EXPECT_EQ(total, 41u) << "every packet is in exactly one slice or the final flow";
}

TEST_F(TableTest, FlushDeliversEveryFlowIpv4First) {
    send(tcp6("fd00::1", 1, "fd00::2", 2), 100);
    send(tcp("10.0.0.1", 1, "10.0.0.2", 2), 100);
    send(tcp6("fd00::3", 1, "fd00::2", 2), 100);
    quelm_flush(t);
    ASSERT_EQ(exported.size(), 3u);
    EXPECT_EQ(quelm_flow_get_key(exported[0])->ip_version, 4);
    EXPECT_EQ(exported_statuses(), std::vector<uint32_t>(3, QUELM_FLOW_STATUS_FLUSHED));
    EXPECT_EQ(quelm_get_stats(t)->active_flows, 0u);
    send(tcp("10.0.0.1", 1, "10.0.0.2", 2), 101);
    EXPECT_EQ(quelm_get_stats(t)->active_flows, 1u) << "the table stays usable";
}

TEST_F(TableTest, ListCallbackTakesPrecedenceAndReceivesTheWholeBatch) {
    static std::vector<uint64_t> ids;
    ids.clear();
    quelm_set_flow_list_export_callback(
        t,
        [](quelm_list *list, void *) {
            while (quelm_flow *f = quelm_list_get_next(list)) {
                ids.push_back(quelm_flow_get_id(f));
                quelm_flow_free(f);
            }
        },
        nullptr);
    for (uint16_t port = 1; port <= 3; port++)
        send(tcp("10.0.0.1", port, "10.0.0.2", 80), 100);
    quelm_flush(t);
    EXPECT_TRUE(exported.empty());
    EXPECT_EQ(ids.size(), 3u);
    EXPECT_EQ(t->export_list.count, 0u);
    EXPECT_EQ(t->export_list.head, nullptr);
}

TEST_F(TableTest, WithoutExportCallbacksEndedFlowsAreReleased) {
    quelm_set_flow_export_callback(t, nullptr, nullptr);
    for (uint16_t port = 1; port <= 3; port++)
        send(tcp("10.0.0.1", port, "10.0.0.2", 80), 100);
    quelm_flush(t);
    EXPECT_EQ(quelm_get_stats(t)->active_flows, 0u);  // and the leak checker sees no flow left
}

TEST_F(TableTest, FragmentsAreCreditedToTheFlowOfTheFirstFragment) {
    auto frag = [](uint16_t offset, bool more, size_t payload) {
        Ipv4Options o;
        o.id = 0x4242;
        o.more_fragments = more;
        o.fragment_offset = offset;
        Frame f;
        f.eth().ipv4("10.0.0.1", "10.0.0.2", o);
        if (offset == 0)
            f.udp(5000, 6000).payload(payload - 8);
        else
            f.l4(17).payload(payload);
        return f.build();
    };
    const auto first = frag(0, true, 1480), middle = frag(185, true, 1480),
               last = frag(370, false, 40);
    EXPECT_EQ(send(middle, 100), QUELM_ACTION_DEFAULT) << "a later fragment before the first";
    EXPECT_EQ(quelm_get_stats(t)->total_flows, 0u);
    EXPECT_EQ(quelm_get_stats(t)->packets_not_decoded, 1u);
    send(first, 100);
    EXPECT_EQ(quelm_get_stats(t)->total_flows, 1u);
    events.clear();
    send(middle, 100);
    send(last, 101);
    EXPECT_TRUE(events.empty()) << "fragments credited through the table fire no callback";
    EXPECT_EQ(quelm_get_stats(t)->packets_not_decoded, 3u);
    send(middle, 101);  // after the last fragment the mapping is gone
    quelm_flush(t);
    ASSERT_EQ(exported.size(), 1u);
    const quelm_flow_value *v = quelm_flow_get_value(exported[0]);
    EXPECT_EQ(v->direction[0].pkts, 3u);
    EXPECT_EQ(v->direction[0].bytes, first.size() + middle.size() + last.size());
    EXPECT_EQ(v->direction[0].last.tv_sec, 101);
}

TEST_F(TableTest, FragmentMappingDiesWithItsFlow) {
    Ipv4Options o;
    o.id = 7;
    o.more_fragments = true;
    const auto first = Frame().eth().ipv4("10.0.0.1", "10.0.0.2", o).udp(1, 2).payload(100).build();
    o.fragment_offset = 14;
    o.more_fragments = false;
    const auto second = Frame().eth().ipv4("10.0.0.1", "10.0.0.2", o).l4(17).payload(50).build();
    send(first, 100);
    quelm_flush(t);  // the flow is released by the test's teardown, its entry unlinked now
    ASSERT_EQ(exported.size(), 1u);
    quelm_flow_free(exported[0]);
    exported.clear();
    EXPECT_EQ(send(second, 100), QUELM_ACTION_DEFAULT);
    EXPECT_EQ(quelm_get_stats(t)->total_flows, 1u);
    EXPECT_EQ(quelm_get_stats(t)->packets_not_decoded, 1u);
}

TEST_F(TableTest, FullHashCountsNoRoomAndKeepsExistingFlows) {
    make(0, 2, 30, 120);  // IPv4 hash of 2 buckets holds 4 flows
    for (uint16_t port = 1; port <= 5; port++)
        send(tcp("10.0.0.1", port, "10.0.0.2", 80), 100);
    EXPECT_EQ(quelm_get_stats(t)->flows_no_room, 1u);
    EXPECT_EQ(quelm_get_stats(t)->active_flows, 4u);
    send(tcp("10.0.0.2", 80, "10.0.0.1", 1), 100);
    EXPECT_EQ(quelm_get_stats(t)->flows_no_room, 1u);
}

TEST_F(TableTest, HousekeepingRunsOncePerSecondOnceNothingIsLeft) {
    const auto p = tcp("10.0.0.1", 1, "10.0.0.2", 2);
    send(p, 100);
    EXPECT_EQ(t->housekeeping_sec, 100u);
    send(p, 100);
    EXPECT_EQ(t->housekeeping_countdown, 1000000u - 1);
    send(p, 101);
    EXPECT_EQ(t->housekeeping_countdown, 1000000u);
}

TEST_F(TableTest, UserAreaOutlivesTheTable) {
    make(0, 1024, 30, 120, 16);
    send(tcp("10.0.0.1", 1, "10.0.0.2", 2), 100);
    quelm_flush(t);
    quelm_destroy_table(t);
    t = nullptr;
    auto *user = static_cast<uint8_t *>(quelm_flow_get_value(exported.at(0))->user);
    for (int i = 0; i < 16; i++)
        EXPECT_EQ(user[i], 0);
    t = quelm_create_table(0, 16, 0, 0, 0);
}

TEST_F(TableTest, DestroyReleasesFlowsThatWereNotExported) {
    send(tcp("10.0.0.1", 1, "10.0.0.2", 2), 100);
    send(tcp6("fd00::1", 1, "fd00::2", 2), 100);
    quelm_flow_set_flow_slicing(t, 5);
    send(tcp("10.0.0.1", 1, "10.0.0.2", 2), 106);  // cuts a slice that waits in the export list
    quelm_set_flow_export_callback(t, nullptr, nullptr);
    quelm_destroy_table(t);  // the leak checker proves the live flows and the slice are gone
    t = quelm_create_table(0, 16, 0, 0, 0);
}

}  // namespace
