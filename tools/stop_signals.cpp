#include "stop_signals.h"

#include <atomic>
#include <csignal>

namespace quelm_tool {
namespace {

volatile std::sig_atomic_t g_stop = 0;
std::atomic<pcap_t *> g_active{nullptr};
static_assert(std::atomic<pcap_t *>::is_always_lock_free, "used from a signal handler");

extern "C" void on_stop_signal(int) {
    g_stop = 1;
    // pcap_breakloop only sets a flag in the handle (and wakes a poll), so it is safe here.
    pcap_t *pcap = g_active.load();
    if (pcap != nullptr) pcap_breakloop(pcap);
}

}  // namespace

void install_stop_handlers() {
    struct sigaction action = {};
    action.sa_handler = on_stop_signal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;  // no SA_RESTART: a blocking poll returns at once with EINTR
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

bool stop_requested() {
    return g_stop != 0;
}

void set_active_capture(pcap_t *pcap) {
    g_active.store(pcap);
}

}  // namespace quelm_tool
