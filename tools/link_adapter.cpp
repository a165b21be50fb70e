#include "link_adapter.h"

#include <pcap/pcap.h>

#include <cstring>

namespace quelm_tool {
namespace {

constexpr uint32_t kEthernetHeaderLen = 14;
constexpr uint16_t kEtherTypeIpv4 = 0x0800;
constexpr uint16_t kEtherTypeIpv6 = 0x86DD;
// Room for the largest snapshot length libpcap writes; bigger packets grow the buffer once.
constexpr size_t kScratchSize = kEthernetHeaderLen + 262144;

// Link types by the numbers libpcap reports (pcap_datalink), which are not always the numbers in
// the file: LINKTYPE_RAW (101) reads as DLT_RAW (12 on Linux, 14 on OpenBSD).
LinkAdapter::Kind kind_of(int link_type, bool *supported) {
    *supported = true;
    switch (link_type) {
        case 1:  // DLT_EN10MB
            return LinkAdapter::Kind::kEthernet;
        case 113:  // DLT_LINUX_SLL
            return LinkAdapter::Kind::kSll;
        case 276:  // DLT_LINUX_SLL2
            return LinkAdapter::Kind::kSll2;
        case 12:   // DLT_RAW
        case 14:   // DLT_RAW on OpenBSD
        case 101:  // LINKTYPE_RAW
        case 228:  // DLT_IPV4
        case 229:  // DLT_IPV6
            return LinkAdapter::Kind::kRawIp;
        case 0:    // DLT_NULL: address family in the writer's byte order
        case 108:  // DLT_LOOP: address family in network byte order
            return LinkAdapter::Kind::kNull;
        default:
            *supported = false;
            return LinkAdapter::Kind::kEthernet;
    }
}

uint32_t header_len_of(LinkAdapter::Kind kind) {
    switch (kind) {
        case LinkAdapter::Kind::kSll:
            return 16;
        case LinkAdapter::Kind::kSll2:
            return 20;
        case LinkAdapter::Kind::kNull:
            return 4;
        default:
            return 0;
    }
}

uint16_t read16(const uint8_t *p) {
    return uint16_t(p[0] << 8 | p[1]);
}

// Without a link-layer type field the IP version nibble tells IPv4 from IPv6. Anything else gets
// EtherType 0, which the library counts as not decoded.
uint16_t ether_type_from_ip_version(const uint8_t *network, uint32_t available) {
    if (available == 0) return 0;
    switch (network[0] >> 4) {
        case 4:
            return kEtherTypeIpv4;
        case 6:
            return kEtherTypeIpv6;
        default:
            return 0;
    }
}

}  // namespace

bool LinkAdapter::supports(int link_type) {
    bool supported;
    kind_of(link_type, &supported);
    return supported;
}

std::string LinkAdapter::describe(int link_type) {
    const char *name = pcap_datalink_val_to_name(link_type);
    std::string text = "link type ";
    text += name != nullptr ? name : "unknown";
    text += " (" + std::to_string(link_type) + ")";
    return text;
}

LinkAdapter::LinkAdapter(int link_type, uint32_t fcs_len) : fcs_len_(fcs_len) {
    bool supported;
    kind_ = kind_of(link_type, &supported);
    header_len_ = header_len_of(kind_);
    if (kind_ != Kind::kEthernet) scratch_.resize(kScratchSize);
}

AdaptedFrame LinkAdapter::rewrite(const uint8_t *packet, uint32_t caplen, uint32_t len) {
    // The frame check sequence is not part of the packet: drop it from both lengths (a capture
    // cut short of it has none of it).
    if (fcs_len_ != 0) {
        len = len > fcs_len_ ? len - fcs_len_ : 0;
        if (caplen > len) caplen = len;
        if (kind_ == Kind::kEthernet) return {packet, caplen, len, 0};
    }
    uint8_t *eth = scratch_.data();
    std::memset(eth, 0, kEthernetHeaderLen);
    uint8_t if_index = 0;
    if (caplen < header_len_) {
        // A truncated link header carries no network header: hand over an empty Ethernet frame so
        // the packet is still counted.
        return {eth, kEthernetHeaderLen, kEthernetHeaderLen, 0};
    }
    const uint8_t *network = packet + header_len_;
    const uint32_t network_len = caplen - header_len_;
    uint16_t ether_type = 0;
    switch (kind_) {
        case Kind::kSll:
            ether_type = read16(packet + 14);
            if (read16(packet + 4) == 6) std::memcpy(eth + 6, packet + 6, 6);  // the sender's MAC
            break;
        case Kind::kSll2: {
            ether_type = read16(packet);
            if (packet[11] == 6) std::memcpy(eth + 6, packet + 12, 6);
            const uint32_t ifindex = uint32_t(packet[4]) << 24 | uint32_t(packet[5]) << 16 |
                                     uint32_t(packet[6]) << 8 | packet[7];
            if (ifindex <= 0xFF) if_index = uint8_t(ifindex);
            break;
        }
        case Kind::kRawIp:
        case Kind::kNull:
            ether_type = ether_type_from_ip_version(network, network_len);
            break;
        case Kind::kEthernet:
            break;
    }
    eth[12] = uint8_t(ether_type >> 8);
    eth[13] = uint8_t(ether_type);
    if (scratch_.size() < kEthernetHeaderLen + network_len) {
        scratch_.resize(kEthernetHeaderLen + network_len);
        eth = scratch_.data();
    }
    std::memcpy(eth + kEthernetHeaderLen, network, network_len);
    const uint32_t wire_len =
        (len > header_len_ ? len - header_len_ : network_len) + kEthernetHeaderLen;
    return {eth, kEthernetHeaderLen + network_len, wire_len, if_index};
}

}  // namespace quelm_tool
