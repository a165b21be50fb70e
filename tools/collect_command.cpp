#include "collect_command.h"

#include <quelm.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <set>

#include "quelm_wire.h"

#include "exit_codes.h"
#include "flow_writer.h"
#include "input_files.h"
#include "stop_signals.h"
#include "zmq_api.h"

namespace quelm_tool {
namespace {

namespace wire = quelm::wire;

constexpr int kPollMs = 200;
// Messages held per exporter connection before libzmq stops reading from it, which makes the
// exporter wait: at most 64 MiB each, with parts of at most a header and a 16-bit payload.
constexpr int kReceiveHighWater = 1000;
constexpr int64_t kMaxPartSize = wire::kHeaderLen + 65535;  // a bigger part closes its connection
constexpr int kMessagesPerRound = 1000;  // then handshakes waiting for the ZAP handler get a turn
constexpr size_t kKeptParts = 3;      // of a message; more are read and dropped (it is malformed)
constexpr size_t kMaxSenders = 4096;  // exporters whose counters are checked
constexpr uint64_t kReportedMalformed = 100;
constexpr uint32_t kReportedPerSender = 100;  // lines on losses and restarts per exporter
constexpr size_t kReportedRefusedKeys = 100;
constexpr const char *kZapEndpoint = "inproc://zeromq.zap.01";  // where libzmq asks (RFC 27)

std::string builtin_protocol_name(const std::string &ids) {
    // The engine's built-in names; protocols an exporter loaded from a file are not known here.
    static void *engine = quelm_dpi_alloc(1);
    unsigned master = 0, app = 0;
    char dot = 0;
    if (engine == nullptr || sscanf(ids.c_str(), "%u%c%u", &master, &dot, &app) != 3 ||
        dot != '.' || master > 0xFFFF || app > 0xFFFF)
        return "";
    const quelm_l7_protocol l7 = {uint16_t(master), uint16_t(app), 0};
    char name[64];
    return quelm_dpi_get_protocol_name_by_id(engine, &l7, name, sizeof name);
}

// The public keys of an allow-list: one per line, blank lines and `#` comments allowed, so that the
// .pub files of exporters can be appended as they are.
int read_allow_list(const ZmqApi &zmq, const std::string &path, std::set<std::string> *keys,
                    std::string *error) {
    std::vector<std::string> lines;
    const int rc = read_lines(path, LineLimits{}, &lines, error);
    if (rc != kExitOk) return rc;
    for (size_t i = 0; i < lines.size(); i++) {
        const std::string &raw = lines[i];
        const size_t from = raw.find_first_not_of(" \t\r"), to = raw.find_last_not_of(" \t\r");
        const std::string line = from == std::string::npos ? "" : raw.substr(from, to - from + 1);
        const std::string where = "'" + path + "', line " + std::to_string(i + 1) + ": ";
        if (is_z85_key(zmq, line)) {
            keys->insert(line);
        } else if (line.starts_with("secret-key")) {
            *error = where +
                     "a secret key; an allow-list holds the exporters' public keys (the "
                     ".pub files of quelm keygen --client)";
            return kExitDataError;
        } else if (!line.empty() && line[0] != '#') {
            *error = where + "not a public key (40 characters of Z85) nor a # comment";
            return kExitDataError;
        }
    }
    if (keys->empty()) {
        *error = "'" + path + "' holds no key: every exporter would be refused";
        return kExitDataError;
    }
    return kExitOk;
}

// Answers the handshakes of the SUB socket (ZAP, RFC 27). A CURVE client whose key is allowed (any
// key without an allow-list) gets status 200 and its key in Z85 as user id, which libzmq attaches
// to every message of that connection as the "User-Id" property.
class ZapHandler {
  public:
    ZapHandler(const ZmqApi &zmq, const std::set<std::string> *allowed)
        : zmq_(zmq), allowed_(allowed) {}

    void answer(void *socket, const std::vector<std::string> &request) {
        // version, request id, domain, address, identity, mechanism, credentials
        std::string key, status = "400", text = "not a CURVE client";
        if (request.size() == 7 && request[0] == "1.0" && request[5] == "CURVE" &&
            request[6].size() == 32) {
            char z85[41];
            zmq_.z85_encode(z85, reinterpret_cast<const uint8_t *>(request[6].data()), 32);
            key = z85;
            const bool ok = allowed_ == nullptr || allowed_->count(key) != 0;
            status = ok ? "200" : "400";
            text = ok ? "OK" : "the key is not in the allow-list";
        }
        status == "200" ? accepted_++ : refused_++;
        if (status != "200" && reported_.size() < kReportedRefusedKeys &&
            reported_.insert(key).second)
            fprintf(
                stderr, "quelm collect: refused exporter %s from %s: %s%s\n",
                key.empty() ? "?" : key.c_str(), request.size() > 3 ? request[3].c_str() : "?",
                text.c_str(),
                reported_.size() == kReportedRefusedKeys ? " (further keys are only counted)" : "");
        const std::string reply[] = {"1.0", request.size() > 1 ? request[1] : "", status,
                                     text,  status == "200" ? key : "",           ""};
        for (size_t i = 0; i < std::size(reply); i++)
            zmq_.send(socket, reply[i].data(), reply[i].size(),
                      i + 1 < std::size(reply) ? ZMQ_SNDMORE : 0);
    }

    uint64_t accepted() const { return accepted_; }
    uint64_t refused() const { return refused_; }

  private:
    const ZmqApi &zmq_;
    const std::set<std::string> *allowed_;  // null: any key
    uint64_t accepted_ = 0, refused_ = 0;
    std::set<std::string> reported_;  // refused keys already named
};

// One exporter's bookkeeping: its counters are its own, so that exporters do not see each
// other's messages as losses or restarts.
struct Sender {
    CounterTracker counters;
    uint64_t messages = 0, records = 0, restarts = 0;
    uint32_t reported = 0;  // lines on its losses and restarts
};

class Collector {
  public:
    Collector(OutputSink &sink, bool text, bool netflow_names, uint16_t community_id_seed)
        : sink_(sink), text_(text), netflow_names_(netflow_names), seed_(community_id_seed) {}

    // One message of the exporter `probe` (its key, or its address when it has no key).
    void handle(const std::vector<std::string> &parts, const std::string &probe) {
        messages_++;
        DecodedMessage m = decode_message(parts);
        Sender *sender = find_sender(probe);
        if (sender != nullptr) {
            sender->messages++;
            if (m.counter_known) check_counter(*sender, probe, m.counter);
        }
        if (!m.ok) {
            malformed_[size_t(m.reason)]++;
            if (++malformed_total_ <= kReportedMalformed)
                fprintf(stderr, "quelm collect: malformed message %llu from %s: %s%s\n",
                        (unsigned long long)messages_, probe.c_str(), m.problem.c_str(),
                        malformed_total_ == kReportedMalformed ? " (further ones are only counted)"
                                                               : "");
            return;
        }
        for (const Record &record : m.records) {
            std::string line;
            if (m.stats) {
                // The collector's own fields come first; the record's fields of the same names
                // (its "probe" block: version, ip, unique_source_id) are kept as exporter_NAME.
                Record out = {{"event_type", "stats"}, {"probe", probe}};
                for (auto it = record.begin(); it != record.end(); ++it)
                    out[out.contains(it.key()) ? "exporter_" + it.key() : it.key()] = it.value();
                if (text_) line = "stats ";
                write_record_json(out, &line);
                line += '\n';
                stats_records_++;
            } else if (netflow_names_ && !text_) {
                write_record_json(name_flow_fields(record, probe, builtin_protocol_name), &line);
                line += '\n';
                flow_records_++;
            } else {
                FlowFields fields;
                ReceivedTexts texts;
                received_flow_fields(record, probe, builtin_protocol_name, &texts, &fields);
                fields.community_id = community_id(fields, seed_, texts.community_id);
                line.resize(kMaxRecordLen + fields.more.size());
                line.resize(text_ ? format_text_flow(fields, line.data())
                                  : format_json_flow(fields, line.data()));
                flow_records_++;
            }
            if (sender != nullptr) sender->records++;
            sink_.write(line.data(), line.size());
        }
        sink_.flush();  // someone may be reading as records arrive
    }

    void summary(const ZapHandler &zap) const {
        auto n = [](uint64_t v) { return (unsigned long long)v; };
        if (senders_.size() > 1)
            for (const auto &[probe, s] : senders_)
                fprintf(stderr,
                        "quelm collect: exporter %s: %llu messages, %llu records, %llu lost, %llu "
                        "restarts\n",
                        probe.c_str(), n(s.messages), n(s.records), n(s.counters.lost()),
                        n(s.restarts));
        fprintf(stderr,
                "quelm collect: %llu messages, %llu flow records, %llu statistics records, %llu "
                "messages lost, %llu malformed, %llu restarts, %zu exporters, %llu handshakes "
                "accepted, %llu refused\n",
                n(messages_), n(flow_records_), n(stats_records_), n(lost_), n(malformed_total_),
                n(restarts_), senders_.size(), n(zap.accepted()), n(zap.refused()));
        if (malformed_total_ != 0) {
            std::string reasons;
            for (size_t r = 0; r < size_t(Malformed::kCount); r++)
                if (malformed_[r] != 0)
                    reasons += (reasons.empty() ? "" : ", ") + std::to_string(malformed_[r]) + " " +
                               malformed_name(Malformed(r));
            fprintf(stderr, "quelm collect: malformed by reason: %s\n", reasons.c_str());
        }
        if (untracked_ != 0)
            fprintf(stderr,
                    "quelm collect: %llu messages from exporters beyond the first %zu, whose "
                    "counters were not checked\n",
                    n(untracked_), kMaxSenders);
    }

  private:
    Sender *find_sender(const std::string &probe) {
        const auto it = senders_.find(probe);
        if (it != senders_.end()) return &it->second;
        if (senders_.size() < kMaxSenders) return &senders_[probe];
        untracked_++;
        return nullptr;
    }

    void check_counter(Sender &s, const std::string &probe, uint32_t counter) {
        const uint32_t lost = s.counters.see(counter);
        lost_ += lost;
        if (s.counters.restarted()) s.restarts++, restarts_++;
        if ((!s.counters.restarted() && lost == 0) || ++s.reported > kReportedPerSender) return;
        const char *more = s.reported == kReportedPerSender
                               ? " (further ones of this exporter are only counted)"
                               : "";
        if (s.counters.restarted())
            fprintf(stderr, "quelm collect: %s: message counter went back to %u: it restarted%s\n",
                    probe.c_str(), counter, more);
        else
            fprintf(stderr, "quelm collect: %s: %u message%s lost before message %u%s\n",
                    probe.c_str(), lost, lost == 1 ? "" : "s", counter, more);
    }

    OutputSink &sink_;
    bool text_, netflow_names_;
    uint16_t seed_;
    std::map<std::string, Sender> senders_;
    uint64_t messages_ = 0, flow_records_ = 0, stats_records_ = 0, lost_ = 0, restarts_ = 0;
    uint64_t malformed_[size_t(Malformed::kCount)] = {}, malformed_total_ = 0, untracked_ = 0;
};

// The first `keep` parts of the next message (the rest are read and dropped) and, with `sender`,
// who sent it: the "User-Id" the ZAP handler gave the connection, else the peer's address. False
// when no message is waiting.
bool receive_message(const ZmqApi &zmq, void *socket, size_t keep, std::vector<std::string> *parts,
                     std::string *sender = nullptr) {
    parts->clear();
    for (bool first = true;; first = false) {
        zmq_msg_t msg;
        zmq.msg_init(&msg);
        if (zmq.msg_recv(&msg, socket, first ? ZMQ_DONTWAIT : 0) < 0) {
            zmq.msg_close(&msg);
            return !first;
        }
        if (parts->size() < keep)
            parts->emplace_back(static_cast<const char *>(zmq.msg_data(&msg)), zmq.msg_size(&msg));
        if (first && sender != nullptr) {
            const char *user = zmq.msg_gets(&msg, "User-Id");
            const char *address =
                user != nullptr && *user != 0 ? user : zmq.msg_gets(&msg, "Peer-Address");
            *sender = address != nullptr && *address != 0 ? address : "?";
        }
        const bool more = zmq.msg_more(&msg) != 0;
        zmq.msg_close(&msg);
        if (!more) return true;
    }
}

// Binds or connects to every endpoint of the list; `attached` gets them as libzmq names them
// (tcp://127.0.0.1:41234 for tcp://127.0.0.1:*).
int attach_endpoints(const ZmqApi &zmq, void *socket, const CollectOptions &o,
                     std::string *attached) {
    const std::string list = !o.bind.empty() ? o.bind : o.connect;
    for (size_t from = 0; from <= list.size();) {
        const size_t comma = std::min(list.find(',', from), list.size());
        const std::string endpoint = list.substr(from, comma - from);
        from = comma + 1;
        const int rc = !o.bind.empty() ? zmq.bind(socket, endpoint.c_str())
                                       : zmq.connect(socket, endpoint.c_str());
        if (rc != 0) {
            fprintf(stderr, "quelm collect: cannot %s %s: %s\n",
                    !o.bind.empty() ? "listen on" : "connect to", endpoint.c_str(),
                    zmq.strerror(zmq.errno_value()));
            return kExitNoInput;
        }
        char name[1024];
        size_t len = sizeof name;
        if (!attached->empty()) *attached += ',';
        *attached += zmq.getsockopt(socket, ZMQ_LAST_ENDPOINT, name, &len) == 0 ? name : endpoint;
    }
    return kExitOk;
}

// Serves the handshakes and the messages in turn until a signal or an output failure.
void receive_until_stopped(const ZmqApi &zmq, void *socket, void *zap_socket, ZapHandler &zap,
                           OutputSink &sink, const CollectOptions &o) {
    Collector collector(sink, o.text, o.netflow_names, o.community_id_seed);
    std::vector<std::string> parts;
    std::string sender;
    zmq_pollitem_t items[] = {{socket, 0, ZMQ_POLLIN, 0}, {zap_socket, 0, ZMQ_POLLIN, 0}};
    while (!stop_requested() && !sink.failed()) {
        if (zmq.poll(items, 2, kPollMs) <= 0) continue;  // timeout, or a signal (EINTR)
        while (receive_message(zmq, zap_socket, 8, &parts))
            zap.answer(zap_socket, parts);
        for (int n = 0; n < kMessagesPerRound && !stop_requested() &&
                        receive_message(zmq, socket, kKeptParts, &parts, &sender);
             n++)
            collector.handle(parts, sender);
    }
    collector.summary(zap);
}

}  // namespace

// ---- The command -----------------------------------------------------------------------------

CLI::App *add_collect_command(CLI::App &app, CollectOptions &o) {
    CLI::App *command = app.add_subcommand(
        "collect",
        "Receive the flows that quelm flows --zmq exports: a CURVE server that writes one JSON "
        "line per flow record (the object of quelm flows --format json, with the fields the "
        "record carries) and per statistics record. Ctrl-C ends it with a summary");
    CLI::Option *bind = command
                            ->add_option("--bind", o.bind,
                                         "Listen on ENDPOINT[,ENDPOINT...] (the exporters "
                                         "connect: quelm flows --zmq-connect), e.g. "
                                         "tcp://*:5556")
                            ->type_name("ENDPOINT");
    CLI::Option *connect = command
                               ->add_option("--connect", o.connect,
                                            "Connect to ENDPOINT[,ENDPOINT...] (the exporters "
                                            "bind: quelm flows without --zmq-connect)")
                               ->type_name("ENDPOINT");
    bind->excludes(connect);
    command
        ->add_option("--secret-key", o.secret_key,
                     "The collector's CURVE secret key (Z85), as quelm keygen writes it; the "
                     "exporters need its public key")
        ->type_name("FILE")
        ->required();
    command
        ->add_option("--allow-keys", o.allow_keys,
                     "Accept only the exporters whose public key FILE lists, one a line (# "
                     "comments allowed: the .pub files of quelm keygen --client can be appended "
                     "as they are); without it any exporter holding the collector's public key "
                     "is accepted")
        ->type_name("FILE");
    command
        ->add_option(
            "--format", o.text,
            "json (one object per line) or text (one line per flow, as quelm flows writes it)")
        ->type_name("FORMAT")
        ->default_str("json")
        ->transform(
            CLI::CheckedTransformer(std::map<std::string, bool>{{"json", false}, {"text", true}},
                                    CLI::ignore_case)
                .description(""));
    command
        ->add_option("--community-id-seed", o.community_id_seed,
                     "Seed of the flow objects' Community IDs (community_id), as the probes' "
                     "--community-id-seed")
        ->type_name("N")
        ->capture_default_str();
    command->add_flag("--netflow-names", o.netflow_names,
                      "Write flow records as received, their keys by NetFlow names "
                      "(ipv4_src_addr, in_pkts, ...) instead of the flow object");
    command
        ->add_option("-w,--write", o.output, "Write the records to FILE (default: standard output)")
        ->type_name("FILE");
    command->footer(
        "Every record names its exporter by its public key: \"probe\" (a statistics record's "
        "own probe block becomes exporter_probe). Checks: every message's topic, version byte "
        "(against the payload), size and counter, per exporter; gaps in the counter are "
        "reported as lost messages, malformed messages are counted by reason, refused "
        "handshakes by key. Bounds: message parts over 24+65535 bytes close their connection; "
        "1000 messages held per connection, then the exporter waits.\nExit status: 0 success "
        "(also after SIGINT/SIGTERM), 64 wrong command line, 65 a bad key file or allow-list, "
        "66 a key file, allow-list or endpoint cannot be opened, 69 libzmq missing, 74 the "
        "output cannot be written.");
    return command;
}

int run_collect(const CollectOptions &o) {
    const char *endpoints = !o.bind.empty() ? o.bind.c_str() : o.connect.c_str();
    if (*endpoints == 0) {
        fprintf(stderr,
                "quelm collect: say where to listen (--bind ENDPOINT) or where exporters "
                "listen (--connect ENDPOINT)\n");
        return kExitUsage;
    }
    std::string error, secret, warning;
    const ZmqApi *zmq = load_zmq(&error);
    if (zmq == nullptr) {
        fprintf(stderr, "quelm collect: %s\n", error.c_str());
        return kExitUnavailable;
    }
    std::set<std::string> allowed;
    int rc = read_key_file(*zmq, o.secret_key, KeyHalf::kSecret, &secret, &error);
    if (rc == kExitOk && !o.allow_keys.empty())
        rc = read_allow_list(*zmq, o.allow_keys, &allowed, &error);
    if (rc != kExitOk) {
        fprintf(stderr, "quelm collect: %s\n", error.c_str());
        return rc;
    }
    if (secret_key_exposed(o.secret_key, &warning))
        fprintf(stderr, "quelm collect: %s\n", warning.c_str());
    OutputSink sink;
    if (!sink.open(o.output, &error)) {
        fprintf(stderr, "quelm collect: %s\n", error.c_str());
        return kExitOutputError;
    }

    // The ZAP handler is bound before the SUB socket can meet any exporter: from then on libzmq
    // asks it about every handshake.
    void *context = zmq->ctx_new();
    void *zap = context != nullptr ? zmq->socket(context, ZMQ_REP) : nullptr;
    void *socket = zap != nullptr ? zmq->socket(context, ZMQ_SUB) : nullptr;
    const int server = 1, linger = 0, high_water = kReceiveHighWater;
    const int64_t max_part = kMaxPartSize;
    if (socket != nullptr) zmq->setsockopt(zap, ZMQ_LINGER, &linger, sizeof linger);
    if (socket == nullptr || zmq->bind(zap, kZapEndpoint) != 0) {
        fprintf(stderr, "quelm collect: libzmq cannot make its sockets: %s\n",
                zmq->strerror(zmq->errno_value()));
        if (zap != nullptr) zmq->close(zap);
        if (socket != nullptr) zmq->close(socket);
        if (context != nullptr) zmq->ctx_term(context);
        return kExitUnavailable;
    }
    int exit_code = kExitOk;
    if (zmq->setsockopt(socket, ZMQ_CURVE_SERVER, &server, sizeof server) != 0 ||
        zmq->setsockopt(socket, ZMQ_CURVE_SECRETKEY, secret.c_str(), secret.size() + 1) != 0) {
        fprintf(stderr, "quelm collect: libzmq refuses the key: %s\n",
                zmq->strerror(zmq->errno_value()));
        exit_code = kExitUnavailable;
    }
    secret.assign(secret.size(), '\0');
    zmq->setsockopt(socket, ZMQ_LINGER, &linger, sizeof linger);
    zmq->setsockopt(socket, ZMQ_RCVHWM, &high_water, sizeof high_water);
    zmq->setsockopt(socket, ZMQ_MAXMSGSIZE, &max_part, sizeof max_part);
    zmq->setsockopt(socket, ZMQ_SUBSCRIBE, wire::kTopicFlow, strlen(wire::kTopicFlow));
    zmq->setsockopt(socket, ZMQ_SUBSCRIBE, wire::kTopicEvent, strlen(wire::kTopicEvent));
    std::string attached;
    if (exit_code == kExitOk) exit_code = attach_endpoints(*zmq, socket, o, &attached);

    if (exit_code == kExitOk) {
        install_stop_handlers();
        // The endpoints as bound: a port given as * shows the one the system chose.
        fprintf(stderr, "quelm collect: %s %s; Ctrl-C ends\n",
                !o.bind.empty() ? "listening on" : "connected to", attached.c_str());
        if (o.allow_keys.empty())
            fprintf(stderr,
                    "quelm collect: any exporter holding the collector's public key is accepted; "
                    "--allow-keys FILE accepts only the public keys it lists\n");
        ZapHandler handler(*zmq, o.allow_keys.empty() ? nullptr : &allowed);
        receive_until_stopped(*zmq, socket, zap, handler, sink, o);
        if (!sink.close()) {
            fprintf(stderr, "quelm collect: cannot write to %s: %s\n", sink.name().c_str(),
                    std::strerror(sink.error_number()));
            exit_code = kExitOutputError;
        }
    }
    zmq->close(socket);
    zmq->close(zap);
    zmq->ctx_term(context);
    return exit_code;
}

}  // namespace quelm_tool
