// Module set-up, the published protocol ids and names, and the categories.
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
    for (const char *value : {"0", "1"})
        EXPECT_EQ(pelda_set_config(m, nullptr, "dpi.guess_on_giveup", value), 0);
    EXPECT_EQ(pelda_set_config(m, nullptr, "dpi.guess_on_giveup", "yes"), -1);
    EXPECT_EQ(pelda_set_config(m, nullptr, "no.such.key", "1"), -1);
    EXPECT_EQ(pelda_set_config(m, "HTTP", "dpi.guess_on_giveup", "1"), -1);
    EXPECT_EQ(pelda_set_config(nullptr, nullptr, "dpi.guess_on_giveup", "1"), -1);
    EXPECT_EQ(pelda_finalize_initialization(m), 0);
    pelda_exit_detection_module(m);
    pelda_exit_detection_module(nullptr);
}

// Ids are published: some pinned here; every id has a unique name that finds it again.
TEST(Names, PublishedIdsAndNames) {
    pt::owned_module m;
    const std::pair<const char *, uint16_t> ids[] = {
        {"dns", 5},   {"Http", 7},          {"TLS", 91}, {"SMTP", 3}, {"FTP_CONTROL", 77},
        {"QUIC", 34}, {"IPsec_NAT_T", 108}, {"", 0},     {"None", 0}, {"HTTP.TLS", 0}};
    for (const auto &[name, id] : ids)
        EXPECT_EQ(pelda_get_proto_by_name(m, name), id) << name;
    EXPECT_EQ(pelda_get_proto_by_name(m, nullptr) + pelda_get_proto_by_name(nullptr, "HTTP"), 0);
    ASSERT_EQ(pelda_get_num_protocols(m), 109u);
    EXPECT_EQ(pelda_get_num_protocols(nullptr), 109u);
    std::set<std::string> seen;
    for (uint16_t id = 1; id < 109; ++id) {
        char buf[64];
        std::string name = pelda_protocol2name(m, {0, id}, buf, sizeof(buf)), lower;
        for (char c : name)
            lower += char(tolower(c));
        EXPECT_TRUE(seen.insert(lower).second && lower != "unknown") << name;
        EXPECT_EQ(name.find('.'), std::string::npos) << name;
        EXPECT_EQ(pelda_get_proto_by_name(m, name.c_str()), id) << name;
        EXPECT_STREQ(pelda_protocol2name(nullptr, {0, id}, buf, sizeof(buf)), name.c_str());
        EXPECT_LT(pelda_get_proto_category(m, id), uint32_t(PELDA_NUM_CATEGORIES));
    }
    // Pairs: "MASTER.APP", unknown ids, truncation.
    const std::tuple<uint16_t, uint16_t, uint32_t, const char *> pairs[] = {
        {7, 7, 64, "HTTP"},    {91, 0, 64, "TLS"},    {91, 90, 64, "TLS.IMAPS"},
        {0, 0, 64, "Unknown"}, {60000, 5, 64, "DNS"}, {0, 60000, 64, "Unknown"},
        {91, 90, 6, "TLS.I"}};
    for (const auto &[master, app, len, expect] : pairs) {
        char buf[64];
        EXPECT_EQ(pelda_protocol2name(m, {master, app}, buf, len), buf);
        EXPECT_STREQ(buf, expect);
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
    std::string names;
    for (uint32_t id : {0, 5, 35, 39, 40, 99, 100, 163})
        names += std::string(pelda_category_get_name(m, id)) + " ";
    EXPECT_EQ(names,
              "Unspecified Web Banking Government Reserved_40 Reserved_99 Custom_100 Custom_163 ");
    EXPECT_EQ(pelda_category_get_name(m, PELDA_NUM_CATEGORIES), nullptr);
    EXPECT_EQ(pelda_get_category_by_name(m, "web"), 5);
    EXPECT_EQ(pelda_get_category_by_name(m, "no such category"), -1);
    EXPECT_EQ(pelda_get_proto_category(m, 7), 5u);
}

}  // namespace
