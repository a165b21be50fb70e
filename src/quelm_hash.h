// Flow hash table: buckets of singly linked flow chains, a recency list of all live flows and the
// list of flows that left the hash and wait for export.
#pragma once

#include "quelm.h"

struct quelm_hash {
    quelm_flow **buckets;
    uint32_t num_buckets;  // power of two, or 0
    uint32_t mask;
    uint32_t capacity;  // most flows the hash may hold
    uint32_t num_flows;
    uint32_t idle_timeout;
    uint32_t slice_timeout;  // 0: slicing off
    uint32_t lru_refresh;    // a found flow moves to the lru head only after this packet second
    uint32_t scan_cursor;    // first bucket of the next incremental scan
    uint32_t scan_step;      // buckets per incremental scan
    uint32_t max_bucket_walk;
    uint32_t ignore_vlan;
    uint32_t mac_in_key;
    quelm_list lru;      // every flow in the chains, most recently refreshed first
    quelm_list expired;  // retired flows and slices waiting for export
};

// The incremental scan covers a hundredth of the buckets per pass, but never more than this many,
// so that one housekeeping pass stays cheap on large tables.
inline constexpr uint32_t QUELM_HASH_MAX_SCAN_STEP = 4096;
inline constexpr uint32_t QUELM_HASH_LARGE_TABLE = 409600;
// Packet second given to the harvest by a flush: every flow counts as idle.
inline constexpr uint32_t QUELM_HASH_FLUSH_TIME = 0xFFFFFFFF;
