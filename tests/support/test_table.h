// A bare table for storage tests: zero-filled like a new table, without engine or exporter, so the
// flow hash can call back into it (settling, active-flow counter) exactly as in a full table.
#pragma once

#include <stdlib.h>

#include <vector>

#include "quelm_flow.h"
#include "quelm_hash.h"
#include "quelm_table.h"

namespace quelm_test {

struct BareTable {
    quelm_table *table = static_cast<quelm_table *>(calloc(1, sizeof(quelm_table)));
    ~BareTable() { free(table); }
    operator quelm_table *() const { return table; }
};

// Takes every flow out of a list, releasing each; returns how many there were.
inline size_t drain(quelm_list *list) {
    size_t n = 0;
    while (quelm_flow *f = quelm_list_pop_head(list)) {
        quelm_flow_free(f);
        n++;
    }
    return n;
}

// Statuses of the flows of a list, head to tail, without taking them out.
inline std::vector<uint32_t> statuses(const quelm_list &list) {
    std::vector<uint32_t> out;
    for (quelm_list_node *n = list.head; n != nullptr; n = n->next)
        out.push_back(n->owner->value.status);
    return out;
}

}  // namespace quelm_test
