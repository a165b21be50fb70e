// The engine binding and the table's handle, names and rule-table sizing, against the scripted
// engine.
#include <gtest/gtest.h>

#include <string>

#include "pelda_stub.h"
#include "quelm_table.h"

namespace {

using pelda_stub::script;

class Binding : public ::testing::Test {
  protected:
    void SetUp() override { pelda_stub::reset(300, {{7, "HTTP"}, {91, "TLS"}, {5, "DNS"}}); }
};

TEST_F(Binding, WrongApiRevisionFailsTableCreationWithOneLine) {
    script().api_version = 0x10000 | 14000;
    testing::internal::CaptureStderr();
    EXPECT_EQ(quelm_create_table(QUELM_FLAG_DPI, 64, 0, 0, 0), nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "*** pelda library version mismatch, expected API rev.14778 (6.1.0) found rev.14000 "
              "(9.9.9-stub) ***\n");
    EXPECT_EQ(script().modules_created, 0);
    script().api_version = 0x50000 | 14778;  // only the low 16 bits are the revision
    quelm_table *t = quelm_create_table(QUELM_FLAG_DPI, 64, 0, 0, 0);
    EXPECT_NE(t, nullptr);
    quelm_destroy_table(t);
}

TEST_F(Binding, GuessOnGiveUpIsTurnedOffOnlyWhenAsked) {
    quelm_table *t = quelm_create_table(QUELM_FLAG_DPI, 64, 0, 0, 0);
    EXPECT_TRUE(script().config.empty());
    quelm_destroy_table(t);
    t = quelm_create_table(QUELM_FLAG_DPI | QUELM_FLAG_NO_L7_GUESS, 64, 0, 0, 0);
    EXPECT_EQ(script().config["dpi.guess_on_giveup"], "0");
    quelm_destroy_table(t);
    EXPECT_EQ(script().modules_released, 2);
}

TEST_F(Binding, NamesFallBackToUnknown) {
    quelm_table *t = quelm_create_table(QUELM_FLAG_DPI, 64, 0, 0, 0);
    char buf[32];
    EXPECT_STREQ(quelm_category_name(t, 3, buf, sizeof buf), "Cat3");
    EXPECT_STREQ(quelm_category_name(t, 164, buf, sizeof buf), "Unknown");
    EXPECT_STREQ(quelm_category_name(t, 164, buf, 4), "Unk");
    EXPECT_EQ(quelm_category_id(t, "cAT17"), 17);
    EXPECT_EQ(quelm_category_id(t, "Nope"), -1);
    EXPECT_EQ(quelm_l7_protocol_id(t, "http"), 7);
    EXPECT_EQ(quelm_l7_protocol_id(t, "nope"), 0);
    const quelm_l7_protocol pair{91, 7, 0};
    EXPECT_STREQ(quelm_l7_protocol_name(t, &pair, buf, sizeof buf), "TLS.HTTP");
    quelm_destroy_table(t);

    t = quelm_create_table(0, 64, 0, 0, 0);
    EXPECT_STREQ(quelm_l7_protocol_name(t, &pair, buf, sizeof buf), "Unknown");
    EXPECT_STREQ(quelm_category_name(t, 3, buf, sizeof buf), "Unknown");
    EXPECT_EQ(quelm_category_id(t, "Cat3"), -1);
    EXPECT_EQ(quelm_l7_protocol_id(t, "HTTP"), 0);
    EXPECT_EQ(quelm_load_pelda_protocols(t, "/dev/null"), -1);
    EXPECT_EQ(quelm_load_pelda_categories(t, "/dev/null"), -1);
    quelm_destroy_table(t);
}

TEST_F(Binding, RuleTablesFollowTheProtocolCount) {
    struct Case {
        uint32_t protocols, added;
        uint8_t shift;
        uint32_t size;
    } cases[] = {
        {300, 0, 9, 262144}, {256, 0, 8, 65536}, {400, 100, 9, 262144}, {400, 113, 10, 1048576}};
    for (const Case &c : cases) {
        pelda_stub::reset(c.protocols, {{7, "HTTP"}});
        script().protocols_added_by_load = c.added;
        quelm_table *t = quelm_create_table(QUELM_FLAG_DPI, 64, 0, 0, 0);
        quelm_set_filter_protocol_by_name(t, "HTTP", QUELM_ACTION_DISCARD);
        if (c.added != 0) {
            ASSERT_EQ(quelm_load_pelda_protocols(t, "protocols.txt"), 0);
        }
        const quelm_rules *r = quelm_get_rules(t);
        EXPECT_EQ(t->protocol_shift, c.shift) << c.protocols + c.added;
        EXPECT_EQ(r->protocol_table_size, c.size);
        EXPECT_EQ(r->category_table_size, 164u);
        EXPECT_EQ(r->filter_protocol[7], QUELM_ACTION_DISCARD) << "single ids keep their entry";
        quelm_destroy_table(t);
    }
}

TEST_F(Binding, FailingProtocolsFileChangesNothing) {
    quelm_table *t = quelm_create_table(QUELM_FLAG_DPI, 64, 0, 0, 0);
    script().load_protocols_result = -3;
    script().protocols_added_by_load = 400;
    EXPECT_EQ(quelm_load_pelda_protocols(t, "bad.txt"), -3);
    EXPECT_EQ(quelm_get_rules(t)->protocol_table_size, 262144u);
    quelm_destroy_table(t);
}

TEST_F(Binding, LentHandleIsNeverReleasedByTheTable) {
    void *lent = quelm_dpi_alloc(1);
    ASSERT_NE(lent, nullptr);
    quelm_table *t = quelm_create_table(QUELM_FLAG_DPI, 64, 0, 0, 0);
    EXPECT_EQ(quelm_set_pelda_handle(t, lent), 0);
    EXPECT_EQ(script().modules_released, 1) << "the handle the table made is released";
    EXPECT_EQ(quelm_get_pelda_handle(t), lent);
    quelm_destroy_table(t);
    EXPECT_EQ(script().modules_released, 1);

    t = quelm_create_table(0, 64, 0, 0, 0);
    EXPECT_EQ(quelm_set_pelda_handle(t, lent), 0);
    EXPECT_TRUE(t->flags & QUELM_FLAG_DPI);
    EXPECT_EQ(quelm_get_rules(t)->protocol_table_size, 262144u);
    quelm_destroy_table(t);
    EXPECT_EQ(script().modules_released, 1);
    quelm_dpi_free(lent);
}

TEST_F(Binding, GiveUpTakesTheEnginesApplicationIdForAMasterOnlyAnswer) {
    void *pelda = quelm_dpi_alloc(1);
    void *obj = calloc(1, quelm_dpi_detection_get_sizeof_pelda_flow_struct());
    script().giveup.result = pelda_stub::result(91, 0, 5);
    script().giveup.fields.giveup_app = 42;
    script().giveup.has_fields = true;
    const quelm_dpi_result r = quelm_dpi_giveup_and_guess(pelda, obj);
    EXPECT_EQ(r.master_protocol, 91);
    EXPECT_EQ(r.app_protocol, 42);
    EXPECT_EQ(r.category, 5u);
    quelm_dpi_free_flow(obj);
    quelm_dpi_free(pelda);
}

}  // namespace
