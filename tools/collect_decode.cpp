#include "collect_decode.h"

#include <arpa/inet.h>
#include <pelda.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "quelm_wire.h"

namespace quelm_tool {
namespace {

namespace wire = quelm::wire;

// A TLV batch into records; false with a message when the batch is malformed.
bool decode_tlv(const std::string &payload, std::vector<Record> *records, std::string *problem) {
    pelda_tlv_reader reader;
    if (pelda_tlv_reader_init(&reader, payload.data(), uint32_t(payload.size())) != 0) {
        *problem = "the payload is not a TLV batch of a known version";
        return false;
    }
    records->assign(1, Record::object());
    std::vector<Record *> open = {&records->back()};  // the record, then its open blocks
    pelda_tlv_element e;
    int rc;
    while ((rc = pelda_tlv_reader_next(&reader, &e)) == 1) {
        if (e.kind == PELDA_TLV_END_OF_RECORD) {
            records->push_back(Record::object());
            open.assign(1, &records->back());
            continue;
        }
        if (e.kind == PELDA_TLV_END_OF_BLOCK) {
            if (open.size() > 1) open.pop_back();
            continue;
        }
        std::string key = e.key_kind == PELDA_TLV_KEY_NUMBER ? std::to_string(e.key_number)
                          : e.key_kind == PELDA_TLV_KEY_TEXT
                              ? std::string(e.key_text, e.key_text_len)
                              : std::string();
        Record &value = (*open.back())[key];
        if (e.kind == PELDA_TLV_STRING) {
            value = std::string(e.string, e.string_len);
        } else if (e.kind == PELDA_TLV_UINT32 || e.kind == PELDA_TLV_UINT64) {
            value = uint64_t(e.number);
        } else {  // start of block
            value = Record::object();
            open.push_back(&value);
        }
    }
    if (rc < 0) {
        *problem = "the TLV batch is malformed (truncated, unknown element or bad nesting)";
        return false;
    }
    if (open.size() != 1) {
        *problem = "the TLV batch ends inside a block";
        return false;
    }
    return true;
}

// A JSON payload into records: one object, or (flows only) an array of them.
bool decode_json(const std::string &payload, bool stats, std::vector<Record> *records,
                 std::string *problem) {
    Record batch;
    std::string error;
    if (!parse_record_json(payload, &batch, &error)) {
        *problem = "bad JSON: " + error;
        return false;
    }
    if (batch.is_object()) {
        records->push_back(std::move(batch));
        return true;
    }
    if (!batch.is_array() || stats) {
        *problem = "the JSON payload is not a record";
        return false;
    }
    for (Record &item : batch) {
        if (!item.is_object()) {
            *problem = "a JSON batch holds something other than records";
            return false;
        }
        records->push_back(std::move(item));
    }
    return true;
}

}  // namespace

uint32_t CounterTracker::see(uint32_t counter) {
    uint32_t lost = 0;
    restarted_ = false;
    // Counters start at 0: a first message with a later one means the earlier ones went missing
    // (a collector that joined a running exporter, or was restarted).
    if (!started_ && counter != 0) {
        lost = counter;
        lost_ += lost;
    } else if (started_ && counter != expected_) {
        if (counter > expected_) {
            lost = counter - expected_;
            lost_ += lost;
        } else {
            restarted_ = true;
        }
    }
    started_ = true;
    expected_ = counter + 1;
    return lost;
}

const char *malformed_name(Malformed reason) {
    static const char *const names[] = {"parts",   "header size", "topic", "size mismatch",
                                        "version", "JSON",        "TLV"};
    static_assert(std::size(names) == size_t(Malformed::kCount));
    return names[size_t(reason)];
}

DecodedMessage decode_message(const std::vector<std::string> &parts) {
    DecodedMessage m;
    auto malformed = [&m](Malformed reason, std::string problem) {
        m.reason = reason;
        if (!problem.empty()) m.problem = std::move(problem);
        return m;
    };
    // The counter first: a message that is malformed otherwise still tells what was sent.
    if (!parts.empty() && parts[0].size() == wire::kHeaderLen) {
        uint32_t counter_be;
        std::memcpy(&counter_be, parts[0].data() + wire::kCounterAt, 4);
        m.counter = ntohl(counter_be);
        m.counter_known = true;
    }
    if (parts.size() != 2)
        return malformed(Malformed::kParts, parts.size() < 2
                                                ? "1 part instead of 2 (header, payload)"
                                                : "more than 2 parts (header, payload)");
    const std::string &header = parts[0], &payload = parts[1];
    if (header.size() != wire::kHeaderLen)
        return malformed(Malformed::kHeaderSize, "a header of " + std::to_string(header.size()) +
                                                     " bytes instead of " +
                                                     std::to_string(wire::kHeaderLen));
    const std::string topic(header.data(), strnlen(header.data(), wire::kTopicLen));
    if (header.find_first_not_of('\0', topic.size()) < wire::kTopicLen)
        return malformed(Malformed::kTopic, "the topic is not zero-padded");
    if (topic != wire::kTopicFlow && topic != wire::kTopicEvent)
        return malformed(Malformed::kTopic, "unknown topic '" + topic + "'");
    m.stats = topic == wire::kTopicEvent;
    // The size is in the exporter's byte order: either order must match the part's length.
    uint16_t size;
    std::memcpy(&size, header.data() + wire::kSizeAt, 2);
    if (size != payload.size() && ntohs(size) != payload.size())
        return malformed(Malformed::kSize, "the header's size " + std::to_string(size) +
                                               " is not the payload's " +
                                               std::to_string(payload.size()) + " bytes");
    const uint8_t version = uint8_t(header[wire::kVersionAt]);
    const bool looks_json = !payload.empty() && (payload[0] == '{' || payload[0] == '[');
    if (version == wire::kVersionJson) {
        if (!looks_json)
            return malformed(Malformed::kVersion, "the version byte says JSON, the payload is not");
        if (!decode_json(payload, m.stats, &m.records, &m.problem)) {
            m.records.clear();
            return malformed(Malformed::kJson, "");
        }
    } else if (version == wire::kVersionTlv) {
        if (m.stats)
            return malformed(Malformed::kVersion, "a statistics record must be JSON (version 2)");
        if (looks_json)
            return malformed(Malformed::kVersion, "the version byte says TLV, the payload is JSON");
        if (!decode_tlv(payload, &m.records, &m.problem)) {
            m.records.clear();
            return malformed(Malformed::kTlv, "");
        }
    } else {
        return malformed(Malformed::kVersion, "unknown version byte " + std::to_string(version));
    }
    m.ok = true;
    return m;
}

namespace {

// The ICMP fields of a record, from its ports: the designed key has type << 8 | code in the
// destination port and 0 in the source; a query keyed with its replies has the query type << 8
// in one port (the destination, unless the flow began with the reply) and its identifier in the
// other.
void icmp_fields(uint64_t sport, uint64_t dport, FlowFields *f) {
    if (sport == 0) {
        f->icmp_type = int(dport >> 8);
        f->icmp_code = int(dport & 0xFF);
        return;
    }
    auto query_type = [](uint64_t port) {
        static const uint8_t kQueries[] = {8, 13, 15, 17, 128, 139};
        return (port & 0xFF) == 0 &&
               std::find(std::begin(kQueries), std::end(kQueries), port >> 8) != std::end(kQueries);
    };
    const bool from_reply = !query_type(dport) && query_type(sport);
    f->icmp_from_reply = from_reply;
    f->icmp_type = int((from_reply ? sport : dport) >> 8);
    f->icmp_code = 0;
    f->icmp_id = int(from_reply ? dport : sport);
}

}  // namespace

void received_flow_fields(const Record &record, const std::string &probe,
                          std::string (*protocol_name)(const std::string &ids),
                          ReceivedTexts *texts, FlowFields *out) {
    FlowFields &f = *out;
    f.probe = probe.c_str();
    uint64_t ports[2] = {}, first = 0, last = 0;
    bool has_port[2] = {}, has_first = false, has_last = false;
    std::string more;
    for (auto it = record.begin(); it != record.end(); ++it) {
        const wire::Field *field = wire::find_field(it.key().c_str());
        const Record &v = it.value();
        const bool number = v.is_number_unsigned();
        const uint64_t n = number ? v.get<uint64_t>() : 0;
        const char *text = v.is_string() ? v.get_ref<const std::string &>().c_str() : nullptr;
        auto take = [&](uint64_t max) { return number && n <= max; };
        bool placed = false;
        switch (field != nullptr ? field->id : UINT32_MAX) {
            case wire::kSrcVlan:
                if ((placed = take(4095))) f.vlan = int(n);
                break;
            case wire::kInSrcMac:
            case wire::kInDstMac: {
                const bool src = field->id == wire::kInSrcMac;
                std::string &mac = src ? texts->src_mac : texts->dest_mac;
                if (!(placed = text != nullptr)) break;
                mac = text;
                std::transform(mac.begin(), mac.end(), mac.begin(),
                               [](char c) { return c >= 'A' && c <= 'Z' ? char(c + 32) : c; });
                (src ? f.src_mac : f.dest_mac) = mac.c_str();
                break;
            }
            case wire::kIpProtocolVersion:  // the addresses' keys say it
                placed = take(UINT8_MAX);
                break;
            case wire::kIpv4SrcAddr:
            case wire::kIpv6SrcAddr:
                if ((placed = text != nullptr)) f.src_ip = text;
                break;
            case wire::kIpv4DstAddr:
            case wire::kIpv6DstAddr:
                if ((placed = text != nullptr)) f.dest_ip = text;
                break;
            case wire::kInPkts:
            case wire::kInBytes:
            case wire::kOutPkts:
            case wire::kOutBytes: {
                const uint32_t id = field->id;
                FlowFields::Direction &d =
                    id == wire::kInPkts || id == wire::kInBytes ? f.ts : f.tc;
                if ((placed = take(INT64_MAX)))
                    (id == wire::kInPkts || id == wire::kOutPkts ? d.pkts : d.bytes) = int64_t(n);
                break;
            }
            case wire::kFirstSwitched:
                if ((placed = has_first = take(UINT32_MAX))) first = n;
                break;
            case wire::kLastSwitched:
                if ((placed = has_last = take(UINT32_MAX))) last = n;
                break;
            case wire::kL4SrcPort:
            case wire::kL4DstPort: {
                const int i = field->id == wire::kL4DstPort;
                if ((placed = has_port[i] = take(UINT16_MAX))) ports[i] = n;
                break;
            }
            case wire::kTcpFlags:
                if ((placed = take(UINT8_MAX))) f.ts.tcp_flags = int(n);
                break;
            case wire::kProtocol:
                if ((placed = take(UINT8_MAX))) f.ip_protocol = int(n);
                break;
            case 0: {  // the application protocol, "MASTER.APP"
                unsigned master = 0, app = 0;
                char dot = 0, end = 0;
                placed = text != nullptr &&
                         sscanf(text, "%u%c%u%c", &master, &dot, &app, &end) == 3 && dot == '.' &&
                         master <= UINT16_MAX && app <= UINT16_MAX;
                if (!placed) break;
                f.l7_known = true;
                f.l7 = {uint16_t(master), uint16_t(app), 0};
                if (protocol_name != nullptr) texts->app_name = protocol_name(text);
                if (!texts->app_name.empty()) f.app_name = texts->app_name.c_str();
                break;
            }
            default:  // src_tos, input_snmp, output_snmp, port_id and keys without a name
                break;
        }
        if (placed) continue;
        if (!more.empty()) more += ',';
        write_record_json(field != nullptr ? field->netflow : it.key(), &more);
        more += ':';
        write_record_json(v, &more);
    }
    const bool tcp_udp = f.ip_protocol == 6 || f.ip_protocol == 17;
    if (tcp_udp) {
        if (has_port[0]) f.src_port = int(ports[0]);
        if (has_port[1]) f.dest_port = int(ports[1]);
    } else if ((f.ip_protocol == 1 || f.ip_protocol == 58) && has_port[1]) {
        icmp_fields(ports[0], ports[1], &f);
    } else if (f.ip_protocol < 0) {  // ports of an unknown protocol are kept as they came
        for (int i = 0; i < 2; i++)
            if (has_port[i])
                more += std::string(more.empty() ? "" : ",") +
                        (i == 0 ? "\"l4_src_port\":" : "\"l4_dst_port\":") +
                        std::to_string(ports[i]);
    }
    if (f.ip_protocol != 6) f.ts.tcp_flags = -1;
    if (has_first || has_last) {
        f.timed = true;
        f.start = {int64_t(has_first ? first : last), 0};
        f.end = {int64_t(has_last && last >= first ? last : f.start.tv_sec), 0};
    }
    f.more = std::move(more);
}

Record name_flow_fields(const Record &record, const std::string &probe,
                        std::string (*protocol_name)(const std::string &ids)) {
    Record out = {{"event_type", "flow"}, {"probe", probe}};
    for (auto it = record.begin(); it != record.end(); ++it) {
        const std::string &key = it.key();
        const wire::Field *field = wire::find_field(key.c_str());
        out[field != nullptr ? field->netflow : "field_" + key] = it.value();
        if (key == wire::kL7ProtoKey && protocol_name != nullptr && it->is_string()) {
            const std::string name = protocol_name(it->get<std::string>());
            if (!name.empty()) out["l7_proto_name"] = name;
        }
    }
    return out;
}

}  // namespace quelm_tool
