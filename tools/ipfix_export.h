// IPFIX export of `quelm flows`: bidirectional flow records (forward and reverse counters in one
// record) to collectors over UDP or TCP. The message builder is pure; the transports own the
// sockets, the template refresh, reconnection and the count of what could not be sent.
#pragma once

#include <quelm.h>

#include <CLI/CLI.hpp>

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace quelm_tool {

// Enterprise numbers: reverse elements of bidirectional records, and quelm's own elements (the
// documentation number, a placeholder until quelm has one of its own).
inline constexpr uint32_t kReversePen = 29305;
inline constexpr uint32_t kQuelmPen = 32473;
inline constexpr uint16_t kTemplateIpv4 = 256;
inline constexpr uint16_t kTemplateIpv6 = 257;

// One flow as it goes out: addresses in network order, times in milliseconds since the epoch.
struct IpfixFlow {
    uint8_t ip_version = 4;
    std::array<uint8_t, 16> saddr{}, daddr{};
    uint16_t sport = 0, dport = 0;  // 0 for protocols without ports
    uint16_t icmp_type_code = 0;    // type << 8 | code, ICMP and ICMPv6 only
    uint8_t protocol = 0;
    uint16_t vlan = 0;
    uint64_t start_ms = 0, end_ms = 0;
    uint64_t bytes[2] = {}, packets[2] = {};  // [0]: source to destination
    uint8_t tcp_flags[2] = {};
    uint8_t end_reason = 0;  // flowEndReason
    std::string application, http_host, tls_server_name, dns_query;
};

// The flow's fields as the table holds them; `table` names the application protocol.
IpfixFlow ipfix_flow(quelm_flow *flow, quelm_table *table);

// Builds the messages of one observation domain on one transport session. Sequence numbers count
// the data records of the messages taken, as the collector sees them.
class IpfixMessages {
  public:
    IpfixMessages(uint32_t domain, size_t max_size) : domain_(domain), max_size_(max_size) {}
    // A message of the two templates.
    std::vector<uint8_t> templates(uint32_t export_time) const;
    // Adds the flow to the message being built; false when it does not fit (take() it first).
    bool add(const IpfixFlow &flow);
    size_t pending() const { return pending_; }
    // The message being built, finished; the next one starts empty.
    std::vector<uint8_t> take(uint32_t export_time);
    // A new transport session starts counting anew.
    void restart() { sequence_ = 0; }
    uint32_t sequence() const { return sequence_; }

  private:
    uint32_t domain_;
    size_t max_size_;
    uint32_t sequence_ = 0;
    size_t pending_ = 0;
    std::vector<uint8_t> body_;  // the sets after the header
    size_t set_start_ = 0;       // where the open set's header is
    uint16_t set_id_ = 0;        // 0: no open set
};

struct IpfixOptions {
    std::vector<std::string> collectors;  // --ipfix udp://HOST:PORT or tcp://HOST:PORT
    uint32_t domain = 0;                  // --ipfix-domain
    uint32_t template_refresh = 60;       // --ipfix-template-refresh: seconds and messages (UDP)
};

void add_ipfix_options(CLI::App &command, IpfixOptions &options);

class IpfixCollector;

// Every collector of one run: each flow goes to all of them.
class IpfixExport {
  public:
    IpfixExport();
    ~IpfixExport();
    // Resolves and connects; 0, or an exit code after saying what is wrong.
    int start(const IpfixOptions &options);
    bool active() const { return !collectors_.empty(); }
    void add(quelm_flow *flow, quelm_table *table);
    // Call now and then: sends a message that has waited a second, and due templates.
    void tick();
    // Sends what is left; 0, or 75 when records were not sent.
    int finish();
    // Lines for --stats, and warnings about records not sent.
    void print_stats(FILE *out) const;
    void report() const;

  private:
    std::vector<std::unique_ptr<IpfixCollector>> collectors_;
};

}  // namespace quelm_tool
