#include "collect_command.h"

#include <arpa/inet.h>
#include <pelda.h>
#include <quelm.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>

#include "quelm_wire.h"

#include "exit_codes.h"
#include "flow_writer.h"
#include "stop_signals.h"
#include "zmq_api.h"

namespace quelm_tool {
namespace {

namespace wire = quelm::wire;

constexpr int kPollMs = 200;
constexpr int kReceiveHighWater = 100000;  // messages held before the socket drops
constexpr uint64_t kReportedMalformed = 100;

// A TLV batch into records; false with a message when the batch is malformed.
bool decode_tlv(const std::string &payload, std::vector<Record> *records, std::string *problem) {
    pelda_tlv_reader reader;
    if (pelda_tlv_reader_init(&reader, payload.data(), uint32_t(payload.size())) != 0) {
        *problem = "the payload is not a TLV batch of a known version";
        return false;
    }
    records->assign(1, Record::object());
    std::vector<Record *> open = {&records->back()};  // the record, then its open blocks
    pelda_tlv_element e;
    int rc;
    while ((rc = pelda_tlv_reader_next(&reader, &e)) == 1) {
        if (e.kind == PELDA_TLV_END_OF_RECORD) {
            records->push_back(Record::object());
            open.assign(1, &records->back());
            continue;
        }
        if (e.kind == PELDA_TLV_END_OF_BLOCK) {
            if (open.size() > 1) open.pop_back();
            continue;
        }
        std::string key = e.key_kind == PELDA_TLV_KEY_NUMBER ? std::to_string(e.key_number)
                          : e.key_kind == PELDA_TLV_KEY_TEXT
                              ? std::string(e.key_text, e.key_text_len)
                              : std::string();
        Record &value = (*open.back())[key];
        if (e.kind == PELDA_TLV_STRING) {
            value = std::string(e.string, e.string_len);
        } else if (e.kind == PELDA_TLV_UINT32 || e.kind == PELDA_TLV_UINT64) {
            value = uint64_t(e.number);
        } else {  // start of block
            value = Record::object();
            open.push_back(&value);
        }
    }
    if (rc < 0) {
        *problem = "the TLV batch is malformed (truncated, unknown element or bad nesting)";
        return false;
    }
    if (open.size() != 1) {
        *problem = "the TLV batch ends inside a block";
        return false;
    }
    return true;
}

// A JSON payload into records: one object, or (flows only) an array of them.
bool decode_json(const std::string &payload, bool stats, std::vector<Record> *records,
                 std::string *problem) {
    Record batch;
    std::string error;
    if (!parse_record_json(payload, &batch, &error)) {
        *problem = "bad JSON: " + error;
        return false;
    }
    if (batch.is_object()) {
        records->push_back(std::move(batch));
        return true;
    }
    if (!batch.is_array() || stats) {
        *problem = "the JSON payload is not a record";
        return false;
    }
    for (Record &item : batch) {
        if (!item.is_object()) {
            *problem = "a JSON batch holds something other than records";
            return false;
        }
        records->push_back(std::move(item));
    }
    return true;
}

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

std::string field_text(const Record &record, const char *key) {
    const auto v = record.find(key);
    return v == record.end() ? "?" : v->is_string() ? v->get<std::string>() : v->dump();
}

// One line of --format text.
std::string text_line(const Record &named, bool stats) {
    if (stats) {
        std::string json;
        write_record_json(named, &json);
        return "stats " + json;
    }
    const bool v6 = named.contains("ipv6_src_addr");
    const std::string src = field_text(named, v6 ? "ipv6_src_addr" : "ipv4_src_addr");
    const std::string dst = field_text(named, v6 ? "ipv6_dst_addr" : "ipv4_dst_addr");
    std::string line = "flow " + src + ":" + field_text(named, "l4_src_port") + " -> " + dst + ":" +
                       field_text(named, "l4_dst_port") + " proto " +
                       field_text(named, "protocol") + " pkts " + field_text(named, "in_pkts") +
                       "/" + field_text(named, "out_pkts") + " bytes " +
                       field_text(named, "in_bytes") + "/" + field_text(named, "out_bytes");
    line += " " + field_text(named, named.contains("l7_proto_name") ? "l7_proto_name" : "l7_proto");
    return line;
}

bool read_secret_key(const ZmqApi &zmq, const std::string &path, std::string *key,
                     std::string *error) {
    std::ifstream in(path);
    if (!in) {
        *error = "cannot open the secret key file '" + path + "'";
        return false;
    }
    in >> *key;
    if (!is_z85_key(zmq, *key)) {
        *error = "'" + path +
                 "' holds no CURVE secret key (40 characters of Z85); make one with quelm keygen";
        return false;
    }
    return true;
}

class Collector {
  public:
    Collector(const ZmqApi &zmq, OutputSink &sink, bool text)
        : zmq_(zmq), sink_(sink), text_(text) {}

    void handle(const std::vector<std::string> &parts) {
        messages_++;
        DecodedMessage m = decode_message(parts);
        if (m.counter_known) {
            const uint32_t lost = counters_.see(m.counter);
            if (counters_.restarted())
                fprintf(stderr,
                        "quelm collect: message counter went back to %u: an exporter restarted\n",
                        m.counter);
            if (lost != 0)
                fprintf(stderr, "quelm collect: %u message%s lost before message %u\n", lost,
                        lost == 1 ? "" : "s", m.counter);
        }
        if (!m.ok) {
            if (++malformed_ <= kReportedMalformed)
                fprintf(stderr, "quelm collect: malformed message %llu: %s%s\n",
                        (unsigned long long)messages_, m.problem.c_str(),
                        malformed_ == kReportedMalformed ? " (further ones are only counted)" : "");
            return;
        }
        for (const Record &record : m.records) {
            Record out;
            if (m.stats) {
                out["event_type"] = "stats";
                out.update(record);
                stats_records_++;
            } else {
                out = name_flow_fields(record, builtin_protocol_name);
                flow_records_++;
            }
            std::string line;
            if (text_)
                line = text_line(out, m.stats);
            else
                write_record_json(out, &line);
            line += '\n';
            sink_.write(line.data(), line.size());
        }
        sink_.flush();  // someone may be reading as records arrive
    }

    void summary() const {
        fprintf(stderr,
                "quelm collect: %llu messages, %llu flow records, %llu statistics records, %llu "
                "messages lost, %llu malformed\n",
                (unsigned long long)messages_, (unsigned long long)flow_records_,
                (unsigned long long)stats_records_, (unsigned long long)counters_.lost(),
                (unsigned long long)malformed_);
    }

  private:
    const ZmqApi &zmq_;
    OutputSink &sink_;
    bool text_;
    CounterTracker counters_;
    uint64_t messages_ = 0, flow_records_ = 0, stats_records_ = 0, malformed_ = 0;
};

// Every part of the next message; false when none is waiting.
bool receive_message(const ZmqApi &zmq, void *socket, std::vector<std::string> *parts) {
    parts->clear();
    for (;;) {
        zmq_msg_t msg;
        zmq.msg_init(&msg);
        if (zmq.msg_recv(&msg, socket, parts->empty() ? ZMQ_DONTWAIT : 0) < 0) {
            zmq.msg_close(&msg);
            return !parts->empty();
        }
        parts->emplace_back(static_cast<const char *>(zmq.msg_data(&msg)), zmq.msg_size(&msg));
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

void receive_until_stopped(const ZmqApi &zmq, void *socket, OutputSink &sink, bool text) {
    Collector collector(zmq, sink, text);
    std::vector<std::string> parts;
    zmq_pollitem_t item = {socket, 0, ZMQ_POLLIN, 0};
    while (!stop_requested() && !sink.failed()) {
        if (zmq.poll(&item, 1, kPollMs) <= 0) continue;  // timeout, or a signal (EINTR)
        while (!stop_requested() && receive_message(zmq, socket, &parts))
            collector.handle(parts);
    }
    collector.summary();
}

}  // namespace

// ---- Decoding --------------------------------------------------------------------------------

uint32_t CounterTracker::see(uint32_t counter) {
    uint32_t lost = 0;
    restarted_ = false;
    // Counters start at 0: a first message with a later one means the earlier ones went missing
    // (a collector that joined a running exporter, or was restarted).
    if (!started_ && counter != 0) {
        lost = counter;
        lost_ += lost;
    } else if (started_ && counter != expected_) {
        if (counter > expected_) {
            lost = counter - expected_;
            lost_ += lost;
        } else {
            restarted_ = true;
        }
    }
    started_ = true;
    expected_ = counter + 1;
    return lost;
}

DecodedMessage decode_message(const std::vector<std::string> &parts) {
    DecodedMessage m;
    // The counter first: a message that is malformed otherwise still tells what was sent.
    if (!parts.empty() && parts[0].size() == wire::kHeaderLen) {
        uint32_t counter_be;
        std::memcpy(&counter_be, parts[0].data() + wire::kCounterAt, 4);
        m.counter = ntohl(counter_be);
        m.counter_known = true;
    }
    if (parts.size() != 2) {
        m.problem = std::to_string(parts.size()) + " parts instead of 2 (header, payload)";
        return m;
    }
    const std::string &header = parts[0], &payload = parts[1];
    if (header.size() != wire::kHeaderLen) {
        m.problem = "a header of " + std::to_string(header.size()) + " bytes instead of " +
                    std::to_string(wire::kHeaderLen);
        return m;
    }
    const std::string topic(header.data(), strnlen(header.data(), wire::kTopicLen));
    if (header.find_first_not_of('\0', topic.size()) < wire::kTopicLen) {
        m.problem = "the topic is not zero-padded";
        return m;
    }
    if (topic != wire::kTopicFlow && topic != wire::kTopicEvent) {
        m.problem = "unknown topic '" + topic + "'";
        return m;
    }
    m.stats = topic == wire::kTopicEvent;
    // The size is in the exporter's byte order: either order must match the part's length.
    uint16_t size;
    std::memcpy(&size, header.data() + wire::kSizeAt, 2);
    if (size != payload.size() && ntohs(size) != payload.size()) {
        m.problem = "the header's size " + std::to_string(size) + " is not the payload's " +
                    std::to_string(payload.size()) + " bytes";
        return m;
    }
    const uint8_t version = uint8_t(header[wire::kVersionAt]);
    const bool looks_json = !payload.empty() && (payload[0] == '{' || payload[0] == '[');
    if (version == wire::kVersionJson) {
        if (!looks_json) {
            m.problem = "the version byte says JSON, the payload is not";
            return m;
        }
        if (!decode_json(payload, m.stats, &m.records, &m.problem)) {
            m.records.clear();
            return m;
        }
    } else if (version == wire::kVersionTlv) {
        if (m.stats) {
            m.problem = "a statistics record must be JSON (version 2)";
            return m;
        }
        if (looks_json) {
            m.problem = "the version byte says TLV, the payload is JSON";
            return m;
        }
        if (!decode_tlv(payload, &m.records, &m.problem)) {
            m.records.clear();
            return m;
        }
    } else {
        m.problem = "unknown version byte " + std::to_string(version);
        return m;
    }
    m.ok = true;
    return m;
}

Record name_flow_fields(const Record &record,
                        std::string (*protocol_name)(const std::string &ids)) {
    Record out = {{"event_type", "flow"}};
    for (auto it = record.begin(); it != record.end(); ++it) {
        const std::string &key = it.key();
        const wire::Field *field = wire::find_field(key.c_str());
        out[field != nullptr ? field->netflow : "field_" + key] = it.value();
        if (key == wire::kL7ProtoKey && protocol_name != nullptr && it->is_string()) {
            const std::string name = protocol_name(it->get<std::string>());
            if (!name.empty()) out["l7_proto_name"] = name;
        }
    }
    return out;
}

// ---- The command -----------------------------------------------------------------------------

CLI::App *add_collect_command(CLI::App &app, CollectOptions &o) {
    CLI::App *command = app.add_subcommand(
        "collect",
        "Receive the flows that quelm flows --zmq exports: a CURVE server that writes one JSON "
        "line per flow record (NetFlow field names) and per statistics record. Ctrl-C ends it "
        "with a summary");
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
    command->add_option("--format", o.text, "json (one object per line) or text")
        ->type_name("FORMAT")
        ->default_str("json")
        ->transform(
            CLI::CheckedTransformer(std::map<std::string, bool>{{"json", false}, {"text", true}},
                                    CLI::ignore_case)
                .description(""));
    command
        ->add_option("-w,--write", o.output, "Write the records to FILE (default: standard output)")
        ->type_name("FILE");
    command->footer(
        "Checks: every message's topic, version byte (against the payload), size and counter; "
        "gaps in the counter are reported as lost messages, malformed messages are counted and "
        "reported.\nExit status: 0 success (also after SIGINT/SIGTERM), 64 wrong command line, 65 "
        "a bad key file, 66 a key file or endpoint cannot be opened, 69 libzmq missing, 74 the "
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
    std::string error, secret;
    const ZmqApi *zmq = load_zmq(&error);
    if (zmq == nullptr) {
        fprintf(stderr, "quelm collect: %s\n", error.c_str());
        return kExitUnavailable;
    }
    if (!read_secret_key(*zmq, o.secret_key, &secret, &error)) {
        fprintf(stderr, "quelm collect: %s\n", error.c_str());
        return error.rfind("cannot open", 0) == 0 ? kExitNoInput : kExitDataError;
    }
    OutputSink sink;
    if (!sink.open(o.output, &error)) {
        fprintf(stderr, "quelm collect: %s\n", error.c_str());
        return kExitOutputError;
    }

    void *context = zmq->ctx_new();
    void *socket = context != nullptr ? zmq->socket(context, ZMQ_SUB) : nullptr;
    if (socket == nullptr) {
        fprintf(stderr, "quelm collect: libzmq cannot make a socket: %s\n",
                zmq->strerror(zmq->errno_value()));
        if (context != nullptr) zmq->ctx_term(context);
        return kExitUnavailable;
    }
    const int server = 1, linger = 0, high_water = kReceiveHighWater;
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
    zmq->setsockopt(socket, ZMQ_SUBSCRIBE, wire::kTopicFlow, strlen(wire::kTopicFlow));
    zmq->setsockopt(socket, ZMQ_SUBSCRIBE, wire::kTopicEvent, strlen(wire::kTopicEvent));
    std::string attached;
    if (exit_code == kExitOk) exit_code = attach_endpoints(*zmq, socket, o, &attached);

    if (exit_code == kExitOk) {
        install_stop_handlers();
        // The endpoints as bound: a port given as * shows the one the system chose.
        fprintf(stderr, "quelm collect: %s %s; Ctrl-C ends\n",
                !o.bind.empty() ? "listening on" : "connected to", attached.c_str());
        receive_until_stopped(*zmq, socket, sink, o.text);
        if (!sink.close()) {
            fprintf(stderr, "quelm collect: cannot write to %s: %s\n", sink.name().c_str(),
                    std::strerror(sink.error_number()));
            exit_code = kExitOutputError;
        }
    }
    zmq->close(socket);
    zmq->ctx_term(context);
    return exit_code;
}

}  // namespace quelm_tool
