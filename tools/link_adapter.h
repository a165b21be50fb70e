// Link-type adaption: the library decodes frames that start with an Ethernet header. Captures of
// other link types are rewritten into a scratch buffer with a 14-byte Ethernet header in front of
// their network header, so every supported capture reaches the library the same way.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace quelm_tool {

// Frames the adapter keeps from the library, each counted by the tool under its reason.
enum class LinkRefusal : uint8_t {
    kNone,       // handed to the library
    kEncrypted,  // an 802.11 frame whose payload is protected: nothing in it can be keyed
};

// A frame as the library receives it.
struct AdaptedFrame {
    const uint8_t *data;
    uint32_t caplen;   // bytes present at data
    uint32_t len;      // wire length, counted as if the frame had been Ethernet
    uint8_t if_index;  // interface index from the link header (SLL2 only), else 0
    LinkRefusal refusal = LinkRefusal::kNone;  // not kNone: skip the frame, count it
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

    // `link_type` must be supported. `fcs_len` bytes of frame check sequence end every frame (as
    // the capture file says: FCS-length bits of the link type, pcapng if_fcslen); they are dropped.
    explicit LinkAdapter(int link_type, uint32_t fcs_len = 0);

    Kind kind() const { return kind_; }

    // The frame for the library. For Ethernet it points into the caller's packet; otherwise into
    // this adapter's scratch buffer, valid until the next call.
    AdaptedFrame adapt(const uint8_t *packet, uint32_t caplen, uint32_t len) {
        if (kind_ == Kind::kEthernet && fcs_len_ == 0) return {packet, caplen, len, 0};
        return rewrite(packet, caplen, len);
    }

  private:
    AdaptedFrame rewrite(const uint8_t *packet, uint32_t caplen, uint32_t len);

    Kind kind_;
    uint32_t header_len_;  // bytes of the original link header
    uint32_t fcs_len_;
    std::vector<uint8_t> scratch_;
};

}  // namespace quelm_tool
