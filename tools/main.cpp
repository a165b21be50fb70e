// quelm: the command-line front of the flow-table library, one binary with subcommands.
#include <quelm.h>

#include <CLI/CLI.hpp>

#include <cstdio>

#include "exit_codes.h"
#include "collect_command.h"
#include "flows_command.h"
#include "keygen_command.h"
#include "protocols_command.h"

int main(int argc, char **argv) {
    char version[32];
    quelm_version(version);
    CLI::App app{
        "quelm: flow tracking for packet captures. It groups packets into flows (both directions "
        "of a conversation) and reports each flow's packets, bytes, times, TCP flags and "
        "application protocol.",
        "quelm"};
    app.set_version_flag("--version", std::string("quelm ") + version);
    app.require_subcommand(1);
    app.footer("Run 'quelm flows --help' for the options of a command; 'man quelm' for details.");

    quelm_tool::FlowsOptions flows_options;
    CLI::App *flows = quelm_tool::add_flows_command(app, flows_options);
    quelm_tool::DetectionOptions protocols_options;
    CLI::App *protocols = quelm_tool::add_protocols_command(app, protocols_options);
    quelm_tool::KeygenOptions keygen_options;
    CLI::App *keygen = quelm_tool::add_keygen_command(app, keygen_options);
    quelm_tool::CollectOptions collect_options;
    CLI::App *collect = quelm_tool::add_collect_command(app, collect_options);
    if (argc < 2) {
        fputs(app.help().c_str(), stderr);
        return quelm_tool::kExitUsage;
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        // --help and --version end here with 0; every real parse error is a usage error.
        return app.exit(e) == 0 ? quelm_tool::kExitOk : quelm_tool::kExitUsage;
    }
    if (flows->parsed()) return quelm_tool::run_flows(flows_options);
    if (protocols->parsed()) return quelm_tool::run_protocols(protocols_options);
    if (keygen->parsed()) return quelm_tool::run_keygen(keygen_options);
    if (collect->parsed()) return quelm_tool::run_collect(collect_options);
    return quelm_tool::kExitUsage;
}
