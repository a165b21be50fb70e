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
    // The flow's back-pointer to its entry (its `fragment` field), so that an entry moving to
    // another slot takes the link along without knowing the flow's layout.
    quelm_fragment_entry **owner;
};

struct quelm_fragment_hash {
    uint32_t num_slots;  // power of two, or 0
    uint32_t mask;
    quelm_fragment_entry *entries;
};

// How long an entry stays valid after its latest use, in packet seconds.
inline constexpr uint32_t QUELM_FRAGMENT_LIFETIME = 2;
