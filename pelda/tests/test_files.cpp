// Custom protocols and categories files: good files change detection and the
// network match; every bad line is refused with file and line, leaving the module as it was.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <unistd.h>

#include "support.h"

namespace {

class FilesTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/pelda-files-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override {
        for (const std::string &p : written_)
            std::remove(p.c_str());
        rmdir(dir_.c_str());
    }
    std::string write(const std::string &name, const std::string &content) {
        std::string path = dir_ + "/" + name;
        std::ofstream(path) << content;
        written_.push_back(path);
        return path;
    }
    static uint32_t ip(int a, int b, int c, int d) {
        return uint32_t(a) << 24 | uint32_t(b) << 16 | uint32_t(c) << 8 | uint32_t(d);
    }
    std::string dir_;
    std::vector<std::string> written_;
};

TEST_F(FilesTest, ProtocolsFileAddsProtocolsWithNextIds) {
    pt::owned_module m;
    uint32_t before = pelda_get_num_protocols(m);
    std::string path = write("protos.txt",
                             "# custom protocols\n"
                             "\n"
                             "CorpApp   tcp:8443 udp:5000-5010  category:Collaborative\n"
                             "Intranet  host:intranet.example.com  net:10.20.0.0/16\n"
                             "Backup    net:10.20.30.0/24 net:192.168.7.7   # a host\n"
                             "http      tcp:8888\n"  // existing name: rules attach, no new id
                             "CorpApp   host:corp.example.org\n");
    ASSERT_EQ(pelda_load_protocols_file(m, path.c_str()), 3);
    EXPECT_EQ(pelda_get_num_protocols(m), before + 3);
    uint16_t corp = pelda_get_proto_by_name(m, "corpapp");
    EXPECT_EQ(corp, before);
    EXPECT_EQ(pelda_get_proto_by_name(m, "Intranet"), before + 1);
    EXPECT_EQ(pelda_get_proto_by_name(m, "Backup"), before + 2);
    EXPECT_EQ(pelda_get_proto_category(m, corp),
              uint32_t(pelda_get_category_by_name(m, "Collaborative")));
    char buf[64];
    EXPECT_STREQ(pelda_protocol2name(m, {7, corp}, buf, sizeof(buf)), "HTTP.CorpApp");

    // Longest prefix wins.
    const std::pair<uint32_t, uint16_t> nets[] = {{ip(10, 20, 1, 1), uint16_t(before + 1)},
                                                  {ip(10, 20, 30, 9), uint16_t(before + 2)},
                                                  {ip(192, 168, 7, 7), uint16_t(before + 2)},
                                                  {ip(192, 168, 7, 8), 0},
                                                  {ip(10, 21, 0, 1), 0}};
    for (const auto &[addr, id] : nets)
        EXPECT_EQ(pelda_network_ptree_match(m, addr), id) << addr;
}

TEST_F(FilesTest, CustomRulesDriveDetection) {
    pt::owned_module m;
    std::string path =
        write("p.txt", "CorpApp tcp:8443 udp:5000-5010\nIntranet host:example.com\n");
    ASSERT_EQ(pelda_load_protocols_file(m, path.c_str()), 2);
    uint16_t corp = pelda_get_proto_by_name(m, "CorpApp");
    uint16_t intranet = pelda_get_proto_by_name(m, "Intranet");

    // Port rule: named on the first packet, whatever the payload.
    std::vector<pt::packet> pk = {
        {pt::ipv4_udp({"10.0.0.1", 40000}, {"10.0.0.2", 5005}, pt::text("hello")), 1}};
    auto r = pt::drive(m, pk);
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].result.app_protocol, corp);
    EXPECT_EQ(r[0].result.confidence, uint32_t(PELDA_CONFIDENCE_CUSTOM_RULE));
    EXPECT_EQ(r[0].packet_decided, 1u);

    // Host rule: the application over HTTP, also for subdomains.
    pt::tcp_conversation c({"10.0.0.1", 40001}, {"10.0.0.2", 80});
    c.handshake();
    c.client_sends(pt::text("GET / HTTP/1.1\r\nHost: WWW.Example.com\r\n\r\n"));
    r = pt::drive(m, c.packets);
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].result.master_protocol, PELDA_PROTOCOL_HTTP);
    EXPECT_EQ(r[0].result.app_protocol, intranet);
    EXPECT_EQ(r[0].name, "HTTP.Intranet");

    // The guess for other flows uses the custom port rule too.
    pelda_protocol g = pelda_guess_undetected_protocol_v4(m, nullptr, 6, ip(1, 1, 1, 1), 1000,
                                                          ip(2, 2, 2, 2), 8443);
    EXPECT_EQ(g.app_protocol, corp);
}

TEST_F(FilesTest, BadProtocolLinesFailWithoutChanges) {
    const std::pair<const char *, const char *> bad[] = {
        {"App tcp:0\n", "port 0"},
        {"App tcp:70000\n", "port too large"},
        {"App udp:90-80\n", "reversed range"},
        {"App tcp:80x\n", "junk after port"},
        {"App net:10.0.0.0/33\n", "prefix too long"},
        {"App net:10.0.0/8\n", "three octets"},
        {"App net:256.0.0.0/8\n", "octet too large"},
        {"App host:bad host\n", "host with a space is two tokens"},
        {"App host:\n", "empty host"},
        {"App sctp:80\n", "unknown rule kind"},
        {"App tcp80\n", "missing colon"},
        {"Bad.Name tcp:80\n", "dot in a name"},
        {"App category:NoSuchCategory\n", "unknown category"},
        {"App category:164\n", "category id out of range"},
    };
    for (const auto &[content, why] : bad) {
        pt::owned_module m;
        uint32_t before = pelda_get_num_protocols(m);
        std::string path = write("bad.txt", std::string("Good tcp:1234\n") + content);
        testing::internal::CaptureStderr();
        EXPECT_LT(pelda_load_protocols_file(m, path.c_str()), 0) << why;
        std::string err = testing::internal::GetCapturedStderr();
        EXPECT_NE(err.find(path + ":2:"), std::string::npos) << why << ": " << err;
        EXPECT_EQ(pelda_get_num_protocols(m), before) << why;
        EXPECT_EQ(pelda_get_proto_by_name(m, "Good"), 0) << why;
    }
    pt::owned_module m;
    testing::internal::CaptureStderr();
    EXPECT_LT(pelda_load_protocols_file(m, (dir_ + "/missing.txt").c_str()), 0);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("cannot open"), std::string::npos);
    EXPECT_LT(pelda_load_protocols_file(m, nullptr), 0);
    EXPECT_LT(pelda_load_protocols_file(nullptr, "x"), 0);
}

TEST_F(FilesTest, OverlongLineFails) {
    pt::owned_module m;
    std::string path = write("long.txt", "App " + std::string(2000, 'x') + "\n");
    testing::internal::CaptureStderr();
    EXPECT_LT(pelda_load_protocols_file(m, path.c_str()), 0);
    EXPECT_NE(testing::internal::GetCapturedStderr().find(":1:"), std::string::npos);
}

TEST_F(FilesTest, CategoriesFileSetsCategoriesByHostAndNetwork) {
    pt::owned_module m;
    std::string path = write("cats.txt",
                             "# hosts and networks to categories\n"
                             "Banking host:bank.example\n"
                             "150     net:10.1.0.0/16\n");
    ASSERT_EQ(pelda_load_categories_file(m, path.c_str(), nullptr), 2);

    pt::tcp_conversation c({"192.168.0.2", 40000}, {"192.168.0.9", 80});
    c.handshake();
    c.client_sends(pt::text("GET /login HTTP/1.1\r\nHost: www.bank.example\r\n\r\n"));
    auto r = pt::drive(m, c.packets);
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].result.category, uint32_t(pelda_get_category_by_name(m, "Banking")));

    std::vector<pt::packet> dns = {{pt::ipv4_udp({"10.1.2.3", 40000}, {"10.9.9.9", 53},
                                                 pt::hex("1234 0100 0001 0000 0000 0000"
                                                         "03 777777 07 6578616d706c65 03 636f6d 00"
                                                         "0001 0001")),
                                    1}};
    r = pt::drive(m, dns);
    EXPECT_EQ(r[0].result.category, 150u);

    const char *bad[] = {"NoSuchCategory host:x.example\n", "Web host:\n", "Web net:1.2.3/8\n",
                         "Web port:80\n", "164 host:a.example\n"};
    for (const char *content : bad) {
        std::string p = write("badcat.txt", content);
        testing::internal::CaptureStderr();
        EXPECT_LT(pelda_load_categories_file(m, p.c_str(), nullptr), 0) << content;
        EXPECT_NE(testing::internal::GetCapturedStderr().find(p + ":1:"), std::string::npos);
    }
}

TEST_F(FilesTest, ProtocolCountIsBounded) {
    pt::owned_module m;
    std::string content;
    for (int i = 0; i < 1100; ++i)
        content += "P" + std::to_string(i) + " tcp:" + std::to_string(20000 + i) + "\n";
    std::string path = write("many.txt", content);
    testing::internal::CaptureStderr();
    EXPECT_LT(pelda_load_protocols_file(m, path.c_str()), 0);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("too many protocols"), std::string::npos);
}

}  // namespace
