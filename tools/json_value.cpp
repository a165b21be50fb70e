#include "json_value.h"

#include <cstring>

#include "flow_writer.h"

namespace quelm_tool {
namespace {

constexpr int kMaxDepth = 32;

class Parser {
  public:
    Parser(const char *text, size_t len) : s_(text), len_(len) {}

    bool document(JsonValue *out, std::string *error) {
        const bool ok = value(out, 0) && (skip(), at_ == len_);
        if (!ok)
            *error = (problem_ != nullptr ? problem_ : "trailing bytes") +
                     std::string(" at byte ") + std::to_string(at_);
        return ok;
    }

  private:
    bool fail(const char *why) {
        if (problem_ == nullptr) problem_ = why;
        return false;
    }
    void skip() {
        while (at_ < len_ &&
               (s_[at_] == ' ' || s_[at_] == '\t' || s_[at_] == '\n' || s_[at_] == '\r'))
            at_++;
    }
    bool take(char c) {
        skip();
        if (at_ < len_ && s_[at_] == c) return at_++, true;
        return false;
    }
    bool literal(const char *word) {
        const size_t n = std::strlen(word);
        if (len_ - at_ < n || std::memcmp(s_ + at_, word, n) != 0) return fail("unknown word");
        at_ += n;
        return true;
    }
    bool hex4(uint32_t *code) {
        if (len_ - at_ < 4) return fail("short \\u escape");
        *code = 0;
        for (int i = 0; i < 4; i++) {
            const char c = s_[at_++];
            const int digit = c >= '0' && c <= '9'   ? c - '0'
                              : c >= 'a' && c <= 'f' ? c - 'a' + 10
                              : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                                     : -1;
            if (digit < 0) return fail("bad \\u escape");
            *code = *code << 4 | uint32_t(digit);
        }
        return true;
    }
    static void utf8(uint32_t code, std::string *out) {
        if (code < 0x800) {
            *out += char(0xC0 | code >> 6);
        } else if (code < 0x10000) {
            *out += char(0xE0 | code >> 12);
            *out += char(0x80 | (code >> 6 & 0x3F));
        } else {
            *out += char(0xF0 | code >> 18);
            *out += char(0x80 | (code >> 12 & 0x3F));
            *out += char(0x80 | (code >> 6 & 0x3F));
        }
        *out += char(0x80 | (code & 0x3F));
    }
    bool string(std::string *out) {
        if (!take('"')) return fail("a string was expected");
        while (at_ < len_ && s_[at_] != '"') {
            const unsigned char c = static_cast<unsigned char>(s_[at_++]);
            if (c < 0x20) return fail("a control character in a string");
            if (c != '\\') {
                *out += char(c);
                continue;
            }
            if (at_ >= len_) break;
            const char e = s_[at_++];
            const char *from = "\"\\/bfnrt", *to = "\"\\/\b\f\n\r\t";
            if (const char *p = e != 0 ? std::strchr(from, e) : nullptr) {
                *out += to[p - from];
                continue;
            }
            if (e != 'u') return fail("a bad escape");
            uint32_t code;
            if (!hex4(&code)) return false;
            if (code >= 0xD800 && code <= 0xDBFF) {
                uint32_t low;
                if (len_ - at_ < 2 || s_[at_] != '\\' || s_[at_ + 1] != 'u') {
                    return fail("a lone surrogate");
                }
                at_ += 2;
                if (!hex4(&low) || low < 0xDC00 || low > 0xDFFF) return fail("a lone surrogate");
                utf8(0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00), out);
            } else if (code >= 0xDC00 && code <= 0xDFFF) {
                return fail("a lone surrogate");
            } else if (code < 0x100) {
                *out += char(code);
            } else {
                utf8(code, out);
            }
        }
        if (at_ >= len_) return fail("an unterminated string");
        at_++;
        return true;
    }
    bool number(std::string *out) {
        const size_t start = at_;
        if (at_ < len_ && s_[at_] == '-') at_++;
        auto digits = [this] {
            const size_t from = at_;
            while (at_ < len_ && s_[at_] >= '0' && s_[at_] <= '9')
                at_++;
            return at_ > from;
        };
        if (!digits()) return fail("a bad number");
        if (at_ < len_ && s_[at_] == '.' && (at_++, !digits())) return fail("a bad number");
        if (at_ < len_ && (s_[at_] == 'e' || s_[at_] == 'E')) {
            at_++;
            if (at_ < len_ && (s_[at_] == '+' || s_[at_] == '-')) at_++;
            if (!digits()) return fail("a bad number");
        }
        out->assign(s_ + start, at_ - start);
        return true;
    }
    bool value(JsonValue *v, int depth) {
        if (depth > kMaxDepth) return fail("nesting too deep");
        skip();
        if (at_ >= len_) return fail("a value was expected");
        const char c = s_[at_];
        if (c == '{') {
            at_++;
            v->type = JsonValue::Type::kObject;
            if (take('}')) return true;
            do {
                std::pair<std::string, JsonValue> field;
                skip();
                if (!string(&field.first)) return false;
                if (!take(':')) return fail("':' was expected");
                if (!value(&field.second, depth + 1)) return false;
                v->fields.push_back(std::move(field));
            } while (take(','));
            return take('}') || fail("'}' was expected");
        }
        if (c == '[') {
            at_++;
            v->type = JsonValue::Type::kArray;
            if (take(']')) return true;
            do {
                v->items.emplace_back();
                if (!value(&v->items.back(), depth + 1)) return false;
            } while (take(','));
            return take(']') || fail("']' was expected");
        }
        if (c == '"') {
            v->type = JsonValue::Type::kString;
            return string(&v->text);
        }
        if (c == 't' || c == 'f') {
            v->type = JsonValue::Type::kBool;
            v->boolean = c == 't';
            return literal(c == 't' ? "true" : "false");
        }
        if (c == 'n') return literal("null");
        v->type = JsonValue::Type::kNumber;
        return number(&v->text);
    }

    const char *s_;
    size_t len_;
    size_t at_ = 0;
    const char *problem_ = nullptr;
};

}  // namespace

const JsonValue *JsonValue::find(const std::string &key) const {
    for (const auto &[name, value] : fields)
        if (name == key) return &value;
    return nullptr;
}

bool parse_json(const char *text, size_t len, JsonValue *out, std::string *error) {
    *out = JsonValue();
    return Parser(text, len).document(out, error);
}

void write_json_string(const std::string &bytes, std::string *out) {
    // The tool's escaping works on NUL-terminated text: a NUL byte is escaped here.
    size_t from = 0;
    out->push_back('"');
    while (from <= bytes.size()) {
        const size_t nul = bytes.find('\0', from);
        const std::string part = bytes.substr(from, nul == std::string::npos ? nul : nul - from);
        std::string escaped(6 * part.size() + 3, '\0');
        const size_t n = format_json_string(part.c_str(), escaped.data());
        out->append(escaped, 1, n - 2);  // without its quotes
        if (nul == std::string::npos) break;
        out->append("\\u0000");
        from = nul + 1;
    }
    out->push_back('"');
}

void write_json(const JsonValue &v, std::string *out) {
    switch (v.type) {
        case JsonValue::Type::kNull:
            out->append("null");
            break;
        case JsonValue::Type::kBool:
            out->append(v.boolean ? "true" : "false");
            break;
        case JsonValue::Type::kNumber:
            out->append(v.text);
            break;
        case JsonValue::Type::kString:
            write_json_string(v.text, out);
            break;
        case JsonValue::Type::kArray:
            out->push_back('[');
            for (size_t i = 0; i < v.items.size(); i++) {
                if (i != 0) out->push_back(',');
                write_json(v.items[i], out);
            }
            out->push_back(']');
            break;
        case JsonValue::Type::kObject:
            out->push_back('{');
            for (size_t i = 0; i < v.fields.size(); i++) {
                if (i != 0) out->push_back(',');
                write_json_string(v.fields[i].first, out);
                out->push_back(':');
                write_json(v.fields[i].second, out);
            }
            out->push_back('}');
            break;
    }
}

}  // namespace quelm_tool
