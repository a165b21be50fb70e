// Flow record: the internal layout behind the opaque quelm_flow handle, and the per-flow detection
// operations that flow creation and release call.
#pragma once

#include <stddef.h>

#include "quelm.h"

// Fields are ordered by use: the chain link and the key, which every lookup compares, come first;
// the fields a found flow updates follow; those used when it leaves come last.
struct quelm_flow {
    quelm_flow *next;  // bucket chain link
    quelm_flow_key key;
    uint32_t hash_idx;  // bucket of its flow hash
    uint32_t users;     // references; the record goes with the last one
    uint32_t dpi_done;  // detection has ended (set at once without an engine)
    uint64_t id;
    uint32_t last_slice;  // packet second of the latest slice, 0 before the first
    quelm_action action;
    quelm_flow *parent;  // a slice's live flow (holds one reference on it); null otherwise
    quelm_flow_value value;
    quelm_fragment_entry *fragment;  // entry mapping this flow's fragments, or null
    void *dpi_flow;                  // engine per-flow state, or null
    quelm_list_node lru;             // recency list of its hash, or an export list
    // The user area (the table's user_size bytes) follows the record in the same allocation.
};
// A record is a slice exactly when it holds a parent: a live flow that has been sliced shows the
// slice status too, but has no parent and owns its engine state.
inline bool quelm_flow_is_slice(const quelm_flow *flow) {
    return flow->parent != nullptr;
}

// Time arithmetic on packet seconds. Ages are unsigned 32-bit differences compared strictly.
namespace quelm {

// Latest activity in either direction (direction 1 only when it has seen packets).
inline int64_t flow_last_seen(const quelm_flow *flow) {
    const quelm_flow_value &v = flow->value;
    int64_t last = v.direction[0].last.tv_sec;
    if (v.direction[1].last.tv_sec != 0 && v.direction[1].last.tv_sec >= last)
        last = v.direction[1].last.tv_sec;
    return last;
}

// Earliest first packet of either direction (direction 1 only when it has seen packets).
inline int64_t flow_first_seen(const quelm_flow *flow) {
    const quelm_flow_value &v = flow->value;
    int64_t first = v.direction[0].first.tv_sec;
    if (v.direction[1].first.tv_sec != 0 && v.direction[1].first.tv_sec <= first)
        first = v.direction[1].first.tv_sec;
    return first;
}

inline bool flow_is_idle(const quelm_flow *flow, uint32_t now, uint32_t idle_timeout) {
    const int64_t last = flow_last_seen(flow);
    return int64_t{now} > last && uint32_t(now - uint32_t(last)) > idle_timeout;
}

inline bool flow_slice_due(const quelm_flow *flow, uint32_t now, uint32_t slice_timeout) {
    if (slice_timeout == 0) return false;
    const uint32_t ref = flow->last_slice != 0 ? flow->last_slice : uint32_t(flow_first_seen(flow));
    return uint32_t(now - ref) > slice_timeout;
}

inline uint32_t flow_total_packets(const quelm_flow *flow) {
    return uint32_t(flow->value.direction[0].pkts + flow->value.direction[1].pkts);
}

}  // namespace quelm

extern "C" {
// Per-flow detection; the engine binding lives in quelm_dpi.
int quelm_flow_dpi_alloc(quelm_flow *flow);
void quelm_flow_dpi_init(quelm_flow *flow, void *pelda);
void quelm_flow_dpi_guess(quelm_flow *flow, void *pelda, uint32_t allowed);
// One detection step on the packet just accounted to the flow.
void quelm_flow_dpi_run(uint16_t tcp_limit, uint16_t udp_limit, uint8_t extra_dissection,
                        quelm_flow *flow, const quelm_packet_info *packet, void *pelda);
void quelm_flow_dpi_free(quelm_flow *flow);
// Copies the protocol details of the engine's per-flow state into the flow, once.
void quelm_flow_dpi_copy_metadata(quelm_flow *flow, uint16_t protocol_id);
}

// Cuts the link between a fragment entry and a flow when it still exists, making the entry stale
// at once.
void quelm_fragment_entry_unlink_flow(quelm_fragment_entry *entry, quelm_flow *flow);
// Records that `flow` owns the datagram of `entry`. A flow maps at most one datagram at a time: an
// older entry of the same flow is unlinked, so that no entry outlives the flow it points at.
void quelm_fragment_entry_bind_flow(quelm_fragment_entry *entry, quelm_flow *flow);
