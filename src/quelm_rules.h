// Filter and shunt rules of a table, and its rules files.
#pragma once

#include "quelm_table.h"

// The verdict of the packet just accounted to `flow`: shunt limits first, then the filter rule of
// the flow's protocol pair, application, master or category, then the table's default action.
quelm_action quelm_rules_verdict(quelm_table *t, quelm_flow *flow, bool is_new, bool detected);
// Frees a rule set's tables and empties it.
void quelm_rules_release(quelm_rules &r);
