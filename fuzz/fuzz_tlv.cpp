// Fuzzes the TLV reader. Every batch it accepts is written again in TLV and in
// JSON; the TLV copy must decode to the same elements.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "pelda.h"

namespace {

struct item {
    uint8_t kind, key_kind;
    uint32_t key_number;
    std::string key_text, str;
    uint64_t number;
    bool operator==(const item &) const = default;
};

bool decode(const void *data, size_t size, std::vector<item> *out) {
    pelda_tlv_reader r;
    if (pelda_tlv_reader_init(&r, data, uint32_t(size)) != 0) return false;
    pelda_tlv_element e;
    int rc;
    while ((rc = pelda_tlv_reader_next(&r, &e)) == 1) {
        item x{e.kind,
               e.key_kind,
               e.key_number,
               std::string(e.key_text ? e.key_text : "", e.key_text_len),
               std::string(e.string ? e.string : "", e.string_len),
               e.number};
        out->push_back(x);
    }
    return rc == 0;
}

// Text keys and strings with a NUL byte cannot be written again through the C API.
bool writable(const std::vector<item> &items) {
    for (const item &x : items)
        if (x.key_text.find('\0') != std::string::npos || x.str.find('\0') != std::string::npos)
            return false;
    return true;
}

void write(pelda_serializer *s, const std::vector<item> &items) {
    for (const item &x : items) {
        bool text = x.key_kind == PELDA_TLV_KEY_TEXT;
        switch (x.kind) {
            case PELDA_TLV_UINT32:
                text ? pelda_serialize_string_uint32(s, x.key_text.c_str(), uint32_t(x.number))
                     : pelda_serialize_uint32_uint32(s, x.key_number, uint32_t(x.number));
                break;
            case PELDA_TLV_UINT64:
                text ? pelda_serialize_string_uint64(s, x.key_text.c_str(), x.number)
                     : pelda_serialize_uint32_uint64(s, x.key_number, x.number);
                break;
            case PELDA_TLV_STRING:
                text ? pelda_serialize_string_string(s, x.key_text.c_str(), x.str.c_str())
                     : pelda_serialize_uint32_string(s, x.key_number, x.str.c_str());
                break;
            case PELDA_TLV_START_OF_BLOCK:
                pelda_serialize_start_of_block(s, x.key_text.c_str());
                break;
            case PELDA_TLV_END_OF_BLOCK:
                pelda_serialize_end_of_block(s);
                break;
            case PELDA_TLV_END_OF_RECORD:
                pelda_serialize_end_of_record(s);
                break;
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > (1u << 20)) return 0;
    std::vector<uint8_t> copy(data, data + size);  // exact bounds for the sanitizer
    std::vector<item> items;
    if (!decode(copy.data(), copy.size(), &items) || !writable(items)) return 0;

    pelda_serializer s;
    if (pelda_init_serializer(&s, PELDA_SERIALIZATION_FORMAT_TLV) != 0) return 0;
    write(&s, items);
    uint32_t len;
    const char *b = pelda_serializer_get_buffer(&s, &len);
    std::vector<item> again;
    if (!b || !decode(b, len, &again) || !(again == items)) std::abort();
    pelda_term_serializer(&s);

    if (pelda_init_serializer(&s, PELDA_SERIALIZATION_FORMAT_JSON) != 0) return 0;
    write(&s, items);
    b = pelda_serializer_get_buffer(&s, &len);
    if (!b || std::strlen(b) != len) std::abort();
    pelda_term_serializer(&s);
    return 0;
}
