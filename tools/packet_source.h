// Where packets come from: capture files (pcap or pcapng, "-" for standard input) and live
// interfaces, both through libpcap, with an optional BPF filter.
#pragma once

#include <pcap/pcap.h>

#include <memory>
#include <string>

namespace quelm_tool {

class PacketSource {
  public:
    ~PacketSource();
    PacketSource(const PacketSource &) = delete;
    PacketSource &operator=(const PacketSource &) = delete;

    // Opens a capture file ("-": standard input). On failure returns null, sets `error` and
    // `exit_code`: 66 when the file cannot be opened, 65 when it is not a capture libpcap reads.
    static std::unique_ptr<PacketSource> open_file(const std::string &path, std::string *error,
                                                   int *exit_code);
    // Opens and activates a live capture on `interface` (66 on failure).
    static std::unique_ptr<PacketSource> open_live(const std::string &interface, std::string *error,
                                                   int *exit_code);

    // Compiles and installs a BPF filter; false with a message when it does not compile.
    bool set_filter(const std::string &expression, std::string *error);

    pcap_t *handle() const { return pcap_; }
    int link_type() const { return pcap_datalink(pcap_); }
    bool live() const { return live_; }
    const std::string &name() const { return name_; }
    // Share of the file read so far, or -1 when unknown (pipes, live capture).
    double fraction_read() const;

  private:
    PacketSource(pcap_t *pcap, std::string name, bool live, long long size)
        : pcap_(pcap), name_(std::move(name)), live_(live), size_(size) {}

    pcap_t *pcap_;
    std::string name_;
    bool live_;
    long long size_;                       // bytes of a regular file, else -1
    std::unique_ptr<char[]> file_buffer_;  // stdio buffer of the file; freed after pcap_close
};

}  // namespace quelm_tool
