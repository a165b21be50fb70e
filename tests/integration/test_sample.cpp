// The bundled sample through a table with the real engine: every flow, as quelm_flow_print shows it
// plus its protocol details, compared with a checked-in baseline, so that a missing, extra or
// changed flow fails with a diff. After an intended change, rerun with QUELM_UPDATE_BASELINES=1 to
// rewrite tests/integration/baselines/ and review the diff of the baselines before committing.
#include <gtest/gtest.h>
#include <pcap/pcap.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "quelm.h"

namespace {

struct Run {
    quelm_table *table;
    std::vector<std::string> lines;
};

std::string describe(quelm_table *t, quelm_flow *f) {
    char buf[512];
    std::string s = quelm_flow_print(f, buf, sizeof buf, quelm_get_pelda_handle(t));
    const quelm_flow_value *v = quelm_flow_get_value(f);
    if (v->flags & QUELM_FLOW_FLAG_L7_GUESSED) s += " guessed";
    const quelm_flow_l7_metadata &md = v->l7_metadata;
    auto text = [](const char *p) { return std::string(p != nullptr ? p : "-"); };
    const uint16_t id = v->l7_protocol.master_protocol != 0 ? v->l7_protocol.master_protocol
                                                            : v->l7_protocol.app_protocol;
    if (id == 7) {
        s += " host=" + text(md.http.server_name) + " url=" + text(md.http.url) +
             " status=" + std::to_string(md.http.response_code);
    } else if (id == 91) {
        const uint8_t *fp = md.tls.certificate_fingerprint;
        s += " sni=" + text(md.tls.server_name) + " cert=" + (fp != nullptr ? "" : "-");
        for (int i = 0; fp != nullptr && i < 20; i++)
            s += "0123456789abcdef"[fp[i] >> 4];
    } else if (id == 5) {
        s += " query=" + text(md.dns.query) + " type=" + std::to_string(md.dns.query_type) +
             " rcode=" + std::to_string(md.dns.reply_code);
    }
    return s;
}

std::string run_sample(uint32_t flags) {
    char err[PCAP_ERRBUF_SIZE];
    pcap_t *p = pcap_open_offline(QUELM_SAMPLE_PCAP, err);
    EXPECT_NE(p, nullptr) << err;
    Run run{quelm_create_table(flags, 4096, 0, 0, 0), {}};
    if (p == nullptr || run.table == nullptr) return "";
    quelm_set_flow_export_callback(
        run.table,
        [](quelm_flow *f, void *u) {
            auto *r = static_cast<Run *>(u);
            r->lines.push_back(describe(r->table, f));
            quelm_flow_free(f);
        },
        &run);
    pcap_pkthdr *h;
    const u_char *data;
    const quelm_packet_ext ext{};
    while (pcap_next_ex(p, &h, &data) == 1) {
        const quelm_packet_header qh{{h->ts.tv_sec, h->ts.tv_usec}, h->caplen, h->len};
        quelm_process(run.table, data, &qh, &ext);
    }
    pcap_close(p);
    quelm_flush(run.table);
    quelm_destroy_table(run.table);
    std::sort(run.lines.begin(), run.lines.end());
    std::string all;
    for (const std::string &l : run.lines)
        all += l + "\n";
    return all;
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
        const std::string path = std::string(QUELM_BASELINE_DIR "/") + c.name + ".txt";
        const std::string got = run_sample(c.flags);
        if (std::getenv("QUELM_UPDATE_BASELINES") != nullptr) std::ofstream(path) << got;
        std::stringstream want;
        want << std::ifstream(path).rdbuf();
        EXPECT_EQ(got, want.str()) << path;
    }
}

}  // namespace
