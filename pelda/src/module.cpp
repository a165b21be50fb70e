// Module set-up, settings, protocol and category names, host and network rules.
#include <cctype>
#include <cstdio>
#include <strings.h>

#include "internal.h"

using namespace pelda;

namespace pelda {

bool network_trie::insert(uint32_t addr, unsigned prefix, uint16_t value) {
    if (nodes_.size() == 0 && !nodes_.push(trie_node{})) return false;
    uint32_t n = 0;
    for (unsigned bit = 0; bit < prefix; ++bit) {
        unsigned b = (addr >> (31 - bit)) & 1;
        if (nodes_[n].child[b] == 0) {
            if (!nodes_.push(trie_node{})) return false;
            nodes_[n].child[b] = nodes_.size() - 1;
        }
        n = nodes_[n].child[b];
    }
    nodes_[n].value = value;
    nodes_[n].has_value = 1;
    return true;
}

bool network_trie::match(uint32_t addr, uint16_t *value) const {
    if (nodes_.size() == 0) return false;
    bool found = false;
    uint32_t n = 0;
    for (unsigned bit = 0;; ++bit) {
        if (nodes_[n].has_value) {
            *value = nodes_[n].value;
            found = true;
        }
        if (bit == 32) break;
        uint32_t next = nodes_[n].child[(addr >> (31 - bit)) & 1];
        if (next == 0) break;
        n = next;
    }
    return found;
}

uint16_t category_of(const pelda_detection_module *m, uint16_t proto) {
    if (!m || proto >= m->protocols.size()) return 0;
    return m->protocols[proto].category;
}

static int host_cmp(const void *a, const void *b) {
    return std::strcmp(static_cast<const host_rule *>(a)->host,
                       static_cast<const host_rule *>(b)->host);
}

static const host_rule *find_host(const vec<host_rule> &rules, const char *host, size_t len) {
    // Binary search over rules sorted by host; `host` is lower case, `len` bytes.
    uint32_t lo = 0, hi = rules.size();
    while (lo < hi) {
        uint32_t mid = (lo + hi) / 2;
        int c = std::strncmp(rules[mid].host, host, len);
        if (c == 0 && rules[mid].host[len] != '\0') c = 1;
        if (c == 0) return &rules[mid];
        if (c < 0)
            lo = mid + 1;
        else
            hi = mid;
    }
    return nullptr;
}

// The rule of the name itself or of its closest parent domain ("a.b.example.com"
// matches a rule for "example.com").
static const host_rule *match_host(const vec<host_rule> &rules, const char *host) {
    if (!host || rules.size() == 0) return nullptr;
    char lower[256];
    size_t len = std::strlen(host);
    if (len == 0 || len >= sizeof(lower)) return nullptr;
    for (size_t i = 0; i < len; ++i)
        lower[i] = char(std::tolower((unsigned char)host[i]));
    lower[len] = '\0';
    const char *p = lower;
    while (p && *p) {
        if (const host_rule *r = find_host(rules, p, std::strlen(p))) return r;
        p = std::strchr(p, '.');
        if (p) ++p;
    }
    return nullptr;
}

uint16_t match_host_protocol(const pelda_detection_module *m, const char *host) {
    const host_rule *r = match_host(m->host_protocol_rules, host);
    return r ? r->proto : 0;
}

int match_host_category(const pelda_detection_module *m, const char *host) {
    const host_rule *r = match_host(m->host_category_rules, host);
    return r ? r->category : -1;
}

}  // namespace pelda

pelda_detection_module::~pelda_detection_module() {
    for (host_rule &r : host_protocol_rules)
        std::free(r.host);
    for (host_rule &r : host_category_rules)
        std::free(r.host);
}

void pelda::sort_hosts(pelda_detection_module *m) {
    if (m->host_protocol_rules.size())
        std::qsort(m->host_protocol_rules.begin(), m->host_protocol_rules.size(), sizeof(host_rule),
                   host_cmp);
    if (m->host_category_rules.size())
        std::qsort(m->host_category_rules.begin(), m->host_category_rules.size(), sizeof(host_rule),
                   host_cmp);
    m->hosts_sorted = true;
}

extern "C" {

uint32_t pelda_get_api_version(void) {
    return PELDA_API_VERSION;
}

const char *pelda_revision(void) {
    return PELDA_REVISION;
}

pelda_detection_module *pelda_init_detection_module(void *prefs, int flags) {
    (void)prefs;  // no initialisation preferences are defined yet
    (void)flags;
    auto *m = new (std::nothrow) pelda_detection_module();
    if (!m) return nullptr;
    m->guess_on_giveup = 1;
    const builtin_table &t = builtins();
    for (uint32_t i = 0; i < t.count; ++i) {
        protocol_entry e{};
        std::snprintf(e.name, sizeof(e.name), "%s", t.by_id[i]->name);
        e.category = t.by_id[i]->category;
        if (!m->protocols.push(e)) {
            delete m;
            return nullptr;
        }
    }
    return m;
}

int pelda_set_config(pelda_detection_module *m, const char *proto, const char *key,
                     const char *value) {
    if (!m || !key || !value || proto) return -1;
    if (std::strcmp(key, "dpi.guess_on_giveup") == 0) {
        if (std::strcmp(value, "0") == 0) {
            m->guess_on_giveup = 0;
            return 0;
        }
        if (std::strcmp(value, "1") == 0) {
            m->guess_on_giveup = 1;
            return 0;
        }
    }
    return -1;
}

int pelda_finalize_initialization(pelda_detection_module *m) {
    if (!m) return -1;
    sort_hosts(m);
    m->finalized = 1;
    return 0;
}

void pelda_exit_detection_module(pelda_detection_module *m) {
    delete m;
}

uint16_t pelda_get_proto_by_name(pelda_detection_module *m, const char *name) {
    if (!m || !name || !*name) return 0;
    for (uint32_t i = 1; i < m->protocols.size(); ++i)
        if (strcasecmp(m->protocols[i].name, name) == 0) return uint16_t(i);
    return 0;
}

char *pelda_protocol2name(pelda_detection_module *m, pelda_proto_pair p, char *buf,
                          uint32_t buf_len) {
    if (!buf || buf_len == 0) return nullptr;
    uint32_t n = m ? m->protocols.size() : builtins().count;
    auto name = [&](uint16_t id) -> const char * {
        if (id == 0 || id >= n) return nullptr;
        return m ? m->protocols[id].name : builtins().by_id[id]->name;
    };
    const char *master = name(p.master_protocol), *app = name(p.app_protocol);
    if (master && app && p.master_protocol != p.app_protocol)
        std::snprintf(buf, buf_len, "%s.%s", master, app);
    else if (app)
        std::snprintf(buf, buf_len, "%s", app);
    else if (master)
        std::snprintf(buf, buf_len, "%s", master);
    else
        std::snprintf(buf, buf_len, "%s", "Unknown");
    return buf;
}

uint32_t pelda_get_num_protocols(pelda_detection_module *m) {
    return m ? m->protocols.size() : builtins().count;
}

const char *pelda_category_get_name(pelda_detection_module *m, uint32_t category) {
    (void)m;  // category names are the same for every module
    return category < PELDA_NUM_CATEGORIES ? builtins().category_names[category] : nullptr;
}

uint32_t pelda_get_proto_category(pelda_detection_module *m, uint16_t proto) {
    return category_of(m, proto);
}

int pelda_get_category_by_name(pelda_detection_module *m, const char *name) {
    (void)m;
    if (!name) return -1;
    for (uint32_t i = 0; i < PELDA_NUM_CATEGORIES; ++i)
        if (strcasecmp(builtins().category_names[i], name) == 0) return int(i);
    return -1;
}

uint16_t pelda_network_ptree_match(pelda_detection_module *m, uint32_t addr) {
    uint16_t v = 0;
    if (m && m->protocol_networks.match(addr, &v)) return v;
    return 0;
}

}  // extern "C"
