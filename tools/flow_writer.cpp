#include "flow_writer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "stop_signals.h"

namespace quelm_tool {
namespace {

constexpr size_t kBufferSize = 1 << 20;

}  // namespace

void FlowWriter::write(quelm_flow *flow) {
    if (sink_ != nullptr && !sink_->failed()) {
        char *at = sink_->reserve(kMaxRecordLen);
        if (at != nullptr) {
            FlowTexts texts;
            FlowFields fields;
            flow_fields(flow, table_, answers_read_, &texts, &fields);
            if (!interface_.empty()) fields.in_iface = interface_.c_str();
            if (quelm_flow_community_id(flow, community_id_seed_, texts.community_id,
                                        sizeof texts.community_id) > 0)
                fields.community_id = texts.community_id;
            // A flush after SIGINT or SIGTERM ends the run; any other is the end of the input.
            fields.by_signal = stop_requested();
            sink_->commit(format_ == Format::kJson ? format_json_flow(fields, at)
                                                   : format_text_flow(fields, at));
        }
    }
    const quelm_flow_value &v = *quelm_flow_get_value(flow);
    const bool slice = v.status == QUELM_FLOW_STATUS_SLICE;
    flows_++;
    if (slice) slices_++;
    if (count_protocols_) {
        const quelm_l7_protocol &l7 = v.l7_protocol;
        ProtocolTotals &t = protocols_[uint32_t(l7.master_protocol) << 16 | l7.app_protocol];
        if (t.name.empty()) {
            char name[64];
            t.name = quelm_l7_protocol_name(table_, &l7, name, sizeof name);
        }
        if (!slice) t.flows++;
        t.packets += v.direction[0].pkts + v.direction[1].pkts;
        t.bytes += v.direction[0].bytes + v.direction[1].bytes;
    }
    if (export_)
        quelm_zmq_export_flow(flow, table_);  // the exporter owns the flow from here
    else
        quelm_flow_free(flow);
}

std::vector<ProtocolTotals> FlowWriter::protocol_totals() const {
    // Two pairs may share a name ("HTTP" alone and as its own master): merge them.
    std::map<std::string, ProtocolTotals> by_name;
    for (const auto &[id, t] : protocols_) {
        ProtocolTotals &m = by_name[t.name];
        m.name = t.name;
        m.flows += t.flows;
        m.packets += t.packets;
        m.bytes += t.bytes;
    }
    std::vector<ProtocolTotals> result;
    for (auto &[name, t] : by_name)
        result.push_back(t);
    std::stable_sort(
        result.begin(), result.end(),
        [](const ProtocolTotals &a, const ProtocolTotals &b) { return a.bytes > b.bytes; });
    return result;
}

// ---- Sink ------------------------------------------------------------------------------------

OutputSink::OutputSink() : buffer_(new char[kBufferSize]) {}

OutputSink::~OutputSink() {
    close();
}

bool OutputSink::open(const std::string &path, std::string *error) {
    if (path.empty() || path == "-") {
        fd_ = STDOUT_FILENO;
        owns_fd_ = false;
        name_ = "standard output";
        return true;
    }
    fd_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    name_ = path;
    if (fd_ < 0) {
        *error = "cannot create '" + path + "': " + std::strerror(errno);
        return false;
    }
    owns_fd_ = true;
    return true;
}

char *OutputSink::reserve(size_t n) {
    if (kBufferSize - used_ < n && !flush()) return nullptr;
    return buffer_.get() + used_;
}

void OutputSink::write(const char *data, size_t n) {
    while (n != 0 && !failed()) {
        const size_t piece = std::min(n, kBufferSize);
        char *at = reserve(piece);
        if (at == nullptr) return;
        std::memcpy(at, data, piece);
        commit(piece);
        data += piece;
        n -= piece;
    }
}

bool OutputSink::flush() {
    size_t done = 0;
    while (error_ == 0 && done < used_) {
        const ssize_t n = ::write(fd_, buffer_.get() + done, used_ - done);
        if (n > 0)
            done += size_t(n);
        else if (n == 0)
            error_ = EIO;
        else if (errno != EINTR)
            error_ = errno;
    }
    used_ = 0;
    return error_ == 0;
}

bool OutputSink::close() {
    if (fd_ < 0) return error_ == 0;
    flush();
    if (owns_fd_ && ::close(fd_) != 0 && error_ == 0) error_ = errno;
    fd_ = -1;
    return error_ == 0;
}

bool OutputSink::is_terminal() const {
    return fd_ >= 0 && isatty(fd_) == 1;
}

}  // namespace quelm_tool
