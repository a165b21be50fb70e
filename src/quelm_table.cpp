// Table lifecycle, settings and the steps that other modules call back into.
#include "quelm_table.h"

#include "quelm_flow.h"

extern "C" {

void quelm_table_inc_active_flows(quelm_table *table, uint32_t count) {
    table->stats.active_flows += count;
}

void quelm_table_dec_active_flows(quelm_table *table, uint32_t count) {
    table->stats.active_flows -= count;
}

void quelm_pre_export(quelm_table *table, quelm_flow *flow) {
    if (table->pelda == nullptr || flow->dpi_done) return;
    const uint32_t guess = (table->flags & QUELM_FLAG_NO_L7_GUESS) ? 0 : 1;
    quelm_flow_prepare_for_export(flow, table->pelda, guess);
    if (flow->dpi_done && table->l7_detected_callback != nullptr)
        table->l7_detected_callback(nullptr, nullptr, flow, table->l7_detected_user);
}

}  // extern "C"
