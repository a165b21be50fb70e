// The export wire format, written by the library and read by collectors and tests: the message
// header, the payload versions, the topics and the flow record's fields. Header-only and free of
// the library's types, so that a collector can include it alone.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace quelm::wire {

// Every message is two parts: this header, then the payload.
inline constexpr size_t kHeaderLen = 24;
inline constexpr size_t kTopicLen = 16;  // the topic, zero-padded, opens the header
inline constexpr size_t kVersionAt = 16, kSizeAt = 18, kCounterAt = 20;
inline constexpr uint8_t kVersionJson = 2, kVersionTlv = 3;
inline constexpr const char *kTopicFlow = "flow";
inline constexpr const char *kTopicEvent = "event";

enum class FieldType : uint8_t { u32, u64, text };

// One field of a flow record: its key in the record (a NetFlow v9 element id, or a
// "ENTERPRISE.ID" text key), its NetFlow name, its name in EVE-shaped flow events ("" when they
// carry no such field), and its type.
struct Field {
    uint32_t id;      // 0 for text keys
    const char *key;  // the id as text, or the text key
    const char *netflow;
    const char *eve;
    FieldType type;
};

enum FieldId : uint32_t {
    kInBytes = 1,
    kInPkts = 2,
    kProtocol = 4,
    kSrcTos = 5,
    kTcpFlags = 6,
    kL4SrcPort = 7,
    kIpv4SrcAddr = 8,
    kInputSnmp = 10,
    kL4DstPort = 11,
    kIpv4DstAddr = 12,
    kOutputSnmp = 14,
    kLastSwitched = 21,
    kFirstSwitched = 22,
    kOutBytes = 23,
    kOutPkts = 24,
    kIpv6SrcAddr = 27,
    kIpv6DstAddr = 28,
    kInSrcMac = 56,
    kSrcVlan = 58,
    kIpProtocolVersion = 60,
    kInDstMac = 80,
    kPortId = 300,
};

// The application protocol, "MASTER.APP" engine ids, under the engine maker's enterprise number.
inline constexpr const char *kL7ProtoKey = "47521.118";

// In the order the library writes them.
inline constexpr Field kFlowFields[] = {
    {kSrcVlan, "58", "src_vlan", "vlan", FieldType::u32},
    {kInSrcMac, "56", "in_src_mac", "ether.src_mac", FieldType::text},
    {kInDstMac, "80", "in_dst_mac", "ether.dest_mac", FieldType::text},
    {kIpProtocolVersion, "60", "ip_protocol_version", "", FieldType::u32},
    {kIpv4SrcAddr, "8", "ipv4_src_addr", "src_ip", FieldType::text},
    {kIpv4DstAddr, "12", "ipv4_dst_addr", "dest_ip", FieldType::text},
    {kIpv6SrcAddr, "27", "ipv6_src_addr", "src_ip", FieldType::text},
    {kIpv6DstAddr, "28", "ipv6_dst_addr", "dest_ip", FieldType::text},
    {kInPkts, "2", "in_pkts", "flow.pkts_toserver", FieldType::u64},
    {kInBytes, "1", "in_bytes", "flow.bytes_toserver", FieldType::u64},
    {kOutPkts, "24", "out_pkts", "flow.pkts_toclient", FieldType::u64},
    {kOutBytes, "23", "out_bytes", "flow.bytes_toclient", FieldType::u64},
    {kFirstSwitched, "22", "first_switched", "flow.start", FieldType::u32},
    {kLastSwitched, "21", "last_switched", "flow.end", FieldType::u32},
    {kL4SrcPort, "7", "l4_src_port", "src_port", FieldType::u32},
    {kL4DstPort, "11", "l4_dst_port", "dest_port", FieldType::u32},
    {kTcpFlags, "6", "tcp_flags", "tcp.tcp_flags_ts", FieldType::u32},
    {kProtocol, "4", "protocol", "proto", FieldType::u32},
    {kSrcTos, "5", "src_tos", "", FieldType::u32},
    {kInputSnmp, "10", "input_snmp", "", FieldType::u32},
    {kOutputSnmp, "14", "output_snmp", "", FieldType::u32},
    {kPortId, "300", "port_id", "", FieldType::u32},  // the capture layer's source (port) id
    {0, kL7ProtoKey, "l7_proto", "app_proto_id", FieldType::text},
};

// The field of a record key ("58", "47521.118"), or null.
constexpr const Field *find_field(const char *key) {
    for (const Field &f : kFlowFields) {
        const char *a = f.key, *b = key;
        while (*a != '\0' && *a == *b) {
            a++;
            b++;
        }
        if (*a == *b) return &f;
    }
    return nullptr;
}

}  // namespace quelm::wire
