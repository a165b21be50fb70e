// Reads the pcapng capture format from a stdio stream, block by block: section headers in either
// byte order (each one starts its interfaces afresh), interface descriptions, enhanced, simple and
// obsolete packet blocks; every other block is skipped by its length. Unlike libpcap it takes
// interfaces that differ in link type and snapshot length. Every length is checked: anything that
// does not add up ends the stream as damaged. One buffer, grown for the biggest block, holds the
// block being read, so no packet costs an allocation.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace quelm_tool {

class PcapngReader {
  public:
    struct Interface {
        uint16_t link_type;  // as the file numbers it (the registry's LINKTYPE_ values)
        uint32_t snaplen;    // 0: no limit
        uint32_t fcs_len;    // bytes of frame check sequence that end every frame: 0, 2 or 4
        uint64_t units;      // timestamp units per second
        int64_t offset;      // seconds added to every timestamp
    };

    struct Packet {
        uint32_t interface;  // index into interfaces()
        int64_t sec;
        uint32_t usec;
        uint32_t caplen;  // bytes at data
        uint32_t len;     // length on the wire
        const uint8_t *data;
    };

    enum class Event {
        kPacket,     // `packet` is set; its data stays valid until the next call
        kInterface,  // interfaces() has one more
        kSection,    // a new section: interfaces() is empty again
        kEnd,        // the stream ended between two blocks
        kDamaged,    // error() says what; the stream cannot be read further
    };

    // Blocks bigger than this are taken for damage rather than read into memory.
    static constexpr uint32_t kMaxBlock = 16 << 20;
    static constexpr size_t kMaxInterfaces = 1 << 16;  // per section

    // Reads `file` from where it is, which must be the start of a section header block.
    explicit PcapngReader(FILE *file);

    Event next(Packet *packet);

    const std::vector<Interface> &interfaces() const { return interfaces_; }
    const std::string &error() const { return error_; }

  private:
    bool read_exact(uint8_t *to, size_t size);
    Event damaged(const std::string &what);
    uint16_t get16(const uint8_t *p) const;
    uint32_t get32(const uint8_t *p) const;
    Event section(const uint8_t *body, uint32_t size);
    Event interface(const uint8_t *body, uint32_t size);
    // A packet of an enhanced (`id_bytes` 4) or obsolete (2) packet block.
    Event packet(const uint8_t *body, uint32_t size, uint32_t id_bytes, Packet *packet);
    Event simple_packet(const uint8_t *body, uint32_t size, Packet *packet);

    FILE *file_;
    bool swapped_ = false;  // the section's byte order is not the machine's
    bool in_section_ = false;
    std::vector<Interface> interfaces_;
    std::vector<uint8_t> block_;
    uint64_t offset_ = 0;  // of the block being read, for messages
    int64_t last_sec_ = 0;
    uint32_t last_usec_ = 0;
    std::string error_;
};

}  // namespace quelm_tool
