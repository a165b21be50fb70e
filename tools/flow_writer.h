// Output of the quelm tool: a buffered sink on a file descriptor, and the two record formats
// (the library's one-line text form, and JSON lines shaped like the flow events that network
// security pipelines already read).
#pragma once

#include <quelm.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

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

// Protocol details are cut to these lengths before they are escaped, which bounds a record.
inline constexpr size_t kMaxNameLen = 255;
inline constexpr size_t kMaxUrlLen = 1024;
// The longest record either format writes, line end included: the fixed fields take under 1 KiB,
// three names and a URL at most six bytes each when escaped.
inline constexpr size_t kMaxRecordLen = 1024 + 6 * (3 * kMaxNameLen + kMaxUrlLen);

// One JSON object and a line end for the flow at `out` (kMaxRecordLen bytes of room); returns the
// bytes written. `table` names the flow's protocol and category (it may have no detection: then
// every flow is "Unknown"); `answers_read` says whether the table read answers
// (--extra-dissection), without which a DNS reply code of 0 means "not seen" and is left out.
size_t format_json_flow(quelm_flow *flow, quelm_table *table, bool answers_read, char *out);
// The library's text form (with the protocol name when `table` detects) and a line end.
size_t format_text_flow(quelm_flow *flow, quelm_table *table, char *out);
// "2026-11-23T08:53:07.123456+0000": ISO 8601 in UTC with microseconds. `out` needs 32 bytes;
// returns the bytes written (31).
size_t format_timestamp(const quelm_timeval &tv, char *out);
// A JSON string literal (quotes included) of at most `max_len` bytes of `text`, escaped; `out`
// needs 6 * length + 3 bytes. Bytes that are not valid UTF-8 are written as \u0080 to \u00ff
// (their Latin-1 reading), so that the output is always valid JSON.
size_t format_json_string(const char *text, char *out, size_t max_len = SIZE_MAX);
// Usual mnemonics of DNS record types ("AAAA") and reply codes ("NXDOMAIN"); "TYPE65280" and
// "RCODE12" for numbers without one.
std::string dns_type_name(uint16_t type);
std::string dns_rcode_name(uint16_t rcode);

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
    bool count_protocols_ = false;
    bool export_ = false;
    uint64_t flows_ = 0;
    uint64_t slices_ = 0;
    std::map<uint32_t, ProtocolTotals> protocols_;  // by master << 16 | app
};

}  // namespace quelm_tool
