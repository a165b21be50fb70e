// Capture files for the tool tests around frames from packet_builder.h: classic pcap with any link
// type, in the machine's byte order (readers tell it from the magic number).
#pragma once

#include <cstdint>
#include <fstream>
#include <initializer_list>
#include <string>
#include <vector>

namespace quelm_test {

struct CapturedPacket {
    int64_t sec = 0, usec = 0;
    std::vector<uint8_t> data;
};

inline constexpr uint32_t kLinkEthernet = 1;

// `cut_last` drops that many bytes from the end of the file, to make it truncated.
inline void write_pcap(const std::string &path, const std::vector<CapturedPacket> &packets,
                       uint32_t link_type = kLinkEthernet, size_t cut_last = 0) {
    std::string b;
    auto put = [&b](std::initializer_list<uint32_t> words) {
        for (uint32_t v : words)
            b.append(reinterpret_cast<const char *>(&v), 4);
    };
    put({0xA1B2C3D4, 0x00040002, 0, 0, 262144, link_type});  // version 2.4, snapshot length
    for (const CapturedPacket &p : packets) {
        put({uint32_t(p.sec), uint32_t(p.usec), uint32_t(p.data.size()), uint32_t(p.data.size())});
        b.append(p.data.begin(), p.data.end());
    }
    std::ofstream(path, std::ios::binary) << b.substr(0, b.size() - cut_last);
}

}  // namespace quelm_test
