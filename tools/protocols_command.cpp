#include "protocols_command.h"

#include <quelm.h>

#include <cstdio>

#include "exit_codes.h"

namespace quelm_tool {

CLI::App *add_protocols_command(CLI::App &app, DetectionOptions &options) {
    CLI::App *command = app.add_subcommand(
        "protocols",
        "List the application protocols and categories the detection engine knows, with their "
        "ids: the names that rules files use (a pair of protocols is written MASTER.APP)");
    add_engine_file_options(*command, options, "Engine files (as for quelm flows)");
    command->footer(
        "Exit status: 0 success, 65 a refused file, 66 a file cannot be opened, 69 "
        "the detection engine is missing.");
    return command;
}

int run_protocols(const DetectionOptions &options) {
    const char *command = "quelm protocols";
    quelm_table *table = quelm_create_table(QUELM_FLAG_DPI, 1, 0, 0, 0);
    if (table == nullptr) {
        std::string message;
        const int code = explain_failed_table(command, &message);
        fprintf(stderr, "%s\n", message.c_str());
        return code;
    }
    const int configured = configure_detection(table, options, command);
    if (configured != kExitOk) {
        quelm_destroy_table(table);
        return configured;
    }
    char name[64];
    const uint32_t protocols = quelm_dpi_get_num_supported_protocols(quelm_get_pelda_handle(table));
    printf("Protocols (%u):\n", protocols);
    for (uint32_t id = 0; id < protocols; id++) {
        const quelm_l7_protocol single = {uint16_t(id), uint16_t(id), 0};
        printf("%6u  %s\n", id, quelm_l7_protocol_name(table, &single, name, sizeof name));
    }
    const uint32_t categories = quelm_dpi_get_num_supported_categories();
    printf("\nCategories (%u):\n", categories);
    for (uint32_t id = 0; id < categories; id++)
        printf("%6u  %s\n", id, quelm_category_name(table, id, name, sizeof name));
    quelm_destroy_table(table);
    return fflush(stdout) == 0 && !ferror(stdout) ? kExitOk : kExitOutputError;
}

}  // namespace quelm_tool
