// make_seeds DIR: DIR/table/*, an HTTP exchange behind every layer and tunnel the decoder knows,
// ICMP and fragments; DIR/packet/*, conversations the engine detects.
#include <filesystem>
#include <fstream>
#include <string_view>
#include <vector>

#include "packet_builder.h"

namespace {

using quelm_test::Frame;
using Bytes = std::vector<uint8_t>;
constexpr const char *kA = "10.0.0.1", *kB = "10.0.0.2", *kA6 = "fd00::1", *kB6 = "fd00::2";
constexpr std::string_view kGet = "GET / HTTP/1.1\r\nHost: example.com\r\n\r\n";
constexpr std::string_view kOk = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";
const Bytes kDns = {0x12, 0x34, 1,   0,   0,   1, 0,   0,   0,   0, 0, 0, 7, 'e', 'x',
                    'a',  'm',  'p', 'l', 'e', 3, 'c', 'o', 'm', 0, 0, 1, 0, 1};  // example.com A

Frame l2(bool back = false) {
    return back ? Frame().eth(quelm_test::kServerMac, quelm_test::kClientMac) : Frame().eth();
}
// A UDP tunnel's outer layers and its header.
Frame tunnel(uint16_t sport, uint16_t dport, const Bytes &header) {
    return l2().ipv4("192.0.2.1", "192.0.2.2").udp(sport, dport).payload(header);
}
enum Ip { kV4, kV6, kV6Options };

// An HTTP exchange behind the `outer` layers of each direction, its sequence numbers following on.
std::vector<Bytes> http(Frame (*outer)(bool back), Ip ip = kV4) {
    auto l3 = [outer, ip](bool up) {  // from the client (up) or the server
        Frame f = outer(!up);
        if (ip == kV4) return f.ipv4(up ? kA : kB, up ? kB : kA);
        return f.ipv6(up ? kA6 : kB6, up ? kB6 : kA6, ip == kV6Options);
    };
    const uint32_t c = 1000, s = 5000, n = uint32_t(kGet.size()), m = uint32_t(kOk.size());
    return {l3(true).tcp(40000, 80, 0x02, 5, c, 0).build(),
            l3(false).tcp(80, 40000, 0x12, 5, s, c + 1).build(),
            l3(true).tcp(40000, 80, 0x18, 5, c + 1, s + 1).payload(kGet).build(),
            l3(false).tcp(80, 40000, 0x18, 5, s + 1, c + 1 + n).payload(kOk).build(),
            l3(true).tcp(40000, 80, 0x11, 5, c + 1 + n, s + 1 + m).build()};
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 2) return 64;
    // Two datagrams in two fragments each, the second one's tail first.
    const quelm_test::Ipv4Options head{.more_fragments = true}, tail{.fragment_offset = 4},
        tail7{.id = 7, .fragment_offset = 2}, head7{.id = 7, .more_fragments = true};
    // The flags byte of fuzz_table's input (DPI, extra dissection, MAC in key, slicing), or -1 for
    // fuzz_packet, which takes packets from the IP header on. GTP-U has a sequence number; CAPWAP
    // an 8-byte header, then 32 bytes of wireless binding whose last two give the inner type.
    // clang-format off
    const struct { const char *name; int flags; std::vector<Bytes> frames; } seeds[] = {
        {"table/http", 0x03, http(l2)},
        {"table/vlan-mac-key", 0x15, http([](bool b) { return l2(b).vlan(10).vlan(20); })},
        {"table/mpls", 1, http([](bool b) { return l2(b).mpls(16, false).mpls(17, true); })},
        {"table/mpls-ipv6", 1, http([](bool b) { return l2(b).mpls(1, true); }, kV6)},
        {"table/pppoe", 1, http([](bool b) { return l2(b).pppoe(); })},
        {"table/pppoe-ipv6", 1, http([](bool b) { return l2(b).pppoe(0x0057); }, kV6)},
        {"table/ipv6-options", 3, http(l2, kV6Options)},
        {"table/gtp-u", 1, http([](bool) { return tunnel(2152, 2152, {0x32, 0xFF, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0}); })},
        {"table/l2tp", 1, http([](bool) { return tunnel(1701, 1701, {0x48, 2, 0, 0, 0, 42, 0, 7, 0, 1, 0, 2, 0xFF, 3, 0, 0x21}); })},
        {"table/capwap", 1, http([](bool) { return tunnel(40000, 5247, {0, 0x10, 0, 0, 0, 0, 0, 0, 2}).payload(29, 0).bytes({8, 0}); })},
        {"table/vxlan", 1, http([](bool) { return tunnel(33333, 4789, {0x08, 0, 0, 0, 0x12, 0x34, 0x56, 0}).eth(); })},
        {"table/icmp", 0, {l2().ipv4(kA, kB).icmp(8, 0).build(), l2(true).ipv4(kB, kA).icmp(0, 0).build(),
                           l2(true).ipv4(kB, kA).icmp(3, 1).build(), l2().ipv6(kA6, kB6).icmp(128, 0, 58).build()}},
        {"table/ipv4-fragments", 1, {l2().ipv4(kA, kB, head).udp(1, 53).payload(24).build(),
                                     l2().ipv4(kA, kB, tail).l4(17).payload(20).build(),
                                     l2().ipv4(kA, kB, tail7).l4(17).payload(8).build(),
                                     l2().ipv4(kA, kB, head7).udp(1, 2).payload(8).build()}},
        {"packet/http", -1, http([](bool) { return Frame(); })},
        {"packet/dns", -1, {Frame().ipv4(kA, kB).udp(5353, 53).payload(kDns).build(),
                            Frame().ipv4(kB, kA).udp(53, 5353).payload(kDns).build()}},
    };
    // clang-format on
    // Each frame behind its length and, for fuzz_table, a time step: 1 s, then 3 s (past the idle
    // timeout) before the last frame: flows and fragments both meet their next packet and expire.
    for (const auto &seed : seeds) {
        std::string out = seed.flags >= 0 ? std::string(1, char(seed.flags)) : "";
        for (size_t i = 0; i < seed.frames.size(); ++i) {
            const Bytes &f = seed.frames[i];
            out += {char(f.size() >> 8), char(f.size())};
            if (seed.flags >= 0) out += char(i + 1 < seed.frames.size() ? 1 : 3);
            out.append(f.begin(), f.end());
        }
        const std::filesystem::path path = std::filesystem::path(argv[1]) / seed.name;
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << out;
    }
    return 0;
}
