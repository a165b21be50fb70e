// Binding to the detection engine. This module is the only code that calls the engine's detection
// functions; the engine is resolved from the process at run time (weak references), so a process
// without it can still use tables without detection.
#pragma once

#include "quelm.h"
#include "pelda.h"

// Engine release this library reads records of (field offsets below belong to it).
inline constexpr uint32_t QUELM_PELDA_API_REVISION = 14778;
inline constexpr const char *QUELM_PELDA_RELEASE = "6.1.0";
inline constexpr uint32_t QUELM_PELDA_NUM_CATEGORIES = 164;

// Byte offsets of the engine's per-flow object fields that the library reads.
namespace quelm::pelda_flow_offset {
inline constexpr size_t giveup_app_protocol = 30;  // u16
inline constexpr size_t server_name = 368;         // char*
inline constexpr size_t http_response_code = 654;  // u16
inline constexpr size_t url = 656;                 // char*
inline constexpr size_t dns_reply_code = 930;      // u8
inline constexpr size_t dns_query_type = 936;      // u16
inline constexpr size_t tls_cert_sha1 = 1156;      // 20 bytes
}  // namespace quelm::pelda_flow_offset

extern "C" {
QUELM_API int quelm_is_pelda_available(void);
QUELM_API int quelm_dpi_init(void);
QUELM_API void *quelm_dpi_alloc(int guess_on_giveup);
QUELM_API void quelm_dpi_free(void *pelda);
QUELM_API uint32_t quelm_dpi_detection_get_sizeof_pelda_flow_struct(void);
QUELM_API void quelm_dpi_free_flow(void *dpi_flow);
QUELM_API pelda_protocol quelm_pelda_detection_process_packet(void *pelda, void *dpi_flow,
                                                              const uint8_t *packet, uint32_t len,
                                                              uint64_t time_ms);
QUELM_API pelda_protocol quelm_dpi_giveup_and_guess(void *pelda, void *dpi_flow);
QUELM_API pelda_protocol quelm_dpi_guess_undetected_protocol(void *pelda, void *dpi_flow,
                                                             uint8_t proto, uint32_t saddr,
                                                             uint16_t sport, uint32_t daddr,
                                                             uint16_t dport);
QUELM_API uint16_t quelm_dpi_get_protocol_id_by_name(void *pelda, const char *name);
QUELM_API const char *quelm_dpi_get_protocol_name_by_id(void *pelda,
                                                        const quelm_l7_protocol *protocol,
                                                        char *buf, uint32_t buf_len);
QUELM_API uint32_t quelm_dpi_get_num_supported_protocols(void *pelda);
QUELM_API uint32_t quelm_dpi_get_num_supported_categories(void);
QUELM_API int quelm_dpi_get_category_id_by_name(void *pelda, const char *name);
QUELM_API char *quelm_dpi_get_category_name_by_id(void *pelda, uint32_t id, char *buf, int buf_len);
QUELM_API int quelm_dpi_load_protocols(void *pelda, const char *path);
QUELM_API int quelm_dpi_load_categories(void *pelda, const char *path);
QUELM_API uint16_t quelm_dpi_network_ptree_match(void *pelda, uint32_t addr);
QUELM_API void quelm_dpi_sha256(const void *data, size_t len, uint8_t out[32]);
}
