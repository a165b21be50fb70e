/*
 * pelda.h - the public API of libpelda, quelm's deep-packet-inspection engine.
 *
 * libquelm calls the functions below and reads a few fields of the detection
 * result and of the per-flow object at fixed byte offsets; those layouts are
 * part of API revision PELDA_API_VERSION and must not move.
 *
 * All functions are C functions, usable from C and C++.
 */
#ifndef PELDA_H
#define PELDA_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define PELDA_API __attribute__((visibility("default")))
#else
#define PELDA_API
#endif

/* API revision (low 16 bits of pelda_get_api_version()) and release text. */
#define PELDA_API_VERSION 14778
#define PELDA_REVISION "6.1.0"

/* Number of categories: ids 0 to PELDA_NUM_CATEGORIES - 1 all have a name. */
#define PELDA_NUM_CATEGORIES 164

/* Protocol ids with a fixed meaning. */
#define PELDA_PROTOCOL_UNKNOWN 0
#define PELDA_PROTOCOL_DNS 5
#define PELDA_PROTOCOL_HTTP 7
#define PELDA_PROTOCOL_TLS 91

/* `state` of a detection result: the engine has nothing more to extract. */
#define PELDA_STATE_DONE 3

/* A detection module: one engine instance with its protocol tables. */
typedef struct pelda_detection_module pelda_detection_module;

/* Per-flow state. The caller allocates pelda_detection_get_sizeof_pelda_flow_struct()
 * bytes zero-filled with the C allocator and releases them with pelda_free_flow(). */
typedef struct pelda_flow pelda_flow;

/* A master/application protocol pair, passed by value (32 bits). */
typedef struct pelda_proto_pair {
    uint16_t master_protocol;
    uint16_t app_protocol;
} pelda_proto_pair;

/*
 * Detection result, returned by value. Fixed layout:
 *   byte 0  u16 master_protocol
 *   byte 2  u16 app_protocol
 *   byte 24 u32 category
 *   byte 48 u32 state (PELDA_STATE_DONE: nothing more to extract)
 */
typedef struct pelda_protocol {
    uint16_t master_protocol;
    uint16_t app_protocol;
    uint32_t protocol_by_ip; /* protocol of the longest matching custom network, 0 if none */
    uint32_t confidence;     /* how the result was obtained, see the engine's README */
    uint32_t reserved0[3];
    uint32_t category; /* byte 24 */
    uint32_t reserved1[5];
    uint32_t state; /* byte 48 */
    uint32_t reserved2;
} pelda_protocol;

/* ---- Module set-up -------------------------------------------------------- */
PELDA_API uint32_t pelda_get_api_version(void);
PELDA_API const char *pelda_revision(void);
/* `prefs` may be null; `flags` is an initialisation preference (libquelm passes 2). */
PELDA_API pelda_detection_module *pelda_init_detection_module(void *prefs, int flags);
/* `proto` names a protocol for per-protocol settings, or is null for global ones.
 * Known keys: "dpi.guess_on_giveup" ("0" or "1", default "1"). 0, or -1. */
PELDA_API int pelda_set_config(pelda_detection_module *module, const char *proto, const char *key,
                               const char *value);
PELDA_API int pelda_finalize_initialization(pelda_detection_module *module);
PELDA_API void pelda_exit_detection_module(pelda_detection_module *module);

/* ---- Per-flow detection --------------------------------------------------- */
PELDA_API uint32_t pelda_detection_get_sizeof_pelda_flow_struct(void);
PELDA_API void pelda_free_flow(pelda_flow *flow);
/* `packet` starts at the IP header; `len` bytes are readable; `time_ms` is packet time. */
PELDA_API pelda_protocol pelda_detection_process_packet(pelda_detection_module *module,
                                                        pelda_flow *flow, const uint8_t *packet,
                                                        uint32_t len, uint64_t time_ms,
                                                        void *extra);
PELDA_API pelda_protocol pelda_detection_giveup(pelda_detection_module *module, pelda_flow *flow);
/* Addresses in host order; `flow` may be null. */
PELDA_API pelda_protocol pelda_guess_undetected_protocol_v4(pelda_detection_module *module,
                                                            pelda_flow *flow, uint8_t proto,
                                                            uint32_t saddr, uint16_t sport,
                                                            uint32_t daddr, uint16_t dport);

/* ---- Names and ids -------------------------------------------------------- */
PELDA_API uint16_t pelda_get_proto_by_name(pelda_detection_module *module, const char *name);
PELDA_API char *pelda_protocol2name(pelda_detection_module *module, pelda_proto_pair proto,
                                    char *buf, uint32_t buf_len);
PELDA_API uint32_t pelda_get_num_protocols(pelda_detection_module *module);
PELDA_API const char *pelda_category_get_name(pelda_detection_module *module, uint32_t category);

/* ---- Files ---------------------------------------------------------------- */
PELDA_API int pelda_load_protocols_file(pelda_detection_module *module, const char *path);
PELDA_API int pelda_load_categories_file(pelda_detection_module *module, const char *path,
                                         void *user_data);
/* IPv4 address (host order) to the protocol id of the longest matching custom network, or 0. */
PELDA_API uint16_t pelda_network_ptree_match(pelda_detection_module *module, uint32_t addr);

/* ---- SHA-256 -------------------------------------------------------------- */
PELDA_API void pelda_sha256(const void *data, size_t len, uint8_t out[32]);

#ifdef __cplusplus
}
#endif

#endif /* PELDA_H */
