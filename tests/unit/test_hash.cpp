// The flow hash driven by hand, with flows of decoded frames.
#include <gtest/gtest.h>

#include <array>

#include "test_table.h"

using namespace quelm_test;

TEST(HashSizing, BucketsCapacityAndScanStep) {
    // clang-format off
    const std::array<uint32_t, 5> rows[] = {  // size, buckets, mask, capacity, buckets per scan
        {1000, 1024, 1023, 2000, 10}, {262144, 262144, 262143, 524288, 2621}, {409599, 524288, 524287, 819198, 4096},
        {64, 64, 63, 128, 0}, {1, 1, 0, 2, 0}, {0, 0, 0, 0, 0}};
    // clang-format on
    for (const auto &r : rows) {
        quelm_hash *h = quelm_hash_alloc(r[0], 30, 0, 0);
        EXPECT_EQ((std::array{r[0], h->num_buckets, h->mask, h->capacity, h->scan_step}), r);
        quelm_hash_free(h);
    }
}

TEST(Hash, FlowIdentity) {
    const Mac X = kClientMac, Y = kServerMac, Z = {2, 0, 0, 0, 0, 7};
    constexpr uint32_t V = QUELM_FLAG_IGNORE_VLAN, M = QUELM_FLAG_MAC_IN_KEY;
    // clang-format off
    auto vlan = [](uint16_t id, const char *s, const char *d) { return Frame().eth().vlan(id).ipv4(s, d); };
    // dir 2: no flow found. A capture-layer hash (ext) puts both packets in one bucket, whatever their keys.
    struct Row { const char *name; uint32_t flags; Frame flow, lookup; uint32_t dir, ext = 0; } const rows[] = {
        {"forward", 0, tcp(A, 1, B, 2), tcp(A, 1, B, 2), 0},
        {"reverse", 0, tcp(A, 1, B, 2), tcp(B, 2, A, 1), 1},
        {"other_port", 0, tcp(A, 1, B, 2), tcp(A, 3, B, 2), 2, 7},
        {"ipv6_reverse", 0, tcp(C, 1, D, 2), tcp(D, 2, C, 1), 1},
        {"ipv6_other_prefix", 0, tcp("fd00::1:1", 1, D, 2), tcp("fd01::1:1", 1, D, 2), 2},
        {"equal_endpoints_are_forward", 0, tcp(A, 5, A, 5), tcp(A, 5, A, 5), 0},
        {"other_vlan", 0, vlan(10, A, B).tcp(1, 2), vlan(20, A, B).tcp(1, 2), 2, 7},
        {"vlan_ignored", V, vlan(10, A, B).tcp(1, 2), vlan(20, B, A).tcp(2, 1), 1},
        {"macs_forward", M, tcp(A, 1, B, 2), tcp(A, 1, B, 2), 0},
        {"macs_swapped_in_reverse", M, tcp(A, 1, B, 2), Frame().eth(Y, X).ipv4(B, A).tcp(2, 1), 1},
        {"macs_unswapped_in_reverse", M, tcp(A, 1, B, 2), tcp(B, 2, A, 1), 2},
        {"other_mac", M, tcp(A, 1, B, 2), Frame().eth(Z, Y).ipv4(A, B).tcp(1, 2), 2, 7},
        {"other_mac_not_in_key", 0, tcp(A, 1, B, 2), Frame().eth(Z, Y).ipv4(A, B).tcp(1, 2), 0},
        {"protocol_is_hashed", 0, tcp(A, 1, B, 2), Frame().eth().ipv4(A, B).udp(1, 2), 2},
        {"protocol_is_not_compared", 0, tcp(A, 1, B, 2), Frame().eth().ipv4(A, B).udp(1, 2), 0, 7},
    };
    // clang-format on
    for (const Row &r : rows) {
        Bench b(r.flags);
        quelm_flow *f = b.add(r.flow, 100, r.ext);
        EXPECT_EQ(b.find(r.lookup, 100, r.ext), r.dir < 2 ? f : nullptr) << r.name;
        EXPECT_EQ(b.dir, r.dir) << r.name;
    }
}

TEST(Hash, LookupRetiresTheStaleFlowsItWalksPast) {
    Bench b;
    quelm_hash *h = b.t->hash_v4;
    quelm_flow *stale = b.add(tcp(A, 1, B, 2), 100);
    EXPECT_EQ(b.find(tcp(A, 1, B, 2), 5000), stale) << "the flow looked for is never retired";
    for (int i = 1; i <= 7; i++) {  // address pairs with equal sums share a bucket
        const std::string s = "10.1.0." + std::to_string(i), d = "10.1.0." + std::to_string(20 - i);
        b.add(tcp(s.c_str(), 7, d.c_str(), 9), i <= 3 ? 100 : 140);
    }
    EXPECT_EQ(b.find(tcp("10.1.0.10", 7, "10.1.0.10", 9), 140), nullptr);
    EXPECT_EQ(h->max_bucket_walk, 7u);
    EXPECT_EQ(h->expired.count, 3u) << "the three idle since 100";
    EXPECT_EQ(h->expired.head->owner->value.status, uint32_t{QUELM_FLOW_STATUS_IDLE_TIMEOUT});
    EXPECT_EQ(h->num_flows + b.t->stats.active_flows, 5u + 5u);
    h->max_bucket_walk = 0;
    EXPECT_NE(b.find(tcp("10.1.0.16", 9, "10.1.0.4", 7), 141), nullptr);
    EXPECT_EQ(h->max_bucket_walk, 0u) << "a hit does not record its walk";
}

TEST(Hash, HarvestStopsAtTheOldestLiveFlowAndTheScanFindsTheRest) {
    Bench b;
    quelm_hash *h = b.t->hash_v4;
    quelm_flow *live = b.add(tcp(A, 1, B, 2), 100);
    b.add(tcp(A, 3, B, 4), 50);  // idle, but younger in the recency list
    live->value.direction[0].last = {140, 0};
    EXPECT_EQ(quelm_hash_harvest_expired_flows(b.t, h, 150), 0u);
    uint32_t retired = 0;
    for (int pass = 0; pass < 103; pass++)  // a hundredth of the buckets per pass
        retired += quelm_hash_check_expired_flows(b.t, h, 150);
    EXPECT_EQ(retired + h->num_flows + b.t->stats.active_flows, 3u);
    EXPECT_EQ(h->scan_cursor, 103u * 10 % 1024) << "the cursor wraps";
}

TEST(Hash, TimeWrapsAt32Bits) {
    Bench b;
    quelm_flow *f = b.add(tcp(A, 1, B, 2), 0xFFFFFFE0);
    f->last_slice = 0xFFFFFFF0;
    EXPECT_FALSE(quelm::flow_is_idle(f, 0xFFFFFFFE, 30));
    EXPECT_TRUE(quelm::flow_is_idle(f, 0xFFFFFFFF, 30));
    EXPECT_FALSE(quelm::flow_slice_due(f, 4, 20)) << "20 seconds across the wrap";
    EXPECT_TRUE(quelm::flow_slice_due(f, 5, 20));
    f->value.direction[0].last = {0xFFFFFFF0, 0};
    EXPECT_FALSE(quelm::flow_is_idle(f, 100, 30)) << "active before the wrap, not idle after it";
}

TEST(Hash, WalkMayRemoveTheFlowItIsGivenAndStopsOnRequest) {
    Bench b(0, 4);
    for (uint16_t port = 1; port <= 9; port++)  // 4 buckets hold 8 flows
        EXPECT_EQ(b.add(tcp(A, port, B, 80)) != nullptr, port <= 8);
    auto remove = [](quelm_flow *f, void *hash) {
        auto *h = static_cast<quelm_hash *>(hash);
        EXPECT_EQ(quelm_hash_remove(h, f, f->hash_idx), 1);
        quelm_list_remove(&h->lru, &f->lru);
        quelm_flow_free(f);
        return h->num_flows == 2 ? 1 : 0;
    };
    quelm_hash_walk(b.t->hash_v4, remove, b.t->hash_v4);
    EXPECT_EQ(b.t->hash_v4->num_flows, 2u);
}

TEST(Hash, FreeReleasesChainedFlowsButNotRetiredOnes) {
    Bench b;
    quelm_hash *h = quelm_hash_alloc(8, 30, 0, 0);  // counted by the table each call names
    for (int64_t sec : {100, 200})
        b.t->stats.active_flows += quelm_hash_add(
            h, quelm_flow_new(b.packet(tcp(A, uint16_t(sec), B, 2), sec), nullptr, 0));
    EXPECT_EQ(quelm_hash_harvest_expired_flows(b.t, h, 150) + b.t->stats.active_flows, 1u + 1u);
    quelm_list retired = h->expired;
    quelm_hash_free(h);  // releases the live flow; the retired one belongs to the export path
    quelm_list_cleanup(&retired);
}
