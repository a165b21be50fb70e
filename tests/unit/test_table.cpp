// The per-packet pipeline: built frames through quelm_process, seen through the callbacks.
#include <gtest/gtest.h>

#include "test_table.h"

using namespace quelm_test;

static Frame fragment(uint16_t id, uint16_t offset, bool more, size_t bytes) {
    Frame f =
        Frame().eth().ipv4(A, B, {.id = id, .more_fragments = more, .fragment_offset = offset});
    return offset == 0 ? f.udp(5000, 6000).payload(bytes - 8) : f.l4(17).payload(bytes);
}

TEST(Table, CountersPerDirectionAndHousekeepingOncePerSecond) {
    Bench b;
    const Frame syn = Frame().eth().ipv4(A, B).tcp(1000, 80, 0x02).payload(6);
    const Frame ack = Frame().eth().ipv4(A, B).tcp(1000, 80, 0x10).payload(6);
    b.send(syn, 100, {0, 7, 3});
    b.send(Frame().eth().ipv4(B, A).tcp(80, 1000, 0x12).payload(6), 101, {0, 0, 4});
    b.send(ack, 102);
    b.send(ack, 102);
    EXPECT_EQ(b.t->housekeeping_countdown, QUELM_HOUSEKEEPING_PACKETS - 1) << "not twice a second";
    EXPECT_EQ(quelm_housekeeping(b.t, 102), 0) << "nor again for a second that found nothing";
    EXPECT_EQ(quelm_get_stats(b.t)->bytes, 4 * (syn.size() + 24));
    quelm_flush(b.t);
    std::vector<uint64_t> got;  // packets, bytes, first and last second, flags, interface, port
    for (const quelm_flow_dir_value &d : b.exported.at(0)->value.direction)
        got.insert(got.end(), {d.pkts, d.bytes, uint64_t(d.first.tv_sec), uint64_t(d.last.tv_sec),
                               d.tcp_flags, d.if_index, d.port_id});
    EXPECT_EQ(got, (std::vector<uint64_t>{3, 3 * syn.size(), 100, 102, 0x12, 3, 7,  //
                                          1, syn.size(), 101, 101, 0x12, 4, 0}));
}

TEST(Table, CallbacksInOrderAndAVerdictFixedWhenTheFlowStarts) {
    Bench b;
    quelm_set_default_action(b.t, QUELM_ACTION_USER_1);
    EXPECT_EQ(b.send(tcp(A, 1, B, 2), 100), QUELM_ACTION_USER_1);
    quelm_set_default_action(b.t, QUELM_ACTION_DEFAULT);
    EXPECT_EQ(b.send(tcp(B, 2, A, 1), 100), QUELM_ACTION_USER_1);
    EXPECT_EQ(b.events, (std::vector<std::string>{"new:0", "pkt0:0", "pkt1:0"}));
    auto forward = [](quelm_flow *f, void *) { quelm_flow_set_action(f, QUELM_ACTION_FORWARD); };
    quelm_set_new_flow_callback(b.t, forward, nullptr);
    EXPECT_EQ(b.send(tcp(C, 1, D, 2), 100), QUELM_ACTION_DEFAULT) << "fixed before the callback";
    EXPECT_EQ(b.send(tcp(C, 1, D, 2), 100), QUELM_ACTION_FORWARD);
}

TEST(Table, ShuntDiscardsBeyondTheLimit) {
    // clang-format off
    const uint8_t rows[][5] = {  // TCP, UDP and default limits; a TCP flow?; first packet discarded (0: none)
        {10, 0, 0, 1, 11}, {10, 0, 0, 0, 0}, {0, 3, 0, 0, 4}, {0, 0, 2, 1, 3}, {5, 0, 2, 1, 6}};
    // clang-format on
    for (const auto &r : rows) {
        Bench b;
        b.t->rules.shunt_tcp = r[0], b.t->rules.shunt_udp = r[1], b.t->rules.shunt_default = r[2];
        const Frame p = r[3] ? tcp(A, 1, B, 2) : Frame().eth().ipv4(A, B).udp(1, 2);
        for (int n = 1; n <= 12; n++)
            EXPECT_EQ(b.send(p, 100), r[4] && n >= r[4] ? QUELM_ACTION_DISCARD : 0) << n;
    }
}

// Packets, then housekeeping at a second (or a flush): the flows exported, the packets without
// room, those not decoded. Later fragments count for the flow of their datagram's first one.
TEST(Table, FlowsEndAsTheyShould) {
    const Frame fwd = tcp(A, 1, B, 2), rev = tcp(B, 2, A, 1);
    const Frame first = fragment(1, 0, true, 1480), middle = fragment(1, 185, true, 1480),
                last = fragment(1, 370, false, 40), next = fragment(2, 0, true, 100);
    // clang-format off
    struct Row { const char *name; uint32_t max_flows; std::vector<std::pair<Frame, int64_t>> packets; int64_t then; const char *exports; uint64_t no_room = 0, not_decoded = 0; } const rows[] = {
        {"lifetime_ends_the_flow_and_the_next_packet_opens_one", 1024, {{fwd, 100}, {rev, 220}, {rev, 221}}, -1, "0:2:2:54 1:4:1:54"},
        {"not_idle_at_the_timeout_from_either_direction", 1024, {{fwd, 100}, {rev, 125}}, 155, ""},
        {"idle_a_second_after_it", 1024, {{fwd, 100}, {rev, 125}}, 156, "0:1:2:54"},
        {"flush_ends_every_flow_ipv4_first", 1024, {{fwd, 0xFFFFFFFE}, {Frame().eth().ipv6(C, D).udp(1, 2).payload(32), 100}, {tcp(D, 1, C, 2), 100}}, -1, "0:4:1:54 1:4:1:80 2:4:1:60"},
        {"full_hashes_count_no_room_and_keep_their_flows", 1, {{fwd, 100}, {tcp(A, 3, B, 4), 100}, {tcp(A, 5, B, 6), 100}, {rev, 100}, {tcp(C, 1, D, 2), 100}}, -1, "1:4:1:54 0:4:2:54", 2},
        {"fragments_of_a_datagram", 1024, {{middle, 100}, {first, 100}, {middle, 100}, {last, 101}, {middle, 101}, {next, 101}}, -1, "0:4:4:3236", 0, 4},
    };
    // clang-format on
    for (const Row &r : rows) {
        Bench b(0, r.max_flows);  // of 1: an IPv4 hash holding 2 flows, an IPv6 one without buckets
        for (const auto &[frame, sec] : r.packets)
            b.send(frame, sec);
        r.then < 0 ? quelm_flush(b.t) : void(quelm_housekeeping(b.t, uint32_t(r.then)));
        const quelm_stats &s = *quelm_get_stats(b.t);
        EXPECT_EQ(b.exports(), r.exports) << r.name;
        EXPECT_EQ(s.active_flows + b.exported.size(), s.total_flows) << r.name;
        EXPECT_EQ(std::pair(s.flows_no_room, s.not_decoded[QUELM_NOT_DECODED_FRAGMENT]),
                  std::pair(r.no_room, r.not_decoded))
            << r.name;
    }
}

// With extended decoding a ping is one flow whichever side is seen first, and the later fragments
// of an IPv6 datagram count for the flow of its first one, or as reaching no flow.
TEST(Table, ExtendedDecodingPairsQueriesAndCreditsIpv6Fragments) {
    Bench b(QUELM_FLAG_EXTENDED_DECODING);
    const auto fragment6 = [](uint16_t offset, uint32_t id) {
        Frame f = Frame().eth().ipv6(C, D).ipv6_fragment(offset, offset == 0, id);
        return offset == 0 ? f.udp(1, 2).payload(992) : f.l4(17).payload(500);
    };
    for (const Frame &f :
         {Frame().eth().ipv4(A, B).icmp(8, 0, 1, 9), Frame().eth().ipv4(B, A).icmp(0, 0, 1, 9),
          Frame().eth().ipv6(D, C).icmp(129, 0, 58, 4),
          Frame().eth().ipv6(C, D).icmp(128, 0, 58, 4), fragment6(0, 5), fragment6(125, 5),
          fragment6(125, 6)})
        b.send(f, 100);
    quelm_flush(b.t);
    EXPECT_EQ(b.exports(), "0:4:2:42 1:4:2:48 2:4:2:1596");
    std::vector<uint32_t> flags;
    for (const quelm_flow *f : b.exported)
        flags.push_back(f->value.flags);
    EXPECT_EQ(flags, (std::vector<uint32_t>{
                         QUELM_FLOW_FLAG_ICMP_QUERY,
                         QUELM_FLOW_FLAG_ICMP_QUERY | QUELM_FLOW_FLAG_ICMP_FROM_REPLY, 0}));
    const quelm_stats &s = *quelm_get_stats(b.t);
    EXPECT_EQ(std::pair(s.not_decoded[QUELM_NOT_DECODED_FRAGMENT], s.fragments_no_flow),
              std::pair(uint64_t{2}, uint64_t{1}));
}

// A slice is due strictly after the period, counted from the earliest first packet of either
// direction, then from the previous slice; housekeeping cuts it when no packet does.
TEST(Table, SlicesCarryThePacketsOfTheirPeriod) {
    Bench b;
    quelm_flow_set_flow_slicing(b.t, 10);
    for (int sec = 1005; sec <= 1030; sec++) {
        if (sec < 1009 || sec > 1011) b.send(tcp(A, 1, B, 2), sec);  // silent from 1009 to 1011
        if (sec == 1005) b.t->hash_v4->lru.head->owner->value.direction[1].first = {1000, 0};
        if (sec == 1010 || sec == 1011) quelm_housekeeping(b.t, uint32_t(sec));
        EXPECT_TRUE(sec != 1010 || b.exported.empty()) << "not due at the period itself";
    }
    quelm_flush(b.t);
    EXPECT_EQ(b.exports(), "0:5:4:216 0:5:10:540 0:4:9:486");
    EXPECT_EQ(b.exported[0]->parent, b.exported.back());
    EXPECT_EQ(quelm_flow_get_users(b.exported[1]), 3u);
}

TEST(Table, ListCallbackTakesPrecedenceWithTheWholeBatch) {
    Bench b;
    static size_t batch = 0;
    auto take = [](quelm_list *list, void *) { batch = list->count, quelm_list_cleanup(list); };
    quelm_set_flow_list_export_callback(b.t, take, nullptr);
    for (uint16_t port = 1; port <= 3; port++)
        b.send(tcp(A, port, B, 80), 100);
    quelm_flush(b.t);
    EXPECT_EQ(std::pair(batch, b.exported.size()), std::pair(size_t{3}, size_t{0}));
    EXPECT_EQ(b.t->export_list.head, nullptr);
}

// Live flows, a fragment entry, a retired flow and a slice go with the table (checked by the
// sanitizers).
TEST(Table, DestroyReleasesEverythingItHolds) {
    Bench b;
    b.send(fragment(1, 0, true, 100), 100);
    b.send(tcp(A, 1, B, 2), 100);
    b.send(tcp(C, 1, D, 2), 100);
    for (int n = 0; n < 2; n++)  // the second slice would have no packet to carry: none is cut
        quelm_hash_export_flow_slice(b.t, b.t->hash_v6, b.t->hash_v6->lru.head->owner, 101);
    quelm_hash_export_flow(b.t, b.t->hash_v4, b.t->hash_v4->lru.head->owner);
    EXPECT_EQ(b.t->hash_v4->expired.count + b.t->hash_v6->expired.count, 2u);
}
