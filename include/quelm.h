/*
 * quelm.h - flow-table library for packet-capture applications.
 *
 * An application creates a table, hands it every captured packet with its capture header and gets a
 * verdict back. The table groups packets into bidirectional flows, keeps per-direction counters,
 * expires flows on packet time and hands ended flows back through callbacks.
 *
 * Conventions of this API:
 * - Constructors return NULL on failure; nothing is left allocated.
 * - Storage operations return 1 on success and 0 otherwise.
 * - Problems with single packets are never reported, only counted in quelm_stats.
 * - A table and everything reached through it is used by one thread at a time; callbacks run inside
 *   the call that triggered them and must not re-enter the same table.
 * - Time is packet time: the library never reads a clock of its own for expiry.
 * - Integers are in host byte order, except IPv6 addresses (16 network-order bytes). IPv4 addresses
 *   are host-order 32-bit values stored in the first 4 bytes of a 16-byte address field.
 */
#ifndef QUELM_H
#define QUELM_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define QUELM_API __attribute__((visibility("default")))
#else
#define QUELM_API
#endif

/* ---- Versions ------------------------------------------------------------------------------ */

#define QUELM_API_VERSION 107

/* ---- Verdicts ------------------------------------------------------------------------------ */

/* The verdict for a packet and the action attached to a flow (8 bits wherever it is stored). */
typedef uint8_t quelm_action;

enum quelm_action_value {
    QUELM_ACTION_DEFAULT = 0,
    QUELM_ACTION_FORWARD = 1,
    QUELM_ACTION_DISCARD = 2,
    QUELM_ACTION_USER_1 = 3,
    QUELM_ACTION_USER_2 = 4,
    QUELM_ACTION_SLICE = 5
};

/* ---- Table flags (quelm_create_table) ------------------------------------------------------ */

enum quelm_table_flag {
    /* Create and own a detection handle; run L7 detection on every new TCP/UDP flow. */
    QUELM_FLAG_DPI = 1,
    /* After a protocol is found, keep detecting while the engine has metadata to extract. */
    QUELM_FLAG_DPI_EXTRA_DISSECTION = 2,
    /* Decode GTPv1-U, L2TP, CAPWAP and VXLAN in UDP and key the flow on the inner packet. */
    QUELM_FLAG_TUNNEL_DECODING = 4,
    /* Never use quelm_packet_ext.hash; always compute the flow hash. */
    QUELM_FLAG_IGNORE_PACKET_HASH = 8,
    /* The VLAN id takes no part in the hash or in flow identity. */
    QUELM_FLAG_IGNORE_VLAN = 16,
    /* Never guess a protocol for a flow that detection did not identify. */
    QUELM_FLAG_NO_L7_GUESS = 32,
    /* Source and destination MAC addresses take part in the hash and in flow identity. */
    QUELM_FLAG_MAC_IN_KEY = 64,
    /* Decode what real links carry beyond the designed set: 802.1ad and QinQ tags in any mix with
     * 802.1Q, PBB I-tags, VN-tags, MACsec without encryption, IP in 802.2 LLC/SNAP, IPv6 in PPPoE and after MPLS, the IPv6
     * extension headers (hop-by-hop, routing, fragment, destination options, mobility, AH: at most
     * 8 of them) and IPv6 fragments (credited like IPv4 ones). ICMP and ICMPv6 queries (echo,
     * timestamp, information, address mask, node information) share one flow with their replies:
     * see QUELM_FLOW_FLAG_ICMP_QUERY. Without the flag, decoding is exactly the designed one. */
    QUELM_FLAG_EXTENDED_DECODING = 128
};

/* ---- Packet input -------------------------------------------------------------------------- */

/* The layout of struct timeval on 64-bit Linux. */
typedef struct quelm_timeval {
    int64_t tv_sec;
    int64_t tv_usec;
} quelm_timeval;

/* Capture header given with each packet; never NULL. */
typedef struct quelm_packet_header {
    quelm_timeval ts; /* capture time: the library's only clock */
    uint32_t caplen;  /* bytes present at the packet pointer; decoding never reads past it */
    uint32_t len;     /* length on the wire; packets longer than the table's limit are not
                       * decoded (quelm_set_max_packet_len; 16384 unless set) */
} quelm_packet_header;

/* Capture-layer extras given with each packet; never NULL. */
typedef struct quelm_packet_ext {
    uint32_t hash;    /* symmetric packet hash of the capture layer, or 0 when none */
    uint16_t port_id; /* source identifier of the capture layer, 0 when none */
    uint8_t if_index; /* index of the interface that delivered the packet, 0 when unknown */
} quelm_packet_ext;

/* Opaque handles. */
typedef struct quelm_table quelm_table;
typedef struct quelm_flow quelm_flow;
typedef struct quelm_hash quelm_hash;
typedef struct quelm_fragment_hash quelm_fragment_hash;
typedef struct quelm_fragment_entry quelm_fragment_entry;

/* Per-packet metadata. The table rebuilds its one instance on every quelm_process call; the pointer
 * that callbacks receive is valid only during that call. */
typedef struct quelm_packet_info {
    const quelm_packet_header *header;
    const quelm_packet_ext *ext;
    uint32_t direction;     /* 0: key source to destination, 1: the other way */
    quelm_action action;    /* the verdict returned for this packet */
    uint16_t vlan_id;       /* id of the innermost 802.1Q tag, else 0 */
    uint8_t ip_version;     /* 4 or 6 */
    uint8_t l4_protocol;    /* IP protocol number of the transport header */
    uint16_t payload_len;   /* bytes of TCP/UDP payload */
    const uint8_t *l3;      /* IP header in use (the inner one after a tunnel) */
    const uint8_t *l4;      /* TCP/UDP header, NULL for other protocols */
    const uint8_t *payload; /* TCP/UDP payload, NULL for other protocols */
    uint32_t tunnel_type;   /* see quelm_flow_value.tunnel_type */
    uint32_t tunnel_id;
    uint32_t hash_seed; /* address part of the flow hash */
    uint32_t hash;      /* flow hash in use */
    uint32_t hash_idx;  /* hash masked to the bucket range of the packet's flow hash */
    uint16_t eth_type;  /* EtherType after all tags; MPLS and PPPoE leave 0x0800 */
    uint16_t len;       /* bytes credited to the flow: wire length (IPv6: minus the link header);
                         * the low 16 bits of `bytes` */
    uint16_t l2_offset, l3_offset, l4_offset, payload_offset;
    uint16_t l3_payload_len; /* IPv4 total length minus header length, or IPv6 payload length */
    uint8_t is_ipv4;         /* 1: IPv4 flow hash, 0: IPv6 flow hash */
    uint8_t tcp_flags;
    uint8_t icmp_type, icmp_code;
    const uint8_t *data;            /* the packet */
    const uint8_t *eth;             /* Ethernet header in use (the inner one after VXLAN) */
    uint32_t saddr_v4, daddr_v4;    /* host order, 0 for IPv6 */
    uint16_t sport, dport;          /* host order; ICMP: sport 0, dport type << 8 | code */
    quelm_flow *flow;               /* flow the packet was accounted to, or NULL */
    quelm_fragment_entry *fragment; /* fragment-table entry the packet matched, or NULL */
    /* Appended. 1: an ICMP query keyed with its reply, 2: such a reply (see
     * QUELM_FLOW_FLAG_ICMP_QUERY); 0 otherwise. */
    uint8_t icmp_query;
    /* Appended: the bytes credited to the flow, as `len` says, also beyond 65535 (with
     * quelm_set_max_packet_len above it, `len` holds only the low 16 bits). */
    uint32_t bytes;
} quelm_packet_info;

/* ---- Flow record views --------------------------------------------------------------------- */

/* Identity of a flow, as its first packet showed it; the source never swaps later. */
typedef struct quelm_flow_key {
    uint8_t smac[6], dmac[6]; /* part of the identity only with QUELM_FLAG_MAC_IN_KEY */
    uint8_t saddr[16], daddr[16];
    uint8_t ip_version; /* 4 or 6 */
    uint8_t protocol;   /* stored, but not part of the identity */
    uint16_t sport, dport;
    uint16_t vlan_id; /* not part of the identity with QUELM_FLAG_IGNORE_VLAN */
} quelm_flow_key;

/* Counters of one direction. */
typedef struct quelm_flow_dir_value {
    uint64_t pkts;
    uint64_t bytes;
    quelm_timeval first; /* all zero while the direction has seen no packet */
    quelm_timeval last;
    uint8_t tcp_flags; /* OR of all TCP flags seen */
    uint8_t if_index;  /* last non-zero quelm_packet_ext.if_index */
    uint16_t port_id;  /* last non-zero quelm_packet_ext.port_id */
} quelm_flow_dir_value;

/* Application protocol: detection-engine ids, 0 meaning unknown. */
typedef struct quelm_l7_protocol {
    uint16_t master_protocol;
    uint16_t app_protocol;
    int32_t category;
} quelm_l7_protocol;

/* Protocol details; the member in use follows from the flow's protocol (master, else app).
 * Strings and the fingerprint are owned by the flow. */
typedef union quelm_flow_l7_metadata {
    struct {
        uint8_t icmp_type;
        uint8_t icmp_code;
    } icmp;
    struct { /* protocol id 7 */
        char *server_name;
        char *url;
        uint16_t response_code;
    } http;
    struct { /* protocol id 91 */
        char *server_name;
        uint8_t *certificate_fingerprint; /* 20 bytes (SHA-1), or NULL */
    } tls;
    struct { /* protocol id 5 */
        char *query;
        uint16_t query_type;
        uint16_t reply_code;
    } dns;
} quelm_flow_l7_metadata;

/* Why a flow left the table (quelm_flow_value.status). */
enum quelm_flow_status {
    QUELM_FLOW_STATUS_ACTIVE = 0,           /* not ended, never sliced */
    QUELM_FLOW_STATUS_IDLE_TIMEOUT = 1,     /* no packet for longer than the idle timeout */
    QUELM_FLOW_STATUS_LIFETIME_TIMEOUT = 2, /* lasted longer than the lifetime timeout */
    QUELM_FLOW_STATUS_FLUSHED = 4,          /* removed by quelm_flush */
    QUELM_FLOW_STATUS_SLICE = 5 /* a slice cut from a live flow (or a sliced live flow) */
};

/* quelm_flow_value.flags */
#define QUELM_FLOW_FLAG_L7_GUESSED 1u
/* An ICMP query and its replies (QUELM_FLAG_EXTENDED_DECODING): the key's sport holds the query's
 * identifier and dport the query type << 8 (code 0), so that either direction finds the flow... */
#define QUELM_FLOW_FLAG_ICMP_QUERY 2u
/* ...unless the flow began with a reply: then sport holds the query type << 8 and dport the
 * identifier. */
#define QUELM_FLOW_FLAG_ICMP_FROM_REPLY 4u

/* Tunnel types (quelm_flow_value.tunnel_type). */
enum quelm_tunnel_type {
    QUELM_TUNNEL_NONE = 0,
    QUELM_TUNNEL_GTP_U = 1,
    QUELM_TUNNEL_CAPWAP = 2,
    QUELM_TUNNEL_L2TP = 4,
    QUELM_TUNNEL_VXLAN = 5
};

typedef struct quelm_flow_value {
    quelm_flow_dir_value direction[2]; /* [0]: key source to destination */
    quelm_l7_protocol l7_protocol;
    uint32_t tunnel_type;
    uint32_t tunnel_id; /* L2TP tunnel id or VXLAN VNI */
    quelm_flow_l7_metadata l7_metadata;
    uint32_t status; /* enum quelm_flow_status */
    uint32_t flags;  /* QUELM_FLOW_FLAG_* */
    void *user;      /* user area of the table's user_size bytes, zero-filled; NULL when 0 */
} quelm_flow_value;

/* ---- Lists --------------------------------------------------------------------------------- */

/* Intrusive doubly linked list of flows. A zero-filled list is empty and ready for use. */
typedef struct quelm_list_node {
    quelm_flow *owner;
    struct quelm_list_node *prev;
    struct quelm_list_node *next;
} quelm_list_node;

typedef struct quelm_list {
    uint32_t count;
    quelm_list_node *head;
    quelm_list_node *tail;
} quelm_list;

/* ---- Callbacks ----------------------------------------------------------------------------- */

/* Once per flow, on its first packet, after its verdict is known. */
typedef void (*quelm_new_flow_callback)(quelm_flow *flow, void *user);
/* For every packet that reached the verdict step, last in the call. */
typedef void (*quelm_flow_packet_callback)(const uint8_t *packet, const quelm_packet_info *info,
                                           quelm_flow *flow, void *user);
/* At most once per flow, when its detection completes; packet and info are NULL when the protocol
 * is settled as the flow leaves the table. */
typedef void (*quelm_l7_detected_callback)(const uint8_t *packet, const quelm_packet_info *info,
                                           quelm_flow *flow, void *user);
/* Once per flow leaving the table: the receiver owns it and releases it with quelm_flow_free. */
typedef void (*quelm_flow_export_callback)(quelm_flow *flow, void *user);
/* The whole batch of leaving flows: the receiver takes every flow with quelm_list_get_next and
 * releases each with quelm_flow_free. */
typedef void (*quelm_flow_list_export_callback)(quelm_list *list, void *user);

/* ---- Statistics ---------------------------------------------------------------------------- */

/* Why a packet reached no flow. */
typedef enum {
    QUELM_NOT_DECODED_TOO_LONG = 0,   /* longer than the table's limit, or headers beyond 64 KiB */
    QUELM_NOT_DECODED_TRUNCATED = 1,  /* a header the capture cut short */
    QUELM_NOT_DECODED_NOT_IP = 2,     /* no IPv4 or IPv6 behind the link layer */
    QUELM_NOT_DECODED_BAD_HEADER = 3, /* an IP or transport header that cannot be valid */
    QUELM_NOT_DECODED_FRAGMENT = 4,   /* a later fragment, credited to its flow when known */
    QUELM_NOT_DECODED_TOO_DEEP = 5,   /* encapsulations nested more than 8 deep */
    QUELM_NOT_DECODED_REASONS = 6
} quelm_not_decoded_reason;

typedef struct quelm_stats {
    uint64_t active_flows;        /* flows in the table now */
    uint64_t total_flows;         /* flows created since the table was made */
    uint64_t flows_no_room;       /* packets needing a new flow while its hash was full */
    uint64_t flows_no_memory;     /* packets whose new flow could not be allocated */
    uint64_t packets_not_decoded; /* packets that reached no flow */
    uint64_t max_bucket_walk;     /* longest unsuccessful bucket walk of the two flow hashes */
    uint64_t packets;             /* packets given to quelm_process */
    uint64_t bytes;               /* sum of header.len + 24 over those packets */
    /* Appended: packets_not_decoded by reason, indexed by quelm_not_decoded_reason. */
    uint64_t not_decoded[8];
    /* Appended: of not_decoded[QUELM_NOT_DECODED_FRAGMENT], the fragments that reached no flow (no
     * first fragment seen, or no room in the fragment table): those bytes are in no flow. */
    uint64_t fragments_no_flow;
} quelm_stats;

/* ---- Rules --------------------------------------------------------------------------------- */

/* Filter and shunt rules of one rule set. A protocol index is an engine protocol id, or
 * master << protocol_shift | app for a pair. Table entries of 0 mean "no rule". */
typedef struct quelm_rules {
    uint32_t protocol_table_size; /* entries in each protocol table */
    uint32_t category_table_size; /* entries in each category table */
    uint8_t *filter_protocol;     /* action per protocol index */
    uint8_t *filter_category;     /* action per category id */
    uint8_t shunt_default;        /* packet limit for every flow, 0 = none */
    uint8_t shunt_tcp;            /* packet limit for TCP flows */
    uint8_t shunt_udp;            /* packet limit for UDP flows */
    uint8_t *shunt_protocol;      /* packet limit per protocol index */
    uint8_t *shunt_category;      /* packet limit per category id */
} quelm_rules;

/* ---- Detection (L7) ---------------------------------------------------------------------------
 */

/* The detection engine's result for a flow, as the engine returns it (engine API revision 14778):
 * master and application protocol ids (0 = unknown), category id, and state (3: the engine has
 * nothing more to extract from the flow). The other bytes are the engine's own. */
typedef struct quelm_dpi_result {
    uint16_t master_protocol;
    uint16_t app_protocol;
    uint8_t engine_reserved0[20];
    uint32_t category;
    uint8_t engine_reserved1[20];
    uint32_t state;
    uint32_t engine_reserved2;
} quelm_dpi_result;

/* ---- Version ------------------------------------------------------------------------------- */

/* Writes "9.5.0.261007" into buf (at least 13 bytes); returns 0x90500. */
QUELM_API uint32_t quelm_version(char *buf);
/* Always QUELM_API_VERSION (107). */
QUELM_API uint32_t quelm_api_version(void);

/* ---- Table --------------------------------------------------------------------------------- */

/* Progress messages of the rule and configuration code ("[QUELM] ...") on standard output while
 * non-zero; set by quelm_debug(). Process-wide. */
QUELM_API extern uint32_t quelm_debug_enabled;
QUELM_API void quelm_debug(void);

/* A table for one packet stream. `max_flows` sizes the IPv4 flow hash (0: 512,000; rounded up to a
 * power of two); it holds up to twice that many IPv4 flows and half as many IPv6 ones. Timeouts in
 * seconds (0: 30 s idle, 120 s lifetime). Every flow gets `user_size` zero bytes of user area.
 * NULL when memory runs out or the detection engine cannot be set up (QUELM_FLAG_DPI). */
QUELM_API quelm_table *quelm_create_table(uint32_t flags, uint32_t max_flows,
                                          uint32_t flow_idle_timeout,
                                          uint32_t flow_lifetime_timeout, uint16_t user_size);
/* Releases the table and every flow still in it, without exporting them (call quelm_flush first
 * to receive them). */
QUELM_API void quelm_destroy_table(quelm_table *table);
/* The longest packet (header.len) the table decodes; longer ones are counted as not decoded, too
 * long. 16384 unless set; captures with segmentation offload hold frames up to 64 KiB, and
 * snapshot lengths go to 262144. Returns 0, or -1 for 0 (nothing is changed). */
QUELM_API int quelm_set_max_packet_len(quelm_table *table, uint32_t max_len);
/* Cuts a slice of every flow every `flow_slicing` seconds of packet time (0: off). */
QUELM_API void quelm_flow_set_flow_slicing(quelm_table *table, uint32_t flow_slicing);
/* Callbacks: each setter stores the function (NULL clears it) and its user pointer. */
QUELM_API void quelm_set_new_flow_callback(quelm_table *table, quelm_new_flow_callback cb,
                                           void *user);
QUELM_API void quelm_set_flow_packet_callback(quelm_table *table, quelm_flow_packet_callback cb,
                                              void *user);
QUELM_API void quelm_set_l7_detected_callback(quelm_table *table, quelm_l7_detected_callback cb,
                                              void *user);
QUELM_API void quelm_set_flow_export_callback(quelm_table *table, quelm_flow_export_callback cb,
                                              void *user);
QUELM_API void quelm_set_flow_list_export_callback(quelm_table *table,
                                                   quelm_flow_list_export_callback cb, void *user);
/* Verdict of flows that no rule decides. */
QUELM_API void quelm_set_default_action(quelm_table *table, quelm_action action);
/* A live view of the table's counters. */
QUELM_API quelm_stats *quelm_get_stats(quelm_table *table);
/* Lends the table a detection handle, which must outlive it; a handle the table made is released.
 * 0, or -1 when the rule tables cannot be sized (the handle is installed all the same). */
QUELM_API int quelm_set_pelda_handle(quelm_table *table, void *pelda);
QUELM_API void *quelm_get_pelda_handle(quelm_table *table);

/* Per-table active-flow counter; used by the flow hash when flows leave it. */
QUELM_API void quelm_table_inc_active_flows(quelm_table *table, uint32_t count);
QUELM_API void quelm_table_dec_active_flows(quelm_table *table, uint32_t count);
/* Settles a flow that leaves the table (protocol guess, metadata, L7-detected callback). */
QUELM_API void quelm_pre_export(quelm_table *table, quelm_flow *flow);

/* ---- Detection binding ------------------------------------------------------------------------
 */

/* 1 when the detection engine is present in the process (its functions resolve). */
QUELM_API int quelm_is_pelda_available(void);
/* 0; a negative result would mean the binding cannot work. */
QUELM_API int quelm_dpi_init(void);
/* A detection handle (NULL when the engine is missing, of another API revision, or fails). */
QUELM_API void *quelm_dpi_alloc(int guess_on_giveup);
QUELM_API void quelm_dpi_free(void *pelda);
QUELM_API uint32_t quelm_dpi_detection_get_sizeof_pelda_flow_struct(void);
QUELM_API void quelm_dpi_free_flow(void *dpi_flow);
QUELM_API quelm_dpi_result quelm_pelda_detection_process_packet(void *pelda, void *dpi_flow,
                                                                const uint8_t *packet, uint32_t len,
                                                                uint64_t time_ms);
QUELM_API quelm_dpi_result quelm_dpi_giveup_and_guess(void *pelda, void *dpi_flow);
/* Addresses in host order (0 for IPv6); dpi_flow may be NULL. */
QUELM_API quelm_dpi_result quelm_dpi_guess_undetected_protocol(void *pelda, void *dpi_flow,
                                                               uint8_t proto, uint32_t saddr,
                                                               uint16_t sport, uint32_t daddr,
                                                               uint16_t dport);
/* 0 when unknown. */
QUELM_API uint16_t quelm_dpi_get_protocol_id_by_name(void *pelda, const char *name);
/* "MASTER.APP" or the single name into buf, or the constant "Unknown"; never free the result. */
QUELM_API const char *quelm_dpi_get_protocol_name_by_id(void *pelda,
                                                        const quelm_l7_protocol *protocol,
                                                        char *buf, uint32_t buf_len);
QUELM_API uint32_t quelm_dpi_get_num_supported_protocols(void *pelda);
/* Always 164 (categories 0 to 163). */
QUELM_API uint32_t quelm_dpi_get_num_supported_categories(void);
/* Case-insensitive; -1 when unknown or without handle. */
QUELM_API int quelm_dpi_get_category_id_by_name(void *pelda, const char *name);
/* The name, or "Unknown", written into buf; returns buf. */
QUELM_API char *quelm_dpi_get_category_name_by_id(void *pelda, uint32_t id, char *buf, int buf_len);
/* 0 or more on success, negative on failure (the engine names the bad line on stderr). */
QUELM_API int quelm_dpi_load_protocols(void *pelda, const char *path);
QUELM_API int quelm_dpi_load_categories(void *pelda, const char *path);
/* IPv4 address (host order) to the protocol of the longest matching custom network, or 0. */
QUELM_API uint16_t quelm_dpi_network_ptree_match(void *pelda, uint32_t addr);
QUELM_API void quelm_dpi_sha256(const void *data, size_t len, uint8_t out[32]);

/* Table-level names and files (they use the table's handle). */
QUELM_API const char *quelm_l7_protocol_name(quelm_table *table, const quelm_l7_protocol *protocol,
                                             char *buf, uint32_t buf_len);
QUELM_API uint16_t quelm_l7_protocol_id(quelm_table *table, const char *name);
QUELM_API char *quelm_category_name(quelm_table *table, uint32_t id, char *buf, int buf_len);
QUELM_API int quelm_category_id(quelm_table *table, const char *name);
/* Loads further protocols and grows the rule tables; negative on failure, -1 without handle. */
QUELM_API int quelm_load_pelda_protocols(quelm_table *table, const char *path);
QUELM_API int quelm_load_pelda_categories(quelm_table *table, const char *path);
/* Sizes the table's rule tables from the engine's protocol count: 0, or -1 out of memory. */
QUELM_API int __quelm_table_pelda_update(quelm_table *table);
/* Entries of one protocol-pair table; sets the table's protocol shift. */
QUELM_API uint32_t __compute_protocol_filter_size(quelm_table *table);

/* ---- Rules ------------------------------------------------------------------------------------
 */

/* Rules are set by engine name: a protocol ("HTTP"), a pair ("TLS.YouTube") or a category. They
 * need the table's detection handle; refused names are reported only under quelm_debug() and leave
 * the rules unchanged (read them back with quelm_get_rules). A value of 0 removes a rule. The
 * __ forms write into a caller-owned rule set. */
QUELM_API void __quelm_set_shunt_protocol_by_name(quelm_table *table, const char *name,
                                                  uint8_t packets, quelm_rules *rules);
QUELM_API void quelm_set_shunt_protocol_by_name(quelm_table *table, const char *name,
                                                uint8_t packets);
QUELM_API void __quelm_set_filter_protocol_by_name(quelm_table *table, const char *name,
                                                   uint8_t action, quelm_rules *rules);
QUELM_API void quelm_set_filter_protocol_by_name(quelm_table *table, const char *name,
                                                 uint8_t action);
QUELM_API void __quelm_set_shunt_category_by_name(quelm_table *table, const char *name,
                                                  uint8_t packets, quelm_rules *rules);
QUELM_API void quelm_set_shunt_category_by_name(quelm_table *table, const char *name,
                                                uint8_t packets);
QUELM_API void __quelm_set_filter_category_by_name(quelm_table *table, const char *name,
                                                   uint8_t action, quelm_rules *rules);
QUELM_API void quelm_set_filter_category_by_name(quelm_table *table, const char *name,
                                                 uint8_t action);
QUELM_API void quelm_set_filter_all_protocols(quelm_table *table, uint8_t action);
QUELM_API void quelm_set_filter_all_categories(quelm_table *table, uint8_t action);
/* The table's own rule set, to read back what the setters and loaders stored. */
QUELM_API const quelm_rules *quelm_get_rules(quelm_table *table);

/* ---- Configuration file -----------------------------------------------------------------------
 */

/* Reads filter and shunt rules and "global" settings from a rules file into the table: 0, or -1
 * without detection handle or when the file cannot be opened or read (a directory), has a line
 * over 1023 bytes or a NUL byte, or is over 16 MiB; a refused file changes nothing. */
QUELM_API int quelm_load_configuration(quelm_table *table, const char *path);
/* Reads only the rules of the file into a caller-owned set, whose two protocol tables it
 * allocates on first use (the caller frees them): 0, or -1. */
QUELM_API int quelm_load_configuration_ext(quelm_table *table, const char *path,
                                           quelm_rules *rules);
typedef void (*quelm_conf_callback)(const char *section, const char *key, const char *value,
                                    quelm_table *table, quelm_rules *rules);
/* Calls cb once per key line in file order: 0, or -1 when the file cannot be opened or is
 * refused as above (before any call). */
QUELM_API int utils_configuration_file_iterator(const char *path, quelm_conf_callback cb,
                                                quelm_table *table, quelm_rules *rules);
QUELM_API void quelm_conf_rule_handler(const char *section, const char *key, const char *value,
                                       quelm_table *table, quelm_rules *rules);
/* Skips leading white space, cuts trailing white space in place. */
QUELM_API char *utils_trim(char *str);
QUELM_API char *utils_tolower(char *str);
/* "default", "forward", "discard", "user_1", "user_2", "slice" (any case; lower-cases in place);
 * anything else is QUELM_ACTION_DEFAULT. */
QUELM_API quelm_action utils_string2action(char *str);
/* Cuts a string at its first tab, line feed or carriage return. */
QUELM_API char *utils_sanitize(char *str);

/* ---- Export to ZeroMQ collectors --------------------------------------------------------------
 */

/* Serialisation formats of flow records. */
#define QUELM_EXPORT_FORMAT_TLV 1
#define QUELM_EXPORT_FORMAT_JSON 2

typedef struct quelm_export quelm_export;

typedef struct quelm_zmq_stats {
    uint32_t buffered_records; /* records in the batch not yet sent */
    uint32_t num_flow_exports; /* records handed to libzmq for every subscribed collector */
    uint32_t num_flow_drops;   /* flows lost: queue full, no collector in time, or a failed send */
    /* Appended; filled by quelm_zmq_read_stats only, so that callers built against the first
     * three fields keep working. What the socket saw since the exporter started: */
    uint32_t connections;      /* connections made or accepted */
    uint32_t handshakes;       /* CURVE handshakes that succeeded (collectors reached) */
    uint32_t refused_auth;     /* handshakes the collector refused (key not allowed) */
    uint32_t refused_protocol; /* handshakes that failed otherwise (wrong server key, ...) */
    uint32_t disconnections;   /* connections that ended */
    uint32_t subscribed;       /* 1 while some collector subscribes to flow records */
    uint32_t queued_flows;     /* flows waiting in the export queue */
} quelm_zmq_stats;

/* Sets up export: `endpoint` is a comma-separated list of ZeroMQ endpoints, connected to when
 * `connect_mode` is non-zero (the collectors bind) or bound otherwise; `server_public_key` is the
 * collector's CURVE public key in Z85 (NULL: a built-in key). Flow records are JSON when
 * `use_json` is non-zero, else TLV. libzmq is loaded on first use; problems are reported on
 * standard error and leave export off. Register quelm_zmq_export_flow as the flow export
 * callback with the table as user pointer to route ended flows to the collectors. */
QUELM_API void quelm_zmq_export_configure(quelm_table *table, const char *endpoint,
                                          const char *server_public_key, uint8_t connect_mode,
                                          uint8_t reserved, uint8_t use_json);
/* Queues a flow for export (takes ownership); `table` is the quelm_table. */
QUELM_API void quelm_zmq_export_flow(quelm_flow *flow, void *table);
/* Sends every queued and batched record now, waiting for the collectors as quelm_flush does
 * (see quelm_zmq_set_timeout): afterwards each record handed over is counted as exported or
 * dropped. The next quelm_zmq_export_stats call sends a record however soon it comes, so that a
 * last record counts everything; call quelm_zmq_export_drain once more to wait for it too. */
QUELM_API void quelm_zmq_export_drain(quelm_table *table);
/* Sends a statistics record of the table, at most one every 3 seconds. */
QUELM_API void quelm_zmq_export_stats(quelm_table *table, const char *if_name, uint16_t if_speed,
                                      const char *if_ip, const char *probe_ip);
/* Fills the first three fields of `stats`. */
QUELM_API void quelm_zmq_get_stats(quelm_table *table, quelm_zmq_stats *stats);
/* Fills the first `size` bytes of `stats` (pass sizeof *stats): all fields this library knows,
 * after reading the events the socket reported since the last call. */
QUELM_API void quelm_zmq_read_stats(quelm_table *table, quelm_zmq_stats *stats, size_t size);
/* The exporter's own CURVE key pair (Z85, 40 characters each), so that collectors can tell it
 * apart and allow it by its public key. Takes effect at the exporter's next start: call it before
 * quelm_zmq_export_configure. Without it every start makes a fresh pair. Returns 0, or -1 when a
 * key is not 40 characters (nothing is changed). The library keeps its own copies. */
QUELM_API int quelm_zmq_set_client_key(quelm_table *table, const char *public_key,
                                       const char *secret_key);
/* How long a forced drain (quelm_flush, quelm_destroy_table) may wait for collectors to take
 * more records while nothing moves, in milliseconds (default 10,000; 0 never waits). Once that
 * time passes without progress, what remains is counted in num_flow_drops and released. The
 * packet path never waits: a full export queue drops the flow and counts it. */
QUELM_API void quelm_zmq_set_timeout(quelm_table *table, uint32_t timeout_msec);

/* The engine's serializer, wrapped (`serializer` is the engine's serializer object). */
QUELM_API int quelm_serializer_init(void *serializer, uint32_t format);
QUELM_API void quelm_serializer_reset(void *serializer);
QUELM_API void quelm_serializer_term(void *serializer);
QUELM_API char *quelm_serializer_get_buffer(void *serializer, uint32_t *len);
QUELM_API int quelm_serialize_end_of_record(void *serializer);
QUELM_API int quelm_serialize_uint32(void *serializer, uint32_t key, uint32_t value);
QUELM_API int quelm_serialize_uint64(void *serializer, uint32_t key, uint64_t value);
QUELM_API int quelm_serialize_string(void *serializer, uint32_t key, const char *value);
QUELM_API int quelm_serialize_string_uint32(void *serializer, const char *key, uint32_t value);
QUELM_API int quelm_serialize_string_uint64(void *serializer, const char *key, uint64_t value);
QUELM_API int quelm_serialize_string_string(void *serializer, const char *key, const char *value);
QUELM_API int quelm_serialize_start_of_block(void *serializer, const char *key);
QUELM_API int quelm_serialize_end_of_block(void *serializer);

/* ---- Packets and expiry -------------------------------------------------------------------- */

/* Accounts one packet (starting at its Ethernet header; header->caplen bytes readable) and returns
 * its verdict. Packets that are not decoded or get no flow return QUELM_ACTION_DEFAULT and are
 * counted in quelm_stats. Runs housekeeping when the packet's second is new. */
QUELM_API quelm_action quelm_process(quelm_table *table, const uint8_t *packet,
                                     const quelm_packet_header *header,
                                     const quelm_packet_ext *ext);
/* Expires idle flows and cuts due slices at packet second `now`, then hands the ended flows to the
 * export callbacks. Call it while no packets arrive. 1 when a pass ran, 0 when `now` had already
 * been handled. */
QUELM_API int quelm_housekeeping(quelm_table *table, uint32_t now);
/* Ends every flow (status QUELM_FLOW_STATUS_FLUSHED) and hands them to the export callbacks. The
 * table stays usable. */
QUELM_API void quelm_flush(quelm_table *table);

/* ---- Flow hash ----------------------------------------------------------------------------- */

/* A hash of `size` buckets (rounded up to a power of two) holding at most 2 * size flows.
 * NULL when memory runs out. */
QUELM_API quelm_hash *quelm_hash_alloc(uint32_t size, uint32_t idle_timeout, uint32_t ignore_vlan,
                                       uint32_t mac_in_key);
/* Releases every flow still in the buckets (not those waiting for export), then the hash. */
QUELM_API void quelm_hash_free(quelm_hash *hash);
/* Writes info->hash and info->hash_idx for this hash. */
QUELM_API void quelm_hash_compute_hash_index(quelm_hash *hash, quelm_packet_info *info);
/* The packet's flow in either direction (direction set to 0 or 1), or NULL. Retires the idle and
 * slice-due flows it passes. */
QUELM_API quelm_flow *quelm_hash_find(quelm_table *table, quelm_hash *hash, quelm_packet_info *info,
                                      uint32_t *direction);
/* 1 when inserted, 0 when the hash is full. The hash takes the caller's reference. */
QUELM_API int quelm_hash_add(quelm_hash *hash, quelm_flow *flow);
/* 1 when the flow was in chain `idx` and is now unlinked, else 0. */
QUELM_API int quelm_hash_remove(quelm_hash *hash, quelm_flow *flow, uint32_t idx);
/* Calls cb for every flow until it returns non-zero; cb may remove the flow it is given. */
QUELM_API void quelm_hash_walk(quelm_hash *hash, int (*cb)(quelm_flow *flow, void *user),
                               void *user);
/* Retires a flow: out of its chain and recency list, settled, into the export list. The caller sets
 * the flow's status first. */
QUELM_API void quelm_hash_export_flow(quelm_table *table, quelm_hash *hash, quelm_flow *flow);
/* Cuts a slice of the flow's counters since the previous one into the export list. */
QUELM_API void quelm_hash_export_flow_slice(quelm_table *table, quelm_hash *hash, quelm_flow *flow,
                                            uint32_t now);
/* Retires idle and slices due flows from the old end of the recency list; stops at the first flow
 * that is neither. now == 0xFFFFFFFF flushes every flow. Returns how many it retired or sliced. */
QUELM_API uint32_t quelm_hash_harvest_expired_flows(quelm_table *table, quelm_hash *hash,
                                                    uint32_t now);
/* Examines the next slice of buckets for idle and slice-due flows. */
QUELM_API uint32_t quelm_hash_check_expired_flows(quelm_table *table, quelm_hash *hash,
                                                  uint32_t now);

/* ---- Lists --------------------------------------------------------------------------------- */

/* None of these allocate; a node must be in the list given (or, to insert, in none). */
QUELM_API void quelm_list_append(quelm_list *list, quelm_list_node *node);
QUELM_API void quelm_list_prepend(quelm_list *list, quelm_list_node *node);
QUELM_API void quelm_list_remove(quelm_list *list, quelm_list_node *node);
QUELM_API void quelm_list_move_to_head(quelm_list *list, quelm_list_node *node);
QUELM_API void quelm_list_move_to_tail(quelm_list *list, quelm_list_node *node);
/* Appends all of src to dst in order; src is left empty. */
QUELM_API void quelm_list_merge(quelm_list *dst, quelm_list *src);
/* The flow at the head, removed from the list, or NULL when empty. */
QUELM_API quelm_flow *quelm_list_pop_head(quelm_list *list);
QUELM_API quelm_flow *quelm_list_get_next(quelm_list *list);
/* Releases every flow of the list with quelm_flow_free. */
QUELM_API void quelm_list_cleanup(quelm_list *list);
/* Prints one line per flow on standard output, then "<n>/<count> flows dumped" without a line end.
 * `pelda` (detection handle) may be NULL. */
QUELM_API void quelm_list_dump_flows(quelm_list *list, void *pelda);

/* ---- Flow records -------------------------------------------------------------------------- */

/* A flow keyed from a decoded packet, with `user_size` zero bytes of user area; NULL when memory
 * runs out. `pelda` may be NULL (detection is then done at once). */
QUELM_API quelm_flow *quelm_flow_new(quelm_packet_info *info, void *pelda, uint16_t user_size);
/* Drops one reference; the record, its strings and its engine state go with the last one. */
QUELM_API void quelm_flow_free(quelm_flow *flow);
/* A copy of the flow's counters holding a reference on it; NULL when memory runs out. */
QUELM_API quelm_flow *quelm_flow_slice(quelm_flow *flow);
/* Zeroes packets and bytes of both directions and moves `first` to `last`. Returns the flow. */
QUELM_API quelm_flow *quelm_flow_reset_counters(quelm_flow *flow);
/* Guesses a protocol for an unidentified flow and copies its protocol details. */
QUELM_API void quelm_flow_prepare_for_export(quelm_flow *flow, void *pelda, uint32_t guess);
/* One-line text form, truncated to `size` bytes (terminator included). Returns buf. */
QUELM_API char *quelm_flow_print(quelm_flow *flow, char *buf, uint32_t size, void *pelda);
QUELM_API uint64_t quelm_flow_get_id(quelm_flow *flow);
/* Views into the flow, valid while the caller holds its reference. */
QUELM_API quelm_flow_key *quelm_flow_get_key(quelm_flow *flow);
QUELM_API quelm_flow_value *quelm_flow_get_value(quelm_flow *flow);

/* ---- Community ID -------------------------------------------------------------------------- */

/* Bytes of a Community ID with its terminating NUL: "1:" and 28 base64 characters. */
#define QUELM_COMMUNITY_ID_SIZE 31

/* The Community ID (version 1) of a flow, the identifier other monitors compute for the same
 * flow: "1:" and the base64 SHA-1 of `seed`, the endpoints ordered smaller first, the protocol
 * and, for TCP, UDP and SCTP, the ports; ICMP and ICMPv6 use the type and the counterpart type
 * (request and reply alike) or the code. Writes QUELM_COMMUNITY_ID_SIZE bytes into buf and
 * returns the length (30), or -1 when size is smaller. */
QUELM_API int quelm_flow_community_id(quelm_flow *flow, uint16_t seed, char *buf, size_t size);
/* The same from a flow's endpoints, for records that are not flows of a table: addresses as in
 * quelm_flow_key (IPv4: the host-order value in the first 4 bytes), ports in host order; for ICMP
 * and ICMPv6, sport is the type and dport the code of a packet from saddr to daddr. */
QUELM_API int quelm_community_id(uint8_t ip_version, const uint8_t saddr[16],
                                 const uint8_t daddr[16], uint8_t protocol, uint16_t sport,
                                 uint16_t dport, uint16_t seed, char *buf, size_t size);
/* The engine's per-flow state, or NULL. */
QUELM_API void *quelm_flow_get_pelda_handle(quelm_flow *flow);
QUELM_API void quelm_flow_set_action(quelm_flow *flow, quelm_action action);
QUELM_API quelm_action quelm_flow_get_action(quelm_flow *flow);
/* References held on the flow; for a slice, those of the live flow it was cut from. */
QUELM_API uint32_t quelm_flow_get_users(quelm_flow *flow);

/* ---- IPv4 fragment table ------------------------------------------------------------------- */

/* `size` slots rounded up to a power of two (0 gives a table that finds nothing); NULL when memory
 * runs out. */
QUELM_API quelm_fragment_hash *quelm_fragment_hash_alloc(uint32_t size);
QUELM_API void quelm_fragment_hash_free(quelm_fragment_hash *table);
/* The datagram's entry, refreshed for two seconds of packet time, or NULL when every slot holds a
 * valid entry of another datagram. */
QUELM_API quelm_fragment_entry *quelm_fragment_hash_find(quelm_fragment_hash *table,
                                                         uint32_t key_hash, uint16_t ip_id,
                                                         const quelm_packet_header *header);
/* Empties slots first..last, walking forward and wrapping. */
QUELM_API void quelm_fragment_hash_remove_range(quelm_fragment_hash *table, uint32_t first,
                                                uint32_t last);

/* ---- Formatting helpers -------------------------------------------------------------------- */

/* Writes the version text into buf (at least 13 bytes); returns the version number. */
QUELM_API uint32_t utils_read_version(char *buf);
QUELM_API uint64_t utils_tv_to_msec(const quelm_timeval *tv);
/* Wall-clock milliseconds since the epoch (not monotonic). */
QUELM_API uint64_t utils_time_msec(void);
/* The later of two times; `a` when equal. */
QUELM_API const quelm_timeval *utils_get_last(const quelm_timeval *a, const quelm_timeval *b);
/* "00:1B:2C:0A:FF:01" into buf (at least 18 bytes). */
QUELM_API char *utils_ethtoa(const uint8_t mac[6], char *buf);
/* Dotted quad written at the END of buf (at least 16 bytes): use the returned pointer, not buf. */
QUELM_API char *utils_intoav4(uint32_t addr, char *buf, uint64_t bufsize);
/* Compressed IPv6 text into buf; NULL when it does not fit. */
QUELM_API char *utils_intoav6(const uint8_t addr[16], char *buf, uint16_t bufsize);
/* Name of an IP protocol number; unnamed numbers are written into one shared static buffer. */
QUELM_API const char *utils_prototoa(uint32_t proto);
/* Smallest power of two >= v; 0 for 0 and for values above 2^31. */
QUELM_API uint32_t utils_pow2(uint32_t v);

#ifdef __cplusplus
}
#endif

#endif /* QUELM_H */
