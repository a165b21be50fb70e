// Writes fuzz seeds made with the tests' packet builder: for fuzz_table one per decoder path (VLAN,
// MPLS, PPPoE, IPv6 options, fragments, each UDP tunnel, ICMP), for fuzz_packet conversations that
// the engine detects. Usage: make_seeds DIR (writes DIR/table/* and DIR/packet/*)
#include <filesystem>
#include <fstream>
#include <string_view>
#include <vector>

#include "packet_builder.h"

namespace {

using quelm_test::Frame;
using Bytes = std::vector<uint8_t>;
using Frames = std::vector<Bytes>;
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
const Bytes kGtp = {0x32, 0xFF, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0};  // with a sequence number
const Bytes kL2tp = {0x48, 0x02, 0, 0, 0, 42, 0, 7, 0, 1, 0, 2, 0xFF, 0x03, 0, 0x21};  // PPP, IPv4
const Bytes kVxlan = {0x08, 0, 0, 0, 0x12, 0x34, 0x56, 0};
Bytes capwap() {  // an 8-byte header, then the 32 bytes whose last two give the inner type
    Bytes h = {0x00, 0x10, 0, 0, 0, 0, 0, 0, 0x02};
    h.resize(h.size() + 29);
    h.insert(h.end(), {0x08, 0x00});
    return h;
}

// An HTTP exchange over TCP behind the link layers of each direction, with sequence numbers that
// follow on so that the engine takes it.
Frames http(const Frame &to, const Frame &back) {
    const uint32_t c = 1000, s = 5000, n = uint32_t(kGet.size()), m = uint32_t(kOk.size());
    return {Frame(to).ipv4(kA, kB).tcp(40000, 80, 0x02, 5, c, 0).build(),
            Frame(back).ipv4(kB, kA).tcp(80, 40000, 0x12, 5, s, c + 1).build(),
            Frame(to).ipv4(kA, kB).tcp(40000, 80, 0x18, 5, c + 1, s + 1).payload(kGet).build(),
            Frame(back).ipv4(kB, kA).tcp(80, 40000, 0x18, 5, s + 1, c + 1 + n).payload(kOk).build(),
            Frame(to).ipv4(kA, kB).tcp(40000, 80, 0x11, 5, c + 1 + n, s + 1 + m).build()};
}

// Writes a seed in its fuzz target's input format: each frame behind its 2-byte length and, for
// fuzz_table (table_flags >= 0), its flags byte first (DPI, extra dissection, MAC in key, slicing)
// and a time step per frame: 1 s, and 3 s (past the idle timeout) before the last frame, so that
// flows and fragments both meet their next packet and expire.
void save(const std::filesystem::path &path, int table_flags, const Frames &frames) {
    Bytes out;
    if (table_flags >= 0) out.push_back(uint8_t(table_flags));
    for (size_t i = 0; i < frames.size(); ++i) {
        const Bytes &f = frames[i];
        out.insert(out.end(), {uint8_t(f.size() >> 8), uint8_t(f.size())});
        if (table_flags >= 0) out.push_back(i + 1 < frames.size() ? 1 : 3);
        out.insert(out.end(), f.begin(), f.end());
    }
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char *>(out.data()), std::streamsize(out.size()));
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 2) return 64;
    const std::filesystem::path table = std::filesystem::path(argv[1]) / "table";
    save(table / "http", 0x03, http(l2(), l2(true)));
    save(table / "vlan-mac-key", 0x15, http(l2().vlan(10).vlan(20), l2(true).vlan(10).vlan(20)));
    save(table / "mpls", 1,
         {l2().mpls(16, false).mpls(17, true).ipv4(kA, kB).udp(1, 53).build(),
          l2().mpls(1, true).ipv6(kA6, kB6).udp(1, 2).build()});
    save(table / "pppoe", 1,
         {l2().pppoe().ipv4(kA, kB).tcp(1, 80).build(),
          l2().pppoe(0x0057).ipv6(kA6, kB6).udp(3, 4).build()});
    save(table / "ipv6-options", 3,
         {l2().ipv6(kA6, kB6, true).tcp(9, 443, 0x02).build(),
          l2().ipv6(kB6, kA6, true).tcp(443, 9, 0x12).build(),
          l2().ipv6(kA6, kB6, true).udp(1, 53).payload(kDns).build()});
    // Two datagrams in two fragments each, the second one's tail first.
    const quelm_test::Ipv4Options head{.more_fragments = true}, tail{.fragment_offset = 4},
        tail7{.id = 7, .fragment_offset = 2}, head7{.id = 7, .more_fragments = true};
    save(table / "ipv4-fragments", 1,
         {l2().ipv4(kA, kB, head).udp(1, 53).payload(24).build(),
          l2().ipv4(kA, kB, tail).l4(17).payload(20).build(),
          l2().ipv4(kA, kB, tail7).l4(17).payload(8).build(),
          l2().ipv4(kA, kB, head7).udp(1, 2).payload(8).build()});
    save(table / "gtp-u", 1, {tunnel(2152, 2152, kGtp).ipv4(kA, kB).udp(1, 53).build()});
    save(table / "l2tp", 1, {tunnel(1701, 1701, kL2tp).ipv4(kA, kB).tcp(3, 80).build()});
    save(table / "capwap", 1, {tunnel(40000, 5247, capwap()).ipv4(kA, kB).udp(67, 68).build()});
    save(table / "vxlan", 1, {tunnel(33333, 4789, kVxlan).eth().ipv4(kA, kB).tcp(1, 22).build()});
    save(table / "icmp", 0,
         {l2().ipv4(kA, kB).icmp(8, 0).build(), l2(true).ipv4(kB, kA).icmp(0, 0).build(),
          l2(true).ipv4(kB, kA).icmp(3, 1).build(), l2().ipv6(kA6, kB6).icmp(128, 0, 58).build()});
    // fuzz_packet takes packets from the IP header on.
    const std::filesystem::path packet = std::filesystem::path(argv[1]) / "packet";
    save(packet / "http", -1, http(Frame(), Frame()));
    save(packet / "dns", -1,
         {Frame().ipv4(kA, kB).udp(5353, 53).payload(kDns).build(),
          Frame().ipv4(kB, kA).udp(53, 5353).payload(kDns).build()});
    return 0;
}
