// Chat, messaging and IoT: IRC, MQTT and ZeroMQ handshakes; the others by port.
#include "internal.h"

namespace pelda {

namespace {

bool printable_line(const uint8_t *p, uint32_t len) {
    uint32_t l = line_length(p, len);
    if (l == 0) return false;
    for (uint32_t i = 0; i < l; ++i)
        if (p[i] < 0x20 && p[i] != '\t') return false;
    return true;
}

verdict detect_irc(context &c) {
    const packet_view &pv = *c.pkt;
    const uint8_t *p = pv.payload;
    uint32_t len = pv.len;
    if (!printable_line(p, len)) return verdict::no;
    if (pv.dir == kClient) {
        if (starts_with(p, len, "NICK ") || starts_with(p, len, "CAP LS") ||
            (starts_with(p, len, "PASS ") && contains_nocase(p, len, "\nNICK ")))
            return verdict::yes;
        return verdict::no;
    }
    // Server messages carry a prefix: ":server NOTICE ..." or ":server 001 ...".
    if (p[0] != ':') return starts_with(p, len, "NOTICE AUTH") ? verdict::yes : verdict::no;
    uint32_t sp = 0;
    while (sp < len && p[sp] != ' ')
        ++sp;
    if (sp + 4 > len) return verdict::no;
    if (starts_with(p + sp + 1, len - sp - 1, "NOTICE ")) return verdict::yes;
    if (sp + 5 <= len && is_digit(p[sp + 1]) && is_digit(p[sp + 2]) && is_digit(p[sp + 3]) &&
        p[sp + 4] == ' ')
        return verdict::yes;
    return verdict::no;
}

verdict detect_mqtt(context &c) {
    const uint8_t *p = c.pkt->payload;
    uint32_t len = c.pkt->len;
    if (len < 12 || p[0] != 0x10) return verdict::no;
    uint32_t i = 1;
    while (i < len && i < 5 && (p[i] & 0x80))
        ++i;
    ++i;
    if (i + 8 > len) return verdict::no;
    if (rd16(p + i) == 4 && std::memcmp(p + i + 2, "MQTT", 4) == 0) return verdict::yes;
    if (rd16(p + i) == 6 && i + 8 <= len && std::memcmp(p + i + 2, "MQIsdp", 6) == 0)
        return verdict::yes;
    return verdict::no;
}

verdict detect_zeromq(context &c) {
    const uint8_t *p = c.pkt->payload;
    uint32_t len = c.pkt->len;
    // Greeting signature: 0xFF, 8 padding bytes, 0x7F.
    return len >= 10 && p[0] == 0xFF && p[9] == 0x7F ? verdict::yes : verdict::no;
}

constexpr protocol_def kRows[] = {
    row(27, "IRC", cat::Chat).tcp({6660, 6669}, 6697).dissector(kTcp, 270, detect_irc),
    row(71, "XMPP", cat::Chat).tcp(5222, 5269),
    row(69, "MQTT", cat::IoT_Scada).tcp(1883).dissector(kTcp, 190, detect_mqtt),
    row(70, "AMQP", cat::RPC).tcp(5672),
    row(98, "ZeroMQ", cat::RPC).dissector(kTcp, 200, detect_zeromq),
    row(88, "Kafka", cat::RPC).tcp(9092),
    row(76, "CoAP", cat::IoT_Scada).udp(5683),
    row(75, "Modbus", cat::IoT_Scada).tcp(502),
    row(99, "SOMEIP", cat::IoT_Scada).tcp(30490).udp(30490),
};

}  // namespace

PELDA_DEFINE_FAMILY(messaging, kRows);

}  // namespace pelda
