// Output of the quelm tool: a buffered sink on a file descriptor, and the two record formats
// (the library's one-line text form, and JSON lines shaped like the flow events that network
// security pipelines already read).
#pragma once

#include <quelm.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <memory>

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

// The longest record either format writes, line end included.
inline constexpr size_t kMaxRecordLen = 1024;

// One JSON object and a line end for the flow at `out` (kMaxRecordLen bytes of room); returns the
// bytes written.
size_t format_json_flow(quelm_flow *flow, char *out);
// The library's text form and a line end.
size_t format_text_flow(quelm_flow *flow, char *out);
// "2026-11-23T08:53:07.123456+0000": ISO 8601 in UTC with microseconds. `out` needs 32 bytes;
// returns the bytes written (31).
size_t format_timestamp(const quelm_timeval &tv, char *out);
// A JSON string literal (quotes included) of `text`, escaped; `out` needs 6 * length + 3 bytes.
size_t format_json_string(const char *text, char *out);

// Writes every flow it is given and releases it.
class FlowWriter {
  public:
    FlowWriter(OutputSink &sink, Format format) : sink_(sink), format_(format) {}
    void write(quelm_flow *flow);
    uint64_t flows_written() const { return flows_; }
    uint64_t slices_written() const { return slices_; }

  private:
    OutputSink &sink_;
    Format format_;
    uint64_t flows_ = 0;
    uint64_t slices_ = 0;
};

}  // namespace quelm_tool
