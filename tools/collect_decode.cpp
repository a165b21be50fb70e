#include "collect_decode.h"

#include <arpa/inet.h>
#include <pelda.h>

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
