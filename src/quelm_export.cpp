// Export queue and records. Flows handed to the exporter are queued (bounded), drained newest
// first into a batch of serialised records, and every 16 records go out as one message. Every flow
// given to the exporter is released exactly once: when its record is written, when it is dropped,
// or at teardown.
#include "quelm_export.h"

#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "quelm_bytes.h"
#include "quelm_flow.h"
#include "quelm_wire.h"

namespace {

using namespace quelm::wire;

constexpr uint64_t kStatsIntervalMsec = 3000;
// Messages the socket holds for a collector before it refuses more: 256 batches of 16 records,
// about 0.5 MiB of TLV, several milliseconds of a fast collector's work, so that a waiting sender
// refills it in time. Kept small because these are what closing the socket must still deliver
// within the timeout (libzmq's linger), with nobody to count them if the collector is too slow.
constexpr uint32_t kSendHighWaterMark = 256;
// A waiting sender looks again this often: the socket does not say when a queue has room.
constexpr uint32_t kWaitSliceMsec = 1;
constexpr const char *kDefaultProbeIp = "127.0.0.1";
// The collector public key used when none is configured; only its holder can read the flows.
constexpr const char *kBuiltinServerPublicKey = "Q7w.Fk2-Tz9m!xR4b^Lp8vN0c=Hs6yJe3Ud5aG1o";

using quelm::key_ipv4;

uint64_t clamp_rate(double rate) {
    return rate >= 4294967295.0 ? 4294967295u : uint64_t(uint32_t(rate));
}

}  // namespace

void quelm_export_init(quelm_export *ex) {
    if (ex->initialized || !quelm_is_pelda_available() || ex->zmq.endpoint == nullptr) return;
    if (ex->format != QUELM_EXPORT_FORMAT_JSON) ex->format = QUELM_EXPORT_FORMAT_TLV;
    if (!ex->serializer_initialized) {
        if (quelm_serializer_init(&ex->serializer, ex->format) != 0) return;
        ex->serializer_initialized = 1;
        ex->batch_format = ex->format;
    }
    if (quelm_zmq_init(&ex->zmq, kSendHighWaterMark, ex->timeout_msec) != 0) return;
    // Flows queued while the exporter was dormant stay queued: they go out with the next drain.
    ex->initialized = 1;
}

void quelm_export_enqueue_flow(quelm_export *ex, quelm_flow *flow) {
    if (ex->queue_len > QUELM_EXPORT_QUEUE_MAX - 1) {
        ex->num_flow_drops++;
        quelm_flow_free(flow);
        return;
    }
    quelm_list_append(&ex->queue, &flow->lru);
    ex->queue_len++;
}

int quelm_export_process_queue(quelm_export *ex, int force) {
    if (!ex->initialized) return 0;
    // A full batch the collectors did not take yet goes first.
    if (ex->batch_records >= QUELM_EXPORT_BATCH_RECORDS && !quelm_export_flush(ex)) return 1;
    if (ex->queue.tail == nullptr) return 0;
    const uint64_t now = utils_time_msec();
    if (ex->last_dequeue_msec < now) ex->dequeue_budget = QUELM_EXPORT_DEQUEUE_BUDGET;
    while (quelm_list_node *node = ex->queue.tail) {
        if (!force && ex->dequeue_budget == 0) return 1;
        ex->queue_len--;
        ex->last_dequeue_msec = now;
        if (ex->dequeue_budget > 0) ex->dequeue_budget--;
        quelm_list_remove(&ex->queue, node);
        if (!quelm_export_process_flow(ex, node->owner)) return 1;
    }
    return 0;
}

void quelm_export_write_flow_record(void *s, quelm_flow *flow) {
    const quelm_flow_key &k = flow->key;
    const quelm_flow_value &v = flow->value;
    char smac[18], dmac[18], src[48], dst[48], l7[24];
    quelm_serialize_uint32(s, kSrcVlan, k.vlan_id);
    quelm_serialize_string(s, kInSrcMac, utils_ethtoa(k.smac, smac));
    quelm_serialize_string(s, kInDstMac, utils_ethtoa(k.dmac, dmac));
    quelm_serialize_uint32(s, kIpProtocolVersion, k.ip_version);
    if (k.ip_version == 4) {
        quelm_serialize_string(s, kIpv4SrcAddr, utils_intoav4(key_ipv4(k.saddr), src, sizeof src));
        quelm_serialize_string(s, kIpv4DstAddr, utils_intoav4(key_ipv4(k.daddr), dst, sizeof dst));
    } else {
        quelm_serialize_string(s, kIpv6SrcAddr, inet_ntop(AF_INET6, k.saddr, src, sizeof src));
        quelm_serialize_string(s, kIpv6DstAddr, inet_ntop(AF_INET6, k.daddr, dst, sizeof dst));
    }
    quelm_serialize_uint64(s, kInPkts, v.direction[0].pkts);
    quelm_serialize_uint64(s, kInBytes, v.direction[0].bytes);
    quelm_serialize_uint64(s, kOutPkts, v.direction[1].pkts);
    quelm_serialize_uint64(s, kOutBytes, v.direction[1].bytes);
    quelm_serialize_uint32(s, kFirstSwitched, uint32_t(v.direction[0].first.tv_sec));
    const int64_t last = v.direction[0].last.tv_sec > v.direction[1].last.tv_sec
                             ? v.direction[0].last.tv_sec
                             : v.direction[1].last.tv_sec;
    quelm_serialize_uint32(s, kLastSwitched, uint32_t(last));
    quelm_serialize_uint32(s, kL4SrcPort, k.sport);
    quelm_serialize_uint32(s, kL4DstPort, k.dport);
    quelm_serialize_uint32(s, kTcpFlags, v.direction[0].tcp_flags);
    quelm_serialize_uint32(s, kProtocol, k.protocol);
    quelm_serialize_uint32(s, kSrcTos, 0);
    quelm_serialize_uint32(s, kInputSnmp, v.direction[0].if_index);
    quelm_serialize_uint32(s, kOutputSnmp, v.direction[1].if_index);
    quelm_serialize_uint32(s, kPortId, v.direction[0].port_id);
    // "master.app", written by hand: formatting it was a tenth of a record's cost.
    char *end = quelm::write_decimal(v.l7_protocol.master_protocol, l7);
    *end++ = '.';
    *quelm::write_decimal(v.l7_protocol.app_protocol, end) = '\0';
    quelm_serialize_string_string(s, kL7ProtoKey, l7);
}

int quelm_export_process_flow(quelm_export *ex, quelm_flow *flow) {
    if (!ex->initialized) {
        quelm_export_init(ex);
        if (!ex->initialized) return 1;  // the caller keeps the flow
    }
    if (ex->batch_records != 0) quelm_serialize_end_of_record(&ex->serializer);
    quelm_export_write_flow_record(&ex->serializer, flow);
    quelm_flow_free(flow);
    if (++ex->batch_records > QUELM_EXPORT_BATCH_RECORDS - 1) return quelm_export_flush(ex);
    return 1;
}

namespace {

void batch_done(quelm_export *ex, bool sent) {
    (sent ? ex->num_flow_exports : ex->num_flow_drops) += ex->batch_records;
    quelm_serializer_reset(&ex->serializer);
    ex->batch_records = 0;
}

}  // namespace

namespace {

// Sends one message. 1 sent; 0 not now (outside a forced drain), the caller keeps it; -1 gone
// (libzmq failed, or a forced drain waited the whole timeout without progress; later forced
// sends then give up at once).
int send_or_wait(quelm_export *ex, const char *payload, uint16_t len, uint32_t topic,
                 uint8_t version) {
    uint64_t deadline = 0;
    for (;;) {
        const int rc = quelm_zmq_send(&ex->zmq, payload, len, topic, version);
        if (rc == 1) ex->stalled = 0;
        if (rc != 0) return rc;
        // Nobody subscribes, or a collector's queue is full.
        if (!ex->forced) return 0;
        const uint64_t now = utils_time_msec();
        if (deadline == 0) deadline = now + ex->timeout_msec;
        if (ex->stalled || now >= deadline) break;
        const uint64_t left = deadline - now;
        quelm_zmq_wait(&ex->zmq, left < kWaitSliceMsec ? uint32_t(left) : kWaitSliceMsec);
    }
    ex->stalled = 1;
    return -1;
}

}  // namespace

int quelm_export_flush(quelm_export *ex) {
    if (ex->batch_records == 0) return 1;
    uint32_t len = 0;
    const char *batch = quelm_serializer_get_buffer(&ex->serializer, &len);
    const bool json = ex->batch_format == QUELM_EXPORT_FORMAT_JSON;
    const int rc = batch == nullptr || len > UINT16_MAX
                       ? -1
                       : send_or_wait(ex, batch, uint16_t(len), QUELM_ZMQ_TOPIC_FLOW,
                                      json ? QUELM_ZMQ_VERSION_JSON : QUELM_ZMQ_VERSION_TLV);
    if (rc == 0) return 0;
    if (rc == 1 && quelm_debug_enabled)
        printf("[QUELM][EXPORT][%u] %s\n", len, json ? batch : "(TLV)");
    batch_done(ex, rc == 1);
    return 1;
}

void quelm_export_drain(quelm_export *ex) {
    if (!ex->initialized) return;
    ex->forced++;
    quelm_export_process_queue(ex, 1);
    quelm_export_flush(ex);
    // A statistics record the collectors had no room for goes after the flows it counts.
    if (ex->pending_stats != nullptr)
        send_or_wait(ex, ex->pending_stats, ex->pending_stats_len, QUELM_ZMQ_TOPIC_EVENT,
                     QUELM_ZMQ_VERSION_JSON);
    free(ex->pending_stats);
    ex->pending_stats = nullptr;
    // The next statistics record, however soon, counts what this drain settled.
    ex->stats_due = 1;
    ex->forced--;
}

void quelm_export_destroy(quelm_export *ex) {
    if (!ex->initialized) {
        // Flows queued while the exporter never ran are released here, exactly once, and
        // counted as dropped.
        ex->num_flow_drops += ex->queue_len;
        quelm_list_cleanup(&ex->queue);
        ex->queue_len = 0;
        if (ex->serializer_initialized) quelm_serializer_term(&ex->serializer);
        ex->serializer_initialized = 0;
        return;
    }
    quelm_export_drain(ex);
    quelm_zmq_close(&ex->zmq);
    free(ex->pending_stats);
    ex->pending_stats = nullptr;
    quelm_serializer_term(&ex->serializer);
    ex->initialized = 0;
    ex->serializer_initialized = 0;
}

uint32_t quelm_export_source_id(const char *if_name, uint16_t if_speed, const char *if_ip,
                                const char *probe_ip, uint32_t flow_lifetime_timeout,
                                uint32_t flow_idle_timeout) {
    uint32_t id = inet_addr(probe_ip);
    char text[128];
    // An absent interface address reads as empty text, so that equal inputs give equal ids.
    snprintf(text, sizeof text, "%s-%u-%s-%s-%u-%u", if_name != nullptr ? if_name : "", if_speed,
             if_ip != nullptr ? if_ip : "", probe_ip, flow_lifetime_timeout, flow_idle_timeout);
    uint8_t digest[32];
    quelm_dpi_sha256(text, strlen(text), digest);
    for (uint32_t i = 0; i < 32; i++)
        id += uint32_t(digest[i]) << (1 + i % 15);
    return id;
}

void quelm_export_process_stats(quelm_export *ex, uint32_t flow_lifetime_timeout,
                                uint32_t flow_idle_timeout, const char *if_name, uint16_t if_speed,
                                const char *if_ip, const char *probe_ip, uint64_t packets,
                                uint64_t bytes) {
    // Without a running exporter there is no socket: nothing is built or sent.
    if (!ex->initialized || ex->zmq.socket == nullptr) return;
    const char *probe = probe_ip != nullptr ? probe_ip : kDefaultProbeIp;
    const uint64_t now = utils_time_msec();
    if (!ex->stats_due && ex->stats_last_msec + kStatsIntervalMsec > now) return;
    uint64_t bps = 0, pps = 0;
    if (ex->stats_last_msec != 0 && now > ex->stats_last_msec) {
        const double elapsed = double(now - ex->stats_last_msec);
        pps = clamp_rate(double(packets - ex->stats_last_packets) * 1000 / elapsed);
        bps = clamp_rate(double(bytes - ex->stats_last_bytes) * 8 * 1000 / elapsed);
    }
    const uint32_t source_id = quelm_export_source_id(if_name, if_speed, if_ip, probe,
                                                      flow_lifetime_timeout, flow_idle_timeout);
    pelda_serializer s{};
    if (quelm_serializer_init(&s, QUELM_EXPORT_FORMAT_JSON) == 0) {
        char version[32], time_text[48];
        quelm_serialize_start_of_block(&s, "iface");
        quelm_serialize_string_string(&s, "name", if_name != nullptr ? if_name : "");
        quelm_serialize_string_uint32(&s, "speed", if_speed);
        quelm_serialize_string_string(&s, "ip", if_ip != nullptr ? if_ip : "");
        quelm_serialize_end_of_block(&s);
        quelm_serialize_start_of_block(&s, "probe");
        utils_read_version(version);
        quelm_serialize_string_string(&s, "version", version);
        quelm_serialize_string_string(&s, "osname", "Linux");
        quelm_serialize_string_string(&s, "ip", probe);
        quelm_serialize_string_uint32(&s, "unique_source_id", source_id);
        quelm_serialize_end_of_block(&s);
        snprintf(time_text, sizeof time_text, "%lu.%lu", (unsigned long)(now / 1000),
                 (unsigned long)(now % 1000));
        quelm_serialize_string_string(&s, "time", time_text);
        quelm_serialize_string_uint64(&s, "bytes", bytes);
        quelm_serialize_string_uint64(&s, "packets", packets);
        quelm_serialize_start_of_block(&s, "avg");
        quelm_serialize_string_uint64(&s, "bps", bps);
        quelm_serialize_string_uint64(&s, "pps", pps);
        quelm_serialize_end_of_block(&s);
        quelm_serialize_start_of_block(&s, "drops");
        quelm_serialize_string_uint64(&s, "export_queue_too_long", 0);
        quelm_serialize_string_uint64(&s, "too_many_flows", 0);
        quelm_serialize_end_of_block(&s);
        quelm_serialize_start_of_block(&s, "timeout");
        quelm_serialize_string_uint64(&s, "lifetime", flow_lifetime_timeout);
        quelm_serialize_string_uint64(&s, "idle", flow_idle_timeout);
        quelm_serialize_end_of_block(&s);
        quelm_serialize_start_of_block(&s, "zmq");
        quelm_serialize_string_uint64(&s, "num_flow_exports", ex->num_flow_exports);
        quelm_serialize_string_uint64(&s, "num_flow_drops", ex->num_flow_drops);
        quelm_serialize_string_uint64(&s, "num_exporters", 1);
        quelm_serialize_end_of_block(&s);
        uint32_t len = 0;
        const char *text = quelm_serializer_get_buffer(&s, &len);
        const size_t text_len = text != nullptr ? strnlen(text, len) : 0;
        const int sent = text_len != 0 && text_len <= UINT16_MAX
                             ? quelm_zmq_send(&ex->zmq, text, uint16_t(text_len),
                                              QUELM_ZMQ_TOPIC_EVENT, QUELM_ZMQ_VERSION_JSON)
                             : -1;
        // Nobody subscribes to statistics yet, or the queue is full: the record waits for the
        // next call, which makes a newer one, or for a drain.
        free(ex->pending_stats);
        ex->pending_stats = sent == 0 ? strndup(text, text_len) : nullptr;
        ex->pending_stats_len = uint16_t(text_len);
        quelm_serializer_term(&s);
        if (sent == 0) return;
    }
    // A record that could not be built counts as sent: the next one is due in 3 seconds.
    ex->stats_due = 0;
    ex->stats_last_msec = now;
    ex->stats_last_packets = packets;
    ex->stats_last_bytes = bytes;
}

void quelm_export_configure(quelm_export *ex, const char *endpoint, const char *server_public_key,
                            uint8_t connect_mode, uint8_t reserved, uint8_t use_json) {
    quelm_zmq &zmq = ex->zmq;
    free(zmq.endpoint);
    free(zmq.server_public_key);
    zmq.endpoint = endpoint != nullptr ? strdup(endpoint) : nullptr;
    zmq.connect_mode = connect_mode;
    zmq.reserved = reserved;
    // CURVE is always in use: without a key, the built-in one (its secret is the collector's).
    zmq.server_public_key =
        strdup(server_public_key != nullptr ? server_public_key : kBuiltinServerPublicKey);
    const uint32_t format = use_json ? QUELM_EXPORT_FORMAT_JSON : QUELM_EXPORT_FORMAT_TLV;
    if (ex->initialized && ex->format != format) {
        // A running exporter changes format between batches, so that every message's version
        // byte describes its payload.
        ex->forced++;
        quelm_export_flush(ex);
        ex->forced--;
        quelm_serializer_term(&ex->serializer);
        ex->batch_format = format;
        if (quelm_serializer_init(&ex->serializer, format) != 0) {
            ex->initialized = 0;
            ex->serializer_initialized = 0;
            quelm_zmq_close(&zmq);
        }
    }
    ex->format = format;
    quelm_export_init(ex);
}

void quelm_export_take_flow(quelm_export *ex, quelm_flow *flow) {
    quelm_export_enqueue_flow(ex, flow);
    if (ex->queue_len >= QUELM_EXPORT_FLUSH_THRESHOLD) quelm_export_process_queue(ex, 1);
}
