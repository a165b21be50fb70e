// `quelm collect`: the receiving side of flow export. A SUB socket that is the CURVE server takes
// the exporters' messages, checks every header, decodes the records (TLV or JSON) and writes one
// line per record, naming the exporter that sent it. A ZAP handler in the same loop sees every
// handshake: it admits the keys of --allow-keys (or any key without it) and names each exporter by
// its public key.
#pragma once

#include <CLI/CLI.hpp>

#include <string>

#include "collect_decode.h"

namespace quelm_tool {

struct CollectOptions {
    std::string bind;        // comma-separated endpoints to bind, or
    std::string connect;     // to connect to
    std::string secret_key;  // file holding the collector's secret key (Z85)
    std::string allow_keys;  // file of the exporters' public keys; empty: any exporter
    bool text = false;       // --format text
    bool netflow_names = false;
    uint16_t community_id_seed = 0;
    std::string output = "-";
};

CLI::App *add_collect_command(CLI::App &app, CollectOptions &options);
int run_collect(const CollectOptions &options);

}  // namespace quelm_tool
