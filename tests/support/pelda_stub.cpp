#include "pelda_stub.h"

#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <cstdio>

namespace pelda_stub {

namespace {
Script g_script;
int g_module_token;
// Strings pointed at by flow objects; they live until the next reset.
std::deque<std::string> g_strings;

const char *keep(const std::string &s) {
    g_strings.push_back(s);
    return g_strings.back().c_str();
}

void write_fields(pelda_flow *flow, const FlowFields &f) {
    auto *obj = reinterpret_cast<uint8_t *>(flow);
    auto put_ptr = [&](size_t off, const char *p) { memcpy(obj + off, &p, sizeof p); };
    put_ptr(368, f.server_name.empty() ? nullptr : keep(f.server_name));
    put_ptr(656, f.url.empty() ? nullptr : keep(f.url));
    memcpy(obj + 654, &f.http_response_code, 2);
    memcpy(obj + 930, &f.dns_reply_code, 1);
    memcpy(obj + 936, &f.dns_query_type, 2);
    memcpy(obj + 30, &f.giveup_app, 2);
    if (f.cert_sha1.size() == 20) memcpy(obj + 1156, f.cert_sha1.data(), 20);
}

pelda_protocol answer(pelda_flow *flow, const Answer &a) {
    if (flow != nullptr && a.has_fields) write_fields(flow, a.fields);
    return a.result;
}
}  // namespace

Script &script() {
    return g_script;
}

void reset(uint32_t num_protocols, const std::map<uint16_t, std::string> &names) {
    g_script = Script{};
    g_strings.clear();
    g_script.protocols.push_back("Unknown");
    for (uint32_t id = 1; id < num_protocols; id++) {
        auto it = names.find(uint16_t(id));
        g_script.protocols.push_back(it != names.end() ? it->second : "P" + std::to_string(id));
    }
    for (int id = 0; id < PELDA_NUM_CATEGORIES; id++)
        g_script.categories.push_back("Cat" + std::to_string(id));
}

pelda_protocol result(uint16_t master, uint16_t app, uint32_t category, uint32_t state) {
    pelda_protocol r{};
    r.master_protocol = master;
    r.app_protocol = app;
    r.category = category;
    r.state = state;
    return r;
}

}  // namespace pelda_stub

using pelda_stub::g_script;

extern "C" {

uint32_t pelda_get_api_version(void) {
    return g_script.api_version;
}
const char *pelda_revision(void) {
    return "9.9.9-stub";
}

pelda_detection_module *pelda_init_detection_module(void *, int) {
    g_script.modules_created++;
    return reinterpret_cast<pelda_detection_module *>(&pelda_stub::g_module_token);
}

int pelda_set_config(pelda_detection_module *, const char *, const char *key, const char *value) {
    g_script.config[key] = value;
    return 0;
}

int pelda_finalize_initialization(pelda_detection_module *) {
    return 0;
}
void pelda_exit_detection_module(pelda_detection_module *) {
    g_script.modules_released++;
}
uint32_t pelda_detection_get_sizeof_pelda_flow_struct(void) {
    return g_script.flow_struct_size;
}

void pelda_free_flow(pelda_flow *flow) {
    g_script.flows_released++;
    free(flow);
}

pelda_protocol pelda_detection_process_packet(pelda_detection_module *, pelda_flow *flow,
                                              const uint8_t *, uint32_t len, uint64_t, void *) {
    g_script.process_calls++;
    g_script.process_lengths.push_back(len);
    if (g_script.answers.empty()) return pelda_protocol{};
    const pelda_stub::Answer a = g_script.answers.front();
    g_script.answers.pop_front();
    return pelda_stub::answer(flow, a);
}

pelda_protocol pelda_detection_giveup(pelda_detection_module *, pelda_flow *flow) {
    g_script.giveup_calls++;
    return pelda_stub::answer(flow, g_script.giveup);
}

pelda_protocol pelda_guess_undetected_protocol_v4(pelda_detection_module *, pelda_flow *flow,
                                                  uint8_t, uint32_t, uint16_t, uint32_t, uint16_t) {
    g_script.guess_calls++;
    return pelda_stub::answer(flow, g_script.guess);
}

uint16_t pelda_get_proto_by_name(pelda_detection_module *, const char *name) {
    for (size_t id = 1; id < g_script.protocols.size(); id++)
        if (strcasecmp(g_script.protocols[id].c_str(), name) == 0) return uint16_t(id);
    return 0;
}

char *pelda_protocol2name(pelda_detection_module *, pelda_proto_pair p, char *buf, uint32_t len) {
    auto name = [](uint16_t id) -> const char * {
        return id < g_script.protocols.size() ? g_script.protocols[id].c_str() : nullptr;
    };
    const char *m = name(p.master_protocol), *a = name(p.app_protocol);
    if (p.master_protocol != 0 && p.app_protocol != 0 && p.master_protocol != p.app_protocol)
        snprintf(buf, len, "%s.%s", m, a);
    else
        snprintf(buf, len, "%s", p.app_protocol != 0 ? a : m);
    return buf;
}

uint32_t pelda_get_num_protocols(pelda_detection_module *) {
    return uint32_t(g_script.protocols.size());
}

const char *pelda_category_get_name(pelda_detection_module *, uint32_t id) {
    return id < g_script.categories.size() ? g_script.categories[id].c_str() : nullptr;
}

int pelda_load_protocols_file(pelda_detection_module *, const char *) {
    if (g_script.load_protocols_result >= 0)
        for (uint32_t i = 0; i < g_script.protocols_added_by_load; i++)
            g_script.protocols.push_back("Custom" + std::to_string(i));
    return g_script.load_protocols_result;
}

int pelda_load_categories_file(pelda_detection_module *, const char *, void *) {
    return 0;
}
uint16_t pelda_network_ptree_match(pelda_detection_module *, uint32_t) {
    return 0;
}
void pelda_sha256(const void *, size_t, uint8_t out[32]) {
    memset(out, 0, 32);
}

}  // extern "C"
