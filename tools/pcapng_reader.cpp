#include "pcapng_reader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace quelm_tool {
namespace {

constexpr uint32_t kSectionHeader = 0x0A0D0D0A;
constexpr uint32_t kInterfaceDescription = 1;
constexpr uint32_t kObsoletePacket = 2;
constexpr uint32_t kSimplePacket = 3;
constexpr uint32_t kEnhancedPacket = 6;
constexpr uint32_t kByteOrderMagic = 0x1A2B3C4D;
constexpr uint16_t kOptionEnd = 0, kOptionTsResol = 9, kOptionFcsLen = 13, kOptionTsOffset = 14;
constexpr uint64_t kMicro = 1000000;
using Wide = unsigned __int128;

uint32_t raw32(const uint8_t *p) {
    uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
}

uint32_t pad4(uint32_t n) {
    return (n + 3) & ~3u;
}

// Timestamp units per second from an if_tsresol value: a negative power of 10, or of 2 when the
// top bit is set. 0 for a resolution no 64-bit count can express.
uint64_t units_of(uint8_t resolution) {
    const uint8_t exponent = resolution & 0x7F;
    if (resolution & 0x80) return exponent < 64 ? uint64_t(1) << exponent : 0;
    if (exponent > 19) return 0;
    uint64_t units = 1;
    for (int i = 0; i < exponent; i++)
        units *= 10;
    return units;
}

}  // namespace

PcapngReader::PcapngReader(FILE *file) : file_(file), block_(64 * 1024) {}

bool PcapngReader::read_exact(uint8_t *to, size_t size) {
    return fread(to, 1, size, file_) == size;
}

PcapngReader::Event PcapngReader::damaged(const std::string &what) {
    if (ferror(file_))
        error_ = std::string("read failed: ") + std::strerror(errno);
    else
        error_ = what + " (block at byte " + std::to_string(offset_) + ")";
    return Event::kDamaged;
}

uint16_t PcapngReader::get16(const uint8_t *p) const {
    uint16_t v;
    std::memcpy(&v, p, 2);
    return swapped_ ? __builtin_bswap16(v) : v;
}

uint32_t PcapngReader::get32(const uint8_t *p) const {
    const uint32_t v = raw32(p);
    return swapped_ ? __builtin_bswap32(v) : v;
}

PcapngReader::Event PcapngReader::next(Packet *packet) {
    for (;;) {
        uint8_t head[8];
        const size_t got = fread(head, 1, sizeof head, file_);
        if (got == 0 && feof(file_)) return Event::kEnd;
        if (got != sizeof head) return damaged("a block cut short");
        const uint32_t type = get32(head);  // the section header's type reads alike either way
        uint32_t have = 0;                  // bytes of the body already in block_
        if (type == kSectionHeader) {
            if (!read_exact(block_.data(), 4)) return damaged("a section header cut short");
            have = 4;
            const uint32_t magic = raw32(block_.data());
            if (magic != kByteOrderMagic && magic != __builtin_bswap32(kByteOrderMagic))
                return damaged("a section header without the byte-order magic");
            swapped_ = magic != kByteOrderMagic;
        } else if (!in_section_) {
            return damaged("blocks before the first section header");
        }
        const uint32_t length = get32(head + 4);
        if (length < 12 || length % 4 != 0)
            return damaged("a block length of " + std::to_string(length));
        if (length > kMaxBlock) return damaged("a block of " + std::to_string(length) + " bytes");
        // The body, then the block's length again.
        const uint32_t rest = length - 8;
        if (block_.size() < rest) block_.resize(rest);
        if (!read_exact(block_.data() + have, rest - have)) return damaged("a block cut short");
        if (get32(block_.data() + rest - 4) != length)
            return damaged("a block whose two lengths differ");
        const uint8_t *body = block_.data();
        const uint32_t size = rest - 4;
        Event event;
        switch (type) {
            case kSectionHeader:
                event = section(body, size);
                break;
            case kInterfaceDescription:
                event = interface(body, size);
                break;
            case kEnhancedPacket:
                event = this->packet(body, size, 4, packet);
                break;
            case kObsoletePacket:
                event = this->packet(body, size, 2, packet);
                break;
            case kSimplePacket:
                event = simple_packet(body, size, packet);
                break;
            default:  // statistics, name resolution, custom blocks...
                offset_ += length;
                continue;
        }
        if (event != Event::kDamaged) offset_ += length;
        return event;
    }
}

PcapngReader::Event PcapngReader::section(const uint8_t *body, uint32_t size) {
    // Byte-order magic, major and minor version, section length; then options.
    if (size < 16) return damaged("a section header too short");
    const uint16_t major = get16(body + 4);
    if (major != 1) return damaged("a section of format version " + std::to_string(major));
    in_section_ = true;
    interfaces_.clear();
    return Event::kSection;
}

PcapngReader::Event PcapngReader::interface(const uint8_t *body, uint32_t size) {
    if (size < 8) return damaged("an interface description too short");
    if (interfaces_.size() >= kMaxInterfaces) return damaged("too many interfaces");
    Interface i = {get16(body), get32(body + 4), 0, kMicro, 0};
    for (uint32_t at = 8; at + 4 <= size;) {
        const uint16_t code = get16(body + at), length = get16(body + at + 2);
        at += 4;
        if (code == kOptionEnd) break;
        if (length > size - at) return damaged("an interface option past its block");
        const uint8_t *value = body + at;
        if (code == kOptionTsResol && length == 1) {
            i.units = units_of(value[0]);
            if (i.units == 0) return damaged("a time resolution finer than 64 bits can count");
        } else if (code == kOptionFcsLen && length == 1) {
            // Written in bits by some and in bytes by others: 16 or 32 are bits, 2 or 4 bytes.
            const uint32_t fcs = value[0] >= 8 ? value[0] / 8u : value[0];
            i.fcs_len = fcs == 2 || fcs == 4 ? fcs : 0;
        } else if (code == kOptionTsOffset && length == 8) {
            const uint64_t high = get32(value), low = get32(value + 4);
            i.offset = int64_t(swapped_ ? low << 32 | high : high << 32 | low);
        }
        at += pad4(length);
    }
    interfaces_.push_back(i);
    return Event::kInterface;
}

PcapngReader::Event PcapngReader::packet(const uint8_t *body, uint32_t size, uint32_t id_bytes,
                                         Packet *packet) {
    // Interface id (and, in the obsolete block, a drop count), timestamp, captured and wire length.
    if (size < 20) return damaged("a packet block too short");
    const uint32_t id = id_bytes == 4 ? get32(body) : get16(body);
    if (id >= interfaces_.size())
        return damaged("a packet of interface " + std::to_string(id) + ", never described");
    const uint32_t caplen = get32(body + 12);
    if (caplen > size - 20) return damaged("packet data past its block");
    const Interface &i = interfaces_[id];
    const uint64_t ts = uint64_t(get32(body + 4)) << 32 | get32(body + 8);
    // The offset is added modulo 2^64: a nonsensical time, never undefined behaviour.
    last_sec_ = int64_t(ts / i.units + uint64_t(i.offset));
    last_usec_ =
        i.units == kMicro ? uint32_t(ts % kMicro) : uint32_t(Wide(ts % i.units) * kMicro / i.units);
    *packet = {id, last_sec_, last_usec_, caplen, get32(body + 16), body + 20};
    return Event::kPacket;
}

PcapngReader::Event PcapngReader::simple_packet(const uint8_t *body, uint32_t size,
                                                Packet *packet) {
    // The wire length, then as much of the packet as the snapshot length and the block hold. It
    // has no timestamp: it takes the time of the packet before.
    if (size < 4) return damaged("a simple packet block too short");
    if (interfaces_.empty()) return damaged("a simple packet block before any interface");
    const uint32_t len = get32(body), snaplen = interfaces_[0].snaplen;
    uint32_t caplen = std::min(len, size - 4);
    if (snaplen != 0) caplen = std::min(caplen, snaplen);
    *packet = {0, last_sec_, last_usec_, caplen, len, body + 4};
    return Event::kPacket;
}

}  // namespace quelm_tool
