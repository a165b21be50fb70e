// A scripted libzmq for export tests: built as a library named libzmq.so, so that the library's
// run-time load finds it, and linked into the test so the test can script it and read what was
// sent.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace fake_zmq {

struct Message {
    std::vector<uint8_t> header, payload;
};

struct State {
    // Scripted failures.
    bool fail_context = false, fail_socket = false, fail_keypair = false;
    std::map<int, bool> fail_option;  // socket option number -> fail
    int fail_sends_after = -1;        // payload sends that succeed before every later one fails
    // What the library did.
    std::vector<std::string> connected, bound;
    std::map<int, std::string> options;
    std::vector<Message> messages;
    int payload_sends = 0;
    int contexts = 0, sockets = 0, closed = 0, destroyed = 0;
    std::vector<uint8_t> pending_header;
};

State &state();
void reset();

}  // namespace fake_zmq
