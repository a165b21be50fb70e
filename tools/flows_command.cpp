#include "flows_command.h"

#include <poll.h>
#include <quelm.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <cstring>
#include <map>

#include "exit_codes.h"
#include "input_files.h"
#include "interface_links.h"
#include "link_adapter.h"
#include "packet_source.h"
#include "run_report.h"
#include "stop_signals.h"

namespace quelm_tool {
namespace {

constexpr int kFileBatch = 8192;  // packets between checks for progress and stop requests
constexpr int kLiveBatch = 1024;  // packets per read of a live capture
constexpr int kQuietMs = 1000;    // wall-clock housekeeping after this long without packets
constexpr uint32_t kMaxTableFlows = 1u << 30;

void complain(const char *format, ...) __attribute__((format(printf, 1, 2)));
void complain(const char *format, ...) {
    va_list args;
    va_start(args, format);
    fputs("quelm flows: ", stderr);
    vfprintf(stderr, format, args);
    fputc('\n', stderr);
    va_end(args);
}

// ---- Options ---------------------------------------------------------------------------------

const std::map<std::string, int> kActions = {
    {"default", QUELM_ACTION_DEFAULT}, {"forward", QUELM_ACTION_FORWARD},
    {"discard", QUELM_ACTION_DISCARD}, {"user_1", QUELM_ACTION_USER_1},
    {"user_2", QUELM_ACTION_USER_2},   {"slice", QUELM_ACTION_SLICE},
};
const std::map<std::string, Format> kFormats = {{"text", Format::kText}, {"json", Format::kJson}};

// ---- Packet path -----------------------------------------------------------------------------

// Everything the per-packet callback needs, in one place.
struct Run {
    quelm_table *table = nullptr;
    InterfaceLinks *links = nullptr;
    quelm_packet_ext ext = {};
    uint64_t packets = 0;
    uint64_t bytes = 0;
    ToolRefusals refusals;
};

void take_packet(void *user, uint32_t interface, const pcap_pkthdr &h,
                 const u_char *bytes) noexcept {
    Run &run = *static_cast<Run *>(user);
    InterfaceLink &link = run.links->of(interface);
    if (link.filtered && pcap_offline_filter(&link.filter, &h, bytes) == 0) return;
    run.packets++;
    run.bytes += h.len;
    if (!link.adapter.has_value()) {
        run.refusals.link_types[link.link_type]++;
        return;
    }
    const AdaptedFrame frame = link.adapter->adapt(bytes, h.caplen, h.len);
    if (frame.refusal != LinkRefusal::kNone) {
        run.refusals.frames[frame.refusal]++;
        return;
    }
    const quelm_packet_header header = {{h.ts.tv_sec, h.ts.tv_usec}, frame.caplen, frame.len};
    run.ext.if_index = frame.if_index;
    quelm_process(run.table, frame.data, &header, &run.ext);
}

void on_packet(u_char *user, const pcap_pkthdr *h, const u_char *bytes) noexcept {
    take_packet(user, 0, *h, bytes);
}

// Where each flow that leaves the table goes: IPFIX reads it before the writer lets it go.
struct FlowTargets {
    FlowWriter &writer;
    IpfixExport &ipfix;
    quelm_table *table;
};

void on_flow(quelm_flow *flow, void *user) noexcept {
    FlowTargets &to = *static_cast<FlowTargets *>(user);
    if (to.ipfix.active()) to.ipfix.add(flow, to.table);
    to.writer.write(flow);
}

// What a read loop needs besides the packet path.
struct Loop {
    Run &run;
    OutputSink &sink;
    ProgressLine &progress;
    uint64_t limit;           // 0: no packet limit
    ExportSession *exporter;  // null without export
    IpfixExport &ipfix;
    bool limit_reached() const { return limit != 0 && run.packets >= limit; }
    int batch(int size) const {
        return limit == 0 ? size : int(std::min<uint64_t>(uint64_t(size), limit - run.packets));
    }
    bool should_stop() const { return stop_requested() || sink.failed() || limit_reached(); }
};

int read_file(PacketSource &source, const std::string &filter, Loop &loop) {
    using Read = PacketSource::Read;
    while (!loop.should_stop()) {
        const Read read = source.read(loop.batch(kFileBatch), take_packet, &loop.run);
        // A stop signal that cuts a blocking read short (a pipe) ends the input as well.
        if (read == Read::kEnd || read == Read::kStopped || stop_requested()) break;
        if (read == Read::kDamaged) {
            loop.progress.clear();
            complain("%s is damaged after %llu packets (%s); the flows read so far are written",
                     source.name().c_str(), (unsigned long long)loop.run.packets,
                     source.error().c_str());
            return kExitDataError;
        }
        std::string error;
        if (read == Read::kInterfaces && !loop.run.links->update(source, filter, &error)) {
            loop.progress.clear();
            complain("%s", error.c_str());
            return kExitUsage;
        }
        loop.progress.update(source.fraction_read(), loop.run.packets,
                             quelm_get_stats(loop.run.table)->active_flows);
        if (loop.exporter != nullptr) loop.exporter->tick();
        loop.ipfix.tick();
    }
    return kExitOk;
}

// Live capture never ends by itself. While the link is quiet no packet drives the table's
// housekeeping, so it is driven from the wall clock (packet time is capture time here).
int capture_live(PacketSource &source, Loop &loop) {
    char errbuf[PCAP_ERRBUF_SIZE];
    pcap_t *pcap = source.handle();
    const int fd = pcap_get_selectable_fd(pcap);
    if (fd >= 0) pcap_setnonblock(pcap, 1, errbuf);
    while (!loop.should_stop()) {
        const int n = pcap_dispatch(pcap, loop.batch(kLiveBatch), on_packet,
                                    reinterpret_cast<u_char *>(&loop.run));
        if (n == PCAP_ERROR_BREAK) break;
        if (n == PCAP_ERROR) {
            complain("capture on %s failed: %s", source.name().c_str(), pcap_geterr(pcap));
            return kExitDataError;
        }
        if (loop.exporter != nullptr) loop.exporter->tick();
        loop.ipfix.tick();
        if (n > 0 || fd < 0) continue;
        // Someone may be watching the output: write what has ended before waiting.
        loop.sink.flush();
        pollfd waiting = {fd, POLLIN, 0};
        if (poll(&waiting, 1, kQuietMs) == 0) {
            quelm_housekeeping(loop.run.table, uint32_t(time(nullptr)));
            loop.sink.flush();
        }
    }
    return kExitOk;
}

// The filter expression from the trailing words or from -F; false with an exit code on failure.
bool filter_expression(const FlowsOptions &o, std::string *expression, int *exit_code) {
    std::string text;
    if (!o.filter_file.empty()) {
        std::string error;
        *exit_code = for_each_line(
            o.filter_file, LineLimits{},
            [&text](const std::string &line) {
                text += line.substr(0, line.find('#')) + ' ';  // '#' starts a comment
            },
            &error);
        if (*exit_code != kExitOk) {
            complain("filter file: %s", error.c_str());
            return false;
        }
    } else {
        for (const std::string &word : o.filter_words)
            text += word + ' ';
    }
    const size_t first = text.find_first_not_of(" \t\r\n");
    *expression = first == std::string::npos
                      ? std::string()
                      : text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
    return true;
}

// The flow table as the options ask; null with the exit status when it cannot be made.
quelm_table *open_table(const FlowsOptions &o, int *exit_code) {
    const uint32_t flags =
        (o.ignore_vlan ? QUELM_FLAG_IGNORE_VLAN : 0) | (o.mac_in_key ? QUELM_FLAG_MAC_IN_KEY : 0) |
        (o.tunnels ? QUELM_FLAG_TUNNEL_DECODING : 0) |
        (o.strict_decoding ? 0 : QUELM_FLAG_EXTENDED_DECODING) | detection_flags(o.detection);
    quelm_table *table = quelm_create_table(flags, o.max_flows, o.idle, o.lifetime, 0);
    if (table == nullptr) {
        if (!o.detection.enabled) {
            complain("not enough memory for a table of %u flows; lower --max-flows", o.max_flows);
            *exit_code = kExitNoMemory;
            return nullptr;
        }
        std::string error;
        *exit_code = explain_failed_table("quelm flows", &error);
        fprintf(stderr, "%s\n", error.c_str());
        return nullptr;
    }
    quelm_set_max_packet_len(table, o.max_packet_len);
    // The rules file's settings come before the command line's, which win.
    *exit_code = configure_detection(table, o.detection, "quelm flows");
    if (*exit_code != kExitOk) {
        quelm_destroy_table(table);
        return nullptr;
    }
    quelm_flow_set_flow_slicing(table, o.slice);
    if (o.default_action != QUELM_ACTION_DEFAULT || o.detection.rules.empty())
        quelm_set_default_action(table, quelm_action(o.default_action));
    return table;
}

// Says that the tool reads none of `source`'s link types.
void refuse_link_type(const PacketSource &source, int link_type, Loop &loop, int *exit_code) {
    loop.progress.clear();
    complain(
        "%s: %s is not supported; the link types quelm reads IP over are listed in quelm(1), "
        "under INPUT",
        source.name().c_str(), LinkAdapter::describe(link_type).c_str());
    *exit_code = worse_exit(*exit_code, kExitDataError);
}

// Reads one capture file or interface into the table; false when the rest should not be read
// (a filter that does not compile).
bool read_input(const std::string &input, bool live, const std::string &filter, Loop &loop,
                RunSummary &summary, int *exit_code) {
    std::string error;
    int open_code = kExitOk;
    std::unique_ptr<PacketSource> source = live
                                               ? PacketSource::open_live(input, &error, &open_code)
                                               : PacketSource::open_file(input, &error, &open_code);
    if (source == nullptr) {
        if (stop_requested()) return true;  // interrupted while a FIFO waited for its writer
        loop.progress.clear();
        complain("%s", error.c_str());
        *exit_code = worse_exit(*exit_code, open_code);
        return true;
    }
    // A pcapng file's interfaces are known once it is read; the others' now.
    int link_type = source->pcapng() ? -1 : source->interfaces()[0].link_type;
    if (!source->pcapng() && !LinkAdapter::supports(link_type)) {
        refuse_link_type(*source, link_type, loop, exit_code);
        return true;
    }
    if (!filter.empty() && !source->pcapng() && !source->set_filter(filter, &error)) {
        loop.progress.clear();
        complain("%s", error.c_str());
        *exit_code = worse_exit(*exit_code, kExitUsage);
        return false;
    }
    if (live)
        fprintf(stderr, "quelm flows: capturing on %s, %s\n", source->name().c_str(),
                LinkAdapter::describe(link_type).c_str());
    InterfaceLinks links;
    links.update(*source, filter, &error);
    loop.run.links = &links;
    const uint64_t packets = loop.run.packets, bytes = loop.run.bytes;
    const ToolRefusals refusals = loop.run.refusals;
    set_active_capture(source->handle());
    const int read_code = live ? capture_live(*source, loop) : read_file(*source, filter, loop);
    set_active_capture(nullptr);
    loop.run.links = nullptr;
    if (read_code == kExitOk && links.none_read(&link_type)) {
        // Not a packet for the table: the file is refused, as a pcap file of that link type is.
        loop.run.packets = packets;
        loop.run.bytes = bytes;
        loop.run.refusals = refusals;
        refuse_link_type(*source, link_type, loop, exit_code);
    }
    *exit_code = worse_exit(*exit_code, read_code);
    pcap_stat ps;
    if (live && pcap_stats(source->handle(), &ps) == 0) {
        summary.kernel_drops = ps.ps_drop;
        summary.interface_drops = ps.ps_ifdrop;
    }
    return read_code != kExitUsage;
}

}  // namespace

// ---- Command line ----------------------------------------------------------------------------

void add_input_options(CLI::App &command, FlowsOptions &o) {
    const char *group = "Input (one of -r or -i)";
    command
        .add_option("-r,--read", o.files,
                    "Read packets from a capture file (pcap or pcapng). '-' reads standard input. "
                    "Repeat to read several files in order, as one stream")
        ->type_name("FILE")
        ->allow_extra_args(false)  // "-r a.pcap tcp" reads a.pcap with the filter "tcp"
        ->group(group);
    command
        .add_option("-i,--interface", o.interface,
                    "Capture live on a network interface (needs root or CAP_NET_RAW). Ctrl-C "
                    "writes the flows still open and exits")
        ->type_name("IFACE")
        ->excludes("--read")
        ->group(group);
    command
        .add_option("-c,--count", o.count,
                    "Stop after reading COUNT packets (those that pass the filter)")
        ->type_name("COUNT")
        ->check(CLI::PositiveNumber.description(""))
        ->group(group);
    command
        .add_option("-F,--filter-file", o.filter_file,
                    "Read the filter expression from FILE ('#' starts a comment)")
        ->type_name("FILE")
        ->group(group);
    command
        .add_option("filter", o.filter_words,
                    "Only packets matching this BPF filter expression (tcpdump syntax), "
                    "e.g. tcp port 443 or 'host 10.0.0.1 and not udp'")
        ->type_name("EXPRESSION")
        ->excludes("--filter-file")
        ->group(group);
}

constexpr const char *kTableGroup = "Flow table";

// A time limit of the flow table, shown with its default.
CLI::Option *seconds_option(CLI::App &command, const char *name, uint32_t &value,
                            const char *help) {
    return command.add_option(name, value, help)
        ->type_name("SECONDS")
        ->capture_default_str()
        ->group(kTableGroup);
}

void add_table_options(CLI::App &command, FlowsOptions &o) {
    const char *group = kTableGroup;
    command
        .add_option("--max-flows", o.max_flows,
                    "Size of the flow table: room for twice this many IPv4 flows and as many IPv6 "
                    "flows; packets of new flows beyond that are counted as 'no room'")
        ->type_name("N")
        ->capture_default_str()
        ->check(CLI::Range(1u, kMaxTableFlows).description(""))
        ->group(group);
    command
        .add_option("--max-packet-len", o.max_packet_len,
                    "Longest packet (length on the wire) to decode; longer ones are counted as "
                    "not decoded. The default takes the frames of segmentation offload (up to 64 "
                    "KiB) and the largest snapshot length")
        ->type_name("BYTES")
        ->capture_default_str()
        ->check(CLI::Range(64u, kLargestSnapshot).description(""))
        ->group(group);
    seconds_option(command, "--idle", o.idle,
                   "End a flow after more than SECONDS without a packet in either direction")
        ->check(CLI::Range(1u, UINT32_MAX).description(""));
    seconds_option(command, "--lifetime", o.lifetime,
                   "End a flow that has lasted more than SECONDS when its next packet arrives; "
                   "that packet starts a new flow")
        ->check(CLI::Range(1u, UINT32_MAX).description(""));
    seconds_option(command, "--slice", o.slice,
                   "Also write a partial record (reason \"slice\") of every flow still going on "
                   "every SECONDS, counting the packets since the previous one; 0 turns it off");
    command.add_flag("--ignore-vlan", o.ignore_vlan, "Merge flows that differ only in VLAN id")
        ->group(group);
    command
        .add_flag("--mac-in-key", o.mac_in_key,
                  "Tell flows apart by MAC addresses as well as by IP addresses and ports")
        ->group(group);
    command
        .add_flag("--strict-decoding", o.strict_decoding,
                  "Decode only the designed encapsulations: no 802.1ad, QinQ, PBB or VN tags, no "
                  "LLC/SNAP, IPv6 only in Ethernet, VLAN and L2TP, one IPv6 destination options "
                  "header at most, no IPv6 fragments, and ICMP queries apart from their replies")
        ->group(group);
    command
        .add_flag("--tunnels", o.tunnels,
                  "Look inside GTPv1-U, L2TP, CAPWAP and VXLAN tunnels and track the inner flows")
        ->group(group);
    command
        .add_option("--default-action", o.default_action,
                    "Verdict given to every new flow: default, forward, discard, user_1, user_2 "
                    "or slice (the table's verdicts are not written; this is for testing)")
        ->type_name("ACTION")
        ->default_str("default")
        ->transform(CLI::CheckedTransformer(kActions, CLI::ignore_case).description(""))
        ->group(group);
}

void add_output_options(CLI::App &command, FlowsOptions &o) {
    const char *group = "Output";
    command
        .add_option("-w,--write", o.output,
                    "Write the flow records to FILE instead of standard output ('-': standard "
                    "output, e.g. as well as exporting them)")
        ->type_name("FILE")
        ->group(group);
    command
        .add_option("--format", o.format,
                    "text: one line per flow; json: one JSON object per line "
                    "(event_type \"flow\"; fields in quelm(1))")
        ->type_name("FORMAT")
        ->default_str("text")
        ->transform(CLI::CheckedTransformer(kFormats, CLI::ignore_case).description(""))
        ->group(group);
    command
        .add_option("--community-id-seed", o.community_id_seed,
                    "Seed of the records' Community IDs (community_id), 0 to 65535: monitors "
                    "whose records are joined must use the same")
        ->type_name("N")
        ->capture_default_str()
        ->group(group);
    command
        .add_flag("--stats", o.stats,
                  "At the end, print a summary on standard error: packets, bytes, flows, speed, "
                  "and the flows, packets and bytes of each application protocol")
        ->group(group);
    command
        .add_flag("--no-progress", o.no_progress,
                  "Do not show the progress line (shown on a terminal while files are read "
                  "and the records go elsewhere)")
        ->group(group);
}

CLI::App *add_flows_command(CLI::App &app, FlowsOptions &options) {
    CLI::App *command = app.add_subcommand(
        "flows",
        "Read packets from capture files or a network interface, group them into flows (both "
        "directions of a conversation together) and write one record per flow when it ends: "
        "idle, too old, sliced, or at the end of the input");
    add_input_options(*command, options);
    add_table_options(*command, options);
    add_detection_options(*command, options.detection);
    add_output_options(*command, options);
    add_export_options(*command, options.zmq);
    add_ipfix_options(*command, options.ipfix);
    command->footer(
        "Examples:\n"
        "  quelm flows -r capture.pcap                        one text line per flow\n"
        "  quelm flows -r capture.pcap --format json -w flows.json\n"
        "  quelm flows -r capture.pcap --extra-dissection --format json   with HTTP status,\n"
        "                                                     DNS reply codes, certificates\n"
        "  quelm flows -r capture.pcap --rules rules.conf --stats   rules, protocol totals\n"
        "  quelm flows -r capture.pcap --zmq tcp://collector:5556 --zmq-connect \\\n"
        "              --zmq-server-key @collector.pub         export to quelm collect\n"
        "  quelm flows -i eth0 --ipfix udp://collector:4739   IPFIX to a flow collector\n"
        "  quelm flows -r a.pcap -r b.pcapng tcp port 443     two files, HTTPS only\n"
        "  tcpdump -w - -i eth0 | quelm flows -r -            read from a pipe\n"
        "  quelm flows -i eth0 --idle 10 --stats              live; stop with Ctrl-C\n"
        "\n"
        "Exit status: 0 success, 64 wrong command line, 65 damaged or unsupported input (the "
        "flows read before the damage are written) or a bad rules, protocols or categories "
        "file or key file, 66 an input, rules or key file cannot be opened, 68 an --ipfix host is "
        "unknown, 69 the detection "
        "engine is missing (use --no-dpi), libzmq is missing (--zmq) or no collector completed a "
        "handshake, 71 not enough memory for the table, 73 no temporary file, 74 output cannot "
        "be written, 75 some flows could not be delivered to the collectors (ZeroMQ or "
        "IPFIX; counted on standard error).");
    return command;
}

// ---- The run ---------------------------------------------------------------------------------

int run_flows(const FlowsOptions &o) {
    if (o.files.empty() && o.interface.empty()) {
        complain(
            "say where packets come from: -r FILE (or -r - for standard input) or "
            "-i INTERFACE; see quelm flows --help");
        return kExitUsage;
    }
    std::string filter, error;
    int exit_code = kExitOk;
    if (!filter_expression(o, &filter, &exit_code)) return exit_code;

    const bool exporting = !o.zmq.endpoints.empty();
    const bool writing = (!exporting && o.ipfix.collectors.empty()) || !o.output.empty();
    OutputSink sink;
    if (writing && !sink.open(o.output, &error)) {
        complain("%s", error.c_str());
        return kExitOutputError;
    }
    quelm_table *table = open_table(o, &exit_code);
    if (table == nullptr) return exit_code;
    ExportSession exporter;
    if (exporting) {
        const int started =
            exporter.start(table, o.zmq, o.interface.empty() ? "file" : o.interface);
        if (started != kExitOk) {
            quelm_destroy_table(table);
            return started;
        }
    }
    IpfixExport ipfix;
    if (const int started = ipfix.start(o.ipfix); started != kExitOk) {
        quelm_destroy_table(table);
        return started;
    }
    FlowWriter writer(writing ? &sink : nullptr, o.format, table,
                      o.detection.enabled && o.detection.extra_dissection);
    if (!o.interface.empty()) writer.interface(o.interface);
    writer.community_id_seed(o.community_id_seed);
    writer.count_protocols(o.stats && o.detection.enabled);
    writer.hand_on_to_exporter(exporting);
    FlowTargets targets{writer, ipfix, table};
    quelm_set_flow_export_callback(table, on_flow, &targets);

    install_stop_handlers();
    ProgressLine progress(!o.no_progress && o.interface.empty() && isatty(STDERR_FILENO) == 1 &&
                          !sink.is_terminal());
    RunSummary summary;
    const double started = now_seconds();
    Run run;
    run.table = table;
    Loop loop{run, sink, progress, o.count, exporting ? &exporter : nullptr, ipfix};

    const bool live = !o.interface.empty();
    const std::vector<std::string> inputs = live ? std::vector<std::string>{o.interface} : o.files;
    for (const std::string &input : inputs) {
        if (loop.should_stop()) break;
        if (!read_input(input, live, filter, loop, summary, &exit_code)) break;
    }

    quelm_flush(table);
    if (exporting) exit_code = worse_exit(exit_code, exporter.finish());
    exit_code = worse_exit(exit_code, ipfix.finish());
    progress.clear();
    if (!sink.close()) {
        complain("cannot write to %s: %s", sink.name().c_str(), std::strerror(sink.error_number()));
        exit_code = kExitOutputError;
    }
    if (o.stats) {
        summary.packets = run.packets;
        summary.bytes = run.bytes;
        summary.table = quelm_get_stats(table);
        summary.refusals = &run.refusals;
        summary.flows_written = writer.flows_written();
        summary.slices_written = writer.slices_written();
        summary.seconds = now_seconds() - started;
        summary.live = live;
        print_summary(stderr, summary);
        if (exporting) {
            const quelm_zmq_stats &zs = exporter.stats();
            fprintf(stderr, "%-20s %u (%u dropped, %u collectors, %u handshakes refused)\n",
                    "flows exported", zs.num_flow_exports, zs.num_flow_drops, zs.handshakes,
                    zs.refused_auth + zs.refused_protocol);
        }
        ipfix.print_stats(stderr);
        if (o.detection.enabled) print_protocol_totals(stderr, writer.protocol_totals());
    }
    warn_losses("quelm flows", *quelm_get_stats(table), {o.max_packet_len, o.strict_decoding},
                run.refusals);
    if (exporting) exporter.report();
    ipfix.report();
    quelm_destroy_table(table);
    return exit_code;
}

}  // namespace quelm_tool
