// A small JSON reader for what collectors receive: strict about syntax, bounded in depth, and
// never throwing. Strings come back as the bytes they stand for (\u0080-\u00ff as single bytes,
// the serializer's form for bytes that are not UTF-8; other escapes as UTF-8).
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace quelm_tool {

struct JsonValue {
    enum class Type { kNull, kBool, kNumber, kString, kArray, kObject } type = Type::kNull;
    bool boolean = false;
    std::string text;  // a string's bytes, or a number as written
    std::vector<JsonValue> items;
    std::vector<std::pair<std::string, JsonValue>> fields;  // in the order received

    const JsonValue *find(const std::string &key) const;
};

// Parses the whole of `text`; false with a message (and the byte offset) on any error.
bool parse_json(const char *text, size_t len, JsonValue *out, std::string *error);

// Appends `value` as compact JSON.
void write_json(const JsonValue &value, std::string *out);
// Appends a JSON string literal of `bytes` (bytes that are not UTF-8 as \u0080-\u00ff).
void write_json_string(const std::string &bytes, std::string *out);

}  // namespace quelm_tool
