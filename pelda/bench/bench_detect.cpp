// Cost of the detection step on a mix of flows: real HTTP and TLS handshakes,
// DNS, SSH, QUIC, and opaque TCP/UDP flows that run to the give-up limit.
// Each flow is fed as the flow table feeds it (until named, or 12 TCP / 5 UDP
// packets), with a fresh zero-filled flow object.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <map>

#include "support.h"

namespace {

using flow_packets = std::vector<pt::packet>;

std::vector<flow_packets> split_flows(const std::vector<pt::packet> &pk) {
    std::map<std::string, flow_packets> by_key;
    std::vector<std::string> order;
    for (const auto &p : pk) {
        if (p.ip.size() < 24) continue;
        // Both directions share the sorted address/port pair (IPv4 captures only).
        std::string a(p.ip.begin() + 12, p.ip.begin() + 16),
            b(p.ip.begin() + 16, p.ip.begin() + 20);
        std::string pa(p.ip.begin() + 20, p.ip.begin() + 22),
            pb(p.ip.begin() + 22, p.ip.begin() + 24);
        std::string k1 = a + pa, k2 = b + pb;
        std::string key = k1 < k2 ? k1 + k2 : k2 + k1;
        if (!by_key.count(key)) order.push_back(key);
        by_key[key].push_back(p);
    }
    std::vector<flow_packets> out;
    for (const auto &k : order)
        out.push_back(by_key[k]);
    return out;
}

std::vector<flow_packets> mix() {
    std::vector<flow_packets> flows;
    for (const char *f : {"http.pcap", "tls12.pcap", "tls13.pcap"}) {
        std::vector<pt::packet> pk;
        pt::read_capture(pt::data_file(f), &pk);
        for (auto &fl : split_flows(pk))
            flows.push_back(fl);
    }
    pt::endpoint c{"10.0.0.1", 40000}, dns{"10.0.0.53", 53}, q{"10.0.0.9", 443};
    flows.push_back({{pt::udp(c, dns,
                              pt::hex("abcd 0100 0001 0000 0000 0000 03 777777 07 "
                                      "6578616d706c65 03 636f6d 00 0001 0001")),
                      1},
                     {pt::udp(dns, c,
                              pt::hex("abcd 8180 0001 0000 0000 0000 03 777777 07 "
                                      "6578616d706c65 03 636f6d 00 0001 0001")),
                      2}});
    pt::bytes initial = pt::hex("c3 00000001 08 0102030405060708 00 00 4496");
    initial.resize(1200);
    flows.push_back({{pt::udp(c, q, initial), 1}});
    pt::conversation ssh{{"10.0.0.1", 40001}, {"10.0.0.22", 22}};
    ssh.handshake();
    ssh.server_sends(pt::text("SSH-2.0-OpenSSH_9.2p1 Debian-2\r\n"));
    flows.push_back(ssh.packets);
    pt::conversation opaque{{"10.0.0.1", 40002}, {"10.0.0.7", 9999}};
    opaque.handshake();
    for (int i = 0; i < 10; ++i) {
        opaque.client_sends(pt::bytes(300, uint8_t(i * 37)));
        opaque.server_sends(pt::bytes(1200, uint8_t(i * 11)));
    }
    flows.push_back(opaque.packets);
    flow_packets udp;
    for (int i = 0; i < 6; ++i)
        udp.push_back(
            {pt::udp(c, {"10.0.0.8", 7777}, pt::bytes(160, uint8_t(0x80 + i))), uint64_t(i)});
    flows.push_back(udp);
    return flows;
}

void BM_DetectionMix(benchmark::State &state) {
    pt::owned_module m;
    std::vector<flow_packets> flows = mix();
    uint32_t size = pelda_detection_get_sizeof_pelda_flow_struct();
    int64_t packets = 0;
    for (auto _ : state) {
        for (const auto &fl : flows) {
            pelda_flow *f = static_cast<pelda_flow *>(std::calloc(1, size));
            bool tcp = fl[0].ip[9] == 6;
            uint32_t limit = tcp ? 12 : 5, n = 0;
            for (const auto &p : fl) {
                ++n;
                ++packets;
                pelda_protocol r = pelda_detection_process_packet(
                    m, f, p.ip.data(), uint32_t(p.ip.size()), p.time_ms, nullptr);
                benchmark::DoNotOptimize(r);
                if (r.app_protocol || r.master_protocol) break;
                if (n > limit) {
                    benchmark::DoNotOptimize(pelda_detection_giveup(m, f));
                    break;
                }
            }
            pelda_free_flow(f);
        }
    }
    state.SetItemsProcessed(packets);
    state.counters["ns_per_packet"] = benchmark::Counter(
        double(packets), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.counters["flow_object_bytes"] = size;
}
BENCHMARK(BM_DetectionMix);

// A flow whose detection is over: what every later packet of a flow costs.
void BM_DecidedFlow(benchmark::State &state) {
    pt::owned_module m;
    pt::conversation t{{"10.0.0.1", 40000}, {"10.0.0.2", 80}};
    t.handshake();
    t.client_sends(pt::text("GET / HTTP/1.1\r\nHost: a.example\r\n\r\n"));
    t.server_sends(pt::text("HTTP/1.1 200 OK\r\n\r\n"));
    auto f = pt::new_flow();
    for (const auto &p : t.packets)
        pelda_detection_process_packet(m, f.get(), p.ip.data(), uint32_t(p.ip.size()), 1, nullptr);
    const auto &last = t.packets.back().ip;
    for (auto _ : state)
        benchmark::DoNotOptimize(pelda_detection_process_packet(m, f.get(), last.data(),
                                                                uint32_t(last.size()), 1, nullptr));
}
BENCHMARK(BM_DecidedFlow);

}  // namespace

BENCHMARK_MAIN();
