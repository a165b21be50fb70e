#include "flow_record.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <map>
#include <utility>

#include "pelda.h"
#include "quelm_bytes.h"

namespace quelm_tool {
namespace {

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
    Out &time_text(const quelm_timeval &tv) {
        at_ += format_timestamp(tv, at_);
        return *this;
    }
    // Text for a line of the text form: at most `max_len` bytes, control characters as '?'.
    Out &plain(const char *text, size_t max_len = SIZE_MAX) {
        for (size_t i = 0; i < max_len && text[i] != '\0'; i++)
            *at_++ = uint8_t(text[i]) < 0x20 || text[i] == 0x7F ? '?' : text[i];
        return *this;
    }
    size_t size() const { return size_t(at_ - start_); }

  private:
    char *start_;
    char *at_;
};

// By enum quelm_flow_status and enum quelm_tunnel_type, which leave 3 unused.
static_assert(QUELM_FLOW_STATUS_IDLE_TIMEOUT == 1 && QUELM_FLOW_STATUS_FLUSHED == 4 &&
              QUELM_FLOW_STATUS_SLICE == 5 && QUELM_TUNNEL_L2TP == 4 && QUELM_TUNNEL_VXLAN == 5);

const char *reason_of(uint32_t status) {
    static const char *const kReasons[] = {"active", "idle",  "lifetime",
                                           "active", "flush", "slice"};
    return status < std::size(kReasons) ? kReasons[status] : "active";
}

const char *tunnel_name(uint32_t type) {
    static const char *const kNames[] = {"unknown", "gtpv1-u", "capwap",
                                         "unknown", "l2tp",    "vxlan"};
    return type < std::size(kNames) ? kNames[type] : "unknown";
}

bool earlier(const quelm_timeval &a, const quelm_timeval &b) {
    return a.tv_sec != b.tv_sec ? a.tv_sec < b.tv_sec : a.tv_usec < b.tv_usec;
}

bool seen(const quelm_timeval &tv) {
    return tv.tv_sec != 0 || tv.tv_usec != 0;
}

const char *address_text(const uint8_t addr[16], uint8_t ip_version, char *text) {
    if (ip_version == 4) {
        uint32_t host;  // the key holds IPv4 addresses as host-order values
        std::memcpy(&host, addr, 4);
        const uint32_t net = htonl(host);
        return inet_ntop(AF_INET, &net, text, INET6_ADDRSTRLEN);
    }
    return inet_ntop(AF_INET6, addr, text, INET6_ADDRSTRLEN);
}

const char *mac_text(const uint8_t m[6], char *text) {
    static const char kHex[] = "0123456789abcdef";
    for (int i = 0; i < 6; i++) {
        text[3 * i] = kHex[m[i] >> 4];
        text[3 * i + 1] = kHex[m[i] & 15];
        text[3 * i + 2] = i < 5 ? ':' : '\0';
    }
    return text;
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

const char *eve_reason(const FlowFields &f) {
    switch (f.status) {
        case QUELM_FLOW_STATUS_IDLE_TIMEOUT:
        case QUELM_FLOW_STATUS_LIFETIME_TIMEOUT:
            return "timeout";
        case QUELM_FLOW_STATUS_FLUSHED:
            return f.by_signal ? "shutdown" : "forced";
        default:  // a slice, written while its flow goes on
            return "forced";
    }
}

constexpr int kFin = 0x01, kRst = 0x04, kAck = 0x10;

// "new", "established" or "closed" from the packets and TCP flags seen each way; null when the
// record carries too little to tell.
const char *state_of(const FlowFields &f) {
    if (f.ts.pkts < 0 || f.tc.pkts < 0) return nullptr;
    const bool both = f.ts.pkts > 0 && f.tc.pkts > 0;
    if (f.ip_protocol != 6) return both ? "established" : "new";
    if (f.ts.tcp_flags < 0) return nullptr;
    if (((f.ts.tcp_flags | std::max(f.tc.tcp_flags, 0)) & (kFin | kRst)) != 0) return "closed";
    // Each side acknowledged the other; with the client's flags alone, answers that came back.
    const bool answered = f.tc.tcp_flags < 0 || (f.tc.tcp_flags & kAck) != 0;
    return both && (f.ts.tcp_flags & kAck) != 0 && answered ? "established" : "new";
}

// EVE's app_proto: its name of the protocol detection read from the payload, "failed" for a TCP or
// UDP flow it could not name (a guess is no reading), null when no engine looked or EVE has no
// name for the protocol.
const char *app_proto_of(const FlowFields &f) {
    if (!f.l7_known || !f.detection) return nullptr;
    const bool tcp_udp = f.ip_protocol == 6 || f.ip_protocol == 17;
    if (f.guessed == 1 || (f.l7.master_protocol == 0 && f.l7.app_protocol == 0))
        return tcp_udp ? "failed" : nullptr;
    return eve_app_proto(f.l7);
}

// Members of one JSON object, a comma before each but the first.
class Members {
  public:
    explicit Members(Out &o) : o_(o) { o_.ch('{'); }
    Out &key(const char *name) {
        if (!first_) o_.ch(',');
        first_ = false;
        return o_.ch('"').raw(name, std::strlen(name)).lit("\":");
    }
    Out &text(const char *name, const char *value) { return key(name).ch('"').str_raw(value); }
    void close() { o_.ch('}'); }

  private:
    Out &o_;
    bool first_ = true;
};

void write_details(Members &top, const FlowFields &f) {
    const quelm_flow_l7_metadata &md = *f.details;
    // The details belong to the flow's protocol: the master's, else the application's.
    const uint16_t id = f.l7.master_protocol != 0 ? f.l7.master_protocol : f.l7.app_protocol;
    if (id == PELDA_PROTOCOL_HTTP &&
        (md.http.server_name != nullptr || md.http.url != nullptr || md.http.response_code != 0)) {
        Members http(top.key("http"));
        if (md.http.server_name != nullptr)
            http.key("hostname").str(md.http.server_name, kMaxNameLen);
        if (md.http.url != nullptr) http.key("url").str(md.http.url, kMaxUrlLen);
        if (md.http.response_code != 0) http.key("status").u64(md.http.response_code);
        http.close();
    } else if (id == PELDA_PROTOCOL_TLS &&
               (md.tls.server_name != nullptr || md.tls.certificate_fingerprint != nullptr)) {
        Members tls(top.key("tls"));
        if (md.tls.server_name != nullptr) tls.key("sni").str(md.tls.server_name, kMaxNameLen);
        if (md.tls.certificate_fingerprint != nullptr) {
            Out &o = tls.key("cert_sha1").ch('"');
            for (int i = 0; i < 20; i++)
                o.hex8(md.tls.certificate_fingerprint[i]);
            o.ch('"');
        }
        tls.close();
    } else if (id == PELDA_PROTOCOL_DNS && md.dns.query != nullptr) {
        Members dns(top.key("dns"));
        dns.key("rrname").str(md.dns.query, kMaxNameLen);
        if (md.dns.query_type != 0) {
            dns.key("rrtype").str(dns_type_name(md.dns.query_type));
            dns.key("rrtype_id").u64(md.dns.query_type);
        }
        // Without answers read, 0 is "no reply seen" rather than NOERROR.
        if (md.dns.reply_code != 0 || (f.answers_read && f.tc.pkts > 0)) {
            dns.key("rcode").str(dns_rcode_name(md.dns.reply_code));
            dns.key("rcode_id").u64(md.dns.reply_code);
        }
        dns.close();
    }
}

// quelm's own detail: the engine's names and ids, the exact reason, what EVE has no field for.
void write_quelm(Members &top, const FlowFields &f) {
    Members q(top.key("quelm"));
    if (f.library_id >= 0) q.key("id").u64(uint64_t(f.library_id));
    if (f.app_name != nullptr) q.key("app_proto").str(f.app_name, kMaxNameLen);
    if (f.l7_known)
        q.key("app_proto_id")
            .ch('[')
            .u64(f.l7.master_protocol)
            .ch(',')
            .u64(f.l7.app_protocol)
            .ch(']');
    if (f.category != nullptr) q.key("category").str(f.category, kMaxNameLen);
    if (f.guessed == 1) q.key("guessed").lit("true");
    if (f.guessed == 0) q.key("guessed").lit("false");
    if (f.ended) q.text("reason", reason_of(f.status));
    if (f.icmp_id >= 0) q.key("icmp_id").u64(uint64_t(f.icmp_id));
    if (f.tunnel != nullptr) {
        Members t(q.key("tunnel"));
        t.text("type", f.tunnel);
        t.key("id").u64(f.tunnel_id);
        t.close();
    }
    if (f.action != nullptr) q.text("action", f.action);
    if (!f.more.empty()) q.key("export").ch('{').raw(f.more.data(), f.more.size()).ch('}');
    q.close();
}

void write_flags(Out &o, int flags) {
    if (flags < 0) {
        o.ch('?');
        return;
    }
    static const char kLetters[] = "CEUAPRSF";  // bit 7 to bit 0
    for (int bit = 7; bit >= 0; bit--)
        o.ch((flags >> bit & 1) != 0 ? kLetters[7 - bit] : '.');
}

}  // namespace

const char *eve_app_proto(const quelm_l7_protocol &l7) {
    // The engine's built-in ids (a protocols file adds ids after these).
    static const std::map<uint16_t, const char *> kNames = {
        {1, "ftp-data"}, {2, "pop3"},  {3, "smtp"},  {4, "imap"},    {5, "dns"},   {7, "http"},
        {9, "ntp"},      {11, "nfs"},  {14, "snmp"}, {16, "smb"},    {18, "dhcp"}, {22, "sip"},
        {25, "krb5"},    {26, "ldap"}, {29, "rfb"},  {32, "ssh"},    {33, "rdp"},  {34, "quic"},
        {35, "tftp"},    {48, "ike"},  {69, "mqtt"}, {75, "modbus"}, {77, "ftp"},  {80, "http"},
        {89, "tls"},     {90, "tls"},  {91, "tls"},  {92, "tls"},    {93, "tls"}};
    const auto it = kNames.find(l7.master_protocol != 0 ? l7.master_protocol : l7.app_protocol);
    return it != kNames.end() ? it->second : nullptr;
}

uint64_t flow_id(const FlowFields &f) {
    uint64_t h = 14695981039346656037ull;
    auto bytes = [&h](const void *data, size_t n) {
        for (size_t i = 0; i < n; i++) {
            h ^= static_cast<const uint8_t *>(data)[i];
            h *= 1099511628211ull;
        }
    };
    auto text = [&bytes](const char *s) {
        bytes(s != nullptr ? s : "", s != nullptr ? std::strlen(s) + 1 : 1);
    };
    text(f.src_ip);
    text(f.dest_ip);
    const int64_t numbers[] = {f.ip_protocol, f.src_port,     f.dest_port,
                               f.icmp_type,   f.icmp_code,    f.icmp_id,
                               f.vlan,        f.start.tv_sec, f.start.tv_usec};
    bytes(numbers, sizeof numbers);
    text(f.probe);
    text(f.in_iface);
    return (h ^ h >> 51) & ((uint64_t(1) << 51) - 1);
}

const char *community_id(const FlowFields &f, uint16_t seed, char *out) {
    if (f.src_ip == nullptr || f.dest_ip == nullptr || f.ip_protocol < 0) return nullptr;
    // The key's address form: IPv4 as a host-order value in the first 4 bytes.
    uint8_t s[16] = {}, d[16] = {};
    const uint8_t version = std::strchr(f.src_ip, ':') != nullptr ? 6 : 4;
    const int family = version == 4 ? AF_INET : AF_INET6;
    if (inet_pton(family, f.src_ip, s) != 1 || inet_pton(family, f.dest_ip, d) != 1) return nullptr;
    if (version == 4) {
        for (uint8_t *a : {s, d}) {
            uint32_t v;
            std::memcpy(&v, a, 4);
            v = ntohl(v);
            std::memcpy(a, &v, 4);
        }
    }
    int sport = f.src_port, dport = f.dest_port;
    const uint8_t *from = s, *to = d;
    if (f.icmp_type >= 0) {
        // A query flow that began with a reply: the query's direction is the other one.
        if (f.icmp_from_reply) std::swap(from, to);
        sport = f.icmp_type, dport = f.icmp_code;
    }
    const int n = quelm_community_id(
        version, from, to, uint8_t(f.ip_protocol), uint16_t(sport < 0 ? 0 : sport),
        uint16_t(dport < 0 ? 0 : dport), seed, out, QUELM_COMMUNITY_ID_SIZE);
    return n > 0 ? out : nullptr;
}

size_t format_json_flow(const FlowFields &f, char *buffer) {
    Out o(buffer);
    Members top(o);
    if (f.timed) top.key("timestamp").time(f.start);
    top.key("flow_id").u64(flow_id(f));
    if (f.in_iface != nullptr) top.key("in_iface").str(f.in_iface, kMaxNameLen);
    top.text("event_type", "flow");
    if (f.probe != nullptr) top.key("probe").str(f.probe, kMaxNameLen);
    if (f.src_ip != nullptr) top.key("src_ip").str(f.src_ip, kMaxNameLen);
    if (f.src_port >= 0) top.key("src_port").u64(uint64_t(f.src_port));
    if (f.dest_ip != nullptr) top.key("dest_ip").str(f.dest_ip, kMaxNameLen);
    if (f.dest_port >= 0) top.key("dest_port").u64(uint64_t(f.dest_port));
    if (f.icmp_type >= 0) {
        top.key("icmp_type").u64(uint64_t(f.icmp_type));
        top.key("icmp_code").u64(uint64_t(f.icmp_code));
    }
    if (f.ip_protocol >= 0) top.key("proto").str(utils_prototoa(uint32_t(f.ip_protocol)));
    if (const char *app = app_proto_of(f)) top.text("app_proto", app);
    if (f.community_id != nullptr) top.text("community_id", f.community_id);
    if (f.vlan != 0) top.key("vlan").ch('[').u64(uint64_t(f.vlan)).ch(']');
    if (f.src_mac != nullptr || f.dest_mac != nullptr) {
        Members ether(top.key("ether"));
        if (f.src_mac != nullptr) ether.key("src_mac").str(f.src_mac, kMaxNameLen);
        if (f.dest_mac != nullptr) ether.key("dest_mac").str(f.dest_mac, kMaxNameLen);
        ether.close();
    }
    Members flow(top.key("flow"));
    const std::pair<const char *, int64_t> counters[] = {{"pkts_toserver", f.ts.pkts},
                                                         {"pkts_toclient", f.tc.pkts},
                                                         {"bytes_toserver", f.ts.bytes},
                                                         {"bytes_toclient", f.tc.bytes}};
    for (const auto &[name, value] : counters)
        if (value >= 0) flow.key(name).u64(uint64_t(value));
    if (f.timed) {
        flow.key("start").time(f.start);
        flow.key("end").time(f.end);
        flow.key("age").u64(
            uint64_t(f.end.tv_sec > f.start.tv_sec ? f.end.tv_sec - f.start.tv_sec : 0));
    }
    if (const char *state = state_of(f)) flow.text("state", state);
    if (f.ended) flow.text("reason", eve_reason(f));
    flow.close();
    if (f.ip_protocol == 6 && f.ts.tcp_flags >= 0) {
        Members tcp(top.key("tcp"));
        const int all = f.ts.tcp_flags | std::max(f.tc.tcp_flags, 0);
        if (f.tc.tcp_flags >= 0) tcp.key("tcp_flags").ch('"').hex8(uint8_t(all)).ch('"');
        tcp.key("tcp_flags_ts").ch('"').hex8(uint8_t(f.ts.tcp_flags)).ch('"');
        if (f.tc.tcp_flags >= 0)
            tcp.key("tcp_flags_tc").ch('"').hex8(uint8_t(f.tc.tcp_flags)).ch('"');
        static const char *const kNames[] = {"fin", "syn", "rst", "psh",
                                             "ack", "urg", "ecn", "cwr"};
        for (int bit = 0; bit < 8; bit++)
            if ((all >> bit & 1) != 0) tcp.key(kNames[bit]).lit("true");
        tcp.close();
    }
    if (f.details != nullptr && f.l7_known) write_details(top, f);
    write_quelm(top, f);
    top.close();
    o.ch('\n');
    return o.size();
}

size_t format_text_flow(const FlowFields &f, char *buffer) {
    Out o(buffer);
    if (f.timed) {
        o.time_text(f.start).ch(' ');
    }
    o.plain(f.ip_protocol >= 0 ? utils_prototoa(uint32_t(f.ip_protocol)) : "?");
    auto endpoint = [&o](const char *ip, int port) {
        const bool v6 = ip != nullptr && std::strchr(ip, ':') != nullptr && port >= 0;
        o.ch(' ');
        if (v6) o.ch('[');
        o.plain(ip != nullptr ? ip : "?", kMaxNameLen);
        if (v6) o.ch(']');
        if (port >= 0) o.ch(':').u64(uint64_t(port));
    };
    endpoint(f.src_ip, f.src_port);
    o.lit(" ->");
    endpoint(f.dest_ip, f.dest_port);
    if (f.icmp_type >= 0) o.ch(' ').u64(uint64_t(f.icmp_type)).ch('/').u64(uint64_t(f.icmp_code));
    if (f.icmp_id >= 0) o.lit(" id ").u64(uint64_t(f.icmp_id));
    if (f.vlan != 0) o.lit(" vlan ").u64(uint64_t(f.vlan));
    auto pair = [&o](const char *label, int64_t a, int64_t b) {
        o.ch(' ').raw(label, std::strlen(label)).ch(' ');
        a >= 0 ? o.u64(uint64_t(a)) : o.ch('?');
        o.ch('/');
        b >= 0 ? o.u64(uint64_t(b)) : o.ch('?');
    };
    pair("pkts", f.ts.pkts, f.tc.pkts);
    pair("bytes", f.ts.bytes, f.tc.bytes);
    if (f.ip_protocol == 6 && f.ts.tcp_flags >= 0) {
        o.lit(" flags ");
        write_flags(o, f.ts.tcp_flags);
        o.ch('/');
        write_flags(o, f.tc.tcp_flags);
    }
    if (f.timed)
        o.lit(" age ").u64(
            uint64_t(f.end.tv_sec > f.start.tv_sec ? f.end.tv_sec - f.start.tv_sec : 0));
    if (const char *state = state_of(f)) o.ch(' ').plain(state);
    if (f.ended) o.ch(' ').plain(reason_of(f.status));
    if (f.app_name != nullptr) o.ch(' ').plain(f.app_name, kMaxNameLen);
    if (f.guessed == 1) o.lit(" (guessed)");
    if (f.probe != nullptr) o.lit(" probe ").plain(f.probe, kMaxNameLen);
    o.ch('\n');
    return o.size();
}

void flow_fields(quelm_flow *flow, quelm_table *table, bool answers_read, FlowTexts *t,
                 FlowFields *f) {
    const quelm_flow_key &k = *quelm_flow_get_key(flow);
    const quelm_flow_value &v = *quelm_flow_get_value(flow);
    f->ip_protocol = k.protocol;
    f->src_ip = address_text(k.saddr, k.ip_version, t->src_ip);
    f->dest_ip = address_text(k.daddr, k.ip_version, t->dest_ip);
    if (k.protocol == 6 || k.protocol == 17) {
        f->src_port = k.sport;
        f->dest_port = k.dport;
    } else if ((k.protocol == 1 || k.protocol == 58) && (v.flags & QUELM_FLOW_FLAG_ICMP_QUERY)) {
        // A query and its replies: the query's type and identifier, in either port.
        const bool from_reply = (v.flags & QUELM_FLOW_FLAG_ICMP_FROM_REPLY) != 0;
        f->icmp_type = (from_reply ? k.sport : k.dport) >> 8;
        f->icmp_code = 0;
        f->icmp_id = from_reply ? k.dport : k.sport;
    } else if (k.protocol == 1 || k.protocol == 58) {
        // The key keeps ICMP type and code in the destination port.
        f->icmp_type = k.dport >> 8;
        f->icmp_code = k.dport & 0xFF;
    }
    f->vlan = k.vlan_id;
    f->src_mac = mac_text(k.smac, t->src_mac);
    f->dest_mac = mac_text(k.dmac, t->dest_mac);
    const quelm_flow_dir_value &ts = v.direction[0], &tc = v.direction[1];
    f->ts = {int64_t(ts.pkts), int64_t(ts.bytes), ts.tcp_flags};
    f->tc = {int64_t(tc.pkts), int64_t(tc.bytes), tc.tcp_flags};
    f->timed = true;
    f->start = ts.first;
    f->end = ts.last;
    if (seen(tc.first) && earlier(tc.first, f->start)) f->start = tc.first;
    if (seen(tc.last) && earlier(f->end, tc.last)) f->end = tc.last;
    f->status = v.status;
    f->ended = true;
    f->l7_known = true;
    f->detection = quelm_get_pelda_handle(table) != nullptr;
    f->l7 = v.l7_protocol;
    f->app_name = quelm_l7_protocol_name(table, &v.l7_protocol, t->app_name, sizeof t->app_name);
    f->category = quelm_category_name(table, uint32_t(v.l7_protocol.category), t->category,
                                      sizeof t->category);
    f->guessed = (v.flags & QUELM_FLOW_FLAG_L7_GUESSED) != 0;
    f->details = &v.l7_metadata;
    f->answers_read = answers_read;
    const quelm_action action = quelm_flow_get_action(flow);
    if (action != QUELM_ACTION_DEFAULT) f->action = action_name(action);
    if (v.tunnel_type != QUELM_TUNNEL_NONE) {
        f->tunnel = tunnel_name(v.tunnel_type);
        f->tunnel_id = v.tunnel_id;
    }
    f->library_id = int64_t(quelm_flow_get_id(flow));
}

}  // namespace quelm_tool
