#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "test_packet.h"
#include "test_table.h"

namespace {

using quelm_test::make_packet;
using quelm_test::PacketSpec;
using quelm_test::reversed;

PacketSpec tcp(const char *src, uint16_t sport, const char *dst, uint16_t dport,
               int64_t sec = 100) {
    PacketSpec s;
    s.src = {src, sport};
    s.dst = {dst, dport};
    s.protocol = 6;
    s.sec = sec;
    return s;
}

class HashTest : public ::testing::Test {
  protected:
    void SetUp() override { build(1000); }
    void TearDown() override {
        quelm_test::drain(&hash->expired);
        quelm_hash_free(hash);
    }
    void build(uint32_t size, uint32_t idle = 30, uint32_t ignore_vlan = 0, uint32_t mac = 0) {
        if (hash != nullptr) {
            quelm_test::drain(&hash->expired);
            quelm_hash_free(hash);
        }
        hash = quelm_hash_alloc(size, idle, ignore_vlan, mac);
        ASSERT_NE(hash, nullptr);
    }
    quelm_packet_info *decode(const PacketSpec &spec) {
        packets.push_back(make_packet(spec));
        quelm_packet_info *info = &packets.back()->info;
        quelm_hash_compute_hash_index(hash, info);
        return info;
    }
    // Creates, inserts and counts a flow the way packet processing does for a miss.
    quelm_flow *add(const PacketSpec &spec) {
        quelm_packet_info *info = decode(spec);
        quelm_flow *f = quelm_flow_new(info, nullptr, 0);
        EXPECT_EQ(quelm_hash_add(hash, f), 1);
        f->value.direction[0].pkts = 1;
        table.table->stats.active_flows++;
        return f;
    }
    quelm_flow *find(const PacketSpec &spec, uint32_t *dir = nullptr) {
        uint32_t d = 99;
        quelm_flow *f = quelm_hash_find(table, hash, decode(spec), &d);
        if (dir != nullptr) *dir = d;
        return f;
    }
    quelm_test::BareTable table;
    quelm_hash *hash = nullptr;
    std::vector<std::unique_ptr<quelm_test::TestPacket>> packets;
};

TEST(HashSizing, BucketsCapacityAndScanStep) {
    struct Case {
        uint32_t size, buckets, mask, capacity, scan_step;
    } cases[] = {{1000, 1024, 1023, 2000, 10},
                 {524288, 524288, 524287, 1048576, 4096},
                 {409599, 524288, 524287, 819198, 4096},
                 {262144, 262144, 262143, 524288, 2621},
                 {64, 64, 63, 128, 0},
                 {1, 1, 0, 2, 0},
                 {0, 0, 0, 0, 0}};
    for (const Case &c : cases) {
        quelm_hash *h = quelm_hash_alloc(c.size, 30, 0, 0);
        ASSERT_NE(h, nullptr);
        EXPECT_EQ(h->num_buckets, c.buckets) << c.size;
        EXPECT_EQ(h->mask, c.mask) << c.size;
        EXPECT_EQ(h->capacity, c.capacity) << c.size;
        EXPECT_EQ(h->scan_step, c.scan_step) << c.size;
        quelm_hash_free(h);
    }
}

TEST_F(HashTest, BothDirectionsFindTheFlow) {
    const PacketSpec fwd = tcp("10.0.0.1", 40000, "10.0.0.2", 80);
    quelm_flow *f = add(fwd);
    uint32_t dir;
    EXPECT_EQ(find(fwd, &dir), f);
    EXPECT_EQ(dir, 0u);
    EXPECT_EQ(decode(reversed(fwd))->hash, decode(fwd)->hash);
    EXPECT_EQ(find(reversed(fwd), &dir), f);
    EXPECT_EQ(dir, 1u);
    EXPECT_EQ(find(tcp("10.0.0.1", 40001, "10.0.0.2", 80)), nullptr);
}

TEST_F(HashTest, Ipv6FlowsMatchOnAllAddressBytes) {
    const PacketSpec fwd = tcp("fd00::1:1", 1000, "fd00::2:2", 443);
    quelm_flow *f = add(fwd);
    uint32_t dir;
    EXPECT_EQ(find(reversed(fwd), &dir), f);
    EXPECT_EQ(dir, 1u);
    EXPECT_EQ(find(tcp("fd01::1:1", 1000, "fd00::2:2", 443)), nullptr)
        << "same low address words, different prefix";
}

TEST_F(HashTest, FlowBetweenEqualEndpointsIsAlwaysForward) {
    const PacketSpec self = tcp("10.0.0.9", 5000, "10.0.0.9", 5000);
    quelm_flow *f = add(self);
    uint32_t dir;
    EXPECT_EQ(find(self, &dir), f);
    EXPECT_EQ(dir, 0u);
}

TEST_F(HashTest, VlanIsPartOfIdentityUnlessIgnored) {
    for (uint32_t ignore : {0u, 1u}) {
        build(1000, 30, ignore);
        PacketSpec a = tcp("10.0.0.1", 1, "10.0.0.2", 2), b = a;
        a.vlan = 10;
        b.vlan = 20;
        quelm_flow *f = add(a);
        EXPECT_EQ(find(b), ignore ? f : nullptr) << "ignore_vlan " << ignore;
    }
}

TEST_F(HashTest, MacAddressesArePartOfIdentityWhenAsked) {
    build(1000, 30, 0, 1);
    PacketSpec a = tcp("10.0.0.1", 1, "10.0.0.2", 2), b = a;
    b.smac[5] = 0x77;
    quelm_flow *f = add(a);
    EXPECT_EQ(find(a), f);
    EXPECT_EQ(find(reversed(a)), f);
    EXPECT_EQ(find(b), nullptr);
    PacketSpec same_macs = a;
    memcpy(same_macs.dmac, same_macs.smac, 6);
    quelm_packet_info *info = decode(same_macs);
    EXPECT_EQ(info->hash, 3u * (1 + 2) + 6 + info->hash_seed) << "M is 0 for equal MACs";
}

TEST_F(HashTest, ProtocolIsHashedButNotCompared) {
    PacketSpec t = tcp("10.0.0.1", 1, "10.0.0.2", 2), u = t;
    u.protocol = 17;
    add(t);
    EXPECT_NE(decode(t)->hash_idx, decode(u)->hash_idx);
    EXPECT_EQ(find(u), nullptr);
    // A capture-layer hash that ignores the protocol puts both in one bucket: one flow.
    quelm_packet_info *info = decode(u);
    info->hash_idx = decode(t)->hash_idx;
    uint32_t dir;
    EXPECT_NE(quelm_hash_find(table, hash, info, &dir), nullptr);
}

TEST_F(HashTest, LookupRetiresStaleFlowsItPassesAndRecordsTheWalk) {
    // Address pairs with equal sums land in one bucket.
    std::vector<quelm_flow *> chain;
    for (uint32_t i = 1; i <= 7; i++) {
        const std::string s = "10.0.0." + std::to_string(i), d = "10.0.0." + std::to_string(20 - i);
        chain.push_back(add(tcp(s.c_str(), 7, d.c_str(), 9, i <= 3 ? 100 : 140)));
    }
    const std::string miss_src = "10.0.0.10", miss_dst = "10.0.0.10";
    EXPECT_EQ(find(tcp(miss_src.c_str(), 7, miss_dst.c_str(), 9, 140)), nullptr);
    EXPECT_EQ(hash->max_bucket_walk, 7u);
    EXPECT_EQ(hash->expired.count, 3u) << "the three flows idle since 100";
    EXPECT_EQ(hash->num_flows, 4u);
    EXPECT_EQ(table.table->stats.active_flows, 4u);
    EXPECT_EQ(quelm_test::statuses(hash->expired),
              std::vector<uint32_t>(3, QUELM_FLOW_STATUS_IDLE_TIMEOUT));
    hash->max_bucket_walk = 0;
    EXPECT_EQ(find(tcp("10.0.0.4", 7, "10.0.0.16", 9, 141)), chain[3]);
    EXPECT_EQ(hash->max_bucket_walk, 0u) << "a hit does not record its walk";
}

TEST_F(HashTest, FoundFlowIsNeverExpiredByItsOwnLookup) {
    const PacketSpec a = tcp("10.0.0.1", 1, "10.0.0.2", 2, 100);
    quelm_flow *f = add(a);
    EXPECT_EQ(find(tcp("10.0.0.1", 1, "10.0.0.2", 2, 5000)), f);
    EXPECT_EQ(hash->expired.count, 0u);
}

TEST_F(HashTest, IdleTestIsStrictAtTheTimeout) {
    quelm_flow *f = add(tcp("10.0.0.1", 1, "10.0.0.2", 2, 100));
    EXPECT_EQ(quelm_hash_harvest_expired_flows(table, hash, 130), 0u);
    EXPECT_EQ(quelm_hash_harvest_expired_flows(table, hash, 131), 1u);
    EXPECT_EQ(hash->expired.head->owner, f);
    EXPECT_EQ(f->value.status, uint32_t{QUELM_FLOW_STATUS_IDLE_TIMEOUT});
    EXPECT_EQ(hash->num_flows, 0u);
    EXPECT_EQ(hash->lru.count, 0u);
    EXPECT_EQ(table.table->stats.active_flows, 0u);
}

TEST_F(HashTest, ReverseDirectionActivityKeepsFlowAlive) {
    quelm_flow *f = add(tcp("10.0.0.1", 1, "10.0.0.2", 2, 100));
    f->value.direction[1].first = {120, 0};
    f->value.direction[1].last = {125, 0};
    EXPECT_EQ(quelm_hash_harvest_expired_flows(table, hash, 155), 0u);
    EXPECT_EQ(quelm_hash_harvest_expired_flows(table, hash, 156), 1u);
}

TEST_F(HashTest, HarvestStopsAtOldestLiveFlow) {
    quelm_flow *old_live = add(tcp("10.0.0.1", 1, "10.0.0.2", 2, 100));
    add(tcp("10.0.0.3", 1, "10.0.0.4", 2, 50));  // idle, but younger in the recency list
    old_live->value.direction[0].last = {140, 0};
    EXPECT_EQ(quelm_hash_harvest_expired_flows(table, hash, 150), 0u);
    EXPECT_EQ(hash->num_flows, 2u);
    // The bucket scan retires it instead: 100 passes of a hundredth sweep the whole array.
    uint32_t retired = 0;
    for (int pass = 0; pass < 103; pass++)
        retired += quelm_hash_check_expired_flows(table, hash, 150);
    EXPECT_EQ(retired, 1u);
    EXPECT_EQ(hash->num_flows, 1u);
}

TEST_F(HashTest, ScanCursorAdvancesByStepAndWraps) {
    EXPECT_EQ(hash->scan_step, 10u);
    for (int pass = 0; pass < 102; pass++)
        quelm_hash_check_expired_flows(table, hash, 100);
    EXPECT_EQ(hash->scan_cursor, (102u * 10) % 1024);
    build(64);
    EXPECT_EQ(quelm_hash_check_expired_flows(table, hash, 100), 0u);
}

TEST_F(HashTest, SliceIsDueStrictlyAfterPeriodFromEarliestFirstPacket) {
    hash->own_expiry.slice_timeout = 60;
    quelm_flow *f = add(tcp("10.0.0.1", 1, "10.0.0.2", 2, 105));
    f->value.direction[0].bytes = 500;
    f->value.direction[1].first = {100, 0};  // the reverse side was seen first
    f->value.direction[1].last = {150, 0};
    f->value.direction[1].pkts = 2;
    f->value.direction[0].last = {159, 0};
    EXPECT_EQ(quelm_hash_harvest_expired_flows(table, hash, 160), 0u);
    EXPECT_EQ(quelm_hash_harvest_expired_flows(table, hash, 161), 1u);
    EXPECT_EQ(f->last_slice, 161u);
    ASSERT_EQ(hash->expired.count, 1u);
    quelm_flow *slice = hash->expired.head->owner;
    EXPECT_EQ(slice->parent, f);
    EXPECT_EQ(slice->value.status, uint32_t{QUELM_FLOW_STATUS_SLICE});
    EXPECT_EQ(slice->value.direction[0].bytes, 500u);
    EXPECT_EQ(slice->value.direction[1].pkts, 2u);
    EXPECT_EQ(f->value.direction[0].pkts, 0u) << "the live flow restarts its counters";
    EXPECT_EQ(hash->num_flows, 1u) << "a sliced flow stays in the table";
    EXPECT_EQ(table.table->stats.active_flows, 1u);
    EXPECT_EQ(quelm_flow_get_users(f), 2u);
    // The next period counts from the slice; without packets since, no slice is cut.
    f->value.direction[0].last = {220, 0};
    EXPECT_EQ(quelm_hash_harvest_expired_flows(table, hash, 221), 0u);
    EXPECT_EQ(quelm_hash_harvest_expired_flows(table, hash, 222), 0u);
    EXPECT_EQ(hash->expired.count, 1u);
}

TEST_F(HashTest, TimeArithmeticWrapsAt32Bits) {
    hash->own_expiry.slice_timeout = 20;
    quelm_flow *f = add(tcp("10.0.0.1", 1, "10.0.0.2", 2, 0xFFFFFFE0));
    EXPECT_FALSE(quelm::flow_is_idle(f, 0xFFFFFFFE, 30));
    EXPECT_TRUE(quelm::flow_is_idle(f, 0xFFFFFFFF, 30));
    f->last_slice = 0xFFFFFFF0;
    EXPECT_FALSE(quelm::flow_slice_due(f, 4, 20)) << "20 seconds across the wrap: not yet";
    EXPECT_TRUE(quelm::flow_slice_due(f, 5, 20)) << "21 seconds across the wrap";
    // A flow active just before the wrap is not idle just after it (its age is not negative).
    f->value.direction[0].last = {0xFFFFFFF0, 0};
    EXPECT_FALSE(quelm::flow_is_idle(f, 100, 30));
}

TEST_F(HashTest, FlushEndsEveryFlowWhateverItsTimes) {
    add(tcp("10.0.0.1", 1, "10.0.0.2", 2, 100));
    add(tcp("10.0.0.3", 1, "10.0.0.4", 2, 0xFFFFFFFE));  // last seen a second before the flush
    add(tcp("fd00::1", 1, "fd00::2", 2, 200));
    EXPECT_EQ(quelm_hash_harvest_expired_flows(table, hash, 0xFFFFFFFF), 3u);
    EXPECT_EQ(quelm_test::statuses(hash->expired),
              std::vector<uint32_t>(3, QUELM_FLOW_STATUS_FLUSHED));
    EXPECT_EQ(hash->num_flows, 0u);
    EXPECT_EQ(table.table->stats.active_flows, 0u);
}

TEST_F(HashTest, FullHashRefusesInsertion) {
    build(2);
    add(tcp("10.0.0.1", 1, "10.0.0.2", 2));
    add(tcp("10.0.0.1", 3, "10.0.0.2", 4));
    EXPECT_EQ(hash->capacity, 4u);
    add(tcp("10.0.0.1", 5, "10.0.0.2", 6));
    add(tcp("10.0.0.1", 7, "10.0.0.2", 8));
    quelm_packet_info *info = decode(tcp("10.0.0.1", 9, "10.0.0.2", 10));
    quelm_flow *extra = quelm_flow_new(info, nullptr, 0);
    EXPECT_EQ(quelm_hash_add(hash, extra), 0);
    EXPECT_EQ(hash->num_flows, 4u);
    quelm_flow_free(extra);
}

TEST_F(HashTest, EmptyHashTouchesNoBucket) {
    build(0);
    quelm_packet_info *info = decode(tcp("10.0.0.1", 1, "10.0.0.2", 2));
    EXPECT_EQ(info->hash_idx, 0u);
    uint32_t dir;
    EXPECT_EQ(quelm_hash_find(table, hash, info, &dir), nullptr);
    quelm_flow *f = quelm_flow_new(info, nullptr, 0);
    EXPECT_EQ(quelm_hash_add(hash, f), 0);
    EXPECT_EQ(quelm_hash_remove(hash, f, 0), 0);
    quelm_flow_free(f);
    EXPECT_EQ(quelm_hash_check_expired_flows(table, hash, 1000), 0u);
    EXPECT_EQ(quelm_hash_harvest_expired_flows(table, hash, 0xFFFFFFFF), 0u);
}

TEST_F(HashTest, RemoveOnlyFromTheGivenChain) {
    quelm_flow *f = add(tcp("10.0.0.1", 1, "10.0.0.2", 2));
    EXPECT_EQ(quelm_hash_remove(hash, f, (f->hash_idx + 1) & hash->mask), 0);
    EXPECT_EQ(hash->num_flows, 1u);
    EXPECT_EQ(quelm_hash_remove(hash, f, f->hash_idx), 1);
    EXPECT_EQ(hash->num_flows, 0u);
    quelm_list_remove(&hash->lru, &f->lru);
    quelm_flow_free(f);
}

TEST_F(HashTest, WalkVisitsEveryFlowAndMayRemoveIt) {
    for (uint16_t p = 1; p <= 20; p++)
        add(tcp("10.0.0.1", p, "10.0.0.2", 80));
    struct Ctx {
        quelm_hash *hash;
        int seen;
    } ctx{hash, 0};
    quelm_hash_walk(
        hash,
        [](quelm_flow *f, void *user) {
            auto *c = static_cast<Ctx *>(user);
            c->seen++;
            quelm_hash_remove(c->hash, f, f->hash_idx);
            quelm_list_remove(&c->hash->lru, &f->lru);
            quelm_flow_free(f);
            return 0;
        },
        &ctx);
    EXPECT_EQ(ctx.seen, 20);
    EXPECT_EQ(hash->num_flows, 0u);
    int stopped = 0;
    add(tcp("10.0.0.1", 1, "10.0.0.2", 80));
    add(tcp("10.0.0.1", 2, "10.0.0.2", 80));
    quelm_hash_walk(
        hash, [](quelm_flow *, void *u) { return ++*static_cast<int *>(u); }, &stopped);
    EXPECT_EQ(stopped, 1) << "a non-zero result ends the walk";
}

TEST_F(HashTest, RecencyMovesAreThrottledPerPeriod) {
    quelm_flow *a = add(tcp("10.0.0.1", 1, "10.0.0.2", 2, 100));
    quelm_flow *b = add(tcp("10.0.0.3", 1, "10.0.0.4", 2, 100));
    ASSERT_EQ(hash->lru.head->owner, b);
    find(tcp("10.0.0.1", 1, "10.0.0.2", 2, 101));
    EXPECT_EQ(hash->lru.head->owner, a);
    EXPECT_EQ(hash->lru_refresh, 131u);
    find(tcp("10.0.0.3", 1, "10.0.0.4", 2, 120));
    EXPECT_EQ(hash->lru.head->owner, a) << "no move before the refresh second";
    find(tcp("10.0.0.3", 1, "10.0.0.4", 2, 132));
    EXPECT_EQ(hash->lru.head->owner, b);
}

TEST_F(HashTest, FreeReleasesChainedFlowsButNotExpiredOnes) {
    add(tcp("10.0.0.1", 1, "10.0.0.2", 2, 100));
    add(tcp("10.0.0.3", 1, "10.0.0.4", 2, 200));
    quelm_hash_harvest_expired_flows(table, hash, 150);
    ASSERT_EQ(hash->expired.count, 1u);
    quelm_list expired = hash->expired;
    hash->expired = quelm_list{};
    quelm_hash_free(hash);  // releases the live flow
    hash = nullptr;
    build(8);
    EXPECT_EQ(quelm_test::drain(&expired), 1u) << "retired flows belong to the export path";
}

}  // namespace
