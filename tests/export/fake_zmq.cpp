#include "fake_zmq.h"

#include <errno.h>
#include <string.h>

namespace fake_zmq {
namespace {
State g_state;
int g_token;
std::vector<uint8_t> g_header;  // first part of the message being sent
}  // namespace
State &state() {
    return g_state;
}
void reset() {
    g_state = State{};
}
}  // namespace fake_zmq

using fake_zmq::g_state;

#define FAKE_API extern "C" __attribute__((visibility("default")))

FAKE_API void *zmq_ctx_new() {
    if (g_state.fail == "zmq_ctx_new") return nullptr;
    g_state.contexts++;
    return &fake_zmq::g_token;
}
FAKE_API void *zmq_socket(void *, int) {
    if (g_state.fail == "zmq_socket") return nullptr;
    g_state.sockets++;
    return &fake_zmq::g_token;
}
FAKE_API int zmq_curve_keypair(char *pub, char *secret) {
    memset(pub, 'P', 41);
    memset(secret, 'S', 41);
    pub[40] = secret[40] = '\0';
    return g_state.fail == "zmq_curve_keypair" ? -1 : 0;
}
FAKE_API int zmq_setsockopt(void *, int, const void *, size_t) {
    return g_state.fail == "zmq_setsockopt" ? (errno = EINVAL, -1) : 0;
}
FAKE_API int zmq_connect(void *, const char *) {
    return 0;
}
FAKE_API int zmq_bind(void *, const char *) {
    return 0;
}
FAKE_API int zmq_send(void *, const void *buf, size_t len, int flags) {
    const auto *p = static_cast<const uint8_t *>(buf);
    if (flags == 2)  // ZMQ_SNDMORE: the header
        fake_zmq::g_header.assign(p, p + len);
    else if (g_state.fail == "zmq_send")
        return errno = EAGAIN, -1;
    else
        g_state.messages.push_back({fake_zmq::g_header, std::vector<uint8_t>(p, p + len)});
    return int(len);
}
FAKE_API int zmq_close(void *) {
    return ++g_state.closed, 0;
}
FAKE_API int zmq_ctx_destroy(void *) {
    return ++g_state.destroyed, 0;
}
