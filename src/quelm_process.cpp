// The per-packet pipeline (decode; find or create the flow; account; detect; verdict; callbacks)
// and housekeeping on packet time: expiry, export and flush.
#include <stdlib.h>

#include "quelm_decode.h"
#include "quelm_flow.h"
#include "quelm_rules.h"
#include "quelm_table.h"

namespace {

// Bytes added to every packet in the byte statistics (preamble, gap and CRC on the wire).
constexpr uint64_t kWireOverhead = 24;

quelm_hash *hash_of(quelm_table *t, const quelm_packet_info &info) {
    return info.is_ipv4 ? t->hash_v4 : t->hash_v6;
}

// The live flow of the packet, or null. A flow past its lifetime ends here: the packet opens a new
// flow with its own orientation. A flow due for a slice is sliced and goes on.
quelm_flow *find_flow(quelm_table *t, quelm_hash *hash, uint32_t now) {
    quelm_packet_info &info = t->packet;
    info.direction = 0;
    quelm_flow *flow = quelm::hash_find(hash, &info, &info.direction);
    if (flow == nullptr) return nullptr;
    const uint32_t start = uint32_t(quelm::flow_first_seen(flow));
    if (uint32_t(now - start) > t->flow_lifetime_timeout) {
        flow->value.status = QUELM_FLOW_STATUS_LIFETIME_TIMEOUT;
        quelm::hash_retire(hash, flow);
        return nullptr;
    }
    const uint32_t slicing = t->expiry.slice_timeout;
    if (slicing != 0 &&
        uint32_t(now - (flow->last_slice != 0 ? flow->last_slice : start)) > slicing) {
        flow->value.status = QUELM_FLOW_STATUS_SLICE;
        quelm::hash_slice(hash, flow, now);
    }
    return flow;
}

// A new flow for the packet, or null (counted) when the hash is full or memory runs out.
quelm_flow *create_flow(quelm_table *t, quelm_hash *hash) {
    quelm_stats &stats = t->stats;
    if (hash->num_flows >= hash->capacity) {
        stats.flows_no_room++;
        return nullptr;
    }
    quelm_flow *flow = quelm_flow_new(&t->packet, t->pelda, t->user_size);
    if (flow == nullptr) {
        stats.flows_no_memory++;
        return nullptr;
    }
    if (!quelm_hash_add(hash, flow)) {
        quelm_flow_free(flow);
        stats.flows_no_room++;
        return nullptr;
    }
    flow->id = t->next_flow_id++;
    flow->action = QUELM_ACTION_DEFAULT;
    if (t->packet.icmp_query != 0)
        flow->value.flags |= QUELM_FLOW_FLAG_ICMP_QUERY |
                             (t->packet.icmp_query == 2 ? QUELM_FLOW_FLAG_ICMP_FROM_REPLY : 0);
    t->packet.direction = 0;
    stats.active_flows++;
    stats.total_flows++;
    return flow;
}

void account(quelm_flow *flow, const quelm_packet_info &info) {
    quelm_flow_dir_value &d = flow->value.direction[info.direction];
    d.last = info.header->ts;
    d.pkts++;
    d.bytes += info.bytes;
    d.tcp_flags |= info.tcp_flags;
    if (info.icmp_type != 0) flow->value.l7_metadata.icmp.icmp_type = info.icmp_type;
    if (info.icmp_code != 0) flow->value.l7_metadata.icmp.icmp_code = info.icmp_code;
    if (info.ext->if_index != 0) d.if_index = info.ext->if_index;
    if (info.ext->port_id != 0) d.port_id = info.ext->port_id;
    if (info.direction == 1 && d.first.tv_sec == 0) d.first = info.header->ts;
}

// A keyed packet: its flow, its counters, a detection step, and the verdict.
quelm_action track(quelm_table *t, const uint8_t *packet, uint32_t now) {
    quelm_packet_info &info = t->packet;
    quelm_hash *hash = hash_of(t, info);
    quelm_flow *flow = find_flow(t, hash, now);
    const bool is_new = flow == nullptr;
    if (is_new) {
        info.flow = nullptr;
        flow = create_flow(t, hash);
        if (flow == nullptr) return QUELM_ACTION_DEFAULT;
    }
    bool detected = is_new && flow->dpi_done != 0;
    info.flow = flow;
    if (info.fragment != nullptr) quelm_fragment_entry_bind_flow(info.fragment, flow);
    account(flow, info);
    if (t->pelda != nullptr && !flow->dpi_done) {
        quelm_flow_dpi_run(t->dpi_min_num_tcp_packets, t->dpi_min_num_udp_packets,
                           t->dpi_extra_dissection, flow, &info, t->pelda);
        detected = flow->dpi_done != 0;
    }
    info.action = quelm_rules_verdict(t, flow, is_new, detected);
    if (is_new && t->new_flow_callback != nullptr) t->new_flow_callback(flow, t->new_flow_user);
    if (detected && t->l7_detected_callback != nullptr)
        t->l7_detected_callback(packet, &info, flow, t->l7_detected_user);
    if (t->flow_packet_callback != nullptr)
        t->flow_packet_callback(packet, &info, flow, t->flow_packet_user);
    return info.action;
}

}  // namespace

void quelm_table_flow_leaves(quelm_flow *flow, bool ended, void *table) {
    auto *t = static_cast<quelm_table *>(table);
    quelm_pre_export(t, flow);
    if (!ended) return;
    t->stats.active_flows--;
    // The application owns the flow from now on: the fragment table must not reach it again.
    if (flow->fragment != nullptr) quelm_fragment_entry_unlink_flow(flow->fragment, flow);
}

// Gathers the flows that left both hashes and hands them to exactly one receiver.
void quelm_export_flows(quelm_table *table) {
    quelm_list_merge(&table->export_list, &table->hash_v4->expired);
    quelm_list_merge(&table->export_list, &table->hash_v6->expired);
    if (table->export_list.count == 0) return;
    if (table->flow_list_export_callback != nullptr) {
        table->flow_list_export_callback(&table->export_list, table->flow_list_export_user);
        // The receiver took every flow; an empty list is what the next pass starts from.
        table->export_list = quelm_list{};
    } else if (table->flow_export_callback != nullptr) {
        while (quelm_flow *flow = quelm_list_pop_head(&table->export_list))
            table->flow_export_callback(flow, table->flow_export_user);
    } else {
        quelm_list_cleanup(&table->export_list);
    }
}

extern "C" {

quelm_action quelm_process(quelm_table *table, const uint8_t *packet,
                           const quelm_packet_header *header, const quelm_packet_ext *ext) {
    quelm_stats &stats = table->stats;
    stats.packets++;
    stats.bytes += uint64_t{header->len} + kWireOverhead;
    const uint32_t now = uint32_t(header->ts.tv_sec);
    quelm_packet_info &info = table->packet;
    const quelm_decode_context ctx = {table->flags, table->max_packet_len, table->hash_v4,
                                      table->hash_v6, table->fragments};
    quelm_not_decoded_reason why = QUELM_NOT_DECODED_TRUNCATED;
    if (quelm_decode(ctx, info, packet, header, ext, &why)) {
        info.action = track(table, packet, now);
    } else {
        stats.packets_not_decoded++;
        if (why == QUELM_DECODE_FRAGMENT_NO_FLOW) {
            stats.fragments_no_flow++;
            why = QUELM_NOT_DECODED_FRAGMENT;
        }
        stats.not_decoded[why]++;
        info.action = QUELM_ACTION_DEFAULT;
    }
    if (--table->housekeeping_countdown == 0 ||
        uint64_t{table->housekeeping_sec} != uint64_t(header->ts.tv_sec)) {
        quelm_housekeeping(table, now);
        table->housekeeping_countdown = QUELM_HOUSEKEEPING_PACKETS;
    }
    return info.action;
}

int quelm_housekeeping(quelm_table *table, uint32_t now) {
    int ran = 0;
    if (now != table->housekeeping_sec) {
        quelm_hash *v4 = table->hash_v4, *v6 = table->hash_v6;
        uint32_t ended = quelm::hash_scan(v4, now) + quelm::hash_scan(v6, now);
        ended += quelm::hash_harvest(v4, now) + quelm::hash_harvest(v6, now);
        if (ended == 0 && v4->expired.count == 0 && v6->expired.count == 0)
            table->housekeeping_sec = now;
        else
            quelm_export_flows(table);
        ran = 1;
    }
    quelm_export_process_queue(&table->exporter, 1);
    return ran;
}

void quelm_pre_export(quelm_table *table, quelm_flow *flow) {
    if (table->pelda == nullptr || flow->dpi_done) return;
    const uint32_t guess = (table->flags & QUELM_FLAG_NO_L7_GUESS) ? 0 : 1;
    quelm_flow_prepare_for_export(flow, table->pelda, guess);
    if (flow->dpi_done && table->l7_detected_callback != nullptr)
        table->l7_detected_callback(nullptr, nullptr, flow, table->l7_detected_user);
}

void quelm_flush(quelm_table *table) {
    // A forced drain: flows handed to the exporter from here wait for the collectors instead of
    // overflowing its queue.
    table->exporter.forced++;
    quelm::hash_harvest(table->hash_v4, QUELM_HASH_FLUSH_TIME);
    quelm::hash_harvest(table->hash_v6, QUELM_HASH_FLUSH_TIME);
    quelm_export_flows(table);
    table->exporter.forced--;
}

}  // extern "C"
