// Capture files for the tool tests around frames from packet_builder.h: classic pcap with any link
// type, in the machine's byte order (readers tell it from the magic number).
#pragma once

#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

namespace quelm_test {

struct CapturedPacket {
    int64_t sec = 0, usec = 0;
    std::vector<uint8_t> data;
};

inline constexpr uint32_t kLinkEthernet = 1;

inline void put32(std::string &b, uint32_t v) {
    b.append(reinterpret_cast<const char *>(&v), 4);
}

inline std::string pcap_header(uint32_t link_type = kLinkEthernet) {
    std::string b;
    for (uint32_t v : {0xA1B2C3D4u, 0x00040002u, 0u, 0u, 262144u, link_type})
        put32(b, v);
    return b;
}

inline std::string pcap_record(const CapturedPacket &p) {
    std::string b;
    for (uint32_t v :
         {uint32_t(p.sec), uint32_t(p.usec), uint32_t(p.data.size()), uint32_t(p.data.size())})
        put32(b, v);
    return b.append(p.data.begin(), p.data.end());
}

// `cut_last` drops that many bytes from the end of the file, to make it truncated.
inline void write_pcap(const std::string &path, const std::vector<CapturedPacket> &packets,
                       uint32_t link_type = kLinkEthernet, size_t cut_last = 0) {
    std::string b = pcap_header(link_type);
    for (const CapturedPacket &p : packets)
        b += pcap_record(p);
    std::ofstream(path, std::ios::binary) << b.substr(0, b.size() - cut_last);
}

}  // namespace quelm_test
