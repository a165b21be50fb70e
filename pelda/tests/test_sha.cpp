// SHA-256 and SHA-1 (certificate fingerprints) share their padding: published vectors at
// its edges (empty, 55 bytes in one block, 56 and 64 spilling into a second, several blocks).
#include <gtest/gtest.h>

#include <string>

#include "internal.h"
#include "support.h"

namespace {

const std::string kLong1 = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";  // 56 bytes
const std::string kLong2 =
    "abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmnhijklmnoijklmnopjklmnopqklmnopqr"
    "lmnopqrsmnopqrstnopqrstu";

TEST(Sha, VectorsAtPaddingEdges) {
    const std::pair<std::string, const char *> cases[] = {
        {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
        {std::string(55, 'a'), "9f4390f8d30c2dd92ec9f095b65e2b9ae9b0a925a5258e241c9f1e910f734318"},
        {kLong1, "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
        {std::string(64, 'a'), "ffe054fe7ae0cb6dc65c3af9b61d5209f439851db43d0ba5997337df154668eb"},
        {kLong2, "cf5b16a778af8380036ce59e7b0492370b249b11e8f07a51afac45037afee9d1"},
        {"abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},  // SHA-1 from here
        {kLong1, "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
    };
    for (const auto &[message, digest] : cases) {
        uint8_t out[32];
        std::string expect = digest;
        if (expect.size() == 64) pelda_sha256(message.data(), message.size(), out);
        if (expect.size() == 40) pelda::sha1(message.data(), message.size(), out);
        EXPECT_EQ(pt::to_hex(out, expect.size() / 2), expect) << message.size();
    }
    uint8_t out[32];
    pelda_sha256(nullptr, 0, out);  // as empty
    EXPECT_EQ(out[31], 0x55);
}

}  // namespace
