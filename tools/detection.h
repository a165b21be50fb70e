// Detection options shared by the commands that run the engine: the engine's files, the rules file,
// the packet limits, and the checks that turn a bad file into a clear message before any packet
// is read.
#pragma once

#include <quelm.h>

#include <CLI/CLI.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace quelm_tool {

struct DetectionOptions {
    bool enabled = true;       // --no-dpi clears it
    std::string rules;         // --rules
    std::string protocols;     // --protocols
    std::string categories;    // --categories
    uint32_t tcp_packets = 0;  // --dpi-tcp-packets (0: the library's default)
    uint32_t udp_packets = 0;  // --dpi-udp-packets
    bool extra_dissection = false;
    bool no_guess = false;
};

// --protocols and --categories only (for `quelm protocols`).
void add_engine_file_options(CLI::App &command, DetectionOptions &options, const char *group);
// Every detection option of `quelm flows`.
void add_detection_options(CLI::App &command, DetectionOptions &options);

// Table flags for the options.
uint32_t detection_flags(const DetectionOptions &options);

// Why a table with detection could not be made: a message and an exit code (69 when the engine is
// missing or of another revision, 71 when memory ran out).
int explain_failed_table(const char *command, std::string *message);

// Loads the engine's files, then the rules file, then the packet limits of the command line (so
// they win over the file's). Returns 0, or an exit code after printing what is wrong, each
// message prefixed with `command`.
int configure_detection(quelm_table *table, const DetectionOptions &options, const char *command);

// The problems of a rules file, one message per bad line ("FILE:LINE: ..."), as the library would
// silently skip them. `table` must detect (names are checked against its engine). kExitOk, or the
// status and message of a file that cannot be read or is no text file of rules (read_lines).
int check_rules_file(quelm_table *table, const std::string &path,
                     std::vector<std::string> *problems, std::string *error);

}  // namespace quelm_tool
