// A scripted detection engine in place of the real one: the tests set every result and name.
#pragma once

#include <deque>
#include <map>
#include <string>
#include <vector>

#include "pelda.h"

// Answers and fields are written as designated initializers that name only what a case sets.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace pelda_stub {

// A result, and the fields written into the engine's per-flow object with it.
struct Answer {
    pelda_protocol result{};
    std::string server_name, url;
    uint16_t http_response_code = 0;
    std::vector<uint8_t> cert_sha1;  // 20 bytes, or empty
    uint16_t giveup_app = 0;         // read when a give-up names only a master
};

struct Script {
    uint32_t api_version = 0x50000 | PELDA_API_VERSION;  // only its low 16 bits are the revision
    std::vector<std::string> protocols;                  // names by id
    std::deque<Answer> answers;                          // of the packets in turn; then 0/0
    Answer giveup, guess;
    // What the library did.
    std::string config;  // "key=value;" of each setting
    int modules_created = 0, modules_released = 0, process_calls = 0, giveup_calls = 0,
        guess_calls = 0;
    uint32_t first_length = 0;        // bytes handed over with the first packet
    std::deque<std::string> strings;  // pointed at by flow objects
};

inline Script script;

// A script with protocols P0 ... P299 except those named, and categories Cat0 ...
void reset(const std::map<uint16_t, std::string> &names = {});
pelda_protocol result(uint16_t master, uint16_t app, uint32_t category = 0, uint32_t state = 0);

}  // namespace pelda_stub
