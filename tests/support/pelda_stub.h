// A scripted detection engine for tests that need exact engine answers. It defines the engine
// functions the library resolves at run time, so a test program linked with it (instead of the
// real engine) controls every detection result, name and file load.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "pelda.h"

// Answers and fields are written as designated initializers that name only what a case sets.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace pelda_stub {

// Fields written into the engine's per-flow object along with a result.
struct FlowFields {
    std::string server_name, url;
    uint16_t http_response_code = 0, dns_query_type = 0;
    uint8_t dns_reply_code = 0;
    std::vector<uint8_t> cert_sha1;  // 20 bytes, or empty
    uint16_t giveup_app = 0;         // the application id read when a give-up names only a master
};

struct Answer {
    pelda_protocol result{};
    std::optional<FlowFields> fields;
};

struct Script {
    uint32_t api_version = PELDA_API_VERSION;
    std::vector<std::string> protocols;  // name of each id; index 0 is "Unknown"
    // Answers of pelda_detection_process_packet, consumed in order; an empty queue answers 0/0.
    std::deque<Answer> answers;
    Answer giveup, guess;  // of pelda_detection_giveup and pelda_guess_undetected_protocol_v4
    int load_protocols_result = 0;
    uint32_t protocols_added_by_load = 0;  // how far a successful protocols file raises the count
    // What the library did.
    std::map<std::string, std::string> config;
    int modules_created = 0, modules_released = 0;
    int process_calls = 0, giveup_calls = 0, guess_calls = 0;
    uint32_t first_length = 0;  // bytes handed over with the first packet
};

Script &script();
// Fresh script with `num_protocols` protocols named P0 ("Unknown"), P1, ... except those given;
// categories are named Cat0 ... Cat163.
void reset(uint32_t num_protocols = 300, const std::map<uint16_t, std::string> &names = {});
pelda_protocol result(uint16_t master, uint16_t app, uint32_t category = 0, uint32_t state = 0);

}  // namespace pelda_stub
