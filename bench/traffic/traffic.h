// Synthetic link traffic for benchmarks: complete Ethernet frames of many concurrent, interleaved,
// bidirectional flows, deterministic from a seed.
//
// The mix imitates a busy access link: TCP conversations (handshake, request, server data with a
// bimodal size mix, client ACKs, FIN exchange), DNS-like UDP request/response pairs and longer UDP
// streams; a few long flows carry many packets and most flows are short. About 15% of flows are
// IPv6 and about 10% ride an 802.1Q VLAN. Clients outnumber servers, and popular servers take most
// of the flows. Headers are byte-exact; checksums are left 0 and payload bytes are zero.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <queue>
#include <random>
#include <stdexcept>
#include <vector>

namespace quelm_traffic {

// Large enough for any generated frame (1514 bytes of Ethernet plus a VLAN tag).
inline constexpr uint32_t kMaxFrame = 1536;

struct Config {
    uint64_t flows = 100000;
    uint64_t packets = 2000000;  // exact total; at least ~5 per flow on average
    uint64_t seed = 1;
    // Seconds from the first to the last packet; 0 picks packets / 33,333 (60 s for 2 million),
    // at least 10 s.
    double duration = 0;
    int64_t start_sec = 1700000000;  // capture time of the first packet
    double ipv6_share = 0.15;        // of flows
    double vlan_share = 0.10;        // of flows
    uint32_t snaplen = 0;            // bytes kept of each frame (0: the whole frame)
};

// Capture header of one packet: the layout of a 64-bit struct timeval followed by caplen and len.
struct PacketHeader {
    int64_t tv_sec;
    int64_t tv_usec;
    uint32_t caplen;
    uint32_t len;
};

// Produces the packets of a Config one at a time, in capture order, holding only per-flow state
// (about 80 bytes per flow). Throws std::invalid_argument for a Config it cannot satisfy.
class Generator {
  public:
    explicit Generator(const Config &config);
    ~Generator();
    Generator(const Generator &) = delete;
    Generator &operator=(const Generator &) = delete;

    // Writes the next packet's header and its caplen bytes into `frame` (kMaxFrame bytes
    // available); false once every packet was produced.
    bool next(PacketHeader &header, uint8_t *frame);

    uint64_t packets_left() const { return packets_left_; }
    double duration() const { return duration_s_; }

  private:
    struct Flow;
    struct Due {
        uint64_t time_us;
        uint32_t flow;
        bool operator>(const Due &o) const {
            return time_us != o.time_us ? time_us > o.time_us : flow > o.flow;
        }
    };

    void plan_flows();
    uint32_t build_frame(Flow &f, uint8_t *frame, uint32_t &wire_len);
    uint64_t next_gap_us(Flow &f);

    Config config_;
    double duration_s_ = 0;
    uint64_t packets_left_ = 0;
    std::mt19937_64 rng_;
    std::unique_ptr<Flow[]> flows_;
    std::priority_queue<Due, std::vector<Due>, std::greater<Due>> due_;
};

// Every packet of a Config held in memory: headers in one array, frame bytes back to back in one
// anonymous mapping (reserved for the worst case, so it never moves or grows by copying).
class Traffic {
  public:
    explicit Traffic(const Config &config);
    ~Traffic();
    Traffic(const Traffic &) = delete;
    Traffic &operator=(const Traffic &) = delete;

    size_t size() const { return headers_.size(); }
    const PacketHeader &header(size_t i) const { return headers_[i]; }
    const uint8_t *frame(size_t i) const { return arena_ + offsets_[i]; }
    uint64_t frame_bytes() const { return used_; }  // sum of caplen
    uint64_t wire_bytes() const { return wire_bytes_; }
    double duration() const { return duration_s_; }

  private:
    std::vector<PacketHeader> headers_;
    std::vector<uint64_t> offsets_;
    uint8_t *arena_ = nullptr;
    size_t reserved_ = 0;
    uint64_t used_ = 0;
    uint64_t wire_bytes_ = 0;
    double duration_s_ = 0;
};

}  // namespace quelm_traffic
