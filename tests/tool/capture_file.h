// Capture files for the tool tests, written byte by byte: classic pcap with any link type, and a
// minimal pcapng (section header, one interface, enhanced packet blocks).
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace quelm_test {

struct CapturedPacket {
    int64_t sec = 0;
    int64_t usec = 0;
    std::vector<uint8_t> data;
    uint32_t wire_len = 0;  // 0: the size of data
};

class CaptureFile {
  public:
    // Link types by their file numbers (LINKTYPE_*).
    static constexpr uint32_t kEthernet = 1;

    // `cut_last` drops that many bytes from the end of the file, to make it truncated.
    static void write_pcap(const std::string &path, const std::vector<CapturedPacket> &packets,
                           uint32_t link_type = kEthernet, size_t cut_last = 0) {
        std::vector<uint8_t> b;
        put32(b, 0xA1B2C3D4);
        put16(b, 2);
        put16(b, 4);
        put32(b, 0);       // time zone
        put32(b, 0);       // accuracy
        put32(b, 262144);  // snapshot length
        put32(b, link_type);
        for (const CapturedPacket &p : packets) {
            put32(b, uint32_t(p.sec));
            put32(b, uint32_t(p.usec));
            put32(b, uint32_t(p.data.size()));
            put32(b, p.wire_len != 0 ? p.wire_len : uint32_t(p.data.size()));
            b.insert(b.end(), p.data.begin(), p.data.end());
        }
        b.resize(b.size() - cut_last);
        save(path, b);
    }

    static void write_pcapng(const std::string &path, const std::vector<CapturedPacket> &packets,
                             uint32_t link_type = kEthernet) {
        std::vector<uint8_t> b;
        // Section header block.
        put32(b, 0x0A0D0D0A);
        put32(b, 28);
        put32(b, 0x1A2B3C4D);
        put16(b, 1);
        put16(b, 0);
        put32(b, 0xFFFFFFFF);  // section length unknown
        put32(b, 0xFFFFFFFF);
        put32(b, 28);
        // Interface description block (default resolution: microseconds).
        put32(b, 1);
        put32(b, 20);
        put16(b, uint16_t(link_type));
        put16(b, 0);
        put32(b, 262144);
        put32(b, 20);
        for (const CapturedPacket &p : packets) {
            const uint32_t padded = uint32_t((p.data.size() + 3) & ~size_t(3));
            const uint32_t total = 32 + padded;
            const uint64_t ts = uint64_t(p.sec) * 1000000 + uint64_t(p.usec);
            put32(b, 6);
            put32(b, total);
            put32(b, 0);  // interface 0
            put32(b, uint32_t(ts >> 32));
            put32(b, uint32_t(ts));
            put32(b, uint32_t(p.data.size()));
            put32(b, p.wire_len != 0 ? p.wire_len : uint32_t(p.data.size()));
            b.insert(b.end(), p.data.begin(), p.data.end());
            b.resize(b.size() + padded - p.data.size());
            put32(b, total);
        }
        save(path, b);
    }

  private:
    // Written in the machine's byte order; readers tell it from the magic number.
    static void put32(std::vector<uint8_t> &b, uint32_t v) {
        const uint8_t *p = reinterpret_cast<const uint8_t *>(&v);
        b.insert(b.end(), p, p + 4);
    }
    static void put16(std::vector<uint8_t> &b, uint16_t v) {
        const uint8_t *p = reinterpret_cast<const uint8_t *>(&v);
        b.insert(b.end(), p, p + 2);
    }
    static void save(const std::string &path, const std::vector<uint8_t> &b) {
        FILE *f = fopen(path.c_str(), "wb");
        if (f == nullptr) return;
        fwrite(b.data(), 1, b.size(), f);
        fclose(f);
    }
};

}  // namespace quelm_test
