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

std::string refusal_name(LinkRefusal refusal) {
    switch (refusal) {
        case LinkRefusal::kNone:
            break;
        case LinkRefusal::kEncrypted:
            return "encrypted 802.11 frames";
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
    if (t.fragments_no_flow != 0)
        fprintf(out, "    %-16s %llu\n", "without flow", (unsigned long long)t.fragments_no_flow);
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

void warn_losses(const char *command, const quelm_stats &t, const DecodeSettings &settings,
                 const ToolRefusals &tool) {
    // Each way to make no flow, with what it means and what helps. Later fragments credited to
    // their flow are not among them.
    struct Loss {
        uint64_t packets;
        std::string what;
        const char *help;
    };
    const uint64_t *n = t.not_decoded;
    const char *decode_help = settings.strict ? " (see --strict-decoding)" : "";
    const Loss losses[] = {
        {n[QUELM_NOT_DECODED_TOO_LONG],
         "longer than " + std::to_string(settings.max_packet_len) + " bytes",
         settings.max_packet_len < kLargestSnapshot ? " (see --max-packet-len)"
                                                    : ", more than any capture holds"},
        {n[QUELM_NOT_DECODED_TRUNCATED], "cut short by the capture's snapshot length", ""},
        {n[QUELM_NOT_DECODED_NOT_IP], "not IP", decode_help},
        {n[QUELM_NOT_DECODED_BAD_HEADER], "with a bad IP or transport header", decode_help},
        {t.fragments_no_flow, "later fragments whose first fragment was not seen", ""},
        {n[QUELM_NOT_DECODED_TOO_DEEP], "nested too deep", ""},
        {t.flows_no_room, "with no room for a new flow", " (see --max-flows)"},
        {t.flows_no_memory, "with no memory for a new flow", " (see --max-flows)"},
    };
    std::vector<Loss> all(std::begin(losses), std::end(losses));
    for (const auto &[link_type, count] : tool.link_types)
        all.push_back(
            {count, "of " + LinkAdapter::describe(link_type) + ", which quelm does not read", ""});
    for (const auto &[refusal, count] : tool.frames)
        all.push_back({count, refusal_name(refusal), ""});
    uint64_t total = 0;
    const Loss *main = &all[0];
    for (const Loss &l : all) {
        total += l.packets;
        if (l.packets > main->packets) main = &l;
    }
    if (total == 0) return;
    fprintf(stderr, "%s: warning: %llu of %llu packets made no flow", command,
            (unsigned long long)total, (unsigned long long)(t.packets + tool.total()));
    if (total == main->packets)
        fprintf(stderr, ": %s%s\n", main->what.c_str(), main->help);
    else
        fprintf(stderr, ", %llu of them %s%s, the others for other reasons (see --stats)\n",
                (unsigned long long)main->packets, main->what.c_str(), main->help);
}

}  // namespace quelm_tool
