#include "traffic.h"

#include <sys/mman.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>
#include <string>

#include "packet_builder.h"

namespace quelm_traffic {
namespace {

enum Kind : uint8_t { kTcp, kDns, kUdpStream };

// Minimum packets of a conversation of each kind: TCP needs handshake, request, one answer and
// the FIN exchange; DNS one query and its answer; a UDP stream a few packets each way.
constexpr uint32_t kMinPackets[] = {8, 2, 4};

constexpr uint8_t kTcpFin = 0x01, kTcpSyn = 0x02, kTcpPsh = 0x08, kTcpAck = 0x10;

// Routers on each side of the monitored link.
constexpr uint8_t kClientSideMac[6] = {0x00, 0x1b, 0x21, 0x0a, 0x00, 0x01};
constexpr uint8_t kServerSideMac[6] = {0x00, 0x25, 0x90, 0x0b, 0x00, 0x02};
constexpr uint16_t kVlans[] = {10, 20, 30, 100, 200};
// First octets of server networks, so that server addresses look like public ones.
constexpr uint8_t kServerNets[] = {23, 31, 52, 93, 104, 142, 151, 157, 185, 199, 203, 216};

inline void put16(uint8_t *p, uint32_t v) {
    p[0] = uint8_t(v >> 8);
    p[1] = uint8_t(v);
}
inline void put32(uint8_t *p, uint32_t v) {
    p[0] = uint8_t(v >> 24);
    p[1] = uint8_t(v >> 16);
    p[2] = uint8_t(v >> 8);
    p[3] = uint8_t(v);
}

// A bijection on 24 bits, so distinct host numbers give distinct but scattered addresses.
inline uint32_t scatter24(uint32_t v) {
    return (v * 0x9E3779u + 0x5A5A5u) & 0xFFFFFFu;
}

}  // namespace

struct Generator::Flow {
    uint32_t client = 0, server = 0;
    uint32_t total = 0, sent = 0;  // packets of the conversation, packets produced so far
    uint32_t seq[2] = {};          // next TCP sequence number per direction (0: client)
    uint32_t gap_us = 0;           // mean gap between the flow's packets
    uint32_t start_us = 0;
    uint16_t cport = 0, sport = 0;
    uint16_t ip_id[2] = {};
    uint16_t vlan = 0;
    uint8_t kind = kTcp;
    uint8_t ipv6 = 0;
    uint8_t client_hops = 0;  // TTL lost before the link, per side
};

Generator::Generator(const Config &config) : config_(config), rng_(config.seed) {
    if (config_.flows == 0 || config_.flows > 0xFFFFFFFFull)
        throw std::invalid_argument("flows must be between 1 and 4294967295");
    if (config_.snaplen != 0 && config_.snaplen < 14)
        throw std::invalid_argument("snaplen must be 0 (whole frames) or at least 14");
    duration_s_ =
        config_.duration > 0 ? config_.duration : std::max(10.0, double(config_.packets) / 33333.0);
    if (duration_s_ > 4000.0) throw std::invalid_argument("duration must stay under 4000 seconds");
    plan_flows();
}

Generator::~Generator() = default;

void Generator::plan_flows() {
    const uint32_t n = uint32_t(config_.flows);
    flows_.reset(new Flow[n]);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    const uint32_t n_clients = std::max<uint32_t>(16, n / 4);
    const uint32_t n_servers = std::max<uint32_t>(8, n / 100);

    // Kinds first, so the packets that the minimum conversations need are known.
    uint64_t base = 0;
    for (uint32_t i = 0; i < n; ++i) {
        Flow &f = flows_[i];
        double k = unit(rng_);
        f.kind = k < 0.65 ? kTcp : k < 0.90 ? kDns : kUdpStream;
        f.total = kMinPackets[f.kind];
        base += f.total;
    }
    if (base > config_.packets)
        throw std::invalid_argument("at least " + std::to_string(base) +
                                    " packets are needed for " + std::to_string(n) +
                                    " flows with this seed; raise --packets");

    // The remaining packets go to TCP and UDP-stream flows with a heavy-tailed (Pareto) share:
    // most flows stay short, a few carry a large part of the traffic.
    std::vector<float> weight(n, 0.0f);
    double weight_sum = 0;
    for (uint32_t i = 0; i < n; ++i) {
        if (flows_[i].kind == kDns) continue;
        double w = std::min(1e5, std::pow(1.0 - unit(rng_), -1.0 / 1.2));
        weight[i] = float(w);
        weight_sum += weight[i];
    }
    uint64_t extra = config_.packets - base, given = 0;
    if (weight_sum > 0) {
        for (uint32_t i = 0; i < n; ++i) {
            uint64_t add = uint64_t(double(extra) * weight[i] / weight_sum);
            add = std::min<uint64_t>(add, 0xFFFFFFFFull - flows_[i].total);
            flows_[i].total += uint32_t(add);
            given += add;
        }
    }
    // Rounding leftovers: one more packet each, round robin over the flows that take extras (or
    // over the DNS flows, as repeated queries, when every flow is DNS).
    for (uint32_t i = 0; given < extra; i = (i + 1) % n) {
        if (weight_sum > 0 && weight[i] == 0) continue;
        ++flows_[i].total;
        ++given;
    }
    weight = {};

    const uint64_t span_us = uint64_t(duration_s_ * 1e6);
    for (uint32_t i = 0; i < n; ++i) {
        Flow &f = flows_[i];
        f.client = i % n_clients;
        // Each client's flows get distinct ports, so no two flows share a key.
        f.cport = uint16_t(1024 + (uint64_t(i / n_clients) * 7919 + f.client * 131ull) % 64000);
        // Popular servers take most flows.
        double u = unit(rng_);
        f.server = uint32_t(double(n_servers) * u * u * u);
        double p = unit(rng_);
        switch (f.kind) {
            case kTcp:
                f.sport = p < 0.65 ? 443 : p < 0.85 ? 80 : p < 0.90 ? 8080 : p < 0.94 ? 22 : 993;
                break;
            case kDns:
                f.sport = 53;
                break;
            default:
                f.sport = p < 0.6 ? 443 : p < 0.8 ? 3478 : 5004;
                break;
        }
        f.ipv6 = unit(rng_) < config_.ipv6_share;
        f.vlan = unit(rng_) < config_.vlan_share ? kVlans[rng_() % std::size(kVlans)] : 0;
        f.seq[0] = uint32_t(rng_());
        f.seq[1] = uint32_t(rng_());
        f.ip_id[0] = uint16_t(rng_());
        f.ip_id[1] = uint16_t(rng_());
        f.client_hops = uint8_t(2 + rng_() % 6);

        // Round-trip time between 2 and 150 ms (log-uniform); a conversation sends a few packets
        // per round trip. A flow that would run past the end of the capture starts earlier, and
        // one longer than the whole capture spreads its packets over it.
        double rtt_us = 2000.0 * std::pow(75.0, unit(rng_));
        double gap = f.kind == kDns ? rtt_us : rtt_us / 3.0;
        double length = gap * f.total;
        double start = unit(rng_) * double(span_us);
        if (start + length > double(span_us)) {
            if (length < double(span_us)) {
                start = double(span_us) - length;
            } else {
                start = unit(rng_) * 0.02 * double(span_us);
                gap = (double(span_us) - start) / f.total;
            }
        }
        f.gap_us = uint32_t(std::clamp(gap, 1.0, 5e6));
        f.start_us = uint32_t(start);
        due_.push({f.start_us, i});
    }
    packets_left_ = config_.packets;
}

uint64_t Generator::next_gap_us(Flow &f) {
    // Exponential gaps around the flow's mean, at least 1 us and at most four times the mean.
    std::exponential_distribution<double> gap(1.0);
    return 1 + uint64_t(std::min(4.0, gap(rng_)) * f.gap_us);
}

bool Generator::next(PacketHeader &header, uint8_t *frame) {
    if (due_.empty()) return false;
    Due d = due_.top();
    due_.pop();
    Flow &f = flows_[d.flow];
    uint32_t wire_len = 0;
    uint32_t caplen = build_frame(f, frame, wire_len);
    uint64_t at = d.time_us;
    header.tv_sec = config_.start_sec + int64_t(at / 1000000);
    header.tv_usec = int64_t(at % 1000000);
    header.caplen = caplen;
    header.len = wire_len;
    if (++f.sent < f.total) due_.push({at + next_gap_us(f), d.flow});
    --packets_left_;
    return true;
}

// Writes the flow's next packet; returns caplen and sets the wire length.
uint32_t Generator::build_frame(Flow &f, uint8_t *frame, uint32_t &wire_len) {
    const uint32_t k = f.sent, n = f.total;
    int dir = 0;  // 0: client to server
    uint8_t tcp_flags = 0;
    uint32_t payload = 0;
    std::uniform_int_distribution<uint32_t> pick(0, 0xFFFFFFFF);
    auto between = [&](uint32_t lo, uint32_t hi) { return lo + pick(rng_) % (hi - lo); };
    const uint32_t ip_header = f.ipv6 ? 40 : 20;
    const uint32_t l4_header = f.kind == kTcp ? (k < 2 ? 40 : 32) : 8;
    const uint32_t max_payload = 1500 - ip_header - l4_header;

    if (f.kind == kTcp) {
        if (k == 0) {
            tcp_flags = kTcpSyn;
        } else if (k == 1) {
            dir = 1;
            tcp_flags = kTcpSyn | kTcpAck;
        } else if (k == 2) {
            tcp_flags = kTcpAck;
        } else if (k == 3) {
            tcp_flags = kTcpPsh | kTcpAck;
            payload = between(80, 900);  // request or TLS client hello
        } else if (k + 3 < n) {
            // Server data, two segments for each client ACK, with a new request now and then.
            uint32_t j = k - 4;
            if (j % 3 == 2) {
                tcp_flags = kTcpAck;
                if (j % 30 == 29) {
                    tcp_flags |= kTcpPsh;
                    payload = between(80, 600);
                }
            } else {
                dir = 1;
                tcp_flags = kTcpAck;
                // Bimodal sizes: full segments of a transfer, else short and medium answers.
                uint32_t p = pick(rng_) % 100;
                payload = p < 55   ? max_payload
                          : p < 85 ? between(100, max_payload)
                                   : between(1, 100);
                if (payload < max_payload || k + 4 == n) tcp_flags |= kTcpPsh;
            }
        } else if (k + 3 == n) {
            tcp_flags = kTcpFin | kTcpAck;
        } else if (k + 2 == n) {
            dir = 1;
            tcp_flags = kTcpFin | kTcpAck;
        } else {
            tcp_flags = kTcpAck;
        }
    } else if (f.kind == kDns) {
        dir = int(k & 1);
        payload = dir == 0 ? between(28, 64) : between(60, 320);
    } else {
        // Media or QUIC: the server streams large datagrams, the client answers with small ones.
        dir = k == 0 ? 0 : (k % 4 == 3 ? 0 : 1);
        if (k == 0)
            payload = between(1200, 1350);
        else
            payload = dir == 1 ? between(1000, 1350) : between(30, 120);
    }

    // Addresses of the client and the server.
    uint8_t client_addr[16], server_addr[16];
    if (f.ipv6) {
        static constexpr uint8_t client_net[8] = {0x20, 0x01, 0x0d, 0xb8, 0x00, 0x10, 0x00, 0x00};
        static constexpr uint8_t server_net[8] = {0x20, 0x01, 0x0d, 0xb8, 0x0a, 0x00, 0x00, 0x00};
        memcpy(client_addr, client_net, 8);
        put32(client_addr + 8, 0x02000000u | scatter24(f.client));
        put32(client_addr + 12, f.client * 2654435761u);
        memcpy(server_addr, server_net, 8);
        put32(server_addr + 8, 0);
        put32(server_addr + 12, f.server + 1);
    } else {
        put32(client_addr, 0x0A000000u | scatter24(f.client));
        put32(server_addr, (uint32_t(kServerNets[f.server % std::size(kServerNets)]) << 24) |
                               scatter24(f.server));
    }
    const uint8_t *src = dir == 0 ? client_addr : server_addr;
    const uint8_t *dst = dir == 0 ? server_addr : client_addr;
    const uint8_t ttl = dir == 0 ? uint8_t(64 - f.client_hops) : uint8_t(56 - f.client_hops);

    // Ethernet (the routers' MACs, their last byte the VLAN on tagged links), IP, transport.
    quelm_test::Mac src_mac, dst_mac;
    memcpy(src_mac.data(), dir == 0 ? kClientSideMac : kServerSideMac, 6);
    memcpy(dst_mac.data(), dir == 0 ? kServerSideMac : kClientSideMac, 6);
    quelm_test::Frame frame_builder;
    quelm_test::Frame &b = frame_builder;
    if (f.vlan) {
        src_mac[5] = dst_mac[5] = uint8_t(f.vlan);
        b.eth(src_mac, dst_mac).vlan(f.vlan);
    } else {
        b.eth(src_mac, dst_mac);
    }
    if (f.ipv6) {
        b.ipv6(src, dst, false, (f.client * 7u + f.cport + uint32_t(dir)) & 0xFFFFF, ttl);
    } else {
        quelm_test::Ipv4Options o;
        o.id = f.ip_id[dir]++;
        o.dont_fragment = f.kind == kTcp;  // TCP sets don't-fragment
        o.ttl = ttl;
        o.checksum = true;
        b.ipv4(src, dst, o);
    }
    const uint16_t src_port = dir == 0 ? f.cport : f.sport;
    const uint16_t dst_port = dir == 0 ? f.sport : f.cport;
    if (f.kind == kTcp) {
        uint32_t &seq = f.seq[dir];
        const uint32_t tsval = f.start_us / 1000 + k * 3;
        uint8_t o[20];
        if (k < 2) {
            o[0] = 2, o[1] = 4;  // MSS
            put16(o + 2, 1500 - ip_header - 40);
            o[4] = 4, o[5] = 2;   // SACK permitted
            o[6] = 8, o[7] = 10;  // timestamps
            put32(o + 8, tsval);
            put32(o + 12, k == 1 ? tsval - 1 : 0);
            o[16] = 1;                        // NOP
            o[17] = 3, o[18] = 3, o[19] = 7;  // window scale
        } else {
            o[0] = 1, o[1] = 1, o[2] = 8, o[3] = 10;
            put32(o + 4, tsval);
            put32(o + 8, tsval - 1);
        }
        quelm_test::TcpOptions t;
        t.window = k < 2 ? 64240 : 502;
        t.options = std::span<const uint8_t>(o, l4_header - 20);
        b.tcp(src_port, dst_port, tcp_flags, uint8_t(l4_header / 4), seq,
              tcp_flags & kTcpAck ? f.seq[1 - dir] : 0, t);
        seq += payload + ((tcp_flags & (kTcpSyn | kTcpFin)) ? 1 : 0);
    } else {
        b.udp(src_port, dst_port);
    }
    const std::vector<uint8_t> bytes = b.payload(payload, 0).pad_to(60).build();  // Ethernet pads
    wire_len = uint32_t(bytes.size());
    const uint32_t caplen = config_.snaplen ? std::min(wire_len, config_.snaplen) : wire_len;
    memcpy(frame, bytes.data(), caplen);
    return caplen;
}

Traffic::Traffic(const Config &config) {
    Generator gen(config);
    duration_s_ = gen.duration();
    size_t n = size_t(config.packets);
    headers_.reserve(n);
    offsets_.reserve(n);
    // Address space for the worst case; only the pages written get memory.
    reserved_ = std::max<size_t>(n, 1) * kMaxFrame;
    void *m = mmap(nullptr, reserved_, PROT_READ | PROT_WRITE,
                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (m == MAP_FAILED) throw std::bad_alloc();
    arena_ = static_cast<uint8_t *>(m);
    // Huge pages, where the system gives them: fewer page faults while filling and fewer TLB
    // misses while reading, so the benchmark measures the table rather than the arena.
    madvise(arena_, reserved_, MADV_HUGEPAGE);
    PacketHeader h;
    while (gen.next(h, arena_ + used_)) {
        headers_.push_back(h);
        offsets_.push_back(used_);
        used_ += h.caplen;
        wire_bytes_ += h.len;
    }
}

Traffic::~Traffic() {
    if (arena_) munmap(arena_, reserved_);
}

}  // namespace quelm_traffic
