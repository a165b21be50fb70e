// Writes the elements of a TLV batch again with a serializer: false when the reader refuses the
// batch or an element cannot be written again (a text key or string with a NUL byte, through the C
// API). Shared by the serializer's tests and its fuzz target.
#pragma once

#include <string>

#include "pelda.h"

namespace pt {

inline bool tlv_copy(const void *data, size_t size, pelda_serializer *s) {
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
        const char *k = key.c_str();
        const uint32_t n = e.key_number, u32 = uint32_t(e.number);
        if (e.kind == PELDA_TLV_UINT32)
            text ? pelda_serialize_string_uint32(s, k, u32)
                 : pelda_serialize_uint32_uint32(s, n, u32);
        if (e.kind == PELDA_TLV_UINT64)
            text ? pelda_serialize_string_uint64(s, k, e.number)
                 : pelda_serialize_uint32_uint64(s, n, e.number);
        if (e.kind == PELDA_TLV_STRING)
            text ? pelda_serialize_string_string(s, k, str.c_str())
                 : pelda_serialize_uint32_string(s, n, str.c_str());
        if (e.kind == PELDA_TLV_START_OF_BLOCK) pelda_serialize_start_of_block(s, k);
        if (e.kind == PELDA_TLV_END_OF_BLOCK) pelda_serialize_end_of_block(s);
        if (e.kind == PELDA_TLV_END_OF_RECORD) pelda_serialize_end_of_record(s);
    }
    return rc == 0;
}

}  // namespace pt
