// Detection on real captures, beyond the sample's baselines, and the record writer's limits.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "flow_writer.h"
#include "tool_runner.h"

namespace quelm_test {
namespace {

using ::testing::HasSubstr;
using namespace quelm_tool;  // the record writer's pieces

const std::string kCorpus = QUELM_CORPUS_DIR "/tcpdump/";

// Real captures get the protocols an analyst would name: "FILE PROTO SERVER:PORT APP [ANSWER]".
TEST(DetectionCorpus, RealCapturesGetTheProtocolsAnAnalystWouldName) {
    if (access(kCorpus.c_str(), R_OK) != 0) GTEST_SKIP() << "no captures at " << kCorpus;
    for (const std::string c :
         {"dns_udp.pcap UDP 209.87.249.18:53 DNS NOERROR",
          "dns_tcp_8053.pcap TCP 209.87.249.18:8053 DNS NOERROR",  // not by port
          "accecn_handshake.pcap TCP 66.228.43.12:80 HTTP 200",
          "ssh.pcap TCP 223.132.53.222:22 SSH", "ntp.pcap UDP 192.168.100.1:123 NTP",
          "tftp.pcap UDP 192.168.1.1:69 TFTP", "dhcp-rfc3004.pcap UDP 255.255.255.255:67 DHCP",
          "ISAKMP_sa_setup.pcap UDP 10.0.0.2:500 IKE",
          "RADIUS-port1700.pcap UDP 127.0.0.1:1700 RADIUS", "afs.pcap UDP 131.151.1.60:88 Kerberos",
          "gquic.pcap UDP 216.58.195.67:443 QUIC", "bgp-4byte-asn.pcap TCP 1.0.2.1:179 BGP",
          "eapon1.pcap UDP 239.255.255.250:1900 SSDP",
          "eapon1.pcap UDP 192.168.1.255:138 NetBIOS"}) {
        ToolRunner tool;
        const std::string file = c.substr(0, c.find(' '));
        const ToolResult r =
            tool.run({"flows", "-r", kCorpus + file, "--format", "json", "--extra-dissection"});
        std::string got;
        for (const Json &rec : json_lines(r.out)) {
            got += "\n" + file + " " + text(rec["proto"]) + " " + text(rec["dest_ip"]) + ":" +
                   text(rec.value("dest_port", 0)) + " " + text(rec["app_proto"]);
            for (const Json::json_pointer &answer :
                 {"/dns/rcode"_json_pointer, "/http/status"_json_pointer})
                if (rec.contains(answer)) got += " " + text(rec[answer]);
        }
        EXPECT_THAT(got + "\n", HasSubstr("\n" + c + "\n")) << c << " not in" << got << r.err;
    }
}

// A limit cuts the text, never a UTF-8 sequence in two (the rest of the escaping: test_export);
// DNS codes without a mnemonic are written by number.
TEST(FlowWriter, LimitsAndFallbacks) {
    char out[16];
    EXPECT_EQ(std::string(out, format_json_string("abcdef", out, 3)), "\"abc\"");
    EXPECT_EQ(std::string(out, format_json_string("caf\xc3\xa9", out, 4)), "\"caf\\u00c3\"");
    EXPECT_EQ(dns_type_name(65280) + dns_rcode_name(11), "TYPE65280RCODE11");
}

}  // namespace
}  // namespace quelm_test
