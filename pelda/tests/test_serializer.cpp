// Serializer: JSON validity and shape, TLV decoding, and round trips proving both
// formats carry the same keys and values.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "pelda.h"

namespace {

// Decoded form shared by both formats: numbers and strings under text keys
// (numeric keys as their decimal text), blocks as nested element lists.
struct element {
    std::string key;
    enum { number, string, block } kind;
    uint64_t num = 0;
    std::string str;
    std::vector<element> children;
    bool operator==(const element &o) const {
        return key == o.key && kind == o.kind && num == o.num && str == o.str &&
               children == o.children;
    }
};
using record = std::vector<element>;

// ---- A strict parser for the JSON the serializer writes.
class json_parser {
  public:
    explicit json_parser(const std::string &s) : s_(s) {}
    bool batch(std::vector<record> *out) {
        ws();
        if (peek() == '[') {
            ++i_;
            for (;;) {
                record r;
                if (!object(&r)) return false;
                out->push_back(r);
                ws();
                if (peek() == ',') {
                    ++i_;
                    continue;
                }
                if (peek() != ']') return false;
                ++i_;
                break;
            }
        } else {
            record r;
            if (!object(&r)) return false;
            out->push_back(r);
        }
        ws();
        return i_ == s_.size();
    }

  private:
    char peek() const { return i_ < s_.size() ? s_[i_] : '\0'; }
    void ws() {
        while (i_ < s_.size() && isspace((unsigned char)s_[i_]))
            ++i_;
    }
    bool str(std::string *out) {
        if (peek() != '"') return false;
        ++i_;
        while (i_ < s_.size() && s_[i_] != '"') {
            unsigned char c = (unsigned char)s_[i_];
            if (c < 0x20) return false;
            if (c == '\\') {
                char e = s_[++i_];
                if (e == 'u') {
                    unsigned v = std::stoul(s_.substr(i_ + 1, 4), nullptr, 16);
                    i_ += 4;
                    if (v < 0x80) {
                        *out += char(v);
                    } else {  // U+0080..U+07FF as UTF-8
                        *out += char(0xC0 | v >> 6);
                        *out += char(0x80 | (v & 0x3F));
                    }
                } else if (e == '"' || e == '\\' || e == '/') {
                    *out += e;
                } else {
                    return false;
                }
                ++i_;
            } else {
                *out += char(c);
                ++i_;
            }
        }
        if (peek() != '"') return false;
        ++i_;
        return true;
    }
    bool object(record *r) {
        ws();
        if (peek() != '{') return false;
        ++i_;
        ws();
        if (peek() == '}') {
            ++i_;
            return true;
        }
        for (;;) {
            element e;
            ws();
            if (!str(&e.key)) return false;
            ws();
            if (peek() != ':') return false;
            ++i_;
            ws();
            if (peek() == '"') {
                e.kind = element::string;
                if (!str(&e.str)) return false;
            } else if (peek() == '{') {
                e.kind = element::block;
                if (!object(&e.children)) return false;
            } else {
                e.kind = element::number;
                size_t start = i_;
                while (isdigit((unsigned char)peek()))
                    ++i_;
                if (start == i_) return false;
                e.num = std::stoull(s_.substr(start, i_ - start));
            }
            r->push_back(e);
            ws();
            if (peek() == ',') {
                ++i_;
                continue;
            }
            if (peek() != '}') return false;
            ++i_;
            return true;
        }
    }
    const std::string &s_;
    size_t i_ = 0;
};

bool decode_tlv(const char *buf, uint32_t len, std::vector<record> *out) {
    pelda_tlv_reader r;
    if (pelda_tlv_reader_init(&r, buf, len) != 0) return false;
    out->assign(1, record{});
    std::vector<record *> stack{&out->back()};
    pelda_tlv_element e;
    int rc;
    while ((rc = pelda_tlv_reader_next(&r, &e)) == 1) {
        element x;
        if (e.key_kind == PELDA_TLV_KEY_NUMBER) x.key = std::to_string(e.key_number);
        if (e.key_kind == PELDA_TLV_KEY_TEXT) x.key.assign(e.key_text, e.key_text_len);
        switch (e.kind) {
            case PELDA_TLV_UINT32:
            case PELDA_TLV_UINT64:
                x.kind = element::number;
                x.num = e.number;
                stack.back()->push_back(x);
                break;
            case PELDA_TLV_STRING:
                x.kind = element::string;
                x.str.assign(e.string, e.string_len);
                stack.back()->push_back(x);
                break;
            case PELDA_TLV_START_OF_BLOCK:
                x.kind = element::block;
                stack.back()->push_back(x);
                stack.push_back(&stack.back()->back().children);
                break;
            case PELDA_TLV_END_OF_BLOCK:
                stack.pop_back();
                break;
            case PELDA_TLV_END_OF_RECORD:
                out->push_back(record{});
                stack.assign(1, &out->back());
                break;
        }
    }
    return rc == 0;
}

using writer = std::function<void(pelda_serializer *)>;

std::string json_of(const writer &w) {
    pelda_serializer s;
    EXPECT_EQ(pelda_init_serializer(&s, PELDA_SERIALIZATION_FORMAT_JSON), 0);
    w(&s);
    uint32_t len;
    const char *b = pelda_serializer_get_buffer(&s, &len);
    std::string out = b ? std::string(b, len) : "<null>";
    EXPECT_EQ(b ? std::strlen(b) : 0, len);
    pelda_term_serializer(&s);
    return out;
}

// Writes the same elements in both formats; returns both decodings.
void both(const writer &w, std::vector<record> *from_json, std::vector<record> *from_tlv) {
    std::string json = json_of(w);
    ASSERT_TRUE(json_parser(json).batch(from_json)) << json;
    pelda_serializer s;
    ASSERT_EQ(pelda_init_serializer(&s, PELDA_SERIALIZATION_FORMAT_TLV), 0);
    w(&s);
    uint32_t len;
    const char *b = pelda_serializer_get_buffer(&s, &len);
    ASSERT_NE(b, nullptr);
    ASSERT_TRUE(decode_tlv(b, len, from_tlv));
    pelda_term_serializer(&s);
}

void flow_record(pelda_serializer *s, uint32_t n) {
    pelda_serialize_uint32_uint32(s, 58, 0);
    pelda_serialize_uint32_string(s, 56, "00:11:22:33:44:55");
    pelda_serialize_uint32_uint32(s, 60, 4);
    pelda_serialize_uint32_string(s, 8, "10.0.0.1");
    pelda_serialize_uint32_uint64(s, 2, 0xFFFFFFFFFFull + n);
    pelda_serialize_uint32_uint32(s, 4294967295u, 4294967295u);
    pelda_serialize_string_string(s, "47521.118", "7.91");
}

TEST(Serializer, RoundTripSingleRecord) {
    std::vector<record> j, t;
    both([](pelda_serializer *s) { flow_record(s, 0); }, &j, &t);
    ASSERT_EQ(j.size(), 1u);
    EXPECT_EQ(j, t);
    ASSERT_EQ(j[0].size(), 7u);
    EXPECT_EQ(j[0][0].key, "58");
    EXPECT_EQ(j[0][4].num, 0xFFFFFFFFFFull);
    EXPECT_EQ(j[0][5].key, "4294967295");
    EXPECT_EQ(j[0][6].key, "47521.118");
    EXPECT_EQ(j[0][6].str, "7.91");
}

TEST(Serializer, BatchOfRecordsIsAnArrayInRecordOrder) {
    std::vector<record> j, t;
    both(
        [](pelda_serializer *s) {
            for (uint32_t n = 0; n < 16; ++n) {
                if (n) {
                    ASSERT_EQ(pelda_serialize_end_of_record(s), 0);
                }
                flow_record(s, n);
            }
        },
        &j, &t);
    ASSERT_EQ(j.size(), 16u);
    EXPECT_EQ(j, t);
    for (uint32_t n = 0; n < 16; ++n)
        EXPECT_EQ(j[n][4].num, 0xFFFFFFFFFFull + n);
    std::string text = json_of([](pelda_serializer *s) {
        flow_record(s, 0);
        pelda_serialize_end_of_record(s);
        flow_record(s, 1);
    });
    EXPECT_EQ(text.front(), '[');
    EXPECT_EQ(text.back(), ']');
}

TEST(Serializer, NestedBlocksAndTextKeys) {
    std::vector<record> j, t;
    both(
        [](pelda_serializer *s) {
            ASSERT_EQ(pelda_serialize_start_of_block(s, "iface"), 0);
            pelda_serialize_string_string(s, "name", "eth0");
            pelda_serialize_string_uint32(s, "speed", 1000);
            pelda_serialize_string_string(s, "ip", "");
            ASSERT_EQ(pelda_serialize_end_of_block(s), 0);
            pelda_serialize_string_string(s, "time", "1700000000.5");
            pelda_serialize_start_of_block(s, "a");
            pelda_serialize_start_of_block(s, "b");
            pelda_serialize_string_uint64(s, "deep", 18446744073709551615ull);
            pelda_serialize_end_of_block(s);
            pelda_serialize_end_of_block(s);
            pelda_serialize_start_of_block(s, "empty");
            pelda_serialize_end_of_block(s);
        },
        &j, &t);
    ASSERT_EQ(j.size(), 1u);
    EXPECT_EQ(j, t);
    ASSERT_EQ(j[0].size(), 4u);
    EXPECT_EQ(j[0][0].children.size(), 3u);
    EXPECT_EQ(j[0][2].children[0].children[0].num, 18446744073709551615ull);
    EXPECT_TRUE(j[0][3].children.empty());
}

TEST(Serializer, StringsNeedingEscapesStayValidJson) {
    const std::string tricky[] = {
        "quote\" back\\slash",      "tab\tline\nfeed\r",      "\x01\x1f",
        "caf\xc3\xa9 \xe2\x82\xac", "bad \xff\xfe utf8 \xc3", "{\"not\":\"json\"}"};
    for (const std::string &v : tricky) {
        std::vector<record> j, t;
        both([&](pelda_serializer *s) { pelda_serialize_string_string(s, v.c_str(), v.c_str()); },
             &j, &t);
        ASSERT_EQ(j.size(), 1u);
        ASSERT_EQ(t.size(), 1u);
        EXPECT_EQ(t[0][0].str, v);  // TLV carries bytes as they are
        if (v.find('\xff') == std::string::npos && v.back() != '\xc3') {
            EXPECT_EQ(j, t) << v;
        }
    }
}

TEST(Serializer, NullStringsAreEmpty) {
    std::vector<record> j, t;
    both([](pelda_serializer *s) { pelda_serialize_uint32_string(s, 1, nullptr); }, &j, &t);
    EXPECT_EQ(j, t);
    EXPECT_EQ(j[0][0].str, "");
}

TEST(Serializer, EmptyAndResetKeepFormat) {
    EXPECT_EQ(json_of([](pelda_serializer *) {}), "{}");
    pelda_serializer s;
    ASSERT_EQ(pelda_init_serializer(&s, PELDA_SERIALIZATION_FORMAT_JSON), 0);
    pelda_serialize_uint32_uint32(&s, 1, 2);
    pelda_serialize_end_of_record(&s);
    pelda_serialize_uint32_uint32(&s, 1, 3);
    pelda_reset_serializer(&s);
    pelda_serialize_uint32_uint32(&s, 7, 8);
    uint32_t len;
    EXPECT_STREQ(pelda_serializer_get_buffer(&s, &len), "{\"7\":8}");
    // Reading the buffer does not end the record.
    pelda_serialize_uint32_uint32(&s, 9, 10);
    EXPECT_STREQ(pelda_serializer_get_buffer(&s, &len), "{\"7\":8,\"9\":10}");
    pelda_term_serializer(&s);
    pelda_term_serializer(&s);  // twice is harmless
}

TEST(Serializer, MisuseIsRefused) {
    pelda_serializer s{};
    EXPECT_EQ(pelda_serialize_uint32_uint32(&s, 1, 1), -1);  // not initialised
    EXPECT_EQ(pelda_serializer_get_buffer(&s, nullptr), nullptr);
    EXPECT_NE(pelda_init_serializer(&s, pelda_serialization_format(3)), 0);
    EXPECT_NE(pelda_init_serializer(nullptr, PELDA_SERIALIZATION_FORMAT_TLV), 0);
    for (auto fmt : {PELDA_SERIALIZATION_FORMAT_TLV, PELDA_SERIALIZATION_FORMAT_JSON}) {
        ASSERT_EQ(pelda_init_serializer(&s, fmt), 0);
        EXPECT_EQ(pelda_serialize_end_of_block(&s), -1);  // nothing open
        ASSERT_EQ(pelda_serialize_start_of_block(&s, "x"), 0);
        EXPECT_EQ(pelda_serialize_end_of_record(&s), -1);  // block still open
        for (int i = 1; i < PELDA_SERIALIZER_MAX_DEPTH; ++i)
            ASSERT_EQ(pelda_serialize_start_of_block(&s, "x"), 0);
        EXPECT_EQ(pelda_serialize_start_of_block(&s, "x"), -1);
        pelda_term_serializer(&s);
    }
}

TEST(Serializer, LargeValuesGrowTheBuffer) {
    std::string big(100000, 'x');
    std::vector<record> j, t;
    both(
        [&](pelda_serializer *s) {
            for (int i = 0; i < 50; ++i)
                pelda_serialize_uint32_string(s, uint32_t(i), big.c_str());
        },
        &j, &t);
    EXPECT_EQ(j, t);
    EXPECT_EQ(t[0].size(), 50u);
}

TEST(TlvReader, RejectsMalformedInput) {
    pelda_serializer s;
    ASSERT_EQ(pelda_init_serializer(&s, PELDA_SERIALIZATION_FORMAT_TLV), 0);
    pelda_serialize_start_of_block(&s, "blk");
    pelda_serialize_uint32_string(&s, 300, "value");
    pelda_serialize_end_of_block(&s);
    uint32_t len;
    const char *b = pelda_serializer_get_buffer(&s, &len);
    std::string good(b, len);
    pelda_term_serializer(&s);

    auto count = [](const std::string &buf) {
        pelda_tlv_reader r;
        if (pelda_tlv_reader_init(&r, buf.data(), uint32_t(buf.size())) != 0) return -1;
        pelda_tlv_element e;
        int n = 0, rc;
        while ((rc = pelda_tlv_reader_next(&r, &e)) == 1)
            ++n;
        return rc == 0 ? n : -1;
    };
    EXPECT_EQ(count(good), 3);
    EXPECT_EQ(count(good.substr(0, 0)), -1);  // no version byte
    EXPECT_EQ(count(good.substr(0, 1)), 0);   // an empty batch
    for (size_t cut = 2; cut < good.size(); ++cut)
        EXPECT_EQ(count(good.substr(0, cut)), -1) << cut;
    std::string bad_version = good;
    bad_version[0] = 9;
    EXPECT_EQ(count(bad_version), -1);
    EXPECT_EQ(count(std::string("\x01\x05", 2)), -1);          // end of block at depth 0
    EXPECT_EQ(count(std::string("\x01\x07", 2)), -1);          // unknown kind
    EXPECT_EQ(count(std::string("\x01\x11\x01\xff", 4)), -1);  // truncated varint
    EXPECT_EQ(count(std::string("\x01\x13\x01\x7f"
                                "ab",
                                6)),
              -1);  // string past the end
    EXPECT_EQ(count(std::string("\x01\x11\x01\x80\x80\x80\x80\x10", 8)), -1);  // u32 overflow
}

}  // namespace
