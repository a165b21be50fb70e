// Packets through a whole table: a flags byte, then frames behind a 2-byte length and a 1-byte time
// step.
#include <stddef.h>
#include <stdint.h>

#include "quelm.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    const uint32_t flags = QUELM_FLAG_TUNNEL_DECODING | (data[0] & 1 ? QUELM_FLAG_DPI : 0) |
                           (data[0] & 2 ? QUELM_FLAG_DPI_EXTRA_DISSECTION : 0) |
                           (data[0] & 4 ? QUELM_FLAG_MAC_IN_KEY : 0) |
                           (data[0] & 8 ? QUELM_FLAG_EXTENDED_DECODING : 0);
    quelm_table *t = quelm_create_table(flags, 64, 2, 5, 8);
    if (t == nullptr) return 0;
    quelm_flow_set_flow_slicing(t, data[0] >> 4);
    quelm_set_flow_export_callback(
        t,
        [](quelm_flow *f, void *) {
            char line[512];
            quelm_flow_print(f, line, sizeof line, nullptr);
            quelm_flow_free(f);
        },
        nullptr);
    quelm_packet_header h{{1000, 0}, 0, 0};
    const quelm_packet_ext ext{0, 1, 1};
    size_t i = 1;
    while (i + 3 <= size) {
        const size_t len = size_t(data[i] << 8 | data[i + 1]);
        h.ts.tv_sec += data[i + 2] & 7;
        i += 3;
        const size_t caplen = len < size - i ? len : size - i;
        h.caplen = uint32_t(caplen);
        h.len = uint32_t(caplen + (data[i - 1] >> 3));
        quelm_process(t, data + i, &h, &ext);
        i += caplen;
    }
    quelm_flush(t);
    quelm_destroy_table(t);
    return 0;
}
