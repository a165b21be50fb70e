// A scripted libzmq (built as libzmq.so, which the library's run-time load finds) for export tests.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace fake_zmq {

struct Message {
    std::vector<uint8_t> header, payload;
};

struct State {
    // The call that fails: "zmq_ctx_new", "zmq_socket", "zmq_curve_keypair" or "zmq_setsockopt".
    std::string fail;
    std::vector<Message> messages;  // sent
    int contexts = 0, sockets = 0, closed = 0, destroyed = 0;
    // Subscriptions each new socket reports ("\x01flow": a collector listens to flow records).
    std::vector<std::string> subscriptions = {"\1flow", "\1event"};
    size_t subscriptions_read = 0;
    int refuse_sends = 0;  // sends refused with EAGAIN (a collector's queue is full), -1 always
};

State &state();

}  // namespace fake_zmq
