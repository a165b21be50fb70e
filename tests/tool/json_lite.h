// A strict little JSON reader for checking the tool's output: it rejects anything that is not
// valid JSON, so a test that parses a line also proves the line is well formed.
#pragma once

#include <cstdlib>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace quelm_test {

struct Json {
    enum class Type { kNull, kBool, kNumber, kString, kArray, kObject } type = Type::kNull;
    bool boolean = false;
    std::string text;  // a string's value, or a number as written
    std::vector<Json> items;
    std::map<std::string, Json> fields;

    bool has(const std::string &key) const { return fields.count(key) != 0; }
    const Json &operator[](const std::string &key) const {
        auto it = fields.find(key);
        if (it == fields.end()) throw std::runtime_error("no field " + key);
        return it->second;
    }
    unsigned long long u64() const {
        if (type != Type::kNumber) throw std::runtime_error("not a number: " + text);
        return std::strtoull(text.c_str(), nullptr, 10);
    }
    const std::string &str() const {
        if (type != Type::kString) throw std::runtime_error("not a string");
        return text;
    }

    // Throws std::runtime_error on any syntax error or trailing garbage.
    static Json parse(const std::string &s) {
        size_t at = 0;
        Json v = value(s, at);
        skip(s, at);
        if (at != s.size()) fail(s, at);
        return v;
    }

  private:
    [[noreturn]] static void fail(const std::string &s, size_t at) {
        throw std::runtime_error("bad JSON at " + std::to_string(at) + ": " + s);
    }
    static void skip(const std::string &s, size_t &at) {
        while (at < s.size() && (s[at] == ' ' || s[at] == '\t' || s[at] == '\n' || s[at] == '\r'))
            at++;
    }
    static void expect(const std::string &s, size_t &at, char c) {
        skip(s, at);
        if (at >= s.size() || s[at] != c) fail(s, at);
        at++;
    }
    static std::string string_literal(const std::string &s, size_t &at) {
        expect(s, at, '"');
        std::string out;
        while (at < s.size() && s[at] != '"') {
            const unsigned char c = static_cast<unsigned char>(s[at++]);
            if (c < 0x20) fail(s, at);
            if (c != '\\') {
                out += char(c);
                continue;
            }
            if (at >= s.size()) fail(s, at);
            const char e = s[at++];
            switch (e) {
                case '"':
                    out += '"';
                    break;
                case '\\':
                    out += '\\';
                    break;
                case '/':
                    out += '/';
                    break;
                case 'b':
                    out += '\b';
                    break;
                case 'f':
                    out += '\f';
                    break;
                case 'n':
                    out += '\n';
                    break;
                case 'r':
                    out += '\r';
                    break;
                case 't':
                    out += '\t';
                    break;
                case 'u': {
                    if (at + 4 > s.size()) fail(s, at);
                    const unsigned long code = std::stoul(s.substr(at, 4), nullptr, 16);
                    // The tool escapes control characters, and bytes that are not UTF-8 as
                    // \u0080-\u00ff: read those back as the bytes they stand for.
                    if (code > 0xFF) fail(s, at);
                    out += char(code);
                    at += 4;
                    break;
                }
                default:
                    fail(s, at);
            }
        }
        expect(s, at, '"');
        return out;
    }
    static Json value(const std::string &s, size_t &at) {
        skip(s, at);
        if (at >= s.size()) fail(s, at);
        Json v;
        const char c = s[at];
        if (c == '{') {
            v.type = Type::kObject;
            at++;
            skip(s, at);
            if (at < s.size() && s[at] == '}') return at++, v;
            do {
                std::string key = string_literal(s, at);
                if (v.fields.count(key) != 0) fail(s, at);  // duplicate keys are a bug
                expect(s, at, ':');
                v.fields[key] = value(s, at);
                skip(s, at);
            } while (at < s.size() && s[at] == ',' && ++at);
            expect(s, at, '}');
        } else if (c == '[') {
            v.type = Type::kArray;
            at++;
            skip(s, at);
            if (at < s.size() && s[at] == ']') return at++, v;
            do {
                v.items.push_back(value(s, at));
                skip(s, at);
            } while (at < s.size() && s[at] == ',' && ++at);
            expect(s, at, ']');
        } else if (c == '"') {
            v.type = Type::kString;
            v.text = string_literal(s, at);
        } else if (s.compare(at, 4, "true") == 0 || s.compare(at, 5, "false") == 0) {
            v.type = Type::kBool;
            v.boolean = s[at] == 't';
            at += v.boolean ? 4 : 5;
        } else if (s.compare(at, 4, "null") == 0) {
            at += 4;
        } else {
            const size_t start = at;
            if (s[at] == '-') at++;
            if (at >= s.size() || !isdigit(static_cast<unsigned char>(s[at]))) fail(s, at);
            while (at < s.size() && (isdigit(static_cast<unsigned char>(s[at])) || s[at] == '.' ||
                                     s[at] == 'e' || s[at] == 'E' || s[at] == '+' || s[at] == '-'))
                at++;
            v.type = Type::kNumber;
            v.text = s.substr(start, at - start);
        }
        return v;
    }
};

}  // namespace quelm_test
