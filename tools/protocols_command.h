// `quelm protocols`: the engine's protocol and category names with their ids, the words that rules
// files and the engine's own files use.
#pragma once

#include <CLI/CLI.hpp>

#include "detection.h"

namespace quelm_tool {

CLI::App *add_protocols_command(CLI::App &app, DetectionOptions &options);
int run_protocols(const DetectionOptions &options);

}  // namespace quelm_tool
