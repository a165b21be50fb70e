// Module set-up, names and ids, categories, and the fixed layouts callers rely on.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <strings.h>

#include "flow.h"
#include "support.h"

namespace {

TEST(Api, VersionAndRevision) {
    EXPECT_EQ(pelda_get_api_version() & 0xFFFF, 14778u);
    EXPECT_STREQ(pelda_revision(), "6.1.0");
}

TEST(Api, FlowObjectSizeAndLayout) {
    EXPECT_EQ(pelda_detection_get_sizeof_pelda_flow_struct(), sizeof(pelda_flow));
    EXPECT_LE(sizeof(pelda_flow), 1536u);
    EXPECT_EQ(sizeof(pelda_protocol), 56u);
}

TEST(Api, SetConfigAcceptsOnlyKnownSettings) {
    pelda_detection_module *m = pelda_init_detection_module(nullptr, 2);
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(pelda_set_config(m, nullptr, "dpi.guess_on_giveup", "0"), 0);
    EXPECT_EQ(pelda_set_config(m, nullptr, "dpi.guess_on_giveup", "1"), 0);
    EXPECT_EQ(pelda_set_config(m, nullptr, "dpi.guess_on_giveup", "yes"), -1);
    EXPECT_EQ(pelda_set_config(m, nullptr, "no.such.key", "1"), -1);
    EXPECT_EQ(pelda_set_config(m, "HTTP", "dpi.guess_on_giveup", "1"), -1);
    EXPECT_EQ(pelda_set_config(nullptr, nullptr, "dpi.guess_on_giveup", "1"), -1);
    EXPECT_EQ(pelda_finalize_initialization(m), 0);
    pelda_exit_detection_module(m);
    pelda_exit_detection_module(nullptr);
}

TEST(Names, FixedIdsAndCaseInsensitiveLookup) {
    pt::owned_module m;
    const std::pair<const char *, uint16_t> cases[] = {
        {"DNS", 5},     {"dns", 5},        {"HTTP", 7}, {"Http", 7},
        {"TLS", 91},    {"tls", 91},       {"SMTP", 3}, {"FTP_CONTROL", 77},
        {"QUIC", 34},   {"WireGuard", 31}, {"", 0},     {"NoSuchProtocol", 0},
        {"HTTP.TLS", 0}};
    for (const auto &[name, id] : cases)
        EXPECT_EQ(pelda_get_proto_by_name(m, name), id) << name;
    EXPECT_EQ(pelda_get_proto_by_name(m, nullptr), 0);
    EXPECT_EQ(pelda_get_proto_by_name(nullptr, "HTTP"), 0);
}

TEST(Names, EveryBuiltinIdHasAUniqueNameWithoutDots) {
    pt::owned_module m;
    uint32_t n = pelda_get_num_protocols(m);
    ASSERT_GT(n, 91u);
    ASSERT_LT(n, 256u);
    std::set<std::string> seen;
    for (uint32_t id = 1; id < n; ++id) {
        char buf[64];
        std::string name = pelda_protocol2name(m, {0, uint16_t(id)}, buf, sizeof(buf));
        EXPECT_EQ(name.find('.'), std::string::npos) << name;
        EXPECT_NE(name, "Unknown");
        std::string lower;
        for (char c : name)
            lower += char(tolower(c));
        EXPECT_TRUE(seen.insert(lower).second) << name;
        EXPECT_EQ(pelda_get_proto_by_name(m, name.c_str()), id) << name;
        EXPECT_LT(pelda_get_proto_category(m, uint16_t(id)), uint32_t(PELDA_NUM_CATEGORIES));
    }
}

TEST(Names, PairNames) {
    pt::owned_module m;
    struct {
        uint16_t master, app;
        uint32_t buf_len;
        const char *expect;
    } cases[] = {
        {0, 7, 64, "HTTP"},        {7, 7, 64, "HTTP"},    {91, 0, 64, "TLS"},
        {91, 90, 64, "TLS.IMAPS"}, {0, 0, 64, "Unknown"}, {0, 60000, 64, "Unknown"},
        {60000, 5, 64, "DNS"},     {91, 90, 6, "TLS.I"},
    };
    for (const auto &c : cases) {
        char buf[64];
        const char *r = pelda_protocol2name(m, {c.master, c.app}, buf, c.buf_len);
        ASSERT_EQ(r, buf);
        EXPECT_STREQ(r, c.expect) << c.master << "." << c.app;
    }
    char buf[4];
    EXPECT_EQ(pelda_protocol2name(m, {0, 7}, buf, 0), nullptr);
}

TEST(Categories, AllIdsNamedUniquelyAndFoundByName) {
    pt::owned_module m;
    std::set<std::string> seen;
    for (uint32_t id = 0; id < PELDA_NUM_CATEGORIES; ++id) {
        const char *name = pelda_category_get_name(m, id);
        ASSERT_NE(name, nullptr) << id;
        ASSERT_NE(name[0], '\0');
        EXPECT_TRUE(seen.insert(name).second) << name;
        EXPECT_EQ(pelda_get_category_by_name(m, name), int(id));
    }
    EXPECT_EQ(pelda_category_get_name(m, PELDA_NUM_CATEGORIES), nullptr);
    EXPECT_EQ(pelda_get_category_by_name(m, "web"), pelda_get_category_by_name(m, "WEB"));
    EXPECT_EQ(pelda_get_category_by_name(m, "no such category"), -1);
    EXPECT_EQ(pelda_get_proto_category(m, 7), uint32_t(pelda_get_category_by_name(m, "Web")));
}

}  // namespace
