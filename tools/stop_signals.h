// SIGINT and SIGTERM end a run cleanly: the handler only raises a flag and breaks the capture
// loop that is running; the run then flushes the table and writes every flow before it exits.
// SIGPIPE is ignored so that a closed output shows up as a write error (EPIPE).
#pragma once

#include <pcap/pcap.h>

namespace quelm_tool {

void install_stop_handlers();
bool stop_requested();
// The capture that a signal should break out of, or null between captures.
void set_active_capture(pcap_t *pcap);

}  // namespace quelm_tool
