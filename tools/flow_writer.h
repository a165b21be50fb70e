// Output of the quelm tool: a buffered sink on a file descriptor, and the writer of the flows that
// leave the table.
#pragma once

#include <quelm.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "flow_record.h"

namespace quelm_tool {

// Large writes with write(2): no stdio locking per record, and every failure (EPIPE, ENOSPC, ...)
// is seen where it happens. After a failure further output is dropped.
class OutputSink {
  public:
    OutputSink();
    ~OutputSink();
    OutputSink(const OutputSink &) = delete;
    OutputSink &operator=(const OutputSink &) = delete;

    // "-" or empty: standard output; otherwise the file is created or truncated.
    bool open(const std::string &path, std::string *error);
    // Room for `n` more bytes (flushing when needed); write at most `n` bytes there, then commit.
    char *reserve(size_t n);
    void commit(size_t n) { used_ += n; }
    // Buffers `n` bytes (in pieces when they exceed the buffer).
    void write(const char *data, size_t n);
    // Writes everything buffered. False once any write has failed.
    bool flush();
    // Flushes and closes a file opened by open(). False when anything failed.
    bool close();

    bool failed() const { return error_ != 0; }
    int error_number() const { return error_; }
    bool is_terminal() const;
    const std::string &name() const { return name_; }

  private:
    int fd_ = -1;
    bool owns_fd_ = false;
    int error_ = 0;
    std::string name_;
    // Not zero-filled: pages are only touched when output reaches them.
    std::unique_ptr<char[]> buffer_;
    size_t used_ = 0;
};

enum class Format { kText, kJson };

// Flows, packets and bytes (both directions) of one application protocol.
struct ProtocolTotals {
    std::string name;
    uint64_t flows = 0;  // records that end a flow (slices are parts of one)
    uint64_t packets = 0;
    uint64_t bytes = 0;
};

// Takes every flow that leaves the table: writes it (when there is a sink), counts it, and then
// either releases it or hands it on to the exporter, which then owns it.
class FlowWriter {
  public:
    // `sink` may be null (export only); `table` names protocols.
    FlowWriter(OutputSink *sink, Format format, quelm_table *table, bool answers_read)
        : sink_(sink), format_(format), table_(table), answers_read_(answers_read) {}
    void write(quelm_flow *flow);
    // The interface of a live capture, named in every record (in_iface).
    void interface(const std::string &name) { interface_ = name; }
    // The seed of the records' Community IDs.
    void community_id_seed(uint16_t seed) { community_id_seed_ = seed; }
    void count_protocols(bool on) { count_protocols_ = on; }
    void hand_on_to_exporter(bool on) { export_ = on; }
    uint64_t flows_written() const { return flows_; }
    uint64_t slices_written() const { return slices_; }
    // The per-protocol totals, the most bytes first.
    std::vector<ProtocolTotals> protocol_totals() const;

  private:
    OutputSink *sink_;
    Format format_;
    quelm_table *table_;
    bool answers_read_;
    std::string interface_;
    uint16_t community_id_seed_ = 0;
    bool count_protocols_ = false;
    bool export_ = false;
    uint64_t flows_ = 0;
    uint64_t slices_ = 0;
    std::map<uint32_t, ProtocolTotals> protocols_;  // by master << 16 | app
};

}  // namespace quelm_tool
