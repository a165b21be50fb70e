#include "pelda_stub.h"

#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <cstdio>

namespace pelda_stub {

void reset(const std::map<uint16_t, std::string> &names) {
    script = Script{};
    for (uint16_t id = 0; id < 300; id++)
        script.protocols.push_back(names.contains(id) ? names.at(id) : "P" + std::to_string(id));
}

pelda_protocol result(uint16_t master, uint16_t app, uint32_t category, uint32_t state) {
    return {.master_protocol = master, .app_protocol = app, .category = category, .state = state};
}

}  // namespace pelda_stub

namespace {
using pelda_stub::script;

// Writes the fields where the engine's per-flow object of this API revision keeps them.
pelda_protocol answer(pelda_flow *flow, const pelda_stub::Answer &a) {
    if (flow == nullptr) return a.result;
    auto *obj = reinterpret_cast<uint8_t *>(flow);
    auto put_text = [&](size_t off, const std::string &s) {
        const char *p = s.empty() ? nullptr : script.strings.emplace_back(s).c_str();
        memcpy(obj + off, &p, sizeof p);
    };
    put_text(368, a.server_name);
    put_text(656, a.url);
    memcpy(obj + 654, &a.http_response_code, 2);
    memcpy(obj + 30, &a.giveup_app, 2);
    if (a.cert_sha1.size() == 20) memcpy(obj + 1156, a.cert_sha1.data(), 20);
    return a.result;
}
}  // namespace

extern "C" {

uint32_t pelda_get_api_version(void) {
    return script.api_version;
}
const char *pelda_revision(void) {
    return "9.9.9-stub";
}
pelda_detection_module *pelda_init_detection_module(void *, int) {
    return script.modules_created++, reinterpret_cast<pelda_detection_module *>(&script);
}
int pelda_set_config(pelda_detection_module *, const char *, const char *key, const char *value) {
    return script.config += std::string(key) + "=" + value + ";", 0;
}
int pelda_finalize_initialization(pelda_detection_module *) {
    return 0;
}
void pelda_exit_detection_module(pelda_detection_module *) {
    script.modules_released++;
}
uint32_t pelda_detection_get_sizeof_pelda_flow_struct(void) {
    return 1200;
}
void pelda_free_flow(pelda_flow *flow) {
    free(flow);
}

pelda_protocol pelda_detection_process_packet(pelda_detection_module *, pelda_flow *flow,
                                              const uint8_t *, uint32_t len, uint64_t, void *) {
    if (script.process_calls++ == 0) script.first_length = len;
    pelda_stub::Answer a;
    if (!script.answers.empty()) a = script.answers.front(), script.answers.pop_front();
    return answer(flow, a);
}
pelda_protocol pelda_detection_giveup(pelda_detection_module *, pelda_flow *flow) {
    return script.giveup_calls++, answer(flow, script.giveup);
}
pelda_protocol pelda_guess_undetected_protocol_v4(pelda_detection_module *, pelda_flow *flow,
                                                  uint8_t, uint32_t, uint16_t, uint32_t, uint16_t) {
    return script.guess_calls++, answer(flow, script.guess);
}

uint16_t pelda_get_proto_by_name(pelda_detection_module *, const char *name) {
    for (size_t id = 1; id < script.protocols.size(); id++)
        if (strcasecmp(script.protocols[id].c_str(), name) == 0) return uint16_t(id);
    return 0;
}
// Pairs are named by their ids ("91.7"): the tests read rules and results, not names.
char *pelda_protocol2name(pelda_detection_module *, pelda_proto_pair p, char *buf, uint32_t len) {
    snprintf(buf, len, "%u.%u", p.master_protocol, p.app_protocol);
    return buf;
}
uint32_t pelda_get_num_protocols(pelda_detection_module *) {
    return uint32_t(script.protocols.size());
}
const char *pelda_category_get_name(pelda_detection_module *, uint32_t id) {
    return script.strings.emplace_back("Cat" + std::to_string(id)).c_str();
}

}  // extern "C"
