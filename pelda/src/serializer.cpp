// Record serializer (JSON and TLV) and the TLV reader.
//
// JSON: byte 0 of the buffer is kept free for '[' so that a batch of several
// records becomes an array without moving bytes; the closing braces of the open
// record are written past `size` by get_buffer and never counted, so writing may
// continue afterwards.
//
// TLV: a version byte, then elements. Element = type byte (key kind << 4 | value
// kind), the key (numeric: LEB128; text: LEB128 length + bytes), the value
// (u32/u64: LEB128; string: LEB128 length + bytes). The README documents it.
#include <cstdio>

#include "internal.h"

namespace {

constexpr uint8_t kTlvVersion = 1;
constexpr uint32_t kMaxElementText = 1u << 30;  // keeps sizes in 32 bits

enum key_kind : uint8_t { key_none = 0, key_number = 1, key_text = 2 };

bool initialised(const pelda_serializer *s) {
    return s && s->buffer &&
           (s->format == PELDA_SERIALIZATION_FORMAT_TLV ||
            s->format == PELDA_SERIALIZATION_FORMAT_JSON);
}

bool reserve(pelda_serializer *s, size_t extra) {
    if (s->failed) return false;
    size_t need = size_t(s->size) + extra;
    if (need <= s->capacity) return true;
    if (need > 0xFFFFFFF0u) {
        s->failed = 1;
        return false;
    }
    size_t cap = s->capacity ? s->capacity : 256;
    while (cap < need)
        cap *= 2;
    if (cap > 0xFFFFFFF0u) cap = 0xFFFFFFF0u;
    void *p = std::realloc(s->buffer, cap);
    if (!p) {
        s->failed = 1;
        return false;
    }
    s->buffer = static_cast<uint8_t *>(p);
    s->capacity = uint32_t(cap);
    return true;
}

void put(pelda_serializer *s, const void *p, size_t n) {
    std::memcpy(s->buffer + s->size, p, n);
    s->size += uint32_t(n);
}

void put_byte(pelda_serializer *s, uint8_t b) {
    s->buffer[s->size++] = b;
}

void put_varint(pelda_serializer *s, uint64_t v) {
    while (v >= 0x80) {
        put_byte(s, uint8_t(v | 0x80));
        v >>= 7;
    }
    put_byte(s, uint8_t(v));
}

// ---- JSON pieces

// Length of the valid UTF-8 sequence at p, or 0 when the byte there does not start one.
size_t utf8_sequence(const uint8_t *p, size_t left) {
    uint8_t c = p[0];
    size_t n;
    uint32_t min;
    if (c < 0x80) return 1;
    if ((c & 0xE0) == 0xC0) {
        n = 2;
        min = 0x80;
    } else if ((c & 0xF0) == 0xE0) {
        n = 3;
        min = 0x800;
    } else if ((c & 0xF8) == 0xF0) {
        n = 4;
        min = 0x10000;
    } else {
        return 0;
    }
    if (left < n) return 0;
    uint32_t cp = c & (0x7F >> n);
    for (size_t i = 1; i < n; ++i) {
        if ((p[i] & 0xC0) != 0x80) return 0;
        cp = cp << 6 | (p[i] & 0x3F);
    }
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
    return n;
}

// A JSON string literal; bytes that are not valid UTF-8 are escaped as code points U+0080..U+00FF.
bool json_string(pelda_serializer *s, const char *text) {
    const uint8_t *p = reinterpret_cast<const uint8_t *>(text ? text : "");
    size_t len = std::strlen(reinterpret_cast<const char *>(p));
    if (len > kMaxElementText || !reserve(s, len * 6 + 2)) return false;
    put_byte(s, '"');
    static const char hex[] = "0123456789abcdef";
    for (size_t i = 0; i < len;) {
        uint8_t c = p[i];
        size_t n = utf8_sequence(p + i, len - i);
        if (c == '"' || c == '\\') {
            put_byte(s, '\\');
            put_byte(s, c);
            ++i;
        } else if (c < 0x20 || n == 0) {
            const char esc[6] = {'\\', 'u', '0', '0', hex[c >> 4], hex[c & 15]};
            put(s, esc, 6);
            ++i;
        } else {
            put(s, p + i, n);
            i += n;
        }
    }
    put_byte(s, '"');
    return true;
}

// Comma, opening brace of a new record, and the key.
bool json_key(pelda_serializer *s, key_kind kind, uint32_t num, const char *text) {
    if (!reserve(s, 2)) return false;
    if (s->records == 0) {
        s->records = 1;
        put_byte(s, '{');
    }
    if (s->need_comma[s->depth]) put_byte(s, ',');
    s->need_comma[s->depth] = 1;
    if (kind == key_number) {
        char b[16];
        int n = std::snprintf(b, sizeof(b), "\"%u\"", num);
        if (!reserve(s, size_t(n))) return false;
        put(s, b, size_t(n));
    } else if (!json_string(s, text)) {
        return false;
    }
    if (!reserve(s, 1)) return false;
    put_byte(s, ':');
    return true;
}

// ---- TLV pieces

bool tlv_head(pelda_serializer *s, key_kind kind, uint8_t value_kind, uint32_t num,
              const char *text) {
    size_t tlen = kind == key_text ? std::strlen(text ? text : "") : 0;
    if (tlen > kMaxElementText || !reserve(s, 1 + 10 + tlen)) return false;
    s->records = s->records ? s->records : 1;
    put_byte(s, uint8_t(kind << 4 | value_kind));
    if (kind == key_number) put_varint(s, num);
    if (kind == key_text) {
        put_varint(s, tlen);
        put(s, text ? text : "", tlen);
    }
    return true;
}

int write_u64(pelda_serializer *s, key_kind kind, uint32_t num, const char *text, uint64_t v,
              uint8_t value_kind) {
    if (!initialised(s)) return -1;
    if (s->format == PELDA_SERIALIZATION_FORMAT_JSON) {
        if (!json_key(s, kind, num, text)) return -1;
        char b[24];
        int n = std::snprintf(b, sizeof(b), "%llu", (unsigned long long)v);
        if (!reserve(s, size_t(n))) return -1;
        put(s, b, size_t(n));
        return 0;
    }
    if (!tlv_head(s, kind, value_kind, num, text) || !reserve(s, 10)) return -1;
    put_varint(s, v);
    return 0;
}

int write_string(pelda_serializer *s, key_kind kind, uint32_t num, const char *text,
                 const char *value) {
    if (!initialised(s)) return -1;
    if (s->format == PELDA_SERIALIZATION_FORMAT_JSON)
        return json_key(s, kind, num, text) && json_string(s, value) ? 0 : -1;
    size_t vlen = std::strlen(value ? value : "");
    if (vlen > kMaxElementText || !tlv_head(s, kind, PELDA_TLV_STRING, num, text) ||
        !reserve(s, 10 + vlen))
        return -1;
    put_varint(s, vlen);
    put(s, value ? value : "", vlen);
    return 0;
}

}  // namespace

extern "C" {

int pelda_init_serializer(pelda_serializer *s, pelda_serialization_format fmt) {
    if (!s) return -1;
    std::memset(s, 0, sizeof(*s));
    if (fmt != PELDA_SERIALIZATION_FORMAT_TLV && fmt != PELDA_SERIALIZATION_FORMAT_JSON) return -1;
    s->format = fmt;
    if (!reserve(s, 1)) {
        std::memset(s, 0, sizeof(*s));
        return -1;
    }
    pelda_reset_serializer(s);
    return 0;
}

void pelda_reset_serializer(pelda_serializer *s) {
    if (!initialised(s)) return;
    s->size = 0;
    s->records = 0;
    s->depth = 0;
    s->failed = 0;
    std::memset(s->need_comma, 0, sizeof(s->need_comma));
    // JSON: reserved byte for '['; TLV: the version byte.
    put_byte(s, s->format == PELDA_SERIALIZATION_FORMAT_TLV ? kTlvVersion : ' ');
}

void pelda_term_serializer(pelda_serializer *s) {
    if (!s) return;
    std::free(s->buffer);
    std::memset(s, 0, sizeof(*s));
}

char *pelda_serializer_get_buffer(pelda_serializer *s, uint32_t *len) {
    if (len) *len = 0;
    if (!initialised(s) || s->failed) return nullptr;  // a lost element would corrupt the batch
    if (s->format == PELDA_SERIALIZATION_FORMAT_TLV) {
        if (len) *len = s->size;
        return reinterpret_cast<char *>(s->buffer);
    }
    // Close blocks and the record (or write "{}" for an empty one), then ']' and NUL.
    if (!reserve(s, s->depth + 5)) return nullptr;
    uint8_t *end = s->buffer + s->size;
    if (s->records == 0) {
        *end++ = '{';
    }
    for (uint32_t i = 0; i < s->depth; ++i)
        *end++ = '}';
    *end++ = '}';
    bool array = s->records > 1;
    if (array) *end++ = ']';
    *end = '\0';
    s->buffer[0] = array ? '[' : ' ';
    uint8_t *start = array ? s->buffer : s->buffer + 1;
    if (len) *len = uint32_t(end - start);
    return reinterpret_cast<char *>(start);
}

int pelda_serialize_end_of_record(pelda_serializer *s) {
    if (!initialised(s) || s->depth != 0) return -1;
    if (s->format == PELDA_SERIALIZATION_FORMAT_JSON) {
        if (!reserve(s, 3)) return -1;
        if (s->records == 0) put_byte(s, '{');  // an empty first record
        put(s, "},{", 3);
        s->records = s->records ? s->records + 1 : 2;
        s->need_comma[0] = 0;
        return 0;
    }
    if (!reserve(s, 1)) return -1;
    put_byte(s, PELDA_TLV_END_OF_RECORD);
    s->records = s->records ? s->records + 1 : 2;
    return 0;
}

int pelda_serialize_uint32_uint32(pelda_serializer *s, uint32_t key, uint32_t value) {
    return write_u64(s, key_number, key, nullptr, value, PELDA_TLV_UINT32);
}

int pelda_serialize_uint32_uint64(pelda_serializer *s, uint32_t key, uint64_t value) {
    return write_u64(s, key_number, key, nullptr, value, PELDA_TLV_UINT64);
}

int pelda_serialize_uint32_string(pelda_serializer *s, uint32_t key, const char *value) {
    return write_string(s, key_number, key, nullptr, value);
}

int pelda_serialize_string_uint32(pelda_serializer *s, const char *key, uint32_t value) {
    return write_u64(s, key_text, 0, key, value, PELDA_TLV_UINT32);
}

int pelda_serialize_string_uint64(pelda_serializer *s, const char *key, uint64_t value) {
    return write_u64(s, key_text, 0, key, value, PELDA_TLV_UINT64);
}

int pelda_serialize_string_string(pelda_serializer *s, const char *key, const char *value) {
    return write_string(s, key_text, 0, key, value);
}

int pelda_serialize_start_of_block(pelda_serializer *s, const char *key) {
    if (!initialised(s) || s->depth >= PELDA_SERIALIZER_MAX_DEPTH) return -1;
    if (s->format == PELDA_SERIALIZATION_FORMAT_JSON) {
        if (!json_key(s, key_text, 0, key) || !reserve(s, 1)) return -1;
        put_byte(s, '{');
    } else if (!tlv_head(s, key_text, PELDA_TLV_START_OF_BLOCK, 0, key)) {
        return -1;
    }
    s->depth++;
    s->need_comma[s->depth] = 0;
    return 0;
}

int pelda_serialize_end_of_block(pelda_serializer *s) {
    if (!initialised(s) || s->depth == 0 || !reserve(s, 1)) return -1;
    put_byte(s, s->format == PELDA_SERIALIZATION_FORMAT_JSON ? uint8_t('}')
                                                             : uint8_t(PELDA_TLV_END_OF_BLOCK));
    s->depth--;
    return 0;
}

// ---- TLV reader

int pelda_tlv_reader_init(pelda_tlv_reader *r, const void *data, uint32_t len) {
    if (!r) return -1;
    std::memset(r, 0, sizeof(*r));
    r->data = static_cast<const uint8_t *>(data);
    r->len = len;
    if (!data || len < 1 || r->data[0] != kTlvVersion) {
        r->error = 1;
        return -1;
    }
    r->pos = 1;
    return 0;
}

static bool read_varint(pelda_tlv_reader *r, uint64_t max, uint64_t *out) {
    uint64_t v = 0;
    for (unsigned shift = 0; shift < 70; shift += 7) {
        if (r->pos >= r->len) return false;
        uint8_t b = r->data[r->pos++];
        if (shift == 63 && (b & 0x7E)) return false;  // beyond 64 bits
        v |= uint64_t(b & 0x7F) << shift;
        if (!(b & 0x80)) {
            if (v > max) return false;
            *out = v;
            return true;
        }
    }
    return false;
}

static bool read_bytes(pelda_tlv_reader *r, const char **p, uint32_t *n) {
    uint64_t len;
    if (!read_varint(r, kMaxElementText, &len) || len > r->len - r->pos) return false;
    *p = reinterpret_cast<const char *>(r->data + r->pos);
    *n = uint32_t(len);
    r->pos += uint32_t(len);
    return true;
}

int pelda_tlv_reader_next(pelda_tlv_reader *r, pelda_tlv_element *e) {
    if (!r || !e || r->error) return -1;
    std::memset(e, 0, sizeof(*e));
    if (r->pos >= r->len) {
        if (r->depth == 0) return 0;
        r->error = 1;  // a block was left open
        return -1;
    }
    uint8_t type = r->data[r->pos++];
    uint8_t kk = type >> 4, vk = type & 15;
    bool ok = true;
    e->kind = vk;
    e->key_kind = kk;
    switch (vk) {
        case PELDA_TLV_UINT32:
        case PELDA_TLV_UINT64:
        case PELDA_TLV_STRING:
            ok = kk == PELDA_TLV_KEY_NUMBER || kk == PELDA_TLV_KEY_TEXT;
            break;
        case PELDA_TLV_START_OF_BLOCK:
            ok = kk == PELDA_TLV_KEY_TEXT && r->depth < PELDA_SERIALIZER_MAX_DEPTH;
            break;
        case PELDA_TLV_END_OF_BLOCK:
            ok = kk == PELDA_TLV_KEY_NONE && r->depth > 0;
            break;
        case PELDA_TLV_END_OF_RECORD:
            ok = kk == PELDA_TLV_KEY_NONE && r->depth == 0;
            break;
        default:
            ok = false;
    }
    uint64_t v = 0;
    if (ok && kk == PELDA_TLV_KEY_NUMBER) {
        ok = read_varint(r, 0xFFFFFFFFu, &v);
        e->key_number = uint32_t(v);
    } else if (ok && kk == PELDA_TLV_KEY_TEXT) {
        ok = read_bytes(r, &e->key_text, &e->key_text_len);
    }
    if (ok && (vk == PELDA_TLV_UINT32 || vk == PELDA_TLV_UINT64))
        ok = read_varint(r, vk == PELDA_TLV_UINT32 ? 0xFFFFFFFFu : ~uint64_t(0), &e->number);
    else if (ok && vk == PELDA_TLV_STRING)
        ok = read_bytes(r, &e->string, &e->string_len);
    if (!ok) {
        std::memset(e, 0, sizeof(*e));
        r->error = 1;
        return -1;
    }
    if (vk == PELDA_TLV_END_OF_BLOCK) r->depth--;
    e->depth = uint16_t(r->depth);
    if (vk == PELDA_TLV_START_OF_BLOCK) r->depth++;
    return 1;
}

}  // extern "C"
