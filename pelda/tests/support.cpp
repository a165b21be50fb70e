#include "support.h"

#include <pcap/pcap.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <map>

#include "flow.h"
#include "packet_builder.h"

namespace pt {

bytes hex(const std::string &h) {
    std::string d;
    std::copy_if(h.begin(), h.end(), std::back_inserter(d), [](char c) { return isxdigit(c); });
    bytes out;
    for (size_t i = 0; i + 1 < d.size(); i += 2)
        out.push_back(uint8_t(std::stoul(d.substr(i, 2), nullptr, 16)));
    return out;
}

namespace {

uint16_t be16(const uint8_t *p) {
    return uint16_t(p[0] << 8 | p[1]);
}

// Offset of the IP header of an Ethernet (VLAN tags skipped) or raw IP capture's packet, or -1.
int ip_offset(int linktype, const uint8_t *p, uint32_t len) {
    if (linktype == DLT_RAW) return 0;
    uint32_t off = 12;
    while (off + 2 <= len && (be16(p + off) == 0x8100 || be16(p + off) == 0x88A8))
        off += 4;
    const bool ip = off + 2 <= len && (be16(p + off) == 0x0800 || be16(p + off) == 0x86DD);
    return linktype == DLT_EN10MB && ip ? int(off + 2) : -1;
}

// The packet's bidirectional TCP or UDP flow (IP protocol, sorted addresses and ports), or ""
// for other packets and IPv4 fragments after the first.
std::string flow_key(const bytes &ip, uint8_t *proto) {
    size_t alen = 16, src = 8, l4 = 40;
    if (ip.size() >= 20 && ip[0] >> 4 == 4 && !(be16(&ip[6]) & 0x1FFF))
        alen = 4, src = 12, l4 = size_t(ip[0] & 15) * 4, *proto = ip[9];
    else if (ip.size() >= 40 && ip[0] >> 4 == 6)
        *proto = ip[6];
    if ((*proto != 6 && *proto != 17) || ip.size() < l4 + 4) return "";
    std::string a(&ip[src], &ip[src] + alen), b(&ip[src + alen], &ip[src + alen] + alen);
    a.append(&ip[l4], &ip[l4] + 2), b.append(&ip[l4 + 2], &ip[l4 + 2] + 2);
    return char(*proto) + std::min(a, b) + "|" + std::max(a, b);
}

quelm_test::Frame frame(const endpoint &src, const endpoint &dst) {
    quelm_test::Frame f;
    if (src.addr.find(':') != std::string::npos) return f.ipv6(src.addr.c_str(), dst.addr.c_str());
    return f.ipv4(src.addr.c_str(), dst.addr.c_str());
}

}  // namespace

bool read_capture(const std::string &path, std::vector<packet> *out) {
    char err[PCAP_ERRBUF_SIZE];
    pcap_t *p = pcap_open_offline(path.c_str(), err);
    if (!p) return false;
    pcap_pkthdr *h;
    const u_char *data;
    while (pcap_next_ex(p, &h, &data) == 1) {
        int off = ip_offset(pcap_datalink(p), data, h->caplen);
        uint64_t ms = uint64_t(h->ts.tv_sec) * 1000 + uint64_t(h->ts.tv_usec) / 1000;
        if (off >= 0 && uint32_t(off) < h->caplen)
            out->push_back({bytes(data + off, data + h->caplen), ms});
    }
    pcap_close(p);
    return true;
}

bytes udp(const endpoint &src, const endpoint &dst, const bytes &payload) {
    return frame(src, dst).udp(src.port, dst.port).payload(payload).build_ip();
}

bytes tcp(const endpoint &src, const endpoint &dst, uint32_t seq, uint8_t flags,
          const bytes &payload) {
    return frame(src, dst).tcp(src.port, dst.port, flags, 5, seq).payload(payload).build_ip();
}

void conversation::handshake() {
    packets.push_back({tcp(c, s, cseq - 1, 0x02), packets.size()});
    packets.push_back({tcp(s, c, sseq - 1, 0x12), packets.size()});
    packets.push_back({tcp(c, s, cseq, 0x10), packets.size()});
}

void conversation::sends(bool from_client, const bytes &payload) {
    const endpoint &from = from_client ? c : s, &to = from_client ? s : c;
    uint32_t &seq = from_client ? cseq : sseq;
    packets.push_back(
        {udp ? pt::udp(from, to, payload) : tcp(from, to, seq, 0x18, payload), packets.size()});
    seq += uint32_t(payload.size());
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

std::string to_hex(const uint8_t *p, size_t n) {
    std::string s;
    for (size_t i = 0; i < n; ++i)
        s += "0123456789abcdef"[p[i] >> 4], s += "0123456789abcdef"[p[i] & 15];
    return s;
}

std::string summary(pelda_detection_module *m, const pelda_protocol &r, const pelda_flow *f) {
    char buf[128];
    std::string s = pelda_protocol2name(m, {r.master_protocol, r.app_protocol}, buf, sizeof(buf));
    if (!f) return s;
    const uint8_t *b = reinterpret_cast<const uint8_t *>(f);
    auto at = [b](size_t off, auto v) { return std::memcpy(&v, b + off, sizeof(v)), v; };
    if (auto name = at(368, (const char *)nullptr)) s += std::string(" sn=") + name;
    if (auto url = at(656, (const char *)nullptr)) s += std::string(" url=") + url;
    if (uint16_t code = at(654, uint16_t())) s += " hc=" + std::to_string(code);
    if (uint16_t q = at(936, uint16_t()))
        s += " dq=" + std::to_string(q) + " dr=" + std::to_string(b[930]);
    if (std::any_of(b + 1156, b + 1176, [](uint8_t x) { return x != 0; }))
        s += " sha1=" + to_hex(b + 1156, 20);
    if (r.state == PELDA_STATE_DONE && (f->stream[0] || f->stream[1])) s += " buffers kept";
    return s;
}

std::vector<flow_result> drive(pelda_detection_module *m, const std::vector<packet> &packets,
                               bool extra_dissection, uint32_t tcp_limit) {
    struct state {
        flow_ptr flow = new_flow();
        flow_result r;
        bool done = false;
    };
    std::map<std::string, state> flows;
    std::vector<state *> order;
    for (const packet &pk : packets) {
        uint8_t proto = 0;
        std::string key = flow_key(pk.ip, &proto);
        if (key.empty()) continue;
        auto [it, fresh] = flows.try_emplace(key);
        state &s = it->second;
        if (fresh) order.push_back(&s);
        if (s.done) continue;
        uint32_t n = ++s.r.packet_decided, limit = proto == 6 ? tcp_limit : 5;
        pelda_protocol r = pelda_detection_process_packet(
            m, s.flow.get(), pk.ip.data(), uint32_t(pk.ip.size()), pk.time_ms, nullptr);
        if (r.master_protocol || r.app_protocol) {
            // The callers' longer budgets of SMTP (3) and FTP_CONTROL (77).
            uint16_t p = r.master_protocol ? r.master_protocol : r.app_protocol;
            uint32_t budget = p == 77 ? 100 : p == 3 ? 20 : limit;
            s.r.result = r;
            s.done = !extra_dissection || r.state == PELDA_STATE_DONE || n > budget;
        } else if (n > limit) {
            s.r.result = pelda_detection_giveup(m, s.flow.get());
            s.r.guessed = s.done = true;
            // A carrier without application: callers take the guess at byte 30.
            if (!s.r.result.app_protocol && s.r.result.master_protocol)
                std::memcpy(&s.r.result.app_protocol, (const char *)s.flow.get() + 30, 2);
        }
    }
    std::vector<flow_result> out;
    for (state *s : order) {
        s->r.summary = summary(m, s->r.result, s->flow.get()) + (s->r.guessed ? " guessed" : "");
        out.push_back(std::move(s->r));
    }
    return out;
}

}  // namespace pt
