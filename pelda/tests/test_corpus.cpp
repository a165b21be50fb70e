// Real captures from the shared corpus: every file runs clean (many are malformed
// on purpose), and captures of known protocols are recognised.
#include <gtest/gtest.h>

#include <dirent.h>

#include <algorithm>
#include <string>

#include "support.h"

namespace {

std::vector<pt::flow_result> run(const std::string &name, bool extra = true) {
    std::vector<pt::packet> pk;
    std::string path = pt::corpus_file(name);
    if (path.empty() || !pt::read_capture(path, &pk)) return {};
    pt::owned_module m;
    pt::drive_options o;
    o.extra_dissection = extra;
    return pt::drive(m, pk, o);
}

#define SKIP_WITHOUT_CORPUS()                    \
    if (pt::corpus_file("dns_udp.pcap").empty()) \
    GTEST_SKIP() << "corpus not found under " PELDA_CORPUS_DIR "/tcpdump"

TEST(Corpus, EveryCaptureRunsCleanInBothModes) {
    SKIP_WITHOUT_CORPUS();
    DIR *d = opendir((std::string(PELDA_CORPUS_DIR) + "/tcpdump").c_str());
    ASSERT_NE(d, nullptr);
    std::vector<std::string> names;
    while (dirent *e = readdir(d))
        if (e->d_name[0] != '.') names.push_back(e->d_name);
    closedir(d);
    ASSERT_GT(names.size(), 100u);
    pt::owned_module m;
    uint32_t n = pelda_get_num_protocols(m);
    size_t flows = 0;
    for (const std::string &name : names) {
        for (bool extra : {false, true}) {
            for (const auto &f : run(name, extra)) {
                ++flows;
                EXPECT_LT(f.result.master_protocol, n) << name;
                EXPECT_LT(f.result.app_protocol, n) << name;
                EXPECT_LT(f.result.category, uint32_t(PELDA_NUM_CATEGORIES)) << name;
                EXPECT_LE(f.fields.server_name.size(), 255u) << name;
            }
        }
    }
    EXPECT_GT(flows, 1000u);
}

struct expectation {
    const char *file;
    const char *protocol;     // name of at least one flow's result
    const char *server_name;  // of that flow, or null when not checked
};

TEST(Corpus, KnownProtocolsAreRecognised) {
    SKIP_WITHOUT_CORPUS();
    const expectation cases[] = {
        {"dns_udp.pcap", "DNS", "www.tcpdump.org"},
        {"dns_tcp.pcap", "DNS", "www.tcpdump.org"},
        {"dns_udp_8053.pcap", "DNS", nullptr},
        {"dns_tcp_8053.pcap", "DNS", nullptr},
        {"ssh.pcap", "SSH", nullptr},
        {"syslog_udp.pcap", "Syslog", nullptr},
        {"ntp.pcap", "NTP", nullptr},
        {"resp_1_benchmark.pcap", "Redis", nullptr},
        {"quic_handshake.pcap", "QUIC", nullptr},
        {"gquic.pcap", "QUIC", "clientservices.googleapis.com"},
        {"tftp.pcap", "TFTP", nullptr},
        {"RADIUS.pcap", "RADIUS", nullptr},
        {"isakmp4500.pcap", "IKE", nullptr},
        {"bgp-4byte-asn.pcap", "BGP", nullptr},
        {"dhcp-rfc3004.pcap", "DHCP", nullptr},
        {"smb_data_print-segv.pcap", "SMB", nullptr},
        {"ipv4_tcp_http_xml.pcap", "HTTP", nullptr},
    };
    for (const auto &c : cases) {
        auto flows = run(c.file);
        auto it = std::find_if(flows.begin(), flows.end(), [&](const pt::flow_result &f) {
            return f.name == c.protocol && !f.guessed;
        });
        ASSERT_NE(it, flows.end()) << c.file << " has no " << c.protocol << " flow";
        if (c.server_name) {
            EXPECT_EQ(it->fields.server_name, c.server_name) << c.file;
        }
    }
}

TEST(Corpus, DnsMetadata) {
    SKIP_WITHOUT_CORPUS();
    auto flows = run("dns_udp.pcap");
    ASSERT_FALSE(flows.empty());
    EXPECT_EQ(flows[0].fields.dns_query_type, 1);  // A
    EXPECT_EQ(flows[0].fields.dns_reply_code, 0);
    EXPECT_EQ(flows[0].result.state, uint32_t(PELDA_STATE_DONE));
}

}  // namespace
