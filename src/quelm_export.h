// Export of ended flows to ZeroMQ collectors: a queue of flows, serialised in batches of records.
#pragma once

#include "pelda.h"
#include "quelm.h"
#include "quelm_zmq.h"

inline constexpr uint32_t QUELM_EXPORT_QUEUE_MAX = 500000;
inline constexpr uint32_t QUELM_EXPORT_FLUSH_THRESHOLD = 16;
inline constexpr uint32_t QUELM_EXPORT_BATCH_RECORDS = 16;
inline constexpr uint32_t QUELM_EXPORT_DEQUEUE_BUDGET = 100;
// A forced drain gives up after this long without progress, unless the application says otherwise.
inline constexpr uint32_t QUELM_EXPORT_DEFAULT_TIMEOUT_MSEC = 10000;

struct quelm_export {
    uint8_t initialized;             // serializer and transport up
    uint8_t serializer_initialized;  // `serializer` created (at most once per exporter life)
    uint32_t format;                 // QUELM_EXPORT_FORMAT_TLV or _JSON
    // The format `serializer` was created with: a message's version byte says it. The engine's
    // serializer object is opaque to the library.
    uint32_t batch_format;
    quelm_list queue;  // flows waiting to be serialised
    uint32_t queue_len;
    uint64_t last_dequeue_msec;
    uint32_t dequeue_budget;  // flows an unforced drain may still take this millisecond
    quelm_zmq zmq;
    pelda_serializer serializer;  // the batch being filled
    uint32_t batch_records;
    uint32_t num_flow_exports;
    uint32_t num_flow_drops;
    uint64_t stats_last_msec, stats_last_packets, stats_last_bytes;
    uint32_t timeout_msec;  // how long a forced drain may go without progress
    uint32_t forced;        // forced drains running (flush, teardown): sends may wait
    char *pending_stats;    // a statistics record the collectors had no room for (owned)
    uint16_t pending_stats_len;
    uint8_t stats_due;  // a drain ran: the next statistics record goes out at once
    uint8_t stalled;    // a forced wait gave up: the next ones give up at once until a send
                        // succeeds again
};

void quelm_export_init(quelm_export *exporter);
// Sets the transport and format and starts the exporter; a running exporter sends its current
// batch in the old format first.
void quelm_export_configure(quelm_export *exporter, const char *endpoint,
                            const char *server_public_key, uint8_t connect_mode, uint8_t reserved,
                            uint8_t use_json);
// Queues a flow the application hands over, draining the queue once it holds a batch's worth.
void quelm_export_take_flow(quelm_export *exporter, quelm_flow *flow);
void quelm_export_enqueue_flow(quelm_export *exporter, quelm_flow *flow);
// Drains the queue, newest first (all of it when `force`, else within the per-millisecond
// budget); 1 when flows remain, because the budget ran out or the collectors take no more now.
// Inside a forced drain (`forced`) a send waits for the collectors instead.
int quelm_export_process_queue(quelm_export *exporter, int force);
// Adds a flow's record to the batch (and releases the flow); 0 when the batch is full and the
// collectors take no more now, after taking the flow.
int quelm_export_process_flow(quelm_export *exporter, quelm_flow *flow);
// Sends the batch; 0 when the collectors take no more now and the batch is kept.
int quelm_export_flush(quelm_export *exporter);
// Everything queued and batched out now, as a forced drain: sent, or counted as dropped.
void quelm_export_drain(quelm_export *exporter);
// Sends what is queued and batched, closes the transport; flows queued while the exporter never
// ran are released.
void quelm_export_destroy(quelm_export *exporter);
void quelm_export_process_stats(quelm_export *exporter, uint32_t flow_lifetime_timeout,
                                uint32_t flow_idle_timeout, const char *if_name, uint16_t if_speed,
                                const char *if_ip, const char *probe_ip, uint64_t packets,
                                uint64_t bytes);
// Serialises one flow record into `serializer` (no separator).
void quelm_export_write_flow_record(void *serializer, quelm_flow *flow);
// The statistics record's source identity.
uint32_t quelm_export_source_id(const char *if_name, uint16_t if_speed, const char *if_ip,
                                const char *probe_ip, uint32_t flow_lifetime_timeout,
                                uint32_t flow_idle_timeout);
