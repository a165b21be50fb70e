#include "detection.h"

#include <strings.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "exit_codes.h"
#include "input_files.h"

namespace quelm_tool {
namespace {

const char *const kActionWords[] = {"default", "forward", "discard", "user_1", "user_2", "slice"};

bool same(const std::string &a, const char *b) {
    return strcasecmp(a.c_str(), b) == 0;
}

std::string trim(const std::string &s) {
    const size_t first = s.find_first_not_of(" \t\r\n\f\v");
    if (first == std::string::npos) return "";
    return s.substr(first, s.find_last_not_of(" \t\r\n\f\v") - first + 1);
}

bool is_action(const std::string &word) {
    for (const char *a : kActionWords)
        if (same(word, a)) return true;
    return false;
}

// A decimal number within [low, high].
bool is_number(const std::string &text, unsigned long low, unsigned long high) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos ||
        text.size() > 9)
        return false;
    const unsigned long n = std::strtoul(text.c_str(), nullptr, 10);
    return n >= low && n <= high;
}

// A protocol name or a MASTER.APP pair the engine knows.
bool known_protocol(quelm_table *table, const std::string &name) {
    const size_t dot = name.find('.');
    if (dot == std::string::npos) return quelm_l7_protocol_id(table, name.c_str()) != 0;
    return quelm_l7_protocol_id(table, name.substr(0, dot).c_str()) != 0 &&
           quelm_l7_protocol_id(table, name.substr(dot + 1).c_str()) != 0;
}

// What is wrong with one rule, or "".
std::string check_rule(quelm_table *table, const std::string &section, const std::string &key,
                       const std::string &value) {
    const std::string unknown =
        "unknown protocol '" + key + "' ('quelm protocols' lists the names; a pair is MASTER.APP)";
    if (section.empty()) return "a rule before any [section]";
    if (same(section, "shunt")) {
        if (!same(key, "default") && !same(key, "tcp") && !same(key, "udp") &&
            !known_protocol(table, key))
            return unknown;
        if (!is_number(value, 0, 255)) return "'" + value + "' is not a packet count from 0 to 255";
        return "";
    }
    if (same(section, "filter")) {
        if (!known_protocol(table, key)) return unknown;
        if (!is_action(value))
            return "'" + value +
                   "' is not an action (default, forward, discard, user_1, user_2, slice)";
        return "";
    }
    if (same(section, "global")) {
        if (same(key, "default")) return is_action(value) ? "" : "'" + value + "' is not an action";
        if (same(key, "dpi_min_num_tcp_packets") || same(key, "dpi_min_num_udp_packets"))
            return is_number(value, 1, 65535) ? ""
                                              : "'" + value + "' is not a count from 1 to 65535";
        if (same(key, "flow_idle_timeout") || same(key, "flow_lifetime_timeout"))
            return is_number(value, 1, 999999999) ? ""
                                                  : "'" + value + "' is not a number of seconds";
        return "unknown setting '" + key + "'";
    }
    return "unknown section [" + section + "] (use [filter], [shunt] or [global])";
}

// Writes the command line's packet limits as a rules file of their own, loads it and removes it.
int load_packet_limits(quelm_table *table, const DetectionOptions &o, const char *command) {
    if (o.tcp_packets == 0 && o.udp_packets == 0) return kExitOk;
    const char *dir = getenv("TMPDIR");
    std::string path = std::string(dir != nullptr && *dir != 0 ? dir : "/tmp") + "/quelm-XXXXXX";
    const int fd = mkstemp(path.data());
    if (fd < 0) {
        fprintf(stderr, "%s: cannot create a temporary file in %s: %m; set TMPDIR\n", command,
                path.c_str());
        return kExitCantCreate;
    }
    std::string text = "[global]\n";
    if (o.tcp_packets != 0)
        text += "dpi_min_num_tcp_packets = " + std::to_string(o.tcp_packets) + "\n";
    if (o.udp_packets != 0)
        text += "dpi_min_num_udp_packets = " + std::to_string(o.udp_packets) + "\n";
    const bool written = write(fd, text.data(), text.size()) == ssize_t(text.size());
    close(fd);
    const int loaded = written ? quelm_load_configuration(table, path.c_str()) : -1;
    unlink(path.c_str());
    if (loaded != 0) {
        fprintf(stderr, "%s: cannot set the detection packet limits through %s\n", command,
                path.c_str());
        return kExitCantCreate;
    }
    return kExitOk;
}

}  // namespace

void add_engine_file_options(CLI::App &command, DetectionOptions &o, const char *group) {
    command
        .add_option("--protocols", o.protocols,
                    "Load more protocols from FILE: one per line, a name then rules such as "
                    "tcp:8443, host:intranet.example.com, net:10.20.0.0/16, category:Web")
        ->type_name("FILE")
        ->group(group);
    command
        .add_option("--categories", o.categories,
                    "Load category rules from FILE: a category (name or id) then host:NAME or "
                    "net:A.B.C.D/BITS rules")
        ->type_name("FILE")
        ->group(group);
}

constexpr const char *kDetectionGroup = "Detection (on by default)";

CLI::Option *packet_limit_option(CLI::App &command, const char *name, uint32_t &value,
                                 const char *protocol, int library_default) {
    const std::string help = std::string("Give up detecting a ") + protocol +
                             " flow after N packets (library default " +
                             std::to_string(library_default) + ")";
    return command.add_option(name, value, help)
        ->type_name("N")
        ->check(CLI::Range(1u, 65535u).description(""))
        ->group(kDetectionGroup);
}

void add_detection_options(CLI::App &command, DetectionOptions &o) {
    const char *group = kDetectionGroup;
    CLI::Option *no_dpi =
        command
            .add_flag_callback(
                "--no-dpi", [&o] { o.enabled = false; },
                "Do not detect application protocols (every flow is \"Unknown\"); faster")
            ->group(group);
    CLI::Option *rules =
        command
            .add_option("--rules", o.rules,
                        "Read filter and shunt rules from FILE ([filter] PROTOCOL = ACTION, "
                        "[shunt] PROTOCOL|tcp|udp|default = PACKETS, [global] settings); a bad "
                        "line is refused with its line number")
            ->type_name("FILE")
            ->group(group);
    add_engine_file_options(command, o, group);
    CLI::Option *tcp = packet_limit_option(command, "--dpi-tcp-packets", o.tcp_packets, "TCP", 12);
    CLI::Option *udp = packet_limit_option(command, "--dpi-udp-packets", o.udp_packets, "UDP", 5);
    CLI::Option *extra =
        command
            .add_flag("--extra-dissection", o.extra_dissection,
                      "Go on reading a flow after its protocol is named, for the answers: HTTP "
                      "status, DNS reply code and TLS certificate fingerprint need it")
            ->group(group);
    CLI::Option *no_guess =
        command
            .add_flag("--no-guess", o.no_guess,
                      "Leave flows that detection cannot name \"Unknown\" instead of guessing "
                      "from ports and addresses")
            ->group(group);
    for (CLI::Option *option : {rules, tcp, udp, extra, no_guess})
        no_dpi->excludes(option);
    for (const char *name : {"--protocols", "--categories"})
        no_dpi->excludes(command.get_option(name));
}

uint32_t detection_flags(const DetectionOptions &o) {
    if (!o.enabled) return 0;
    return QUELM_FLAG_DPI | (o.extra_dissection ? QUELM_FLAG_DPI_EXTRA_DISSECTION : 0) |
           (o.no_guess ? QUELM_FLAG_NO_L7_GUESS : 0);
}

int explain_failed_table(const char *command, std::string *message) {
    void *engine = quelm_dpi_alloc(1);
    if (engine == nullptr) {
        *message = std::string(command) +
                   ": the detection engine (libpelda) is missing or of another version (see the "
                   "line above, if any); install the libpelda that came with quelm, or run with "
                   "--no-dpi";
        return kExitUnavailable;
    }
    quelm_dpi_free(engine);
    *message = std::string(command) + ": not enough memory for the flow table; lower --max-flows";
    return kExitNoMemory;
}

int check_rules_file(quelm_table *table, const std::string &path,
                     std::vector<std::string> *problems, std::string *error) {
    // The library's limits: 1023 bytes a line, a '\r' included, and 16 MiB.
    const LineLimits limits = {1022, 16 << 20};
    std::string section;
    int number = 0;
    return for_each_line(
        path, limits,
        [&](const std::string &line) {
            const std::string where = path + ":" + std::to_string(++number) + ": ";
            const std::string s = trim(line);
            if (s.size() < 2 || s[0] == ';' || s[0] == '#') {
                if (s.size() == 1 && s[0] != ';' && s[0] != '#')
                    problems->push_back(where + "'" + s + "' is not a rule");
                return;
            }
            if (s[0] == '[') {
                const size_t close = s.find(']');
                section = s.substr(1, close == std::string::npos ? std::string::npos : close - 1);
                const std::string problem = check_rule(table, section, "default", "0");
                if (problem.rfind("unknown section", 0) == 0) problems->push_back(where + problem);
                return;
            }
            size_t sep = s.find('=');
            if (sep == std::string::npos) sep = s.find(' ');
            const std::string key = trim(s.substr(0, sep));
            const std::string value = sep == std::string::npos ? "" : trim(s.substr(sep + 1));
            const std::string problem = check_rule(table, section, key, value);
            if (!problem.empty()) problems->push_back(where + problem);
        },
        error);
}

int configure_detection(quelm_table *table, const DetectionOptions &o, const char *command) {
    if (!o.enabled) return kExitOk;
    // Protocols first: the categories and the rules may name the protocols they add.
    const std::pair<const std::string *, int (*)(quelm_table *, const char *)> files[] = {
        {&o.protocols, quelm_load_pelda_protocols}, {&o.categories, quelm_load_pelda_categories}};
    for (const auto &[path, load] : files) {
        if (path->empty()) continue;
        if (access(path->c_str(), R_OK) != 0) {
            fprintf(stderr, "%s: cannot open '%s': %m\n", command, path->c_str());
            return kExitNoInput;
        }
        std::string error;
        if (refuse_directory(*path, &error) != kExitOk) {
            fprintf(stderr, "%s: %s\n", command, error.c_str());
            return kExitNoInput;
        }
        if (load(table, path->c_str()) < 0) {
            fprintf(stderr,
                    "%s: '%s' was refused, nothing of it is used (the engine named the bad line "
                    "above); fix the line and run again\n",
                    command, path->c_str());
            return kExitDataError;
        }
    }
    if (!o.rules.empty()) {
        std::vector<std::string> problems;
        std::string error;
        const int status = check_rules_file(table, o.rules, &problems, &error);
        if (status != kExitOk) {
            fprintf(stderr, "%s: %s\n", command, error.c_str());
            return status;
        }
        for (const std::string &p : problems)
            fprintf(stderr, "%s: %s\n", command, p.c_str());
        if (!problems.empty()) {
            fprintf(stderr, "%s: the rules file has %zu bad line%s; fix %s and run again\n",
                    command, problems.size(), problems.size() == 1 ? "" : "s",
                    problems.size() == 1 ? "it" : "them");
            return kExitDataError;
        }
        if (quelm_load_configuration(table, o.rules.c_str()) != 0) {
            fprintf(stderr, "%s: cannot open the rules file '%s'\n", command, o.rules.c_str());
            return kExitNoInput;
        }
    }
    return load_packet_limits(table, o, command);
}

}  // namespace quelm_tool
