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

// The public result record mirrors the engine's by layout; the binding converts between them.
static_assert(sizeof(quelm_dpi_result) == sizeof(pelda_protocol));
static_assert(offsetof(quelm_dpi_result, master_protocol) ==
              offsetof(pelda_protocol, master_protocol));
static_assert(offsetof(quelm_dpi_result, app_protocol) == offsetof(pelda_protocol, app_protocol));
static_assert(offsetof(quelm_dpi_result, category) == 24 &&
              offsetof(pelda_protocol, category) == 24);
static_assert(offsetof(quelm_dpi_result, state) == 48 && offsetof(pelda_protocol, state) == 48);
