#include "flow_writer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

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
        char digits[20];
        int n = 0;
        do {
            digits[n++] = char('0' + v % 10);
            v /= 10;
        } while (v != 0);
        while (n > 0)
            *at_++ = digits[--n];
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
    Out &str(const char *text) {
        at_ += format_json_string(text, at_);
        return *this;
    }
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

size_t format_json_string(const char *text, char *out) {
    static const char kHex[] = "0123456789abcdef";
    char *at = out;
    *at++ = '"';
    for (const unsigned char *p = reinterpret_cast<const unsigned char *>(text); *p != 0; p++) {
        const unsigned char c = *p;
        if (c == '"' || c == '\\') {
            *at++ = '\\';
            *at++ = char(c);
        } else if (c < 0x20) {
            std::memcpy(at, "\\u00", 4);
            at[4] = kHex[c >> 4];
            at[5] = kHex[c & 15];
            at += 6;
        } else {
            *at++ = char(c);
        }
    }
    *at++ = '"';
    return size_t(at - out);
}

size_t format_json_flow(quelm_flow *flow, char *buffer) {
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
    o.lit("}\n");
    return o.size();
}

size_t format_text_flow(quelm_flow *flow, char *out) {
    quelm_flow_print(flow, out, kMaxRecordLen - 1, nullptr);
    const size_t n = std::strlen(out);
    out[n] = '\n';
    return n + 1;
}

void FlowWriter::write(quelm_flow *flow) {
    if (!sink_.failed()) {
        char *at = sink_.reserve(kMaxRecordLen);
        if (at != nullptr)
            sink_.commit(format_ == Format::kJson ? format_json_flow(flow, at)
                                                  : format_text_flow(flow, at));
    }
    flows_++;
    if (quelm_flow_get_value(flow)->status == QUELM_FLOW_STATUS_SLICE) slices_++;
    quelm_flow_free(flow);
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
