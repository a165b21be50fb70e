// Engine internals shared by the source files: small containers that never throw, the
// module, the dissector interface, the built-in protocol rows and helpers for dissectors.
#ifndef PELDA_INTERNAL_H
#define PELDA_INTERNAL_H

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <new>
#include <type_traits>

#include "flow.h"
#include "pelda.h"

namespace pelda {

// ---- A growable array of trivially copyable values; reports failure instead of throwing.
template <typename T>
class vec {
    static_assert(std::is_trivially_copyable_v<T>);

  public:
    vec() = default;
    vec(const vec &) = delete;
    vec &operator=(const vec &) = delete;
    ~vec() { std::free(data_); }

    bool push(const T &v) {
        if (size_ == cap_) {
            uint32_t ncap = cap_ ? cap_ * 2 : 16;
            void *p = std::realloc(data_, sizeof(T) * ncap);
            if (!p) return false;
            data_ = static_cast<T *>(p);
            cap_ = ncap;
        }
        std::memcpy(static_cast<void *>(data_ + size_), &v, sizeof(T));
        ++size_;
        return true;
    }
    void clear() { size_ = 0; }
    uint32_t size() const { return size_; }
    T &operator[](uint32_t i) { return data_[i]; }
    const T &operator[](uint32_t i) const { return data_[i]; }
    T *begin() { return data_; }
    T *end() { return data_ + size_; }
    const T *begin() const { return data_; }
    const T *end() const { return data_ + size_; }

  private:
    T *data_ = nullptr;
    uint32_t size_ = 0;
    uint32_t cap_ = 0;
};

constexpr unsigned kNameMax = 48;

// ---- Detection module
struct custom_port_rule {
    uint8_t l4;  // 6 or 17
    uint16_t lo, hi;
    uint16_t proto;
};

struct host_rule {
    char *host;         // lower case, owned
    uint16_t proto;     // protocol rule: protocol id; category rule: 0
    uint16_t category;  // category rule: category id; protocol rule: 0
};

struct trie_node {
    uint32_t child[2];  // 0 = none (node 0 is the root and never a child)
    uint16_t value;
    uint8_t has_value;
    uint8_t pad;
};

// Longest-prefix match over IPv4 networks.
class network_trie {
  public:
    bool insert(uint32_t addr, unsigned prefix, uint16_t value);
    // 1 and *value set when some network contains addr.
    bool match(uint32_t addr, uint16_t *value) const;
    uint32_t size() const { return nodes_.size(); }

  private:
    vec<trie_node> nodes_;
};

struct protocol_entry {
    char name[kNameMax];
    uint16_t category;
};

}  // namespace pelda

struct pelda_detection_module {
    uint8_t finalized;
    uint8_t guess_on_giveup;
    pelda::vec<pelda::protocol_entry> protocols;  // index = id
    pelda::vec<pelda::custom_port_rule> port_rules;
    pelda::vec<pelda::host_rule> host_protocol_rules;  // sorted by host once finalised
    pelda::vec<pelda::host_rule> host_category_rules;
    pelda::network_trie protocol_networks;
    pelda::network_trie category_networks;
    bool hosts_sorted;

    ~pelda_detection_module();
};

namespace pelda {

// ---- Dissectors
enum class verdict : uint8_t { no, maybe, yes };

struct packet_view {
    const uint8_t *payload;  // new stream bytes of this packet (TCP) or the datagram (UDP)
    uint32_t len;
    int dir;                // kClient or kServer
    bool tcp;               // else UDP
    uint16_t sport, dport;  // of this packet
    uint64_t time_ms;
};

struct context {
    pelda_detection_module *module;
    pelda_flow *flow;
    const packet_view *pkt;
    uint16_t detected;  // set by a dissector that names the protocol (may differ from its own)
};

using detect_fn = verdict (*)(context &);
// Called for packets after detection; returns true when nothing more is to be learnt.
using extract_fn = bool (*)(context &);

// ---- Built-in protocols
// Every built-in protocol is one row of the file of its family (proto_<family>.cpp), which
// also holds its dissector; families are listed in families.def. Ids are published: never
// renumber. Rows are written with the helpers below:
//   row(91, "TLS", cat::Web).tcp(443).dissector(kTcp, 10, detect_tls, extract_tls).carrier()

// Categories with names of their own; 40-99 are Reserved_N, 100-163 Custom_N.
// clang-format off
#define PELDA_NAMED_CATEGORIES(X)                                                            \
    X(Unspecified) X(Media) X(VPN) X(Email) X(DataTransfer) X(Web) X(SocialNetwork)          \
    X(Download) X(Game) X(Chat) X(VoIP) X(Database) X(RemoteAccess) X(Cloud) X(Network)      \
    X(Collaborative) X(RPC) X(Streaming) X(System) X(SoftwareUpdate) X(Music) X(Video)       \
    X(Shopping) X(Productivity) X(FileSharing) X(ConnectivityCheck) X(IoT_Scada)             \
    X(Authentication) X(Monitoring) X(Routing) X(Tunnel) X(Mining) X(Malware)                \
    X(Advertisement) X(Tracking) X(Banking) X(Health) X(News) X(Education) X(Government)
// clang-format on

namespace cat {
#define PELDA_CATEGORY_ID(name) name,
enum : uint16_t { PELDA_NAMED_CATEGORIES(PELDA_CATEGORY_ID) kNamed };
#undef PELDA_CATEGORY_ID
}  // namespace cat

constexpr uint8_t kTcp = 1, kUdp = 2, kBoth = 3;  // transports a dissector reads

struct port_range {
    uint16_t lo = 0, hi = 0;
    constexpr port_range() = default;
    constexpr port_range(uint16_t port) : lo(port), hi(port) {}  // NOLINT: one port
    constexpr port_range(uint16_t l, uint16_t h) : lo(l), hi(h) {}
};

struct protocol_def {
    uint16_t id = 0;
    const char *name = nullptr;
    uint16_t category = 0;
    uint8_t ip_protocol = 0;  // non-zero: guessed for flows of this IP protocol
    bool is_carrier = false;  // host rules name an application running over it
    port_range tcp_ports[3] = {}, udp_ports[3] = {};  // well-known ports
    uint8_t l4 = 0;                                   // transports of the dissector
    uint16_t rank = 0;             // dissectors run by ascending rank: specific signatures first
    detect_fn detect = nullptr;    // null: guessed only
    extract_fn extract = nullptr;  // null: done as soon as detected

    // Well-known ports: a number, or {low, high}.
    constexpr protocol_def tcp(port_range a, port_range b = {}, port_range c = {}) const {
        protocol_def d = *this;
        d.tcp_ports[0] = a, d.tcp_ports[1] = b, d.tcp_ports[2] = c;
        return d;
    }
    constexpr protocol_def udp(port_range a, port_range b = {}, port_range c = {}) const {
        protocol_def d = *this;
        d.udp_ports[0] = a, d.udp_ports[1] = b, d.udp_ports[2] = c;
        return d;
    }
    constexpr protocol_def ip(uint8_t proto) const {
        protocol_def d = *this;
        d.ip_protocol = proto;
        return d;
    }
    constexpr protocol_def dissector(uint8_t transports, uint16_t order, detect_fn detect_,
                                     extract_fn extract_ = nullptr) const {
        protocol_def d = *this;
        d.l4 = transports, d.rank = order, d.detect = detect_, d.extract = extract_;
        return d;
    }
    constexpr protocol_def carrier() const {
        protocol_def d = *this;
        d.is_carrier = true;
        return d;
    }
};

constexpr protocol_def row(uint16_t id, const char *name, uint16_t category) {
    protocol_def d;
    d.id = id, d.name = name, d.category = category;
    return d;
}

struct family {
    const protocol_def *rows;
    uint32_t count;
};

#define PELDA_FAMILY(name) extern const family family_##name;
#include "families.def"
#undef PELDA_FAMILY
// In a family file, after its rows: PELDA_DEFINE_FAMILY(web, kRows);
#define PELDA_DEFINE_FAMILY(name, rows) \
    const family family_##name = {rows, sizeof(rows) / sizeof(rows[0])}

// Built-in ids stay below the flow's exclusion bitmap.
constexpr unsigned kMaxBuiltin = kExcludedWords * 32;

struct builtin_table {
    const protocol_def *by_id[kMaxBuiltin];  // ids 0..count-1
    uint32_t count;
    const protocol_def *dissectors[kMaxBuiltin];  // by rank
    uint32_t num_dissectors;
    const char *category_names[PELDA_NUM_CATEGORIES];
};

// The rows of all families, checked once (unique ids from 0 without gaps).
const builtin_table &builtins();
// The built-in row of `id`, or null (custom protocols have none).
const protocol_def *builtin(uint16_t id);

// ---- Helpers shared by dissectors
inline uint16_t rd16(const uint8_t *p) {
    return uint16_t(p[0] << 8 | p[1]);
}
inline uint32_t rd24(const uint8_t *p) {
    return uint32_t(p[0]) << 16 | uint32_t(p[1]) << 8 | p[2];
}
inline uint32_t rd32(const uint8_t *p) {
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}
inline uint32_t rd32le(const uint8_t *p) {
    return uint32_t(p[3]) << 24 | uint32_t(p[2]) << 16 | uint32_t(p[1]) << 8 | p[0];
}
bool starts_with(const uint8_t *p, uint32_t len, const char *prefix);
bool starts_with_nocase(const uint8_t *p, uint32_t len, const char *prefix);
bool either_port(const packet_view &p, uint16_t port);
// Replaces *dst with a NUL-terminated lower- or as-is copy of src[0..len); false without memory.
bool set_string(char **dst, const char *src, size_t len, bool lower);
void copy_text(char *dst, size_t dst_size, const uint8_t *src, size_t len);
// Bytes up to the first CR or LF (or the whole buffer when neither occurs).
uint32_t line_length(const uint8_t *p, uint32_t len);
inline bool is_digit(uint8_t c) {
    return c >= '0' && c <= '9';
}
bool contains_nocase(const uint8_t *p, uint32_t len, const char *needle);
// Offset of `needle` in p[0..len), or -1 (inline: needles are constants).
inline int find_in(const uint8_t *p, uint32_t len, const char *needle) {
    size_t n = std::strlen(needle);
    for (uint32_t i = 0; i + n <= len; ++i)
        if (std::memcmp(p + i, needle, n) == 0) return int(i);
    return -1;
}
// Length of a BER length field at p[0], value length in *v; 0 when malformed.
uint32_t ber_length(const uint8_t *p, uint32_t len, uint32_t *v);

// Line protocols: the other direction's first payload (as kept by the engine) or null;
// a "NNN " or "NNN-" reply line with the given code (0: any).
const uint8_t *other_first(const context &c, uint32_t *len);
bool reply_code(const uint8_t *p, uint32_t len, int code);
// SMTP and FTP open with the same 220 greeting (greeting.cpp); `client_command` starts the
// client line kept as banner_state::client.
verdict detect_greeting(context &c, bool want_smtp, const char *client_command);
void remember_client_line(banner_state &b, const uint8_t *p, uint32_t len, const char *prefix);

// Bounded stream reassembly for handshakes that span segments.
constexpr uint32_t kClientStreamMax = 16 * 1024;
constexpr uint32_t kServerStreamMax = 24 * 1024;
bool stream_append(pelda_flow *f, int dir, const uint8_t *p, uint32_t len);
void stream_consume(pelda_flow *f, int dir, uint32_t n);
void stream_free(pelda_flow *f);

// ---- Names, custom rules, hashing
uint16_t category_of(const pelda_detection_module *m, uint16_t proto);
uint16_t match_host_protocol(const pelda_detection_module *m, const char *host);
// Sorts the host rules for the look-ups above (after set-up and after loading a file).
void sort_hosts(pelda_detection_module *m);
int match_host_category(const pelda_detection_module *m, const char *host);
void sha1(const void *data, size_t len, uint8_t out[20]);

}  // namespace pelda

#endif  // PELDA_INTERNAL_H
