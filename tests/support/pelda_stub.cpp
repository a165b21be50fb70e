#include "pelda_stub.h"

#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <cstdio>

namespace pelda_stub {

namespace {
Script g_script;
int g_module_token;
std::vector<std::string> g_categories;
// Strings pointed at by flow objects; they live until the next reset.
std::deque<std::string> g_strings;

// Writes the fields where the engine's per-flow object of this API revision keeps them.
pelda_protocol answer(pelda_flow *flow, const Answer &a) {
    if (flow == nullptr || !a.fields) return a.result;
    const FlowFields &f = *a.fields;
    auto *obj = reinterpret_cast<uint8_t *>(flow);
    auto put_text = [&](size_t off, const std::string &s) {
        const char *p = s.empty() ? nullptr : g_strings.emplace_back(s).c_str();
        memcpy(obj + off, &p, sizeof p);
    };
    put_text(368, f.server_name);
    put_text(656, f.url);
    memcpy(obj + 654, &f.http_response_code, 2);
    memcpy(obj + 930, &f.dns_reply_code, 1);
    memcpy(obj + 936, &f.dns_query_type, 2);
    memcpy(obj + 30, &f.giveup_app, 2);
    if (f.cert_sha1.size() == 20) memcpy(obj + 1156, f.cert_sha1.data(), 20);
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
    for (int id = int(g_categories.size()); id < PELDA_NUM_CATEGORIES; id++)
        g_categories.push_back("Cat" + std::to_string(id));
}

pelda_protocol result(uint16_t master, uint16_t app, uint32_t category, uint32_t state) {
    return {.master_protocol = master, .app_protocol = app, .category = category, .state = state};
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
    return 1200;
}
void pelda_free_flow(pelda_flow *flow) {
    free(flow);
}

pelda_protocol pelda_detection_process_packet(pelda_detection_module *, pelda_flow *flow,
                                              const uint8_t *, uint32_t len, uint64_t, void *) {
    if (g_script.process_calls++ == 0) g_script.first_length = len;
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
// Pairs are named by their ids ("91.7"): the tests read rules and results, not names.
char *pelda_protocol2name(pelda_detection_module *, pelda_proto_pair p, char *buf, uint32_t len) {
    snprintf(buf, len, "%u.%u", p.master_protocol, p.app_protocol);
    return buf;
}
uint32_t pelda_get_num_protocols(pelda_detection_module *) {
    return uint32_t(g_script.protocols.size());
}
const char *pelda_category_get_name(pelda_detection_module *, uint32_t id) {
    return id < pelda_stub::g_categories.size() ? pelda_stub::g_categories[id].c_str() : nullptr;
}
int pelda_load_protocols_file(pelda_detection_module *, const char *) {
    if (g_script.load_protocols_result >= 0)
        for (uint32_t i = 0; i < g_script.protocols_added_by_load; i++)
            g_script.protocols.push_back("Custom" + std::to_string(i));
    return g_script.load_protocols_result;
}

}  // extern "C"
