// Where packets come from: capture files ("-" for standard input) and live interfaces. Live
// captures and pcap files go through libpcap, which also applies their BPF filter; pcapng files,
// whose interfaces may differ in link type, through PcapngReader, and their filter is the caller's
// to apply per link type.
#pragma once

#include <pcap/pcap.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "pcapng_reader.h"

namespace quelm_tool {

// One interface packets were captured on.
struct CaptureInterface {
    int link_type;     // by libpcap's numbers (as pcap_datalink reports them)
    uint32_t snaplen;  // 0: no limit
    uint32_t fcs_len;  // bytes of frame check sequence that end every frame
};

class PacketSource {
  public:
    ~PacketSource();
    PacketSource(const PacketSource &) = delete;
    PacketSource &operator=(const PacketSource &) = delete;

    // Opens a capture file ("-": standard input). On failure returns null, sets `error` and
    // `exit_code`: 66 when the file cannot be opened, 65 when it is not a capture quelm reads.
    static std::unique_ptr<PacketSource> open_file(const std::string &path, std::string *error,
                                                   int *exit_code);
    // Opens and activates a live capture on `interface` (66 on failure).
    static std::unique_ptr<PacketSource> open_live(const std::string &interface, std::string *error,
                                                   int *exit_code);

    // Not pcapng: compiles and installs a BPF filter; false with a message when it does not
    // compile.
    bool set_filter(const std::string &expression, std::string *error);
    // A filter compiled for `link_type`, for pcap_offline_filter; false with a message when it
    // does not compile.
    static bool compile_filter(const std::string &expression, int link_type, bpf_program *program,
                               std::string *error);

    // Receives each packet with the index of its interface.
    using Take = void (*)(void *user, uint32_t interface, const pcap_pkthdr &header,
                          const u_char *data);
    enum class Read {
        kPackets,     // some were read
        kInterfaces,  // pcapng: interfaces() changed (packets before the change were read)
        kEnd,
        kStopped,  // a stop signal
        kDamaged,  // error() says how
    };
    // Reads up to `max` packets of a file: for a pcap file those that pass the filter, for a
    // pcapng file every one.
    Read read(int max, Take take, void *user);
    const std::string &error() const { return error_; }

    // The interfaces of the section being read (one for pcap files and live captures).
    const std::vector<CaptureInterface> &interfaces() const { return interfaces_; }
    // Counts sections: interfaces() starts afresh when it changes.
    uint64_t section() const { return section_; }

    // Null for a pcapng file.
    pcap_t *handle() const { return pcap_; }
    bool pcapng() const { return pcapng_ != nullptr; }
    bool live() const { return live_; }
    const std::string &name() const { return name_; }
    // Share of the file read so far, or -1 when unknown (pipes, live capture).
    double fraction_read() const;

  private:
    PacketSource(std::string name, bool live) : name_(std::move(name)), live_(live) {}
    Read read_pcapng(int max, Take take, void *user);

    pcap_t *pcap_ = nullptr;
    FILE *file_ = nullptr;  // of a capture file; closed by pcap_close for a pcap file
    std::unique_ptr<PcapngReader> pcapng_;
    std::string name_;
    bool live_;
    long long size_ = -1;  // bytes of a regular file, else -1
    std::vector<CaptureInterface> interfaces_;
    uint64_t section_ = 0;
    std::string error_;
    std::unique_ptr<char[]> file_buffer_;  // stdio buffer of the file; freed after it is closed
};

}  // namespace quelm_tool
