// Test support: capture reading, packet building and a driver that feeds flows
// to the engine the way the flow table does.
#ifndef PELDA_TESTS_SUPPORT_H
#define PELDA_TESTS_SUPPORT_H

#include <cstdint>
#include <map>
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

// Packets of a capture (pcap or pcapng) from their IP header on; link layers the
// engine's callers strip (Ethernet with VLAN tags, raw IP, loopback, Linux cooked,
// PPP) are removed. Returns false when the file cannot be opened.
bool read_capture(const std::string &path, std::vector<packet> *out);

// Path of a capture in the shared corpus, or "" when the corpus is absent.
std::string corpus_file(const std::string &name);
// Path of a capture kept with the tests.
std::string data_file(const std::string &name);

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

// Fields of the flow object read at the fixed offsets callers use.
struct flow_fields {
    uint16_t giveup_app;  // byte 30
    std::string server_name;
    bool has_server_name;
    uint16_t http_response_code;
    std::string url;
    bool has_url;
    uint8_t dns_reply_code;
    uint16_t dns_query_type;
    bytes sha1;
};
flow_fields read_fields(const pelda_flow *f);

struct flow_result {
    std::string key;  // "proto a:p <-> b:q"
    pelda_protocol result{};
    bool guessed = false;
    uint32_t packets = 0;
    uint32_t packet_decided = 0;  // 1-based packet number on which detection ended
    flow_fields fields{};
    std::string name;  // pelda_protocol2name of the result
};

struct drive_options {
    bool extra_dissection = false;
    uint32_t tcp_limit = 12;
    uint32_t udp_limit = 5;
};

// Groups packets into bidirectional flows and runs detection on each as the flow
// table does: until a protocol is named (or state 3 / the extra limit with extra
// dissection), giving up past the packet limit, guessing non-TCP/UDP flows.
std::vector<flow_result> drive(pelda_detection_module *m, const std::vector<packet> &packets,
                               const drive_options &opt = {});

// Packet building.
struct endpoint {
    std::string addr;  // dotted IPv4 or IPv6 text
    uint16_t port;
};
bytes ipv4_udp(const endpoint &src, const endpoint &dst, const bytes &payload);
bytes ipv4_tcp(const endpoint &src, const endpoint &dst, uint32_t seq, uint8_t flags,
               const bytes &payload);
bytes ipv6_udp(const endpoint &src, const endpoint &dst, const bytes &payload);
bytes ipv6_tcp(const endpoint &src, const endpoint &dst, uint32_t seq, uint8_t flags,
               const bytes &payload);
bytes text(const std::string &s);
bytes hex(const std::string &h);  // "16 03 01" or "160301"

// A TCP conversation: handshake, then payloads in order from either side.
class tcp_conversation {
  public:
    tcp_conversation(endpoint client, endpoint server, bool v6 = false);
    void handshake();
    void client_sends(const bytes &payload);
    void server_sends(const bytes &payload);
    std::vector<packet> packets;

  private:
    endpoint c_, s_;
    bool v6_;
    uint32_t cseq_ = 1000, sseq_ = 5000;
    uint64_t t_ = 1000;
};

}  // namespace pt

#endif  // PELDA_TESTS_SUPPORT_H
