// Fuzzes the collector's reading of messages (header, payload; an odd first byte sets the header's
// size right): read whole or refused for one reason, each record one line of valid JSON in either
// naming, and one text line.
#include <arpa/inet.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "collect_decode.h"
#include "quelm_wire.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    using namespace quelm_tool;
    if (size == 0 || size > (1u << 17)) return 0;
    const std::string rest(reinterpret_cast<const char *>(data) + 1, size - 1);
    const size_t header = std::min(rest.size(), quelm::wire::kHeaderLen);
    std::vector<std::string> parts = {rest.substr(0, header), rest.substr(header)};
    if ((data[0] & 1) != 0 && header == quelm::wire::kHeaderLen) {
        const uint16_t n = htons(uint16_t(parts[1].size()));
        std::memcpy(parts[0].data() + quelm::wire::kSizeAt, &n, 2);
    }
    const DecodedMessage m = decode_message(parts);
    if (m.ok != (m.reason == Malformed::kCount) || m.ok != m.problem.empty()) std::abort();
    for (const Record &record : m.records) {
        std::string line;
        write_record_json(m.stats ? record : name_flow_fields(record, "p", nullptr), &line);
        if (line.find('\n') != std::string::npos || !Record::accept(line)) std::abort();
        if (m.stats) continue;
        // The flow object and the text line: one line each, the first valid JSON.
        FlowFields fields;
        ReceivedTexts texts;
        const std::string probe = "p";
        received_flow_fields(record, probe, nullptr, &texts, &fields);
        for (const bool json : {true, false}) {
            line.assign(kMaxRecordLen + fields.more.size(), '\0');
            line.resize(json ? format_json_flow(fields, line.data())
                             : format_text_flow(fields, line.data()));
            if (line.find('\n') != line.size() - 1 || (json && !Record::accept(line))) std::abort();
        }
    }
    return 0;
}
