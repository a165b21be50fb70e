// What the tool says on standard error about a run: the progress line while files are read (on a
// terminal only) and the summary of --stats.
#pragma once

#include <quelm.h>

#include <cstdint>
#include <cstdio>
#include <map>
#include <vector>

#include "flow_writer.h"
#include "link_adapter.h"

namespace quelm_tool {

// Monotonic seconds.
double now_seconds();

// One line, rewritten in place at most four times a second.
class ProgressLine {
  public:
    explicit ProgressLine(bool enabled) : enabled_(enabled) {}
    ~ProgressLine() { clear(); }
    // `fraction` of the current input read, or negative when unknown (a pipe).
    void update(double fraction, uint64_t packets, uint64_t active_flows);
    // Removes the line so that later messages start on a clean line.
    void clear();

  private:
    bool enabled_;
    bool shown_ = false;
    double start_ = now_seconds();
    double last_ = 0;
};

// Packets the tool keeps from the library, by reason.
struct ToolRefusals {
    std::map<int, uint64_t> link_types;      // of interfaces whose link type the tool cannot read
    std::map<LinkRefusal, uint64_t> frames;  // refused by the link adapter
    uint64_t total() const;
};

struct RunSummary {
    uint64_t packets = 0;  // packets read from the inputs
    uint64_t bytes = 0;    // their wire length
    const quelm_stats *table = nullptr;
    const ToolRefusals *refusals = nullptr;
    uint64_t flows_written = 0;
    uint64_t slices_written = 0;
    double seconds = 0;
    bool live = false;
    uint64_t kernel_drops = 0;     // live capture: dropped for lack of buffer space
    uint64_t interface_drops = 0;  // live capture: dropped by the interface or driver
};

void print_summary(FILE *out, const RunSummary &s);
// The settings a warning about lost packets can point at.
struct DecodeSettings {
    uint32_t max_packet_len;
    bool strict;  // --strict-decoding
};
// One warning at the end of a run when packets reached no flow (not decoded, a fragment without
// its flow, no room or memory for a new flow): how many, the main reason and what helps.
void warn_losses(const char *command, const quelm_stats &t, const DecodeSettings &settings,
                 const ToolRefusals &tool = {});
// A table of flows, packets and bytes per application protocol, in the order given.
void print_protocol_totals(FILE *out, const std::vector<ProtocolTotals> &totals);

}  // namespace quelm_tool
