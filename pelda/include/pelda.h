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

/* `state` of a detection result. */
#define PELDA_STATE_INSPECTING 0 /* no protocol named yet */
#define PELDA_STATE_EXTRACTING 1 /* protocol named; later packets may add metadata */
#define PELDA_STATE_DONE 3       /* the engine has nothing more to extract */

/* `confidence` of a detection result: how the protocol was obtained. */
#define PELDA_CONFIDENCE_UNKNOWN 0
#define PELDA_CONFIDENCE_DPI 1 /* a dissector recognised the payload */
#define PELDA_CONFIDENCE_DPI_PARTIAL \
    2 /* a dissector saw the start of a protocol, not enough to name it */
#define PELDA_CONFIDENCE_CUSTOM_RULE 3 /* a port or host rule of a loaded protocols file */
#define PELDA_CONFIDENCE_GUESS_PORT 4  /* guessed from the well-known port */
#define PELDA_CONFIDENCE_GUESS_IP 5    /* guessed from a custom network */
#define PELDA_CONFIDENCE_GUESS_PROTO 6 /* guessed from the IP protocol number */

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

/* ---- Serializer ----------------------------------------------------------
 * Builds records of keyed values in JSON or in the engine's TLV format (see README).
 * Records of a batch are separated by pelda_serialize_end_of_record(), called before
 * every record but the first. Values are copied when the call is made. Every call
 * returns 0 on success and -1 on failure (no memory, bad nesting, not initialised). */
typedef enum {
    PELDA_SERIALIZATION_FORMAT_TLV = 1,
    PELDA_SERIALIZATION_FORMAT_JSON = 2
} pelda_serialization_format;

#define PELDA_SERIALIZER_MAX_DEPTH 16

/* Plain data, embeddable by value; zero-filled it is "not initialised". */
typedef struct pelda_serializer {
    uint8_t *buffer;   /* heap bytes; byte 0 is reserved for the JSON array bracket */
    uint32_t size;     /* bytes written, including the reserved byte */
    uint32_t capacity; /* bytes allocated */
    uint32_t format;   /* pelda_serialization_format, 0 when not initialised */
    uint32_t records;  /* records in the batch (1 once the first element is written) */
    uint32_t depth;    /* open blocks in the current record */
    uint32_t failed;   /* sticky: a write ran out of memory */
    uint8_t need_comma[PELDA_SERIALIZER_MAX_DEPTH + 1]; /* JSON: level holds an element */
    uint8_t reserved[7];
} pelda_serializer;

PELDA_API int pelda_init_serializer(pelda_serializer *s, pelda_serialization_format fmt);
PELDA_API void pelda_reset_serializer(pelda_serializer *s);
PELDA_API void pelda_term_serializer(pelda_serializer *s);
/* The serialised batch; *len gets its length. JSON text is NUL-terminated (the NUL is
 * not counted). The pointer stays valid until the next write, reset or term. */
PELDA_API char *pelda_serializer_get_buffer(pelda_serializer *s, uint32_t *len);
PELDA_API int pelda_serialize_end_of_record(pelda_serializer *s);
PELDA_API int pelda_serialize_uint32_uint32(pelda_serializer *s, uint32_t key, uint32_t value);
PELDA_API int pelda_serialize_uint32_uint64(pelda_serializer *s, uint32_t key, uint64_t value);
PELDA_API int pelda_serialize_uint32_string(pelda_serializer *s, uint32_t key, const char *value);
PELDA_API int pelda_serialize_string_uint32(pelda_serializer *s, const char *key, uint32_t value);
PELDA_API int pelda_serialize_string_uint64(pelda_serializer *s, const char *key, uint64_t value);
PELDA_API int pelda_serialize_string_string(pelda_serializer *s, const char *key,
                                            const char *value);
PELDA_API int pelda_serialize_start_of_block(pelda_serializer *s, const char *key);
PELDA_API int pelda_serialize_end_of_block(pelda_serializer *s);

/* ---- TLV reader ------------------------------------------------------------
 * Walks a TLV batch element by element. Strings and text keys point into the
 * caller's buffer and are not NUL-terminated. */
typedef enum {
    PELDA_TLV_UINT32 = 1,
    PELDA_TLV_UINT64 = 2,
    PELDA_TLV_STRING = 3,
    PELDA_TLV_START_OF_BLOCK = 4, /* text key, no value */
    PELDA_TLV_END_OF_BLOCK = 5,   /* no key, no value */
    PELDA_TLV_END_OF_RECORD = 6   /* no key, no value: the next record starts */
} pelda_tlv_kind;

typedef enum {
    PELDA_TLV_KEY_NONE = 0,
    PELDA_TLV_KEY_NUMBER = 1,
    PELDA_TLV_KEY_TEXT = 2
} pelda_tlv_key_kind;

typedef struct pelda_tlv_element {
    uint8_t kind;         /* pelda_tlv_kind */
    uint8_t key_kind;     /* pelda_tlv_key_kind */
    uint16_t depth;       /* blocks open around this element */
    uint32_t key_number;  /* PELDA_TLV_KEY_NUMBER */
    const char *key_text; /* PELDA_TLV_KEY_TEXT, key_text_len bytes */
    uint32_t key_text_len;
    uint32_t string_len; /* PELDA_TLV_STRING */
    const char *string;
    uint64_t number; /* PELDA_TLV_UINT32 and PELDA_TLV_UINT64 */
} pelda_tlv_element;

typedef struct pelda_tlv_reader {
    const uint8_t *data;
    uint32_t len;
    uint32_t pos;
    uint32_t depth;
    int32_t error; /* non-zero once the batch was found malformed */
} pelda_tlv_reader;

/* 0, or -1 when the buffer does not start a TLV batch of a version this reader knows. */
PELDA_API int pelda_tlv_reader_init(pelda_tlv_reader *r, const void *data, uint32_t len);
/* 1 with the next element in *e, 0 at the end of the batch, -1 when malformed
 * (truncated, unknown element, bad nesting); after -1 every call returns -1. */
PELDA_API int pelda_tlv_reader_next(pelda_tlv_reader *r, pelda_tlv_element *e);

/* ---- Protocol and category details ----------------------------------------- */
/* Category id of a protocol, or 0 when the id is unknown. */
PELDA_API uint32_t pelda_get_proto_category(pelda_detection_module *module, uint16_t proto);
/* Category id by name (case-insensitive), or -1. */
PELDA_API int pelda_get_category_by_name(pelda_detection_module *module, const char *name);
/* Name of the flow's detected server name (HTTP host, TLS server name, DNS query), or null. */
PELDA_API const char *pelda_flow_server_name(const pelda_flow *flow);

#ifdef __cplusplus
}
#endif

#endif /* PELDA_H */
