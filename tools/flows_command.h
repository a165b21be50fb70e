// `quelm flows`: reads packets from capture files or a live interface, tracks them in a flow
// table and writes one record per flow that leaves the table.
#pragma once

#include <CLI/CLI.hpp>

#include <cstdint>
#include <string>
#include <vector>

#include "detection.h"
#include "export_setup.h"
#include "flow_writer.h"
#include "ipfix_export.h"
#include "link_adapter.h"

namespace quelm_tool {

struct FlowsOptions {
    // Input
    std::vector<std::string> files;
    std::string interface;
    std::vector<std::string> filter_words;
    std::string filter_file;
    uint64_t count = 0;  // 0: no limit
    // Table (defaults are the library's)
    uint32_t max_flows = 512000;
    uint32_t max_packet_len = kLargestSnapshot;  // the library's is 16384
    uint32_t idle = 30;
    uint32_t lifetime = 120;
    uint32_t slice = 0;
    bool ignore_vlan = false;
    bool mac_in_key = false;
    bool tunnels = false;
    bool strict_decoding = false;  // the library's designed decoding only
    int default_action = 0;
    DetectionOptions detection;
    ExportOptions zmq;
    IpfixOptions ipfix;
    // Output
    std::string output;  // empty: standard output, unless the flows are exported
    Format format = Format::kText;
    uint16_t community_id_seed = 0;
    bool stats = false;
    bool no_progress = false;
};

// One function per group of options, so later features add their own group.
void add_input_options(CLI::App &command, FlowsOptions &options);
void add_table_options(CLI::App &command, FlowsOptions &options);
void add_output_options(CLI::App &command, FlowsOptions &options);

// Registers the `flows` subcommand with all its options.
CLI::App *add_flows_command(CLI::App &app, FlowsOptions &options);

// Runs the command; returns the process exit code (exit_codes.h).
int run_flows(const FlowsOptions &options);

}  // namespace quelm_tool
