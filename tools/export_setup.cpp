#include "export_setup.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <vector>

#include "exit_codes.h"
#include "input_files.h"
#include "run_report.h"
#include "zmq_api.h"

namespace quelm_tool {
namespace {

std::vector<std::string> split(const std::string &list) {
    std::vector<std::string> parts;
    for (size_t from = 0; from <= list.size();) {
        const size_t comma = std::min(list.find(',', from), list.size());
        if (comma > from) parts.push_back(list.substr(from, comma - from));
        from = comma + 1;
    }
    return parts;
}

// The collectors' public key: text, or @FILE of `quelm keygen`. '@' is also a Z85 digit: a
// 40-character text is a key unless a file of that name exists.
int server_key(const ZmqApi &zmq, const std::string &given, std::string *key, std::string *error) {
    const bool file = !given.empty() && given[0] == '@' &&
                      (given.size() != 40 || access(given.c_str() + 1, F_OK) == 0);
    if (file) return read_key_file(zmq, given.substr(1), KeyHalf::kPublic, key, error);
    *key = given;
    if (is_z85_key(zmq, *key)) return kExitOk;
    *error =
        "the server key is not a CURVE public key (40 characters of Z85): give the key of a "
        ".pub file of 'quelm keygen', or @FILE";
    return kExitUsage;
}

// The exporter's own key pair from its secret key file, handed to the library.
int client_key(const ZmqApi &zmq, quelm_table *table, const std::string &path, std::string *error) {
    std::string secret;
    const int rc = read_key_file(zmq, path, KeyHalf::kSecret, &secret, error);
    if (rc != kExitOk) return rc;
    char public_key[41];
    const bool ok = zmq.curve_public(public_key, secret.c_str()) == 0 &&
                    quelm_zmq_set_client_key(table, public_key, secret.c_str()) == 0;
    explicit_bzero(secret.data(), secret.size());
    if (ok) return kExitOk;
    *error = "libzmq cannot use the key of '" + path + "': " + zmq.strerror(zmq.errno_value());
    return kExitDataError;
}

// Endpoints the library could not use would only be reported, so they are tried first: a
// throwaway socket binds (and lets go: closing the context waits until the port is free) or
// connects to each.
int check_endpoints(const ZmqApi &zmq, const std::vector<std::string> &endpoints, bool connect,
                    std::string *error) {
    void *context = zmq.ctx_new();
    void *socket = context != nullptr ? zmq.socket(context, ZMQ_XPUB) : nullptr;
    int rc = socket != nullptr ? kExitOk : kExitUnavailable;
    if (socket == nullptr)
        *error = std::string("libzmq cannot make a socket: ") + zmq.strerror(zmq.errno_value());
    for (size_t i = 0; rc == kExitOk && i < endpoints.size(); i++) {
        if ((connect ? zmq.connect : zmq.bind)(socket, endpoints[i].c_str()) == 0) continue;
        *error = std::string("cannot ") + (connect ? "connect to " : "listen on ") + endpoints[i] +
                 ": " + zmq.strerror(zmq.errno_value());
        rc = connect ? kExitUsage : kExitNoInput;
    }
    const int linger = 0;
    if (socket != nullptr) {
        zmq.setsockopt(socket, ZMQ_LINGER, &linger, sizeof linger);
        zmq.close(socket);
    }
    if (context != nullptr) zmq.ctx_term(context);
    return rc;
}

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
        .add_option("--zmq-client-key", o.client_key,
                    "The exporter's CURVE secret key (quelm keygen --client writes PREFIX.key), so "
                    "that collectors can allow it by its public key (quelm collect "
                    "--allow-keys); without it every run uses a fresh key pair")
        ->type_name("FILE")
        ->needs(zmq)
        ->group(group);
    command
        .add_option("--zmq-timeout", o.timeout_seconds,
                    "At the end, wait for the collectors at most SECONDS without progress, then "
                    "count what is left as dropped; 0 does not wait")
        ->type_name("SECONDS")
        ->capture_default_str()
        ->check(CLI::Range(0.0, 86400.0).description(""))
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
    const std::vector<std::string> endpoints = split(o.endpoints);
    if (endpoints.empty()) {
        fprintf(stderr, "%s: --zmq needs an endpoint such as tcp://127.0.0.1:5556\n", me);
        return kExitUsage;
    }
    int rc = o.server_key.empty() ? kExitOk : server_key(*zmq, o.server_key, &key, &error);
    if (rc == kExitOk) rc = check_endpoints(*zmq, endpoints, o.connect, &error);
    if (rc == kExitOk && !o.client_key.empty()) rc = client_key(*zmq, table, o.client_key, &error);
    if (rc != kExitOk) {
        fprintf(stderr, "%s: %s\n", me, error.c_str());
        return rc;
    }
    if (key.empty())
        fprintf(stderr,
                "%s: no --zmq-server-key: the flows are encrypted for the library's built-in "
                "key; only a collector holding its secret can read the flows. Make a key pair "
                "with 'quelm keygen' and pass --zmq-server-key @PREFIX.pub\n",
                me);
    quelm_zmq_set_timeout(table, uint32_t(o.timeout_seconds * 1000));
    // The library says on standard error why an endpoint cannot be used.
    quelm_zmq_export_configure(table, o.endpoints.c_str(), key.empty() ? nullptr : key.c_str(),
                               o.connect, 0, o.json);
    fprintf(stderr,
            "%s: exporting to %s; flows wait for a collector to subscribe, at the end up to %g s "
            "without progress (--zmq-timeout)\n",
            me, o.endpoints.c_str(), o.timeout_seconds);
    started_ = now_seconds();
    return kExitOk;
}

void ExportSession::send_stats() {
    quelm_zmq_export_stats(table_, iface_.c_str(), 0, nullptr, nullptr);
}

void ExportSession::tick() {
    if (table_ != nullptr && now_seconds() - started_ >= 3) send_stats();
}

int ExportSession::finish() {
    if (table_ == nullptr) return kExitOk;
    quelm_housekeeping(table_, uint32_t(time(nullptr)));
    quelm_zmq_export_drain(table_);
    send_stats();
    quelm_zmq_export_drain(table_);  // the statistics record, if it had to wait
    quelm_zmq_read_stats(table_, &stats_, sizeof stats_);
    // Flows still queued now are an exporter that never started: teardown releases them.
    stats_.num_flow_drops += stats_.queued_flows + stats_.buffered_records;
    const quelm_zmq_stats &s = stats_;
    if (nobody_reached()) return kExitUnavailable;
    return s.num_flow_drops != 0 ? kExitTempFail : kExitOk;
}

bool ExportSession::nobody_reached() const {
    // A flow that went out had a collector: the handshake count alone would miss a monitor that
    // could not be set up.
    return stats_.num_flow_exports == 0 && stats_.num_flow_drops != 0 && stats_.handshakes == 0;
}

void ExportSession::report() const {
    if (table_ == nullptr) return;
    const quelm_zmq_stats &s = stats_;
    if (nobody_reached())
        fprintf(stderr,
                "quelm flows: no collector completed a handshake: is quelm collect running at "
                "the endpoint, with the secret key of --zmq-server-key%s?\n",
                s.refused_auth != 0 ? ", and does its --allow-keys list this exporter" : "");
    std::string refused;
    if (s.refused_auth + s.refused_protocol != 0)
        refused = ", " + std::to_string(s.refused_auth + s.refused_protocol) +
                  " handshakes refused (" + std::to_string(s.refused_auth) + " key not allowed, " +
                  std::to_string(s.refused_protocol) + " wrong server key or protocol)";
    fprintf(stderr, "quelm flows: exported %u flows to %u collector%s, %u dropped%s\n",
            s.num_flow_exports, s.handshakes, s.handshakes == 1 ? "" : "s", s.num_flow_drops,
            refused.c_str());
}

}  // namespace quelm_tool
