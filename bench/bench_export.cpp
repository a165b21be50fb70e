// Export throughput: a table's flush of N flows through quelm_zmq_export_flow to a CURVE collector
// (SUB socket) on loopback, in TLV and in JSON. The exporter waits for the collector rather than
// drop, so the time covers delivery: from the flush until the collector has every record.
#include <zmq.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "pelda.h"
#include "quelm.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Collector {
    void *ctx = zmq_ctx_new();
    void *sub = nullptr;
    std::atomic<uint64_t> messages{0}, bytes{0};
    std::atomic<bool> stop{false};
    std::thread thread;
    std::string endpoint;

    explicit Collector(const char *secret) {
        sub = zmq_socket(ctx, ZMQ_SUB);
        const int server = 1, timeout_ms = 100;
        zmq_setsockopt(sub, ZMQ_CURVE_SERVER, &server, sizeof server);
        zmq_setsockopt(sub, ZMQ_CURVE_SECRETKEY, secret, 41);
        zmq_setsockopt(sub, ZMQ_SUBSCRIBE, "flow", 4);
        zmq_setsockopt(sub, ZMQ_RCVTIMEO, &timeout_ms, sizeof timeout_ms);
        zmq_bind(sub, "tcp://127.0.0.1:*");
        char name[256];
        size_t len = sizeof name;
        zmq_getsockopt(sub, ZMQ_LAST_ENDPOINT, name, &len);
        endpoint = name;
        thread = std::thread([this] {
            char buf[65536];
            while (!stop) {
                const int n = zmq_recv(sub, buf, sizeof buf, 0);
                if (n < 0) continue;
                int more = 0;
                size_t more_len = sizeof more;
                zmq_getsockopt(sub, ZMQ_RCVMORE, &more, &more_len);
                if (!more) {  // the payload part
                    bytes += uint64_t(n);
                    messages++;
                }
            }
        });
    }
    ~Collector() {
        stop = true;
        thread.join();
        zmq_close(sub);
        zmq_ctx_destroy(ctx);
    }
};

void run(bool json, uint32_t records) {
    char pub[41], secret[41];
    zmq_curve_keypair(pub, secret);
    Collector collector(secret);
    quelm_table *t = quelm_create_table(0, records + records / 2, 0, 0, 0);
    quelm_set_flow_export_callback(t, quelm_zmq_export_flow, t);
    quelm_zmq_export_configure(t, collector.endpoint.c_str(), pub, 1, 0, json);

    // `records` one-packet TCP flows, told apart by their addresses.
    uint8_t frame[54] = {2,    0, 0,  0,  0,    2,    2,    0,    0,  0,  0, 1, 0x08, 0x00,
                         0x45, 0, 0,  40, 0,    1,    0,    0,    64, 6,  0, 0, 10,   0,
                         0,    1, 10, 0,  0,    2,    0x9c, 0x40, 0,  80, 0, 0, 0,    1,
                         0,    0, 0,  0,  0x50, 0x10, 0xff, 0xff, 0,  0,  0, 0};
    const quelm_packet_header h{{1700000000, 0}, sizeof frame, sizeof frame};
    const quelm_packet_ext ext{};
    for (uint32_t i = 0; i < records; i++) {
        memcpy(frame + 27, &i, 3);  // the low bytes of the source address
        quelm_process(t, frame, &h, &ext);
    }

    const auto start = Clock::now();
    quelm_flush(t);
    quelm_zmq_export_drain(t);
    const double handed = std::chrono::duration<double>(Clock::now() - start).count();
    quelm_zmq_stats stats;
    quelm_zmq_read_stats(t, &stats, sizeof stats);
    const uint64_t messages = (stats.num_flow_exports + 15) / 16;
    while (collector.messages < messages &&
           std::chrono::duration<double>(Clock::now() - start).count() < 60)
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    quelm_destroy_table(t);
    printf(
        "%-4s %9u records %7.3f s %10.0f records/s delivered (%.3f s to hand over)  sent %u "
        "dropped %u  received %llu messages (%.1f bytes/record)\n",
        json ? "JSON" : "TLV", records, seconds, records / seconds, handed, stats.num_flow_exports,
        stats.num_flow_drops, (unsigned long long)collector.messages.load(),
        double(collector.bytes.load()) / double(stats.num_flow_exports));
}

}  // namespace

int main(int argc, char **argv) {
    const uint32_t records = argc > 1 ? uint32_t(atoi(argv[1])) : 1000000;
    printf("engine %s\n", pelda_revision());
    run(false, records);
    run(true, records);
    return 0;
}
