// The packet builder of all tests, fuzz seeds and benchmarks: layers outside-in, each setting the
// type field before it; build() fills in the lengths.
#pragma once

#include <arpa/inet.h>

#include <array>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string_view>
#include <vector>

namespace quelm_test {

using Mac = std::array<uint8_t, 6>;
inline constexpr Mac kClientMac = {0x02, 0x00, 0x00, 0x00, 0x00, 0x0A};
inline constexpr Mac kServerMac = {0x02, 0x00, 0x00, 0x00, 0x00, 0x0B};

struct Ipv4Options {
    uint16_t id = 0x1234;
    bool more_fragments = false;
    uint16_t fragment_offset = 0;  // in 8-byte units
    uint8_t ihl = 5, version = 4;
    int total_length = -1;  // -1: computed
    uint8_t ttl = 64;
    bool dont_fragment = false, checksum = false;  // checksum: fill it in (else 0)
};

struct TcpOptions {
    uint16_t window = 65535;
    std::span<const uint8_t> options = {};  // option bytes; NOPs fill the rest of the header
};

class Frame {
  public:
    Frame &eth(const Mac &src = kClientMac, const Mac &dst = kServerMac) {
        put(dst.begin(), dst.end());
        put(src.begin(), src.end());
        type_at_ = b_.size();
        return put16(0);
    }
    Frame &vlan(uint16_t id) { return tag(0x8100, id); }
    // A tag of any kind with its id: 802.1Q 0x8100, 802.1ad 0x88A8, QinQ 0x9100, VN-tag 0x8926.
    Frame &tag(uint16_t tpid, uint16_t id) {
        link_type(tpid);
        put16(tpid == 0x8926 ? 0 : id & 0x0FFF);
        if (tpid == 0x8926) put16(id);  // VN-tag: 4 bytes
        type_at_ = b_.size();
        return put16(0);
    }
    // A PBB I-tag and the customer's Ethernet header behind it.
    Frame &pbb(uint32_t isid) {
        link_type(0x88E7);
        put32(isid & 0x00FFFFFF);
        return eth();
    }
    // 802.3 length, then LLC/SNAP with an EtherType.
    Frame &llc_snap(uint8_t dsap = 0xAA) {
        link_type(0x0040);
        put({dsap, 0xAA, 0x03, 0, 0, 0});
        type_at_ = b_.size();
        return put16(0);
    }
    Frame &mpls(uint32_t label, bool bottom) {
        link_type(0x8847);
        return put32(label << 12 | (bottom ? 0x100u : 0) | 64);
    }
    Frame &pppoe(uint16_t ppp_protocol = 0x0021) {
        link_type(0x8864);
        put({0x11, 0x00, 0x00, 0x01, 0x00, 0x00});  // version/type, code, session, length
        return put16(ppp_protocol);
    }
    // For link types this builder has no layer of.
    Frame &ethertype(uint16_t type) { return link_type(type); }
    Frame &ipv4(const char *src, const char *dst, const Ipv4Options &o = {}) {
        return ipv4(addr<4>(AF_INET, src).data(), addr<4>(AF_INET, dst).data(), o);
    }
    Frame &ipv4(const uint8_t *src, const uint8_t *dst, const Ipv4Options &o = {}) {
        link_type(0x0800);
        ip_.push_back({b_.size(), 4, o.total_length, o.checksum});
        put({uint8_t(o.version << 4 | o.ihl), 0, 0, 0});  // total length filled in by build()
        put16(o.id);
        put16(uint16_t((o.dont_fragment ? 0x4000 : 0) | (o.more_fragments ? 0x2000 : 0) |
                       (o.fragment_offset & 0x1FFF)));
        put(o.ttl);
        proto_at_ = b_.size();
        put({0, 0, 0});  // protocol, checksum
        put(src, src + 4);
        put(dst, dst + 4);
        for (int i = 5; i < o.ihl; i++)
            put32(0x01010101);  // NOP options
        return *this;
    }
    Frame &ipv6(const char *src, const char *dst, bool dest_options = false) {
        return ipv6(addr<16>(AF_INET6, src).data(), addr<16>(AF_INET6, dst).data(), dest_options);
    }
    Frame &ipv6(const uint8_t *src, const uint8_t *dst, bool dest_options = false,
                uint32_t flow_label = 0, uint8_t hop_limit = 64) {
        link_type(0x86DD);
        ip_.push_back({b_.size(), 6, -1, false});
        put32(0x60000000 | (flow_label & 0xFFFFF));
        put16(0);
        proto_at_ = b_.size();
        put({0, hop_limit});
        put(src, src + 16);
        put(dst, dst + 16);
        if (!dest_options) return *this;
        b_[proto_at_] = 60;
        proto_at_ = b_.size();
        return put({0, 0, 1, 4, 0, 0, 0, 0});  // next header, 8 bytes, PadN
    }
    // An IPv6 extension header of `len` bytes (multiples of 8; of 4 for AH, 51), zero-filled.
    Frame &ipv6_ext(uint8_t type, uint8_t len = 8) {
        ip_proto(type);
        proto_at_ = b_.size();
        put({0, uint8_t(type == 51 ? len / 4 - 2 : len / 8 - 1)});
        return put(std::vector<uint8_t>(len - 2u, 0));
    }
    // The length field of the last IP header (IPv6: its payload length), instead of the computed
    // one.
    Frame &ip_length(int n) { return ip_.back().total_length = n, *this; }
    Frame &ipv6_fragment(uint16_t offset, bool more, uint32_t id) {
        ip_proto(44);
        proto_at_ = b_.size();
        put({0, 0});
        put16(uint16_t(offset << 3 | (more ? 1 : 0)));
        return put32(id);
    }
    Frame &tcp(uint16_t sport, uint16_t dport, uint8_t flags = 0x10, uint8_t data_offset = 5,
               uint32_t seq = 1000, uint32_t ack = 2000, const TcpOptions &o = {}) {
        ip_proto(6);
        put16(sport);
        put16(dport);
        put32(seq);
        put32(ack);
        put({uint8_t(data_offset << 4), flags});
        put16(o.window);
        put32(0);  // checksum, urgent pointer
        const size_t end = b_.size() + 4 * size_t(data_offset > 5 ? data_offset - 5 : 0);
        put(o.options.begin(), o.options.end());
        while (b_.size() < end)
            put(1);  // NOP
        return *this;
    }
    Frame &udp(uint16_t sport, uint16_t dport) {
        ip_proto(17);
        udp_.push_back(b_.size());
        put16(sport);
        put16(dport);
        return put32(0);  // length (filled in by build()), checksum
    }
    Frame &icmp(uint8_t type, uint8_t code, uint8_t proto = 1, uint16_t id = 1) {
        ip_proto(proto);
        put({type, code, 0, 0});
        put16(id);
        return put16(1);  // sequence
    }
    Frame &l4(uint8_t proto) { return ip_proto(proto); }
    Frame &bytes(std::initializer_list<uint8_t> v) { return put(v); }
    Frame &payload(size_t n, uint8_t fill = 0x61) { return payload(std::vector<uint8_t>(n, fill)); }
    Frame &payload(std::string_view text) { return put(text.begin(), text.end()); }
    Frame &payload(const std::vector<uint8_t> &data) { return put(data.begin(), data.end()); }
    // The finished frame, IP and UDP lengths covering everything behind their header.
    std::vector<uint8_t> build() const {
        std::vector<uint8_t> out = b_;
        for (const IpLayer &ip : ip_) {
            const size_t rest = out.size() - ip.at - (ip.version == 4 ? 0 : 40);
            set16(out, ip.at + (ip.version == 4 ? 2 : 4),
                  uint16_t(ip.total_length >= 0 ? size_t(ip.total_length) : rest));
            if (ip.checksum) set16(out, ip.at + 10, ipv4_checksum(out.data() + ip.at));
        }
        for (size_t at : udp_)
            set16(out, at + 4, uint16_t(out.size() - at));
        if (out.size() < min_size_) out.resize(min_size_, 0);
        return out;
    }
    // Pads the finished frame with zeros to `n` bytes, outside every length (Ethernet's minimum).
    Frame &pad_to(size_t n) {
        min_size_ = n;
        return *this;
    }
    // The finished packet from its first IP header on (for callers that strip the link layer).
    std::vector<uint8_t> build_ip() const {
        std::vector<uint8_t> out = build();
        const size_t at = ip_.empty() ? 0 : ip_.front().at;
        return std::vector<uint8_t>(out.begin() + long(at), out.end());
    }
    size_t size() const { return b_.size(); }

  private:
    struct IpLayer {
        size_t at;
        int version, total_length;
        bool checksum;
    };
    template <size_t N>
    static std::array<uint8_t, N> addr(int family, const char *text) {
        std::array<uint8_t, N> a{};
        inet_pton(family, text, a.data());
        return a;
    }
    static uint16_t ipv4_checksum(const uint8_t *h) {
        uint32_t sum = 0;
        for (int i = 0; i < 20; i += 2)
            if (i != 10) sum += uint32_t(h[i]) << 8 | h[i + 1];
        while (sum >> 16)
            sum = (sum & 0xFFFF) + (sum >> 16);
        return uint16_t(~sum);
    }
    static void set16(std::vector<uint8_t> &v, size_t at, uint16_t x) {
        v[at] = uint8_t(x >> 8);
        v[at + 1] = uint8_t(x);
    }
    // Patches the type field of the link layer before, and of the IP layer before.
    Frame &link_type(uint16_t type) {
        if (type_at_ != 0) set16(b_, type_at_, type);
        type_at_ = 0;
        return *this;
    }
    Frame &ip_proto(uint8_t proto) {
        if (proto_at_ != 0) b_[proto_at_] = proto;
        proto_at_ = 0;
        return *this;
    }
    Frame &put(const std::vector<uint8_t> &v) { return put(v.begin(), v.end()); }
    template <typename It>
    Frame &put(It first, It last) {
        b_.insert(b_.end(), first, last);
        return *this;
    }
    Frame &put(std::initializer_list<uint8_t> v) { return put(v.begin(), v.end()); }
    Frame &put(uint8_t x) { return put({x}); }
    Frame &put16(uint16_t x) { return put({uint8_t(x >> 8), uint8_t(x)}); }
    Frame &put32(uint32_t x) {
        put16(uint16_t(x >> 16));
        return put16(uint16_t(x));
    }
    std::vector<uint8_t> b_;
    std::vector<IpLayer> ip_;
    std::vector<size_t> udp_;
    size_t type_at_ = 0, proto_at_ = 0, min_size_ = 0;
};

}  // namespace quelm_test
