// Export throughput: flow records per second from quelm_zmq_export_flow to a CURVE collector
// (SUB socket) on loopback, in TLV and in JSON, and the cost per record on the exporting side.
#include <zmq.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "quelm.h"
#include "pelda.h"

namespace {

struct Collector {
    void *ctx = zmq_ctx_new();
    void *sub = nullptr;
    std::atomic<uint64_t> messages{0}, bytes{0};
    std::atomic<bool> stop{false};
    std::thread thread;

    Collector(const char *endpoint, const char *secret) {
        sub = zmq_socket(ctx, ZMQ_SUB);
        const int server = 1, timeout_ms = 100;
        zmq_setsockopt(sub, ZMQ_CURVE_SERVER, &server, sizeof server);
        zmq_setsockopt(sub, ZMQ_CURVE_SECRETKEY, secret, 41);
        zmq_setsockopt(sub, ZMQ_SUBSCRIBE, "flow", 4);
        zmq_setsockopt(sub, ZMQ_RCVTIMEO, &timeout_ms, sizeof timeout_ms);
        zmq_bind(sub, endpoint);
        thread = std::thread([this] {
            char buf[65536];
            while (!stop) {
                const int n = zmq_recv(sub, buf, sizeof buf, 0);
                if (n < 0) continue;
                int more = 0;
                size_t len = sizeof more;
                zmq_getsockopt(sub, ZMQ_RCVMORE, &more, &len);
                if (!more) {  // the payload part
                    messages++;
                    bytes += uint64_t(n);
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
    const char *endpoint = json ? "tcp://127.0.0.1:47811" : "tcp://127.0.0.1:47812";
    Collector collector(endpoint, secret);
    quelm_table *t = quelm_create_table(0, 1024, 0, 0, 0);
    quelm_zmq_export_configure(t, endpoint, pub, 1, 0, json);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // let the connection come up

    // Records built from one decoded packet, as the flow export callback receives them.
    static const uint8_t frame[54] = {
        2, 0,  0, 0, 0,  2, 2, 0, 0,  0, 0,    1,    0x08, 0x00, 0x45, 0, 0,    40,
        0, 1,  0, 0, 64, 6, 0, 0, 10, 0, 0,    1,    10,   0,    0,    2, 0x9c, 0x40,
        0, 80, 0, 0, 0,  1, 0, 0, 0,  0, 0x50, 0x10, 0xff, 0xff, 0,    0, 0,    0};
    quelm_table *source = quelm_create_table(0, 1u << 20, 0, 0, 0);
    quelm_flow *template_flow = nullptr;
    quelm_set_flow_export_callback(
        source, [](quelm_flow *f, void *u) { *static_cast<quelm_flow **>(u) = f; }, &template_flow);
    const quelm_packet_header h{{1700000000, 0}, sizeof frame, sizeof frame};
    const quelm_packet_ext ext{};
    quelm_process(source, frame, &h, &ext);
    quelm_flush(source);

    const auto start = std::chrono::steady_clock::now();
    for (uint32_t i = 0; i < records; i++) {
        quelm_flow *f = quelm_flow_slice(template_flow);  // a fresh record holding the same data
        quelm_zmq_export_flow(f, t);
    }
    quelm_housekeeping(t, 1);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    quelm_zmq_stats stats;
    quelm_zmq_get_stats(t, &stats);
    quelm_destroy_table(t);
    quelm_flow_free(template_flow);
    quelm_destroy_table(source);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    printf(
        "%-4s %9u records %7.3f s %10.0f records/s %7.0f ns/record  sent %u dropped %u  "
        "received %llu messages (%.1f bytes/record)\n",
        json ? "JSON" : "TLV", records, seconds, records / seconds, seconds * 1e9 / records,
        stats.num_flow_exports, stats.num_flow_drops, (unsigned long long)collector.messages.load(),
        double(collector.bytes.load()) / (collector.messages.load() * 16.0));
}

}  // namespace

int main(int argc, char **argv) {
    const uint32_t records = argc > 1 ? uint32_t(atoi(argv[1])) : 1000000;
    printf("engine %s\n", pelda_revision());
    run(false, records);
    run(true, records);
    return 0;
}
