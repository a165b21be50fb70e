// quelm-bench-throughput: packets per second of quelm_process, and heap bytes per flow.
//
// Traffic for each flow count is generated in memory first (not timed). Each run then creates a
// table sized for the flows, times quelm_process over every packet (with the housekeeping it
// triggers), reads the heap growth while the table holds its flows, and times quelm_flush. The
// figures printed are medians over the runs.
//
// A capture layer hands over packets that it has just written (by DMA into the last-level cache,
// or by copying them out of a file), so the harness prefetches each frame a few packets ahead;
// --cold leaves that out and shows the cost of packets that come from main memory.
//
// A long-running capture process reuses the heap memory its flows were freed from; a fresh
// process pays for the first touch of every page, which on virtual machines costs more than the
// table's work. So the heap keeps what is freed (no trimming, no per-allocation mappings) and an
// untimed first run warms it; --runs counts the timed runs after it. Packets per second are
// computed from the processor time of the timed loop (wall time is printed beside it).
//
// By default the idle and lifetime timeouts outlast the traffic, so the table holds every flow at
// the end: the flow count is the number of concurrent flows, and the heap growth divided by it is
// the memory of one flow (record, bucket share and allocator overhead together).
#include <malloc.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "quelm.h"
#include "traffic.h"

namespace {

constexpr const char *kUsage =
    "usage: quelm-bench-throughput [--flows N[,N...]] [--packets M] [--runs R] [--seed S]\n"
    "                              [--duration SECONDS] [--idle SECONDS] [--lifetime SECONDS]\n"
    "                              [--snaplen BYTES] [--cold] [--dpi]\n"
    "\n"
    "Times quelm_process over traffic generated in memory and prints, per flow count, the\n"
    "median packets per second, nanoseconds per packet, flush time and heap bytes per flow.\n"
    "  --flows LIST       concurrent flows, comma-separated (default 10000,100000,1000000)\n"
    "  --packets M        packets per flow count (default: 2 million, or 8 per flow if more)\n"
    "  --runs R           timed runs per flow count, after an untimed warm-up; the median\n"
    "                     is printed (default 5)\n"
    "  --seed S           traffic seed (default 1)\n"
    "  --duration SECONDS time spanned by the traffic (default 60)\n"
    "  --idle SECONDS     idle timeout of the table (default 120: no flow expires)\n"
    "  --lifetime SECONDS lifetime timeout of the table (default 120)\n"
    "  --snaplen BYTES    keep only the first BYTES of each frame in memory (default: whole)\n"
    "  --cold             do not prefetch frames ahead (packets come from main memory)\n"
    "  --dpi              create the table with L7 detection (QUELM_FLAG_DPI)\n";

int usage_error(const std::string &message) {
    std::fprintf(stderr, "quelm-bench-throughput: %s\n\n%s", message.c_str(), kUsage);
    return 64;
}

uint64_t heap_in_use() {
    struct mallinfo2 mi = mallinfo2();
    return uint64_t(mi.uordblks) + uint64_t(mi.hblkhd);
}

struct Exported {
    uint64_t flows = 0;
};

// Receives every flow that leaves the table, as an application would, and releases it.
void on_export(quelm_flow *flow, void *user) {
    static_cast<Exported *>(user)->flows++;
    quelm_flow_free(flow);
}

struct Run {
    double seconds = 0;  // processor time
    double wall_seconds = 0;
    double flush_seconds = 0;
    double bytes_per_flow = 0;
    uint64_t active = 0, not_decoded = 0, no_room = 0, exported = 0;
};

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    size_t n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

using Clock = std::chrono::steady_clock;

double since(Clock::time_point t) {
    return std::chrono::duration<double>(Clock::now() - t).count();
}

// Processor time of this thread: on a shared machine it leaves out the time other processes
// held the processor, which wall time does not.
double thread_seconds() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

}  // namespace

int main(int argc, char **argv) {
    std::vector<uint64_t> flow_counts = {10000, 100000, 1000000};
    uint64_t packets = 0, seed = 1;
    unsigned runs = 5;
    double duration = 60;
    uint32_t idle = 120, lifetime = 120, snaplen = 0, flags = 0;
    bool cold = false;

    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "-h" || arg == "--help") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if (arg == "--cold") {
            cold = true;
            continue;
        }
        if (arg == "--dpi") {
            flags |= QUELM_FLAG_DPI;
            continue;
        }
        if (i + 1 >= argc) return usage_error("option " + arg + " needs a value");
        std::string value = argv[++i];
        char *end = nullptr;
        if (arg == "--flows") {
            flow_counts.clear();
            const char *p = value.c_str();
            while (*p) {
                unsigned long long n = std::strtoull(p, &end, 10);
                if (end == p || n == 0 || n > 0x80000000ull || (*end && *end != ','))
                    return usage_error("--flows needs positive counts separated by commas");
                flow_counts.push_back(n);
                p = *end ? end + 1 : end;
            }
            continue;
        }
        double v = std::strtod(value.c_str(), &end);
        if (end == value.c_str() || *end || !(v >= 0))
            return usage_error("option " + arg + " needs a non-negative number, not '" + value +
                               "'");
        if (arg == "--packets")
            packets = uint64_t(v);
        else if (arg == "--runs" && v >= 1)
            runs = unsigned(v);
        else if (arg == "--seed")
            seed = uint64_t(v);
        else if (arg == "--duration" && v > 0)
            duration = v;
        else if (arg == "--idle")
            idle = uint32_t(v);
        else if (arg == "--lifetime")
            lifetime = uint32_t(v);
        else if (arg == "--snaplen")
            snaplen = uint32_t(v);
        else
            return usage_error("unknown option or value out of range: " + arg + " " + value);
    }

    mallopt(M_TRIM_THRESHOLD, INT32_MAX);
    mallopt(M_MMAP_THRESHOLD, 32 << 20);  // the largest allowed: bucket arrays come from the heap

    std::printf("%10s %10s %5s %9s %9s %7s %8s %9s %10s %10s %8s\n", "flows", "packets", "runs",
                "cpu_s", "wall_s", "Mpps", "ns/pkt", "flush_ms", "bytes/flow", "active", "no_room");
    for (uint64_t flows : flow_counts) {
        quelm_traffic::Config config;
        config.flows = flows;
        config.packets = packets ? packets : std::max<uint64_t>(2000000, 8 * flows);
        config.seed = seed;
        config.duration = duration;
        config.snaplen = snaplen;
        auto t_gen = Clock::now();
        std::unique_ptr<quelm_traffic::Traffic> traffic;
        try {
            traffic = std::make_unique<quelm_traffic::Traffic>(config);
        } catch (const std::invalid_argument &e) {
            return usage_error(e.what());
        } catch (const std::exception &e) {
            std::fprintf(stderr, "quelm-bench-throughput: cannot build the traffic: %s\n",
                         e.what());
            return 71;
        }
        const size_t n = traffic->size();
        std::vector<quelm_packet_header> headers(n);
        for (size_t i = 0; i < n; ++i) {
            const auto &h = traffic->header(i);
            headers[i] = {{h.tv_sec, h.tv_usec}, h.caplen, h.len};
        }
        std::fprintf(stderr,
                     "traffic: %llu flows, %zu packets, %.0f bytes per frame on average, %.1f s of "
                     "packet time, %.0f MiB in memory, built in %.1f s\n",
                     (unsigned long long)flows, n, double(traffic->wire_bytes()) / double(n),
                     traffic->duration(), double(traffic->frame_bytes()) / 1048576.0, since(t_gen));

        const quelm_packet_ext ext = {};
        const uint32_t max_flows = uint32_t(std::min<uint64_t>(flows, 0x80000000ull));
        std::vector<Run> results;
        for (unsigned r = 0; r <= runs; ++r) {
            Run run;
            Exported exported;
            const uint64_t heap_before = heap_in_use();
            quelm_table *table = quelm_create_table(flags, max_flows, idle, lifetime, 0);
            if (!table) {
                if (flags & QUELM_FLAG_DPI)
                    std::fprintf(stderr,
                                 "quelm-bench-throughput: no table with L7 detection: the "
                                 "detection engine could not be set up (is it linked into this "
                                 "build?); run without --dpi\n");
                else
                    std::fprintf(stderr,
                                 "quelm-bench-throughput: cannot create a table for %u flows: "
                                 "out of memory; try fewer --flows\n",
                                 max_flows);
                return 69;
            }
            quelm_set_flow_export_callback(table, on_export, &exported);

            constexpr size_t kAhead = 8;
            auto t0 = Clock::now();
            const double cpu0 = thread_seconds();
            if (cold) {
                for (size_t i = 0; i < n; ++i)
                    quelm_process(table, traffic->frame(i), &headers[i], &ext);
            } else {
                for (size_t i = 0; i < n; ++i) {
                    if (i + kAhead < n) {
                        // Headers may straddle two cache lines.
                        const uint8_t *next = traffic->frame(i + kAhead);
                        __builtin_prefetch(next);
                        __builtin_prefetch(next + 64);
                    }
                    quelm_process(table, traffic->frame(i), &headers[i], &ext);
                }
            }
            run.seconds = thread_seconds() - cpu0;
            run.wall_seconds = since(t0);

            const quelm_stats *stats = quelm_get_stats(table);
            run.active = stats->active_flows;
            run.not_decoded = stats->packets_not_decoded;
            run.no_room = stats->flows_no_room;
            const uint64_t heap_peak = heap_in_use();
            run.bytes_per_flow =
                run.active ? double(heap_peak - heap_before) / double(run.active) : 0;

            auto t1 = Clock::now();
            quelm_flush(table);
            run.flush_seconds = since(t1);
            run.exported = exported.flows;
            quelm_destroy_table(table);
            if (r > 0) results.push_back(run);
            std::fprintf(stderr,
                         "  %s %u: %.3f s processor (%.3f s wall), %.2f Mpps, flush %.1f ms, %.0f "
                         "bytes/flow\n",
                         r == 0 ? "warm-up" : "run", r, run.seconds, run.wall_seconds,
                         double(n) / run.seconds / 1e6, run.flush_seconds * 1e3,
                         run.bytes_per_flow);
        }

        std::vector<double> secs, wall, flush, bytes;
        for (const Run &r : results) {
            secs.push_back(r.seconds);
            wall.push_back(r.wall_seconds);
            flush.push_back(r.flush_seconds);
            bytes.push_back(r.bytes_per_flow);
        }
        double s = median(secs);
        const Run &last = results.back();
        std::printf("%10llu %10zu %5u %9.3f %9.3f %7.2f %8.1f %9.1f %10.0f %10llu %8llu\n",
                    (unsigned long long)flows, n, runs, s, median(wall), double(n) / s / 1e6,
                    s * 1e9 / double(n), median(flush) * 1e3, median(bytes),
                    (unsigned long long)last.active, (unsigned long long)last.no_room);
        if (last.not_decoded)
            std::fprintf(stderr, "warning: %llu packets were not decoded\n",
                         (unsigned long long)last.not_decoded);
        std::fflush(stdout);
    }
    return 0;
}
