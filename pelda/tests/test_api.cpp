// Module set-up, protocol and category names that find their ids again, and the digests.
#include <gtest/gtest.h>

#include <string>

#include "flow.h"
#include "internal.h"
#include "support.h"

namespace {

TEST(Api, VersionConfigAndLayout) {
    EXPECT_EQ(pelda_get_api_version() & 0xFFFF, 14778u);
    EXPECT_EQ(pelda_detection_get_sizeof_pelda_flow_struct(), sizeof(pelda_flow));
    EXPECT_EQ(sizeof(pelda_protocol), 56u);
    pelda_detection_module *m = pelda_init_detection_module(nullptr, 2);
    EXPECT_EQ(pelda_set_config(m, nullptr, "dpi.guess_on_giveup", "0"), 0);
    EXPECT_EQ(pelda_set_config(m, nullptr, "dpi.guess_on_giveup", "yes"), -1);
    EXPECT_EQ(pelda_set_config(m, nullptr, "no.such.key", "1"), -1);
    EXPECT_EQ(pelda_set_config(m, "HTTP", "dpi.guess_on_giveup", "1"), -1);
    EXPECT_EQ(pelda_finalize_initialization(m), 0);
    pelda_exit_detection_module(m);
    pelda_exit_detection_module(nullptr);
}

// Every id has a name that finds it again (names are case-insensitive, so this also proves
// them unique), and a category whose name does too; the ids callers hard-code never move.
TEST(Names, IdsNamesAndCategoriesRoundTrip) {
    pt::owned_module m;
    const std::pair<const char *, uint16_t> ids[] = {
        {"unknown", 0}, {"dns", 5}, {"Http", 7}, {"TLS", 91}, {"HTTP.TLS", 0}};
    for (const auto &[name, id] : ids)
        EXPECT_EQ(pelda_get_proto_by_name(m, name), id) << name;
    EXPECT_EQ(pelda_guess_undetected_protocol_v4(m, nullptr, 1, 1, 0, 2, 0).app_protocol,
              pelda_get_proto_by_name(m, "ICMP"));  // guesses for IP protocols other than TCP/UDP
    for (uint16_t id = 1; id < pelda_get_num_protocols(m); ++id) {
        char buf[64];
        std::string name = pelda_protocol2name(m, {0, id}, buf, sizeof(buf));
        EXPECT_EQ(pelda_get_proto_by_name(m, name.c_str()), id) << name;
        EXPECT_STREQ(pelda_protocol2name(nullptr, {0, id}, buf, sizeof(buf)), name.c_str());
        const char *category = pelda_category_get_name(m, pelda_get_proto_category(m, id));
        ASSERT_NE(category, nullptr) << name;
        EXPECT_EQ(uint32_t(pelda_get_category_by_name(m, category)),
                  pelda_get_proto_category(m, id));
    }
    for (uint32_t id = 0; id < PELDA_NUM_CATEGORIES; ++id)
        EXPECT_EQ(pelda_get_category_by_name(m, pelda_category_get_name(m, id)), int(id));
    EXPECT_EQ(pelda_category_get_name(m, PELDA_NUM_CATEGORIES), nullptr);
    // Pairs print as "MASTER.APP", truncated to the buffer.
    const std::tuple<uint16_t, uint16_t, uint32_t, const char *> pairs[] = {
        {91, 90, 64, "TLS.IMAPS"}, {60000, 5, 64, "DNS"}, {91, 90, 6, "TLS.I"}};
    for (const auto &[master, app, len, expect] : pairs) {
        char buf[64];
        EXPECT_STREQ(pelda_protocol2name(m, {master, app}, buf, len), expect);
    }
}

// SHA-256 and SHA-1 (certificate fingerprints) share their padding: published vectors at
// its edges (empty, 55 bytes in one block, 56 and 64 spilling into a second, several blocks).
const std::string kLong1 = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";  // 56 bytes
const std::string kLong2 =
    "abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmnhijklmnoijklmnopjklmnopqklmnopqr"
    "lmnopqrsmnopqrstnopqrstu";

TEST(Sha, VectorsAtPaddingEdges) {
    const std::pair<std::string, const char *> cases[] = {
        {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
        {std::string(55, 'a'), "9f4390f8d30c2dd92ec9f095b65e2b9ae9b0a925a5258e241c9f1e910f734318"},
        {kLong1, "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
        {std::string(64, 'a'), "ffe054fe7ae0cb6dc65c3af9b61d5209f439851db43d0ba5997337df154668eb"},
        {kLong2, "cf5b16a778af8380036ce59e7b0492370b249b11e8f07a51afac45037afee9d1"},
        {"abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},  // SHA-1 from here
        {kLong1, "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
    };
    for (const auto &[message, digest] : cases) {
        uint8_t out[32];
        std::string expect = digest;
        if (expect.size() == 64) pelda_sha256(message.data(), message.size(), out);
        if (expect.size() == 40) pelda::sha1(message.data(), message.size(), out);
        EXPECT_EQ(pt::to_hex(out, expect.size() / 2), expect) << message.size();
    }
    uint8_t out[32];
    pelda_sha256(nullptr, 0, out);  // as empty
    EXPECT_EQ(out[31], 0x55);
}

}  // namespace
