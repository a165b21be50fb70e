// Real captures of the shared corpus: every file runs clean in both modes (many are
// malformed on purpose), and captures of known protocols are recognised.
#include <gtest/gtest.h>

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "support.h"

namespace {

const std::string kDir = PELDA_CORPUS_DIR "/tcpdump/";

std::vector<pt::flow_result> run(pelda_detection_module *m, const std::string &name, bool extra) {
    std::vector<pt::packet> pk;
    pt::read_capture(kDir + name, &pk);
    return pt::drive(m, pk, extra);
}

#define SKIP_WITHOUT_CORPUS() \
    if (access(kDir.c_str(), R_OK) != 0) GTEST_SKIP() << "no corpus in " << kDir

TEST(Corpus, EveryCaptureRunsCleanInBothModes) {
    SKIP_WITHOUT_CORPUS();
    DIR *d = opendir(kDir.c_str());
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
            for (const auto &f : run(m, name, extra)) {
                ++flows;
                EXPECT_LT(f.result.master_protocol, n) << name;
                EXPECT_LT(f.result.app_protocol, n) << name;
                EXPECT_LT(f.result.category, uint32_t(PELDA_NUM_CATEGORIES)) << name;
                EXPECT_LT(f.summary.size(), 1024u) << name;  // server names of 255 bytes at most
            }
        }
    }
    EXPECT_GT(flows, 1000u);
}

TEST(Corpus, KnownProtocolsAreRecognised) {
    SKIP_WITHOUT_CORPUS();
    const std::pair<const char *, std::string> cases[] = {
        // file, start of one flow's summary
        {"dns_udp.pcap", "DNS sn=www.tcpdump.org dq=1 dr=0"},
        {"dns_tcp.pcap", "DNS sn=www.tcpdump.org"},
        {"dns_udp_8053.pcap", "DNS"},
        {"dns_tcp_8053.pcap", "DNS"},
        {"ssh.pcap", "SSH"},
        {"syslog_udp.pcap", "Syslog"},
        {"ntp.pcap", "NTP"},
        {"resp_1_benchmark.pcap", "Redis"},
        {"quic_handshake.pcap", "QUIC"},
        {"gquic.pcap", "QUIC sn=clientservices.googleapis.com"},
        {"tftp.pcap", "TFTP"},
        {"RADIUS.pcap", "RADIUS"},
        {"isakmp4500.pcap", "IKE"},
        {"bgp-4byte-asn.pcap", "BGP"},
        {"dhcp-rfc3004.pcap", "DHCP"},
        {"smb_data_print-segv.pcap", "SMB"},
        {"ipv4_tcp_http_xml.pcap", "HTTP"},
    };
    pt::owned_module m;
    for (const auto &[file, want] : cases) {
        auto flows = run(m, file, true);
        EXPECT_TRUE(std::any_of(flows.begin(), flows.end(),
                                [&](const pt::flow_result &f) {
                                    return !f.guessed &&
                                           (f.summary + " ").rfind(want + " ", 0) == 0;
                                }))
            << file << " has no flow " << want;
    }
}

}  // namespace
