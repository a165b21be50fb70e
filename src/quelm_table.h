// The table object behind the opaque quelm_table handle.
#pragma once

#include "quelm.h"
#include "quelm_export.h"
#include "quelm_hash.h"

// Housekeeping runs at least once per this many packets, even within one packet second.
inline constexpr uint32_t QUELM_HOUSEKEEPING_PACKETS = 1000000;
// The longest packet a table decodes unless told otherwise (quelm_set_max_packet_len).
inline constexpr uint32_t QUELM_DEFAULT_MAX_PACKET_LEN = 16384;

struct quelm_table {
    quelm_hash *hash_v4;
    quelm_hash *hash_v6;             // built with half the size of hash_v4
    quelm_fragment_hash *fragments;  // built with an eighth of the size
    uint32_t flags;
    uint32_t max_packet_len;  // longer packets are not decoded
    quelm_stats stats;
    void *pelda;  // detection handle, or null when detection is off
    uint16_t dpi_min_num_tcp_packets;
    uint16_t dpi_min_num_udp_packets;
    uint8_t dpi_extra_dissection;
    quelm_action default_action;
    quelm_rules rules;
    uint64_t next_flow_id;
    quelm_list export_list;
    quelm_new_flow_callback new_flow_callback;
    quelm_flow_export_callback flow_export_callback;
    quelm_flow_list_export_callback flow_list_export_callback;
    quelm_flow_packet_callback flow_packet_callback;
    quelm_l7_detected_callback l7_detected_callback;
    void *new_flow_user;
    void *flow_export_user;
    void *flow_list_export_user;
    void *flow_packet_user;
    void *l7_detected_user;
    uint32_t housekeeping_countdown;  // packets left before housekeeping is forced
    uint32_t housekeeping_sec;        // second of the latest pass that found nothing to do
    quelm_expiry expiry;              // idle timeout and slicing, read by both hashes
    uint32_t flow_lifetime_timeout;
    uint16_t user_size;
    uint8_t owns_pelda;
    uint8_t protocol_shift;
    quelm_packet_info packet;  // the packet being processed
    quelm_export exporter;
};

// Hands the flows that left both hashes to the export callbacks (or releases them).
void quelm_export_flows(quelm_table *table);
// The hashes' hook: settles the detection of a flow that leaves or is sliced and, when it leaves,
// takes it off the active count.
void quelm_table_flow_leaves(quelm_flow *flow, bool ended, void *table);
