#include "fake_zmq.h"

#include <errno.h>
#include <string.h>

namespace fake_zmq {
namespace {
State g_state;
int g_token;
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
    if (g_state.fail_context) return nullptr;
    g_state.contexts++;
    return &fake_zmq::g_token;
}

FAKE_API void *zmq_socket(void *, int type) {
    if (g_state.fail_socket || type != 1) return nullptr;
    g_state.sockets++;
    return &fake_zmq::g_token;
}

FAKE_API int zmq_curve_keypair(char *pub, char *secret) {
    if (g_state.fail_keypair) return -1;
    memset(pub, 'P', 40);
    pub[40] = '\0';
    memset(secret, 'S', 40);
    secret[40] = '\0';
    return 0;
}

FAKE_API int zmq_setsockopt(void *, int option, const void *value, size_t len) {
    if (g_state.fail_option[option]) {
        errno = EINVAL;
        return -1;
    }
    g_state.options[option] = std::string(static_cast<const char *>(value), len);
    return 0;
}

FAKE_API int zmq_connect(void *, const char *ep) {
    g_state.connected.push_back(ep);
    return strstr(ep, "bad") != nullptr ? (errno = EINVAL, -1) : 0;
}

FAKE_API int zmq_bind(void *, const char *ep) {
    g_state.bound.push_back(ep);
    return strstr(ep, "bad") != nullptr ? (errno = EADDRINUSE, -1) : 0;
}

FAKE_API int zmq_send(void *, const void *buf, size_t len, int flags) {
    const auto *p = static_cast<const uint8_t *>(buf);
    if (flags == 2) {  // first part
        g_state.pending_header.assign(p, p + len);
        return int(len);
    }
    if (g_state.fail_sends_after >= 0 && g_state.payload_sends >= g_state.fail_sends_after) {
        errno = EAGAIN;
        return -1;
    }
    g_state.payload_sends++;
    g_state.messages.push_back({g_state.pending_header, std::vector<uint8_t>(p, p + len)});
    return int(len);
}

FAKE_API int zmq_close(void *) {
    return ++g_state.closed, 0;
}
FAKE_API int zmq_ctx_destroy(void *) {
    return ++g_state.destroyed, 0;
}
