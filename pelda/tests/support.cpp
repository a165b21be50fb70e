#include "support.h"

#include <arpa/inet.h>
#include <pcap/pcap.h>

#include <algorithm>
#include <cstring>
#include <sstream>

namespace pt {

namespace {

uint16_t be16(const uint8_t *p) {
    return uint16_t(p[0] << 8 | p[1]);
}

// Offset of the IP header for a link type, or -1.
int ip_offset(int linktype, const uint8_t *p, uint32_t len) {
    uint32_t off = 0;
    uint16_t type = 0;
    switch (linktype) {
        case DLT_EN10MB:
            if (len < 14) return -1;
            type = be16(p + 12);
            off = 14;
            while ((type == 0x8100 || type == 0x88A8) && off + 4 <= len) {
                type = be16(p + off + 2);
                off += 4;
            }
            return type == 0x0800 || type == 0x86DD ? int(off) : -1;
        case DLT_RAW:
        case 14:
        case DLT_IPV4:
        case DLT_IPV6:
            return 0;
        case DLT_NULL:
        case DLT_LOOP:
            return len >= 4 ? 4 : -1;
        case DLT_LINUX_SLL:
            if (len < 16) return -1;
            type = be16(p + 14);
            return type == 0x0800 || type == 0x86DD ? 16 : -1;
        case 276:  // Linux cooked v2
            if (len < 20) return -1;
            type = be16(p);
            return type == 0x0800 || type == 0x86DD ? 20 : -1;
        case DLT_PPP:
            if (len < 4) return -1;
            type = be16(p + 2);
            return type == 0x0021 || type == 0x0057 ? 4 : -1;
        default:
            return -1;
    }
}

bool parse_addr(const std::string &text, uint8_t *out, bool *v6) {
    if (inet_pton(AF_INET, text.c_str(), out) == 1) {
        *v6 = false;
        return true;
    }
    *v6 = true;
    return inet_pton(AF_INET6, text.c_str(), out) == 1;
}

bytes l4_tcp(const endpoint &src, const endpoint &dst, uint32_t seq, uint8_t flags,
             const bytes &payload) {
    bytes t(20);
    t[0] = uint8_t(src.port >> 8);
    t[1] = uint8_t(src.port);
    t[2] = uint8_t(dst.port >> 8);
    t[3] = uint8_t(dst.port);
    for (int i = 0; i < 4; ++i)
        t[4 + i] = uint8_t(seq >> (24 - 8 * i));
    t[12] = 5 << 4;
    t[13] = flags;
    t[14] = 0xFF;
    t[15] = 0xFF;
    t.insert(t.end(), payload.begin(), payload.end());
    return t;
}

bytes l4_udp(const endpoint &src, const endpoint &dst, const bytes &payload) {
    bytes u(8);
    uint16_t len = uint16_t(8 + payload.size());
    u[0] = uint8_t(src.port >> 8);
    u[1] = uint8_t(src.port);
    u[2] = uint8_t(dst.port >> 8);
    u[3] = uint8_t(dst.port);
    u[4] = uint8_t(len >> 8);
    u[5] = uint8_t(len);
    u.insert(u.end(), payload.begin(), payload.end());
    return u;
}

bytes ip_wrap(const endpoint &src, const endpoint &dst, uint8_t proto, const bytes &l4) {
    uint8_t s[16], d[16];
    bool v6s, v6d;
    if (!parse_addr(src.addr, s, &v6s) || !parse_addr(dst.addr, d, &v6d) || v6s != v6d) return {};
    bytes ip;
    if (!v6s) {
        ip.resize(20);
        uint16_t total = uint16_t(20 + l4.size());
        ip[0] = 0x45;
        ip[2] = uint8_t(total >> 8);
        ip[3] = uint8_t(total);
        ip[8] = 64;
        ip[9] = proto;
        std::memcpy(&ip[12], s, 4);
        std::memcpy(&ip[16], d, 4);
    } else {
        ip.resize(40);
        ip[0] = 0x60;
        ip[4] = uint8_t(l4.size() >> 8);
        ip[5] = uint8_t(l4.size());
        ip[6] = proto;
        ip[7] = 64;
        std::memcpy(&ip[8], s, 16);
        std::memcpy(&ip[24], d, 16);
    }
    ip.insert(ip.end(), l4.begin(), l4.end());
    return ip;
}

// Canonical flow key of a packet, or "" for packets without ports.
std::string flow_key(const bytes &ip, uint8_t *proto_out) {
    if (ip.empty()) return "";
    uint8_t version = ip[0] >> 4;
    size_t l4 = 0;
    uint8_t proto;
    char a[64], b[64];
    if (version == 4 && ip.size() >= 20) {
        l4 = size_t(ip[0] & 15) * 4;
        proto = ip[9];
        inet_ntop(AF_INET, &ip[12], a, sizeof(a));
        inet_ntop(AF_INET, &ip[16], b, sizeof(b));
        if (be16(&ip[6]) & 0x1FFF) return "";
    } else if (version == 6 && ip.size() >= 40) {
        l4 = 40;
        proto = ip[6];
        inet_ntop(AF_INET6, &ip[8], a, sizeof(a));
        inet_ntop(AF_INET6, &ip[24], b, sizeof(b));
    } else {
        return "";
    }
    *proto_out = proto;
    std::string sa = a, sb = b;
    uint16_t pa = 0, pb = 0;
    if ((proto == 6 || proto == 17) && ip.size() >= l4 + 4) {
        pa = be16(&ip[l4]);
        pb = be16(&ip[l4 + 2]);
    }
    std::string x = sa + ":" + std::to_string(pa), y = sb + ":" + std::to_string(pb);
    if (y < x) std::swap(x, y);
    return std::to_string(proto) + " " + x + " <-> " + y;
}

}  // namespace

bool read_capture(const std::string &path, std::vector<packet> *out) {
    char err[PCAP_ERRBUF_SIZE];
    pcap_t *p = pcap_open_offline(path.c_str(), err);
    if (!p) return false;
    int lt = pcap_datalink(p);
    pcap_pkthdr *h;
    const u_char *data;
    while (pcap_next_ex(p, &h, &data) == 1) {
        int off = ip_offset(lt, data, h->caplen);
        if (off < 0 || uint32_t(off) >= h->caplen) continue;
        packet pk;
        pk.ip.assign(data + off, data + h->caplen);
        pk.time_ms = uint64_t(h->ts.tv_sec) * 1000 + uint64_t(h->ts.tv_usec) / 1000;
        out->push_back(std::move(pk));
    }
    pcap_close(p);
    return true;
}

std::string corpus_file(const std::string &name) {
    std::string path = std::string(PELDA_CORPUS_DIR) + "/tcpdump/" + name;
    FILE *f = std::fopen(path.c_str(), "rb");
    if (!f) return "";
    std::fclose(f);
    return path;
}

std::string data_file(const std::string &name) {
    return std::string(PELDA_TEST_DATA_DIR) + "/" + name;
}

owned_module::owned_module(bool guess) {
    m = pelda_init_detection_module(nullptr, 2);
    if (!guess) pelda_set_config(m, nullptr, "dpi.guess_on_giveup", "0");
    pelda_finalize_initialization(m);
}

flow_ptr new_flow() {
    return flow_ptr(
        static_cast<pelda_flow *>(calloc(1, pelda_detection_get_sizeof_pelda_flow_struct())));
}

flow_fields read_fields(const pelda_flow *f) {
    const uint8_t *b = reinterpret_cast<const uint8_t *>(f);
    flow_fields r{};
    std::memcpy(&r.giveup_app, b + 30, 2);
    const char *name, *url;
    std::memcpy(&name, b + 368, sizeof(name));
    std::memcpy(&url, b + 656, sizeof(url));
    r.has_server_name = name != nullptr;
    if (name) r.server_name = name;
    r.has_url = url != nullptr;
    if (url) r.url = url;
    std::memcpy(&r.http_response_code, b + 654, 2);
    r.dns_reply_code = b[930];
    std::memcpy(&r.dns_query_type, b + 936, 2);
    r.sha1.assign(b + 1156, b + 1176);
    return r;
}

std::vector<flow_result> drive(pelda_detection_module *m, const std::vector<packet> &packets,
                               const drive_options &opt) {
    struct state {
        flow_ptr flow;
        flow_result r;
        bool done = false;
        uint8_t proto = 0;
    };
    std::map<std::string, state> flows;
    std::vector<std::string> order;
    for (const packet &pk : packets) {
        uint8_t proto = 0;
        std::string key = flow_key(pk.ip, &proto);
        if (key.empty()) continue;
        auto [it, fresh] = flows.try_emplace(key);
        state &s = it->second;
        if (fresh) {
            order.push_back(key);
            s.r.key = key;
            s.proto = proto;
            if (proto == 6 || proto == 17) {
                s.flow = new_flow();
            } else {
                uint32_t sa = 0, da = 0;
                if ((pk.ip[0] >> 4) == 4) {
                    sa = uint32_t(pk.ip[12]) << 24 | pk.ip[13] << 16 | pk.ip[14] << 8 | pk.ip[15];
                    da = uint32_t(pk.ip[16]) << 24 | pk.ip[17] << 16 | pk.ip[18] << 8 | pk.ip[19];
                }
                s.r.result = pelda_guess_undetected_protocol_v4(m, nullptr, proto, sa, 0, da, 0);
                s.r.guessed = true;
                s.done = true;
                s.r.packet_decided = 1;
            }
        }
        s.r.packets++;
        if (s.done) continue;
        uint32_t limit = s.proto == 6 ? opt.tcp_limit : opt.udp_limit;
        pelda_protocol r = pelda_detection_process_packet(
            m, s.flow.get(), pk.ip.data(), uint32_t(pk.ip.size()), pk.time_ms, nullptr);
        if (r.master_protocol || r.app_protocol) {
            s.r.result = r;
            uint32_t extra = limit;
            if (r.master_protocol == 77 || r.app_protocol == 77)
                extra = std::max(limit, 100u);
            else if (r.master_protocol == 3 || r.app_protocol == 3)
                extra = std::max(limit, 20u);
            if (s.r.packets > extra || !opt.extra_dissection || r.state == PELDA_STATE_DONE) {
                s.done = true;
                s.r.packet_decided = s.r.packets;
            }
        } else if (s.r.packets > limit) {
            s.r.result = pelda_detection_giveup(m, s.flow.get());
            if (s.r.result.app_protocol == 0 && s.r.result.master_protocol != 0)
                s.r.result.app_protocol = read_fields(s.flow.get()).giveup_app;
            s.r.guessed = true;
            s.done = true;
            s.r.packet_decided = s.r.packets;
        }
    }
    std::vector<flow_result> out;
    for (const std::string &k : order) {
        state &s = flows[k];
        if (s.flow) s.r.fields = read_fields(s.flow.get());
        pelda_proto_pair pair{s.r.result.master_protocol, s.r.result.app_protocol};
        char buf[128];
        s.r.name = pelda_protocol2name(m, pair, buf, sizeof(buf));
        out.push_back(s.r);
    }
    return out;
}

bytes ipv4_udp(const endpoint &src, const endpoint &dst, const bytes &payload) {
    return ip_wrap(src, dst, 17, l4_udp(src, dst, payload));
}
bytes ipv4_tcp(const endpoint &src, const endpoint &dst, uint32_t seq, uint8_t flags,
               const bytes &payload) {
    return ip_wrap(src, dst, 6, l4_tcp(src, dst, seq, flags, payload));
}
bytes ipv6_udp(const endpoint &src, const endpoint &dst, const bytes &payload) {
    return ip_wrap(src, dst, 17, l4_udp(src, dst, payload));
}
bytes ipv6_tcp(const endpoint &src, const endpoint &dst, uint32_t seq, uint8_t flags,
               const bytes &payload) {
    return ip_wrap(src, dst, 6, l4_tcp(src, dst, seq, flags, payload));
}

bytes text(const std::string &s) {
    return bytes(s.begin(), s.end());
}

bytes hex(const std::string &h) {
    bytes out;
    int hi = -1;
    for (char ch : h) {
        int v;
        if (ch >= '0' && ch <= '9')
            v = ch - '0';
        else if (ch >= 'a' && ch <= 'f')
            v = ch - 'a' + 10;
        else if (ch >= 'A' && ch <= 'F')
            v = ch - 'A' + 10;
        else
            continue;
        if (hi < 0) {
            hi = v;
        } else {
            out.push_back(uint8_t(hi << 4 | v));
            hi = -1;
        }
    }
    return out;
}

tcp_conversation::tcp_conversation(endpoint client, endpoint server, bool v6)
    : c_(std::move(client)), s_(std::move(server)), v6_(v6) {}

void tcp_conversation::handshake() {
    auto mk = v6_ ? ipv6_tcp : ipv4_tcp;
    packets.push_back({mk(c_, s_, cseq_ - 1, 0x02, {}), t_++});
    packets.push_back({mk(s_, c_, sseq_ - 1, 0x12, {}), t_++});
    packets.push_back({mk(c_, s_, cseq_, 0x10, {}), t_++});
}

void tcp_conversation::client_sends(const bytes &payload) {
    auto mk = v6_ ? ipv6_tcp : ipv4_tcp;
    packets.push_back({mk(c_, s_, cseq_, 0x18, payload), t_++});
    cseq_ += uint32_t(payload.size());
}

void tcp_conversation::server_sends(const bytes &payload) {
    auto mk = v6_ ? ipv6_tcp : ipv4_tcp;
    packets.push_back({mk(s_, c_, sseq_, 0x18, payload), t_++});
    sseq_ += uint32_t(payload.size());
}

}  // namespace pt
