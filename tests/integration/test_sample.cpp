// Real traffic through a table with the real engine: the bundled sample's flows get the protocols
// and details an analyst would name.
#include <gtest/gtest.h>
#include <pcap/pcap.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "quelm.h"

namespace {

struct Seen {
    std::vector<std::string> lines;
    quelm_table *table;
};

std::string addr(const quelm_flow_key *k, bool src) {
    char buf[48];
    const uint8_t *a = src ? k->saddr : k->daddr;
    if (k->ip_version == 4) {
        uint32_t v;
        memcpy(&v, a, 4);
        return utils_intoav4(v, buf, sizeof buf);
    }
    return utils_intoav6(a, buf, sizeof buf);
}

// One line per flow: the server side, the protocol and its details (client ports vary per remake).
std::string describe(quelm_table *t, quelm_flow *f) {
    const quelm_flow_key *k = quelm_flow_get_key(f);
    const quelm_flow_value *v = quelm_flow_get_value(f);
    char name[64];
    std::string s = std::string(utils_prototoa(k->protocol)) + " " + addr(k, true) + " > " +
                    addr(k, false) + ":" + std::to_string(k->dport);
    if (k->vlan_id != 0) s += " vlan " + std::to_string(k->vlan_id);
    s += std::string(" ") + quelm_l7_protocol_name(t, &v->l7_protocol, name, sizeof name);
    if (v->flags & QUELM_FLOW_FLAG_L7_GUESSED) s += " (guessed)";
    const quelm_flow_l7_metadata &md = v->l7_metadata;
    switch (v->l7_protocol.master_protocol) {
        case 7:
            if (md.http.server_name) s += std::string(" host=") + md.http.server_name;
            if (md.http.url) s += std::string(" url=") + md.http.url;
            s += " status=" + std::to_string(md.http.response_code);
            break;
        case 91:
            if (md.tls.server_name) s += std::string(" sni=") + md.tls.server_name;
            if (md.tls.certificate_fingerprint) s += " cert";
            break;
        case 5:
            if (md.dns.query) s += std::string(" query=") + md.dns.query;
            s += " type=" + std::to_string(md.dns.query_type) +
                 " rcode=" + std::to_string(md.dns.reply_code);
            break;
    }
    return s;
}

std::vector<std::string> run_sample(uint32_t flags) {
    char err[PCAP_ERRBUF_SIZE];
    pcap_t *p = pcap_open_offline(QUELM_SAMPLE_PCAP, err);
    if (p == nullptr) {
        ADD_FAILURE() << err;
        return {};
    }
    Seen seen{{}, quelm_create_table(flags, 4096, 0, 0, 0)};
    EXPECT_NE(seen.table, nullptr);
    quelm_set_flow_export_callback(
        seen.table,
        [](quelm_flow *f, void *u) {
            auto *s = static_cast<Seen *>(u);
            s->lines.push_back(describe(s->table, f));
            quelm_flow_free(f);
        },
        &seen);
    pcap_pkthdr *h;
    const u_char *data;
    const quelm_packet_ext ext{};
    while (pcap_next_ex(p, &h, &data) == 1) {
        const quelm_packet_header qh{{h->ts.tv_sec, h->ts.tv_usec}, h->caplen, h->len};
        quelm_process(seen.table, data, &qh, &ext);
    }
    pcap_close(p);
    quelm_flush(seen.table);
    quelm_destroy_table(seen.table);
    std::sort(seen.lines.begin(), seen.lines.end());
    return seen.lines;
}

bool has(const std::vector<std::string> &lines, const std::string &want) {
    return std::find(lines.begin(), lines.end(), want) != lines.end();
}

std::string joined(const std::vector<std::string> &lines) {
    std::string all;
    for (const std::string &l : lines)
        all += l + "\n";
    return all;
}

// Detection ends on the packet that names the protocol: names and URLs are known by then, answers
// (status, reply code, certificate) come later.
TEST(Sample, DetectionNamesProtocolsAndRequests) {
    const std::vector<std::string> lines = run_sample(QUELM_FLAG_DPI);
    const char *expected[] = {
        "TCP 10.99.0.2 > 10.99.0.10:80 HTTP host=www.demo.quelm.test url=/index.html status=0",
        "TCP 10.99.0.2 > 10.99.0.10:80 HTTP host=www.demo.quelm.test url=/report.txt status=0",
        "TCP 10.99.0.2 > 10.99.0.11:443 TLS sni=secure.demo.quelm.test",
        "TCP fd00:99::2 > fd00:99::12:443 TLS sni=login.demo.quelm.test",
        "UDP 10.99.0.2 > 10.99.0.53:53 DNS query=nosuch.demo.quelm.test type=1 rcode=0",
        "TCP 10.99.0.2 > 10.99.0.22:22 SSH",
    };
    for (const char *want : expected)
        EXPECT_TRUE(has(lines, want)) << want << "\nflows:\n" << joined(lines);
}

// With extra dissection the engine also reads the answers.
TEST(Sample, ExtraDissectionAddsAnswers) {
    const std::vector<std::string> lines =
        run_sample(QUELM_FLAG_DPI | QUELM_FLAG_DPI_EXTRA_DISSECTION);
    const std::string all = joined(lines);
    const char *expected[] = {
        "TCP 10.99.0.2 > 10.99.0.10:80 HTTP host=www.demo.quelm.test url=/index.html status=200",
        "TCP 10.99.0.2 > 10.99.0.10:80 HTTP host=www.demo.quelm.test url=/api/login status=200",
        "TCP 10.99.0.2 > 10.99.0.10:80 HTTP host=www.demo.quelm.test url=/missing.html status=404",
        "TCP 10.99.0.2 > 10.99.0.10:80 HTTP host=www.demo.quelm.test url=/report.txt status=200",
        "TCP fd00:99::2 > fd00:99::10:80 HTTP host=www.demo.quelm.test url=/index.html status=200",
        "TCP 10.99.100.2 > 10.99.100.1:80 vlan 100 HTTP host=intranet.demo.quelm.test url=/ "
        "status=200",
        "TCP 10.99.0.2 > 10.99.0.11:443 TLS sni=secure.demo.quelm.test cert",
        "TCP 10.99.0.2 > 10.99.0.11:443 TLS sni=secure.demo.quelm.test",
        "TCP fd00:99::2 > fd00:99::12:443 TLS sni=login.demo.quelm.test",
        "UDP 10.99.0.2 > 10.99.0.53:53 DNS query=www.demo.quelm.test type=1 rcode=0",
        "UDP 10.99.0.2 > 10.99.0.53:53 DNS query=www.demo.quelm.test type=28 rcode=0",
        "UDP 10.99.0.2 > 10.99.0.53:53 DNS query=nosuch.demo.quelm.test type=1 rcode=3",
        "UDP 10.99.0.2 > 10.99.0.53:53 DNS query=demo.quelm.test type=15 rcode=0",
        "UDP 10.99.0.2 > 10.99.0.53:53 DNS query=demo.quelm.test type=16 rcode=0",
        "UDP 10.99.0.2 > 10.99.0.53:53 DNS query=10.0.99.10.in-addr.arpa type=12 rcode=0",
        "TCP 10.99.0.2 > 10.99.0.53:53 DNS query=secure.demo.quelm.test type=1 rcode=0",
        "UDP fd00:99::2 > fd00:99::53:53 DNS query=login.demo.quelm.test type=28 rcode=0",
        "TCP 10.99.0.2 > 10.99.0.22:22 SSH",
        "ICMP 10.99.0.2 > 10.99.0.1:2048 ICMP (guessed)",
    };
    for (const char *want : expected)
        EXPECT_TRUE(has(lines, want)) << want << "\nflows:\n" << all;
}

TEST(Sample, WithoutDetectionEveryFlowIsUnknown) {
    for (const std::string &line : run_sample(0))
        EXPECT_NE(line.find(" Unknown"), std::string::npos) << line;
}

}  // namespace
