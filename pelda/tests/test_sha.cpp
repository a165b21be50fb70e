// SHA-256 against the FIPS 180-4 examples and the padding boundaries around 56 bytes;
// SHA-1 (certificate fingerprints) against its published vectors.
#include <gtest/gtest.h>

#include <string>

#include "internal.h"

namespace {

std::string to_hex(const uint8_t *d, size_t n) {
    std::string s;
    for (size_t i = 0; i < n; ++i)
        s += "0123456789abcdef"[d[i] >> 4], s += "0123456789abcdef"[d[i] & 15];
    return s;
}

const std::string kLong1 = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";
const std::string kLong2 =
    "abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmnhijklmnoijklmnopjklmnopqklmnopqr"
    "lmnopqrsmnopqrstnopqrstu";

TEST(Sha256, Fips180VectorsAndPadding) {
    const std::pair<std::string, const char *> cases[] = {
        {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
        {kLong1, "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
        {kLong2, "cf5b16a778af8380036ce59e7b0492370b249b11e8f07a51afac45037afee9d1"},
        {std::string(1000000, 'a'),
         "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
        {std::string(55, 'a'), "9f4390f8d30c2dd92ec9f095b65e2b9ae9b0a925a5258e241c9f1e910f734318"},
        {std::string(56, 'a'), "b35439a4ac6f0948b6d6f9e3c6af0f5f590ce20f1bde7090ef7970686ec6738a"},
        {std::string(63, 'a'), "7d3e74a05d7db15bce4ad9ec0658ea98e3f06eeecf16b4c6fff2da457ddc2f34"},
        {std::string(64, 'a'), "ffe054fe7ae0cb6dc65c3af9b61d5209f439851db43d0ba5997337df154668eb"},
        {std::string(119, 'a'), "31eba51c313a5c08226adf18d4a359cfdfd8d2e816b13f4af952f7ea6584dcfb"},
        {std::string(120, 'a'), "2f3d335432c70b580af0e8e1b3674a7c020d683aa5f73aaaedfdc55af904c21c"},
    };
    uint8_t out[32];
    for (const auto &[message, digest] : cases) {
        pelda_sha256(message.data(), message.size(), out);
        EXPECT_EQ(to_hex(out, 32), digest) << message.size();
    }
    pelda_sha256(nullptr, 0, out);
    EXPECT_EQ(to_hex(out, 32), cases[1].second);
}

TEST(Sha1, PublishedVectors) {
    const std::pair<std::string, const char *> cases[] = {
        {"abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
        {"", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
        {kLong1, "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
        {std::string(1000000, 'a'), "34aa973cd4c4daa4f61eeb2bdbad27316534016f"},
    };
    for (const auto &[message, digest] : cases) {
        uint8_t out[20];
        pelda::sha1(message.data(), message.size(), out);
        EXPECT_EQ(to_hex(out, 20), digest) << message.size();
    }
}

}  // namespace
