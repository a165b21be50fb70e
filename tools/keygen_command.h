// `quelm keygen`: a CURVE key pair for a collector or an exporter, as two labelled text files.
#pragma once

#include <CLI/CLI.hpp>

#include <string>

namespace quelm_tool {

struct KeygenOptions {
    std::string prefix;  // empty: quelm-collector, or quelm-exporter with `client`
    bool client = false;
    bool force = false;
};

CLI::App *add_keygen_command(CLI::App &app, KeygenOptions &options);
int run_keygen(const KeygenOptions &options);

}  // namespace quelm_tool
