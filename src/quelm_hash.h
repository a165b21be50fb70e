// Flow hash table: buckets of singly linked flow chains, a recency list of all live flows and the
// list of flows that left the hash and wait for export.
#pragma once

#include "quelm.h"

// Expiry settings. A table owns one and its hashes read it, so that a change (a rules file's idle
// timeout, slicing switched on) reaches every reader at once.
struct quelm_expiry {
    uint32_t idle_timeout;
    uint32_t slice_timeout;  // 0: slicing off
};

// What the hash's owner does with a flow that leaves the hash (`ended`) or is sliced, before the
// flow or its slice is queued on `expired`: settle its detection, count it. Storage never calls
// its owner in any other way.
struct quelm_hash_hook {
    void (*leave)(quelm_flow *flow, bool ended, void *ctx);
    void *ctx;
};

struct quelm_hash {
    quelm_flow **buckets;
    uint32_t num_buckets;  // power of two, or 0
    uint32_t mask;
    uint32_t capacity;  // most flows the hash may hold
    uint32_t num_flows;
    const quelm_expiry *expiry;  // the owner's, or own_expiry
    quelm_expiry own_expiry;     // for a hash made on its own (quelm_hash_alloc)
    quelm_hash_hook hook;
    uint32_t lru_refresh;  // a found flow moves to the lru head only after this packet second
    uint32_t scan_cursor;  // first bucket of the next incremental scan
    uint32_t scan_step;    // buckets per incremental scan
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

// A hash that reads `expiry` (which must outlive it) and reports leaving flows to `hook`.
quelm_hash *quelm_hash_create(uint32_t size, const quelm_expiry *expiry, uint32_t ignore_vlan,
                              uint32_t mac_in_key, quelm_hash_hook hook);

// The hash's own operations; the public calls that also name a table wrap them (quelm_table.cpp).
namespace quelm {
quelm_flow *hash_find(quelm_hash *hash, quelm_packet_info *info, uint32_t *direction);
void hash_retire(quelm_hash *hash, quelm_flow *flow);
void hash_slice(quelm_hash *hash, quelm_flow *flow, uint32_t now);
uint32_t hash_harvest(quelm_hash *hash, uint32_t now);
uint32_t hash_scan(quelm_hash *hash, uint32_t now);
}  // namespace quelm
