// The bundled sample through a table with the real engine: every flow, as quelm_flow_print shows it
// plus its protocol details, compared with a checked-in baseline, so that a missing, extra or
// changed flow fails with a diff. After an intended change, rerun with QUELM_UPDATE_BASELINES=1 to
// rewrite tests/integration/baselines/ and review the diff of the baselines before committing.
#include <gtest/gtest.h>
#include <pcap/pcap.h>

#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "quelm.h"

namespace {

std::multiset<std::string> flows;  // of the current run, sorted

void describe(quelm_flow *f, void *table) {
    char buf[512];
    auto *t = static_cast<quelm_table *>(table);
    std::string s = quelm_flow_print(f, buf, sizeof buf, quelm_get_pelda_handle(t));
    const quelm_flow_value *v = quelm_flow_get_value(f);
    const quelm_flow_l7_metadata &md = v->l7_metadata;
    const uint8_t *fp = md.tls.certificate_fingerprint;
    auto text = [](const char *p) { return std::string(p != nullptr ? p : "-"); };
    const quelm_l7_protocol &p = v->l7_protocol;
    const int id = p.master_protocol != 0 ? p.master_protocol : p.app_protocol;
    if (v->flags & QUELM_FLOW_FLAG_L7_GUESSED) s += " guessed";
    if (id == 7)
        s += " host=" + text(md.http.server_name) + " url=" + text(md.http.url) +
             " status=" + std::to_string(md.http.response_code);
    if (id == 91) s += " sni=" + text(md.tls.server_name) + " cert=" + (fp != nullptr ? "" : "-");
    for (int i = 0; id == 91 && fp != nullptr && i < 20; i++)
        s += "0123456789abcdef"[fp[i] >> 4];
    if (id == 5)
        s += " query=" + text(md.dns.query) + " type=" + std::to_string(md.dns.query_type) +
             " rcode=" + std::to_string(md.dns.reply_code);
    flows.insert(s);
    quelm_flow_free(f);
}

TEST(Sample, FlowsMatchTheBaselines) {
    // clang-format off
    const struct { const char *name; uint32_t flags; } cases[] = {
        {"dpi", QUELM_FLAG_DPI},
        {"dpi_extra_dissection", QUELM_FLAG_DPI | QUELM_FLAG_DPI_EXTRA_DISSECTION},
        {"no_dpi", 0},
    };
    // clang-format on
    for (const auto &c : cases) {
        char err[PCAP_ERRBUF_SIZE];
        pcap_t *p = pcap_open_offline(QUELM_SAMPLE_PCAP, err);
        ASSERT_NE(p, nullptr) << err;
        quelm_table *t = quelm_create_table(c.flags, 4096, 0, 0, 0);
        ASSERT_NE(t, nullptr);
        quelm_set_flow_export_callback(t, describe, t);
        pcap_pkthdr *h;
        const u_char *data;
        const quelm_packet_ext ext{};
        while (pcap_next_ex(p, &h, &data) == 1) {
            const quelm_packet_header qh{{h->ts.tv_sec, h->ts.tv_usec}, h->caplen, h->len};
            quelm_process(t, data, &qh, &ext);
        }
        pcap_close(p);
        quelm_flush(t);
        quelm_destroy_table(t);
        std::string got;
        for (const std::string &l : flows)
            got += l + "\n";
        flows.clear();
        const std::string path = std::string(QUELM_BASELINE_DIR "/") + c.name + ".txt";
        if (std::getenv("QUELM_UPDATE_BASELINES") != nullptr) std::ofstream(path) << got;
        std::stringstream want;
        want << std::ifstream(path).rdbuf();
        EXPECT_EQ(got, want.str()) << path;
    }
}

}  // namespace
