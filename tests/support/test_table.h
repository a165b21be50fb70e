// A table fed with built frames, recording what its callbacks see, and its flow hash driven by
// hand.
#pragma once

#include <deque>
#include <sstream>
#include <string>
#include <vector>

#include "packet_builder.h"
#include "quelm_decode.h"
#include "quelm_flow.h"
#include "quelm_fragment_hash.h"
#include "quelm_table.h"

namespace quelm_test {

constexpr const char *A = "10.0.0.1", *B = "10.0.0.2", *C = "fd00::1", *D = "fd00::2";

// A TCP frame between two addresses (IPv6 when they hold a colon).
inline Frame tcp(const char *src, uint16_t sport, const char *dst, uint16_t dport) {
    Frame f;
    const bool v6 = std::string_view(src).find(':') != std::string_view::npos;
    return (v6 ? f.eth().ipv6(src, dst) : f.eth().ipv4(src, dst)).tcp(sport, dport);
}

struct Bench {
    explicit Bench(uint32_t flags = 0, uint32_t max_flows = 1024)
        : t(quelm_create_table(flags, max_flows, 30, 120, 0)) {
        auto on_new = [](quelm_flow *f, void *b) { log(b, "new:", f); };
        auto on_packet = [](const uint8_t *, const quelm_packet_info *i, quelm_flow *f, void *b) {
            log(b, "pkt" + std::to_string(i->direction) + ":", f);
        };
        auto on_export = [](quelm_flow *f, void *b) {
            static_cast<Bench *>(b)->exported.push_back(f);
        };
        quelm_set_new_flow_callback(t, on_new, this);
        quelm_set_flow_packet_callback(t, on_packet, this);
        quelm_set_flow_export_callback(t, on_export, this);
    }
    ~Bench() {
        quelm_destroy_table(t);
        for (quelm_flow *f : exported)
            quelm_flow_free(f);
    }
    static void log(void *b, const std::string &what, quelm_flow *f) {
        static_cast<Bench *>(b)->events.push_back(what + std::to_string(f->id));
    }
    quelm_action send(const Frame &frame, int64_t sec, quelm_packet_ext ext = {}) {
        const std::vector<uint8_t> bytes = frame.build();
        const quelm_packet_header h{{sec, 0}, uint32_t(bytes.size()), uint32_t(bytes.size())};
        return quelm_process(t, bytes.data(), &h, &ext);
    }
    // The exported flows in order, "id:status:packets:bytes" each (bytes of direction 0).
    std::string exports() const {
        std::ostringstream s;
        for (const quelm_flow *f : exported)
            s << (s.tellp() > 0 ? " " : "") << f->id << ':' << f->value.status << ':'
              << quelm::flow_total_packets(f) << ':' << f->value.direction[0].bytes;
        return s.str();
    }

    // By hand: a decoded packet; a flow of it in the hash (null when full); a lookup (`dir` 2:
    // none).
    quelm_packet_info *packet(const Frame &frame, int64_t sec, uint32_t ext_hash = 0) {
        Packet &p = packets.emplace_back(Packet{frame.build(), {}, {ext_hash, 0, 0}, {}});
        p.header = {{sec, 0}, uint32_t(p.bytes.size()), uint32_t(p.bytes.size())};
        quelm_not_decoded_reason why;
        quelm_decode({t->flags, t->max_packet_len, t->hash_v4, t->hash_v6, t->fragments}, p.info,
                     p.bytes.data(), &p.header, &p.ext, &why);
        return &p.info;
    }
    quelm_flow *add(const Frame &frame, int64_t sec = 100, uint32_t ext_hash = 0) {
        quelm_flow *flow = quelm_flow_new(packet(frame, sec, ext_hash), nullptr, 0);
        if (!quelm_hash_add(flow->key.ip_version == 4 ? t->hash_v4 : t->hash_v6, flow))
            return quelm_flow_free(flow), nullptr;
        t->stats.active_flows++;
        return flow;
    }
    quelm_flow *find(const Frame &frame, int64_t sec = 100, uint32_t ext_hash = 0) {
        quelm_packet_info *info = packet(frame, sec, ext_hash);
        return quelm_hash_find(t, info->is_ipv4 ? t->hash_v4 : t->hash_v6, info, &(dir = 2));
    }

    struct Packet {  // stays in place: the decoded record points into its bytes and header
        std::vector<uint8_t> bytes;
        quelm_packet_header header;
        quelm_packet_ext ext;
        quelm_packet_info info;
    };
    quelm_table *t;
    std::vector<std::string> events;
    std::vector<quelm_flow *> exported;
    std::deque<Packet> packets;
    uint32_t dir = 2;
};

}  // namespace quelm_test
