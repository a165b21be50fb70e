#include <gtest/gtest.h>

#include <string>

#include "quelm_flow.h"
#include "quelm_fragment_hash.h"
#include "test_packet.h"

namespace {

using quelm_test::make_packet;
using quelm_test::PacketSpec;

PacketSpec tcp_v4() {
    PacketSpec s;
    s.src = {"10.0.0.1", 1234};
    s.dst = {"10.0.0.2", 80};
    s.protocol = 6;
    s.sec = 100;
    s.usec = 250;
    s.vlan = 7;
    return s;
}

// Counts a packet into a direction, as packet processing does.
void account(quelm_flow *f, int dir, int64_t sec, uint64_t bytes) {
    quelm_flow_dir_value &d = f->value.direction[dir];
    if (d.first.tv_sec == 0) d.first = {sec, 0};
    d.last = {sec, 0};
    d.pkts++;
    d.bytes += bytes;
}

TEST(Flow, NewFlowTakesKeyFromFirstPacket) {
    auto p = make_packet(tcp_v4());
    p->info.tunnel_type = QUELM_TUNNEL_VXLAN;
    p->info.tunnel_id = 42;
    p->info.hash_idx = 17;
    quelm_flow *f = quelm_flow_new(&p->info, nullptr, 0);
    ASSERT_NE(f, nullptr);
    const quelm_flow_key *k = quelm_flow_get_key(f);
    const uint8_t smac[6] = {0x02, 0, 0, 0, 0, 0x01}, dmac[6] = {0x02, 0, 0, 0, 0, 0x02};
    EXPECT_EQ(memcmp(k->smac, smac, 6), 0) << "source MAC is bytes 6..11 of the frame";
    EXPECT_EQ(memcmp(k->dmac, dmac, 6), 0);
    uint32_t saddr, daddr;
    memcpy(&saddr, k->saddr, 4);
    memcpy(&daddr, k->daddr, 4);
    EXPECT_EQ(saddr, 0x0A000001u);
    EXPECT_EQ(daddr, 0x0A000002u);
    for (int i = 4; i < 16; i++)
        EXPECT_EQ(k->saddr[i] | k->daddr[i], 0);
    EXPECT_EQ(k->ip_version, 4);
    EXPECT_EQ(k->protocol, 6);
    EXPECT_EQ(k->sport, 1234);
    EXPECT_EQ(k->dport, 80);
    EXPECT_EQ(k->vlan_id, 7);
    const quelm_flow_value *v = quelm_flow_get_value(f);
    EXPECT_EQ(v->direction[0].first.tv_sec, 100);
    EXPECT_EQ(v->direction[0].first.tv_usec, 250);
    EXPECT_EQ(v->direction[0].last.tv_usec, 250);
    EXPECT_EQ(v->direction[1].first.tv_sec, 0);
    EXPECT_EQ(v->tunnel_type, uint32_t{QUELM_TUNNEL_VXLAN});
    EXPECT_EQ(v->tunnel_id, 42u);
    EXPECT_EQ(v->user, nullptr);
    EXPECT_EQ(f->hash_idx, 17u);
    EXPECT_EQ(quelm_flow_get_users(f), 1u);
    EXPECT_EQ(f->dpi_done, 1u) << "without an engine detection is done at once";
    EXPECT_EQ(quelm_flow_get_pelda_handle(f), nullptr);
    quelm_flow_free(f);
}

TEST(Flow, Ipv6KeyHoldsNetworkOrderAddresses) {
    PacketSpec s;
    s.src = {"fd00:99::1", 5353};
    s.dst = {"fd00:99::2", 53};
    s.protocol = 17;
    auto p = make_packet(s);
    quelm_flow *f = quelm_flow_new(&p->info, nullptr, 0);
    const quelm_flow_key *k = quelm_flow_get_key(f);
    EXPECT_EQ(k->ip_version, 6);
    EXPECT_EQ(memcmp(k->saddr, p->info.l3 + 8, 16), 0);
    EXPECT_EQ(memcmp(k->daddr, p->info.l3 + 24, 16), 0);
    char buf[512];
    EXPECT_STREQ(quelm_flow_print(f, buf, sizeof buf, nullptr),
                 "[UDP] fd00:99::1:5353 <-> fd00:99::2:53 [0/0 bytes][0/0 pkts][vlan 0]"
                 "[TCP flags: 0/0][duration: 0 sec][Unknown]");
    quelm_flow_free(f);
}

TEST(Flow, TextFormAndTruncation) {
    auto p = make_packet(tcp_v4());
    quelm_flow *f = quelm_flow_new(&p->info, nullptr, 0);
    account(f, 0, 100, 60);
    f->value.direction[0].tcp_flags = 0x02;
    char buf[512];
    const std::string full =
        "[TCP] 10.0.0.1:1234 <-> 10.0.0.2:80 [60/0 bytes][1/0 pkts][vlan 7][TCP flags: 2/0]"
        "[duration: 0 sec][Unknown]";
    EXPECT_EQ(quelm_flow_print(f, buf, sizeof buf, nullptr), buf);
    EXPECT_EQ(buf, full);
    account(f, 1, 103, 1500);
    account(f, 0, 107, 40);
    f->value.direction[1].tcp_flags = 0x12;
    quelm_flow_print(f, buf, sizeof buf, nullptr);
    EXPECT_NE(std::string(buf).find("[100/1500 bytes][2/1 pkts]"), std::string::npos) << buf;
    EXPECT_NE(std::string(buf).find("[TCP flags: 2/18][duration: 7 sec]"), std::string::npos);

    char small[12];
    memset(small, 'x', sizeof small);
    quelm_flow_print(f, small, 8, nullptr);
    EXPECT_STREQ(small, "[TCP] 1");
    EXPECT_EQ(small[8], 'x') << "must not write past the given size";
    quelm_flow_free(f);
}

TEST(Flow, UserAreaIsZeroedAndSharedBySlices) {
    auto p = make_packet(tcp_v4());
    quelm_flow *f = quelm_flow_new(&p->info, nullptr, 16);
    auto *user = static_cast<uint8_t *>(quelm_flow_get_value(f)->user);
    ASSERT_EQ(static_cast<void *>(user), static_cast<void *>(f + 1)) << "behind the record";
    for (int i = 0; i < 16; i++)
        EXPECT_EQ(user[i], 0);
    user[15] = 0xAB;
    quelm_flow *s = quelm_flow_slice(f);
    EXPECT_EQ(quelm_flow_get_value(s)->user, user);
    quelm_flow_free(f);  // the slice keeps the record, so the user area stays valid
    EXPECT_EQ(static_cast<uint8_t *>(quelm_flow_get_value(s)->user)[15], 0xAB);
    quelm_flow_free(s);
}

// The live flow outlives its slices: users counts the hash's reference plus one per slice, and a
// slice reports its live flow's count.
TEST(Flow, ReferenceCountsAcrossSlices) {
    auto p = make_packet(tcp_v4());
    quelm_flow *f = quelm_flow_new(&p->info, nullptr, 0);
    f->id = 9;
    account(f, 0, 100, 60);
    quelm_flow *s1 = quelm_flow_slice(f);
    quelm_flow_reset_counters(f);
    account(f, 0, 111, 70);
    quelm_flow *s2 = quelm_flow_slice(f);
    EXPECT_EQ(quelm_flow_get_users(f), 3u);
    EXPECT_EQ(quelm_flow_get_users(s1), 3u);
    EXPECT_EQ(quelm_flow_get_id(s2), 9u) << "slices share the flow's id";
    EXPECT_EQ(quelm_flow_get_value(s1)->direction[0].bytes, 60u);
    EXPECT_EQ(quelm_flow_get_value(s2)->direction[0].bytes, 70u);
    quelm_flow_free(f);  // exported and released by the application
    EXPECT_EQ(quelm_flow_get_users(s1), 2u);
    quelm_flow_free(s1);
    EXPECT_EQ(quelm_flow_get_users(s2), 1u);
    quelm_flow_free(s2);  // releases the live flow too (checked by the leak checker)
}

// A live flow that was sliced shows the slice status but has no parent: it must release like a
// flow, not like a slice, and report its own references.
TEST(Flow, SlicedLiveFlowIsNotTakenForASlice) {
    auto p = make_packet(tcp_v4());
    quelm_flow *f = quelm_flow_new(&p->info, nullptr, 0);
    account(f, 0, 100, 60);
    f->value.status = QUELM_FLOW_STATUS_SLICE;
    quelm_flow *s = quelm_flow_slice(f);
    EXPECT_EQ(quelm_flow_get_users(f), 2u);
    EXPECT_FALSE(quelm_flow_is_slice(f));
    EXPECT_TRUE(quelm_flow_is_slice(s));
    quelm_flow_free(s);
    EXPECT_EQ(quelm_flow_get_users(f), 1u);
    quelm_flow_free(f);
}

TEST(Flow, SliceOwnsCopiesOfMetadata) {
    auto p = make_packet(tcp_v4());
    quelm_flow *f = quelm_flow_new(&p->info, nullptr, 0);
    account(f, 0, 100, 60);
    f->value.l7_protocol = {7, 7, 5};
    f->value.l7_metadata.http.server_name = strdup("www.demo.test");
    f->value.l7_metadata.http.url = strdup("/index.html");
    f->value.l7_metadata.http.response_code = 200;
    quelm_flow *s = quelm_flow_slice(f);
    const auto &md = quelm_flow_get_value(s)->l7_metadata.http;
    EXPECT_NE(md.server_name, f->value.l7_metadata.http.server_name);
    EXPECT_STREQ(md.server_name, "www.demo.test");
    EXPECT_STREQ(md.url, "/index.html");
    EXPECT_EQ(md.response_code, 200);
    quelm_flow_free(f);  // live flow first: its strings go now, the slice's later
    EXPECT_STREQ(md.url, "/index.html");
    quelm_flow_free(s);
}

TEST(Flow, SliceCopiesTlsFingerprintAndDnsQuery) {
    auto p = make_packet(tcp_v4());
    quelm_flow *tls = quelm_flow_new(&p->info, nullptr, 0);
    tls->value.l7_protocol = {91, 91, 0};
    tls->value.l7_metadata.tls.server_name = strdup("secure.demo.test");
    tls->value.l7_metadata.tls.certificate_fingerprint = static_cast<uint8_t *>(malloc(20));
    memset(tls->value.l7_metadata.tls.certificate_fingerprint, 0xAA, 20);
    quelm_flow *tls_slice = quelm_flow_slice(tls);
    const uint8_t *fp = quelm_flow_get_value(tls_slice)->l7_metadata.tls.certificate_fingerprint;
    EXPECT_NE(fp, tls->value.l7_metadata.tls.certificate_fingerprint);
    EXPECT_EQ(fp[19], 0xAA);

    quelm_flow *dns = quelm_flow_new(&p->info, nullptr, 0);
    dns->value.l7_protocol = {5, 0, 0};
    dns->value.l7_metadata.dns.query = strdup("demo.test");
    quelm_flow *dns_slice = quelm_flow_slice(dns);
    EXPECT_STREQ(quelm_flow_get_value(dns_slice)->l7_metadata.dns.query, "demo.test");
    for (quelm_flow *f : {tls, tls_slice, dns_slice, dns})
        quelm_flow_free(f);
}

TEST(Flow, ResetCountersKeepsFlagsAndUnseenDirection) {
    auto p = make_packet(tcp_v4());
    quelm_flow *f = quelm_flow_new(&p->info, nullptr, 0);
    account(f, 0, 100, 60);
    account(f, 0, 105, 60);
    f->value.direction[0].tcp_flags = 0x18;
    f->value.direction[0].if_index = 3;
    quelm_flow_reset_counters(f);
    const quelm_flow_dir_value &d0 = f->value.direction[0], &d1 = f->value.direction[1];
    EXPECT_EQ(d0.pkts, 0u);
    EXPECT_EQ(d0.bytes, 0u);
    EXPECT_EQ(d0.first.tv_sec, 105);
    EXPECT_EQ(d0.tcp_flags, 0x18);
    EXPECT_EQ(d0.if_index, 3);
    EXPECT_EQ(d1.first.tv_sec, 0);
    EXPECT_EQ(d1.last.tv_sec, 0);
    quelm_flow_free(f);
}

TEST(Flow, ActionAccessorsStoreAnyValue) {
    auto p = make_packet(tcp_v4());
    quelm_flow *f = quelm_flow_new(&p->info, nullptr, 0);
    EXPECT_EQ(quelm_flow_get_action(f), QUELM_ACTION_DEFAULT);
    quelm_flow_set_action(f, 200);
    EXPECT_EQ(quelm_flow_get_action(f), 200);
    quelm_flow_free(f);
}

TEST(Flow, PrepareForExportWithoutEngineDoesNothing) {
    auto p = make_packet(tcp_v4());
    quelm_flow *f = quelm_flow_new(&p->info, nullptr, 0);
    quelm_flow_prepare_for_export(f, nullptr, 1);
    EXPECT_EQ(f->value.l7_protocol.master_protocol, 0);
    EXPECT_EQ(f->value.flags, 0u);
    quelm_flow_free(f);
}

TEST(Flow, ReleaseCutsItsFragmentEntryButNotAnotherFlows) {
    quelm_fragment_hash *fh = quelm_fragment_hash_alloc(8);
    auto p = make_packet(tcp_v4());
    quelm_flow *a = quelm_flow_new(&p->info, nullptr, 0);
    quelm_flow *b = quelm_flow_new(&p->info, nullptr, 0);
    const quelm_packet_header h{{100, 0}, 60, 60};
    quelm_fragment_entry *e = quelm_fragment_hash_find(fh, 1, 1, &h);
    quelm_fragment_entry_bind_flow(e, a);
    quelm_flow_free(a);
    EXPECT_EQ(e->flow, nullptr);
    EXPECT_EQ(e->expire, 0u) << "the entry is reusable at once";

    quelm_fragment_entry *e2 = quelm_fragment_hash_find(fh, 2, 2, &h);
    quelm_flow *c = quelm_flow_new(&p->info, nullptr, 0);
    quelm_fragment_entry_bind_flow(e2, c);
    b->fragment = e2;  // b once mapped this slot, which has since been taken by c
    quelm_flow_free(b);
    EXPECT_EQ(e2->flow, c);
    EXPECT_EQ(e2->expire, 102u);
    quelm_flow_free(c);
    quelm_fragment_hash_free(fh);
}

}  // namespace
