// Link-type adaption: the library decodes frames that start with an Ethernet header. Captures of
// other link types are rewritten into a scratch buffer with a 14-byte Ethernet header in front of
// their network header, so every supported capture reaches the library the same way.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace quelm_tool {

// The largest snapshot length libpcap writes: no frame of a capture is longer.
inline constexpr uint32_t kLargestSnapshot = 262144;

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
    // Not kNone: skip the frame and count it (data is then an empty Ethernet frame).
    LinkRefusal refusal = LinkRefusal::kNone;
};

struct LinkHeader;

class LinkAdapter {
  public:
    // False for link types the tool cannot read.
    static bool supports(int link_type);
    // "link type NAME (N)" for messages, with the name libpcap knows it by.
    static std::string describe(int link_type);

    // `link_type` must be supported. `fcs_len` bytes of frame check sequence end every frame (as
    // the capture file says: FCS-length bits of the link type, pcapng if_fcslen); they are dropped.
    explicit LinkAdapter(int link_type, uint32_t fcs_len = 0);

    // The frame for the library. For Ethernet it points into the caller's packet; otherwise into
    // this adapter's scratch buffer, valid until the next call.
    AdaptedFrame adapt(const uint8_t *packet, uint32_t caplen, uint32_t len) {
        if (read_ == nullptr && fcs_len_ == 0) return {packet, caplen, len, 0};
        return rewrite(packet, caplen, len);
    }

    // Reads the header of one link family (link_adapter.cpp has one for each); false when the
    // capture ends inside it.
    using Reader = bool (*)(const uint8_t *packet, uint32_t caplen, LinkHeader &header);

  private:
    AdaptedFrame rewrite(const uint8_t *packet, uint32_t caplen, uint32_t len);

    Reader read_;  // null for Ethernet, passed through
    uint32_t fcs_len_;
    std::vector<uint8_t> scratch_;
};

}  // namespace quelm_tool
