// The table: creation and teardown, settings and callbacks, statistics, the detection handle,
// export to collectors, and the public flow-hash calls that name a table.
#include "quelm_table.h"

#include <stdlib.h>
#include <string.h>

#include "quelm_dpi.h"
#include "quelm_rules.h"

namespace {

constexpr uint32_t kDefaultMaxFlows = 512000;
constexpr uint32_t kDefaultIdleTimeout = 30;
constexpr uint32_t kDefaultLifetimeTimeout = 120;
constexpr uint16_t kDefaultDpiTcpPackets = 12;
constexpr uint16_t kDefaultDpiUdpPackets = 5;

// Flows go first: releasing one unlinks its fragment entry and frees its engine state.
void release_parts(quelm_table *t) {
    quelm_hash_free(t->hash_v6);
    quelm_hash_free(t->hash_v4);
    quelm_fragment_hash_free(t->fragments);
    quelm_rules_release(t->rules);
    if (t->owns_pelda) quelm_dpi_free(t->pelda);
    free(t);
}

// Puts a table's hook on a hash for one public call, so that what leaves the hash is settled and
// counted by that table (a hash the application made itself has no hook of its own).
class TableHook {
  public:
    TableHook(quelm_table *table, quelm_hash *hash) : hash_(hash), saved_(hash->hook) {
        if (table != nullptr) hash->hook = {quelm_table_flow_leaves, table};
    }
    ~TableHook() { hash_->hook = saved_; }
    TableHook(const TableHook &) = delete;
    TableHook &operator=(const TableHook &) = delete;

  private:
    quelm_hash *hash_;
    quelm_hash_hook saved_;
};

}  // namespace

extern "C" {

// ---- Lifecycle and settings ------------------------------------------------------------------

void quelm_debug(void) {
    quelm_debug_enabled = 1;
}

quelm_table *quelm_create_table(uint32_t flags, uint32_t max_flows, uint32_t flow_idle_timeout,
                                uint32_t flow_lifetime_timeout, uint16_t user_size) {
    auto *t = static_cast<quelm_table *>(calloc(1, sizeof(quelm_table)));
    if (t == nullptr) return nullptr;
    t->flags = flags;
    t->user_size = user_size;
    t->dpi_min_num_tcp_packets = kDefaultDpiTcpPackets;
    t->dpi_min_num_udp_packets = kDefaultDpiUdpPackets;
    const uint32_t size = utils_pow2(max_flows != 0 ? max_flows : kDefaultMaxFlows);
    t->expiry.idle_timeout = flow_idle_timeout != 0 ? flow_idle_timeout : kDefaultIdleTimeout;
    t->flow_lifetime_timeout =
        flow_lifetime_timeout != 0 ? flow_lifetime_timeout : kDefaultLifetimeTimeout;
    const uint32_t ignore_vlan = (flags & QUELM_FLAG_IGNORE_VLAN) ? 1 : 0;
    const uint32_t mac_in_key = (flags & QUELM_FLAG_MAC_IN_KEY) ? 1 : 0;
    const quelm_hash_hook hook = {quelm_table_flow_leaves, t};

    t->hash_v4 = quelm_hash_create(size, &t->expiry, ignore_vlan, mac_in_key, hook);
    if (t->hash_v4 != nullptr)
        t->hash_v6 = quelm_hash_create(size / 2, &t->expiry, ignore_vlan, mac_in_key, hook);
    if (t->hash_v6 != nullptr) t->fragments = quelm_fragment_hash_alloc(size / 8);
    bool ok = t->fragments != nullptr;
    if (ok && (flags & QUELM_FLAG_DPI)) {
        t->pelda = quelm_dpi_alloc((flags & QUELM_FLAG_NO_L7_GUESS) ? 0 : 1);
        t->owns_pelda = t->pelda != nullptr;
        ok = t->pelda != nullptr && __quelm_table_pelda_update(t) == 0;
    }
    if (!ok) {
        release_parts(t);
        return nullptr;
    }
    t->housekeeping_countdown = QUELM_HOUSEKEEPING_PACKETS;
    t->exporter.timeout_msec = QUELM_EXPORT_DEFAULT_TIMEOUT_MSEC;
    t->max_packet_len = QUELM_DEFAULT_MAX_PACKET_LEN;
    return t;
}

void quelm_destroy_table(quelm_table *table) {
    if (table == nullptr) return;
    quelm_export_destroy(&table->exporter);
    // Flows that ended but were not exported yet are released with those still in the hashes.
    quelm_list_cleanup(&table->export_list);
    quelm_list_cleanup(&table->hash_v6->expired);
    quelm_list_cleanup(&table->hash_v4->expired);
    free(table->exporter.zmq.endpoint);
    free(table->exporter.zmq.server_public_key);
    release_parts(table);
}

void quelm_flow_set_flow_slicing(quelm_table *table, uint32_t flow_slicing) {
    table->expiry.slice_timeout = flow_slicing;
}

void quelm_set_new_flow_callback(quelm_table *table, quelm_new_flow_callback cb, void *user) {
    table->new_flow_callback = cb;
    table->new_flow_user = user;
}

void quelm_set_flow_packet_callback(quelm_table *table, quelm_flow_packet_callback cb, void *user) {
    table->flow_packet_callback = cb;
    table->flow_packet_user = user;
}

void quelm_set_l7_detected_callback(quelm_table *table, quelm_l7_detected_callback cb, void *user) {
    table->l7_detected_callback = cb;
    table->l7_detected_user = user;
}

void quelm_set_flow_export_callback(quelm_table *table, quelm_flow_export_callback cb, void *user) {
    table->flow_export_callback = cb;
    table->flow_export_user = user;
}

void quelm_set_flow_list_export_callback(quelm_table *table, quelm_flow_list_export_callback cb,
                                         void *user) {
    table->flow_list_export_callback = cb;
    table->flow_list_export_user = user;
}

void quelm_set_default_action(quelm_table *table, quelm_action action) {
    table->default_action = action;
}

void quelm_table_inc_active_flows(quelm_table *table, uint32_t count) {
    table->stats.active_flows += count;
}

void quelm_table_dec_active_flows(quelm_table *table, uint32_t count) {
    table->stats.active_flows -= count;
}

quelm_stats *quelm_get_stats(quelm_table *table) {
    const uint32_t v4 = table->hash_v4->max_bucket_walk, v6 = table->hash_v6->max_bucket_walk;
    table->stats.max_bucket_walk = v4 > v6 ? v4 : v6;
    return &table->stats;
}

void *quelm_get_pelda_handle(quelm_table *table) {
    return table->pelda;
}

int quelm_set_pelda_handle(quelm_table *table, void *pelda) {
    if (table->pelda != nullptr && table->owns_pelda) {
        quelm_dpi_free(table->pelda);
    } else if (table->pelda == nullptr && quelm_dpi_init() < 0) {
        return -1;
    }
    table->pelda = pelda;
    table->flags |= QUELM_FLAG_DPI;
    table->owns_pelda = 0;
    return __quelm_table_pelda_update(table);
}

// ---- Export to collectors --------------------------------------------------------------------

void quelm_zmq_export_configure(quelm_table *table, const char *endpoint,
                                const char *server_public_key, uint8_t connect_mode,
                                uint8_t reserved, uint8_t use_json) {
    quelm_export_configure(&table->exporter, endpoint, server_public_key, connect_mode, reserved,
                           use_json);
}

void quelm_zmq_export_flow(quelm_flow *flow, void *table) {
    quelm_export_take_flow(&static_cast<quelm_table *>(table)->exporter, flow);
}

void quelm_zmq_export_drain(quelm_table *table) {
    quelm_export_drain(&table->exporter);
}

void quelm_zmq_export_stats(quelm_table *table, const char *if_name, uint16_t if_speed,
                            const char *if_ip, const char *probe_ip) {
    quelm_export_process_stats(&table->exporter, table->flow_lifetime_timeout,
                               table->expiry.idle_timeout, if_name, if_speed, if_ip, probe_ip,
                               table->stats.packets, table->stats.bytes);
}

void quelm_zmq_get_stats(quelm_table *table, quelm_zmq_stats *stats) {
    stats->buffered_records = table->exporter.batch_records;
    stats->num_flow_exports = table->exporter.num_flow_exports;
    stats->num_flow_drops = table->exporter.num_flow_drops;
}

void quelm_zmq_read_stats(quelm_table *table, quelm_zmq_stats *stats, size_t size) {
    quelm_export &ex = table->exporter;
    quelm_zmq_read_events(&ex.zmq);
    const quelm_zmq &z = ex.zmq;
    const quelm_zmq_stats all = {
        ex.batch_records, ex.num_flow_exports, ex.num_flow_drops, z.connections, z.handshakes,
        z.refused_auth,   z.refused_protocol,  z.disconnections,  z.subscribed,  ex.queue_len};
    memcpy(stats, &all, size < sizeof all ? size : sizeof all);
}

int quelm_zmq_set_client_key(quelm_table *table, const char *public_key, const char *secret_key) {
    quelm_zmq &z = table->exporter.zmq;
    if (public_key == nullptr || secret_key == nullptr || strlen(public_key) != 40 ||
        strlen(secret_key) != 40)
        return -1;
    memcpy(z.client_public_key, public_key, 41);
    memcpy(z.client_secret_key, secret_key, 41);
    return 0;
}

int quelm_set_max_packet_len(quelm_table *table, uint32_t max_len) {
    if (max_len == 0) return -1;
    table->max_packet_len = max_len;
    return 0;
}

void quelm_zmq_set_timeout(quelm_table *table, uint32_t timeout_msec) {
    table->exporter.timeout_msec = timeout_msec;
}

// ---- Flow-hash calls that name a table ---------------------------------------------------------

quelm_flow *quelm_hash_find(quelm_table *table, quelm_hash *hash, quelm_packet_info *info,
                            uint32_t *direction) {
    TableHook hook(table, hash);
    return quelm::hash_find(hash, info, direction);
}

void quelm_hash_export_flow(quelm_table *table, quelm_hash *hash, quelm_flow *flow) {
    TableHook hook(table, hash);
    quelm::hash_retire(hash, flow);
}

void quelm_hash_export_flow_slice(quelm_table *table, quelm_hash *hash, quelm_flow *flow,
                                  uint32_t now) {
    TableHook hook(table, hash);
    quelm::hash_slice(hash, flow, now);
}

uint32_t quelm_hash_harvest_expired_flows(quelm_table *table, quelm_hash *hash, uint32_t now) {
    TableHook hook(table, hash);
    return quelm::hash_harvest(hash, now);
}

uint32_t quelm_hash_check_expired_flows(quelm_table *table, quelm_hash *hash, uint32_t now) {
    TableHook hook(table, hash);
    return quelm::hash_scan(hash, now);
}

}  // extern "C"
