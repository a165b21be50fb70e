#include "link_adapter.h"

#include <pcap/pcap.h>

#include <cstring>

namespace quelm_tool {

// What a link header says about the packet behind it. The readers below fill it in and return
// false when the capture ends inside the link header. A header they do not understand leaves
// EtherType 0: the library counts the packet as not IP.
struct LinkHeader {
    static constexpr uint32_t kToTheEnd = UINT32_MAX;
    uint32_t offset = 0;               // bytes in front of the network header
    uint32_t network_len = kToTheEnd;  // the packet's length when the link header gives it
    uint32_t trailer = 0;              // bytes of FCS the frame says it ends with
    uint16_t ether_type = 0;
    uint8_t if_index = 0;
    const uint8_t *dst_mac = nullptr;
    const uint8_t *src_mac = nullptr;
    LinkRefusal refusal = LinkRefusal::kNone;
};

namespace {

constexpr uint32_t kEthernetHeaderLen = 14;
constexpr uint16_t kEtherTypeIpv4 = 0x0800;
constexpr uint16_t kEtherTypeIpv6 = 0x86DD;
constexpr uint16_t kEtherTypeMpls = 0x8847;
constexpr uint16_t kEtherTypeMplsMulticast = 0x8848;
// Room for the largest snapshot length libpcap writes; bigger packets grow the buffer once.
constexpr size_t kScratchSize = kEthernetHeaderLen + kLargestSnapshot;

constexpr uint32_t kSllHeaderLen = 16, kSll2HeaderLen = 20, kNullHeaderLen = 4;
constexpr uint32_t kMacLen = 6;  // a cooked header's address of this length is a MAC

// PPP and the HDLC framings around it.
constexpr uint8_t kHdlcAddressAll = 0xFF, kHdlcControlUi = 0x03;
constexpr uint8_t kCiscoHdlcUnicast = 0x0F, kCiscoHdlcMulticast = 0x8F;
constexpr uint32_t kCiscoHdlcHeaderLen = 4;
constexpr uint32_t kPppoeSessionHeaderLen = 6;
constexpr uint16_t kPppIpv4 = 0x0021, kPppIpv6 = 0x0057, kPppMpls = 0x0281,
                   kPppMplsMulticast = 0x0283;

// Frame Relay (Q.922 address, then RFC 2427 multiprotocol encapsulation).
constexpr uint32_t kQ922MaxAddressLen = 4;
constexpr uint8_t kQ922AddressEnd = 0x01;  // EA bit: the last byte of the address
constexpr uint8_t kNlpidPad = 0x00, kNlpidSnap = 0x80, kNlpidIpv4 = 0xCC, kNlpidIpv6 = 0x8E;

// LLC/SNAP: AA AA 03, then an OUI and the EtherType. Only the OUIs of encapsulated Ethernet
// (RFC 1042 and 802.1H) carry an EtherType.
constexpr uint8_t kLlcSnap[] = {0xAA, 0xAA, 0x03};
constexpr uint32_t kSnapLen = 5;  // OUI + EtherType
constexpr uint8_t kOuiBridgeTunnel = 0xF8;

constexpr uint32_t kSlipHeaderLen = 16;  // direction byte + 15 bytes of the compressed header

// NFLOG: family, version, resource id; then TLVs with length and type in the byte order of the
// machine that reads the capture (libpcap swaps them from the writer's).
constexpr uint32_t kNflogHeaderLen = 4, kNflogTlvHeaderLen = 4;
constexpr uint16_t kNflogPayload = 9;
constexpr uint8_t kFamilyIpv4 = 2, kFamilyIpv6 = 10;

// IEEE 802.11.
constexpr uint8_t kWifiTypeData = 2;
constexpr uint8_t kWifiSubtypeNoData = 0x04, kWifiSubtypeQos = 0x08;
constexpr uint8_t kWifiToDs = 0x01, kWifiFromDs = 0x02, kWifiProtected = 0x40, kWifiOrder = 0x80;
constexpr uint32_t kWifiHeaderLen = 24, kWifiAddr4Len = 6, kWifiQosLen = 2, kWifiHtLen = 4;
constexpr uint32_t kWifiAddr1 = 4, kWifiAddr2 = 10, kWifiAddr3 = 16, kWifiAddr4 = 24;
constexpr int kLinkIeee80211 = 105;
// Radiotap: version, pad, length, present bitmaps; the fields follow, each aligned to its size.
constexpr uint32_t kRadiotapHeaderLen = 8;
constexpr uint32_t kRadiotapTsft = 1u << 0, kRadiotapFlags = 1u << 1, kRadiotapExt = 1u << 31;
constexpr uint8_t kRadiotapFlagFcs = 0x10, kRadiotapFlagDataPad = 0x20;
constexpr uint32_t kWifiFcsLen = 4;
// PPI: version, flags, length, link type of what follows.
constexpr uint32_t kPpiHeaderLen = 8;

constexpr uint32_t kIpoibHeaderLen = 44;
constexpr uint32_t kIpoibEtherTypeAt = 40;

constexpr uint32_t kFddiHeaderLen = 13;  // frame control + destination + source
constexpr uint8_t kFddiClassMask = 0x30, kFddiClassLlc = 0x10;

// ATM: LLC-multiplexed virtual circuits carry LLC/SNAP, others IP alone. SunATM puts flags, VPI and
// VCI in front.
constexpr uint32_t kSunAtmHeaderLen = 4;
// IPNET: version, address family, hardware type, lengths, interface and zone ids; then IP.
constexpr uint32_t kIpnetHeaderLen = 24;

uint16_t read16(const uint8_t *p) {
    return uint16_t(p[0] << 8 | p[1]);
}
uint16_t read16_le(const uint8_t *p) {
    return uint16_t(p[1] << 8 | p[0]);
}
uint32_t read32_le(const uint8_t *p) {
    return uint32_t(p[3]) << 24 | uint32_t(p[2]) << 16 | uint32_t(p[1]) << 8 | p[0];
}
uint16_t read16_host(const uint8_t *p) {
    uint16_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// Without a link-layer type field the IP version nibble tells IPv4 from IPv6.
bool read_ip_version(const uint8_t *p, uint32_t caplen, uint32_t at, LinkHeader &h) {
    if (caplen < at) return false;
    h.offset = at;
    if (caplen == at) return true;
    switch (p[at] >> 4) {
        case 4:
            h.ether_type = kEtherTypeIpv4;
            break;
        case 6:
            h.ether_type = kEtherTypeIpv6;
            break;
    }
    return true;
}

bool read_ether_type(const uint8_t *p, uint32_t caplen, uint32_t at, LinkHeader &h) {
    if (caplen < at + 2) return false;
    h.ether_type = read16(p + at);
    h.offset = at + 2;
    return true;
}

// Linux cooked v1: EtherType at offset 14; the sender's address at 6.
bool read_sll(const uint8_t *p, uint32_t caplen, LinkHeader &h) {
    if (caplen < kSllHeaderLen) return false;
    h.ether_type = read16(p + 14);
    h.offset = kSllHeaderLen;
    if (read16(p + 4) == kMacLen) h.src_mac = p + 6;  // the sender's MAC
    return true;
}

// Linux cooked v2: EtherType first; the interface index; the sender's address at 12.
bool read_sll2(const uint8_t *p, uint32_t caplen, LinkHeader &h) {
    if (caplen < kSll2HeaderLen) return false;
    h.ether_type = read16(p);
    h.offset = kSll2HeaderLen;
    if (p[11] == kMacLen) h.src_mac = p + 12;
    const uint32_t ifindex =
        uint32_t(p[4]) << 24 | uint32_t(p[5]) << 16 | uint32_t(p[6]) << 8 | p[7];
    if (ifindex <= 0xFF) h.if_index = uint8_t(ifindex);
    return true;
}

bool read_raw_ip(const uint8_t *p, uint32_t caplen, LinkHeader &h) {
    return read_ip_version(p, caplen, 0, h);
}

// BSD loopback: a 4-byte address family, in an order that varies; the IP version decides.
bool read_null(const uint8_t *p, uint32_t caplen, LinkHeader &h) {
    return read_ip_version(p, caplen, kNullHeaderLen, h);
}

// Cisco HDLC: address, control, EtherType.
bool read_cisco_hdlc(const uint8_t *p, uint32_t caplen, LinkHeader &h) {
    return read_ether_type(p, caplen, kCiscoHdlcHeaderLen - 2, h);
}

// The PPP protocol field at `at`: two bytes, or one when compressed (an odd first byte).
bool read_ppp_protocol(const uint8_t *p, uint32_t caplen, uint32_t at, LinkHeader &h) {
    if (caplen <= at) return false;
    uint16_t protocol = p[at];
    if ((protocol & 1) == 0) {
        if (caplen < at + 2) return false;
        protocol = read16(p + at);
        at++;
    }
    h.offset = at + 1;
    switch (protocol) {
        case kPppIpv4:
            h.ether_type = kEtherTypeIpv4;
            break;
        case kPppIpv6:
            h.ether_type = kEtherTypeIpv6;
            break;
        case kPppMpls:
            h.ether_type = kEtherTypeMpls;
            break;
        case kPppMplsMulticast:
            h.ether_type = kEtherTypeMplsMulticast;
            break;
    }
    return true;
}

// Serial links carry PPP in HDLC framing (FF 03, which may be left out) or Cisco HDLC.
bool read_ppp(const uint8_t *p, uint32_t caplen, LinkHeader &h) {
    if (caplen == 0) return false;
    if (p[0] == kCiscoHdlcUnicast || p[0] == kCiscoHdlcMulticast)
        return read_cisco_hdlc(p, caplen, h);
    const bool framed = caplen >= 2 && p[0] == kHdlcAddressAll && p[1] == kHdlcControlUi;
    return read_ppp_protocol(p, caplen, framed ? 2 : 0, h);
}

// PPPoE: the session header, then the PPP protocol.
bool read_pppoe(const uint8_t *p, uint32_t caplen, LinkHeader &h) {
    return read_ppp_protocol(p, caplen, kPppoeSessionHeaderLen, h);
}

// An OUI and an EtherType at `at`.
bool read_snap(const uint8_t *p, uint32_t caplen, uint32_t at, LinkHeader &h) {
    if (caplen < at + kSnapLen) return false;
    h.offset = at + kSnapLen;
    if (p[at] == 0 && p[at + 1] == 0 && (p[at + 2] == 0 || p[at + 2] == kOuiBridgeTunnel))
        h.ether_type = read16(p + at + 3);
    return true;
}

bool read_llc_snap(const uint8_t *p, uint32_t caplen, uint32_t at, LinkHeader &h) {
    if (caplen < at + sizeof kLlcSnap) return false;
    h.offset = at;
    if (std::memcmp(p + at, kLlcSnap, sizeof kLlcSnap) != 0) return true;
    return read_snap(p, caplen, at + sizeof kLlcSnap, h);
}

// Frame Relay: a Q.922 address, then control (UI), an optional pad and an NLPID (IP, or SNAP with
// an EtherType); or, Cisco's way, an EtherType right after the address.
bool read_frame_relay(const uint8_t *p, uint32_t caplen, LinkHeader &h) {
    uint32_t at = 0;
    do {
        if (at == caplen) return false;
        if (at == kQ922MaxAddressLen) return true;  // no end to the address: not ours to read
    } while ((p[at++] & kQ922AddressEnd) == 0);
    h.offset = at;
    if (at < 2) return true;
    if (caplen <= at) return false;
    if (p[at] != kHdlcControlUi) return read_ether_type(p, caplen, at, h);  // Cisco's way
    at++;
    if (at < caplen && p[at] == kNlpidPad) at++;
    if (caplen <= at) return false;
    h.offset = at + 1;
    switch (p[at]) {
        case kNlpidIpv4:
            h.ether_type = kEtherTypeIpv4;
            return true;
        case kNlpidIpv6:
            h.ether_type = kEtherTypeIpv6;
            return true;
        case kNlpidSnap:
            return read_snap(p, caplen, at + 1, h);
        default:
            return true;
    }
}

// SLIP: the pseudo-header, then IP; compressed TCP has no IP version and is not IP to us.
bool read_slip(const uint8_t *p, uint32_t caplen, LinkHeader &h) {
    return read_ip_version(p, caplen, kSlipHeaderLen, h);
}

// Linux NFLOG: the packet is the payload TLV, and its length is the packet's.
bool read_nflog(const uint8_t *p, uint32_t caplen, LinkHeader &h) {
    if (caplen < kNflogHeaderLen) return false;
    for (uint32_t at = kNflogHeaderLen; caplen >= at + kNflogTlvHeaderLen;) {
        const uint16_t tlv_len = read16_host(p + at);
        if (tlv_len < kNflogTlvHeaderLen) return false;
        if (read16_host(p + at + 2) == kNflogPayload) {
            h.offset = at + kNflogTlvHeaderLen;
            h.network_len = tlv_len - kNflogTlvHeaderLen;
            if (p[0] == kFamilyIpv4) h.ether_type = kEtherTypeIpv4;
            if (p[0] == kFamilyIpv6) h.ether_type = kEtherTypeIpv6;
            return true;
        }
        at += (tlv_len + 3u) & ~3u;
    }
    return false;
}

// 802.11 data frames with LLC/SNAP; the MACs from the frame's addresses. `data_pad`: the radiotap
// flag that says the header is padded to a multiple of 4 bytes.
bool read_wifi(const uint8_t *p, uint32_t caplen, LinkHeader &h, bool data_pad) {
    if (caplen < 2) return false;
    const uint8_t version = p[0] & 3, type = p[0] >> 2 & 3, subtype = p[0] >> 4, flags = p[1];
    if ((flags & kWifiProtected) != 0) {
        h.refusal = LinkRefusal::kEncrypted;
        return true;
    }
    if (version != 0 || type != kWifiTypeData || (subtype & kWifiSubtypeNoData) != 0) return true;
    const bool to_ds = flags & kWifiToDs, from_ds = flags & kWifiFromDs;
    uint32_t at = kWifiHeaderLen + (to_ds && from_ds ? kWifiAddr4Len : 0);
    if ((subtype & kWifiSubtypeQos) != 0) at += kWifiQosLen + (flags & kWifiOrder ? kWifiHtLen : 0);
    if (data_pad) at = (at + 3) & ~3u;
    if (caplen < at) return false;
    h.dst_mac = p + (to_ds ? kWifiAddr3 : kWifiAddr1);
    h.src_mac = p + (from_ds ? (to_ds ? kWifiAddr4 : kWifiAddr3) : kWifiAddr2);
    return read_llc_snap(p, caplen, at, h);
}

bool read_ieee80211(const uint8_t *p, uint32_t caplen, LinkHeader &h) {
    return read_wifi(p, caplen, h, false);
}

// An 802.11 frame behind a capture header of `header_len` bytes.
bool read_wifi_at(const uint8_t *p, uint32_t caplen, uint32_t header_len, LinkHeader &h,
                  bool data_pad = false) {
    if (caplen < header_len || !read_wifi(p + header_len, caplen - header_len, h, data_pad))
        return false;
    h.offset += header_len;
    return true;
}

// Radiotap, then 802.11. Its flags field (after the TSFT field, if any) may announce an FCS
// and a padded 802.11 header.
bool read_radiotap(const uint8_t *p, uint32_t caplen, LinkHeader &h) {
    if (caplen < kRadiotapHeaderLen) return false;
    const uint32_t header_len = read16_le(p + 2);
    if (header_len < kRadiotapHeaderLen || caplen < header_len) return false;
    const uint32_t present = read32_le(p + 4);
    uint32_t at = kRadiotapHeaderLen;  // past the present bitmaps, to the first field
    for (uint32_t word = present; (word & kRadiotapExt) != 0; at += 4) {
        if (header_len < at + 4) return false;
        word = read32_le(p + at);
    }
    if ((present & kRadiotapTsft) != 0) at = ((at + 7) & ~7u) + 8;
    uint8_t flags = 0;
    if ((present & kRadiotapFlags) != 0) {
        if (header_len <= at) return false;
        flags = p[at];
    }
    if ((flags & kRadiotapFlagFcs) != 0) h.trailer = kWifiFcsLen;
    return read_wifi_at(p, caplen, header_len, h, (flags & kRadiotapFlagDataPad) != 0);
}

// PPI, then 802.11; a PPI header in front of anything else leaves EtherType 0.
bool read_ppi(const uint8_t *p, uint32_t caplen, LinkHeader &h) {
    if (caplen < kPpiHeaderLen) return false;
    const uint32_t header_len = read16_le(p + 2);
    if (header_len < kPpiHeaderLen || caplen < header_len) return false;
    if (read32_le(p + 4) != kLinkIeee80211) {
        h.offset = header_len;
        return true;
    }
    return read_wifi_at(p, caplen, header_len, h);
}

// IP over InfiniBand: two 20-byte hardware addresses, EtherType, 2 reserved bytes.
bool read_ipoib(const uint8_t *p, uint32_t caplen, LinkHeader &h) {
    if (caplen < kIpoibHeaderLen) return false;
    h.ether_type = read16(p + kIpoibEtherTypeAt);
    h.offset = kIpoibHeaderLen;
    return true;
}

// FDDI: frame control, destination, source; LLC frames carry LLC/SNAP.
bool read_fddi(const uint8_t *p, uint32_t caplen, LinkHeader &h) {
    if (caplen < kFddiHeaderLen) return false;
    h.dst_mac = p + 1;
    h.src_mac = p + 7;
    h.offset = kFddiHeaderLen;
    if ((p[0] & kFddiClassMask) != kFddiClassLlc) return true;
    return read_llc_snap(p, caplen, kFddiHeaderLen, h);
}

bool read_atm(const uint8_t *p, uint32_t caplen, uint32_t at, LinkHeader &h) {
    if (caplen >= at + sizeof kLlcSnap && std::memcmp(p + at, kLlcSnap, sizeof kLlcSnap) == 0)
        return read_llc_snap(p, caplen, at, h);
    return read_ip_version(p, caplen, at, h);
}

bool read_atm_llc(const uint8_t *p, uint32_t caplen, LinkHeader &h) {
    return read_atm(p, caplen, 0, h);
}

bool read_sunatm(const uint8_t *p, uint32_t caplen, LinkHeader &h) {
    return read_atm(p, caplen, kSunAtmHeaderLen, h);
}

bool read_ipnet(const uint8_t *p, uint32_t caplen, LinkHeader &h) {
    return read_ip_version(p, caplen, kIpnetHeaderLen, h);
}

struct LinkFamily {
    int link_type;
    LinkAdapter::Reader read;  // null for Ethernet
};

// Link types by the numbers libpcap reports (pcap_datalink), which are not always the numbers in
// the file: LINKTYPE_RAW (101) reads as DLT_RAW (12 on Linux, 14 on OpenBSD).
constexpr LinkFamily kFamilies[] = {
    {1, nullptr},                      // DLT_EN10MB
    {113, read_sll},                   // DLT_LINUX_SLL
    {276, read_sll2},                  // DLT_LINUX_SLL2
    {12, read_raw_ip},                 // DLT_RAW
    {14, read_raw_ip},                 // DLT_RAW on OpenBSD
    {101, read_raw_ip},                // LINKTYPE_RAW
    {228, read_raw_ip},                // DLT_IPV4
    {229, read_raw_ip},                // DLT_IPV6
    {0, read_null},                    // DLT_NULL: address family in the writer's byte order
    {108, read_null},                  // DLT_LOOP: address family in network byte order
    {9, read_ppp},                     // DLT_PPP
    {50, read_ppp},                    // DLT_PPP_SERIAL
    {51, read_pppoe},                  // DLT_PPP_ETHER
    {104, read_cisco_hdlc},            // DLT_C_HDLC
    {107, read_frame_relay},           // DLT_FRELAY
    {8, read_slip},                    // DLT_SLIP
    {239, read_nflog},                 // DLT_NFLOG
    {kLinkIeee80211, read_ieee80211},  // DLT_IEEE802_11
    {127, read_radiotap},              // DLT_IEEE802_11_RADIO
    {192, read_ppi},                   // DLT_PPI
    {242, read_ipoib},                 // DLT_IPOIB
    {10, read_fddi},                   // DLT_FDDI
    {11, read_atm_llc},                // DLT_ATM_RFC1483
    {19, read_atm_llc},                // DLT_ATM_CLIP (Linux)
    {123, read_sunatm},                // DLT_SUNATM
    {226, read_ipnet},                 // DLT_IPNET
};

const LinkFamily *family_of(int link_type) {
    for (const LinkFamily &f : kFamilies)
        if (f.link_type == link_type) return &f;
    return nullptr;
}

// Frame check sequence ends the frame but is not part of the packet: it leaves both lengths (a
// capture cut short of it has none of it).
void drop_trailer(uint32_t trailer, uint32_t &caplen, uint32_t &len) {
    len = len > trailer ? len - trailer : 0;
    if (caplen > len) caplen = len;
}

}  // namespace

bool LinkAdapter::supports(int link_type) {
    return family_of(link_type) != nullptr;
}

std::string LinkAdapter::describe(int link_type) {
    const char *name = pcap_datalink_val_to_name(link_type);
    std::string text = "link type ";
    text += name != nullptr ? name : "unknown";
    text += " (" + std::to_string(link_type) + ")";
    return text;
}

LinkAdapter::LinkAdapter(int link_type, uint32_t fcs_len) : fcs_len_(fcs_len) {
    const LinkFamily *family = family_of(link_type);
    read_ = family != nullptr ? family->read : nullptr;
    if (read_ != nullptr) scratch_.resize(kScratchSize);
}

AdaptedFrame LinkAdapter::rewrite(const uint8_t *packet, uint32_t caplen, uint32_t len) {
    if (fcs_len_ != 0) {
        drop_trailer(fcs_len_, caplen, len);
        if (read_ == nullptr) return {packet, caplen, len, 0};
    }
    uint8_t *eth = scratch_.data();
    std::memset(eth, 0, kEthernetHeaderLen);
    LinkHeader link;
    const bool complete = read_(packet, caplen, link);
    if (link.trailer != 0) drop_trailer(link.trailer, caplen, len);
    if (!complete || link.offset > caplen || link.refusal != LinkRefusal::kNone) {
        // Without a network header (a truncated link header) or refused: an empty Ethernet frame,
        // so that the packet is still counted.
        return {eth, kEthernetHeaderLen, kEthernetHeaderLen, 0, link.refusal};
    }
    if (link.dst_mac != nullptr) std::memcpy(eth, link.dst_mac, kMacLen);
    if (link.src_mac != nullptr) std::memcpy(eth + kMacLen, link.src_mac, kMacLen);
    eth[12] = uint8_t(link.ether_type >> 8);
    eth[13] = uint8_t(link.ether_type);
    const uint8_t *network = packet + link.offset;
    uint32_t network_len = caplen - link.offset;
    if (network_len > link.network_len) network_len = link.network_len;
    if (scratch_.size() < kEthernetHeaderLen + network_len) {
        scratch_.resize(kEthernetHeaderLen + network_len);
        eth = scratch_.data();
    }
    if (network_len != 0) std::memcpy(eth + kEthernetHeaderLen, network, network_len);
    // Byte counts are those of the packet on Ethernet: the wire length less everything in front
    // of the network header (and less the FCS, dropped above), plus an Ethernet header. A link
    // header that gives the packet's length (NFLOG) is taken at its word.
    uint32_t wire_len = link.network_len;
    if (wire_len == LinkHeader::kToTheEnd)
        wire_len = len > link.offset ? len - link.offset : network_len;
    return {eth, kEthernetHeaderLen + network_len, kEthernetHeaderLen + wire_len, link.if_index};
}

}  // namespace quelm_tool
