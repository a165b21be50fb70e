// Binding to the detection engine: thin wrappers that fix the engine release, the settings handed
// to it, the fields of its records that are read, and the "Unknown" fallbacks of name look-ups.
#include "quelm_dpi.h"

#include <stdio.h>
#include <string.h>
#include <strings.h>

// The engine is provided by the process that loads this library. Weak references keep the library
// loadable without it; quelm_is_pelda_available() tells whether it is there.
#pragma weak pelda_get_api_version
#pragma weak pelda_revision
#pragma weak pelda_init_detection_module
#pragma weak pelda_set_config
#pragma weak pelda_finalize_initialization
#pragma weak pelda_exit_detection_module
#pragma weak pelda_detection_get_sizeof_pelda_flow_struct
#pragma weak pelda_free_flow
#pragma weak pelda_detection_process_packet
#pragma weak pelda_detection_giveup
#pragma weak pelda_guess_undetected_protocol_v4
#pragma weak pelda_get_proto_by_name
#pragma weak pelda_protocol2name
#pragma weak pelda_get_num_protocols
#pragma weak pelda_category_get_name
#pragma weak pelda_load_protocols_file
#pragma weak pelda_load_categories_file
#pragma weak pelda_network_ptree_match
#pragma weak pelda_sha256
#pragma weak pelda_init_serializer
#pragma weak pelda_reset_serializer
#pragma weak pelda_term_serializer
#pragma weak pelda_serializer_get_buffer
#pragma weak pelda_serialize_end_of_record
#pragma weak pelda_serialize_uint32_uint32
#pragma weak pelda_serialize_uint32_uint64
#pragma weak pelda_serialize_uint32_string
#pragma weak pelda_serialize_string_uint32
#pragma weak pelda_serialize_string_uint64
#pragma weak pelda_serialize_string_string
#pragma weak pelda_serialize_start_of_block
#pragma weak pelda_serialize_end_of_block

namespace {
auto module(void *pelda) {
    return static_cast<pelda_detection_module *>(pelda);
}
bool detection_available() {
    return pelda_get_api_version != nullptr && pelda_init_detection_module != nullptr;
}
auto flow_object(void *dpi_flow) {
    return static_cast<pelda_flow *>(dpi_flow);
}
quelm_dpi_result result(const pelda_protocol &r) {
    quelm_dpi_result out;
    memcpy(&out, &r, sizeof out);
    return out;
}
}  // namespace

extern "C" {

int quelm_is_pelda_available(void) {
    return detection_available() && pelda_init_serializer != nullptr;
}

int quelm_dpi_init(void) {
    return 0;
}

void *quelm_dpi_alloc(int guess_on_giveup) {
    if (quelm_dpi_init() < 0 || !detection_available()) return nullptr;
    const uint32_t revision = pelda_get_api_version() & 0xFFFF;
    if (revision != QUELM_PELDA_API_REVISION) {
        fprintf(stderr,
                "*** pelda library version mismatch, expected API rev.%u (%s) found rev.%u (%s) "
                "***\n",
                QUELM_PELDA_API_REVISION, QUELM_PELDA_RELEASE, revision, pelda_revision());
        return nullptr;
    }
    pelda_detection_module *handle = pelda_init_detection_module(nullptr, 2);
    if (handle == nullptr) return nullptr;
    if (guess_on_giveup == 0) pelda_set_config(handle, nullptr, "dpi.guess_on_giveup", "0");
    pelda_finalize_initialization(handle);
    return handle;
}

void quelm_dpi_free(void *pelda) {
    pelda_exit_detection_module(module(pelda));
}

uint32_t quelm_dpi_detection_get_sizeof_pelda_flow_struct(void) {
    return pelda_detection_get_sizeof_pelda_flow_struct();
}

void quelm_dpi_free_flow(void *dpi_flow) {
    pelda_free_flow(flow_object(dpi_flow));
}

quelm_dpi_result quelm_pelda_detection_process_packet(void *pelda, void *dpi_flow,
                                                      const uint8_t *packet, uint32_t len,
                                                      uint64_t time_ms) {
    return result(pelda_detection_process_packet(module(pelda), flow_object(dpi_flow), packet, len,
                                                 time_ms, nullptr));
}

quelm_dpi_result quelm_dpi_giveup_and_guess(void *pelda, void *dpi_flow) {
    quelm_dpi_result r = result(pelda_detection_giveup(module(pelda), flow_object(dpi_flow)));
    // A give-up that names only a master protocol takes the engine's own application id.
    if (r.app_protocol == 0 && r.master_protocol != 0 && dpi_flow != nullptr) {
        uint16_t app;
        __builtin_memcpy(
            &app,
            static_cast<const uint8_t *>(dpi_flow) + quelm::pelda_flow_offset::giveup_app_protocol,
            sizeof app);
        r.app_protocol = app;
    }
    return r;
}

quelm_dpi_result quelm_dpi_guess_undetected_protocol(void *pelda, void *dpi_flow, uint8_t proto,
                                                     uint32_t saddr, uint16_t sport, uint32_t daddr,
                                                     uint16_t dport) {
    return result(pelda_guess_undetected_protocol_v4(module(pelda), flow_object(dpi_flow), proto,
                                                     saddr, sport, daddr, dport));
}

uint16_t quelm_dpi_get_protocol_id_by_name(void *pelda, const char *name) {
    if (pelda == nullptr || name == nullptr) return 0;
    return pelda_get_proto_by_name(module(pelda), name);
}

const char *quelm_dpi_get_protocol_name_by_id(void *pelda, const quelm_l7_protocol *protocol,
                                              char *buf, uint32_t buf_len) {
    if (pelda == nullptr) return "Unknown";
    const pelda_proto_pair pair{protocol->master_protocol, protocol->app_protocol};
    const char *name = pelda_protocol2name(module(pelda), pair, buf, buf_len);
    return name != nullptr ? name : "Unknown";
}

uint32_t quelm_dpi_get_num_supported_protocols(void *pelda) {
    return pelda == nullptr ? 0 : pelda_get_num_protocols(module(pelda));
}

uint32_t quelm_dpi_get_num_supported_categories(void) {
    return QUELM_PELDA_NUM_CATEGORIES;
}

int quelm_dpi_get_category_id_by_name(void *pelda, const char *name) {
    if (pelda == nullptr || name == nullptr) return -1;
    for (uint32_t id = 0; id < QUELM_PELDA_NUM_CATEGORIES; id++) {
        const char *candidate = pelda_category_get_name(module(pelda), id);
        if (candidate != nullptr && strcasecmp(candidate, name) == 0) return int(id);
    }
    return -1;
}

char *quelm_dpi_get_category_name_by_id(void *pelda, uint32_t id, char *buf, int buf_len) {
    const char *name = nullptr;
    if (id < QUELM_PELDA_NUM_CATEGORIES && pelda != nullptr)
        name = pelda_category_get_name(module(pelda), id);
    snprintf(buf, size_t(buf_len), "%s", name != nullptr ? name : "Unknown");
    return buf;
}

int quelm_dpi_load_protocols(void *pelda, const char *path) {
    return pelda_load_protocols_file(module(pelda), path);
}

int quelm_dpi_load_categories(void *pelda, const char *path) {
    return pelda_load_categories_file(module(pelda), path, nullptr);
}

uint16_t quelm_dpi_network_ptree_match(void *pelda, uint32_t addr) {
    return pelda_network_ptree_match(module(pelda), addr);
}

void quelm_dpi_sha256(const void *data, size_t len, uint8_t out[32]) {
    pelda_sha256(data, len, out);
}

}  // extern "C"

// ---- Serializer ------------------------------------------------------------------------------
// The engine's serializer builds the export records; each wrapper forwards its arguments.

namespace {
auto ser(void *s) {
    return static_cast<pelda_serializer *>(s);
}
}  // namespace

extern "C" {

int quelm_serializer_init(void *s, uint32_t format) {
    if (pelda_init_serializer == nullptr) return -1;
    return pelda_init_serializer(ser(s), pelda_serialization_format(format));
}
void quelm_serializer_reset(void *s) {
    pelda_reset_serializer(ser(s));
}
void quelm_serializer_term(void *s) {
    pelda_term_serializer(ser(s));
}
char *quelm_serializer_get_buffer(void *s, uint32_t *len) {
    return pelda_serializer_get_buffer(ser(s), len);
}
int quelm_serialize_end_of_record(void *s) {
    return pelda_serialize_end_of_record(ser(s));
}
int quelm_serialize_uint32(void *s, uint32_t key, uint32_t value) {
    return pelda_serialize_uint32_uint32(ser(s), key, value);
}
int quelm_serialize_uint64(void *s, uint32_t key, uint64_t value) {
    return pelda_serialize_uint32_uint64(ser(s), key, value);
}
int quelm_serialize_string(void *s, uint32_t key, const char *value) {
    return pelda_serialize_uint32_string(ser(s), key, value);
}
int quelm_serialize_string_uint32(void *s, const char *key, uint32_t value) {
    return pelda_serialize_string_uint32(ser(s), key, value);
}
int quelm_serialize_string_uint64(void *s, const char *key, uint64_t value) {
    return pelda_serialize_string_uint64(ser(s), key, value);
}
int quelm_serialize_string_string(void *s, const char *key, const char *value) {
    return pelda_serialize_string_string(ser(s), key, value);
}
int quelm_serialize_start_of_block(void *s, const char *key) {
    return pelda_serialize_start_of_block(ser(s), key);
}
int quelm_serialize_end_of_block(void *s) {
    return pelda_serialize_end_of_block(ser(s));
}

}  // extern "C"
