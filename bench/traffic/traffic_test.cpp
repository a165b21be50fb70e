// Checks that generated traffic is what the benchmarks claim: well-formed frames, the asked-for
// flow and packet counts, the protocol mix, and the same bytes for the same seed.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <map>
#include <tuple>
#include <vector>

#include "quelm.h"
#include "traffic.h"

namespace {

using quelm_traffic::Config;
using quelm_traffic::Generator;
using quelm_traffic::kMaxFrame;
using quelm_traffic::PacketHeader;
using quelm_traffic::Traffic;

uint16_t get16(const uint8_t *p) {
    return uint16_t(p[0] << 8 | p[1]);
}

struct Parsed {
    bool ok = false;
    uint16_t vlan = 0;
    int ip_version = 0;
    uint8_t protocol = 0;
    std::array<uint8_t, 16> src{}, dst{};
    uint16_t sport = 0, dport = 0;
    uint8_t tcp_flags = 0;
};

// Decodes one frame, checking every length field against the wire length.
Parsed parse(const uint8_t *f, uint32_t len) {
    Parsed r;
    uint32_t off = 12;
    uint16_t type = get16(f + off);
    if (type == 0x8100) {
        r.vlan = get16(f + 14) & 0xFFF;
        off += 4;
        type = get16(f + off);
    }
    off += 2;
    uint32_t l4;
    if (type == 0x0800) {
        const uint8_t *ip = f + off;
        if (ip[0] != 0x45 || off + get16(ip + 2) > len) return r;
        if (len > 60 && off + get16(ip + 2) != len) return r;
        uint32_t sum = 0;
        for (int i = 0; i < 20; i += 2)
            sum += get16(ip + i);
        while (sum >> 16)
            sum = (sum & 0xFFFF) + (sum >> 16);
        if (sum != 0xFFFF) return r;  // header checksum must verify
        r.ip_version = 4;
        r.protocol = ip[9];
        memcpy(r.src.data(), ip + 12, 4);
        memcpy(r.dst.data(), ip + 16, 4);
        l4 = off + 20;
    } else if (type == 0x86DD) {
        const uint8_t *ip = f + off;
        if ((ip[0] >> 4) != 6 || off + 40 + get16(ip + 4) != len) return r;
        r.ip_version = 6;
        r.protocol = ip[6];
        memcpy(r.src.data(), ip + 8, 16);
        memcpy(r.dst.data(), ip + 24, 16);
        l4 = off + 40;
    } else {
        return r;
    }
    r.sport = get16(f + l4);
    r.dport = get16(f + l4 + 2);
    if (r.protocol == 6) {
        r.tcp_flags = f[l4 + 13];
        if ((f[l4 + 12] >> 4) * 4u < 20) return r;
    } else if (r.protocol == 17) {
        uint32_t ip_end = r.ip_version == 4 ? off + get16(f + off + 2) : len;
        if (l4 + get16(f + l4 + 4) != ip_end) return r;
    } else {
        return r;
    }
    r.ok = true;
    return r;
}

std::vector<std::pair<PacketHeader, std::vector<uint8_t>>> stream(const Config &c) {
    Generator g(c);
    std::vector<std::pair<PacketHeader, std::vector<uint8_t>>> out;
    uint8_t frame[kMaxFrame];
    PacketHeader h;
    while (g.next(h, frame))
        out.push_back({h, std::vector<uint8_t>(frame, frame + h.caplen)});
    return out;
}

TEST(Traffic, FramesFlowsAndMixMatchTheConfig) {
    Config c;
    c.flows = 4000;
    c.packets = 60000;
    c.seed = 7;
    Traffic t(c);
    ASSERT_EQ(t.size(), c.packets);

    // Flows by their client-side key (the sender of the first packet).
    using Key =
        std::tuple<std::array<uint8_t, 16>, std::array<uint8_t, 16>, uint16_t, uint16_t, uint16_t>;
    std::map<Key, Parsed> first;  // first packet of each flow
    uint64_t prev_us = 0, v6 = 0, vlan = 0, tcp = 0, tcp_not_syn_first = 0;
    for (size_t i = 0; i < t.size(); ++i) {
        const PacketHeader &h = t.header(i);
        ASSERT_EQ(h.caplen, h.len);
        ASSERT_GE(h.len, 60u);
        ASSERT_LE(h.len, 1518u);
        uint64_t us = uint64_t(h.tv_sec) * 1000000 + uint64_t(h.tv_usec);
        ASSERT_GE(us, prev_us) << "packet " << i << " goes back in time";
        prev_us = us;
        Parsed p = parse(t.frame(i), h.len);
        ASSERT_TRUE(p.ok) << "packet " << i << " is malformed";
        Key fwd{p.src, p.dst, p.sport, p.dport, p.vlan};
        Key rev{p.dst, p.src, p.dport, p.sport, p.vlan};
        if (first.count(fwd) || first.count(rev)) continue;
        first[fwd] = p;
        v6 += p.ip_version == 6;
        vlan += p.vlan != 0;
        if (p.protocol == 6) {
            ++tcp;
            tcp_not_syn_first += p.tcp_flags != 0x02;
        }
    }
    EXPECT_EQ(first.size(), c.flows) << "flows must not share a key";
    EXPECT_NEAR(double(v6) / double(c.flows), 0.15, 0.03);
    EXPECT_NEAR(double(vlan) / double(c.flows), 0.10, 0.03);
    EXPECT_NEAR(double(tcp) / double(c.flows), 0.65, 0.05);
    EXPECT_EQ(tcp_not_syn_first, 0u) << "every TCP flow opens with the client's SYN";
    double seconds = double(prev_us) / 1e6 - double(c.start_sec);
    EXPECT_GT(seconds, 0.8 * t.duration());
    EXPECT_LE(seconds, 1.1 * t.duration());
    double mean = double(t.wire_bytes()) / double(t.size());
    EXPECT_GT(mean, 300);  // bimodal: many full-size frames among the small ones
    EXPECT_LT(mean, 1100);
}

TEST(Traffic, SameSeedSameBytesAndSnaplenCuts) {
    Config c;
    c.flows = 300;
    c.packets = 5000;
    auto a = stream(c);
    auto b = stream(c);
    ASSERT_EQ(a.size(), c.packets);
    for (size_t i = 0; i < a.size(); ++i) {
        ASSERT_EQ(a[i].second, b[i].second) << "packet " << i;
        ASSERT_EQ(memcmp(&a[i].first, &b[i].first, sizeof(PacketHeader)), 0);
    }
    c.seed = 2;
    EXPECT_NE(stream(c)[0].second, a[0].second);

    c.seed = 1;
    c.snaplen = 96;
    auto cut = stream(c);
    ASSERT_EQ(cut.size(), a.size());
    for (size_t i = 0; i < a.size(); ++i) {
        ASSERT_EQ(cut[i].first.len, a[i].first.len);
        ASSERT_EQ(cut[i].first.caplen, std::min<uint32_t>(a[i].first.len, 96));
        ASSERT_TRUE(std::equal(cut[i].second.begin(), cut[i].second.end(), a[i].second.begin()));
    }

    Traffic held(Config{.flows = 300, .packets = 5000});
    for (size_t i = 0; i < a.size(); ++i)
        ASSERT_EQ(memcmp(held.frame(i), a[i].second.data(), a[i].second.size()), 0);
}

TEST(Traffic, RefusesConfigsItCannotMeet) {
    EXPECT_THROW(Generator(Config{.flows = 1000, .packets = 1000}), std::invalid_argument);
    EXPECT_THROW(Generator(Config{.flows = 0}), std::invalid_argument);
    EXPECT_THROW(Generator(Config{.flows = 10, .packets = 100, .snaplen = 10}),
                 std::invalid_argument);
}

// A single flow takes every packet, whatever its kind (the seeds cover TCP, DNS and streams).
TEST(Traffic, PacketCountIsExactForAnyKind) {
    for (uint64_t seed = 1; seed <= 12; ++seed)
        EXPECT_EQ(stream(Config{.flows = 1, .packets = 40, .seed = seed}).size(), 40u) << seed;
}

// The library sees exactly the generated flows: nothing undecoded, no two flows merged.
TEST(Traffic, TableSeesEveryFlow) {
    Config c;
    c.flows = 5000;
    c.packets = 50000;
    Traffic t(c);
    quelm_table *table = quelm_create_table(0, 8192, 600, 600, 0);
    ASSERT_NE(table, nullptr);
    const quelm_packet_ext ext = {};
    for (size_t i = 0; i < t.size(); ++i) {
        const PacketHeader &h = t.header(i);
        quelm_packet_header ph = {{h.tv_sec, h.tv_usec}, h.caplen, h.len};
        quelm_process(table, t.frame(i), &ph, &ext);
    }
    const quelm_stats *s = quelm_get_stats(table);
    EXPECT_EQ(s->packets, c.packets);
    EXPECT_EQ(s->packets_not_decoded, 0u);
    EXPECT_EQ(s->total_flows, c.flows);
    EXPECT_EQ(s->active_flows, c.flows);
    quelm_destroy_table(table);
}

}  // namespace
