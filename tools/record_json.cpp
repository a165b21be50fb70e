#include "record_json.h"

#include <cstdint>
#include <cstring>

#include "flow_record.h"

namespace quelm_tool {
namespace {

constexpr int kMaxDepth = 32;

// A JSON reader turns \u0080-\u00ff into the characters U+0080-U+00FF, which cannot be told from
// the same characters sent as UTF-8. Before reading, those escapes are moved to U+F780-U+F7FF
// (private use, which the exporter has no reason to send); after, they become the single bytes.
std::string mark_byte_escapes(const std::string &json) {
    std::string out = json;
    bool in_string = false;
    for (size_t i = 0; i < out.size(); i++) {
        if (out[i] == '"') {
            in_string = !in_string;
        } else if (in_string && out[i] == '\\') {
            if (i + 5 < out.size() && out.compare(i + 1, 3, "u00") == 0 && out[i + 4] != '\0' &&
                std::strchr("89abcdefABCDEF", out[i + 4]) != nullptr) {
                out[i + 2] = 'f';
                out[i + 3] = '7';
            }
            i++;  // the escaped character, which may be a quote
        }
    }
    return out;
}

std::string unmark_bytes(const std::string &s) {
    std::string out;
    for (size_t i = 0; i < s.size(); i++) {
        const uint8_t b0 = uint8_t(s[i]), b1 = i + 2 < s.size() ? uint8_t(s[i + 1]) : 0;
        if (b0 == 0xEF && (b1 == 0x9E || b1 == 0x9F) && (uint8_t(s[i + 2]) & 0xC0) == 0x80) {
            out += char((b1 & 3) << 6 | (uint8_t(s[i + 2]) & 0x3F));  // U+F7xx: byte xx
            i += 2;
        } else {
            out += s[i];
        }
    }
    return out;
}

Record unmarked(Record &&v) {
    if (v.is_string()) return unmark_bytes(v.get_ref<const std::string &>());
    if (v.is_array()) {
        for (Record &item : v)
            item = unmarked(std::move(item));
    } else if (v.is_object()) {
        Record out = Record::object();
        for (auto it = v.begin(); it != v.end(); ++it)
            out[unmark_bytes(it.key())] = unmarked(std::move(it.value()));
        return out;
    }
    return std::move(v);
}

void write_string(const std::string &bytes, std::string *out) {
    // format_json_string works on NUL-terminated text: a NUL byte is escaped here.
    out->push_back('"');
    for (size_t from = 0; from <= bytes.size();) {
        const size_t nul = std::min(bytes.find('\0', from), bytes.size());
        const std::string part = bytes.substr(from, nul - from);
        std::string escaped(6 * part.size() + 3, '\0');
        const size_t n = format_json_string(part.c_str(), escaped.data());
        out->append(escaped, 1, n - 2);  // without its quotes
        if (nul < bytes.size()) out->append("\\u0000");
        from = nul + 1;
    }
    out->push_back('"');
}

}  // namespace

bool parse_record_json(const std::string &text, Record *out, std::string *error) {
    bool too_deep = false;
    const Record::parser_callback_t depth_check = [&too_deep](int depth, Record::parse_event_t,
                                                              Record &) {
        too_deep |= depth > kMaxDepth;
        return !too_deep;
    };
    try {
        Record v = Record::parse(mark_byte_escapes(text), depth_check);
        if (too_deep) {
            *error = "nesting deeper than " + std::to_string(kMaxDepth);
            return false;
        }
        *out = unmarked(std::move(v));
        return true;
    } catch (const Record::exception &e) {  // a syntax error, or a number too large (1e999)
        *error = e.what();
        error->erase(0, error->find("] ") + 2);  // the library's exception id, of no use here
        return false;
    }
}

void write_record_json(const Record &v, std::string *out) {
    if (v.is_string()) {
        write_string(v.get_ref<const std::string &>(), out);
    } else if (v.is_array()) {
        out->push_back('[');
        for (size_t i = 0; i < v.size(); i++) {
            if (i != 0) out->push_back(',');
            write_record_json(v[i], out);
        }
        out->push_back(']');
    } else if (v.is_object()) {
        out->push_back('{');
        for (auto it = v.begin(); it != v.end(); ++it) {
            if (it != v.begin()) out->push_back(',');
            write_string(it.key(), out);
            out->push_back(':');
            write_record_json(it.value(), out);
        }
        out->push_back('}');
    } else {
        out->append(v.dump());  // numbers, true, false, null
    }
}

}  // namespace quelm_tool
