#include "export_setup.h"

#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <vector>

#include "exit_codes.h"
#include "run_report.h"
#include "zmq_api.h"

namespace quelm_tool {
namespace {

// After the probe saw a subscription, the library's socket needs a moment for its own connection
// and handshake: a connecting socket retries every 100 ms, a collector reconnects to a bound one
// as often.
constexpr useconds_t kSettleConnectUs = 300000, kSettleBindUs = 500000;

std::vector<std::string> split(const std::string &list) {
    std::vector<std::string> parts;
    for (size_t from = 0; from <= list.size();) {
        const size_t comma = std::min(list.find(',', from), list.size());
        if (comma > from) parts.push_back(list.substr(from, comma - from));
        from = comma + 1;
    }
    return parts;
}

// A socket that subscribers talk to like the library's publisher: an XPUB, CURVE client with the
// same server key, that passes every subscription up.
class Probe {
  public:
    Probe(const ZmqApi &zmq, const char *server_key) : zmq_(zmq) {
        context_ = zmq.ctx_new();
        socket_ = context_ != nullptr ? zmq.socket(context_, ZMQ_XPUB) : nullptr;
        if (socket_ == nullptr) return;
        const int verbose = 1, linger = 0;
        char client_public[41], client_secret[41];
        zmq.setsockopt(socket_, ZMQ_XPUB_VERBOSE, &verbose, sizeof verbose);
        zmq.setsockopt(socket_, ZMQ_LINGER, &linger, sizeof linger);
        ready_ = zmq.curve_keypair(client_public, client_secret) == 0 &&
                 zmq.setsockopt(socket_, ZMQ_CURVE_SERVERKEY, server_key, 41) == 0 &&
                 zmq.setsockopt(socket_, ZMQ_CURVE_PUBLICKEY, client_public, 41) == 0 &&
                 zmq.setsockopt(socket_, ZMQ_CURVE_SECRETKEY, client_secret, 41) == 0;
    }
    // Closes the socket and waits until libzmq has let go of its endpoints.
    ~Probe() {
        if (socket_ != nullptr) zmq_.close(socket_);
        if (context_ != nullptr) zmq_.ctx_term(context_);
    }
    bool ready() const { return ready_; }
    bool attach(const std::string &endpoint, bool connect, std::string *error) {
        if ((connect ? zmq_.connect : zmq_.bind)(socket_, endpoint.c_str()) == 0) return true;
        *error = std::string("cannot ") + (connect ? "connect to " : "listen on ") + endpoint +
                 ": " + zmq_.strerror(zmq_.errno_value());
        return false;
    }
    // Waits until `wanted` subscriptions to "flow" arrived, or the time is up.
    bool wait(size_t wanted, double seconds) {
        const double deadline = now_seconds() + seconds;
        size_t seen = 0;
        zmq_pollitem_t item = {socket_, 0, ZMQ_POLLIN, 0};
        while (seen < wanted && now_seconds() < deadline) {
            if (zmq_.poll(&item, 1, 100) <= 0) continue;
            zmq_msg_t msg;
            zmq_.msg_init(&msg);
            if (zmq_.msg_recv(&msg, socket_, ZMQ_DONTWAIT) >= 0) {
                const char *data = static_cast<const char *>(zmq_.msg_data(&msg));
                const size_t size = zmq_.msg_size(&msg);
                if (size == 5 && data[0] == 1 && std::string(data + 1, 4) == "flow") seen++;
            }
            zmq_.msg_close(&msg);
        }
        return seen >= wanted;
    }

  private:
    const ZmqApi &zmq_;
    void *context_ = nullptr;
    void *socket_ = nullptr;
    bool ready_ = false;
};

}  // namespace

void add_export_options(CLI::App &command, ExportOptions &o) {
    const char *group = "Export to collectors (ZeroMQ, CURVE)";
    CLI::Option *zmq =
        command
            .add_option("--zmq", o.endpoints,
                        "Export every flow to collectors at ENDPOINT[,ENDPOINT...] (e.g. "
                        "tcp://127.0.0.1:5556) instead of writing it; with -w also write it. "
                        "Bound (collectors connect) unless --zmq-connect")
            ->type_name("ENDPOINT")
            ->group(group);
    command
        .add_option("--zmq-server-key", o.server_key,
                    "The collectors' CURVE public key (Z85), or @FILE holding it (quelm keygen "
                    "writes PREFIX.pub). Without it the library's built-in key is used, which "
                    "only a collector holding its secret can read")
        ->type_name("KEY|@FILE")
        ->needs(zmq)
        ->group(group);
    command
        .add_flag("--zmq-connect", o.connect,
                  "Connect to the collectors (they run quelm collect --bind), with an 8 MiB "
                  "send buffer")
        ->needs(zmq)
        ->group(group);
    command.add_option("--zmq-format", o.json, "Flow records in tlv (compact) or json")
        ->type_name("FORMAT")
        ->default_str("tlv")
        ->transform(
            CLI::CheckedTransformer(std::map<std::string, bool>{{"tlv", false}, {"json", true}},
                                    CLI::ignore_case)
                .description(""))
        ->needs(zmq)
        ->group(group);
    command
        .add_option("--zmq-stats-iface", o.stats_iface,
                    "Interface name in the statistics records (default: the -i interface, or "
                    "\"file\")")
        ->type_name("NAME")
        ->needs(zmq)
        ->group(group);
    command
        .add_option("--zmq-wait", o.wait_seconds,
                    "Wait at most SECONDS for a collector to subscribe at every endpoint before "
                    "the first flow leaves (flows sent before are lost); 0 does not wait")
        ->type_name("SECONDS")
        ->capture_default_str()
        ->check(CLI::Range(0.0, 3600.0).description(""))
        ->needs(zmq)
        ->group(group);
}

int ExportSession::start(quelm_table *table, const ExportOptions &o,
                         const std::string &capture_name) {
    const char *me = "quelm flows";
    table_ = table;
    iface_ = !o.stats_iface.empty() ? o.stats_iface : capture_name;
    std::string error, key;
    const ZmqApi *zmq = load_zmq(&error);
    if (zmq == nullptr) {
        // Let the library say it too, as any program using it would see it.
        quelm_zmq_export_configure(table, o.endpoints.c_str(), nullptr, o.connect, 0, o.json);
        fprintf(stderr, "%s: cannot export: %s\n", me, error.c_str());
        return kExitUnavailable;
    }
    if (!o.server_key.empty() && !resolve_key(o.server_key, &key, &error)) {
        fprintf(stderr, "%s: %s\n", me, error.c_str());
        return kExitNoInput;
    }
    const std::vector<std::string> endpoints = split(o.endpoints);
    if (endpoints.empty()) {
        fprintf(stderr, "%s: --zmq needs an endpoint such as tcp://127.0.0.1:5556\n", me);
        return kExitUsage;
    }
    if (key.empty()) {
        fprintf(stderr,
                "%s: no --zmq-server-key: the flows are encrypted for the library's built-in "
                "key; only a collector holding its secret can read the flows. Make a key pair "
                "with 'quelm keygen' and pass --zmq-server-key @PREFIX.pub\n",
                me);
    } else if (!is_z85_key(*zmq, key)) {
        // The library refuses it with its own message (without a line end); then say what to do.
        quelm_zmq_export_configure(table, o.endpoints.c_str(), key.c_str(), o.connect, 0, o.json);
        fprintf(stderr,
                "\n%s: the server key is not a CURVE public key (40 characters of Z85): give "
                "the key of a .pub file of 'quelm keygen', or @FILE\n",
                me);
        return kExitUsage;
    }
    const std::string probe_key = key.empty() ? "Q7w.Fk2-Tz9m!xR4b^Lp8vN0c=Hs6yJe3Ud5aG1o" : key;

    // The probe checks the endpoints before the library sees them, then waits for subscribers.
    {
        Probe probe(*zmq, probe_key.c_str());
        if (!probe.ready()) {
            fprintf(stderr, "%s: libzmq cannot set up CURVE: %s\n", me,
                    zmq->strerror(zmq->errno_value()));
            return kExitUnavailable;
        }
        for (const std::string &endpoint : endpoints) {
            if (!probe.attach(endpoint, o.connect, &error)) {
                fprintf(stderr, "%s: %s\n", me, error.c_str());
                return o.connect ? kExitUsage : kExitNoInput;
            }
        }
        // Connecting: the library's socket connects while the probe waits. Binding: the probe
        // holds the endpoints until a collector has connected, then hands them to the library.
        if (o.connect)
            quelm_zmq_export_configure(table, o.endpoints.c_str(),
                                       key.empty() ? nullptr : key.c_str(), 1, 0, o.json);
        if (o.wait_seconds > 0) {
            fprintf(stderr, "%s: waiting up to %g s for collectors to subscribe at %s\n", me,
                    o.wait_seconds, o.endpoints.c_str());
            if (!probe.wait(endpoints.size(), o.wait_seconds))
                fprintf(stderr,
                        "%s: not every endpoint has a collector that accepts the key; exporting "
                        "anyway (flows sent while nobody subscribes are lost)\n",
                        me);
        }
    }
    if (!o.connect)
        quelm_zmq_export_configure(table, o.endpoints.c_str(), key.empty() ? nullptr : key.c_str(),
                                   0, 0, o.json);
    if (o.wait_seconds > 0) usleep(o.connect ? kSettleConnectUs : kSettleBindUs);
    started_ = now_seconds();
    return kExitOk;
}

void ExportSession::send_stats() {
    quelm_zmq_export_stats(table_, iface_.c_str(), 0, nullptr, nullptr);
}

void ExportSession::tick() {
    if (table_ != nullptr && now_seconds() - started_ >= 3) send_stats();
}

void ExportSession::finish() {
    if (table_ == nullptr) return;
    quelm_housekeeping(table_, uint32_t(time(nullptr)));
    send_stats();
}

}  // namespace quelm_tool
