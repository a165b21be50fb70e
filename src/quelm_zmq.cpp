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
constexpr int kZmqPair = 0, kZmqXpub = 9, kZmqDontWait = 1, kZmqSndMore = 2, kZmqSndBuf = 11,
              kZmqLinger = 17, kZmqSndHwm = 23, kZmqCurvePublicKey = 48, kZmqCurveSecretKey = 49,
              kZmqCurveServerKey = 50, kZmqXpubNoDrop = 69, kZmqPollIn = 1;
constexpr int kEventConnected = 0x0001, kEventAccepted = 0x0020, kEventDisconnected = 0x0200,
              kEventHandshakeFailedNoDetail = 0x0800, kEventHandshakeSucceeded = 0x1000,
              kEventHandshakeFailedProtocol = 0x2000, kEventHandshakeFailedAuth = 0x4000;
constexpr int kWatchedEvents = kEventConnected | kEventAccepted | kEventDisconnected |
                               kEventHandshakeFailedNoDetail | kEventHandshakeSucceeded |
                               kEventHandshakeFailedProtocol | kEventHandshakeFailedAuth;

// libzmq's poll item.
struct ZmqPollItem {
    void *socket;
    int fd;
    short events, revents;
};
constexpr int kSendBufferBytes = 8 * 1024 * 1024;
constexpr size_t kZ85KeyLen = 40;
// Messages sent between two readings of subscriptions and socket events.
constexpr uint32_t kEventsEvery = 64;
// How much of a payload a send-error message shows.
constexpr uint16_t kShownPayload = 256;

struct ZmqFunction {
    const char *name;
    void *ptr;
};

// Filled once by zmq_lib_init, in this order.
ZmqFunction zmq_function_ptr[] = {
    {"zmq_ctx_new", nullptr},    {"zmq_socket", nullptr},  {"zmq_curve_keypair", nullptr},
    {"zmq_setsockopt", nullptr}, {"zmq_connect", nullptr}, {"zmq_bind", nullptr},
    {"zmq_send", nullptr},       {"zmq_close", nullptr},   {"zmq_ctx_destroy", nullptr},
    {"zmq_recv", nullptr},       {"zmq_poll", nullptr},    {"zmq_socket_monitor", nullptr},
    {nullptr, nullptr}};
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
    ctx_destroy,
    recv_fn,
    poll_fn,
    socket_monitor
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

int receive(void *socket, void *buf, size_t len) {
    return fn<int (*)(void *, void *, size_t, int)>(recv_fn)(socket, buf, len, kZmqDontWait);
}

// A monitor socket on `zmq->socket`; without one the counters stay at 0 and export still works.
void watch(quelm_zmq *zmq) {
    char endpoint[64];
    snprintf(endpoint, sizeof endpoint, "inproc://quelm-monitor-%p", static_cast<void *>(zmq));
    if (fn<int (*)(void *, const char *, int)>(socket_monitor)(zmq->socket, endpoint,
                                                               kWatchedEvents) != 0)
        return;
    zmq->monitor = fn<void *(*)(void *, int)>(socket_fn)(zmq->context, kZmqPair);
    if (zmq->monitor != nullptr &&
        fn<int (*)(void *, const char *)>(connect_fn)(zmq->monitor, endpoint) != 0) {
        fn<int (*)(void *)>(close_fn)(zmq->monitor);
        zmq->monitor = nullptr;
    }
}

void count_event(quelm_zmq *zmq, uint16_t event) {
    switch (event) {
        case kEventConnected:
        case kEventAccepted:
            zmq->connections++;
            break;
        case kEventDisconnected:
            zmq->disconnections++;
            break;
        case kEventHandshakeSucceeded:
            zmq->handshakes++;
            break;
        case kEventHandshakeFailedAuth:
            zmq->refused_auth++;
            break;
        case kEventHandshakeFailedProtocol:
        case kEventHandshakeFailedNoDetail:
            zmq->refused_protocol++;
            break;
        default:
            break;
    }
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

int quelm_zmq_init(quelm_zmq *zmq, uint32_t send_high_water, uint32_t linger_msec) {
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
    zmq->socket = fn<void *(*)(void *, int)>(socket_fn)(zmq->context, kZmqXpub);
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
    const int hwm = int(send_high_water), no_drop = 1,
              linger = linger_msec > INT32_MAX ? INT32_MAX : int(linger_msec);
    setopt(zmq, kZmqSndHwm, &hwm, sizeof hwm);
    setopt(zmq, kZmqXpubNoDrop, &no_drop, sizeof no_drop);
    setopt(zmq, kZmqLinger, &linger, sizeof linger);
    zmq->subscribed = zmq->subscribed_events = 0;
    watch(zmq);
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
    if (zmq->socket == nullptr) return -1;
    // Reading the socket's reports costs a system call or two: before every send while nobody
    // subscribes, else once per kEventsEvery messages.
    uint8_t &listening = topic == QUELM_ZMQ_TOPIC_FLOW ? zmq->subscribed : zmq->subscribed_events;
    if (!listening || zmq->msg_id % kEventsEvery == 0) quelm_zmq_read_events(zmq);
    // The socket would take a message nobody subscribes to and drop it.
    if (!listening) return 0;
    quelm_zmq_header header{};
    strncpy(header.topic, topic_text(topic), sizeof header.topic - 1);
    header.version = version;
    auto send = fn<int (*)(void *, const void *, size_t, int)>(send_fn);

    pthread_rwlock_wrlock(&zmq->lock);
    header.size = size;
    header.msg_id = htonl(zmq->msg_id);
    // A full queue refuses the first part; once it is taken, the last part is taken too.
    int rc = send(zmq->socket, &header, sizeof header, kZmqSndMore | kZmqDontWait);
    int err = errno;
    if (rc != -1) {
        rc = send(zmq->socket, payload, size, kZmqDontWait);
        err = errno;
    }
    if (rc != -1) zmq->msg_id++;
    pthread_rwlock_unlock(&zmq->lock);

    if (rc != -1) return 1;
    if (err == EAGAIN) return 0;
    // The payload may be binary and has no terminator: show a bounded, printable part.
    char shown[kShownPayload + 1];
    const uint16_t n = size < kShownPayload ? size : kShownPayload;
    for (uint16_t i = 0; i < n; i++) {
        const char c = static_cast<const char *>(payload)[i];
        shown[i] = (c >= 0x20 && c < 0x7F) ? c : '.';
    }
    shown[n] = '\0';
    fprintf(stderr, "[ZMQ] Send error [%s] %s: %s\n", header.topic, shown, strerror(err));
    return -1;
}

void quelm_zmq_read_events(quelm_zmq *zmq) {
    if (zmq->socket == nullptr) return;
    // Subscriptions: 1 or 0, then the topic. The socket passes on the first subscriber of a topic
    // and the last one leaving it, so these are exactly "somebody listens" changes.
    uint8_t sub[1 + sizeof(quelm_zmq_header::topic)];
    int n;
    while ((n = receive(zmq->socket, sub, sizeof sub)) > 0) {
        const size_t len = size_t(n) < sizeof sub ? size_t(n) : sizeof sub;
        const char *topic = reinterpret_cast<const char *>(sub + 1);
        const bool on = sub[0] == 1;
        if (len - 1 <= strlen(quelm::wire::kTopicFlow) &&
            strncmp(topic, quelm::wire::kTopicFlow, len - 1) == 0)
            zmq->subscribed = on;
        if (len - 1 <= strlen(quelm::wire::kTopicEvent) &&
            strncmp(topic, quelm::wire::kTopicEvent, len - 1) == 0)
            zmq->subscribed_events = on;
    }
    // Monitor events: a 6-byte part (event, value), then the endpoint.
    uint8_t event[6];
    char endpoint[256];
    while (zmq->monitor != nullptr && receive(zmq->monitor, event, sizeof event) >= 2) {
        receive(zmq->monitor, endpoint, sizeof endpoint);
        uint16_t id;
        memcpy(&id, event, sizeof id);
        count_event(zmq, id);
    }
}

void quelm_zmq_wait(quelm_zmq *zmq, uint32_t msec) {
    if (zmq->socket == nullptr) return;
    ZmqPollItem items[2] = {{zmq->socket, 0, kZmqPollIn, 0}, {zmq->monitor, 0, kZmqPollIn, 0}};
    fn<int (*)(ZmqPollItem *, int, long)>(poll_fn)(items, zmq->monitor != nullptr ? 2 : 1,
                                                   long(msec));
    quelm_zmq_read_events(zmq);
}

void quelm_zmq_close(quelm_zmq *zmq) {
    quelm_zmq_read_events(zmq);
    if (zmq->monitor != nullptr) fn<int (*)(void *)>(close_fn)(zmq->monitor);
    if (zmq->socket != nullptr) fn<int (*)(void *)>(close_fn)(zmq->socket);
    if (zmq->context != nullptr) fn<int (*)(void *)>(ctx_destroy)(zmq->context);
    zmq->monitor = nullptr;
    zmq->socket = nullptr;
    zmq->context = nullptr;
}
