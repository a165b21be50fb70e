// ZeroMQ transport: libzmq loaded at run time, one CURVE-client XPUB socket per table, two-part
// messages made of a 24-byte header and the payload.
//
// Nothing leaves unseen: the socket refuses a message (instead of dropping it) while a collector's
// queue is full, and a message is only offered while some collector subscribes to its topic, so
// the caller always knows whether a message went out. A monitor socket reports connections and
// handshakes.
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
    void *monitor;            // PAIR socket receiving `socket`'s events
    char *server_public_key;  // collector's CURVE public key, Z85 (owned)
    uint8_t lock_ready;       // `lock` has been initialised
    // The exporter's own key pair, Z85 (both set or both empty: a fresh pair per start).
    char client_public_key[41], client_secret_key[41];
    // What the socket monitor reported.
    uint32_t connections, handshakes, refused_auth, refused_protocol, disconnections;
    uint8_t subscribed;         // some collector subscribes to flow records
    uint8_t subscribed_events;  // ... and to statistics records
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

// 1 when libzmq and the functions used here are usable, -1 otherwise (decided once per process).
int zmq_lib_init(void);
// 0 on success (or when no endpoint is set), -1 no libzmq or context, -2 socket, -3 CURVE.
// `send_high_water`: messages the socket may hold for a collector before it refuses more;
// `linger_msec`: how long closing may wait for messages still queued.
int quelm_zmq_init(quelm_zmq *zmq, uint32_t send_high_water, uint32_t linger_msec);
// 1 sent; 0 not now (nobody subscribes to the topic, or a collector's queue is full: try again
// later); -1 libzmq failed (said on standard error). Never waits.
int quelm_zmq_send(quelm_zmq *zmq, const void *payload, uint16_t size, uint32_t topic,
                   uint8_t version);
// Takes in what the socket reported (subscriptions, connections, handshakes). Never waits.
void quelm_zmq_read_events(quelm_zmq *zmq);
// Waits up to `msec` for something to report, then takes it in.
void quelm_zmq_wait(quelm_zmq *zmq, uint32_t msec);
void quelm_zmq_close(quelm_zmq *zmq);
