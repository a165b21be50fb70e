// A flow record's fields as both programs have them, and the two forms the tool writes them in:
// JSON lines shaped like the flow events that network security pipelines already read, and one
// line for people.
#pragma once

#include <quelm.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace quelm_tool {

// Protocol details are cut to these lengths before they are escaped, which bounds a record.
inline constexpr size_t kMaxNameLen = 255;
inline constexpr size_t kMaxUrlLen = 1024;
// The longest record either format writes, line end included, besides FlowFields::more: the fixed
// fields take under 2 KiB; nine texts (interface, probe, addresses, MACs, protocol and category
// names, a host or query name) and a URL at most six bytes each when escaped.
inline constexpr size_t kMaxRecordLen = 2048 + 6 * (9 * kMaxNameLen + kMaxUrlLen);

// The fields of one flow record, as both programs have them: a flow that leaves the table fills
// every one that applies to it; a record the collector receives fills those it carries. Texts are
// not owned, null when absent; numbers are -1 when absent.
struct FlowFields {
    struct Direction {
        int64_t pkts = -1, bytes = -1;
        int tcp_flags = -1;
    };
    int ip_protocol = -1;
    const char *src_ip = nullptr, *dest_ip = nullptr;
    int src_port = -1, dest_port = -1;  // TCP and UDP
    int icmp_type = -1, icmp_code = -1, icmp_id = -1;
    int vlan = 0;
    const char *src_mac = nullptr, *dest_mac = nullptr;
    Direction ts, tc;  // toserver: from the sender of the first packet; toclient: back
    bool timed = false;
    quelm_timeval start = {}, end = {};
    uint32_t status = 0;  // enum quelm_flow_status, with `ended`
    bool ended = false;   // the tool saw why the flow left the table
    bool by_signal = false;
    // The engine's ids and names; `l7_known` false when the record does not say, `detection` false
    // when no engine looked (--no-dpi).
    bool l7_known = false, detection = true;
    quelm_l7_protocol l7 = {};
    const char *app_name = nullptr, *category = nullptr;
    int guessed = -1;
    const quelm_flow_l7_metadata *details = nullptr;  // of the protocol l7 names
    bool answers_read = false;                        // --extra-dissection
    const char *action = nullptr, *tunnel = nullptr;
    uint32_t tunnel_id = 0;
    int64_t library_id = -1;
    const char *in_iface = nullptr, *probe = nullptr;
    const char *community_id = nullptr;
    bool icmp_from_reply = false;  // an ICMP query flow whose source sent the replies
    // JSON members ("name":value,...) of what has no place above: written in quelm.export.
    std::string more;
};

// Texts that FlowFields of a live flow point to.
struct FlowTexts {
    char src_ip[48], dest_ip[48], src_mac[18], dest_mac[18], app_name[64], category[64];
    char community_id[QUELM_COMMUNITY_ID_SIZE];
};

// The fields of a flow leaving `table` (which may have no detection: then every flow is
// "Unknown"). `answers_read`: the table read answers (--extra-dissection), without which a DNS
// reply code of 0 means "not seen".
void flow_fields(quelm_flow *flow, quelm_table *table, bool answers_read, FlowTexts *texts,
                 FlowFields *out);

// The Community ID of a record's endpoints into `out` (QUELM_COMMUNITY_ID_SIZE bytes), for
// records that are not flows of a table; null when the record lacks addresses or protocol. (A
// table's flows have quelm_flow_community_id.)
const char *community_id(const FlowFields &f, uint16_t seed, char *out);

// The EVE spelling of the engine's protocol ("http"), or null when EVE has no name for it.
const char *eve_app_proto(const quelm_l7_protocol &l7);
// 51 bits (exact as a JavaScript number) of an FNV-1a hash of the flow's addresses, ports (ICMP
// type, code and identifier), protocol, VLAN, start time and probe or interface.
uint64_t flow_id(const FlowFields &f);

// One JSON object and a line end at `out` (kMaxRecordLen + f.more.size() bytes of room); returns
// the bytes written.
size_t format_json_flow(const FlowFields &f, char *out);
// One line for people and a line end, in the same room.
size_t format_text_flow(const FlowFields &f, char *out);
// "2026-11-23T08:53:07.123456+0000": ISO 8601 in UTC with microseconds. `out` needs 32 bytes;
// returns the bytes written (31).
size_t format_timestamp(const quelm_timeval &tv, char *out);
// A JSON string literal (quotes included) of at most `max_len` bytes of `text`, escaped; `out`
// needs 6 * length + 3 bytes. Bytes that are not valid UTF-8 are written as \u0080 to \u00ff
// (their Latin-1 reading), so that the output is always valid JSON.
size_t format_json_string(const char *text, char *out, size_t max_len = SIZE_MAX);
// Usual mnemonics of DNS record types ("AAAA") and reply codes ("NXDOMAIN"); "TYPE65280" and
// "RCODE12" for numbers without one.
std::string dns_type_name(uint16_t type);
std::string dns_rcode_name(uint16_t rcode);

}  // namespace quelm_tool
