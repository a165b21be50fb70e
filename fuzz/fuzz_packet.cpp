// Fuzzes packet processing: the input is a classic pcap file (so captures seed
// it directly) or a list of packets, each a 2-byte big-endian length and the IP
// packet. All packets go to one flow, then the flow is given up and guessed.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "pelda.h"

namespace {

pelda_detection_module *module() {
    static pelda_detection_module *m = [] {
        pelda_detection_module *x = pelda_init_detection_module(nullptr, 2);
        pelda_finalize_initialization(x);
        return x;
    }();
    return m;
}

uint32_t rd32(const uint8_t *p, bool swap) {
    uint32_t v;
    std::memcpy(&v, p, 4);
    return swap ? __builtin_bswap32(v) : v;
}

// IP header offset for the link types met in captures, or -1.
int ip_offset(uint32_t link, const uint8_t *p, uint32_t len) {
    if (link == 1) {  // Ethernet, skipping VLAN tags
        uint32_t off = 12;
        while (off + 2 <= len) {
            uint16_t t = uint16_t(p[off] << 8 | p[off + 1]);
            if (t == 0x8100 || t == 0x88A8) {
                off += 4;
                continue;
            }
            return t == 0x0800 || t == 0x86DD ? int(off + 2) : -1;
        }
        return -1;
    }
    if (link == 101 || link == 12 || link == 14 || link == 228 || link == 229) return 0;
    if (link == 0 || link == 108) return 4;
    if (link == 113) return 16;
    return -1;
}

void feed(pelda_flow *f, const uint8_t *ip, uint32_t len, uint64_t t) {
    // A private copy, so that reads past the packet are caught.
    uint8_t *copy = static_cast<uint8_t *>(std::malloc(len ? len : 1));
    if (len) std::memcpy(copy, ip, len);
    pelda_detection_process_packet(module(), f, copy, len, t, nullptr);
    std::free(copy);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    pelda_detection_module *m = module();
    pelda_flow *f =
        static_cast<pelda_flow *>(calloc(1, pelda_detection_get_sizeof_pelda_flow_struct()));
    if (!f) return 0;
    uint32_t magic = size >= 24 ? rd32(data, false) : 0;
    bool pcap =
        magic == 0xa1b2c3d4 || magic == 0xd4c3b2a1 || magic == 0xa1b23c4d || magic == 0x4d3cb2a1;
    if (pcap) {
        bool swap = magic == 0xd4c3b2a1 || magic == 0x4d3cb2a1;
        uint32_t link = rd32(data + 20, swap) & 0xFFFF;
        size_t pos = 24;
        for (int n = 0; n < 256 && pos + 16 <= size; ++n) {
            uint32_t caplen = rd32(data + pos + 8, swap);
            pos += 16;
            if (caplen > size - pos) break;
            int off = ip_offset(link, data + pos, caplen);
            if (off >= 0 && uint32_t(off) <= caplen)
                feed(f, data + pos + off, caplen - uint32_t(off), uint64_t(n));
            pos += caplen;
        }
    } else {
        size_t pos = 0;
        for (int n = 0; n < 256 && pos + 2 <= size; ++n) {
            uint32_t len = uint32_t(data[pos] << 8 | data[pos + 1]);
            pos += 2;
            if (len > size - pos) len = uint32_t(size - pos);
            feed(f, data + pos, len, uint64_t(n));
            pos += len;
        }
    }
    pelda_protocol r = pelda_detection_giveup(m, f);
    char name[64];
    pelda_protocol2name(m, {r.master_protocol, r.app_protocol}, name, sizeof(name));
    if (size >= 2)
        pelda_guess_undetected_protocol_v4(m, f, data[0], 0x0a000001, data[1], 0x0a000002, 80);
    pelda_free_flow(f);
    return 0;
}
