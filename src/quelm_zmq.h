// ZeroMQ transport: libzmq loaded at run time, one CURVE-client PUB socket per table, two-part
// messages made of a 24-byte header and the payload.
#pragma once

#include <pthread.h>

#include "quelm.h"
#include "quelm_wire.h"

struct quelm_zmq {
    uint8_t connect_mode;   // connect to every endpoint (collectors bind); else bind
    uint8_t reserved;       // kept as configured, never read
    uint32_t msg_id;        // messages sent so far; carried in every header
    pthread_rwlock_t lock;  // taken for writing around each message
    char *endpoint;         // comma-separated endpoint list (owned)
    void *context;
    void *socket;
    char *server_public_key;  // collector's CURVE public key, Z85 (owned)
    uint8_t lock_ready;       // `lock` has been initialised
    // The exporter's own key pair, Z85 (both set or both empty: a fresh pair per start).
    char client_public_key[41], client_secret_key[41];
    // What the socket monitor reported, and the collectors subscribed now.
    uint32_t connections, handshakes, refused_auth, refused_protocol, disconnections;
    uint32_t subscribers;
};

// First part of every message.
struct quelm_zmq_header {
    char topic[16];   // "flow", "event", "counter", "index", zero-filled
    uint8_t version;  // payload format: 2 JSON, 3 TLV
    uint8_t pad;
    uint16_t size;    // payload length, host order
    uint32_t msg_id;  // big-endian
};
static_assert(sizeof(quelm_zmq_header) == quelm::wire::kHeaderLen);

inline constexpr uint32_t QUELM_ZMQ_TOPIC_FLOW = 0, QUELM_ZMQ_TOPIC_EVENT = 1;
inline constexpr uint8_t QUELM_ZMQ_VERSION_JSON = quelm::wire::kVersionJson,
                         QUELM_ZMQ_VERSION_TLV = quelm::wire::kVersionTlv;

// 1 when libzmq and its nine functions are usable, -1 otherwise (decided once per process).
int zmq_lib_init(void);
// 0 on success (or when no endpoint is set), -1 no libzmq or context, -2 socket, -3 CURVE.
// `send_high_water`: messages the socket may hold for a subscriber before libzmq drops.
int quelm_zmq_init(quelm_zmq *zmq, uint32_t send_high_water);
// 1 when handed to libzmq, 0 when the payload part failed.
int quelm_zmq_send(quelm_zmq *zmq, const void *payload, uint16_t size, uint32_t topic,
                   uint8_t version);
void quelm_zmq_close(quelm_zmq *zmq);
