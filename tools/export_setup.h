// Export of `quelm flows` to collectors over ZeroMQ: the options, the set-up of the library's
// exporter, the wait for collectors before the first flow leaves, and the statistics records.
#pragma once

#include <quelm.h>

#include <CLI/CLI.hpp>

#include <string>

namespace quelm_tool {

struct ExportOptions {
    std::string endpoints;    // --zmq: comma-separated; empty: no export
    std::string server_key;   // --zmq-server-key KEY or @FILE; empty: the library's built-in key
    bool connect = false;     // --zmq-connect: the collectors bind
    bool json = false;        // --zmq-format json
    std::string stats_iface;  // --zmq-stats-iface
    double wait_seconds = 5;  // --zmq-wait
};

void add_export_options(CLI::App &command, ExportOptions &options);

// One run's export. A publisher drops what it sends while nobody subscribes, so start() waits
// (bounded) until a collector has subscribed at every endpoint, using a probe socket of its own
// with the same key: its handshake succeeds exactly when the library's will.
class ExportSession {
  public:
    // Sets up the table's exporter; 0, or an exit code after saying what is wrong.
    int start(quelm_table *table, const ExportOptions &options, const std::string &capture_name);
    // Call now and then: sends a statistics record once the run is 3 seconds old, then as often
    // as the library allows (every 3 seconds).
    void tick();
    // After the table's last flows were handed on: drains what the queue allows and sends a
    // final statistics record. Destroying the table then sends the rest and lingers until sent.
    void finish();

  private:
    void send_stats();
    quelm_table *table_ = nullptr;
    std::string iface_;
    double started_ = 0;
};

}  // namespace quelm_tool
