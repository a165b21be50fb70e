// Uses the public header from C++11 (no designated initialisers, no newer features).
#include <quelm.h>

#include <cstring>

int main() {
    char version[32];
    quelm_list list = quelm_list();
    quelm_stats stats = quelm_stats();
    const quelm_flow_status status = QUELM_FLOW_STATUS_FLUSHED;
    (void)stats;
    if (quelm_version(version) != 0x90500u) return 1;
    if (std::strcmp(utils_prototoa(17), "UDP") != 0) return 2;
    if (quelm_list_pop_head(&list) != nullptr || status != 4) return 3;
    return 0;
}
