// Fuzzes the TLV reader. Every batch it accepts is written again in TLV and in JSON; the TLV copy,
// read and written once more, must give the same bytes: the reader took back what was written.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "tlv_copy.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > (1u << 20)) return 0;
    pelda_serializer tlv, again, json;
    if (pelda_init_serializer(&tlv, PELDA_SERIALIZATION_FORMAT_TLV) != 0 ||
        pelda_init_serializer(&again, PELDA_SERIALIZATION_FORMAT_TLV) != 0 ||
        pelda_init_serializer(&json, PELDA_SERIALIZATION_FORMAT_JSON) != 0)
        std::abort();
    if (pt::tlv_copy(data, size, &tlv) && pt::tlv_copy(data, size, &json)) {
        uint32_t len = 0, again_len = 0, json_len = 0;
        const char *b = pelda_serializer_get_buffer(&tlv, &len);
        if (b == nullptr || !pt::tlv_copy(b, len, &again)) std::abort();
        const char *a = pelda_serializer_get_buffer(&again, &again_len);
        const char *j = pelda_serializer_get_buffer(&json, &json_len);
        if (a == nullptr || again_len != len || std::memcmp(a, b, len) != 0 || j == nullptr ||
            std::strlen(j) != json_len)
            std::abort();
    }
    pelda_term_serializer(&tlv);
    pelda_term_serializer(&again);
    pelda_term_serializer(&json);
    return 0;
}
