// The custom protocols and categories files: every line is checked before any is applied.
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <strings.h>

#include "internal.h"

using namespace pelda;

namespace {

constexpr size_t kLineMax = 1024;
// Far above any real protocols or categories file; it only stops a wrong path (a device, a
// capture) from being read without end.
constexpr long kFileMax = 16L << 20;

struct file_reader {
    const char *path = nullptr;
    FILE *fp = nullptr;
    unsigned line_no = 0;
    long total = 0;  // bytes read
    char line[kLineMax + 1];

    int fail(const char *what, const char *token) const {
        if (!token)
            std::fprintf(stderr, "pelda: %s:%u: %s\n", path, line_no, what);
        else
            std::fprintf(stderr, "pelda: %s:%u: %s '%s'\n", path, line_no, what, token);
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

// Reads the next line, without its line end and comments; 1 line read, 0 end of file, -1 error.
int next_line(file_reader &r) {
    size_t n = 0;
    int c;
    ++r.line_no;
    while ((c = getc_unlocked(r.fp)) != EOF) {
        if (++r.total > kFileMax)
            return r.fail("file larger than 16 MiB; is it the right file?", nullptr);
        if (c == '\n') break;
        if (c == '\0') return r.fail("NUL byte: not a text file", nullptr);
        if (n == kLineMax) return r.fail("line too long (1024 bytes at most)", nullptr);
        r.line[n++] = char(c);
    }
    r.line[n] = '\0';
    if (std::ferror(r.fp)) {
        std::fprintf(stderr, "pelda: %s: cannot read (%s); give a text file\n", r.path,
                     std::strerror(errno));
        return -1;
    }
    if (c == EOF && n == 0) return 0;
    if (char *hash = std::strchr(r.line, '#')) *hash = '\0';
    return 1;
}

constexpr int kMaxTokens = 64;

// Reads on to the next line with tokens: 1 with them in tok[0..*n), 0 at the end of the
// file, -1 on error.
int next_rules(file_reader &r, char **tok, int *n) {
    for (;;) {
        int got = next_line(r);
        if (got <= 0) return got;
        if (!tokenize(r.line, tok, kMaxTokens, n))
            return r.fail("too many rules on the line", nullptr);
        if (*n > 0) return 1;
    }
}

// A category given by name or id, or -1.
int category_arg(pelda_detection_module *m, const char *s) {
    int cat = pelda_get_category_by_name(m, s);
    uint32_t num;
    if (cat < 0 && parse_u32(s, PELDA_NUM_CATEGORIES - 1, &num)) cat = int(num);
    return cat;
}

// Where the host: and net: rules of a line go.
struct rule_target {
    vec<host_rule> *hosts;
    network_trie *nets;
    host_rule host;  // proto and category of a host rule
    uint16_t net_value;
};

// host:NAME and net:A.B.C.D[/BITS], in both files: 1 taken, 0 another kind, -1 error.
int host_or_net(file_reader &r, const rule_target &t, const char *kind, const char *arg,
                bool apply) {
    if (strcasecmp(kind, "host") == 0) {
        if (!valid_host(arg)) return r.fail("bad host name", arg);
        if (!apply) return 1;
        host_rule hr = t.host;
        hr.host = lower_dup(arg);
        if (!hr.host || !t.hosts->push(hr)) {
            std::free(hr.host);
            return r.fail("out of memory at", arg);
        }
        return 1;
    }
    if (strcasecmp(kind, "net") == 0) {
        uint32_t addr;
        unsigned prefix;
        if (!parse_network(arg, &addr, &prefix))
            return r.fail("bad IPv4 network (A.B.C.D or A.B.C.D/BITS)", arg);
        if (apply && !t.nets->insert(addr, prefix, t.net_value))
            return r.fail("out of memory at", arg);
        return 1;
    }
    return 0;
}

// One rule of protocol `id`: 1, or -1 on error.
int protocol_rule(pelda_detection_module *m, file_reader &r, uint16_t id, char *tok, bool apply) {
    char *colon = std::strchr(tok, ':');
    if (!colon)
        return r.fail(
            "rule must be tcp:PORT[-PORT], udp:PORT[-PORT], host:NAME, "
            "net:A.B.C.D[/BITS] or category:NAME, got",
            tok);
    *colon = '\0';
    const char *kind = tok, *arg = colon + 1;
    if (strcasecmp(kind, "tcp") == 0 || strcasecmp(kind, "udp") == 0) {
        custom_port_rule pr{};
        if (!parse_port_range(arg, &pr.lo, &pr.hi))
            return r.fail("bad port or port range (1-65535, low-high)", arg);
        pr.l4 = strcasecmp(kind, "tcp") == 0 ? 6 : 17;
        pr.proto = id;
        if (apply && !m->port_rules.push(pr)) return r.fail("out of memory at", arg);
        return 1;
    }
    if (strcasecmp(kind, "category") == 0) {
        int cat = category_arg(m, arg);
        if (cat < 0) return r.fail("unknown category (a name or 0-163)", arg);
        if (apply) m->protocols[id].category = uint16_t(cat);
        return 1;
    }
    rule_target t{&m->host_protocol_rules, &m->protocol_networks, host_rule{nullptr, id, 0}, id};
    int rc = host_or_net(r, t, kind, arg, apply);
    return rc != 0 ? rc : r.fail("unknown rule kind (tcp, udp, host, net or category)", kind);
}

// One pass over a protocols file: checks every line, and applies them when `apply`.
int protocols_pass(pelda_detection_module *m, file_reader &r, bool apply, uint32_t *added) {
    uint32_t declared = 0;
    char *tok[kMaxTokens];
    int n, got;
    while ((got = next_rules(r, tok, &n)) > 0) {
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
        for (int i = 1; i < n; ++i)
            if (protocol_rule(m, r, id, tok[i], apply) < 0) return -1;
    }
    return got;
}

int categories_pass(pelda_detection_module *m, file_reader &r, bool apply, uint32_t *added) {
    char *tok[kMaxTokens];
    int n, got;
    while ((got = next_rules(r, tok, &n)) > 0) {
        int cat = category_arg(m, tok[0]);
        if (cat < 0) return r.fail("unknown category (a name or 0-163)", tok[0]);
        host_rule host{nullptr, 0, uint16_t(cat)};
        rule_target t{&m->host_category_rules, &m->category_networks, host, uint16_t(cat)};
        for (int i = 1; i < n; ++i) {
            char *colon = std::strchr(tok[i], ':');
            if (!colon) return r.fail("rule must be host:NAME or net:A.B.C.D[/BITS], got", tok[i]);
            *colon = '\0';
            int rc = host_or_net(r, t, tok[i], colon + 1, apply);
            if (rc == 0) return r.fail("unknown rule kind (host or net)", tok[i]);
            if (rc < 0) return rc;
            if (apply) ++*added;
        }
    }
    return got;
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
        r.total = 0;
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
