// Module set-up, settings, protocol and category names, and the custom
// protocols and categories files.
#include <cctype>
#include <cerrno>
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

static void sort_hosts(pelda_detection_module *m) {
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

// ---- Files ------------------------------------------------------------------

namespace {

constexpr size_t kLineMax = 1024;

struct file_reader {
    const char *path = nullptr;
    FILE *fp = nullptr;
    unsigned line_no = 0;
    char line[kLineMax + 2];

    int fail(const char *what, const char *token) const {
        std::fprintf(stderr, "pelda: %s:%u: %s '%s'\n", path, line_no, what, token ? token : "");
        return -1;
    }
};

bool valid_name(const char *s) {
    size_t n = std::strlen(s);
    if (n == 0 || n >= kNameMax) return false;
    for (size_t i = 0; i < n; ++i)
        if (!std::isalnum((unsigned char)s[i]) && s[i] != '_' && s[i] != '-') return false;
    return true;
}

bool parse_u32(const char *s, uint32_t max, uint32_t *out) {
    if (!*s) return false;
    uint64_t v = 0;
    for (; *s; ++s) {
        if (*s < '0' || *s > '9') return false;
        v = v * 10 + uint32_t(*s - '0');
        if (v > max) return false;
    }
    *out = uint32_t(v);
    return true;
}

bool parse_port_range(const char *s, uint16_t *lo, uint16_t *hi) {
    char a[16];
    const char *dash = std::strchr(s, '-');
    uint32_t l, h;
    if (dash) {
        size_t n = size_t(dash - s);
        if (n == 0 || n >= sizeof(a)) return false;
        std::memcpy(a, s, n);
        a[n] = '\0';
        if (!parse_u32(a, 65535, &l) || !parse_u32(dash + 1, 65535, &h)) return false;
    } else {
        if (!parse_u32(s, 65535, &l)) return false;
        h = l;
    }
    if (l == 0 || l > h) return false;
    *lo = uint16_t(l);
    *hi = uint16_t(h);
    return true;
}

bool parse_network(const char *s, uint32_t *addr, unsigned *prefix) {
    char a[32];
    const char *slash = std::strchr(s, '/');
    size_t n = slash ? size_t(slash - s) : std::strlen(s);
    if (n == 0 || n >= sizeof(a)) return false;
    std::memcpy(a, s, n);
    a[n] = '\0';
    uint32_t p = 32;
    if (slash && !parse_u32(slash + 1, 32, &p)) return false;
    uint32_t v = 0;
    int parts = 0;
    char *save = nullptr;
    for (char *tok = strtok_r(a, ".", &save); tok; tok = strtok_r(nullptr, ".", &save)) {
        uint32_t octet;
        if (++parts > 4 || !parse_u32(tok, 255, &octet)) return false;
        v = v << 8 | octet;
    }
    if (parts != 4) return false;
    *addr = p == 0 ? 0 : v & (0xFFFFFFFFu << (32 - p));
    *prefix = p;
    return true;
}

bool valid_host(const char *s) {
    size_t n = std::strlen(s);
    if (n == 0 || n > 253) return false;
    for (size_t i = 0; i < n; ++i) {
        unsigned char c = (unsigned char)s[i];
        if (!std::isalnum(c) && c != '.' && c != '-' && c != '_') return false;
    }
    return s[0] != '.' && s[n - 1] != '.';
}

char *lower_dup(const char *s) {
    size_t n = std::strlen(s);
    char *d = static_cast<char *>(std::malloc(n + 1));
    if (!d) return nullptr;
    for (size_t i = 0; i <= n; ++i)
        d[i] = char(std::tolower((unsigned char)s[i]));
    return d;
}

// Splits `line` into whitespace-separated tokens; false when there are too many.
bool tokenize(char *line, char **tok, int max, int *count) {
    int n = 0;
    char *save = nullptr;
    for (char *t = strtok_r(line, " \t\r\n", &save); t; t = strtok_r(nullptr, " \t\r\n", &save)) {
        if (n == max) return false;
        tok[n++] = t;
    }
    *count = n;
    return true;
}

// Reads the next line, without comments; 1 line read, 0 end of file, -1 error.
int next_line(file_reader &r) {
    if (!std::fgets(r.line, sizeof(r.line), r.fp)) return 0;
    ++r.line_no;
    size_t n = std::strlen(r.line);
    if (n > kLineMax && r.line[n - 1] != '\n')
        return r.fail("line too long (1024 bytes at most)", "");
    if (char *hash = std::strchr(r.line, '#')) *hash = '\0';
    return 1;
}

constexpr int kMaxTokens = 64;

// One pass over a protocols file: checks every line, and applies them when `apply`.
int protocols_pass(pelda_detection_module *m, file_reader &r, bool apply, uint32_t *added) {
    uint32_t declared = 0;
    for (;;) {
        int got = next_line(r);
        if (got <= 0) return got;
        char *tok[kMaxTokens];
        int n;
        if (!tokenize(r.line, tok, kMaxTokens, &n)) return r.fail("too many rules on the line", "");
        if (n == 0) continue;
        if (!valid_name(tok[0]))
            return r.fail("bad protocol name (letters, digits, '_' and '-', 47 at most)", tok[0]);
        uint16_t id = pelda_get_proto_by_name(m, tok[0]);
        if (id == 0) {
            if (m->protocols.size() + declared >= kMaxProtocols)
                return r.fail("too many protocols (1024 at most)", tok[0]);
            ++declared;
            if (apply) {
                protocol_entry e{};
                std::snprintf(e.name, sizeof(e.name), "%s", tok[0]);
                if (!m->protocols.push(e)) return r.fail("out of memory at", tok[0]);
                id = uint16_t(m->protocols.size() - 1);
                ++*added;
            }
        }
        for (int i = 1; i < n; ++i) {
            char *colon = std::strchr(tok[i], ':');
            if (!colon)
                return r.fail(
                    "rule must be tcp:PORT[-PORT], udp:PORT[-PORT], host:NAME, "
                    "net:A.B.C.D[/BITS] or category:NAME, got",
                    tok[i]);
            *colon = '\0';
            const char *kind = tok[i], *arg = colon + 1;
            if (strcasecmp(kind, "tcp") == 0 || strcasecmp(kind, "udp") == 0) {
                custom_port_rule pr{};
                if (!parse_port_range(arg, &pr.lo, &pr.hi))
                    return r.fail("bad port or port range (1-65535, low-high)", arg);
                pr.l4 = strcasecmp(kind, "tcp") == 0 ? 6 : 17;
                pr.proto = id;
                if (apply && !m->port_rules.push(pr)) return r.fail("out of memory at", arg);
            } else if (strcasecmp(kind, "host") == 0) {
                if (!valid_host(arg)) return r.fail("bad host name", arg);
                if (apply) {
                    host_rule hr{lower_dup(arg), id, 0};
                    if (!hr.host || !m->host_protocol_rules.push(hr)) {
                        std::free(hr.host);
                        return r.fail("out of memory at", arg);
                    }
                }
            } else if (strcasecmp(kind, "net") == 0) {
                uint32_t addr;
                unsigned prefix;
                if (!parse_network(arg, &addr, &prefix))
                    return r.fail("bad IPv4 network (A.B.C.D or A.B.C.D/BITS)", arg);
                if (apply && !m->protocol_networks.insert(addr, prefix, id))
                    return r.fail("out of memory at", arg);
            } else if (strcasecmp(kind, "category") == 0) {
                int cat = pelda_get_category_by_name(m, arg);
                uint32_t num;
                if (cat < 0 && parse_u32(arg, PELDA_NUM_CATEGORIES - 1, &num)) cat = int(num);
                if (cat < 0) return r.fail("unknown category (a name or 0-163)", arg);
                if (apply) m->protocols[id].category = uint16_t(cat);
            } else {
                return r.fail("unknown rule kind (tcp, udp, host, net or category)", kind);
            }
        }
    }
}

int categories_pass(pelda_detection_module *m, file_reader &r, bool apply, uint32_t *added) {
    for (;;) {
        int got = next_line(r);
        if (got <= 0) return got;
        char *tok[kMaxTokens];
        int n;
        if (!tokenize(r.line, tok, kMaxTokens, &n)) return r.fail("too many rules on the line", "");
        if (n == 0) continue;
        int cat = pelda_get_category_by_name(m, tok[0]);
        uint32_t num;
        if (cat < 0 && parse_u32(tok[0], PELDA_NUM_CATEGORIES - 1, &num)) cat = int(num);
        if (cat < 0) return r.fail("unknown category (a name or 0-163)", tok[0]);
        for (int i = 1; i < n; ++i) {
            char *colon = std::strchr(tok[i], ':');
            if (!colon) return r.fail("rule must be host:NAME or net:A.B.C.D[/BITS], got", tok[i]);
            *colon = '\0';
            const char *kind = tok[i], *arg = colon + 1;
            if (strcasecmp(kind, "host") == 0) {
                if (!valid_host(arg)) return r.fail("bad host name", arg);
                if (apply) {
                    host_rule hr{lower_dup(arg), 0, uint16_t(cat)};
                    if (!hr.host || !m->host_category_rules.push(hr)) {
                        std::free(hr.host);
                        return r.fail("out of memory at", arg);
                    }
                    ++*added;
                }
            } else if (strcasecmp(kind, "net") == 0) {
                uint32_t addr;
                unsigned prefix;
                if (!parse_network(arg, &addr, &prefix))
                    return r.fail("bad IPv4 network (A.B.C.D or A.B.C.D/BITS)", arg);
                if (apply) {
                    if (!m->category_networks.insert(addr, prefix, uint16_t(cat)))
                        return r.fail("out of memory at", arg);
                    ++*added;
                }
            } else {
                return r.fail("unknown rule kind (host or net)", kind);
            }
        }
    }
}

using pass_fn = int (*)(pelda_detection_module *, file_reader &, bool, uint32_t *);

// Checks the whole file first so that a bad line leaves the module unchanged.
int load_file(pelda_detection_module *m, const char *path, pass_fn pass) {
    if (!m || !path) return -1;
    file_reader r{};
    r.path = path;
    r.fp = std::fopen(path, "r");
    if (!r.fp) {
        std::fprintf(stderr, "pelda: %s: cannot open (%s); check the path and permissions\n", path,
                     std::strerror(errno));
        return -1;
    }
    uint32_t added = 0;
    int rc = pass(m, r, false, &added);
    if (rc == 0) {
        std::rewind(r.fp);
        r.line_no = 0;
        rc = pass(m, r, true, &added);
    }
    std::fclose(r.fp);
    sort_hosts(m);
    return rc < 0 ? -1 : int(added);
}

}  // namespace

extern "C" {

int pelda_load_protocols_file(pelda_detection_module *m, const char *path) {
    return load_file(m, path, protocols_pass);
}

int pelda_load_categories_file(pelda_detection_module *m, const char *path, void *user_data) {
    (void)user_data;  // reserved for per-rule user data
    return load_file(m, path, categories_pass);
}

}  // extern "C"
