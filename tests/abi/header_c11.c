/* Uses the public header from strict C11 and runs against the shared library. */
#include <quelm.h>
#include <stdio.h>

static void on_flow(quelm_flow *flow, void *user) {
    (void)user;
    quelm_flow_free(flow);
}

int main(void) {
    char version[32];
    quelm_packet_ext ext = {0, 0, 0};
    quelm_list list = {0, NULL, NULL};

    if (quelm_version(version) == 0 || quelm_api_version() != QUELM_API_VERSION) return 1;
    if (quelm_list_get_next(&list) != NULL) return 4;
    if (sizeof(quelm_timeval) != 16 || sizeof(quelm_action) != 1) return 6;
    /* This program does not link the detection engine: tables without detection work, and a
     * table that asks for detection is refused instead of crashing. */
    {
        /* clang-format off */
        static const uint8_t frame[54] = {
            2, 0, 0, 0, 0, 2, 2, 0, 0, 0, 0, 1, 0x08, 0x00,              /* Ethernet */
            0x45, 0, 0, 40, 0, 1, 0, 0, 64, 6, 0, 0, 10, 0, 0, 1, 10, 0, 0, 2, /* IPv4 */
            0x9c, 0x40, 0, 80, 0, 0, 0, 1, 0, 0, 0, 0, 0x50, 0x02, 0xff, 0xff, 0, 0, 0, 0};
        /* clang-format on */
        quelm_packet_header h = {{100, 0}, sizeof frame, sizeof frame};
        quelm_table *t = quelm_create_table(0, 64, 0, 0, 0);
        if (t == NULL) return 7;
        quelm_set_flow_export_callback(t, on_flow, NULL);
        quelm_process(t, frame, &h, &ext);
        if (quelm_get_stats(t)->active_flows != 1) return 8;
        quelm_flush(t);
        quelm_destroy_table(t);
        if (quelm_is_pelda_available() != 0) return 9;
        if (quelm_create_table(QUELM_FLAG_DPI, 64, 0, 0, 0) != NULL) return 10;
    }
    printf("header ok: %s\n", version);
    return 0;
}
