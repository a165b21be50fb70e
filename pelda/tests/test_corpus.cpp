// Every capture of the shared corpus runs clean in both modes (many are malformed on
// purpose); test_detect's table expects protocols of some of them.
#include <gtest/gtest.h>

#include <dirent.h>
#include <unistd.h>

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

}  // namespace
