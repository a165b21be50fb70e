// Test support: captures, packets built with the project's packet builder, and a driver
// that feeds flows to the engine the way the flow table does.
#ifndef PELDA_TESTS_SUPPORT_H
#define PELDA_TESTS_SUPPORT_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "pelda.h"

namespace pt {

using bytes = std::vector<uint8_t>;

struct packet {
    bytes ip;  // from the IP header on
    uint64_t time_ms = 0;
};

// Packets of a pcap/pcapng file from their IP header on (Ethernet with VLAN tags, raw IP,
// loopback, Linux cooked and PPP are stripped); false when the file cannot be opened.
bool read_capture(const std::string &path, std::vector<packet> *out);
std::string corpus_file(const std::string &name);  // "" when the shared corpus is absent
std::string data_file(const std::string &name);    // a capture kept with the tests

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
// Every packet to one flow; the last result.
pelda_protocol feed(pelda_detection_module *m, pelda_flow *f, const std::vector<packet> &pk);

struct flow_result {
    pelda_protocol result{};
    bool guessed = false;
    uint32_t packets = 0;
    uint32_t packet_decided = 0;  // 1-based packet on which detection ended
    uint16_t giveup_app = 0;      // byte 30 of the flow object
    std::string summary;          // name and the fields callers read at fixed offsets
};
// "NAME sn=server url=... hc=200 dq=28 dr=3 sha1=..." (fields only when set) and " guessed".
std::string summary(pelda_detection_module *m, const pelda_protocol &r, const pelda_flow *f);

struct drive_options {
    bool extra_dissection = false;
    uint32_t tcp_limit = 12;
    uint32_t udp_limit = 5;
};
// Groups packets into bidirectional flows and runs detection as the flow table does: until
// a protocol is named (or state 3 / the longer budget with extra dissection), giving up past
// the packet limit, guessing flows of other IP protocols.
std::vector<flow_result> drive(pelda_detection_module *m, const std::vector<packet> &packets,
                               const drive_options &opt = {});

bytes hex(const std::string &h);  // "16 03 01" or "160301"
inline bytes text(const std::string &s) {
    return bytes(s.begin(), s.end());
}

// Packets from the IP header on (IPv4 or IPv6 by the address), built with quelm_test::Frame.
struct endpoint {
    std::string addr;
    uint16_t port;
};
bytes udp(const endpoint &src, const endpoint &dst, const bytes &payload);
bytes tcp(const endpoint &src, const endpoint &dst, uint32_t seq, uint8_t flags,
          const bytes &payload = {});

// A TCP conversation: handshake, then payloads in order from either side.
class conversation {
  public:
    conversation(endpoint client, endpoint server) : c_(client), s_(server) {}
    void handshake();
    void client_sends(const bytes &payload) { send(c_, s_, cseq_, payload); }
    void server_sends(const bytes &payload) { send(s_, c_, sseq_, payload); }
    std::vector<packet> packets;

  private:
    void send(const endpoint &from, const endpoint &to, uint32_t &seq, const bytes &payload);
    endpoint c_, s_;
    uint32_t cseq_ = 1000, sseq_ = 5000;
    uint64_t t_ = 1000;
};

}  // namespace pt

#endif  // PELDA_TESTS_SUPPORT_H
