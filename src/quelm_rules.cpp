// Filter and shunt rules: the verdict of a flow's packets from its protocol and category, rules
// set by engine name, and the rule tables sized from the engine's protocol count.
#include "quelm_rules.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "quelm_dpi.h"
#include "quelm_flow.h"

namespace {

constexpr uint8_t kProtoTcp = 6, kProtoUdp = 17;

// First non-zero entry for a flow's protocol pair, application, master and category.
uint8_t rule_value(const quelm_table *t, const uint8_t *protocols, const uint8_t *categories,
                   const quelm_l7_protocol &p) {
    const quelm_rules &r = t->rules;
    const uint32_t m = p.master_protocol, a = p.app_protocol;
    if (protocols != nullptr) {
        if (m != 0 && a != 0 && m != a) {
            const uint32_t pair = m << t->protocol_shift | a;
            if (pair < r.protocol_table_size && protocols[pair] != 0) return protocols[pair];
        }
        if (a < r.protocol_table_size) {
            if (protocols[a] != 0) return protocols[a];
            if (m != a && m < r.protocol_table_size && protocols[m] != 0) return protocols[m];
        }
    }
    if (categories != nullptr && p.category >= 0 && uint32_t(p.category) < r.category_table_size &&
        categories[p.category] != 0)
        return categories[p.category];
    return 0;
}

uint8_t shunt_limit(const quelm_table *t, const quelm_flow *flow, uint8_t l4_protocol,
                    bool detected) {
    const quelm_rules &r = t->rules;
    if (detected) {
        const uint8_t s =
            rule_value(t, r.shunt_protocol, r.shunt_category, flow->value.l7_protocol);
        if (s != 0) return s;
    }
    if (l4_protocol == kProtoTcp && r.shunt_tcp != 0) return r.shunt_tcp;
    if (l4_protocol == kProtoUdp && r.shunt_udp != 0) return r.shunt_udp;
    return r.shunt_default;
}

// Caps a flow at `limit` packets: beyond it the flow is discarded.
void apply_shunt(quelm_flow *flow, uint8_t limit) {
    if (limit != 0 && quelm::flow_total_packets(flow) > limit) flow->action = QUELM_ACTION_DISCARD;
}

// Protocol index of an engine name ("HTTP") or pair ("TLS.YouTube"), or -1 (reported).
int64_t protocol_index(quelm_table *table, const char *name) {
    char copy[128];
    snprintf(copy, sizeof copy, "%.127s", name);
    uint32_t index;
    if (char *dot = strchr(copy, '.')) {
        *dot = '\0';
        const uint16_t m = quelm_dpi_get_protocol_id_by_name(table->pelda, copy);
        const uint16_t a = quelm_dpi_get_protocol_id_by_name(table->pelda, dot + 1);
        if (m == 0 || a == 0)
            index = 0;
        else
            index = uint32_t(m) << table->protocol_shift | a;
    } else {
        index = quelm_dpi_get_protocol_id_by_name(table->pelda, copy);
    }
    if (index == 0) {
        if (quelm_debug_enabled) printf("[QUELM] Error: unknown protocol '%s'\n", name);
        return -1;
    }
    return index;
}

enum class RuleKind { shunt, filter };

void set_protocol_rule(quelm_table *table, const char *name, uint8_t value, quelm_rules *rules,
                       RuleKind kind) {
    if (table->pelda == nullptr) return;
    const int64_t index = protocol_index(table, name);
    if (index < 0) return;
    if (uint64_t(index) >= rules->protocol_table_size) {
        if (quelm_debug_enabled)
            printf("[QUELM] Error: protocol '%s' #%d out of %d supported protocols\n", name,
                   int(index), int(rules->protocol_table_size));
        return;
    }
    if (kind == RuleKind::shunt) {
        if (quelm_debug_enabled)
            printf("[QUELM] Adding shunt rule (%u packets) for %s (%d)\n", value, name, int(index));
        rules->shunt_protocol[index] = value;
    } else {
        if (quelm_debug_enabled) printf("[QUELM] Adding filter for %s (%d)\n", name, int(index));
        rules->filter_protocol[index] = value;
    }
}

void set_category_rule(quelm_table *table, const char *name, uint8_t value, quelm_rules *rules,
                       RuleKind kind) {
    // Without a handle a filter does nothing; a shunt reports the name as unknown.
    if (table->pelda == nullptr && kind == RuleKind::filter) return;
    const int id = quelm_dpi_get_category_id_by_name(table->pelda, name);
    if (id < 0) {
        if (quelm_debug_enabled) printf("[QUELM] Error: unknown category '%s'\n", name);
        return;
    }
    if (uint32_t(id) >= rules->category_table_size) {
        if (quelm_debug_enabled)
            printf("[QUELM] Error: category '%s' #%d out of %d supported categories\n", name, id,
                   int(rules->category_table_size));
        return;
    }
    if (kind == RuleKind::shunt) {
        if (quelm_debug_enabled)
            printf("[QUELM] Adding shunt rule (%u packets) for category %s (%d)\n", value, name,
                   id);
        rules->shunt_category[id] = value;
    } else {
        if (quelm_debug_enabled) printf("[QUELM] Adding filter for category %s (%d)\n", name, id);
        rules->filter_category[id] = value;
    }
}

}  // namespace

quelm_action quelm_rules_verdict(quelm_table *t, quelm_flow *flow, bool is_new, bool detected) {
    const uint8_t l4 = t->packet.l4_protocol;
    if (!is_new && flow->action != 0 && !detected) return flow->action;
    if (!detected) {
        apply_shunt(flow, shunt_limit(t, flow, l4, flow->dpi_done != 0));
        return flow->action;
    }
    const uint8_t s = shunt_limit(t, flow, l4, true);
    apply_shunt(flow, s);
    const uint8_t f =
        rule_value(t, t->rules.filter_protocol, t->rules.filter_category, flow->value.l7_protocol);
    if (f != 0) {
        flow->action = f;
        return f;
    }
    if (flow->action != 0 || s != 0) return flow->action;
    if (t->default_action != 0) flow->action = t->default_action;
    return flow->action;
}

void quelm_rules_release(quelm_rules &r) {
    free(r.filter_protocol);
    free(r.filter_category);
    free(r.shunt_protocol);
    free(r.shunt_category);
    r = quelm_rules{};
}

extern "C" {

const char *quelm_l7_protocol_name(quelm_table *table, const quelm_l7_protocol *protocol, char *buf,
                                   uint32_t buf_len) {
    return quelm_dpi_get_protocol_name_by_id(table->pelda, protocol, buf, buf_len);
}

uint16_t quelm_l7_protocol_id(quelm_table *table, const char *name) {
    return quelm_dpi_get_protocol_id_by_name(table->pelda, name);
}

char *quelm_category_name(quelm_table *table, uint32_t id, char *buf, int buf_len) {
    return quelm_dpi_get_category_name_by_id(table->pelda, id, buf, buf_len);
}

int quelm_category_id(quelm_table *table, const char *name) {
    return quelm_dpi_get_category_id_by_name(table->pelda, name);
}

int quelm_load_pelda_protocols(quelm_table *table, const char *path) {
    if (table->pelda == nullptr) return -1;
    const int r = quelm_dpi_load_protocols(table->pelda, path);
    if (r < 0) return r;
    if (quelm_debug_enabled)
        printf("[QUELM] The number of supported protocols is now %u\n",
               quelm_dpi_get_num_supported_protocols(table->pelda));
    return __quelm_table_pelda_update(table);
}

int quelm_load_pelda_categories(quelm_table *table, const char *path) {
    if (table->pelda == nullptr) return -1;
    return quelm_dpi_load_categories(table->pelda, path);
}

void __quelm_set_shunt_protocol_by_name(quelm_table *table, const char *name, uint8_t packets,
                                        quelm_rules *rules) {
    set_protocol_rule(table, name, packets, rules, RuleKind::shunt);
}

void quelm_set_shunt_protocol_by_name(quelm_table *table, const char *name, uint8_t packets) {
    set_protocol_rule(table, name, packets, &table->rules, RuleKind::shunt);
}

void __quelm_set_filter_protocol_by_name(quelm_table *table, const char *name, uint8_t action,
                                         quelm_rules *rules) {
    set_protocol_rule(table, name, action, rules, RuleKind::filter);
}

void quelm_set_filter_protocol_by_name(quelm_table *table, const char *name, uint8_t action) {
    set_protocol_rule(table, name, action, &table->rules, RuleKind::filter);
}

void __quelm_set_shunt_category_by_name(quelm_table *table, const char *name, uint8_t packets,
                                        quelm_rules *rules) {
    set_category_rule(table, name, packets, rules, RuleKind::shunt);
}

void quelm_set_shunt_category_by_name(quelm_table *table, const char *name, uint8_t packets) {
    set_category_rule(table, name, packets, &table->rules, RuleKind::shunt);
}

void __quelm_set_filter_category_by_name(quelm_table *table, const char *name, uint8_t action,
                                         quelm_rules *rules) {
    set_category_rule(table, name, action, rules, RuleKind::filter);
}

void quelm_set_filter_category_by_name(quelm_table *table, const char *name, uint8_t action) {
    set_category_rule(table, name, action, &table->rules, RuleKind::filter);
}

void quelm_set_filter_all_protocols(quelm_table *table, uint8_t action) {
    if (table->pelda != nullptr && table->rules.filter_protocol != nullptr)
        memset(table->rules.filter_protocol, action, table->rules.protocol_table_size);
}

void quelm_set_filter_all_categories(quelm_table *table, uint8_t action) {
    if (table->pelda != nullptr && table->rules.filter_category != nullptr)
        memset(table->rules.filter_category, action, table->rules.category_table_size);
}

const quelm_rules *quelm_get_rules(quelm_table *table) {
    return &table->rules;
}

// Rule tables sized from the engine: a protocol table holds every pair of engine ids.
uint32_t __compute_protocol_filter_size(quelm_table *table) {
    const uint32_t n = utils_pow2(quelm_dpi_get_num_supported_protocols(table->pelda));
    table->protocol_shift = uint8_t(__builtin_popcount(n - 1));
    return n * n;
}

int __quelm_table_pelda_update(quelm_table *table) {
    const uint32_t p = __compute_protocol_filter_size(table);
    const uint32_t m = quelm_dpi_get_num_supported_categories();
    uint8_t *fresh[4] = {static_cast<uint8_t *>(calloc(p, 1)), static_cast<uint8_t *>(calloc(p, 1)),
                         static_cast<uint8_t *>(calloc(m, 1)),
                         static_cast<uint8_t *>(calloc(m, 1))};
    if (!fresh[0] || !fresh[1] || !fresh[2] || !fresh[3]) {
        for (uint8_t *f : fresh)
            free(f);
        return -1;
    }
    quelm_rules &r = table->rules;
    uint8_t **old[4] = {&r.filter_protocol, &r.shunt_protocol, &r.filter_category,
                        &r.shunt_category};
    const uint32_t old_size[4] = {r.protocol_table_size, r.protocol_table_size,
                                  r.category_table_size, r.category_table_size};
    const uint32_t new_size[4] = {p, p, m, m};
    for (int i = 0; i < 4; i++) {
        if (*old[i] != nullptr) {
            memcpy(fresh[i], *old[i], old_size[i] < new_size[i] ? old_size[i] : new_size[i]);
            free(*old[i]);
        }
        *old[i] = fresh[i];
    }
    r.protocol_table_size = p;
    r.category_table_size = m;
    if (table->flags & QUELM_FLAG_DPI_EXTRA_DISSECTION) table->dpi_extra_dissection = 1;
    return 0;
}

}  // extern "C"
