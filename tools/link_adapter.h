// Link-type adaption: the library decodes frames that start with an Ethernet header. Captures of
// other link types are rewritten into a scratch buffer with a 14-byte Ethernet header in front of
// their network header, so every supported capture reaches the library the same way.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace quelm_tool {

// A frame as the library receives it.
struct AdaptedFrame {
    const uint8_t *data;
    uint32_t caplen;   // bytes present at data
    uint32_t len;      // wire length, counted as if the frame had been Ethernet
    uint8_t if_index;  // interface index from the link header (SLL2 only), else 0
};

class LinkAdapter {
  public:
    // How a link header becomes an Ethernet header.
    enum class Kind {
        kEthernet,  // passed through untouched
        kSll,       // Linux cooked v1: 16 bytes, EtherType at offset 14
        kSll2,      // Linux cooked v2: 20 bytes, EtherType at offset 0
        kRawIp,     // no link header; EtherType from the IP version
        kNull,      // BSD loopback: 4-byte address family; EtherType from the IP version
    };

    // False for link types the tool cannot read.
    static bool supports(int link_type);
    // "link type NAME (N)" for messages, with the name libpcap knows it by.
    static std::string describe(int link_type);

    // `link_type` must be supported.
    explicit LinkAdapter(int link_type);

    Kind kind() const { return kind_; }

    // The frame for the library. For Ethernet it points into the caller's packet; otherwise into
    // this adapter's scratch buffer, valid until the next call.
    AdaptedFrame adapt(const uint8_t *packet, uint32_t caplen, uint32_t len) {
        if (kind_ == Kind::kEthernet) return {packet, caplen, len, 0};
        return rewrite(packet, caplen, len);
    }

  private:
    AdaptedFrame rewrite(const uint8_t *packet, uint32_t caplen, uint32_t len);

    Kind kind_;
    uint32_t header_len_;  // bytes of the original link header
    std::vector<uint8_t> scratch_;
};

}  // namespace quelm_tool
