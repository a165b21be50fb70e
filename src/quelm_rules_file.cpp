// Rules files: INI-style lines of filter and shunt rules and the table's "global" settings.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "quelm_rules.h"

namespace {

// A packet limit from a configuration value: decimal, capped at 255, stored as its low byte.
uint8_t packets_value(const char *value) {
    long n = strtol(value, nullptr, 10);
    if (n > 255) n = 255;
    return uint8_t(n);
}

// A rules file is a few hundred short lines. The limits stop a wrong path (a device, a capture)
// from being read without end or cut into lines that happen to parse.
constexpr long kMaxFileBytes = 16L << 20;
constexpr size_t kLineBytes = 1024;  // a line and its terminating NUL

// The next line without its line end: 1, 0 at the end of the file, -1 when it is longer than
// kLineBytes - 1, holds a NUL byte, ends past kMaxFileBytes or cannot be read (a directory).
int next_line(FILE *f, char (&line)[kLineBytes], long *total) {
    size_t n = 0;
    for (int c; (c = getc_unlocked(f)) != EOF;) {
        if (++*total > kMaxFileBytes || c == '\0' || (c != '\n' && n + 1 == kLineBytes)) return -1;
        if (c == '\n') break;
        line[n++] = char(c);
    }
    line[n] = '\0';
    if (ferror(f)) return -1;
    return n > 0 || !feof(f) ? 1 : 0;
}

bool is_space(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

}  // namespace

extern "C" {

char *utils_trim(char *str) {
    while (is_space(*str))
        str++;
    char *end = str + strlen(str);
    while (end > str && is_space(end[-1]))
        end--;
    *end = '\0';
    return str;
}

char *utils_tolower(char *str) {
    for (char *p = str; *p != '\0'; p++)
        if (*p >= 'A' && *p <= 'Z') *p = char(*p - 'A' + 'a');
    return str;
}

quelm_action utils_string2action(char *str) {
    static constexpr const char *kWords[] = {"default", "forward", "discard",
                                             "user_1",  "user_2",  "slice"};
    utils_tolower(str);
    for (quelm_action a = 0; a < sizeof kWords / sizeof kWords[0]; a++)
        if (strcmp(str, kWords[a]) == 0) return a;
    return QUELM_ACTION_DEFAULT;
}

int utils_configuration_file_iterator(const char *path, quelm_conf_callback cb, quelm_table *table,
                                      quelm_rules *rules) {
    FILE *f = fopen(path, "r");
    if (f == nullptr) return -1;
    // The first pass only reads, so that a file refused half-way has changed nothing.
    char section[kLineBytes] = "";
    char line[kLineBytes];
    int got = 0;
    for (int pass = 0; pass < 2 && got == 0; pass++) {
        rewind(f);
        long total = 0;
        while ((got = next_line(f, line, &total)) > 0) {
            char *s = utils_trim(line);
            if (pass == 0 || strlen(s) < 2 || s[0] == ';' || s[0] == '#') continue;
            if (s[0] == '[') {
                snprintf(section, sizeof section, "%s", s + 1);
                if (char *close = strchr(section, ']')) *close = '\0';
                continue;
            }
            char *sep = strchr(s, '=');
            if (sep == nullptr) sep = strchr(s, ' ');
            const char *value = "";
            if (sep != nullptr) {
                *sep = '\0';
                value = utils_trim(sep + 1);
            }
            cb(section, utils_trim(s), value, table, rules);
        }
    }
    fclose(f);
    return got;
}

void quelm_conf_rule_handler(const char *section, const char *key, const char *value,
                             quelm_table *table, quelm_rules *rules) {
    quelm_rules *set = rules != nullptr ? rules : &table->rules;
    if (quelm_debug_enabled) printf("[QUELM] Evaluating rule [%s] %s = %s\n", section, key, value);
    if (strcasecmp(section, "shunt") == 0) {
        const uint8_t packets = packets_value(value);
        if (strcasecmp(key, "default") == 0)
            set->shunt_default = packets;
        else if (strcasecmp(key, "tcp") == 0)
            set->shunt_tcp = packets;
        else if (strcasecmp(key, "udp") == 0)
            set->shunt_udp = packets;
        else
            __quelm_set_shunt_protocol_by_name(table, key, packets, set);
    } else if (strcasecmp(section, "filter") == 0) {
        char word[64];
        snprintf(word, sizeof word, "%.63s", value);
        __quelm_set_filter_protocol_by_name(table, key, utils_string2action(word), set);
    } else if (strcasecmp(section, "global") == 0 && rules == nullptr) {
        if (strcasecmp(key, "default") == 0) {
            char word[64];
            snprintf(word, sizeof word, "%.63s", value);
            quelm_set_default_action(table, utils_string2action(word));
        } else if (strcasecmp(key, "dpi_min_num_tcp_packets") == 0) {
            table->dpi_min_num_tcp_packets = uint16_t(strtol(value, nullptr, 10));
        } else if (strcasecmp(key, "dpi_min_num_udp_packets") == 0) {
            table->dpi_min_num_udp_packets = uint16_t(strtol(value, nullptr, 10));
        } else if (strcasecmp(key, "flow_idle_timeout") == 0) {
            table->expiry.idle_timeout = uint32_t(strtol(value, nullptr, 10));
        } else if (strcasecmp(key, "flow_lifetime_timeout") == 0) {
            table->flow_lifetime_timeout = uint32_t(strtol(value, nullptr, 10));
        }
    }
}

int quelm_load_configuration(quelm_table *table, const char *path) {
    if (table->pelda == nullptr) return -1;
    return utils_configuration_file_iterator(path, quelm_conf_rule_handler, table, nullptr);
}

int quelm_load_configuration_ext(quelm_table *table, const char *path, quelm_rules *rules) {
    if (table->pelda == nullptr) return -1;
    if (rules->filter_protocol != nullptr && rules->shunt_protocol != nullptr) {
        memset(rules->filter_protocol, 0, rules->protocol_table_size);
        memset(rules->shunt_protocol, 0, rules->protocol_table_size);
    } else {
        const uint32_t size = __compute_protocol_filter_size(table);
        rules->filter_protocol = static_cast<uint8_t *>(calloc(size, 1));
        if (rules->filter_protocol == nullptr) return -1;
        rules->shunt_protocol = static_cast<uint8_t *>(calloc(size, 1));
        if (rules->shunt_protocol == nullptr) {
            free(rules->filter_protocol);
            rules->filter_protocol = nullptr;
            return -1;
        }
        rules->protocol_table_size = size;
    }
    rules->shunt_default = rules->shunt_tcp = rules->shunt_udp = 0;
    return utils_configuration_file_iterator(path, quelm_conf_rule_handler, table, rules);
}

}  // extern "C"
