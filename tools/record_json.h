// JSON as the collector reads and writes it, on nlohmann-json. Records keep their keys in the order
// received. Strings hold the bytes they stand for: the exporter writes each byte that is not UTF-8
// as \u0080-\u00ff, and those come back as single bytes (as they do from TLV), so that the output
// escapes them the same way whichever format carried them.
#pragma once

#include <nlohmann/json.hpp>

#include <string>

namespace quelm_tool {

using Record = nlohmann::ordered_json;

// Parses the whole of `text`; false with a message on a syntax error or nesting deeper than 32.
bool parse_record_json(const std::string &text, Record *out, std::string *error);

// Appends `value` as compact JSON; strings are escaped as the tool's flow records are.
void write_record_json(const Record &value, std::string *out);

}  // namespace quelm_tool
