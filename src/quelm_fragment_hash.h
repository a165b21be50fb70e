// IPv4 fragment table: maps a datagram in progress to the flow of its first fragment, so that later
// fragments (which carry no ports) can be credited to that flow.
#pragma once

#include "quelm.h"

struct quelm_fragment_entry {
    uint32_t key_hash;  // hash of the datagram's addresses, protocol and identification
    uint16_t ip_id;     // IPv4 identification
    uint32_t in_use;    // 0: empty slot, which ends every probe
    uint32_t expire;    // valid while the packet second is below this
    uint64_t flow_id;
    uint32_t bytes;
    uint32_t pkts;
    quelm_flow *flow;  // borrowed; null while unknown
};

struct quelm_fragment_hash {
    uint32_t num_slots;  // power of two, or 0
    uint32_t mask;
    quelm_fragment_entry *entries;
};

// How long an entry stays valid after its latest use, in packet seconds.
inline constexpr uint32_t QUELM_FRAGMENT_LIFETIME = 2;

// Cuts the link between an entry and a flow when it still exists, making the entry stale at once.
void quelm_fragment_entry_unlink_flow(quelm_fragment_entry *entry, quelm_flow *flow);
// Records that `flow` owns the datagram of `entry`. A flow maps at most one datagram at a time: an
// older entry of the same flow is unlinked, so that no entry outlives the flow it points at.
void quelm_fragment_entry_bind_flow(quelm_fragment_entry *entry, quelm_flow *flow);
