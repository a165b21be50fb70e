// The built-in protocol table, gathered from the families listed in families.def, and
// the category names.
#include <cstdio>

#include "internal.h"

namespace pelda {

namespace {

constexpr protocol_def kUnknown[] = {row(0, "Unknown", cat::Unspecified)};
PELDA_DEFINE_FAMILY(unknown, kUnknown);

const family *const kFamilies[] = {
    &family_unknown,
#define PELDA_FAMILY(name) &family_##name,
#include "families.def"
#undef PELDA_FAMILY
};

#define PELDA_CATEGORY_NAME(name) #name,
const char *const kNamedCategories[] = {PELDA_NAMED_CATEGORIES(PELDA_CATEGORY_NAME)};
#undef PELDA_CATEGORY_NAME
char numbered_categories[PELDA_NUM_CATEGORIES][16];

// A broken table is a programming error that every test run shows at once.
[[noreturn]] void bad_table(const char *what, unsigned id) {
    std::fprintf(stderr, "pelda: built-in protocol table: %s: id %u\n", what, id);
    std::abort();
}

bool before(const protocol_def *a, const protocol_def *b) {
    return a->rank != b->rank ? a->rank < b->rank : a->id < b->id;
}

builtin_table build() {
    builtin_table t{};
    for (const family *f : kFamilies) {
        for (uint32_t i = 0; i < f->count; ++i) {
            const protocol_def &p = f->rows[i];
            if (p.id >= kMaxBuiltin) bad_table("id too large", p.id);
            if (t.by_id[p.id]) bad_table("id used twice", p.id);
            t.by_id[p.id] = &p;
            if (p.id >= t.count) t.count = p.id + 1u;
            if (!p.detect) continue;
            // Insertion by rank (ties by id).
            uint32_t k = t.num_dissectors++;
            for (; k > 0 && before(&p, t.dissectors[k - 1]); --k)
                t.dissectors[k] = t.dissectors[k - 1];
            t.dissectors[k] = &p;
        }
    }
    for (uint32_t id = 0; id < t.count; ++id)
        if (!t.by_id[id]) bad_table("missing id", id);
    for (uint32_t c = 0; c < PELDA_NUM_CATEGORIES; ++c) {
        if (c < cat::kNamed) {
            t.category_names[c] = kNamedCategories[c];
            continue;
        }
        std::snprintf(numbered_categories[c], sizeof(numbered_categories[c]), "%s_%u",
                      c < 100 ? "Reserved" : "Custom", c);
        t.category_names[c] = numbered_categories[c];
    }
    return t;
}

}  // namespace

const builtin_table &builtins() {
    static const builtin_table table = build();
    return table;
}

const protocol_def *builtin(uint16_t id) {
    const builtin_table &t = builtins();
    return id < t.count ? t.by_id[id] : nullptr;
}

}  // namespace pelda
