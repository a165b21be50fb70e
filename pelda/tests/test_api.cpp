// Module set-up, the published protocol ids and names, categories, and the result layout.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "flow.h"
#include "support.h"

namespace {

TEST(Api, VersionConfigAndLayout) {
    EXPECT_EQ(pelda_get_api_version() & 0xFFFF, 14778u);
    EXPECT_STREQ(pelda_revision(), "6.1.0");
    EXPECT_EQ(pelda_detection_get_sizeof_pelda_flow_struct(), sizeof(pelda_flow));
    EXPECT_EQ(sizeof(pelda_protocol), 56u);
    pelda_detection_module *m = pelda_init_detection_module(nullptr, 2);
    ASSERT_NE(m, nullptr);
    const std::pair<const char *, int> settings[] = {{"0", 0}, {"1", 0}, {"yes", -1}};
    for (const auto &[value, rc] : settings)
        EXPECT_EQ(pelda_set_config(m, nullptr, "dpi.guess_on_giveup", value), rc) << value;
    EXPECT_EQ(pelda_set_config(m, nullptr, "no.such.key", "1"), -1);
    EXPECT_EQ(pelda_set_config(m, "HTTP", "dpi.guess_on_giveup", "1"), -1);
    EXPECT_EQ(pelda_set_config(nullptr, nullptr, "dpi.guess_on_giveup", "1"), -1);
    EXPECT_EQ(pelda_finalize_initialization(m), 0);
    pelda_exit_detection_module(m);
    pelda_exit_detection_module(nullptr);
}

// Ids are published: a few pinned here, all with unique names found again by name.
TEST(Names, PublishedIdsAndLookups) {
    pt::owned_module m;
    const std::pair<const char *, uint16_t> ids[] = {
        {"DNS", 5},           {"dns", 5},   {"HTTP", 7},
        {"Http", 7},          {"TLS", 91},  {"SMTP", 3},
        {"FTP_CONTROL", 77},  {"QUIC", 34}, {"WireGuard", 31},
        {"IPsec_NAT_T", 108}, {"", 0},      {"NoSuchProtocol", 0},
        {"HTTP.TLS", 0}};
    for (const auto &[name, id] : ids)
        EXPECT_EQ(pelda_get_proto_by_name(m, name), id) << name;
    EXPECT_EQ(pelda_get_proto_by_name(m, nullptr), 0);
    EXPECT_EQ(pelda_get_proto_by_name(nullptr, "HTTP"), 0);
    uint32_t n = pelda_get_num_protocols(m);
    EXPECT_EQ(n, 109u);
    EXPECT_EQ(pelda_get_num_protocols(nullptr), n);
    std::set<std::string> seen;
    for (uint32_t id = 1; id < n; ++id) {
        char buf[64];
        std::string name = pelda_protocol2name(m, {0, uint16_t(id)}, buf, sizeof(buf));
        EXPECT_EQ(name.find('.'), std::string::npos) << name;
        std::string lower;
        for (char c : name)
            lower += char(tolower(c));
        EXPECT_TRUE(seen.insert(lower).second && lower != "unknown") << name;
        EXPECT_EQ(pelda_get_proto_by_name(m, name.c_str()), id) << name;
        EXPECT_STREQ(pelda_protocol2name(nullptr, {0, uint16_t(id)}, buf, sizeof(buf)),
                     name.c_str());
        EXPECT_LT(pelda_get_proto_category(m, uint16_t(id)), uint32_t(PELDA_NUM_CATEGORIES));
    }
}

TEST(Names, PairNames) {
    pt::owned_module m;
    const struct {
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
        EXPECT_EQ(pelda_protocol2name(m, {c.master, c.app}, buf, c.buf_len), buf);
        EXPECT_STREQ(buf, c.expect) << c.master << "." << c.app;
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
        EXPECT_TRUE(seen.insert(name).second) << name;
        EXPECT_EQ(pelda_get_category_by_name(m, name), int(id));
    }
    const std::pair<uint32_t, const char *> names[] = {
        {0, "Unspecified"},  {5, "Web"},          {39, "Government"}, {40, "Reserved_40"},
        {99, "Reserved_99"}, {100, "Custom_100"}, {163, "Custom_163"}};
    for (const auto &[id, name] : names)
        EXPECT_STREQ(pelda_category_get_name(m, id), name);
    EXPECT_EQ(pelda_category_get_name(m, PELDA_NUM_CATEGORIES), nullptr);
    EXPECT_EQ(pelda_get_category_by_name(m, "web"), 5);
    EXPECT_EQ(pelda_get_category_by_name(m, "no such category"), -1);
    EXPECT_EQ(pelda_get_proto_category(m, 7), 5u);
}

}  // namespace
