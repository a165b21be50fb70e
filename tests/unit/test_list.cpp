#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <random>
#include <vector>

#include "quelm_flow.h"

namespace {

quelm_flow *bare_flow() {
    auto *f = static_cast<quelm_flow *>(calloc(1, sizeof(quelm_flow)));
    f->users = 1;
    f->lru.owner = f;
    return f;
}

// Checks the list's structure against the order the caller expects.
void expect_list(const quelm_list &list, const std::deque<quelm_flow *> &want) {
    ASSERT_EQ(list.count, want.size());
    if (want.empty()) {
        EXPECT_EQ(list.head, nullptr);
        EXPECT_EQ(list.tail, nullptr);
        return;
    }
    ASSERT_NE(list.head, nullptr);
    EXPECT_EQ(list.head->prev, nullptr);
    EXPECT_EQ(list.tail->next, nullptr);
    const quelm_list_node *prev = nullptr;
    size_t i = 0;
    for (const quelm_list_node *n = list.head; n != nullptr; prev = n, n = n->next, i++) {
        ASSERT_LT(i, want.size()) << "more nodes reachable than counted";
        EXPECT_EQ(n->owner, want[i]) << "position " << i;
        EXPECT_EQ(n->prev, prev) << "position " << i;
    }
    EXPECT_EQ(i, want.size());
    EXPECT_EQ(list.tail, prev);
}

class ListTest : public ::testing::Test {
  protected:
    void TearDown() override {
        quelm_list_cleanup(&list);
        EXPECT_EQ(list.count, 0u);
        for (quelm_flow *f : loose)
            quelm_flow_free(f);
    }
    quelm_flow *flow() {
        quelm_flow *f = bare_flow();
        loose.push_back(f);
        return f;
    }
    // Hands a flow over to the list: cleanup releases it from then on.
    quelm_flow *owned(quelm_flow *f) {
        loose.erase(std::find(loose.begin(), loose.end(), f));
        return f;
    }
    quelm_list list{};
    std::vector<quelm_flow *> loose;
};

TEST_F(ListTest, AppendAndPrependOnEmptyList) {
    quelm_flow *a = owned(flow()), *b = owned(flow());
    quelm_list_append(&list, &a->lru);
    quelm_list_prepend(&list, &b->lru);
    expect_list(list, {b, a});
}

TEST_F(ListTest, RemovingOnlyNodeClearsEverything) {
    quelm_flow *a = flow();
    quelm_list_append(&list, &a->lru);
    quelm_list_remove(&list, &a->lru);
    expect_list(list, {});
    EXPECT_EQ(a->lru.prev, nullptr);
    EXPECT_EQ(a->lru.next, nullptr);
}

TEST_F(ListTest, MovesToHeadAndTail) {
    quelm_flow *a = owned(flow()), *b = owned(flow()), *c = owned(flow());
    for (quelm_flow *f : {a, b, c})
        quelm_list_append(&list, &f->lru);
    quelm_list_move_to_head(&list, &a->lru);  // already head: nothing changes
    expect_list(list, {a, b, c});
    quelm_list_move_to_head(&list, &c->lru);
    expect_list(list, {c, a, b});
    quelm_list_move_to_tail(&list, &c->lru);
    expect_list(list, {a, b, c});
    quelm_list_move_to_tail(&list, &b->lru);
    expect_list(list, {a, c, b});
}

TEST_F(ListTest, MergeKeepsOrderAndEmptiesSource) {
    quelm_list src{};
    quelm_flow *a = owned(flow()), *b = owned(flow()), *c = owned(flow());
    quelm_list_merge(&list, &src);  // empty source: nothing
    expect_list(list, {});
    quelm_list_append(&src, &a->lru);
    quelm_list_append(&src, &b->lru);
    quelm_list_merge(&list, &src);  // into an empty destination
    expect_list(list, {a, b});
    expect_list(src, {});
    quelm_list_append(&src, &c->lru);
    quelm_list_merge(&list, &src);
    expect_list(list, {a, b, c});
    expect_list(src, {});
}

TEST_F(ListTest, GetNextReturnsHeadToTailThenNull) {
    quelm_flow *fs[3] = {flow(), flow(), flow()};
    for (quelm_flow *f : fs)
        quelm_list_append(&list, &f->lru);
    for (uint32_t i = 0; i < 3; i++) {
        EXPECT_EQ(quelm_list_get_next(&list), fs[i]);
        EXPECT_EQ(list.count, 2 - i);
    }
    EXPECT_EQ(quelm_list_get_next(&list), nullptr);
    expect_list(list, {});
}

TEST_F(ListTest, DumpPrintsEachFlowThenSummaryWithoutLineEnd) {
    quelm_flow *a = owned(flow()), *b = owned(flow());
    a->key.ip_version = b->key.ip_version = 4;
    quelm_list_append(&list, &a->lru);
    quelm_list_append(&list, &b->lru);
    testing::internal::CaptureStdout();
    quelm_list_dump_flows(&list, nullptr);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 2);
    EXPECT_TRUE(out.ends_with("\n2/2 flows dumped")) << out;

    quelm_list empty{};
    testing::internal::CaptureStdout();
    quelm_list_dump_flows(&empty, nullptr);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

// Random operations checked against a model after every step.
TEST_F(ListTest, RandomOperationsKeepInvariants) {
    std::mt19937 rng(7);
    std::vector<quelm_flow *> pool;
    for (int i = 0; i < 16; i++)
        pool.push_back(owned(flow()));
    std::deque<quelm_flow *> model;
    std::vector<quelm_flow *> outside = pool;
    quelm_list other{};
    std::deque<quelm_flow *> other_model;
    for (int step = 0; step < 4000; step++) {
        const int op = int(rng() % 8);
        if ((op <= 1 || model.empty()) && !outside.empty()) {
            const size_t k = rng() % outside.size();
            quelm_flow *f = outside[k];
            outside.erase(outside.begin() + long(k));
            if (op == 0) {
                quelm_list_append(&list, &f->lru);
                model.push_back(f);
            } else {
                quelm_list_prepend(&list, &f->lru);
                model.push_front(f);
            }
        } else if (!model.empty()) {
            const size_t k = rng() % model.size();
            quelm_flow *f = model[k];
            switch (op) {
                case 2:
                case 3:
                    quelm_list_remove(&list, &f->lru);
                    model.erase(model.begin() + long(k));
                    outside.push_back(f);
                    break;
                case 4:
                    quelm_list_move_to_head(&list, &f->lru);
                    model.erase(model.begin() + long(k));
                    model.push_front(f);
                    break;
                case 5:
                    quelm_list_move_to_tail(&list, &f->lru);
                    model.erase(model.begin() + long(k));
                    model.push_back(f);
                    break;
                case 6:
                    EXPECT_EQ(quelm_list_pop_head(&list), model.front());
                    outside.push_back(model.front());
                    model.pop_front();
                    break;
                default:  // move everything through a second list and back
                    quelm_list_merge(&other, &list);
                    other_model.insert(other_model.end(), model.begin(), model.end());
                    model.clear();
                    quelm_list_merge(&list, &other);
                    model.swap(other_model);
                    break;
            }
        }
        expect_list(list, model);
        expect_list(other, {});
        if (HasFailure()) FAIL() << "at step " << step;
    }
    for (quelm_flow *f : outside)
        quelm_flow_free(f);
}

}  // namespace
