#include "zmq_api.h"

#include <dlfcn.h>
#include <unistd.h>


namespace quelm_tool {
namespace {

template <typename F>
bool bind_symbol(void *lib, const char *name, F *target, std::string *missing) {
    *target = reinterpret_cast<F>(dlsym(lib, name));
    if (*target == nullptr) *missing += std::string(missing->empty() ? "" : ", ") + name;
    return *target != nullptr;
}

}  // namespace

const ZmqApi *load_zmq(std::string *error) {
    static ZmqApi api;
    static int state = 0;  // 0 not tried, 1 loaded, -1 failed
    static std::string failure;
    if (state == 0) {
        void *lib = nullptr;
        for (const char *name : {"libzmq.so.5", "libzmq.so"})
            if ((lib = dlopen(name, RTLD_NOW | RTLD_LOCAL)) != nullptr) break;
        if (lib == nullptr) {
            failure = "libzmq is not installed (or cannot be loaded: " + std::string(dlerror()) +
                      "); install it (Debian: apt-get install libzmq5)";
            state = -1;
        } else {
            std::string missing;
            bind_symbol(lib, "zmq_ctx_new", &api.ctx_new, &missing);
            bind_symbol(lib, "zmq_ctx_term", &api.ctx_term, &missing);
            bind_symbol(lib, "zmq_socket", &api.socket, &missing);
            bind_symbol(lib, "zmq_close", &api.close, &missing);
            bind_symbol(lib, "zmq_setsockopt", &api.setsockopt, &missing);
            bind_symbol(lib, "zmq_getsockopt", &api.getsockopt, &missing);
            bind_symbol(lib, "zmq_bind", &api.bind, &missing);
            bind_symbol(lib, "zmq_connect", &api.connect, &missing);
            bind_symbol(lib, "zmq_msg_init", &api.msg_init, &missing);
            bind_symbol(lib, "zmq_msg_recv", &api.msg_recv, &missing);
            bind_symbol(lib, "zmq_msg_data", &api.msg_data, &missing);
            bind_symbol(lib, "zmq_msg_size", &api.msg_size, &missing);
            bind_symbol(lib, "zmq_msg_more", &api.msg_more, &missing);
            bind_symbol(lib, "zmq_msg_close", &api.msg_close, &missing);
            bind_symbol(lib, "zmq_msg_gets", &api.msg_gets, &missing);
            bind_symbol(lib, "zmq_send", &api.send, &missing);
            bind_symbol(lib, "zmq_poll", &api.poll, &missing);
            bind_symbol(lib, "zmq_curve_keypair", &api.curve_keypair, &missing);
            bind_symbol(lib, "zmq_curve_public", &api.curve_public, &missing);
            bind_symbol(lib, "zmq_z85_decode", &api.z85_decode, &missing);
            bind_symbol(lib, "zmq_z85_encode", &api.z85_encode, &missing);
            bind_symbol(lib, "zmq_errno", &api.errno_value, &missing);
            bind_symbol(lib, "zmq_strerror", &api.strerror, &missing);
            if (missing.empty()) {
                state = 1;
            } else {
                failure = "the installed libzmq lacks " + missing + "; install libzmq 4.3 or later";
                state = -1;
            }
        }
    }
    if (state != 1) {
        *error = failure;
        return nullptr;
    }
    return &api;
}

bool is_z85_key(const ZmqApi &zmq, const std::string &key) {
    uint8_t decoded[32];
    return key.size() == 40 && zmq.z85_decode(decoded, key.c_str()) != nullptr;
}

}  // namespace quelm_tool
