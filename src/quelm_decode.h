// Packet decoding: from the captured bytes to the packet record the table keys flows on.
#pragma once

#include "quelm.h"

// What decoding reads of the table: its flags, the flow hash of each IP version (for the bucket
// index and its prefetch) and the fragment table (later IPv4 fragments are credited through it).
struct quelm_decode_context {
    uint32_t flags;
    uint32_t max_packet_len;  // longer packets are refused as too long
    quelm_hash *hash_v4;
    quelm_hash *hash_v6;
    quelm_fragment_hash *fragments;
};

// Reported in `*why` for a later fragment that reached no flow; counted as
// QUELM_NOT_DECODED_FRAGMENT and in quelm_stats.fragments_no_flow. (The largest value the enum's
// range holds, 0 to 7.)
inline constexpr auto QUELM_DECODE_FRAGMENT_NO_FLOW = quelm_not_decoded_reason(7);
static_assert(QUELM_NOT_DECODED_REASONS < 7, "a public reason would take the internal one");

// Decodes `pkt` into `info`: true when the packet can be keyed. Otherwise `*why` says why not;
// a later IPv4 fragment whose datagram is known has been credited to its flow by then.
bool quelm_decode(const quelm_decode_context &ctx, quelm_packet_info &info, const uint8_t *pkt,
                  const quelm_packet_header *header, const quelm_packet_ext *ext,
                  quelm_not_decoded_reason *why);
