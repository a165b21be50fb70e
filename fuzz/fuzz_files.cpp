// Fuzzes the protocols and categories file loaders; the module must stay usable.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "pelda.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static std::string path = "/tmp/pelda-fuzz-files-" + std::to_string(getpid());
    FILE *fp = std::fopen(path.c_str(), "wb");
    if (!fp) return 0;
    std::fwrite(data, 1, size, fp);
    std::fclose(fp);

    pelda_detection_module *m = pelda_init_detection_module(nullptr, 2);
    pelda_finalize_initialization(m);
    int before = int(pelda_get_num_protocols(m));
    int added = pelda_load_protocols_file(m, path.c_str());
    if (added >= 0 && int(pelda_get_num_protocols(m)) != before + added) std::abort();
    if (added < 0 && int(pelda_get_num_protocols(m)) != before) std::abort();
    pelda_load_categories_file(m, path.c_str(), nullptr);

    // Use what was loaded: names, network matches and guesses.
    uint32_t n = pelda_get_num_protocols(m);
    char buf[128];
    for (uint32_t id = 0; id < n; ++id) {
        pelda_protocol2name(m, {uint16_t(id), uint16_t(n - 1 - id)}, buf, sizeof(buf));
        if (pelda_get_proto_by_name(m, buf) >= n) std::abort();
    }
    for (uint32_t a : {0u, 0x0a000001u, 0xc0a80101u, 0xffffffffu}) {
        if (pelda_network_ptree_match(m, a) >= n) std::abort();
        pelda_guess_undetected_protocol_v4(m, nullptr, 6, a, 1234, a + 1, 8080);
    }
    pelda_exit_detection_module(m);
    return 0;
}
