// Flow records, and the IPv4 fragment table whose entries point at them.
#include <gtest/gtest.h>

#include <algorithm>

#include "test_table.h"

using namespace quelm_test;

// The rest of the record and its print: the tool's baselines.
TEST(Flow, KeyInHostOrderAndPrintCutToTheBuffer) {
    Bench b;
    quelm_flow *f = quelm_flow_new(b.packet(tcp(A, 1234, B, 80), 100), nullptr, 0);
    EXPECT_EQ(f->key.saddr[0] | f->key.saddr[3] << 8, 0x0A01) << "IPv4 addresses in host order";
    char buf[8];
    EXPECT_STREQ(quelm_flow_print(f, buf, sizeof buf, nullptr), "[TCP] 1") << "terminator included";
    quelm_flow_free(f);
}

// A slice holds a reference on its live flow and shares its user area, but owns copies of its
// metadata of every kind (HTTP's URL and TLS's fingerprint share a place).
TEST(Flow, SlicesShareTheRecordButOwnTheirMetadata) {
    Bench b;
    for (uint16_t protocol : {7, 91, 5}) {  // HTTP, TLS, DNS
        quelm_flow *f = quelm_flow_new(b.packet(tcp(A, 1, B, 2), 100), nullptr, 16);
        auto *user = static_cast<uint8_t *>(f->value.user);
        EXPECT_EQ(std::count(user, user + 16, 0), 16);
        user[15] = 0xAB;
        quelm_flow_l7_metadata &md = f->value.l7_metadata;
        f->value.l7_protocol.master_protocol = protocol;
        md.http.server_name = strdup("demo.test");
        md.http.url = protocol != 5 ? strdup("0123456789abcdefghij") : nullptr;
        f->value.direction[0] = {3, 180, {100, 0}, {107, 0}, 0x18, 0, 0};
        quelm_flow *s1 = quelm_flow_slice(f);
        EXPECT_EQ(quelm_flow_reset_counters(f)->value.direction[0].first.tv_sec, 107) << "restarts";
        quelm_flow *s2 = quelm_flow_slice(f);
        const quelm_flow_l7_metadata &copy = s1->value.l7_metadata;
        EXPECT_TRUE(copy.http.server_name != md.http.server_name &&
                    (protocol == 5 || copy.http.url != md.http.url));
        EXPECT_EQ(quelm_flow_get_users(s1), 3u);
        quelm_flow_free(f);  // exported first: its strings go, the record stays for the slices
        EXPECT_EQ(quelm_flow_get_users(s2), 2u);
        EXPECT_STREQ(copy.http.server_name, "demo.test");
        EXPECT_TRUE(protocol == 5 || memcmp(copy.http.url, "0123456789abcdefghij", 20) == 0);
        EXPECT_EQ(static_cast<uint8_t *>(s1->value.user)[15], 0xAB);
        EXPECT_EQ(s1->value.direction[0].bytes + s2->value.direction[0].bytes, 180u);
        quelm_flow_free(s1);
        quelm_flow_free(s2);
    }
}

static quelm_fragment_entry *find(quelm_fragment_hash *t, uint32_t key, uint16_t id, int64_t sec) {
    const quelm_packet_header h{{sec, 0}, 60, 60};
    return quelm_fragment_hash_find(t, key, id, &h);
}

// Lookups, each finding a slot (or none) and counting a packet; then the slots in use, and after
// emptying slots 6 to 1.
TEST(FragmentHash, LifetimeCollisionsWrapAroundFullTableAndStaleRuns) {
    // clang-format off
    struct Step { uint32_t key; uint16_t id; int64_t sec; int slot; uint32_t pkts; };  // slot -1: none
    struct Script { const char *name; uint32_t size; std::vector<Step> steps; std::string in_use, after_removal; } const scripts[] = {
        {"valid_two_seconds_after_use", 16, {{3, 7, 100, 3, 1}, {3, 7, 101, 3, 2}, {3, 7, 103, 3, 1}}, "0001000000000000", "0001000000000000"},
        {"collisions_take_the_next_slot", 16, {{5, 1, 100, 5, 1}, {5, 2, 100, 6, 1}, {5, 2, 100, 6, 2}}, "0000011000000000", "0000010000000000"},
        {"probing_wraps_around", 8, {{7, 1, 100, 7, 1}, {7, 2, 100, 0, 1}, {15, 3, 100, 1, 1}, {15, 3, 101, 1, 2}, {7, 2, 101, 0, 2}}, "11000001", "00000000"},
        {"full_then_stale", 4, {{0, 0, 100, 0, 1}, {1, 1, 100, 1, 1}, {2, 2, 100, 2, 1}, {3, 3, 100, 3, 1}, {9, 9, 101, -1, 0}, {9, 9, 102, 1, 1}}, "0100", "0000"},
        {"stale_run_behind_is_emptied", 16, {{2, 1, 100, 2, 1}, {2, 2, 100, 3, 1}, {2, 3, 100, 4, 1}, {6, 4, 100, 6, 1}, {2, 4, 105, 2, 1}}, "0010001000000000", "0010000000000000"},
        {"no_slots", 0, {{5, 5, 100, -1, 0}}, "", ""},
    };
    // clang-format on
    for (const Script &s : scripts) {
        SCOPED_TRACE(s.name);
        quelm_fragment_hash *t = quelm_fragment_hash_alloc(s.size);
        for (const Step &step : s.steps) {
            quelm_fragment_entry *e = find(t, step.key, step.id, step.sec);
            EXPECT_EQ(e != nullptr ? int(e - t->entries) : -1, step.slot) << step.id;
            EXPECT_EQ(e != nullptr ? ++e->pkts : 0, step.pkts) << step.id;
        }
        auto in_use = [t] {
            std::string slots;
            for (uint32_t i = 0; i < t->num_slots; i++)
                slots += char('0' + t->entries[i].in_use);
            return slots;
        };
        EXPECT_EQ(in_use(), s.in_use);
        quelm_fragment_hash_remove_range(t, 6, 1);  // wraps around the end
        EXPECT_EQ(in_use(), s.after_removal);
        quelm_fragment_hash_free(t);
    }
}

TEST(FragmentHash, EntriesAndTheirFlowPointAtEachOther) {
    Bench b;
    quelm_fragment_hash *t = quelm_fragment_hash_alloc(16);
    quelm_flow *f = quelm_flow_new(b.packet(tcp(A, 1, B, 2), 100), nullptr, 0);
    quelm_flow *g = quelm_flow_new(b.packet(tcp(A, 3, B, 4), 100), nullptr, 0);
    quelm_fragment_entry *other = find(t, 4, 1, 100);  // slot 4, valid until 102
    quelm_fragment_entry_bind_flow(find(t, 4, 2, 101), f);
    t->entries[5].pkts = 2;
    quelm_fragment_entry *moved = find(t, 4, 2, 102);  // slot 4 is stale: the datagram moves there
    EXPECT_TRUE(moved == other && moved->flow == f && moved->pkts == 2);
    EXPECT_EQ(f->fragment, moved) << "the flow's back-pointer moves along";
    EXPECT_EQ(t->entries[5].flow, nullptr);
    quelm_fragment_entry *second = find(t, 9, 3, 102);
    quelm_fragment_entry_bind_flow(second, f);
    EXPECT_EQ(moved->flow, nullptr) << "a flow maps one datagram at a time";
    g->fragment = second;  // g once mapped the slot f has taken over
    quelm_flow_free(g);
    EXPECT_EQ(second->flow, f);
    quelm_flow_free(f);
    EXPECT_TRUE(second->flow == nullptr && second->expire == 0) << "unlinked, reusable at once";
    quelm_fragment_hash_free(t);
}
