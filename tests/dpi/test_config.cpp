// Rules files: the iterator's line handling and what the handler does with each section.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "pelda_stub.h"
#include "quelm_hash.h"
#include "quelm_table.h"

namespace {

using pelda_stub::script;

class Config : public ::testing::Test {
  protected:
    void SetUp() override {
        pelda_stub::reset(300, {{7, "HTTP"}, {91, "TLS"}, {5, "DNS"}});
        t = quelm_create_table(QUELM_FLAG_DPI, 1024, 30, 120, 0);
        path = testing::TempDir() + "quelm_rules_" +
               testing::UnitTest::GetInstance()->current_test_info()->name() + ".conf";
    }
    void TearDown() override {
        quelm_destroy_table(t);
        std::remove(path.c_str());
    }
    const char *file(const std::string &text) {
        std::ofstream(path) << text;
        return path.c_str();
    }
    quelm_table *t;
    std::string path;
};

struct Line {
    std::string section, key, value;
    bool operator==(const Line &) const = default;
};

std::vector<Line> iterate(const char *path) {
    static std::vector<Line> seen;
    seen.clear();
    utils_configuration_file_iterator(
        path,
        [](const char *s, const char *k, const char *v, quelm_table *, quelm_rules *) {
            seen.push_back({s, k, v});
        },
        nullptr, nullptr);
    return seen;
}

TEST_F(Config, IteratorSplitsTrimsAndSkips) {
    const std::string long_key(1500, 'k');
    const std::vector<Line> got =
        iterate(file("before = section\n"
                     "x\n"
                     "  ; comment\n"
                     "# comment\n"
                     "[Shunt]\n"
                     "  tcp = 300  \n"
                     "udp 10\n"
                     "bare\n"
                     "[ spaced ]\n"
                     "a=b=c\n"
                     "[unclosed\n"
                     "key =\n" +
                     long_key + "\n"));
    const std::vector<Line> want = {{"", "before", "section"},
                                    {"Shunt", "tcp", "300"},
                                    {"Shunt", "udp", "10"},
                                    {"Shunt", "bare", ""},
                                    {" spaced ", "a", "b=c"},
                                    {"unclosed", "key", ""},
                                    {"unclosed", long_key.substr(0, 1023), ""},
                                    {"unclosed", long_key.substr(1023), ""}};
    EXPECT_EQ(got, want);
    EXPECT_EQ(utils_configuration_file_iterator("/nonexistent/rules.conf", nullptr, t, nullptr),
              -1);
}

TEST_F(Config, TableRulesAndGlobalSettings) {
    ASSERT_EQ(quelm_load_configuration(t, file("[global]\n"
                                               "default = Forward\n"
                                               "dpi_min_num_tcp_packets = 30\n"
                                               "dpi_min_num_udp_packets = 70000\n"
                                               "flow_idle_timeout = 10\n"
                                               "flow_lifetime_timeout = 600\n"
                                               "unknown_key = 1\n"
                                               "[SHUNT]\n"
                                               "tcp = 300\n"
                                               "udp 10\n"
                                               "default = -1\n"
                                               "HTTP = 12\n"
                                               "[filter]\n"
                                               "TLS = discard\n"
                                               "DNS = discard ; drop it\n"
                                               "HTTP = USER_1\n"
                                               "[other]\n"
                                               "TLS = forward\n")),
              0);
    EXPECT_EQ(t->default_action, QUELM_ACTION_FORWARD);
    EXPECT_EQ(t->dpi_min_num_tcp_packets, 30);
    EXPECT_EQ(t->dpi_min_num_udp_packets, uint16_t(70000));
    EXPECT_EQ(t->hash_v4->expiry->idle_timeout, 10u);
    EXPECT_EQ(t->hash_v6->expiry, &t->expiry) << "one idle timeout, read by both hashes";
    EXPECT_EQ(t->flow_lifetime_timeout, 600u);
    const quelm_rules *r = quelm_get_rules(t);
    EXPECT_EQ(r->shunt_tcp, 255);
    EXPECT_EQ(r->shunt_udp, 10);
    EXPECT_EQ(r->shunt_default, 255) << "a negative count wraps to its low byte";
    EXPECT_EQ(r->shunt_protocol[7], 12);
    EXPECT_EQ(r->filter_protocol[91], QUELM_ACTION_DISCARD);
    EXPECT_EQ(r->filter_protocol[5], QUELM_ACTION_DEFAULT);
    EXPECT_EQ(r->filter_protocol[7], QUELM_ACTION_USER_1);
}

TEST_F(Config, LaterLinesOverwriteAndBareNamesRemoveFilters) {
    quelm_set_filter_protocol_by_name(t, "TLS", QUELM_ACTION_DISCARD);
    ASSERT_EQ(quelm_load_configuration(t, file("[filter]\nHTTP = discard\nHTTP = forward\nTLS\n")),
              0);
    EXPECT_EQ(quelm_get_rules(t)->filter_protocol[7], QUELM_ACTION_FORWARD);
    EXPECT_EQ(quelm_get_rules(t)->filter_protocol[91], 0);
}

TEST_F(Config, UnknownNamesAreSkippedAndReported) {
    quelm_debug();
    testing::internal::CaptureStdout();
    EXPECT_EQ(quelm_load_configuration(t, file("[filter]\nNoSuch = discard\n")), 0);
    quelm_debug_enabled = 0;
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[QUELM] Evaluating rule [filter] NoSuch = discard\n"
              "[QUELM] Error: unknown protocol 'NoSuch'\n");
}

TEST_F(Config, CallerOwnedSetTakesOnlyTheRulesOfTheLatestFile) {
    quelm_rules mine{};
    ASSERT_EQ(quelm_load_configuration_ext(t,
                                           file("[global]\ndefault = discard\n"
                                                "flow_idle_timeout = 5\n"
                                                "[shunt]\ntcp = 4\nTLS = 9\n"
                                                "[filter]\nHTTP = forward\n"),
                                           &mine),
              0);
    EXPECT_EQ(t->default_action, QUELM_ACTION_DEFAULT);
    EXPECT_EQ(t->expiry.idle_timeout, 30u);
    EXPECT_EQ(quelm_get_rules(t)->shunt_tcp, 0);
    EXPECT_EQ(mine.protocol_table_size, 262144u);
    EXPECT_EQ(mine.shunt_tcp, 4);
    EXPECT_EQ(mine.shunt_protocol[91], 9);
    EXPECT_EQ(mine.filter_protocol[7], QUELM_ACTION_FORWARD);
    uint8_t *same = mine.filter_protocol;
    ASSERT_EQ(quelm_load_configuration_ext(t, file("[shunt]\nudp = 2\n"), &mine), 0);
    EXPECT_EQ(mine.filter_protocol, same) << "the tables are reused";
    EXPECT_EQ(mine.filter_protocol[7], 0);
    EXPECT_EQ(mine.shunt_protocol[91], 0);
    EXPECT_EQ(mine.shunt_tcp, 0);
    EXPECT_EQ(mine.shunt_udp, 2);
    free(mine.filter_protocol);
    free(mine.shunt_protocol);
}

TEST_F(Config, LoadersNeedAHandleAndAFile) {
    quelm_rules mine{};
    EXPECT_EQ(quelm_load_configuration(t, "/nonexistent/rules.conf"), -1);
    EXPECT_EQ(quelm_load_configuration_ext(t, "/nonexistent/rules.conf", &mine), -1);
    free(mine.filter_protocol);
    free(mine.shunt_protocol);
    quelm_table *plain = quelm_create_table(0, 64, 0, 0, 0);
    EXPECT_EQ(quelm_load_configuration(plain, file("[global]\ndefault = discard\n")), -1);
    EXPECT_EQ(plain->default_action, 0);
    quelm_destroy_table(plain);
}

TEST(ConfigWords, ActionWords) {
    const std::pair<std::string, quelm_action> cases[] = {
        {"default", 0}, {"FORWARD", 1}, {"Discard", 2}, {"user_1", 3},   {"USER_2", 4},
        {"slice", 5},   {"", 0},        {"drop", 0},    {"discard ;", 0}};
    for (auto [word, action] : cases)
        EXPECT_EQ(utils_string2action(word.data()), action) << word;
    char spaced[] = " \t a b \r\n";
    EXPECT_STREQ(utils_trim(spaced), "a b");
}

}  // namespace
