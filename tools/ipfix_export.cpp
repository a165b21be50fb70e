#include "ipfix_export.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "exit_codes.h"
#include "pelda.h"
#include "run_report.h"

namespace quelm_tool {
namespace {

constexpr uint16_t kVariable = 65535;
constexpr size_t kHeaderSize = 16;
constexpr size_t kMaxText = 255;       // longer names are cut, as in the JSON records
constexpr size_t kUdpMessage = 1400;   // below a common path MTU
constexpr size_t kTcpMessage = 16384;  // a stream has no such limit
constexpr int kConnectTimeoutMs = 1000;
constexpr double kMaxBackoff = 30;
constexpr double kMaxWait = 1;  // seconds a record waits in a message that is not full

struct Element {
    uint16_t id;
    uint16_t length;
    uint32_t pen;  // 0: IANA's
};

// The order of both templates and of their records.
std::vector<Element> elements(bool v6) {
    return {{152, 8, 0},                                         // flowStartMilliseconds
            {153, 8, 0},                                         // flowEndMilliseconds
            {uint16_t(v6 ? 27 : 8), uint16_t(v6 ? 16 : 4), 0},   // sourceIPv*Address
            {uint16_t(v6 ? 28 : 12), uint16_t(v6 ? 16 : 4), 0},  // destinationIPv*Address
            {7, 2, 0},                                           // sourceTransportPort
            {11, 2, 0},                                          // destinationTransportPort
            {4, 1, 0},                                           // protocolIdentifier
            {6, 2, 0},                                           // tcpControlBits
            {6, 2, kReversePen},                                 // ... of the reverse direction
            {1, 8, 0},                                           // octetDeltaCount
            {2, 8, 0},                                           // packetDeltaCount
            {1, 8, kReversePen},                                 // reverse octetDeltaCount
            {2, 8, kReversePen},                                 // reverse packetDeltaCount
            {58, 2, 0},                                          // vlanId
            {uint16_t(v6 ? 139 : 32), 2, 0},  // icmpTypeCodeIPv6 / icmpTypeCodeIPv4
            {136, 1, 0},                      // flowEndReason
            {96, kVariable, 0},               // applicationName
            {1, kVariable, kQuelmPen},        // HTTP host
            {2, kVariable, kQuelmPen},        // TLS server name
            {3, kVariable, kQuelmPen}};       // DNS query name
}

void put16(std::vector<uint8_t> &out, uint16_t v) {
    out.push_back(uint8_t(v >> 8));
    out.push_back(uint8_t(v));
}
void put32(std::vector<uint8_t> &out, uint32_t v) {
    put16(out, uint16_t(v >> 16));
    put16(out, uint16_t(v));
}
void put64(std::vector<uint8_t> &out, uint64_t v) {
    put32(out, uint32_t(v >> 32));
    put32(out, uint32_t(v));
}
void set16(std::vector<uint8_t> &out, size_t at, size_t v) {
    out[at] = uint8_t(v >> 8);
    out[at + 1] = uint8_t(v);
}
void put_text(std::vector<uint8_t> &out, const std::string &text) {
    const size_t n = std::min(text.size(), kMaxText);
    if (n < 255) {
        out.push_back(uint8_t(n));
    } else {
        out.push_back(255);
        put16(out, uint16_t(n));
    }
    out.insert(out.end(), text.begin(), text.begin() + long(n));
}

void put_record(std::vector<uint8_t> &out, const IpfixFlow &f) {
    const size_t address = f.ip_version == 6 ? 16 : 4;
    put64(out, f.start_ms);
    put64(out, f.end_ms);
    out.insert(out.end(), f.saddr.begin(), f.saddr.begin() + long(address));
    out.insert(out.end(), f.daddr.begin(), f.daddr.begin() + long(address));
    put16(out, f.sport);
    put16(out, f.dport);
    out.push_back(f.protocol);
    put16(out, f.tcp_flags[0]);
    put16(out, f.tcp_flags[1]);
    put64(out, f.bytes[0]);
    put64(out, f.packets[0]);
    put64(out, f.bytes[1]);
    put64(out, f.packets[1]);
    put16(out, f.vlan);
    put16(out, f.icmp_type_code);
    out.push_back(f.end_reason);
    put_text(out, f.application);
    put_text(out, f.http_host);
    put_text(out, f.tls_server_name);
    put_text(out, f.dns_query);
}

void put_header(std::vector<uint8_t> &out, size_t length, uint32_t export_time, uint32_t sequence,
                uint32_t domain) {
    put16(out, 10);
    put16(out, uint16_t(length));
    put32(out, export_time);
    put32(out, sequence);
    put32(out, domain);
}

uint64_t milliseconds(const quelm_timeval &tv) {
    return tv.tv_sec < 0 ? 0 : uint64_t(tv.tv_sec) * 1000 + uint64_t(tv.tv_usec) / 1000;
}

bool seen(const quelm_timeval &tv) {
    return tv.tv_sec != 0 || tv.tv_usec != 0;
}

void copy_address(const uint8_t *key_address, uint8_t ip_version, std::array<uint8_t, 16> &out) {
    if (ip_version == 4) {
        uint32_t host;  // the key holds IPv4 addresses as host-order values
        std::memcpy(&host, key_address, 4);
        const uint32_t net = htonl(host);
        std::memcpy(out.data(), &net, 4);
    } else {
        std::memcpy(out.data(), key_address, 16);
    }
}

uint8_t end_reason(uint32_t status) {
    switch (status) {
        case QUELM_FLOW_STATUS_IDLE_TIMEOUT:
            return 1;  // idle timeout
        case QUELM_FLOW_STATUS_LIFETIME_TIMEOUT:
        case QUELM_FLOW_STATUS_SLICE:
            return 2;  // active timeout: a slice is the part of a live flow up to now
        default:
            return 4;  // forced end: the end of the input, or Ctrl-C
    }
}

}  // namespace

IpfixFlow ipfix_flow(quelm_flow *flow, quelm_table *table) {
    const quelm_flow_key &k = *quelm_flow_get_key(flow);
    const quelm_flow_value &v = *quelm_flow_get_value(flow);
    IpfixFlow f;
    f.ip_version = k.ip_version;
    copy_address(k.saddr, k.ip_version, f.saddr);
    copy_address(k.daddr, k.ip_version, f.daddr);
    f.protocol = k.protocol;
    if (k.protocol == 6 || k.protocol == 17) {
        f.sport = k.sport;
        f.dport = k.dport;
    } else if ((k.protocol == 1 || k.protocol == 58) && (v.flags & QUELM_FLOW_FLAG_ICMP_QUERY)) {
        // A query with its replies: the query's type, wherever the key keeps it.
        f.icmp_type_code = (v.flags & QUELM_FLOW_FLAG_ICMP_FROM_REPLY) ? k.sport : k.dport;
    } else if (k.protocol == 1 || k.protocol == 58) {
        f.icmp_type_code = k.dport;  // type << 8 | code
    }
    f.vlan = k.vlan_id;
    quelm_timeval start = v.direction[0].first, end = v.direction[0].last;
    for (const quelm_flow_dir_value &d : v.direction) {
        if (!seen(d.first)) continue;
        if (!seen(start) || milliseconds(d.first) < milliseconds(start)) start = d.first;
        if (milliseconds(d.last) > milliseconds(end)) end = d.last;
    }
    f.start_ms = milliseconds(start);
    f.end_ms = milliseconds(end);
    for (int d = 0; d < 2; d++) {
        f.bytes[d] = v.direction[d].bytes;
        f.packets[d] = v.direction[d].pkts;
        f.tcp_flags[d] = v.direction[d].tcp_flags;
    }
    f.end_reason = end_reason(v.status);
    const quelm_l7_protocol &l7 = v.l7_protocol;
    char name[64];
    f.application = quelm_l7_protocol_name(table, &l7, name, sizeof name);
    // The details belong to the flow's protocol: the master's, else the application's.
    const uint16_t id = l7.master_protocol != 0 ? l7.master_protocol : l7.app_protocol;
    const quelm_flow_l7_metadata &md = v.l7_metadata;
    if (id == PELDA_PROTOCOL_HTTP && md.http.server_name != nullptr)
        f.http_host = md.http.server_name;
    else if (id == PELDA_PROTOCOL_TLS && md.tls.server_name != nullptr)
        f.tls_server_name = md.tls.server_name;
    else if (id == PELDA_PROTOCOL_DNS && md.dns.query != nullptr)
        f.dns_query = md.dns.query;
    return f;
}

std::vector<uint8_t> IpfixMessages::templates(uint32_t export_time) const {
    std::vector<uint8_t> set;
    put16(set, 2);  // template set
    put16(set, 0);
    for (const bool v6 : {false, true}) {
        const std::vector<Element> list = elements(v6);
        put16(set, v6 ? kTemplateIpv6 : kTemplateIpv4);
        put16(set, uint16_t(list.size()));
        for (const Element &e : list) {
            put16(set, uint16_t(e.id | (e.pen != 0 ? 0x8000 : 0)));
            put16(set, e.length);
            if (e.pen != 0) put32(set, e.pen);
        }
    }
    set16(set, 2, set.size());
    std::vector<uint8_t> message;
    put_header(message, kHeaderSize + set.size(), export_time, sequence_, domain_);
    message.insert(message.end(), set.begin(), set.end());
    return message;
}

bool IpfixMessages::add(const IpfixFlow &flow) {
    const uint16_t id = flow.ip_version == 6 ? kTemplateIpv6 : kTemplateIpv4;
    const size_t before = body_.size(), set_before = set_start_;
    if (id != set_id_) {
        set_start_ = body_.size();
        put16(body_, id);
        put16(body_, 4);
    }
    put_record(body_, flow);
    if (pending_ != 0 && kHeaderSize + body_.size() > max_size_) {
        body_.resize(before);
        set_start_ = set_before;
        return false;
    }
    set_id_ = id;
    set16(body_, set_start_ + 2, body_.size() - set_start_);
    pending_++;
    return true;
}

std::vector<uint8_t> IpfixMessages::take(uint32_t export_time) {
    std::vector<uint8_t> message;
    message.reserve(kHeaderSize + body_.size());
    put_header(message, kHeaderSize + body_.size(), export_time, sequence_, domain_);
    message.insert(message.end(), body_.begin(), body_.end());
    sequence_ += uint32_t(pending_);
    pending_ = 0;
    body_.clear();
    set_id_ = 0;
    return message;
}

// ---- Transports ------------------------------------------------------------------------------

// One collector: its socket, its messages, and what reached it or did not.
class IpfixCollector {
  public:
    IpfixCollector(std::string url, bool tcp, const addrinfo &address, const IpfixOptions &o)
        : url_(std::move(url)),
          tcp_(tcp),
          messages_(o.domain, tcp ? kTcpMessage : kUdpMessage),
          refresh_(o.template_refresh) {
        std::memcpy(&address_, address.ai_addr, address.ai_addrlen);
        address_len_ = address.ai_addrlen;
        family_ = address.ai_family;
    }
    ~IpfixCollector() {
        if (fd_ >= 0) close(fd_);
    }

    // UDP: a connected socket; TCP: a first attempt (a failure only delays the records).
    bool open(std::string *error) {
        if (tcp_) {
            if (!connect_tcp())
                fprintf(stderr,
                        "quelm flows: cannot connect to %s (%s); trying again as records come\n",
                        url_.c_str(), last_error_.c_str());
            return true;
        }
        fd_ = socket(family_, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (fd_ < 0 || connect(fd_, reinterpret_cast<sockaddr *>(&address_), address_len_) != 0) {
            *error = "cannot open a socket to " + url_ + ": " + std::strerror(errno);
            return false;
        }
        return true;
    }

    void add(const IpfixFlow &flow) {
        if (messages_.pending() == 0) first_pending_ = now_seconds();
        if (messages_.add(flow)) return;
        flush();
        messages_.add(flow);
        first_pending_ = now_seconds();
    }

    void tick() {
        const double now = now_seconds();
        if (messages_.pending() != 0 && now - first_pending_ >= kMaxWait) flush();
        if (!tcp_ && templates_due(now)) send_templates(now);
    }

    void flush() {
        const size_t records = messages_.pending();
        if (records == 0) return;
        const double now = now_seconds();
        if (tcp_ && (fd_ < 0 || peer_closed()) && (fd_ >= 0 || now >= next_attempt_)) {
            if (fd_ >= 0) lose_connection("the collector closed the connection");
            connect_tcp();
        }
        if (fd_ < 0) {
            messages_.take(0);
            not_connected_ += records;
            return;
        }
        if (!tcp_ && templates_due(now)) send_templates(now);
        if (send_message(messages_.take(uint32_t(time(nullptr))))) {
            sent_ += records;
            messages_since_templates_++;
        } else {
            send_failed_ += records;
        }
    }

    // At the end: one more chance to connect, whatever the back-off says.
    void finish() {
        next_attempt_ = 0;
        flush();
        if (fd_ >= 0) close(fd_);
        fd_ = -1;
    }

    uint64_t lost() const { return not_connected_ + send_failed_; }

    void print_stats(FILE *out) const {
        const std::string connections =
            tcp_ ? ", " + std::to_string(connections_) + " connections" : "";
        fprintf(out,
                "%-20s %llu records to %s, %llu not sent (%llu without a connection, %llu "
                "in failed sends)%s\n",
                "ipfix export", (unsigned long long)sent_, url_.c_str(), (unsigned long long)lost(),
                (unsigned long long)not_connected_, (unsigned long long)send_failed_,
                connections.c_str());
    }

    void report() const {
        if (lost() == 0) {
            fprintf(stderr, "quelm flows: sent %llu IPFIX records to %s\n",
                    (unsigned long long)sent_, url_.c_str());
            return;
        }
        std::string why;
        if (not_connected_ != 0) why += std::to_string(not_connected_) + " without a connection";
        if (send_failed_ != 0)
            why += (why.empty() ? "" : ", ") + std::to_string(send_failed_) + " in failed sends";
        fprintf(stderr,
                "quelm flows: warning: %llu IPFIX records not sent to %s: %s (last error: %s); "
                "%llu sent\n",
                (unsigned long long)lost(), url_.c_str(), why.c_str(), last_error_.c_str(),
                (unsigned long long)sent_);
    }

  private:
    bool templates_due(double now) const {
        return now - templates_at_ >= refresh_ || messages_since_templates_ >= refresh_;
    }
    void send_templates(double now) {
        if (!send_message(messages_.templates(uint32_t(time(nullptr))))) return;
        templates_at_ = now;
        messages_since_templates_ = 0;
    }

    bool send_message(const std::vector<uint8_t> &message) {
        size_t done = 0;
        while (done < message.size()) {
            const ssize_t n = send(fd_, message.data() + done, message.size() - done, MSG_NOSIGNAL);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) {
                last_error_ = n < 0 && errno == EAGAIN ? "the collector did not take the data "
                                                         "in time"
                                                       : std::strerror(errno);
                // A stream cut within a message cannot go on.
                if (tcp_) lose_connection(last_error_);
                return false;
            }
            done += size_t(n);
        }
        return true;
    }

    // A collector sends nothing: anything to read is the end of the connection.
    bool peer_closed() const {
        pollfd p = {fd_, POLLIN, 0};
        return poll(&p, 1, 0) > 0;
    }

    void lose_connection(const std::string &why) {
        last_error_ = why;
        close(fd_);
        fd_ = -1;
        next_attempt_ = now_seconds();  // at once, then backing off
    }

    bool connect_tcp() {
        fd_ = socket(family_, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        int error = fd_ < 0 ? errno : 0;
        if (error == 0 &&
            connect(fd_, reinterpret_cast<sockaddr *>(&address_), address_len_) != 0) {
            error = errno;
            pollfd p = {fd_, POLLOUT, 0};
            if (error == EINPROGRESS && poll(&p, 1, kConnectTimeoutMs) == 1) {
                socklen_t len = sizeof error;
                getsockopt(fd_, SOL_SOCKET, SO_ERROR, &error, &len);
            } else if (error == EINPROGRESS) {
                error = ETIMEDOUT;
            }
        }
        if (error != 0) {
            if (fd_ >= 0) close(fd_);
            fd_ = -1;
            last_error_ = std::strerror(error);
            next_attempt_ = now_seconds() + backoff_;
            backoff_ = std::min(backoff_ * 2, kMaxBackoff);
            return false;
        }
        // Blocking from now on, with a limit to how long a slow collector can hold the run.
        fcntl(fd_, F_SETFL, fcntl(fd_, F_GETFL) & ~O_NONBLOCK);
        const timeval limit = {5, 0};
        setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
        backoff_ = 1;
        connections_++;
        messages_.restart();  // a new transport session
        send_templates(now_seconds());
        return fd_ >= 0;
    }

    std::string url_;
    bool tcp_;
    sockaddr_storage address_{};
    socklen_t address_len_ = 0;
    int family_ = AF_INET;
    int fd_ = -1;
    IpfixMessages messages_;
    uint32_t refresh_;
    double templates_at_ = -1e18;
    uint32_t messages_since_templates_ = 0;
    double first_pending_ = 0;
    double next_attempt_ = 0;
    double backoff_ = 1;
    unsigned connections_ = 0;
    uint64_t sent_ = 0, not_connected_ = 0, send_failed_ = 0;
    std::string last_error_ = "none";
};

namespace {

// "udp://HOST:PORT" or "tcp://[V6ADDR]:PORT" into its parts; false when it is not one.
bool parse_url(const std::string &url, bool *tcp, std::string *host, std::string *port) {
    const size_t scheme = url.find("://");
    if (scheme == std::string::npos) return false;
    const std::string kind = url.substr(0, scheme), rest = url.substr(scheme + 3);
    if (kind != "udp" && kind != "tcp") return false;
    *tcp = kind == "tcp";
    const size_t colon = rest.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == rest.size()) return false;
    *host = rest.substr(0, colon);
    *port = rest.substr(colon + 1);
    if (host->front() == '[' && host->back() == ']') *host = host->substr(1, host->size() - 2);
    return port->size() <= 5 && port->find_first_not_of("0123456789") == std::string::npos &&
           std::stoul(*port) != 0 && std::stoul(*port) < 65536;
}

}  // namespace

void add_ipfix_options(CLI::App &command, IpfixOptions &o) {
    const char *group = "IPFIX export";
    CLI::Option *ipfix =
        command
            .add_option("--ipfix", o.collectors,
                        "Export every flow as a bidirectional IPFIX record to the collector at "
                        "udp://HOST:PORT or tcp://HOST:PORT (repeat for more) instead of writing "
                        "it; with -w also write it")
            ->type_name("URL")
            ->group(group);
    command.add_option("--ipfix-domain", o.domain, "Observation domain id of the messages")
        ->type_name("N")
        ->capture_default_str()
        ->needs(ipfix)
        ->group(group);
    command
        .add_option("--ipfix-template-refresh", o.template_refresh,
                    "Over UDP, send the templates again every SECONDS, and at least every that "
                    "many messages (over TCP they go once per connection)")
        ->type_name("SECONDS")
        ->capture_default_str()
        ->check(CLI::Range(1u, 86400u).description(""))
        ->needs(ipfix)
        ->group(group);
}

IpfixExport::IpfixExport() = default;
IpfixExport::~IpfixExport() = default;

int IpfixExport::start(const IpfixOptions &o) {
    for (const std::string &url : o.collectors) {
        bool tcp = false;
        std::string host, port, error;
        if (!parse_url(url, &tcp, &host, &port)) {
            fprintf(stderr, "quelm flows: --ipfix %s: give udp://HOST:PORT or tcp://HOST:PORT\n",
                    url.c_str());
            return kExitUsage;
        }
        addrinfo hints{}, *found = nullptr;
        hints.ai_socktype = tcp ? SOCK_STREAM : SOCK_DGRAM;
        const int rc = getaddrinfo(host.c_str(), port.c_str(), &hints, &found);
        if (rc != 0) {
            fprintf(stderr, "quelm flows: --ipfix %s: %s\n", url.c_str(), gai_strerror(rc));
            return kExitNoHost;
        }
        collectors_.push_back(std::make_unique<IpfixCollector>(url, tcp, *found, o));
        freeaddrinfo(found);
        if (!collectors_.back()->open(&error)) {
            fprintf(stderr, "quelm flows: %s\n", error.c_str());
            return kExitUnavailable;
        }
    }
    return kExitOk;
}

void IpfixExport::add(quelm_flow *flow, quelm_table *table) {
    const IpfixFlow f = ipfix_flow(flow, table);
    for (auto &c : collectors_)
        c->add(f);
}

void IpfixExport::tick() {
    for (auto &c : collectors_)
        c->tick();
}

int IpfixExport::finish() {
    int rc = kExitOk;
    for (auto &c : collectors_) {
        c->finish();
        if (c->lost() != 0) rc = kExitTempFail;
    }
    return rc;
}

void IpfixExport::print_stats(FILE *out) const {
    for (const auto &c : collectors_)
        c->print_stats(out);
}

void IpfixExport::report() const {
    for (const auto &c : collectors_)
        c->report();
}

}  // namespace quelm_tool
