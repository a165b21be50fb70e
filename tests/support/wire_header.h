// An export message's header as a collector reads it: the topic padded with NULs, the format
// version, the payload's size in host order and the exporter's message counter, big-endian.
#pragma once

#include <arpa/inet.h>

#include <cstring>
#include <string>

#include "quelm_wire.h"

namespace quelm_test {

inline std::string wire_header(const char *topic, uint8_t version, uint16_t size,
                               uint32_t counter) {
    namespace wire = quelm::wire;
    std::string h(wire::kHeaderLen, '\0');
    std::memcpy(h.data(), topic, std::strlen(topic));
    h[wire::kVersionAt] = char(version);
    std::memcpy(h.data() + wire::kSizeAt, &size, 2);
    const uint32_t c = htonl(counter);
    std::memcpy(h.data() + wire::kCounterAt, &c, 4);
    return h;
}

}  // namespace quelm_test
