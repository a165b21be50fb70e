// libzmq, opened at run time: only the commands that talk to collectors need it (keygen, collect,
// and flows with --zmq), so everything else runs on a machine without it, as the library does.
#pragma once

#include <zmq.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace quelm_tool {

struct ZmqApi {
    void *(*ctx_new)();
    int (*ctx_term)(void *context);
    void *(*socket)(void *context, int type);
    int (*close)(void *socket);
    int (*setsockopt)(void *socket, int option, const void *value, size_t len);
    int (*getsockopt)(void *socket, int option, void *value, size_t *len);
    int (*bind)(void *socket, const char *endpoint);
    int (*connect)(void *socket, const char *endpoint);
    int (*msg_init)(zmq_msg_t *msg);
    int (*msg_recv)(zmq_msg_t *msg, void *socket, int flags);
    void *(*msg_data)(zmq_msg_t *msg);
    size_t (*msg_size)(const zmq_msg_t *msg);
    int (*msg_more)(const zmq_msg_t *msg);
    int (*msg_close)(zmq_msg_t *msg);
    const char *(*msg_gets)(const zmq_msg_t *msg, const char *property);
    int (*send)(void *socket, const void *data, size_t len, int flags);
    int (*poll)(zmq_pollitem_t *items, int count, long timeout_ms);
    int (*curve_keypair)(char *public_key, char *secret_key);
    int (*curve_public)(char *public_key, const char *secret_key);
    uint8_t *(*z85_decode)(uint8_t *dest, const char *text);
    char *(*z85_encode)(char *dest, const uint8_t *data, size_t size);
    int (*errno_value)();
    const char *(*strerror)(int error);
};

// The loaded library, or null with a message saying what to install. Loaded once per process.
const ZmqApi *load_zmq(std::string *error);

// True when `key` is 40 characters of Z85 that decode to a 32-byte CURVE key.
bool is_z85_key(const ZmqApi &zmq, const std::string &key);

}  // namespace quelm_tool
