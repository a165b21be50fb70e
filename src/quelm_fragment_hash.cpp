// IPv4 fragment table: open addressing with linear probing over a fixed slot array. Entries expire
// two packet seconds after their latest use and are recycled in place during probes; nothing is
// allocated after creation.
//
// Invariant kept here and by the flow release: an entry that refers to a flow is the one named by
// that flow's `fragment` back-pointer. So releasing a flow (which unlinks its entry) leaves no
// entry pointing at freed memory, even after an entry has been moved to an earlier slot.
#include "quelm_fragment_hash.h"

#include <stdlib.h>

namespace {

bool is_valid(const quelm_fragment_entry &e, uint32_t now) {
    return e.in_use != 0 && now < e.expire;
}

bool matches(const quelm_fragment_entry &e, uint32_t key_hash, uint16_t ip_id) {
    return e.key_hash == key_hash && e.ip_id == ip_id;
}

}  // namespace

extern "C" {

quelm_fragment_hash *quelm_fragment_hash_alloc(uint32_t size) {
    auto *table = static_cast<quelm_fragment_hash *>(calloc(1, sizeof(quelm_fragment_hash)));
    if (table == nullptr) return nullptr;
    table->num_slots = utils_pow2(size);
    table->mask = table->num_slots - 1;
    if (table->num_slots == 0) return table;  // a table without slots finds nothing
    table->entries =
        static_cast<quelm_fragment_entry *>(calloc(table->num_slots, sizeof(quelm_fragment_entry)));
    if (table->entries == nullptr) {
        free(table);
        return nullptr;
    }
    return table;
}

void quelm_fragment_hash_free(quelm_fragment_hash *table) {
    if (table == nullptr) return;
    free(table->entries);
    free(table);
}

void quelm_fragment_hash_remove_range(quelm_fragment_hash *table, uint32_t first, uint32_t last) {
    if (table->num_slots == 0) return;
    uint32_t slot = first & table->mask;
    last &= table->mask;
    for (uint32_t n = 0; n < table->num_slots; n++) {
        table->entries[slot].in_use = 0;
        if (slot == last) break;
        slot = (slot + 1) & table->mask;
    }
}

quelm_fragment_entry *quelm_fragment_hash_find(quelm_fragment_hash *table, uint32_t key_hash,
                                               uint16_t ip_id, const quelm_packet_header *header) {
    if (table->num_slots == 0) return nullptr;
    const uint32_t now = uint32_t(header->ts.tv_sec);
    quelm_fragment_entry *const slots = table->entries;
    constexpr uint32_t kUnset = UINT32_MAX;
    uint32_t target = kUnset;     // first slot that is stale or belongs to this datagram
    uint32_t match = kUnset;      // last valid slot of this datagram
    uint32_t stale_run = kUnset;  // start of the trailing run of stale slots after the target
    uint32_t last_probed = kUnset;
    uint32_t empty = kUnset;

    uint32_t slot = key_hash & table->mask;
    for (uint32_t probed = 0; probed < table->num_slots; probed++) {
        quelm_fragment_entry &e = slots[slot];
        if (e.in_use == 0) {
            empty = slot;
            break;
        }
        last_probed = slot;
        const bool valid = is_valid(e, now);
        const bool mine = matches(e, key_hash, ip_id);
        if (target == kUnset) {
            if (!valid || mine) target = slot;
        } else if (!valid) {
            if (stale_run == kUnset) stale_run = slot;
        }
        if (valid) {
            stale_run = kUnset;
            if (mine) match = slot;
        }
        slot = (slot + 1) & table->mask;
    }

    if (empty != kUnset) {
        if (stale_run != kUnset) quelm_fragment_hash_remove_range(table, stale_run, last_probed);
        if (target == kUnset) target = empty;
    } else {
        if (target == kUnset) return nullptr;  // full of valid entries of other datagrams
        if (stale_run != kUnset) quelm_fragment_hash_remove_range(table, stale_run, last_probed);
    }

    quelm_fragment_entry &t = slots[target];
    if (match != kUnset && match != target) {
        // Move the datagram to the earliest reusable slot of its chain. The old slot is unlinked
        // from the flow, which now points at the new one: the flow's release must find it there.
        quelm_fragment_entry &m = slots[match];
        t.flow_id = m.flow_id;
        t.bytes = m.bytes;
        t.pkts = m.pkts;
        t.flow = m.flow;
        t.owner = m.owner;
        if (m.owner != nullptr && *m.owner == &m) *m.owner = &t;
        m.flow = nullptr;
        m.owner = nullptr;
        m.expire = 0;
    } else if (match == kUnset) {
        t.flow_id = 0;
        t.bytes = 0;
        t.pkts = 0;
        t.flow = nullptr;
        t.owner = nullptr;
    }
    t.key_hash = key_hash;
    t.ip_id = ip_id;
    t.in_use = 1;
    t.expire = now + QUELM_FRAGMENT_LIFETIME;
    return &t;
}

}  // extern "C"
