/* Uses the public header from strict C11 and runs against the shared library. */
#include <quelm.h>
#include <stdio.h>
#include <string.h>

static void on_flow(quelm_flow *flow, void *user) {
    (void)flow;
    (void)user;
}

int main(void) {
    char version[32];
    quelm_new_flow_callback cb = on_flow;
    quelm_packet_header header = {{1, 2}, 60, 60};
    quelm_packet_ext ext = {0, 0, 0};
    quelm_stats stats;
    quelm_list list = {0, NULL, NULL};
    quelm_flow_value value;
    quelm_action verdict = QUELM_ACTION_DISCARD;
    char addr[48];

    memset(&stats, 0, sizeof stats);
    memset(&value, 0, sizeof value);
    (void)cb;
    (void)ext;
    if (quelm_version(version) != 0x90500u || strcmp(version, "9.5.0.261007") != 0) return 1;
    if (quelm_api_version() != QUELM_API_VERSION) return 2;
    if (strcmp(utils_intoav4(0x7F000001u, addr, sizeof addr), "127.0.0.1") != 0) return 3;
    if (quelm_list_get_next(&list) != NULL) return 4;
    if (header.ts.tv_usec != 2 || verdict != 2 || value.status != QUELM_FLOW_STATUS_ACTIVE)
        return 5;
    if (sizeof(quelm_timeval) != 16 || sizeof(quelm_action) != 1) return 6;
    printf("header ok: %s\n", version);
    return 0;
}
