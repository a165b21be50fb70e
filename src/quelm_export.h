// Export queue of flows leaving the table towards ZeroMQ collectors.
#pragma once

#include "quelm.h"

struct quelm_export;

// Drains the queue (all of it when `force`); 1 when flows remain because the budget ran out.
int quelm_export_process_queue(quelm_export *exporter, int force);
// Sends what is queued and batched, then closes the transport.
void quelm_export_destroy(quelm_export *exporter);
