// Engine internals shared by the source files: the module, the protocol table,
// small containers that never throw, and the dissector interface.
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

// ---- Protocol table
constexpr unsigned kNameMax = 48;

struct port_range {
    uint16_t lo, hi;
};

struct builtin_protocol {
    uint16_t id;
    const char *name;
    uint16_t category;
    uint8_t ip_protocol;  // non-zero: guessed for flows of this IP protocol
    port_range tcp[3];
    port_range udp[3];
};

extern const builtin_protocol kBuiltinProtocols[];
extern const uint32_t kNumBuiltinProtocols;  // entries of kBuiltinProtocols, ids 0..n-1
extern const char *const kCategoryNames[PELDA_NUM_CATEGORIES];

// Protocol ids used by the code (the table in protocols.cpp is the reference).
enum proto_id : uint16_t {
    P_UNKNOWN = 0,
    P_FTP_DATA = 1,
    P_POP3 = 2,
    P_SMTP = 3,
    P_IMAP = 4,
    P_DNS = 5,
    P_IPP = 6,
    P_HTTP = 7,
    P_MDNS = 8,
    P_NTP = 9,
    P_NETBIOS = 10,
    P_NFS = 11,
    P_SSDP = 12,
    P_BGP = 13,
    P_SNMP = 14,
    P_XDMCP = 15,
    P_SMB = 16,
    P_SYSLOG = 17,
    P_DHCP = 18,
    P_POSTGRESQL = 19,
    P_MYSQL = 20,
    P_REDIS = 21,
    P_SIP = 22,
    P_STUN = 23,
    P_BITTORRENT = 24,
    P_KERBEROS = 25,
    P_LDAP = 26,
    P_IRC = 27,
    P_TELNET = 28,
    P_VNC = 29,
    P_OPENVPN = 30,
    P_WIREGUARD = 31,
    P_SSH = 32,
    P_RDP = 33,
    P_QUIC = 34,
    P_TFTP = 35,
    P_RADIUS = 36,
    P_ICMP = 37,
    P_IGMP = 38,
    P_GRE = 39,
    P_ESP = 40,
    P_AH = 41,
    P_ICMPV6 = 42,
    P_OSPF = 43,
    P_SCTP = 44,
    P_VRRP = 45,
    P_PIM = 46,
    P_IP_IN_IP = 47,
    P_IKE = 48,
    P_L2TP = 49,
    P_PPTP = 50,
    P_RIP = 51,
    P_BABEL = 52,
    P_BFD = 53,
    P_LDP = 54,
    P_RPKI_RTR = 55,
    P_LISP = 56,
    P_VXLAN = 57,
    P_GENEVE = 58,
    P_SFLOW = 59,
    P_NETFLOW = 60,
    P_IPFIX = 61,
    P_WHOIS = 62,
    P_AFS = 63,
    P_HSRP = 64,
    P_LLMNR = 65,
    P_MSSQL = 66,
    P_MONGODB = 67,
    P_MEMCACHED = 68,
    P_MQTT = 69,
    P_AMQP = 70,
    P_XMPP = 71,
    P_RTSP = 72,
    P_RTP = 73,
    P_RTCP = 74,
    P_MODBUS = 75,
    P_COAP = 76,
    P_FTP_CONTROL = 77,
    P_NNTP = 78,
    P_SOCKS = 79,
    P_HTTP_PROXY = 80,
    P_RSYNC = 81,
    P_LPD = 82,
    P_GIT = 83,
    P_CASSANDRA = 84,
    P_DHCPV6 = 85,
    P_NATPMP = 86,
    P_BITCOIN = 87,
    P_KAFKA = 88,
    P_SMTPS = 89,
    P_IMAPS = 90,
    P_TLS = 91,
    P_POP3S = 92,
    P_DNS_OVER_TLS = 93,
    P_EIGRP = 94,
    P_IPV6_IN_IP = 95,
    P_DCCP = 96,
    P_RSVP = 97,
    P_ZEROMQ = 98,
    P_SOMEIP = 99,
    P_PTP = 100,
    P_PGM = 101,
    P_OPENFLOW = 102,
    P_AODV = 103,
    P_OLSR = 104,
    P_HNCP = 105,
    P_AHCP = 106,
    P_WCCP = 107,
    P_ISAKMP_NAT_T = 108,
};

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

struct dissector {
    uint16_t proto;
    uint8_t l4;  // bit 0: TCP, bit 1: UDP
    detect_fn detect;
    extract_fn extract;  // null: done as soon as detected
};

extern const dissector kDissectors[];
extern const uint32_t kNumDissectors;
const dissector *find_dissector(uint16_t proto);

// Dissector entry points, grouped by source file.
verdict detect_http(context &c);
bool extract_http(context &c);
verdict detect_rtsp(context &c);
verdict detect_tls(context &c);
bool extract_tls(context &c);
verdict detect_quic(context &c);
verdict detect_dns(context &c);
bool extract_dns(context &c);
verdict detect_mdns(context &c);
verdict detect_llmnr(context &c);
verdict detect_netbios(context &c);

verdict detect_ssh(context &c);
bool extract_ssh(context &c);
verdict detect_smtp(context &c);
bool extract_smtp(context &c);
verdict detect_pop3(context &c);
verdict detect_imap(context &c);
verdict detect_ftp(context &c);
bool extract_ftp(context &c);
verdict detect_irc(context &c);
verdict detect_telnet(context &c);
verdict detect_vnc(context &c);
verdict detect_sip(context &c);
verdict detect_ssdp(context &c);
verdict detect_redis(context &c);
verdict detect_mysql(context &c);
verdict detect_postgresql(context &c);
verdict detect_smb(context &c);
verdict detect_rdp(context &c);
verdict detect_bittorrent(context &c);
verdict detect_ntp(context &c);
verdict detect_dhcp(context &c);
verdict detect_snmp(context &c);
verdict detect_stun(context &c);
verdict detect_kerberos(context &c);
verdict detect_ldap(context &c);
verdict detect_syslog(context &c);
verdict detect_openvpn(context &c);
verdict detect_wireguard(context &c);
verdict detect_bgp(context &c);
verdict detect_tftp(context &c);
verdict detect_radius(context &c);
verdict detect_ike(context &c);
verdict detect_mqtt(context &c);
verdict detect_zeromq(context &c);

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

// Bounded stream reassembly for handshakes that span segments.
constexpr uint32_t kClientStreamMax = 16 * 1024;
constexpr uint32_t kServerStreamMax = 24 * 1024;
bool stream_append(pelda_flow *f, int dir, const uint8_t *p, uint32_t len);
void stream_consume(pelda_flow *f, int dir, uint32_t n);
void stream_free(pelda_flow *f);

// ---- Names, custom rules, hashing
uint16_t category_of(const pelda_detection_module *m, uint16_t proto);
uint16_t match_host_protocol(const pelda_detection_module *m, const char *host);
int match_host_category(const pelda_detection_module *m, const char *host);
void sha1(const void *data, size_t len, uint8_t out[20]);

}  // namespace pelda

#endif  // PELDA_INTERNAL_H
