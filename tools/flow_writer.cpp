#include "flow_writer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "pelda.h"
#include "quelm_bytes.h"

namespace quelm_tool {
namespace {

constexpr size_t kBufferSize = 1 << 20;

// Appends to a buffer whose room the caller has checked (kMaxRecordLen covers the longest record).
class Out {
  public:
    explicit Out(char *at) : start_(at), at_(at) {}
    Out &raw(const char *text, size_t n) {
        std::memcpy(at_, text, n);
        at_ += n;
        return *this;
    }
    template <size_t N>
    Out &lit(const char (&text)[N]) {
        return raw(text, N - 1);
    }
    Out &ch(char c) {
        *at_++ = c;
        return *this;
    }
    Out &u64(uint64_t v) {
        at_ = quelm::write_decimal(v, at_);
        return *this;
    }
    Out &hex8(uint8_t v) {
        static const char kHex[] = "0123456789abcdef";
        *at_++ = kHex[v >> 4];
        *at_++ = kHex[v & 15];
        return *this;
    }
    Out &mac(const uint8_t m[6]) {
        for (int i = 0; i < 6; i++) {
            if (i != 0) ch(':');
            hex8(m[i]);
        }
        return *this;
    }
    Out &str(const char *text, size_t max_len = SIZE_MAX) {
        at_ += format_json_string(text, at_, max_len);
        return *this;
    }
    Out &str(const std::string &text) { return str(text.c_str()); }
    // A closing quote after a text that needs no escaping.
    Out &str_raw(const char *text) { return raw(text, std::strlen(text)).ch('"'); }
    Out &time(const quelm_timeval &tv) {
        ch('"');
        at_ += format_timestamp(tv, at_);
        return ch('"');
    }
    Out &address(const uint8_t addr[16], uint8_t ip_version) {
        char text[INET6_ADDRSTRLEN];
        if (ip_version == 4) {
            uint32_t host;  // the key holds IPv4 addresses as host-order values
            std::memcpy(&host, addr, 4);
            const uint32_t net = htonl(host);
            inet_ntop(AF_INET, &net, text, sizeof text);
        } else {
            inet_ntop(AF_INET6, addr, text, sizeof text);
        }
        return str(text);
    }
    size_t size() const { return size_t(at_ - start_); }

  private:
    char *start_;
    char *at_;
};

const char *reason_of(uint32_t status) {
    switch (status) {
        case QUELM_FLOW_STATUS_IDLE_TIMEOUT:
            return "idle";
        case QUELM_FLOW_STATUS_LIFETIME_TIMEOUT:
            return "lifetime";
        case QUELM_FLOW_STATUS_FLUSHED:
            return "flush";
        case QUELM_FLOW_STATUS_SLICE:
            return "slice";
        default:
            return "active";
    }
}

const char *tunnel_name(uint32_t type) {
    switch (type) {
        case QUELM_TUNNEL_GTP_U:
            return "gtpv1-u";
        case QUELM_TUNNEL_CAPWAP:
            return "capwap";
        case QUELM_TUNNEL_L2TP:
            return "l2tp";
        case QUELM_TUNNEL_VXLAN:
            return "vxlan";
        default:
            return "unknown";
    }
}

bool earlier(const quelm_timeval &a, const quelm_timeval &b) {
    return a.tv_sec != b.tv_sec ? a.tv_sec < b.tv_sec : a.tv_usec < b.tv_usec;
}

bool seen(const quelm_timeval &tv) {
    return tv.tv_sec != 0 || tv.tv_usec != 0;
}

}  // namespace

// ---- Formats ---------------------------------------------------------------------------------

size_t format_timestamp(const quelm_timeval &tv, char *out) {
    // Flows of one capture share few distinct seconds: keep the last one's date and time text.
    static int64_t cached_sec = INT64_MIN;
    static char cached[20];
    if (tv.tv_sec != cached_sec) {
        const time_t t = time_t(tv.tv_sec);
        struct tm utc;
        if (gmtime_r(&t, &utc) == nullptr) std::memset(&utc, 0, sizeof utc);
        strftime(cached, sizeof cached, "%Y-%m-%dT%H:%M:%S", &utc);
        cached_sec = tv.tv_sec;
    }
    std::memcpy(out, cached, 19);
    out[19] = '.';
    int64_t usec = tv.tv_usec;
    if (usec < 0 || usec > 999999) usec = 0;
    for (int i = 25; i >= 20; i--) {
        out[i] = char('0' + usec % 10);
        usec /= 10;
    }
    std::memcpy(out + 26, "+0000", 5);
    return 31;
}

namespace {

// Length of the valid UTF-8 sequence at `p` (at most `room` bytes), or 0 when there is none.
size_t utf8_sequence(const unsigned char *p, size_t room) {
    size_t n;
    uint32_t min;
    if (p[0] >= 0xC2 && p[0] <= 0xDF) {
        n = 2, min = 0x80;
    } else if (p[0] >= 0xE0 && p[0] <= 0xEF) {
        n = 3, min = 0x800;
    } else if (p[0] >= 0xF0 && p[0] <= 0xF4) {
        n = 4, min = 0x10000;
    } else {
        return 0;
    }
    if (room < n) return 0;
    uint32_t code = p[0] & (0x7F >> n);
    for (size_t i = 1; i < n; i++) {
        if ((p[i] & 0xC0) != 0x80) return 0;
        code = code << 6 | (p[i] & 0x3F);
    }
    const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
    return code < min || code > 0x10FFFF || surrogate ? 0 : n;
}

}  // namespace

size_t format_json_string(const char *text, char *out, size_t max_len) {
    static const char kHex[] = "0123456789abcdef";
    const unsigned char *p = reinterpret_cast<const unsigned char *>(text);
    const size_t len = strnlen(text, max_len);
    char *at = out;
    *at++ = '"';
    for (size_t i = 0; i < len;) {
        const unsigned char c = p[i];
        if (c == '"' || c == '\\') {
            *at++ = '\\';
            *at++ = char(c);
            i++;
        } else if (c < 0x20 || c >= 0x80) {
            const size_t n = c >= 0x80 ? utf8_sequence(p + i, len - i) : 0;
            if (n != 0) {
                std::memcpy(at, p + i, n);
                at += n;
                i += n;
                continue;
            }
            std::memcpy(at, "\\u00", 4);
            at[4] = kHex[c >> 4];
            at[5] = kHex[c & 15];
            at += 6;
            i++;
        } else {
            *at++ = char(c);
            i++;
        }
    }
    *at++ = '"';
    return size_t(at - out);
}

std::string dns_type_name(uint16_t type) {
    static const std::map<uint16_t, const char *> kTypes = {
        {1, "A"},     {2, "NS"},    {5, "CNAME"},  {6, "SOA"},   {12, "PTR"},    {13, "HINFO"},
        {15, "MX"},   {16, "TXT"},  {28, "AAAA"},  {33, "SRV"},  {35, "NAPTR"},  {39, "DNAME"},
        {41, "OPT"},  {43, "DS"},   {46, "RRSIG"}, {47, "NSEC"}, {48, "DNSKEY"}, {50, "NSEC3"},
        {52, "TLSA"}, {64, "SVCB"}, {65, "HTTPS"}, {99, "SPF"},  {251, "IXFR"},  {252, "AXFR"},
        {255, "ANY"}, {257, "CAA"}};
    const auto it = kTypes.find(type);
    return it != kTypes.end() ? it->second : "TYPE" + std::to_string(type);
}

std::string dns_rcode_name(uint16_t rcode) {
    static const char *const kCodes[] = {"NOERROR", "FORMERR", "SERVFAIL", "NXDOMAIN",
                                         "NOTIMP",  "REFUSED", "YXDOMAIN", "YXRRSET",
                                         "NXRRSET", "NOTAUTH", "NOTZONE"};
    return rcode < std::size(kCodes) ? kCodes[rcode] : "RCODE" + std::to_string(rcode);
}

namespace {

const char *action_name(quelm_action action) {
    switch (action) {
        case QUELM_ACTION_FORWARD:
            return "forward";
        case QUELM_ACTION_DISCARD:
            return "discard";
        case QUELM_ACTION_USER_1:
            return "user_1";
        case QUELM_ACTION_USER_2:
            return "user_2";
        case QUELM_ACTION_SLICE:
            return "slice";
        default:
            return "default";
    }
}

// The application-protocol fields: the protocol, its category and the details detection found.
void write_l7(Out &o, quelm_flow *flow, quelm_table *table, bool answers_read) {
    const quelm_flow_value &v = *quelm_flow_get_value(flow);
    const quelm_l7_protocol &l7 = v.l7_protocol;
    char name[64], category[64];
    o.lit(",\"app_proto\":").str(quelm_l7_protocol_name(table, &l7, name, sizeof name));
    o.lit(",\"app_proto_id\":[").u64(l7.master_protocol).ch(',').u64(l7.app_protocol).ch(']');
    quelm_category_name(table, uint32_t(l7.category), category, sizeof category);
    o.lit(",\"category\":").str(category);
    if (v.flags & QUELM_FLOW_FLAG_L7_GUESSED)
        o.lit(",\"l7_guessed\":true");
    else
        o.lit(",\"l7_guessed\":false");
    // The details belong to the flow's protocol: the master's, else the application's.
    const uint16_t id = l7.master_protocol != 0 ? l7.master_protocol : l7.app_protocol;
    const quelm_flow_l7_metadata &md = v.l7_metadata;
    if (id == PELDA_PROTOCOL_HTTP &&
        (md.http.server_name != nullptr || md.http.url != nullptr || md.http.response_code != 0)) {
        const char *sep = "";
        o.lit(",\"http\":{");
        if (md.http.server_name != nullptr) {
            o.lit("\"hostname\":").str(md.http.server_name, kMaxNameLen);
            sep = ",";
        }
        if (md.http.url != nullptr) {
            o.raw(sep, std::strlen(sep)).lit("\"url\":").str(md.http.url, kMaxUrlLen);
            sep = ",";
        }
        if (md.http.response_code != 0)
            o.raw(sep, std::strlen(sep)).lit("\"status\":").u64(md.http.response_code);
        o.ch('}');
    } else if (id == PELDA_PROTOCOL_TLS &&
               (md.tls.server_name != nullptr || md.tls.certificate_fingerprint != nullptr)) {
        const char *sep = "";
        o.lit(",\"tls\":{");
        if (md.tls.server_name != nullptr) {
            o.lit("\"sni\":").str(md.tls.server_name, kMaxNameLen);
            sep = ",";
        }
        if (md.tls.certificate_fingerprint != nullptr) {
            o.raw(sep, std::strlen(sep)).lit("\"cert_sha1\":\"");
            for (int i = 0; i < 20; i++)
                o.hex8(md.tls.certificate_fingerprint[i]);
            o.ch('"');
        }
        o.ch('}');
    } else if (id == PELDA_PROTOCOL_DNS && md.dns.query != nullptr) {
        o.lit(",\"dns\":{\"rrname\":").str(md.dns.query, kMaxNameLen);
        if (md.dns.query_type != 0) {
            o.lit(",\"rrtype\":").str(dns_type_name(md.dns.query_type));
            o.lit(",\"rrtype_id\":").u64(md.dns.query_type);
        }
        // Without answers read, 0 is "no reply seen" rather than NOERROR.
        if (md.dns.reply_code != 0 || (answers_read && v.direction[1].pkts != 0)) {
            o.lit(",\"rcode\":").str(dns_rcode_name(md.dns.reply_code));
            o.lit(",\"rcode_id\":").u64(md.dns.reply_code);
        }
        o.ch('}');
    }
    const quelm_action action = quelm_flow_get_action(flow);
    if (action != QUELM_ACTION_DEFAULT) o.lit(",\"action\":\"").str_raw(action_name(action));
}

}  // namespace

size_t format_json_flow(quelm_flow *flow, quelm_table *table, bool answers_read, char *buffer) {
    const quelm_flow_key &k = *quelm_flow_get_key(flow);
    const quelm_flow_value &v = *quelm_flow_get_value(flow);
    const quelm_flow_dir_value &ts = v.direction[0];  // toserver: the first packet's sender
    const quelm_flow_dir_value &tc = v.direction[1];
    quelm_timeval start = ts.first, end = ts.last;
    if (seen(tc.first) && earlier(tc.first, start)) start = tc.first;
    if (seen(tc.last) && earlier(end, tc.last)) end = tc.last;

    Out o(buffer);
    o.lit("{\"timestamp\":").time(start);
    o.lit(",\"flow_id\":").u64(quelm_flow_get_id(flow));
    o.lit(",\"event_type\":\"flow\",\"src_ip\":").address(k.saddr, k.ip_version);
    if (k.protocol == 6 || k.protocol == 17) o.lit(",\"src_port\":").u64(k.sport);
    o.lit(",\"dest_ip\":").address(k.daddr, k.ip_version);
    if (k.protocol == 6 || k.protocol == 17) {
        o.lit(",\"dest_port\":").u64(k.dport);
    } else if ((k.protocol == 1 || k.protocol == 58) && (v.flags & QUELM_FLOW_FLAG_ICMP_QUERY)) {
        // A query and its replies: the query's type and identifier, in either port.
        const bool from_reply = (v.flags & QUELM_FLOW_FLAG_ICMP_FROM_REPLY) != 0;
        o.lit(",\"icmp_type\":").u64((from_reply ? k.sport : k.dport) >> 8);
        o.lit(",\"icmp_code\":0,\"icmp_id\":").u64(from_reply ? k.dport : k.sport);
    } else if (k.protocol == 1 || k.protocol == 58) {
        // The key keeps ICMP type and code in the destination port.
        o.lit(",\"icmp_type\":").u64(k.dport >> 8).lit(",\"icmp_code\":").u64(k.dport & 0xFF);
    }
    o.lit(",\"proto\":").str(utils_prototoa(k.protocol));
    if (k.vlan_id != 0) o.lit(",\"vlan\":[").u64(k.vlan_id).ch(']');
    o.lit(",\"ether\":{\"src_mac\":\"").mac(k.smac).lit("\",\"dest_mac\":\"").mac(k.dmac);
    o.lit("\"}");
    if (v.tunnel_type != QUELM_TUNNEL_NONE) {
        o.lit(",\"tunnel\":{\"type\":\"")
            .raw(tunnel_name(v.tunnel_type), std::strlen(tunnel_name(v.tunnel_type)));
        o.lit("\",\"id\":").u64(v.tunnel_id).ch('}');
    }
    o.lit(",\"flow\":{\"pkts_toserver\":").u64(ts.pkts);
    o.lit(",\"pkts_toclient\":").u64(tc.pkts);
    o.lit(",\"bytes_toserver\":").u64(ts.bytes);
    o.lit(",\"bytes_toclient\":").u64(tc.bytes);
    o.lit(",\"start\":").time(start).lit(",\"end\":").time(end);
    o.lit(",\"age\":").u64(uint64_t(end.tv_sec > start.tv_sec ? end.tv_sec - start.tv_sec : 0));
    o.lit(",\"reason\":\"").raw(reason_of(v.status), std::strlen(reason_of(v.status))).lit("\"}");
    if (k.protocol == 6) {
        o.lit(",\"tcp\":{\"tcp_flags\":\"").hex8(uint8_t(ts.tcp_flags | tc.tcp_flags));
        o.lit("\",\"tcp_flags_ts\":\"").hex8(ts.tcp_flags);
        o.lit("\",\"tcp_flags_tc\":\"").hex8(tc.tcp_flags).lit("\"}");
    }
    write_l7(o, flow, table, answers_read);
    o.lit("}\n");
    return o.size();
}

size_t format_text_flow(quelm_flow *flow, quelm_table *table, char *out) {
    quelm_flow_print(flow, out, kMaxRecordLen - 1, quelm_get_pelda_handle(table));
    const size_t n = std::strlen(out);
    out[n] = '\n';
    return n + 1;
}

void FlowWriter::write(quelm_flow *flow) {
    if (sink_ != nullptr && !sink_->failed()) {
        char *at = sink_->reserve(kMaxRecordLen);
        if (at != nullptr)
            sink_->commit(format_ == Format::kJson
                              ? format_json_flow(flow, table_, answers_read_, at)
                              : format_text_flow(flow, table_, at));
    }
    const quelm_flow_value &v = *quelm_flow_get_value(flow);
    const bool slice = v.status == QUELM_FLOW_STATUS_SLICE;
    flows_++;
    if (slice) slices_++;
    if (count_protocols_) {
        const quelm_l7_protocol &l7 = v.l7_protocol;
        ProtocolTotals &t = protocols_[uint32_t(l7.master_protocol) << 16 | l7.app_protocol];
        if (t.name.empty()) {
            char name[64];
            t.name = quelm_l7_protocol_name(table_, &l7, name, sizeof name);
        }
        if (!slice) t.flows++;
        t.packets += v.direction[0].pkts + v.direction[1].pkts;
        t.bytes += v.direction[0].bytes + v.direction[1].bytes;
    }
    if (export_)
        quelm_zmq_export_flow(flow, table_);  // the exporter owns the flow from here
    else
        quelm_flow_free(flow);
}

std::vector<ProtocolTotals> FlowWriter::protocol_totals() const {
    // Two pairs may share a name ("HTTP" alone and as its own master): merge them.
    std::map<std::string, ProtocolTotals> by_name;
    for (const auto &[id, t] : protocols_) {
        ProtocolTotals &m = by_name[t.name];
        m.name = t.name;
        m.flows += t.flows;
        m.packets += t.packets;
        m.bytes += t.bytes;
    }
    std::vector<ProtocolTotals> result;
    for (auto &[name, t] : by_name)
        result.push_back(t);
    std::stable_sort(
        result.begin(), result.end(),
        [](const ProtocolTotals &a, const ProtocolTotals &b) { return a.bytes > b.bytes; });
    return result;
}

// ---- Sink ------------------------------------------------------------------------------------

OutputSink::OutputSink() : buffer_(new char[kBufferSize]) {}

OutputSink::~OutputSink() {
    close();
}

bool OutputSink::open(const std::string &path, std::string *error) {
    if (path.empty() || path == "-") {
        fd_ = STDOUT_FILENO;
        owns_fd_ = false;
        name_ = "standard output";
        return true;
    }
    fd_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    name_ = path;
    if (fd_ < 0) {
        *error = "cannot create '" + path + "': " + std::strerror(errno);
        return false;
    }
    owns_fd_ = true;
    return true;
}

char *OutputSink::reserve(size_t n) {
    if (kBufferSize - used_ < n && !flush()) return nullptr;
    return buffer_.get() + used_;
}

void OutputSink::write(const char *data, size_t n) {
    while (n != 0 && !failed()) {
        const size_t piece = std::min(n, kBufferSize);
        char *at = reserve(piece);
        if (at == nullptr) return;
        std::memcpy(at, data, piece);
        commit(piece);
        data += piece;
        n -= piece;
    }
}

bool OutputSink::flush() {
    size_t done = 0;
    while (error_ == 0 && done < used_) {
        const ssize_t n = ::write(fd_, buffer_.get() + done, used_ - done);
        if (n > 0)
            done += size_t(n);
        else if (n == 0)
            error_ = EIO;
        else if (errno != EINTR)
            error_ = errno;
    }
    used_ = 0;
    return error_ == 0;
}

bool OutputSink::close() {
    if (fd_ < 0) return error_ == 0;
    flush();
    if (owns_fd_ && ::close(fd_) != 0 && error_ == 0) error_ = errno;
    fd_ = -1;
    return error_ == 0;
}

bool OutputSink::is_terminal() const {
    return fd_ >= 0 && isatty(fd_) == 1;
}

}  // namespace quelm_tool
