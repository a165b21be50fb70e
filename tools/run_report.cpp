#include "run_report.h"

#include <pcap/pcap.h>

#include <ctime>
#include <string>
#include <utility>

namespace quelm_tool {
namespace {

constexpr double kProgressInterval = 0.25;

// 1234567 -> "1.2M": short enough for a progress line.
void human(double v, char *out, size_t size) {
    if (v >= 1e9)
        snprintf(out, size, "%.1fG", v / 1e9);
    else if (v >= 1e6)
        snprintf(out, size, "%.1fM", v / 1e6);
    else if (v >= 1e4)
        snprintf(out, size, "%.0fk", v / 1e3);
    else
        snprintf(out, size, "%.0f", v);
}

// Why packets were not decoded, as the library counts them. Later fragments are credited to the
// flow of their datagram's first fragment when it was seen.
constexpr const char *kNotDecodedNames[QUELM_NOT_DECODED_REASONS] = {
    "too long", "truncated", "not IP", "bad header", "later fragments", "nested too deep"};

// "12 not IP, 6 later fragment": the reasons that occurred.
std::string not_decoded_reasons(const quelm_stats &t) {
    std::string text;
    for (int r = 0; r < QUELM_NOT_DECODED_REASONS; r++) {
        if (t.not_decoded[r] == 0) continue;
        if (!text.empty()) text += ", ";
        text += std::to_string(t.not_decoded[r]) + " " + kNotDecodedNames[r];
    }
    return text;
}

std::string refusal_name(LinkRefusal refusal) {
    switch (refusal) {
        case LinkRefusal::kNone:
            break;
        case LinkRefusal::kEncrypted:
            return "encrypted 802.11";
    }
    return "refused";
}

// The tool's reasons with their counts, link types first.
std::vector<std::pair<std::string, uint64_t>> tool_reasons(const ToolRefusals &tool) {
    std::vector<std::pair<std::string, uint64_t>> reasons;
    for (const auto &[link_type, count] : tool.link_types) {
        const char *name = pcap_datalink_val_to_name(link_type);
        reasons.emplace_back("link type " +
                                 (name != nullptr ? std::string(name) : std::to_string(link_type)) +
                                 " not read",
                             count);
    }
    for (const auto &[refusal, count] : tool.frames)
        reasons.emplace_back(refusal_name(refusal), count);
    return reasons;
}

}  // namespace

uint64_t ToolRefusals::total() const {
    uint64_t sum = 0;
    for (const auto &entry : link_types)
        sum += entry.second;
    for (const auto &entry : frames)
        sum += entry.second;
    return sum;
}

double now_seconds() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

void ProgressLine::update(double fraction, uint64_t packets, uint64_t active_flows) {
    if (!enabled_) return;
    const double now = now_seconds();
    if (now - last_ < kProgressInterval) return;
    last_ = now;
    char count[16], rate[16], share[16] = "";
    human(double(packets), count, sizeof count);
    human(now > start_ ? double(packets) / (now - start_) : 0, rate, sizeof rate);
    if (fraction >= 0) snprintf(share, sizeof share, "%3.0f%%  ", fraction * 100);
    fprintf(stderr, "\r%s%s packets  %s packets/s  %llu active flows\033[K", share, count, rate,
            (unsigned long long)active_flows);
    fflush(stderr);
    shown_ = true;
}

void ProgressLine::clear() {
    if (!shown_) return;
    fputs("\r\033[K", stderr);
    fflush(stderr);
    shown_ = false;
}

void print_summary(FILE *out, const RunSummary &s) {
    const quelm_stats &t = *s.table;
    auto line = [out](const char *name, unsigned long long value) {
        fprintf(out, "%-20s %llu\n", name, value);
    };
    line("packets", s.packets);
    line("bytes", s.bytes);
    const ToolRefusals none, &tool = s.refusals != nullptr ? *s.refusals : none;
    line("not decoded", t.packets_not_decoded + tool.total());
    for (int r = 0; r < QUELM_NOT_DECODED_REASONS; r++)
        if (t.not_decoded[r] != 0)
            fprintf(out, "  %-18s %llu\n", kNotDecodedNames[r],
                    (unsigned long long)t.not_decoded[r]);
    for (const auto &[reason, count] : tool_reasons(tool))
        fprintf(out, "  %-18s %llu\n", reason.c_str(), (unsigned long long)count);
    line("flows created", t.total_flows);
    fprintf(out, "%-20s %llu (%llu slices)\n", "flows written", (unsigned long long)s.flows_written,
            (unsigned long long)s.slices_written);
    line("no room", t.flows_no_room);
    if (t.flows_no_memory != 0) line("no memory", t.flows_no_memory);
    if (s.live) {
        line("dropped by kernel", s.kernel_drops);
        line("dropped by device", s.interface_drops);
    }
    fprintf(out, "%-20s %.3f s\n", "elapsed", s.seconds);
    line("packets per second",
         s.seconds > 0 ? (unsigned long long)(double(s.packets) / s.seconds) : 0ULL);
}

void print_protocol_totals(FILE *out, const std::vector<ProtocolTotals> &totals) {
    fprintf(out, "\n%-24s %12s %14s %16s\n", "application protocol", "flows", "packets", "bytes");
    for (const ProtocolTotals &t : totals)
        fprintf(out, "%-24s %12llu %14llu %16llu\n", t.name.c_str(), (unsigned long long)t.flows,
                (unsigned long long)t.packets, (unsigned long long)t.bytes);
}

void warn_losses(const char *command, const quelm_stats &t, const ToolRefusals &tool) {
    if (t.packets_not_decoded != 0)
        fprintf(stderr, "%s: warning: %llu packets were not decoded (%s)\n", command,
                (unsigned long long)t.packets_not_decoded, not_decoded_reasons(t).c_str());
    const uint64_t refused = t.flows_no_room + t.flows_no_memory;
    if (refused != 0)
        fprintf(stderr,
                "%s: warning: %llu packets found no room for a new flow; raise --max-flows\n",
                command, (unsigned long long)refused);
    if (tool.total() == 0) return;
    std::string reasons;
    for (const auto &[reason, count] : tool_reasons(tool))
        reasons += (reasons.empty() ? "" : ", ") + reason + " (" + std::to_string(count) + ")";
    fprintf(stderr, "%s: warning: %llu packets were skipped: %s\n", command,
            (unsigned long long)tool.total(), reasons.c_str());
}

}  // namespace quelm_tool
