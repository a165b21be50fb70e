// Serializer: JSON and TLV of the same calls, escapes, limits, misuse and malformed TLV.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>

#include "tlv_copy.h"

namespace {

using writer = std::function<void(pelda_serializer *)>;
constexpr auto kJson = PELDA_SERIALIZATION_FORMAT_JSON;
constexpr auto kTlv = PELDA_SERIALIZATION_FORMAT_TLV;

std::string serialize(pelda_serialization_format fmt, const writer &w) {
    pelda_serializer s;
    EXPECT_EQ(pelda_init_serializer(&s, fmt), 0);
    w(&s);
    uint32_t len = 0;
    const char *b = pelda_serializer_get_buffer(&s, &len);
    std::string out = b ? std::string(b, len) : "<null>";
    EXPECT_TRUE(!b || fmt != kJson || std::strlen(b) == len);  // JSON is NUL-terminated
    pelda_term_serializer(&s);
    pelda_term_serializer(&s);  // twice is harmless
    return out;
}

// A TLV batch read back and written again as JSON, or "<bad>" when the reader rejects it.
std::string tlv_as_json(const std::string &tlv) {
    bool ok = false;
    const std::string json = serialize(
        kJson, [&](pelda_serializer *s) { ok = pt::tlv_copy(tlv.data(), tlv.size(), s); });
    return ok ? json : "<bad>";
}

void flow_record(pelda_serializer *s, uint32_t n) {
    pelda_serialize_uint32_uint32(s, 58, 0);
    pelda_serialize_uint32_string(s, 56, "00:11:22:33:44:55");
    pelda_serialize_uint32_uint64(s, 2, 0xFFFFFFFFFFull + n);
    pelda_serialize_uint32_uint32(s, 4294967295u, 4294967295u);
    pelda_serialize_string_string(s, "47521.118", "7.91");
}

writer kv(const std::string &value) {
    return [value](pelda_serializer *s) { pelda_serialize_string_string(s, "k", value.c_str()); };
}

// Every row's calls give that JSON ("" where only the round trip is checked), and TLV of the
// same calls reads back as the same JSON. JSON escapes quotes, backslashes, control
// characters and bytes that are not valid UTF-8 (as U+0080..U+00FF); TLV carries the bytes.
TEST(Serializer, JsonAndTlvOfTheSameCalls) {
    const std::pair<writer, std::string> cases[] = {
        {[](pelda_serializer *s) { flow_record(s, 0); },
         R"({"58":0,"56":"00:11:22:33:44:55","2":1099511627775,)"
         R"("4294967295":4294967295,"47521.118":"7.91"})"},
        {[](pelda_serializer *) {}, "{}"},
        {[](pelda_serializer *s) {  // a batch: an array in record order; the buffer grows
             for (uint32_t n = 0; n < 16; ++n) {
                 EXPECT_EQ(n ? pelda_serialize_end_of_record(s) : 0, 0);
                 flow_record(s, n);
                 pelda_serialize_uint32_string(s, 9, std::string(20000 * n, 'x').c_str());
             }
         },
         ""},
        {[](pelda_serializer *s) {
             pelda_serialize_uint32_uint32(s, 1, 2);
             pelda_reset_serializer(s);  // keeps the format
             pelda_serialize_uint32_uint32(s, 7, 8);
         },
         R"({"7":8})"},
        {[](pelda_serializer *s) {
             EXPECT_EQ(pelda_serialize_start_of_block(s, "a"), 0);
             pelda_serialize_start_of_block(s, "b");
             pelda_serialize_string_uint64(s, "deep", 18446744073709551615ull);
             pelda_serialize_string_uint32(s, "speed", 1000);
             EXPECT_EQ(pelda_serialize_end_of_block(s), 0);
             pelda_serialize_end_of_block(s);
             pelda_serialize_start_of_block(s, "empty");
             pelda_serialize_end_of_block(s);
             pelda_serialize_uint32_string(s, 1, nullptr);  // as ""
         },
         R"({"a":{"b":{"deep":18446744073709551615,"speed":1000}},"empty":{},"1":""})"},
        {[](pelda_serializer *s) {                            // nesting limits
             EXPECT_EQ(pelda_serialize_end_of_block(s), -1);  // nothing open
             for (int i = 0; i < PELDA_SERIALIZER_MAX_DEPTH; ++i)
                 ASSERT_EQ(pelda_serialize_start_of_block(s, "x"), 0);
             EXPECT_EQ(pelda_serialize_start_of_block(s, "x"), -1);
             EXPECT_EQ(pelda_serialize_end_of_record(s), -1);  // blocks still open
             for (int i = 0; i < PELDA_SERIALIZER_MAX_DEPTH; ++i)
                 pelda_serialize_end_of_block(s);
         },
         ""},
        // clang-format off
        {kv("quote\" back\\slash"), R"({"k":"quote\" back\\slash"})"},
        {kv("tab\tline\nfeed\r\x01\x1f"), R"({"k":"tab\u0009line\u000afeed\u000d\u0001\u001f"})"},
        {kv("caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"), "{\"k\":\"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80\"}"},
        {kv("bad \xff\xfe utf8 \xc3"), R"({"k":"bad \u00ff\u00fe utf8 \u00c3"})"},
        {kv("\xc0\x80 \xed\xa0\x80"), R"({"k":"\u00c0\u0080 \u00ed\u00a0\u0080"})"},  // overlong, surrogate
        // clang-format on
    };
    for (const auto &[w, expect] : cases) {
        std::string json = serialize(kJson, w);
        EXPECT_TRUE(expect.empty() || json == expect) << json.substr(0, 200);
        EXPECT_EQ(tlv_as_json(serialize(kTlv, w)), json) << json.substr(0, 200);
    }
}

TEST(Serializer, Misuse) {
    pelda_serializer s{};
    EXPECT_EQ(pelda_serialize_uint32_uint32(&s, 1, 1), -1);  // not initialised
    EXPECT_NE(pelda_init_serializer(&s, pelda_serialization_format(3)), 0);
}

TEST(TlvReader, RejectsMalformedInput) {
    std::string good = serialize(kTlv, [](pelda_serializer *s) {
        pelda_serialize_start_of_block(s, "blk");
        pelda_serialize_uint32_string(s, 300, "value");
        pelda_serialize_end_of_block(s);
    });
    EXPECT_EQ(tlv_as_json(good), R"({"blk":{"300":"value"}})");
    for (size_t cut = 2; cut < good.size(); ++cut)
        EXPECT_EQ(tlv_as_json(good.substr(0, cut)), "<bad>") << cut;
    for (const std::string &bad : {std::string(), "\x09" + good.substr(1),  // version
                                   std::string("\x01\x05", 2),              // end of block at 0
                                   std::string("\x01\x07", 2),              // unknown kind
                                   std::string("\x01\x11\x01\xff", 4),      // truncated varint
                                   std::string("\x01\x13\x01\x03"
                                               "ab",
                                               6),  // string one byte longer than the batch
                                   std::string("\x01\x11\x01\x80\x80\x80\x80\x10", 8)})  // > u32
        EXPECT_EQ(tlv_as_json(bad), "<bad>") << testing::PrintToString(bad);
}

}  // namespace
