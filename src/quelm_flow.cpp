// Flow records: creation from a decoded packet, reference counting, slicing, counter reset,
// settling for export, text form and accessors; and per-flow L7 detection.
#include "quelm_flow.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "quelm_bytes.h"
#include "quelm_dpi.h"
#include "quelm_fragment_hash.h"

namespace {

constexpr uint16_t kProtoDns = PELDA_PROTOCOL_DNS, kProtoHttp = PELDA_PROTOCOL_HTTP,
                   kProtoTls = PELDA_PROTOCOL_TLS;
// The engine's ids of FTP control and SMTP: their details come late in a conversation, so extra
// dissection goes on longer for them.
constexpr uint16_t kProtoFtpControl = 77, kProtoSmtp = 3;
constexpr size_t kFingerprintLen = 20;

using quelm::key_ipv4;

template <typename T>
T read_field(const void *object, size_t offset) {
    T value;
    memcpy(&value, static_cast<const uint8_t *>(object) + offset, sizeof value);
    return value;
}

char *copy_string(const char *s) {
    char *copy = strdup(s);
    return copy != nullptr ? utils_sanitize(copy) : nullptr;
}

uint8_t *copy_fingerprint(const uint8_t *fp) {
    if (fp == nullptr) return nullptr;
    auto *copy = static_cast<uint8_t *>(malloc(kFingerprintLen));
    if (copy != nullptr) memcpy(copy, fp, kFingerprintLen);
    return copy;
}

char *dup_or_null(const char *s) {
    return s != nullptr ? strdup(s) : nullptr;
}

// Frees the metadata blocks of a record, chosen by its master protocol.
void free_metadata(quelm_flow *flow) {
    quelm_flow_l7_metadata &md = flow->value.l7_metadata;
    switch (flow->value.l7_protocol.master_protocol) {
        case kProtoHttp:
            free(md.http.server_name);
            free(md.http.url);
            md.http.server_name = md.http.url = nullptr;
            break;
        case kProtoTls:
            free(md.tls.server_name);
            free(md.tls.certificate_fingerprint);
            md.tls.server_name = nullptr;
            md.tls.certificate_fingerprint = nullptr;
            break;
        case kProtoDns:
            free(md.dns.query);
            md.dns.query = nullptr;
            break;
        default:
            break;
    }
}

// Gives a slice its own copies of the metadata blocks it copied by pointer.
void duplicate_metadata(quelm_flow *slice) {
    quelm_flow_l7_metadata &md = slice->value.l7_metadata;
    switch (slice->value.l7_protocol.master_protocol) {
        case kProtoHttp:
            md.http.server_name = dup_or_null(md.http.server_name);
            md.http.url = dup_or_null(md.http.url);
            break;
        case kProtoTls:
            md.tls.server_name = dup_or_null(md.tls.server_name);
            md.tls.certificate_fingerprint = copy_fingerprint(md.tls.certificate_fingerprint);
            break;
        case kProtoDns:
            md.dns.query = dup_or_null(md.dns.query);
            break;
        default:
            break;
    }
}

void release(quelm_flow *flow) {
    while (flow != nullptr) {
        if (--flow->users != 0) return;
        if (flow->fragment != nullptr) quelm_fragment_entry_unlink_flow(flow->fragment, flow);
        free_metadata(flow);
        quelm_flow *parent = nullptr;
        if (quelm_flow_is_slice(flow)) {
            parent = flow->parent;  // the engine state is the parent's
        } else {
            quelm_flow_dpi_free(flow);
        }
        free(flow);
        flow = parent;  // a slice holds one reference on its live flow
    }
}

// Ends detection once the count of a flow's packets passes the limit of its protocol.
uint32_t detection_limit(const quelm_dpi_result &r, uint32_t limit) {
    auto is = [&r](uint16_t id) { return r.master_protocol == id || r.app_protocol == id; };
    if (is(kProtoFtpControl)) return limit > 100 ? limit : 100;
    if (is(kProtoSmtp)) return limit > 20 ? limit : 20;
    return limit;
}

void store_pair(quelm_flow *flow, const quelm_dpi_result &r) {
    flow->value.l7_protocol.master_protocol = r.master_protocol;
    flow->value.l7_protocol.app_protocol = r.app_protocol;
}

void complete_detection(quelm_flow *flow) {
    quelm_l7_protocol &p = flow->value.l7_protocol;
    flow->dpi_done = 1;
    if (p.master_protocol == 0) p.master_protocol = p.app_protocol;
    quelm_flow_dpi_copy_metadata(flow, p.master_protocol);
}

// Appends text and decimal numbers to a fixed buffer large enough for any flow line.
struct TextWriter {
    char text[512];
    size_t len = 0;
    TextWriter &put(const char *s) {
        while (*s != '\0' && len < sizeof text)
            text[len++] = *s++;
        return *this;
    }
    TextWriter &num(uint64_t n) {
        char digits[20];
        const char *end = quelm::write_decimal(n, digits);
        for (const char *d = digits; d < end && len < sizeof text; d++)
            text[len++] = *d;
        return *this;
    }
};

}  // namespace

void quelm_fragment_entry_unlink_flow(quelm_fragment_entry *entry, quelm_flow *flow) {
    if (entry->flow == flow) {
        entry->flow = nullptr;
        entry->owner = nullptr;
        entry->expire = 0;
    }
    if (flow->fragment == entry) flow->fragment = nullptr;
}

void quelm_fragment_entry_bind_flow(quelm_fragment_entry *entry, quelm_flow *flow) {
    if (flow->fragment != nullptr && flow->fragment != entry)
        quelm_fragment_entry_unlink_flow(flow->fragment, flow);
    entry->flow_id = flow->id;
    entry->flow = flow;
    entry->owner = &flow->fragment;
    flow->fragment = entry;
}

extern "C" {

quelm_flow *quelm_flow_new(quelm_packet_info *info, void *pelda, uint16_t user_size) {
    auto *flow = static_cast<quelm_flow *>(calloc(1, sizeof(quelm_flow) + user_size));
    if (flow == nullptr) return nullptr;

    flow->key.protocol = info->l4_protocol;
    flow->hash_idx = info->hash_idx;
    flow->users = 1;
    flow->lru.owner = flow;
    flow->value.direction[0].first = info->header->ts;
    flow->value.direction[0].last = info->header->ts;
    flow->value.tunnel_type = info->tunnel_type;
    flow->value.tunnel_id = info->tunnel_id;
    if (info->eth != nullptr) {
        memcpy(flow->key.smac, info->eth + 6, 6);
        memcpy(flow->key.dmac, info->eth, 6);
    }
    if (info->is_ipv4) {
        memcpy(flow->key.saddr, &info->saddr_v4, 4);
        memcpy(flow->key.daddr, &info->daddr_v4, 4);
        flow->key.ip_version = 4;
    } else {
        memcpy(flow->key.saddr, info->l3 + 8, 16);
        memcpy(flow->key.daddr, info->l3 + 24, 16);
        flow->key.ip_version = 6;
    }
    flow->key.sport = info->sport;
    flow->key.dport = info->dport;
    flow->key.vlan_id = info->vlan_id;

    quelm_flow_dpi_init(flow, pelda);
    if (user_size != 0) flow->value.user = flow + 1;
    return flow;
}

void quelm_flow_free(quelm_flow *flow) {
    if (flow != nullptr) release(flow);
}

quelm_flow *quelm_flow_slice(quelm_flow *flow) {
    auto *slice = static_cast<quelm_flow *>(calloc(1, sizeof(quelm_flow)));
    if (slice == nullptr) return nullptr;
    slice->key = flow->key;
    slice->id = flow->id;
    slice->action = flow->action;
    slice->value = flow->value;
    slice->users = 1;
    slice->lru.owner = slice;
    duplicate_metadata(slice);
    flow->users++;
    slice->parent = flow;
    slice->dpi_flow = flow->dpi_flow;
    slice->dpi_done = flow->dpi_done;
    slice->value.user = flow->value.user;
    return slice;
}

quelm_flow *quelm_flow_reset_counters(quelm_flow *flow) {
    for (quelm_flow_dir_value &d : flow->value.direction) {
        d.pkts = 0;
        d.bytes = 0;
        d.first = d.last;
    }
    return flow;
}

void quelm_flow_prepare_for_export(quelm_flow *flow, void *pelda, uint32_t guess) {
    if (flow->dpi_done) return;
    quelm_l7_protocol &p = flow->value.l7_protocol;
    if (p.master_protocol == 0 && p.app_protocol == 0) {
        quelm_flow_dpi_guess(flow, pelda, guess);
        if (p.master_protocol == 0 && p.app_protocol == 0) return;
    }
    complete_detection(flow);
}

char *quelm_flow_print(quelm_flow *flow, char *buf, uint32_t size, void *pelda) {
    const quelm_flow_key &k = flow->key;
    const quelm_flow_value &v = flow->value;
    char src_buf[48], dst_buf[48], proto_buf[32];
    const char *src, *dst;
    if (k.ip_version == 4) {
        src = utils_intoav4(key_ipv4(k.saddr), src_buf, sizeof src_buf);
        dst = utils_intoav4(key_ipv4(k.daddr), dst_buf, sizeof dst_buf);
    } else {
        src = utils_intoav6(k.saddr, src_buf, sizeof src_buf);
        dst = utils_intoav6(k.daddr, dst_buf, sizeof dst_buf);
    }
    int64_t last = v.direction[0].last.tv_sec;
    if (v.direction[1].last.tv_sec != 0 && v.direction[1].last.tv_sec > last)
        last = v.direction[1].last.tv_sec;
    const uint32_t duration = uint32_t(last - quelm::flow_first_seen(flow));
    const char *l7 =
        quelm_dpi_get_protocol_name_by_id(pelda, &v.l7_protocol, proto_buf, sizeof proto_buf);

    // Flows are printed once each, often by the hundred thousand: the line is assembled by hand
    // rather than through printf, then cut to the caller's size as snprintf would.
    TextWriter w;
    w.put("[").put(utils_prototoa(k.protocol)).put("] ").put(src != nullptr ? src : "?");
    w.put(":").num(k.sport).put(" <-> ").put(dst != nullptr ? dst : "?").put(":").num(k.dport);
    w.put(" [").num(v.direction[0].bytes).put("/").num(v.direction[1].bytes).put(" bytes][");
    w.num(v.direction[0].pkts).put("/").num(v.direction[1].pkts).put(" pkts][vlan ");
    w.num(k.vlan_id).put("][TCP flags: ").num(v.direction[0].tcp_flags).put("/");
    w.num(v.direction[1].tcp_flags).put("][duration: ").num(duration).put(" sec][").put(l7);
    w.put("]");
    if (size != 0) {
        const size_t n = w.len < size - 1 ? w.len : size - 1;
        memcpy(buf, w.text, n);
        buf[n] = '\0';
    }
    return buf;
}

uint64_t quelm_flow_get_id(quelm_flow *flow) {
    return flow->id;
}
quelm_flow_key *quelm_flow_get_key(quelm_flow *flow) {
    return &flow->key;
}
quelm_flow_value *quelm_flow_get_value(quelm_flow *flow) {
    return &flow->value;
}
void *quelm_flow_get_pelda_handle(quelm_flow *flow) {
    return flow->dpi_flow;
}
void quelm_flow_set_action(quelm_flow *flow, quelm_action action) {
    flow->action = action;
}
quelm_action quelm_flow_get_action(quelm_flow *flow) {
    return flow->action;
}

uint32_t quelm_flow_get_users(quelm_flow *flow) {
    return quelm_flow_is_slice(flow) ? flow->parent->users : flow->users;
}

// ---- Per-flow detection ----------------------------------------------------------------------

int quelm_flow_dpi_alloc(quelm_flow *flow) {
    flow->dpi_flow = calloc(1, quelm_dpi_detection_get_sizeof_pelda_flow_struct());
    return flow->dpi_flow != nullptr ? 0 : -1;
}

void quelm_flow_dpi_init(quelm_flow *flow, void *pelda) {
    quelm_l7_protocol &p = flow->value.l7_protocol;
    p.master_protocol = p.app_protocol = 0;
    if (pelda == nullptr) {
        flow->dpi_done = 1;
        return;
    }
    const quelm_flow_key &k = flow->key;
    if (k.protocol == 6 || k.protocol == 17) {
        flow->dpi_flow = nullptr;
        flow->dpi_done = 0;
        // A flow whose engine state cannot be allocated is given up on at its first step.
        quelm_flow_dpi_alloc(flow);
        return;
    }
    const bool v4 = k.ip_version == 4;
    const quelm_dpi_result r =
        quelm_dpi_guess_undetected_protocol(pelda, nullptr, k.protocol, v4 ? key_ipv4(k.saddr) : 0,
                                            k.sport, v4 ? key_ipv4(k.daddr) : 0, k.dport);
    flow->dpi_flow = nullptr;
    flow->dpi_done = 1;
    store_pair(flow, r);
    flow->value.flags |= QUELM_FLOW_FLAG_L7_GUESSED;
}

void quelm_flow_dpi_run(uint16_t tcp_limit, uint16_t udp_limit, uint8_t extra_dissection,
                        quelm_flow *flow, const quelm_packet_info *packet, void *pelda) {
    const uint32_t limit = flow->key.protocol == 6 ? tcp_limit : udp_limit;
    const uint32_t total = quelm::flow_total_packets(flow);

    // Without engine state there is nothing to feed: treat the flow as one that gives up.
    if (flow->dpi_flow != nullptr) {
        const quelm_timeval &ts = packet->header->ts;
        const uint64_t ms = uint64_t(ts.tv_sec) * 1000 + uint64_t(ts.tv_usec) / 1000;
        const uint32_t caplen = packet->header->caplen;
        const uint32_t len = caplen > packet->l3_offset ? caplen - packet->l3_offset : 0;
        const quelm_dpi_result r = quelm_pelda_detection_process_packet(
            pelda, flow->dpi_flow, packet->data + packet->l3_offset, len, ms);
        if (r.master_protocol != 0 || r.app_protocol != 0) {
            store_pair(flow, r);
            flow->value.l7_protocol.category = int32_t(r.category);
            const bool ends = total > detection_limit(r, limit) || extra_dissection == 0 ||
                              r.state == PELDA_STATE_DONE;
            if (ends) complete_detection(flow);
            return;
        }
        if (total <= limit) return;
    }
    const quelm_dpi_result r = quelm_dpi_giveup_and_guess(pelda, flow->dpi_flow);
    store_pair(flow, r);
    flow->value.l7_protocol.category = int32_t(r.category);
    flow->value.flags |= QUELM_FLOW_FLAG_L7_GUESSED;
    complete_detection(flow);
}

void quelm_flow_dpi_guess(quelm_flow *flow, void *pelda, uint32_t allowed) {
    quelm_l7_protocol &p = flow->value.l7_protocol;
    const quelm_flow_key &k = flow->key;
    if (p.master_protocol != 0 || p.app_protocol != 0 || allowed == 0 || k.ip_version != 4) return;
    const quelm_dpi_result r = quelm_dpi_guess_undetected_protocol(
        pelda, flow->dpi_flow, k.protocol, key_ipv4(k.saddr), k.sport, key_ipv4(k.daddr), k.dport);
    store_pair(flow, r);
    flow->value.flags |= QUELM_FLOW_FLAG_L7_GUESSED;
}

void quelm_flow_dpi_free(quelm_flow *flow) {
    if (flow->dpi_flow == nullptr) return;
    quelm_dpi_free_flow(flow->dpi_flow);
    flow->dpi_flow = nullptr;
}

void quelm_flow_dpi_copy_metadata(quelm_flow *flow, uint16_t protocol_id) {
    const void *obj = flow->dpi_flow;
    if (obj == nullptr) return;
    namespace off = quelm::pelda_flow_offset;
    quelm_flow_l7_metadata &md = flow->value.l7_metadata;
    const auto *server_name = read_field<const char *>(obj, off::server_name);
    auto copy_server_name = [&](char *&field) {
        if (server_name != nullptr && server_name[0] != '\0' && field == nullptr)
            field = copy_string(server_name);
    };
    switch (protocol_id) {
        case kProtoHttp: {
            copy_server_name(md.http.server_name);
            const auto *url = read_field<const char *>(obj, off::url);
            if (url != nullptr && md.http.url == nullptr) {
                // Keep the path: from the first '/' after "scheme://host", else "/".
                const char *path = strlen(url) >= 7 ? strchr(url + 7, '/') : nullptr;
                md.http.url = copy_string(path != nullptr ? path : "/");
            }
            md.http.response_code = read_field<uint16_t>(obj, off::http_response_code);
            break;
        }
        case kProtoTls: {
            copy_server_name(md.tls.server_name);
            const auto *fp = static_cast<const uint8_t *>(obj) + off::tls_cert_sha1;
            if ((fp[0] | fp[1] | fp[2]) != 0 && md.tls.certificate_fingerprint == nullptr)
                md.tls.certificate_fingerprint = copy_fingerprint(fp);
            break;
        }
        case kProtoDns:
            copy_server_name(md.dns.query);
            md.dns.query_type = read_field<uint16_t>(obj, off::dns_query_type);
            md.dns.reply_code = read_field<uint8_t>(obj, off::dns_reply_code);
            break;
        default:
            break;
    }
}

}  // extern "C"
