// The collector's reading of export messages: the header's checks, the TLV and JSON payloads, the
// records' field names and the message counters. No socket here, so that a fuzz target can take it
// alone.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "flow_record.h"
#include "record_json.h"

namespace quelm_tool {

// Why a message is malformed, as the summary counts it.
enum class Malformed { kParts, kHeaderSize, kTopic, kSize, kVersion, kJson, kTlv, kCount };
const char *malformed_name(Malformed reason);

// What one message brought: its records, or why it is malformed.
struct DecodedMessage {
    bool ok = false;
    Malformed reason = Malformed::kCount;
    std::string problem;
    bool stats = false;           // topic "event": statistics records
    uint32_t counter = 0;         // the exporter's message counter
    bool counter_known = false;   // the header was long enough to hold it
    std::vector<Record> records;  // objects, keys as received ("8", "47521.118", ...)
};

// Checks a two-part message (24-byte header, payload) and decodes its payload. A message of more
// than two parts may come with its third part only.
DecodedMessage decode_message(const std::vector<std::string> &parts);

// Texts that the FlowFields of a received record point to besides the record's own.
struct ReceivedTexts {
    std::string app_name, src_mac, dest_mac;  // the MACs in lower case
    char community_id[QUELM_COMMUNITY_ID_SIZE];
};

// The fields of a flow record received from `probe`, as FlowFields; its texts point into `record`,
// `probe` and `texts`, which must outlive `out`. The protocol is named when `protocol_name` knows
// its ids. A field that has no place among them, or comes with a value of another type, is kept
// in out->more under its NetFlow name (its key when it has none).
void received_flow_fields(const Record &record, const std::string &probe,
                          std::string (*protocol_name)(const std::string &ids),
                          ReceivedTexts *texts, FlowFields *out);

// --netflow-names: a flow record with the NetFlow names of its keys, in lower case
// ("ipv4_src_addr"), plus "l7_proto" ("7.91") and its name when `protocol_name` knows it;
// event_type "flow" and the exporter's `probe` first (its keys become field_KEY, so they cannot
// take those names).
Record name_flow_fields(const Record &record, const std::string &probe,
                        std::string (*protocol_name)(const std::string &ids));

// Message counters, which start at 0: gaps are losses (so is a first counter above 0); a counter
// that goes back is an exporter that restarted.
class CounterTracker {
  public:
    // The messages lost just before this one (0 when none).
    uint32_t see(uint32_t counter);
    bool restarted() const { return restarted_; }
    uint64_t lost() const { return lost_; }

  private:
    bool started_ = false;
    bool restarted_ = false;
    uint32_t expected_ = 0;
    uint64_t lost_ = 0;
};

}  // namespace quelm_tool
