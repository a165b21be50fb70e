// Custom protocols and categories files, good and bad.
#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "support.h"

namespace {

// Loads `content` as a protocols (or categories) file: the result and what went to stderr.
std::pair<int, std::string> load(pelda_detection_module *m, const std::string &content,
                                 bool categories = false) {
    std::string path = "/tmp/pelda-files-" + std::to_string(getpid()) + ".txt";
    std::ofstream(path) << content;
    testing::internal::CaptureStderr();
    int rc = categories ? pelda_load_categories_file(m, path.c_str(), nullptr)
                        : pelda_load_protocols_file(m, path.c_str());
    std::string err = testing::internal::GetCapturedStderr();
    unlink(path.c_str());
    size_t at = err.find(path);
    return {rc, at == std::string::npos ? err : err.substr(at + path.size())};
}

TEST(Files, ProtocolsFileAddsProtocolsAndRules) {
    pt::owned_module m;
    auto [rc, err] = load(m,
                          "# custom protocols\n\n"
                          "CorpApp   tcp:8443 udp:5000-5010  category:Collaborative\n"
                          "Intranet  host:example.com  net:10.20.0.0/16\n"
                          "Backup    net:10.20.30.0/24 net:192.168.7.7   # a host\n"
                          "http      tcp:8888\n"  // a known name: rules attach, no new id
                          "CorpApp   host:corp.example.org category:150\n");
    ASSERT_EQ(rc, 3) << err;
    const uint16_t app = pelda_get_proto_by_name(m, "corpapp");  // new ids follow the built-in
    EXPECT_EQ(pelda_get_num_protocols(m), app + 3u);
    EXPECT_EQ(pelda_get_proto_by_name(m, "Backup"), app + 2);
    EXPECT_EQ(pelda_get_proto_category(m, app), 150u);
    // Longest prefix wins: 10.20.1.1, 10.20.30.9, 192.168.7.7, 192.168.7.8, 10.21.0.1.
    const uint32_t addrs[] = {0x0A140101, 0x0A141E09, 0xC0A80707, 0xC0A80708, 0x0A150001};
    const uint32_t ids[] = {app + 1u, app + 2u, app + 2u, 0, 0};
    for (size_t i = 0; i < 5; ++i)
        EXPECT_EQ(pelda_network_ptree_match(m, addrs[i]), ids[i]) << addrs[i];
    // Port rule: named on the first packet, whatever the payload; guesses use it too.
    auto r = pt::drive(m, {{pt::udp({"10.0.0.1", 40000}, {"10.0.0.2", 5005}, pt::text("hi")), 1}});
    EXPECT_EQ(r[0].summary + " @" + std::to_string(r[0].packet_decided), "CorpApp @1");
    EXPECT_EQ(r[0].result.confidence, uint32_t(PELDA_CONFIDENCE_CUSTOM_RULE));
    EXPECT_EQ(pelda_guess_undetected_protocol_v4(m, nullptr, 6, 1, 1000, 2, 8443).app_protocol,
              app);
    // Host rule: the application over HTTP, also for subdomains.
    pt::conversation c({"10.0.0.1", 40001}, {"10.0.0.2", 80});
    c.client_sends(pt::text("GET / HTTP/1.1\r\nHost: WWW.Example.com\r\n\r\n"));
    EXPECT_EQ(pt::drive(m, c.packets)[0].summary,
              "HTTP.Intranet sn=www.example.com url=http://www.example.com/");
}

// A bad file is refused at its first bad line and changes nothing; the module is reused, so a
// refused file that left anything behind shows in the next rows.
TEST(Files, BadProtocolFilesChangeNothing) {
    pt::owned_module m;
    const uint32_t before = pelda_get_num_protocols(m);
    std::string many;
    for (int i = 0; i < 1100; ++i)
        many += "P" + std::to_string(i) + " tcp:" + std::to_string(20000 + i) + "\n";
    std::vector<std::pair<std::string, std::string>> cases = {
        {"App " + std::string(2000, 'x'), ":1: line too long "},
        {many, ":" + std::to_string(1024 - before + 1) + ": too many"}};  // 1024 protocols in all
    for (const char *line : {"App tcp:0", "App tcp:70000", "App udp:90-80", "App tcp:80x",
                             "App net:10.0.0.0/33", "App net:10.0.0/8", "App net:256.0.0.0/8",
                             "App host:bad host", "App host:", "App sctp:80", "App tcp80",
                             "Bad.Name tcp:80", "App category:NoSuchCategory", "App category:164"})
        cases.push_back({std::string("Good tcp:1234\n") + line + "\n", ":2: "});
    for (const auto &[content, error] : cases) {
        auto [rc, err] = load(m, content);
        EXPECT_EQ(std::to_string(rc) + err.substr(0, error.size()), "-1" + error) << content << err;
        EXPECT_EQ(pelda_get_num_protocols(m), before) << content;
    }
    for (const char *wrong : {"/", "/dev/zero"})  // no file, no text: refused at once
        EXPECT_LT(pelda_load_protocols_file(m, wrong), 0) << wrong;
    testing::internal::CaptureStderr();
    EXPECT_LT(pelda_load_protocols_file(m, "/nonexistent/protos.txt"), 0);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("cannot open"), std::string::npos);
    EXPECT_EQ(pelda_load_protocols_file(m, nullptr) + pelda_load_protocols_file(nullptr, "x"), -2);
}

TEST(Files, CategoriesFileSetsCategoriesByHostAndNetwork) {
    pt::owned_module m;
    ASSERT_EQ(load(m, "Banking host:bank.example\n150     net:10.1.0.0/16\n", true).first, 2);
    pt::conversation c({"192.168.0.2", 40000}, {"192.168.0.9", 80});
    c.client_sends(pt::text("GET /login HTTP/1.1\r\nHost: www.bank.example\r\n\r\n"));
    pt::bytes query = pt::hex("1234 0100 0001 0000 0000 0000 01 61 00 0001 0001");
    EXPECT_EQ(pt::drive(m, c.packets)[0].result.category, 35u);  // Banking
    auto r = pt::drive(m, {{pt::udp({"10.1.2.3", 40000}, {"10.9.9.9", 53}, query), 1}});
    EXPECT_EQ(r[0].result.category, 150u);
    for (const char *bad : {"NoSuchCategory host:x.example", "Web host", "Web port:80"}) {
        auto [rc, err] = load(m, std::string(bad) + "\n", true);
        EXPECT_EQ(std::to_string(rc) + err.substr(0, 4), "-1:1: ") << bad << ": " << err;
    }
}

}  // namespace
