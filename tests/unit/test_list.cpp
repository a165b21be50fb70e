// The intrusive flow list: random operations on two lists, checked against a model after each.
#include <gtest/gtest.h>

#include <deque>
#include <random>

#include "quelm_flow.h"

// Walks the list both ways (no further than the model is long) and compares with the model.
static void expect_list(const quelm_list &list, const std::deque<quelm_flow *> &want) {
    std::deque<quelm_flow *> forward, backward;
    for (auto *n = list.head; n != nullptr && forward.size() <= want.size(); n = n->next)
        forward.push_back(n->owner);
    for (auto *n = list.tail; n != nullptr && backward.size() <= want.size(); n = n->prev)
        backward.push_front(n->owner);
    EXPECT_TRUE(forward == want && backward == want && list.count == want.size());
}

TEST(List, InvariantsHoldUnderRandomOperations) {
    std::mt19937 rng(7);
    std::vector<quelm_flow> pool(16);
    std::vector<quelm_flow *> outside;
    for (quelm_flow &f : pool)
        outside.push_back(f.lru.owner = &f);
    quelm_list lists[2] = {};
    std::deque<quelm_flow *> model[2];
    for (int step = 0; step < 5000 && !testing::Test::HasFailure(); step++) {
        const uint32_t l = rng() % 2, op = rng() % 7;
        std::deque<quelm_flow *> &m = model[l], &other = model[1 - l];
        if (op == 6) {
            quelm_list_merge(&lists[l], &lists[1 - l]);
            m.insert(m.end(), other.begin(), other.end());
            other.clear();
        } else if (op == 5) {
            EXPECT_EQ(quelm_list_pop_head(&lists[l]), m.empty() ? nullptr : m.front());
            if (!m.empty()) outside.push_back(m.front()), m.pop_front();
        } else if ((op <= 1 || m.empty()) && !outside.empty()) {
            std::swap(outside[rng() % outside.size()], outside.back());
            quelm_flow *f = outside.back();
            outside.pop_back();
            op == 0 ? quelm_list_append(&lists[l], &f->lru)
                    : quelm_list_prepend(&lists[l], &f->lru);
            op == 0 ? m.push_back(f) : m.push_front(f);
        } else if (!m.empty()) {
            const auto at = m.begin() + long(rng() % m.size());
            quelm_flow *f = *at;
            m.erase(at);
            if (op <= 2) quelm_list_remove(&lists[l], &f->lru), outside.push_back(f);
            if (op == 3) quelm_list_move_to_head(&lists[l], &f->lru), m.push_front(f);
            if (op == 4) quelm_list_move_to_tail(&lists[l], &f->lru), m.push_back(f);
        }
        expect_list(lists[0], model[0]);
        expect_list(lists[1], model[1]);
    }
}
