// The per-packet pipeline: built frames through quelm_process, seen through the callbacks.
#include <gtest/gtest.h>

#include <array>

#include "test_table.h"

namespace {

using quelm_test::Bench;
using quelm_test::Frame;
using quelm_test::tcp;
constexpr const char *A = "10.0.0.1", *B = "10.0.0.2", *C = "fd00::1", *D = "fd00::2";
constexpr uint32_t kSlice = QUELM_FLOW_STATUS_SLICE, kFlushed = QUELM_FLOW_STATUS_FLUSHED;

Frame fragment(uint16_t offset, bool more, size_t bytes) {
    Frame f =
        Frame().eth().ipv4(A, B, {.id = 0x4242, .more_fragments = more, .fragment_offset = offset});
    return offset == 0 ? f.udp(5000, 6000).payload(bytes - 8) : f.l4(17).payload(bytes);
}

TEST(Table, CountersPerDirection) {
    Bench b;
    const Frame syn = Frame().eth().ipv4(A, B).tcp(1000, 80, 0x02).payload(6);
    b.send(syn, 100, {0, 7, 3});
    b.send(Frame().eth().ipv4(B, A).tcp(80, 1000, 0x12).payload(6), 101, {0, 0, 4});
    b.send(Frame().eth().ipv4(A, B).tcp(1000, 80, 0x10).payload(6), 102);
    EXPECT_EQ(quelm_get_stats(b.t)->bytes, 3 * (syn.size() + 24));
    quelm_flush(b.t);
    ASSERT_EQ(b.exported.size(), 1u);
    auto dir = [&](int i) {
        const quelm_flow_dir_value &d = b.exported[0]->value.direction[i];
        return std::array<uint64_t, 7>{
            d.pkts,     d.bytes,  uint64_t(d.first.tv_sec), uint64_t(d.last.tv_sec), d.tcp_flags,
            d.if_index, d.port_id};
    };
    EXPECT_EQ(dir(0), (std::array<uint64_t, 7>{2, 2 * syn.size(), 100, 102, 0x12, 3, 7}));
    EXPECT_EQ(dir(1), (std::array<uint64_t, 7>{1, syn.size(), 101, 101, 0x12, 4, 0}));
}

TEST(Table, CallbacksInOrderAndIcmpRequestAndReplyAreTwoFlows) {
    Bench b;
    b.send(tcp(A, 1, B, 2), 100);
    b.send(tcp(B, 2, A, 1), 100);
    b.send(Frame().eth().ipv4(A, B).icmp(8, 0), 100);
    b.send(Frame().eth().ipv4(B, A).icmp(0, 0), 100);
    const std::vector<std::string> want = {"new:0", "l7:0",   "pkt0:0", "pkt1:0", "new:1",
                                           "l7:1",  "pkt0:1", "new:2",  "l7:2",   "pkt0:2"};
    EXPECT_EQ(b.events, want);
    quelm_flush(b.t);
    EXPECT_EQ(b.exported.at(1)->value.l7_metadata.icmp.icmp_type, 8);
}

TEST(Table, VerdictOfAFlowIsFixedWhenItStarts) {
    Bench b;
    quelm_set_default_action(b.t, QUELM_ACTION_USER_1);
    EXPECT_EQ(b.send(tcp(A, 1, B, 2), 100), QUELM_ACTION_USER_1);
    quelm_set_default_action(b.t, QUELM_ACTION_DEFAULT);
    EXPECT_EQ(b.send(tcp(B, 2, A, 1), 100), QUELM_ACTION_USER_1);
    auto forward = [](quelm_flow *f, void *) { quelm_flow_set_action(f, QUELM_ACTION_FORWARD); };
    quelm_set_new_flow_callback(b.t, forward, nullptr);
    EXPECT_EQ(b.send(tcp(C, 1, D, 2), 100), QUELM_ACTION_DEFAULT) << "fixed before the callback";
    EXPECT_EQ(b.send(tcp(C, 1, D, 2), 100), QUELM_ACTION_FORWARD);
}

TEST(Table, ShuntDiscardsBeyondTheLimit) {
    // TCP, UDP and default limits; a TCP flow or a UDP one; first discarded packet (0: none)
    const int rows[][5] = {{10, 0, 0, 1, 11}, {10, 0, 0, 0, 0}, {0, 3, 0, 0, 4},
                           {0, 0, 2, 1, 3},   {5, 0, 2, 1, 6},  {0, 0, 0, 1, 0}};
    for (const auto &[tcp_limit, udp_limit, all, is_tcp, discarded] : rows) {
        Bench b;
        b.t->rules.shunt_tcp = uint8_t(tcp_limit);
        b.t->rules.shunt_udp = uint8_t(udp_limit);
        b.t->rules.shunt_default = uint8_t(all);
        const Frame p = is_tcp ? tcp(A, 1, B, 2) : Frame().eth().ipv4(A, B).udp(1, 2);
        for (int n = 1; n <= 14; n++)
            EXPECT_EQ(b.send(p, 100), discarded && n >= discarded ? QUELM_ACTION_DISCARD : 0) << n;
    }
}

TEST(Table, LifetimeEndsTheFlowAndTheNextPacketOpensANewOne) {
    Bench b;
    b.send(tcp(A, 1, B, 2), 100);
    b.send(tcp(B, 2, A, 1), 220);
    EXPECT_EQ(b.events.back(), "pkt1:0");
    b.send(tcp(B, 2, A, 1), 221);
    EXPECT_EQ(b.events.back(), "pkt0:1") << "a new flow, keyed on its own first packet";
    ASSERT_EQ(b.exported.size(), 1u) << "delivered by the housekeeping of the same packet";
    EXPECT_EQ(b.exported[0]->value.status, uint32_t{QUELM_FLOW_STATUS_LIFETIME_TIMEOUT});
}

TEST(Table, IdleStrictlyAfterTheTimeoutFromEitherDirectionAndHousekeepingOncePerSecond) {
    Bench b;
    b.send(tcp(A, 1, B, 2), 100);
    b.send(tcp(A, 1, B, 2), 100);
    EXPECT_EQ(b.t->housekeeping_countdown, QUELM_HOUSEKEEPING_PACKETS - 1)
        << "not twice in a second";
    b.send(tcp(B, 2, A, 1), 125);
    EXPECT_EQ(quelm_housekeeping(b.t, 155), 1);
    EXPECT_EQ(quelm_housekeeping(b.t, 155), 0) << "a second that found nothing is not redone";
    EXPECT_TRUE(b.exported.empty());
    EXPECT_EQ(quelm_housekeeping(b.t, 156), 1);
    ASSERT_EQ(b.exported.size(), 1u);
    EXPECT_EQ(b.exported[0]->value.status, uint32_t{QUELM_FLOW_STATUS_IDLE_TIMEOUT});
    EXPECT_EQ(quelm_get_stats(b.t)->active_flows, 0u);
}

// A slice is due strictly after the period, counted from the earliest first packet of either
// direction, then from the previous slice; housekeeping cuts it when no packet does.
TEST(Table, SlicesCarryThePacketsOfTheirPeriod) {
    Bench b;
    quelm_flow_set_flow_slicing(b.t, 10);
    b.send(tcp(A, 1, B, 2), 1005);
    b.t->hash_v4->lru.head->owner->value.direction[1].first = {1000,
                                                               0};  // the other side came first
    for (int sec = 1006; sec <= 1008; sec++)
        b.send(tcp(A, 1, B, 2), sec);
    quelm_housekeeping(b.t, 1010);
    EXPECT_TRUE(b.exported.empty());
    quelm_housekeeping(b.t, 1011);
    for (int sec = 1012; sec <= 1030; sec++)
        b.send(tcp(A, 1, B, 2), sec);
    quelm_flush(b.t);
    const quelm_flow *live = b.exported.back();
    std::vector<std::array<uint64_t, 3>> got;  // packets, status, cut from the live flow
    for (const quelm_flow *f : b.exported)
        got.push_back({quelm::flow_total_packets(f), f->value.status, f->parent == live});
    EXPECT_EQ(got, (std::vector<std::array<uint64_t, 3>>{
                       {4, kSlice, 1}, {10, kSlice, 1}, {9, kFlushed, 0}}));
    EXPECT_EQ(quelm_flow_get_users(b.exported[0]), 3u);
}

TEST(Table, FlushEndsEveryFlowIpv4First) {
    Bench b;
    const Frame v6 = Frame().eth().ipv6(C, D).udp(1, 2).payload(32);
    b.send(tcp(A, 1, B, 2), 0xFFFFFFFE);  // a second before the flush's own time
    b.send(v6, 100);
    b.send(tcp(D, 1, C, 2), 100);
    quelm_flush(b.t);
    std::vector<std::array<uint64_t, 3>> got;  // IP version, status, bytes
    for (const quelm_flow *f : b.exported)
        got.push_back({f->key.ip_version, f->value.status, f->value.direction[0].bytes});
    EXPECT_EQ(got, (std::vector<std::array<uint64_t, 3>>{
                       {4, kFlushed, 54}, {6, kFlushed, v6.size() - 14}, {6, kFlushed, 60}}));
    EXPECT_EQ(quelm_get_stats(b.t)->active_flows, 0u);
}

TEST(Table, ListCallbackTakesPrecedenceWithTheWholeBatch) {
    Bench b;
    static size_t batch = 0;
    quelm_set_flow_list_export_callback(
        b.t, [](quelm_list *l, void *) { batch = quelm_test::drain(l); }, nullptr);
    for (uint16_t port = 1; port <= 3; port++)
        b.send(tcp(A, port, B, 80), 100);
    quelm_flush(b.t);
    EXPECT_EQ(batch, 3u);
    EXPECT_TRUE(b.exported.empty());
    EXPECT_EQ(b.t->export_list.head, nullptr);
}

TEST(Table, FragmentsAreCreditedToTheFlowOfTheFirstFragment) {
    Bench b;
    const Frame first = fragment(0, true, 1480), middle = fragment(185, true, 1480),
                last = fragment(370, false, 40);
    b.send(middle, 100);  // before the first: there is no flow to credit
    b.send(first, 100);
    b.events.clear();
    b.send(middle, 100);
    b.send(last, 101);
    EXPECT_TRUE(b.events.empty()) << "credited through the fragment table: no callback";
    b.send(middle, 101);  // the last fragment ended the mapping
    EXPECT_EQ(quelm_get_stats(b.t)->not_decoded[QUELM_NOT_DECODED_FRAGMENT], 4u);
    quelm_flush(b.t);
    ASSERT_EQ(b.exported.size(), 1u);
    const quelm_flow_dir_value &d = b.exported[0]->value.direction[0];
    EXPECT_EQ(d.pkts, 3u);
    EXPECT_EQ(d.bytes, first.size() + middle.size() + last.size());
    EXPECT_EQ(d.last.tv_sec, 101);
}

TEST(Table, FragmentMappingDiesWithItsFlow) {
    Bench b;
    b.send(fragment(0, true, 100), 100);
    quelm_flush(b.t);
    quelm_flow_free(b.exported.at(0));
    b.exported.clear();
    for (uint32_t i = 0; i < b.t->fragments->num_slots; i++)
        EXPECT_EQ(b.t->fragments->entries[i].flow, nullptr);
    b.send(fragment(14, false, 50), 100);
    EXPECT_EQ(quelm_get_stats(b.t)->total_flows, 1u);
}

TEST(Table, FullHashCountsNoRoomAndKeepsItsFlows) {
    Bench b(0, 1);  // an IPv4 hash of one bucket holds 2 flows; the IPv6 one has no bucket
    for (uint16_t port = 1; port <= 3; port++)
        b.send(tcp(A, port, B, 80), 100);
    b.send(tcp(B, 80, A, 1), 100);
    EXPECT_EQ(b.events.back(), "pkt1:0");
    b.send(tcp(C, 1, D, 2), 100);
    EXPECT_EQ(quelm_get_stats(b.t)->flows_no_room, 2u);
    EXPECT_EQ(quelm_get_stats(b.t)->active_flows, 2u);
}

// What the table still holds goes with it: live flows (one mapping a fragment entry), and a retired
// flow and a slice not exported yet. The sanitizer build checks that nothing leaks or is used late.
TEST(Table, DestroyReleasesEverythingItHolds) {
    Bench b;
    b.send(fragment(0, true, 100), 100);
    b.send(tcp(A, 1, B, 2), 100);
    b.send(tcp(C, 1, D, 2), 100);
    quelm_hash_export_flow_slice(b.t, b.t->hash_v6, b.t->hash_v6->lru.head->owner, 101);
    quelm_hash_export_flow(b.t, b.t->hash_v4, b.t->hash_v4->lru.head->owner);
    EXPECT_EQ(b.t->hash_v4->expired.count + b.t->hash_v6->expired.count, 2u);
}

}  // namespace
