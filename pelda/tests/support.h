// Captures, built packets, and a driver that feeds flows to the engine as the flow table does.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "pelda.h"

namespace pt {

using bytes = std::vector<uint8_t>;
bytes hex(const std::string &h);  // "16 03 01" or "160301"
inline bytes text(const std::string &s) {
    return bytes(s.begin(), s.end());
}

struct packet {
    bytes ip;  // from the IP header on
    uint64_t time_ms = 0;
};
// A capture's packets from their IP header on, link headers stripped; false when unreadable.
bool read_capture(const std::string &path, std::vector<packet> *out);
inline std::string data_file(const std::string &name) {
    return PELDA_TEST_DATA_DIR "/" + name;
}

// Packets from the IP header on (IPv6 for addresses with ':').
struct endpoint {
    std::string addr;
    uint16_t port;
};
bytes udp(const endpoint &src, const endpoint &dst, const bytes &payload);
bytes tcp(const endpoint &src, const endpoint &dst, uint32_t seq, uint8_t flags,
          const bytes &payload = {});
// A TCP (or UDP) conversation: handshake, then payloads in order from either side.
struct conversation {
    conversation(endpoint client, endpoint server) : c(client), s(server) {}
    endpoint c, s;
    std::vector<packet> packets;
    uint32_t cseq = 1000, sseq = 5000;
    bool udp = false;
    void handshake();
    void sends(bool from_client, const bytes &payload);
    void client_sends(const bytes &payload) { sends(true, payload); }
    void server_sends(const bytes &payload) { sends(false, payload); }
};

struct owned_module {
    pelda_detection_module *m;
    explicit owned_module(bool guess = true);
    ~owned_module() { pelda_exit_detection_module(m); }
    operator pelda_detection_module *() const { return m; }
};
struct flow_deleter {
    void operator()(pelda_flow *f) const { pelda_free_flow(f); }
};
using flow_ptr = std::unique_ptr<pelda_flow, flow_deleter>;
flow_ptr new_flow();
// "NAME sn=... url=... hc=200 dq=28 dr=3 sha1=...": the name and those of the fields callers
// read at fixed offsets of the flow object that are set; "buffers kept" when a done flow still
// holds reassembly buffers.
std::string summary(pelda_detection_module *m, const pelda_protocol &r, const pelda_flow *f);
std::string to_hex(const uint8_t *p, size_t n);

struct flow_result {
    pelda_protocol result{};
    bool guessed = false;
    uint32_t packet_decided = 0;  // the flow's packet that ended detection (or its last), from 1
    std::string summary;          // pt::summary, and " guessed" after a give-up or guess
};
// Runs each bidirectional flow as the flow table does: until a protocol is named (with extra
// dissection: state DONE or the callers' budget), giving up past `tcp_limit` TCP / 5 UDP
// packets; packets of other IP protocols are skipped.
std::vector<flow_result> drive(pelda_detection_module *m, const std::vector<packet> &packets,
                               bool extra_dissection = false, uint32_t tcp_limit = 12);

}  // namespace pt
