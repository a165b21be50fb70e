#include "fake_zmq.h"

#include <errno.h>
#include <string.h>

static fake_zmq::State g_state;

fake_zmq::State &fake_zmq::state() {
    return g_state;
}

#define FAKE_API extern "C" __attribute__((visibility("default")))

FAKE_API void *zmq_ctx_new() {
    return g_state.fail == "zmq_ctx_new" ? nullptr : (g_state.contexts++, &g_state);
}
FAKE_API void *zmq_socket(void *, int) {
    g_state.subscriptions_read = 0;
    return g_state.fail == "zmq_socket" ? nullptr : (g_state.sockets++, &g_state);
}
FAKE_API int zmq_socket_monitor(void *, const char *, int) {
    return -1;
}
FAKE_API int zmq_recv(void *, void *buf, size_t len, int) {
    if (g_state.subscriptions_read == g_state.subscriptions.size()) return errno = EAGAIN, -1;
    const std::string &s = g_state.subscriptions[g_state.subscriptions_read++];
    memcpy(buf, s.data(), s.size() < len ? s.size() : len);
    return int(s.size());
}
FAKE_API int zmq_poll(void *, int, long) {
    return 0;
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
    if ((flags & 2) && g_state.refuse_sends != 0) {
        if (g_state.refuse_sends > 0) g_state.refuse_sends--;
        return errno = EAGAIN, -1;
    }
    if (flags & 2) return g_state.messages.push_back({{p, p + len}, {}}), int(len);  // the header
    g_state.messages.back().payload.assign(p, p + len);
    return int(len);
}
FAKE_API int zmq_close(void *) {
    return ++g_state.closed, 0;
}
FAKE_API int zmq_ctx_destroy(void *) {
    return ++g_state.destroyed, 0;
}
