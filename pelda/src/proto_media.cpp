// Voice and media: SIP, RTSP and STUN messages; RTP and RTCP by name only.
#include "internal.h"

namespace pelda {

namespace {

verdict detect_sip(context &c) {
    const uint8_t *p = c.pkt->payload;
    uint32_t len = c.pkt->len, l = line_length(p, len);
    if (starts_with(p, len, "SIP/2.0 ") && len > 11) return verdict::yes;
    if (l < 16 || !starts_with(p + l - 8, 8, " SIP/2.0")) return verdict::no;
    for (const char *m :
         {"INVITE ", "REGISTER ", "OPTIONS ", "ACK ", "BYE ", "CANCEL ", "SUBSCRIBE ", "NOTIFY ",
          "MESSAGE ", "INFO ", "PRACK ", "UPDATE ", "REFER ", "PUBLISH "})
        if (starts_with(p, len, m)) return verdict::yes;
    return verdict::no;
}

verdict detect_rtsp(context &c) {
    const uint8_t *p = c.pkt->payload;
    uint32_t len = c.pkt->len, line = line_length(p, len);
    if (starts_with(p, len, "RTSP/1.0 ")) return verdict::yes;
    if (find_in(p, line, " RTSP/1.0") > 0) {
        for (const char *m : {"OPTIONS ", "DESCRIBE ", "SETUP ", "PLAY ", "PAUSE ", "ANNOUNCE ",
                              "TEARDOWN ", "GET_PARAMETER ", "SET_PARAMETER ", "RECORD "})
            if (starts_with(p, len, m)) return verdict::yes;
    }
    return verdict::no;
}

verdict detect_stun(context &c) {
    const uint8_t *p = c.pkt->payload;
    uint32_t len = c.pkt->len;
    if (c.pkt->tcp && len >= 22 && rd16(p) + 2u == len) {  // framed over TCP
        p += 2;
        len -= 2;
    }
    if (len < 20 || (p[0] & 0xC0) || rd32(p + 4) != 0x2112A442) return verdict::no;
    uint32_t mlen = rd16(p + 2);
    return (mlen & 3) == 0 && mlen + 20 == len ? verdict::yes : verdict::no;
}

constexpr protocol_def kRows[] = {
    row(22, "SIP", cat::VoIP).tcp({5060, 5061}).udp({5060, 5061}).dissector(kBoth, 40, detect_sip),
    row(72, "RTSP", cat::Media).tcp(554).dissector(kTcp, 30, detect_rtsp),
    row(23, "STUN", cat::Network)
        .tcp(3478)
        .udp(3478, {19302, 19309})
        .dissector(kBoth, 90, detect_stun),
    row(73, "RTP", cat::Media),
    row(74, "RTCP", cat::Media),
};

}  // namespace

PELDA_DEFINE_FAMILY(media, kRows);

}  // namespace pelda
