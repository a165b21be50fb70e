// SHA-1 (FIPS 180-4), for the Community ID. The library depends on libc alone, so it carries this
// one digest itself; nothing here is meant for security.
#pragma once

#include <cstddef>
#include <cstdint>

namespace quelm {

inline constexpr size_t kSha1Size = 20;

// The digest of `len` bytes at `data` into `out`.
void sha1(const uint8_t *data, size_t len, uint8_t out[kSha1Size]);

}  // namespace quelm
