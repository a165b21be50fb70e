// pcapng files for tests and fuzz seeds, block by block, in the machine's byte order or the other.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace quelm_test {

class Pcapng {
  public:
    explicit Pcapng(bool swapped = false) : swapped_(swapped) { section(); }

    Pcapng &section() { return block(0x0A0D0D0A, {0x1A2B3C4D, pair(1, 0), ~0u, ~0u}); }
    // `resolution`: the if_tsresol option, when not 6 (microseconds).
    Pcapng &interface(uint16_t link_type, uint32_t snaplen, uint8_t resolution = 6) {
        std::vector<uint32_t> words = {pair(link_type, 0), snaplen};
        uint32_t value = 0;
        std::memcpy(&value, &resolution, 1);
        if (resolution != 6)
            words.insert(words.end(), {pair(9, 1), swapped_ ? __builtin_bswap32(value) : value, 0});
        return block(1, words);
    }
    // An enhanced packet block; `caplen` other than the data's size makes it lie.
    Pcapng &packet(uint32_t interface, uint64_t time, const std::vector<uint8_t> &data,
                   int64_t caplen = -1) {
        const uint32_t size = uint32_t(data.size());
        return block(6,
                     {interface, uint32_t(time >> 32), uint32_t(time),
                      caplen < 0 ? size : uint32_t(caplen), size},
                     data);
    }
    Pcapng &simple(uint32_t len, const std::vector<uint8_t> &data) { return block(3, {len}, data); }
    // A block of 32-bit words, then bytes padded to 4.
    Pcapng &block(uint32_t type, const std::vector<uint32_t> &words,
                  const std::vector<uint8_t> &tail = {}) {
        const uint32_t length = uint32_t(12 + 4 * words.size() + (tail.size() + 3) / 4 * 4);
        put(type), put(length);
        for (uint32_t w : words)
            put(w);
        b_.append(tail.begin(), tail.end());
        b_.append((4 - tail.size() % 4) % 4, '\0');
        put(length);
        return *this;
    }
    std::string bytes() const { return b_; }

  private:
    // The word that holds two 16-bit fields, `a` first.
    uint32_t pair(uint16_t a, uint16_t b) const {
        const uint16_t halves[2] = {swapped_ ? __builtin_bswap16(a) : a,
                                    swapped_ ? __builtin_bswap16(b) : b};
        uint32_t word;
        std::memcpy(&word, halves, 4);
        return swapped_ ? __builtin_bswap32(word) : word;  // as put() swaps it back
    }
    void put(uint32_t v) {
        if (swapped_) v = __builtin_bswap32(v);
        b_.append(reinterpret_cast<const char *>(&v), 4);
    }
    bool swapped_;
    std::string b_;
};

}  // namespace quelm_test
