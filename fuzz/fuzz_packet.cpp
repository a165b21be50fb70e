// Fuzzes the engine's packet processing: a pcap file or 2-byte-length-prefixed IP packets, all to
// one flow, which is then given up and guessed.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "pelda.h"

namespace {

uint32_t rd32(const uint8_t *p, bool swap) {
    uint32_t v;
    std::memcpy(&v, p, 4);
    return swap ? __builtin_bswap32(v) : v;
}

// IP header offset for the link types met in captures, or -1.
int ip_offset(uint32_t link, const uint8_t *p, uint32_t len) {
    if (link == 101 || link == 12 || link == 14 || link == 228 || link == 229) return 0;
    if (link == 0 || link == 108) return 4;
    if (link == 113) return 16;
    for (uint32_t off = 12; link == 1 && off + 2 <= len; off += 4) {  // Ethernet, VLAN tags
        const uint16_t type = uint16_t(p[off] << 8 | p[off + 1]);
        if (type != 0x8100 && type != 0x88A8)
            return type == 0x0800 || type == 0x86DD ? int(off + 2) : -1;
    }
    return -1;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static pelda_detection_module *m = [] {
        pelda_detection_module *x = pelda_init_detection_module(nullptr, 2);
        pelda_finalize_initialization(x);
        return x;
    }();
    pelda_flow *f =
        static_cast<pelda_flow *>(calloc(1, pelda_detection_get_sizeof_pelda_flow_struct()));
    if (!f) return 0;
    const uint32_t magic = size >= 24 ? rd32(data, false) : 0;
    const bool swap = magic == 0xd4c3b2a1 || magic == 0x4d3cb2a1;
    const bool pcap = swap || magic == 0xa1b2c3d4 || magic == 0xa1b23c4d;
    const uint32_t link = pcap ? rd32(data + 20, swap) & 0xFFFF : 101;  // a list: raw IP
    const size_t header = pcap ? 16 : 2;                                // before each packet
    size_t pos = pcap ? 24 : 0;
    for (int n = 0; n < 256 && pos + header <= size; ++n) {
        uint32_t len = pcap ? rd32(data + pos + 8, swap) : uint32_t(data[pos] << 8 | data[pos + 1]);
        pos += header;
        if (len > size - pos && pcap) break;
        if (len > size - pos) len = uint32_t(size - pos);
        const int off = ip_offset(link, data + pos, len);
        if (off >= 0 && uint32_t(off) <= len) {
            // A private copy of the IP packet, so that reads past its end are caught.
            const uint32_t ip_len = len - uint32_t(off);
            uint8_t *copy = static_cast<uint8_t *>(std::malloc(ip_len ? ip_len : 1));
            std::memcpy(copy, data + pos + off, ip_len);
            pelda_detection_process_packet(m, f, copy, ip_len, uint64_t(n), nullptr);
            std::free(copy);
        }
        pos += len;
    }
    pelda_protocol r = pelda_detection_giveup(m, f);
    char name[64];
    pelda_protocol2name(m, {r.master_protocol, r.app_protocol}, name, sizeof(name));
    if (size >= 2)
        pelda_guess_undetected_protocol_v4(m, f, data[0], 0x0a000001, data[1], 0x0a000002, 80);
    pelda_free_flow(f);
    return 0;
}
