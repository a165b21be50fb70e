// The key files `quelm keygen` writes, read back, and the wrong files a user may give for them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "input_files.h"
#include "tool_runner.h"

namespace quelm_test {
namespace {

using quelm_tool::KeyHalf;
using ::testing::HasSubstr;

TEST(InputFiles, KeyFilesAreReadOrRefusedSayingWhy) {
    std::string error, key;
    const quelm_tool::ZmqApi *zmq = quelm_tool::load_zmq(&error);
    if (zmq == nullptr) GTEST_SKIP() << error;
    char public_key[41], secret_key[41];
    ASSERT_EQ(zmq->curve_keypair(public_key, secret_key), 0);
    const std::string P = public_key, S = secret_key, kPub = "P", kSec = "S";
    ToolRunner files;
    ASSERT_EQ(files.run({"keygen", "--client", "-o", "c"}).exit_code, 0);
    EXPECT_THAT(files.read("c.key"), HasSubstr("--zmq-client-key c.key)\nsecret-key "));
    EXPECT_FALSE(quelm_tool::secret_key_exposed(files.path("c.key"), &error)) << "made 0600";
    std::filesystem::permissions(files.path("c.pub"), std::filesystem::perms(0640));
    EXPECT_TRUE(quelm_tool::secret_key_exposed(files.path("c.pub"), &error) &&
                error.find("others (mode 0640); chmod 600 '") != error.npos);
    // A file name, or the text of the file "k"; the half wanted; the exit status; what must show.
    const std::tuple<std::string, std::string, KeyHalf, int, std::string> cases[] = {
        {"", "# public\r\n" + P + "\r\n", KeyHalf::kPublic, 0, kPub},
        {"", "\n  secret-key  " + S + " \n# end\n", KeyHalf::kSecret, 0, kSec},
        {"c.pub", "", KeyHalf::kPublic, 0, ""},
        {"c.key", "", KeyHalf::kSecret, 0, ""},
        {"", "# nothing\n\n", KeyHalf::kPublic, 65, "k' holds no key"},
        {"", "secret-key " + S, KeyHalf::kPublic, 65, "give its .pub file here, and keep '"},
        {"", P, KeyHalf::kSecret, 65, "holds a public key; give the .key file"},
        {"", P.substr(1), KeyHalf::kPublic, 65, "k', line 1: not a CURVE key (40 char"},
        {"", P + "\n" + P, KeyHalf::kPublic, 65, "k', line 2: a second key"},
        {"", std::string(257, '#'), KeyHalf::kPublic, 65, "line 1: longer than 256 bytes"},
        {"", std::string(4097, '\n'), KeyHalf::kPublic, 65, "k' is larger than 4 KiB"},
        {".", "", KeyHalf::kPublic, 66, "/.' is a directory; give a file"},
        {"/dev/zero", "", KeyHalf::kPublic, 65, "'/dev/zero', line 1: a NUL byte"},
        {"none", "", KeyHalf::kPublic, 66, "/none': No such file"},
    };
    for (const auto &[name, text, want, status, expected] : cases) {
        files.write("k", text);
        const std::string path = name[0] == '/' ? name : files.path(name.empty() ? "k" : name);
        error.clear();
        EXPECT_EQ(quelm_tool::read_key_file(*zmq, path, want, &key, &error), status) << error;
        EXPECT_THAT(status == 0 ? key : error, HasSubstr(expected == kPub   ? P
                                                         : expected == kSec ? S
                                                                            : expected));
    }
}

}  // namespace
}  // namespace quelm_test
