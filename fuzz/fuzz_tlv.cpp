// Fuzzes the TLV reader. Every batch it accepts is written again in TLV and in JSON; the TLV copy,
// read and written once more, must give the same bytes: the reader took back what was written.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "pelda.h"

namespace {

// Writes the elements of the TLV batch `data` with `s`; false when the reader refuses the batch or
// an element cannot be written again (text keys and strings with a NUL byte, through the C API).
bool copy(const void *data, size_t size, pelda_serializer *s) {
    pelda_tlv_reader r;
    if (pelda_tlv_reader_init(&r, data, uint32_t(size)) != 0) return false;
    pelda_tlv_element e;
    int rc;
    while ((rc = pelda_tlv_reader_next(&r, &e)) == 1) {
        const std::string key(e.key_text ? e.key_text : "", e.key_text_len);
        const std::string str(e.string ? e.string : "", e.string_len);
        if (key.find('\0') != std::string::npos || str.find('\0') != std::string::npos)
            return false;
        const bool text = e.key_kind == PELDA_TLV_KEY_TEXT;
        switch (e.kind) {
            case PELDA_TLV_UINT32:
                text ? pelda_serialize_string_uint32(s, key.c_str(), uint32_t(e.number))
                     : pelda_serialize_uint32_uint32(s, e.key_number, uint32_t(e.number));
                break;
            case PELDA_TLV_UINT64:
                text ? pelda_serialize_string_uint64(s, key.c_str(), e.number)
                     : pelda_serialize_uint32_uint64(s, e.key_number, e.number);
                break;
            case PELDA_TLV_STRING:
                text ? pelda_serialize_string_string(s, key.c_str(), str.c_str())
                     : pelda_serialize_uint32_string(s, e.key_number, str.c_str());
                break;
            case PELDA_TLV_START_OF_BLOCK:
                pelda_serialize_start_of_block(s, key.c_str());
                break;
            case PELDA_TLV_END_OF_BLOCK:
                pelda_serialize_end_of_block(s);
                break;
            case PELDA_TLV_END_OF_RECORD:
                pelda_serialize_end_of_record(s);
                break;
        }
    }
    return rc == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > (1u << 20)) return 0;
    pelda_serializer tlv, again, json;
    if (pelda_init_serializer(&tlv, PELDA_SERIALIZATION_FORMAT_TLV) != 0 ||
        pelda_init_serializer(&again, PELDA_SERIALIZATION_FORMAT_TLV) != 0 ||
        pelda_init_serializer(&json, PELDA_SERIALIZATION_FORMAT_JSON) != 0)
        std::abort();
    if (copy(data, size, &tlv) && copy(data, size, &json)) {
        uint32_t len = 0, again_len = 0, json_len = 0;
        const char *b = pelda_serializer_get_buffer(&tlv, &len);
        if (b == nullptr || !copy(b, len, &again)) std::abort();
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
