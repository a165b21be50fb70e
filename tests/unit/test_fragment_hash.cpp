#include <gtest/gtest.h>

#include <memory>

#include "quelm_flow.h"
#include "quelm_fragment_hash.h"
#include "test_packet.h"

namespace {

quelm_packet_header at(int64_t sec) {
    return quelm_packet_header{{sec, 0}, 60, 60};
}

struct FragmentTable {
    explicit FragmentTable(uint32_t size) : t(quelm_fragment_hash_alloc(size)) {}
    ~FragmentTable() { quelm_fragment_hash_free(t); }
    quelm_fragment_entry *find(uint32_t key, uint16_t id, int64_t sec) {
        const quelm_packet_header h = at(sec);
        return quelm_fragment_hash_find(t, key, id, &h);
    }
    uint32_t slot(const quelm_fragment_entry *e) const { return uint32_t(e - t->entries); }
    quelm_fragment_hash *t;
};

std::unique_ptr<quelm_test::TestPacket> udp_packet() {
    quelm_test::PacketSpec s;
    s.src = {"10.0.0.1", 5000};
    s.dst = {"10.0.0.2", 6000};
    s.protocol = 17;
    return quelm_test::make_packet(s);
}

TEST(FragmentHash, SizesRoundUpAndZeroFindsNothing) {
    const std::pair<uint32_t, uint32_t> cases[] = {{8192, 8192}, {1000, 1024}, {1, 1}, {0, 0}};
    for (const auto &[size, slots] : cases) {
        FragmentTable ft(size);
        ASSERT_NE(ft.t, nullptr);
        EXPECT_EQ(ft.t->num_slots, slots);
    }
    FragmentTable empty(0);
    EXPECT_EQ(empty.find(5, 5, 100), nullptr);
    quelm_fragment_hash_remove_range(empty.t, 0, 3);  // must touch nothing
}

TEST(FragmentHash, EntriesLiveTwoSecondsAfterLastUse) {
    FragmentTable ft(16);
    quelm_fragment_entry *e = ft.find(3, 77, 100);
    EXPECT_EQ(e->expire, 102u);
    e->pkts = 1;
    quelm_fragment_entry *again = ft.find(3, 77, 101);
    EXPECT_EQ(again, e);
    EXPECT_EQ(again->expire, 103u);
    EXPECT_EQ(again->pkts, 1u) << "a valid entry keeps its counters";
    quelm_fragment_entry *late = ft.find(3, 77, 103);
    EXPECT_EQ(late->pkts, 0u) << "an expired datagram starts afresh";
    EXPECT_EQ(late->flow, nullptr);
}

TEST(FragmentHash, CollidingDatagramsTakeNeighbouringSlots) {
    FragmentTable ft(16);
    quelm_fragment_entry *a = ft.find(5, 1, 100), *b = ft.find(5, 2, 100);
    EXPECT_EQ(ft.slot(a), 5u);
    EXPECT_EQ(ft.slot(b), 6u);
    EXPECT_EQ(ft.find(5, 2, 100), b);
}

TEST(FragmentHash, ProbeChainWrapsAroundTheEnd) {
    FragmentTable ft(8);
    quelm_fragment_entry *a = ft.find(7, 1, 100), *b = ft.find(7, 2, 100), *c = ft.find(15, 3, 100);
    EXPECT_EQ(ft.slot(a), 7u);
    EXPECT_EQ(ft.slot(b), 0u);
    EXPECT_EQ(ft.slot(c), 1u);
    EXPECT_EQ(ft.find(7, 2, 101), b);
    EXPECT_EQ(ft.find(15, 3, 101), c);
}

TEST(FragmentHash, FullTableReturnsNullAndChangesNothing) {
    FragmentTable ft(4);
    for (uint16_t id = 0; id < 4; id++)
        ASSERT_NE(ft.find(id, id, 100), nullptr);
    quelm_fragment_entry before[4];
    memcpy(before, ft.t->entries, sizeof before);
    EXPECT_EQ(ft.find(9, 9, 101), nullptr);
    EXPECT_EQ(memcmp(before, ft.t->entries, sizeof before), 0);
    EXPECT_NE(ft.find(9, 9, 102), nullptr) << "stale entries are reused once they expire";
}

TEST(FragmentHash, ValidEntryMovesToStaleHomeSlotWithItsFlow) {
    FragmentTable ft(16);
    auto p = udp_packet();
    quelm_flow *flow = quelm_flow_new(&p->info, nullptr, 0);
    flow->id = 33;
    quelm_fragment_entry *old = ft.find(4, 1, 100);   // slot 4, expires at 102
    quelm_fragment_entry *mine = ft.find(4, 2, 101);  // slot 5, expires at 103
    quelm_fragment_entry_bind_flow(mine, flow);
    mine->pkts = 2;
    mine->bytes = 3000;
    ASSERT_EQ(ft.slot(old), 4u);

    quelm_fragment_entry *moved = ft.find(4, 2, 102);  // slot 4 is stale now
    EXPECT_EQ(ft.slot(moved), 4u);
    EXPECT_EQ(moved->flow, flow);
    EXPECT_EQ(moved->flow_id, 33u);
    EXPECT_EQ(moved->pkts, 2u);
    EXPECT_EQ(moved->bytes, 3000u);
    EXPECT_EQ(flow->fragment, moved) << "the flow follows its entry";
    EXPECT_EQ(ft.t->entries[5].flow, nullptr) << "the old slot keeps no pointer to the flow";

    quelm_flow_free(flow);
    EXPECT_EQ(moved->flow, nullptr);
    for (uint32_t i = 0; i < ft.t->num_slots; i++)
        EXPECT_EQ(ft.t->entries[i].flow, nullptr);
    quelm_fragment_entry *next = ft.find(4, 2, 102);
    EXPECT_EQ(next->flow, nullptr) << "a released flow is never handed out again";
}

TEST(FragmentHash, SecondDatagramOfAFlowUnlinksTheFirst) {
    FragmentTable ft(16);
    auto p = udp_packet();
    quelm_flow *flow = quelm_flow_new(&p->info, nullptr, 0);
    quelm_fragment_entry *first = ft.find(1, 10, 100), *second = ft.find(2, 11, 100);
    quelm_fragment_entry_bind_flow(first, flow);
    quelm_fragment_entry_bind_flow(second, flow);
    EXPECT_EQ(first->flow, nullptr);
    EXPECT_EQ(second->flow, flow);
    quelm_flow_free(flow);
    EXPECT_EQ(second->flow, nullptr);
}

TEST(FragmentHash, TrailingStaleRunIsEmptied) {
    FragmentTable ft(16);
    ft.find(2, 1, 100);  // slot 2
    ft.find(2, 2, 100);  // slot 3
    ft.find(2, 3, 100);  // slot 4
    ft.find(2, 4, 105);  // slot 2 reused: 2..4 were stale; the stale tail 3..4 is emptied
    EXPECT_EQ(ft.t->entries[2].ip_id, 4);
    EXPECT_EQ(ft.t->entries[3].in_use, 0u);
    EXPECT_EQ(ft.t->entries[4].in_use, 0u);
}

TEST(FragmentHash, RemoveRangeWrapsAndStopsAfterOneRound) {
    FragmentTable ft(8);
    for (uint16_t i = 0; i < 8; i++)
        ft.find(i, i, 100);
    quelm_fragment_hash_remove_range(ft.t, 6, 1);
    const uint32_t want[8] = {0, 0, 1, 1, 1, 1, 0, 0};
    for (uint32_t i = 0; i < 8; i++)
        EXPECT_EQ(ft.t->entries[i].in_use, want[i]) << i;
    quelm_fragment_hash_remove_range(ft.t, 3, 3);
    EXPECT_EQ(ft.t->entries[3].in_use, 0u);
    EXPECT_EQ(ft.t->entries[4].in_use, 1u);
}

}  // namespace
