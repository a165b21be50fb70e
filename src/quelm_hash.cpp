// Flow hash table. One key serves both directions: the hash is symmetric in source and destination,
// and a lookup tries the forward match, then the reverse one. Lookups retire the stale flows they
// walk past, housekeeping scans a bounded slice of buckets per pass, and the harvest takes flows
// from the old end of the recency list; all three share the idle and slice tests of quelm_flow.h.
#include "quelm_hash.h"

#include <stdlib.h>
#include <string.h>

#include "quelm_bytes.h"
#include "quelm_flow.h"

namespace {

using quelm::flow_is_idle;
using quelm::flow_slice_due;
using quelm::flow_total_packets;

using quelm::key_ipv4;

enum class Match { none, forward, reverse };

Match match_flow(const quelm_hash *hash, const quelm_flow *f, const quelm_packet_info *info) {
    const quelm_flow_key &k = f->key;
    if (!hash->ignore_vlan && k.vlan_id != info->vlan_id) return Match::none;
    if (k.ip_version != (info->is_ipv4 ? 4 : 6)) return Match::none;

    bool fwd_addr, rev_addr;
    if (info->is_ipv4) {
        const uint32_t ks = key_ipv4(k.saddr), kd = key_ipv4(k.daddr);
        fwd_addr = ks == info->saddr_v4 && kd == info->daddr_v4;
        rev_addr = ks == info->daddr_v4 && kd == info->saddr_v4;
    } else {
        const uint8_t *src = info->l3 + 8, *dst = info->l3 + 24;
        fwd_addr = memcmp(k.saddr, src, 16) == 0 && memcmp(k.daddr, dst, 16) == 0;
        rev_addr = memcmp(k.saddr, dst, 16) == 0 && memcmp(k.daddr, src, 16) == 0;
    }
    const uint8_t *dmac = info->eth, *smac = info->eth != nullptr ? info->eth + 6 : nullptr;
    auto macs_equal = [&](const uint8_t *a, const uint8_t *b) {
        return !hash->mac_in_key ||
               (smac != nullptr && memcmp(k.smac, a, 6) == 0 && memcmp(k.dmac, b, 6) == 0);
    };
    if (fwd_addr && k.sport == info->sport && k.dport == info->dport && macs_equal(smac, dmac))
        return Match::forward;
    if (rev_addr && k.sport == info->dport && k.dport == info->sport && macs_equal(dmac, smac))
        return Match::reverse;
    return Match::none;
}

// Retires or slices a flow found during a scan; returns whether it did either.
bool expire_or_slice(quelm_hash *hash, quelm_flow *f, uint32_t now) {
    if (flow_is_idle(f, now, hash->expiry->idle_timeout)) {
        f->value.status = QUELM_FLOW_STATUS_IDLE_TIMEOUT;
        quelm::hash_retire(hash, f);
        return true;
    }
    if (flow_slice_due(f, now, hash->expiry->slice_timeout)) {
        f->value.status = QUELM_FLOW_STATUS_SLICE;
        quelm::hash_slice(hash, f, now);
        return true;
    }
    return false;
}

}  // namespace

quelm_hash *quelm_hash_create(uint32_t size, const quelm_expiry *expiry, uint32_t ignore_vlan,
                              uint32_t mac_in_key, quelm_hash_hook hook) {
    auto *hash = static_cast<quelm_hash *>(calloc(1, sizeof(quelm_hash)));
    if (hash == nullptr) return nullptr;
    hash->num_buckets = utils_pow2(size);
    hash->mask = hash->num_buckets != 0 ? hash->num_buckets - 1 : 0;
    const uint64_t capacity = uint64_t{size} * 2;
    hash->capacity = capacity > UINT32_MAX ? UINT32_MAX : uint32_t(capacity);
    if (hash->num_buckets != 0) {
        hash->buckets = static_cast<quelm_flow **>(calloc(hash->num_buckets, sizeof(quelm_flow *)));
        if (hash->buckets == nullptr) {
            free(hash);
            return nullptr;
        }
    } else {
        hash->capacity = 0;  // nowhere to put a flow
    }
    hash->expiry = expiry != nullptr ? expiry : &hash->own_expiry;
    hash->hook = hook;
    hash->ignore_vlan = ignore_vlan;
    hash->mac_in_key = mac_in_key;
    hash->scan_step = hash->num_buckets < QUELM_HASH_LARGE_TABLE ? hash->num_buckets / 100
                                                                 : QUELM_HASH_MAX_SCAN_STEP;
    return hash;
}

extern "C" {

quelm_hash *quelm_hash_alloc(uint32_t size, uint32_t idle_timeout, uint32_t ignore_vlan,
                             uint32_t mac_in_key) {
    quelm_hash *hash = quelm_hash_create(size, nullptr, ignore_vlan, mac_in_key, {});
    if (hash != nullptr) hash->own_expiry.idle_timeout = idle_timeout;
    return hash;
}

void quelm_hash_free(quelm_hash *hash) {
    if (hash == nullptr) return;
    // Every flow in the chains is on the recency list: walking it releases them without touching
    // the bucket array, most of which a young or small table never wrote.
    while (quelm_flow *f = quelm_list_pop_head(&hash->lru))
        quelm_flow_free(f);
    free(hash->buckets);
    free(hash);
}

void quelm_hash_compute_hash_index(quelm_hash *hash, quelm_packet_info *info) {
    const uint32_t vlan = hash->ignore_vlan ? 0 : info->vlan_id;
    uint32_t mac = 0;
    if (hash->mac_in_key && info->eth != nullptr)
        for (int i = 0; i < 6; i++)
            mac |= uint32_t(info->eth[i] ^ info->eth[6 + i]);
    const uint32_t h = 3 * (uint32_t{info->sport} + info->dport) + vlan + info->l4_protocol +
                       info->hash_seed + mac;
    info->hash = h;
    info->hash_idx = h & hash->mask;
    if (hash->num_buckets != 0) __builtin_prefetch(&hash->buckets[info->hash_idx], 0, 3);
}

}  // extern "C"

quelm_flow *quelm::hash_find(quelm_hash *hash, quelm_packet_info *info, uint32_t *direction) {
    if (hash->num_buckets == 0) return nullptr;
    const uint32_t now = uint32_t(info->header->ts.tv_sec);
    quelm_flow *f = hash->buckets[info->hash_idx & hash->mask];
    uint32_t walked = 0;
    while (f != nullptr) {
        quelm_flow *next = f->next;
        if (next != nullptr) __builtin_prefetch(next, 0, 3);
        const Match m = match_flow(hash, f, info);
        if (m != Match::none) {
            *direction = m == Match::forward ? 0 : 1;
            if (hash->lru_refresh < now) {
                quelm_list_move_to_head(&hash->lru, &f->lru);
                const quelm_expiry &e = *hash->expiry;
                hash->lru_refresh = now + (e.slice_timeout != 0 ? e.slice_timeout : e.idle_timeout);
            }
            return f;
        }
        expire_or_slice(hash, f, now);
        walked++;
        f = next;
    }
    if (walked > hash->max_bucket_walk) hash->max_bucket_walk = walked;
    return nullptr;
}

extern "C" {

int quelm_hash_add(quelm_hash *hash, quelm_flow *flow) {
    if (hash->num_flows >= hash->capacity) return 0;
    quelm_flow *&head = hash->buckets[flow->hash_idx & hash->mask];
    flow->hash_idx &= hash->mask;
    flow->next = head;
    head = flow;
    hash->num_flows++;
    quelm_list_prepend(&hash->lru, &flow->lru);
    return 1;
}

int quelm_hash_remove(quelm_hash *hash, quelm_flow *flow, uint32_t idx) {
    if (idx >= hash->num_buckets) return 0;
    for (quelm_flow **link = &hash->buckets[idx]; *link != nullptr; link = &(*link)->next) {
        if (*link == flow) {
            *link = flow->next;
            hash->num_flows--;
            return 1;
        }
    }
    return 0;
}

void quelm_hash_walk(quelm_hash *hash, int (*cb)(quelm_flow *flow, void *user), void *user) {
    for (uint32_t i = 0; i < hash->num_buckets; i++) {
        quelm_flow *f = hash->buckets[i];
        while (f != nullptr) {
            quelm_flow *next = f->next;
            if (cb(f, user) != 0) return;
            f = next;
        }
    }
}

}  // extern "C"

void quelm::hash_retire(quelm_hash *hash, quelm_flow *flow) {
    quelm_hash_remove(hash, flow, flow->hash_idx);
    quelm_list_remove(&hash->lru, &flow->lru);
    if (hash->hook.leave != nullptr) hash->hook.leave(flow, true, hash->hook.ctx);
    quelm_list_append(&hash->expired, &flow->lru);
}

void quelm::hash_slice(quelm_hash *hash, quelm_flow *flow, uint32_t now) {
    flow->last_slice = now;
    if (hash->hook.leave != nullptr) hash->hook.leave(flow, false, hash->hook.ctx);
    if (flow_total_packets(flow) == 0) return;
    quelm_flow *slice = quelm_flow_slice(flow);
    if (slice == nullptr) return;
    quelm_flow_reset_counters(flow);
    quelm_list_append(&hash->expired, &slice->lru);
    quelm_list_move_to_head(&hash->lru, &flow->lru);
}

uint32_t quelm::hash_harvest(quelm_hash *hash, uint32_t now) {
    const bool flush = now == QUELM_HASH_FLUSH_TIME;
    const uint32_t idle_status = flush ? QUELM_FLOW_STATUS_FLUSHED : QUELM_FLOW_STATUS_IDLE_TIMEOUT;
    uint32_t count = 0;
    quelm_list_node *node = hash->lru.tail;
    while (node != nullptr) {
        quelm_list_node *prev = node->prev;
        quelm_flow *f = node->owner;
        // A flush ends every flow, whatever its timestamps (even ones close to 2^32).
        if (flush || flow_is_idle(f, now, hash->expiry->idle_timeout)) {
            f->value.status = idle_status;
            quelm::hash_retire(hash, f);
        } else if (flow_slice_due(f, now, hash->expiry->slice_timeout) &&
                   flow_total_packets(f) != 0) {
            f->value.status = QUELM_FLOW_STATUS_SLICE;
            quelm::hash_slice(hash, f, now);
        } else {
            break;
        }
        count++;
        node = prev;
    }
    return count;
}

uint32_t quelm::hash_scan(quelm_hash *hash, uint32_t now) {
    if (hash->scan_step == 0) return 0;
    uint32_t count = 0;
    for (uint32_t n = 0; n < hash->scan_step; n++) {
        // The scan reads flows scattered over memory: start loading the first flow of a bucket a
        // few buckets ahead (its chain link and both directions' times) to overlap the misses.
        constexpr uint32_t kLookahead = 8;
        if (const quelm_flow *ahead =
                hash->buckets[(hash->scan_cursor + kLookahead) & hash->mask]) {
            __builtin_prefetch(ahead);
            __builtin_prefetch(&ahead->value.direction[0].last);
        }
        quelm_flow *f = hash->buckets[hash->scan_cursor];
        while (f != nullptr) {
            quelm_flow *next = f->next;
            if (expire_or_slice(hash, f, now)) count++;
            f = next;
        }
        if (++hash->scan_cursor >= hash->num_buckets) hash->scan_cursor = 0;
    }
    return count;
}
