// Export of `quelm flows` to collectors over ZeroMQ: the options, the set-up of the library's
// exporter, the statistics records and the account of what was delivered.
#pragma once

#include <quelm.h>

#include <CLI/CLI.hpp>

#include <string>

namespace quelm_tool {

struct ExportOptions {
    std::string endpoints;    // --zmq: comma-separated; empty: no export
    std::string server_key;   // --zmq-server-key KEY or @FILE; empty: the library's built-in key
    std::string client_key;   // --zmq-client-key FILE: the exporter's secret key
    bool connect = false;     // --zmq-connect: the collectors bind
    bool json = false;        // --zmq-format json
    std::string stats_iface;  // --zmq-stats-iface
    double timeout_seconds = 10;  // --zmq-timeout
};

void add_export_options(CLI::App &command, ExportOptions &options);

// One run's export. Flows wait in the library's queue until a collector subscribes; at the end,
// finish() sends what is left, waiting for the collectors up to the timeout without progress.
class ExportSession {
  public:
    // Sets up the table's exporter; 0, or an exit code after saying what is wrong.
    int start(quelm_table *table, const ExportOptions &options, const std::string &capture_name);
    // Call now and then: sends a statistics record once the run is 3 seconds old, then as often
    // as the library allows (every 3 seconds).
    void tick();
    // After the table's last flows were handed on: sends everything and a final statistics
    // record. 0 when nothing was lost; 69 when flows were to be sent but no collector ever
    // completed a handshake; 75 when flows were dropped.
    int finish();
    // The run's last line on standard error: what was delivered to how many collectors.
    void report() const;
    // The exporter's counters, as finish() left them.
    const quelm_zmq_stats &stats() const { return stats_; }

  private:
    void send_stats();
    bool nobody_reached() const;  // flows were to go, and no collector ever took one
    quelm_table *table_ = nullptr;
    std::string iface_;
    double started_ = 0;
    quelm_zmq_stats stats_{};
};

}  // namespace quelm_tool
