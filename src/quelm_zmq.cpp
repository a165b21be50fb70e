// ZeroMQ transport. libzmq is opened at run time, and only when export is configured, so that the
// library links against libc alone; a failed load is final for the process.
#include "quelm_zmq.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

namespace {

// libzmq's public constants.
constexpr int kZmqPub = 1, kZmqSndMore = 2, kZmqSndBuf = 11, kZmqSndHwm = 23,
              kZmqCurvePublicKey = 48, kZmqCurveSecretKey = 49, kZmqCurveServerKey = 50;
constexpr int kSendBufferBytes = 8 * 1024 * 1024;
constexpr size_t kZ85KeyLen = 40;
// How much of a payload a send-error message shows.
constexpr uint16_t kShownPayload = 256;

struct ZmqFunction {
    const char *name;
    void *ptr;
};

// Filled once by zmq_lib_init, in this order.
ZmqFunction zmq_function_ptr[] = {{"zmq_ctx_new", nullptr},       {"zmq_socket", nullptr},
                                  {"zmq_curve_keypair", nullptr}, {"zmq_setsockopt", nullptr},
                                  {"zmq_connect", nullptr},       {"zmq_bind", nullptr},
                                  {"zmq_send", nullptr},          {"zmq_close", nullptr},
                                  {"zmq_ctx_destroy", nullptr},   {nullptr, nullptr}};
int initialized = 0;  // 0 not tried, 1 loaded, -1 failed for good

enum Fn {
    ctx_new,
    socket_fn,
    curve_keypair,
    setsockopt_fn,
    connect_fn,
    bind_fn,
    send_fn,
    close_fn,
    ctx_destroy
};

template <typename F>
F fn(Fn which) {
    return reinterpret_cast<F>(zmq_function_ptr[which].ptr);
}

const char *topic_text(uint32_t topic) {
    static constexpr const char *kTopics[] = {quelm::wire::kTopicFlow, quelm::wire::kTopicEvent,
                                              "counter", "index"};
    return topic < sizeof kTopics / sizeof kTopics[0] ? kTopics[topic] : "";
}

int setopt(quelm_zmq *zmq, int option, const void *value, size_t len) {
    return fn<int (*)(void *, int, const void *, size_t)>(setsockopt_fn)(zmq->socket, option, value,
                                                                         len);
}

// Releases what a failed start made, so that a later configuration starts clean.
int fail(quelm_zmq *zmq, int result) {
    quelm_zmq_close(zmq);
    return result;
}

}  // namespace

int zmq_lib_init(void) {
    if (initialized != 0) return initialized;
    void *lib = nullptr;
    static constexpr const char *kNames[] = {"libzmq.so", "libzmq.so.5", "libzmq.so.4"};
    for (const char *name : kNames)
        if ((lib = dlopen(name, RTLD_LAZY)) != nullptr) break;
    if (lib == nullptr) {
        printf("*** libzmq not found, please install it ***\n");
        return initialized = -1;
    }
    for (ZmqFunction *f = zmq_function_ptr; f->name != nullptr; f++) {
        f->ptr = dlsym(lib, f->name);
        if (f->ptr == nullptr) {
            printf("*** %s not found ***\n", f->name);
            return initialized = -1;
        }
    }
    return initialized = 1;
}

int quelm_zmq_init(quelm_zmq *zmq, uint32_t send_high_water) {
    if (zmq_lib_init() != 1) {
        fprintf(stderr, "*** zmq not found or missing symbols ***\n");
        return -1;
    }
    if (zmq->endpoint == nullptr) return 0;
    if (!zmq->lock_ready) {
        pthread_rwlock_init(&zmq->lock, nullptr);
        zmq->lock_ready = 1;
    }
    zmq->context = fn<void *(*)()>(ctx_new)();
    if (zmq->context == nullptr) {
        fprintf(stderr, "Unable to initialize ZMQ %s (context)", zmq->endpoint);
        return -1;
    }
    zmq->socket = fn<void *(*)(void *, int)>(socket_fn)(zmq->context, kZmqPub);
    if (zmq->socket == nullptr) {
        fprintf(stderr, "Unable to initialize ZMQ %s (publisher)", zmq->endpoint);
        return fail(zmq, -2);
    }
    if (zmq->server_public_key != nullptr) {
        // The configured client key pair, else a fresh one at every start that is not kept.
        char client_public[41], client_secret[41];
        if (zmq->client_public_key[0] != '\0') {
            memcpy(client_public, zmq->client_public_key, sizeof client_public);
            memcpy(client_secret, zmq->client_secret_key, sizeof client_secret);
        } else if (fn<int (*)(char *, char *)>(curve_keypair)(client_public, client_secret) != 0) {
            fprintf(stderr, "Error generating ZMQ client key pair");
            return fail(zmq, -3);
        }
        const size_t key_len = strlen(zmq->server_public_key);
        if (key_len != kZ85KeyLen) {
            fprintf(stderr, "Bad ZMQ server public key size (%lu != 40) '%s'",
                    (unsigned long)key_len, zmq->server_public_key);
            return fail(zmq, -3);
        }
        if (setopt(zmq, kZmqCurveServerKey, zmq->server_public_key, kZ85KeyLen + 1) != 0) {
            fprintf(stderr, "Error setting ZMQ_CURVE_SERVERKEY = %s (%d)", zmq->server_public_key,
                    errno);
            return fail(zmq, -3);
        }
        if (setopt(zmq, kZmqCurvePublicKey, client_public, strlen(client_public) + 1) != 0) {
            fprintf(stderr, "Error setting ZMQ_CURVE_PUBLICKEY = %s", client_public);
            return fail(zmq, -3);
        }
        if (setopt(zmq, kZmqCurveSecretKey, client_secret, strlen(client_secret) + 1) != 0) {
            fprintf(stderr, "Error setting ZMQ_CURVE_SECRETKEY = %s", client_secret);
            return fail(zmq, -3);
        }
    }
    const int hwm = int(send_high_water);
    setopt(zmq, kZmqSndHwm, &hwm, sizeof hwm);
    if (zmq->connect_mode) {
        const int bytes = kSendBufferBytes;
        if (setopt(zmq, kZmqSndBuf, &bytes, sizeof bytes) != 0)
            fprintf(stderr, "ZMQ set sending buffer failed");
    }
    char *list = strdup(zmq->endpoint);
    if (list == nullptr) return fail(zmq, -1);
    char *save = nullptr;
    for (char *ep = strtok_r(list, ",", &save); ep != nullptr; ep = strtok_r(nullptr, ",", &save)) {
        if (zmq->connect_mode) {
            if (fn<int (*)(void *, const char *)>(connect_fn)(zmq->socket, ep) != 0)
                fprintf(stderr, "Unable to export flows towards ZMQ endpoint %s: %s", ep,
                        strerror(errno));
        } else if (fn<int (*)(void *, const char *)>(bind_fn)(zmq->socket, ep) != 0) {
            fprintf(stderr, "Unable to bind ZMQ endpoint %s: %s", ep, strerror(errno));
        }
    }
    free(list);
    return 0;
}

int quelm_zmq_send(quelm_zmq *zmq, const void *payload, uint16_t size, uint32_t topic,
                   uint8_t version) {
    if (zmq->socket == nullptr) return 0;
    quelm_zmq_header header{};
    strncpy(header.topic, topic_text(topic), sizeof header.topic - 1);
    header.version = version;
    auto send = fn<int (*)(void *, const void *, size_t, int)>(send_fn);

    pthread_rwlock_wrlock(&zmq->lock);
    header.size = size;
    header.msg_id = htonl(zmq->msg_id);
    errno = 0;
    send(zmq->socket, &header, sizeof header, kZmqSndMore);
    const int rc = send(zmq->socket, payload, size, 0);
    const int err = errno;
    if (rc != -1) zmq->msg_id++;
    pthread_rwlock_unlock(&zmq->lock);

    if (rc < 1) fprintf(stderr, "rc=%d - errno=%d/%s", rc, err, strerror(err));
    if (rc == -1) {
        // The payload may be binary and has no terminator: show a bounded, printable part.
        char shown[kShownPayload + 1];
        const uint16_t n = size < kShownPayload ? size : kShownPayload;
        for (uint16_t i = 0; i < n; i++) {
            const char c = static_cast<const char *>(payload)[i];
            shown[i] = (c >= 0x20 && c < 0x7F) ? c : '.';
        }
        shown[n] = '\0';
        fprintf(stderr, "[ZMQ] Send error [%s] %s", header.topic, shown);
        return 0;
    }
    return 1;
}

void quelm_zmq_close(quelm_zmq *zmq) {
    if (zmq->socket != nullptr) fn<int (*)(void *)>(close_fn)(zmq->socket);
    if (zmq->context != nullptr) fn<int (*)(void *)>(ctx_destroy)(zmq->context);
    zmq->socket = nullptr;
    zmq->context = nullptr;
}
