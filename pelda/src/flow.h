// Layout of the per-flow object. Callers allocate it zero-filled and read a few
// fields at fixed byte offsets (asserted below), so the public fields never move;
// the engine's own state fills the space between them.
#ifndef PELDA_FLOW_H
#define PELDA_FLOW_H

#include <cstddef>
#include <cstdint>

#include "pelda.h"

namespace pelda {

constexpr int kClient = 0;  // direction of the first packet's sender
constexpr int kServer = 1;
constexpr unsigned kFirstPayloadKeep = 48;  // bytes of each direction's first payload kept
constexpr unsigned kMaxProtocols = 1024;    // built-in plus loaded protocols
constexpr unsigned kExcludedWords = 8;      // bitmap over built-in ids (< 256)

// Per-protocol details gathered after the protocol is named. Only the detected
// protocol's member is live.
struct http_state {
    uint8_t request_seen;
    uint8_t response_seen;
    uint8_t method;  // index into the method table, 1-based
    uint8_t pad;
    char user_agent[96];
    char content_type[64];
};

struct tls_state {
    uint16_t client_version;  // highest version the client offers
    uint16_t server_version;  // version the server picked
    uint16_t cipher;
    uint8_t client_hello_seen;
    uint8_t server_hello_seen;
    uint8_t certificate_seen;
    uint8_t encrypted[2];  // ChangeCipherSpec or application data seen in that direction
    uint8_t broken[2];     // stream of that direction cannot be followed any more
    uint8_t pad[3];
    uint16_t hs_len[2];  // handshake bytes at the start of each direction's stream buffer
    char alpn[32];       // first ALPN protocol offered by the client
};

struct dns_state {
    uint16_t id;
    uint16_t answers;
    uint8_t response_seen;
    uint8_t query_seen;
};

struct banner_state {    // SSH, FTP, SMTP, POP3, IMAP and other line protocols
    char client[64];     // client software / EHLO name / user name
    char server[64];     // server banner
    uint16_t commands;   // client commands seen
    uint16_t data_port;  // last announced FTP data port
    uint8_t tls_started;
    uint8_t finished;
};

union protocol_state {
    http_state http;
    tls_state tls;
    dns_state dns;
    banner_state banner;
};

}  // namespace pelda

struct pelda_flow {
    // ---- result (0..29)
    uint16_t master_protocol;
    uint16_t app_protocol;
    uint32_t category;
    uint8_t started;     // first packet seen, addresses and ports below are set
    uint8_t ip_version;  // 4 or 6
    uint8_t l4_protocol;
    uint8_t state;  // PELDA_STATE_*
    uint16_t client_port;
    uint16_t server_port;
    uint32_t packets[2];        // per direction, all packets
    uint8_t confidence;         // PELDA_CONFIDENCE_*
    uint8_t guessed;            // the result came from a guess
    uint16_t partial_protocol;  // protocol whose start was seen, not yet confirmed
    uint16_t protocol_by_ip;
    // ---- 30: id taken as application protocol for a give-up with only a master
    uint16_t guessed_protocol;
    uint8_t client_addr[16];  // IPv4 in the first 4 bytes, network order
    uint8_t server_addr[16];
    uint32_t next_seq[2];  // TCP: next expected sequence number per direction
    uint8_t seq_known[2];
    uint8_t fin_seen[2];
    uint32_t excluded[pelda::kExcludedWords];  // built-in dissectors that ruled the flow out
    uint32_t payload_packets[2];               // packets with new payload, per direction
    uint8_t *stream[2];  // bounded reassembly buffer per direction, lazily allocated
    uint32_t stream_len[2];
    uint32_t stream_cap[2];
    uint64_t first_time_ms;
    uint64_t last_time_ms;
    uint8_t first_payload[2][pelda::kFirstPayloadKeep];
    uint16_t first_payload_len[2];
    uint32_t first_payload_full_len[2];
    uint8_t stream_gap[2];  // a segment of that direction was missed: stream unusable
    uint8_t pad0[2];
    uint32_t extract_packets;  // packets handed to the extractor after detection
    uint8_t reserved_a[84];
    // ---- 368
    char *server_name;
    pelda::protocol_state proto;
    uint8_t reserved_b[654 - 376 - sizeof(pelda::protocol_state)];
    // ---- 654
    uint16_t http_response_code;
    char *url;
    uint8_t reserved_c[930 - 664];
    // ---- 930
    uint8_t dns_reply_code;
    uint8_t reserved_d[5];
    uint16_t dns_query_type;
    uint8_t reserved_e[1156 - 938];
    // ---- 1156
    uint8_t tls_certificate_sha1[20];
    uint8_t reserved_f[4];
};

static_assert(offsetof(pelda_flow, guessed_protocol) == 30);
static_assert(offsetof(pelda_flow, server_name) == 368);
static_assert(offsetof(pelda_flow, http_response_code) == 654);
static_assert(offsetof(pelda_flow, url) == 656);
static_assert(offsetof(pelda_flow, dns_reply_code) == 930);
static_assert(offsetof(pelda_flow, dns_query_type) == 936);
static_assert(offsetof(pelda_flow, tls_certificate_sha1) == 1156);
static_assert(sizeof(pelda_flow) <= 1536, "the flow object must stay small");

static_assert(offsetof(pelda_protocol, master_protocol) == 0);
static_assert(offsetof(pelda_protocol, app_protocol) == 2);
static_assert(offsetof(pelda_protocol, category) == 24);
static_assert(offsetof(pelda_protocol, state) == 48);
static_assert(sizeof(pelda_proto_pair) == 4);

#endif  // PELDA_FLOW_H
