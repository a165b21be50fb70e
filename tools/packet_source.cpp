#include "packet_source.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "exit_codes.h"

namespace quelm_tool {
namespace {

constexpr int kSnapLen = 262144;
constexpr int kBufferTimeoutMs = 100;   // how long the kernel may hold packets back
constexpr int kBufferBytes = 32 << 20;  // room for bursts while the tool is busy
constexpr size_t kFileBufferBytes = 1 << 20;

}  // namespace

PacketSource::~PacketSource() {
    pcap_close(pcap_);
}

std::unique_ptr<PacketSource> PacketSource::open_file(const std::string &path, std::string *error,
                                                      int *exit_code) {
    const bool is_stdin = path == "-";
    const std::string name = is_stdin ? "standard input" : "'" + path + "'";
    FILE *file = is_stdin ? stdin : fopen(path.c_str(), "rb");
    if (file == nullptr) {
        *error = "cannot open " + name + ": " + std::strerror(errno);
        *exit_code = kExitNoInput;
        return nullptr;
    }
    struct stat st;
    long long size = -1;
    if (fstat(fileno(file), &st) == 0) {
        if (S_ISDIR(st.st_mode)) {
            *error = "cannot read " + name + ": it is a directory";
            *exit_code = kExitNoInput;
            if (!is_stdin) fclose(file);
            return nullptr;
        }
        if (S_ISREG(st.st_mode)) size = st.st_size;
    }
    // libpcap reads through stdio; a large buffer turns many small reads into few large ones.
    // (glibc ignores the size unless it is given the buffer.) It must outlive the FILE: standard
    // input, which is never closed, gets one that lives as long as the process.
    static char stdin_buffer[kFileBufferBytes];
    std::unique_ptr<char[]> buffer(is_stdin ? nullptr : new char[kFileBufferBytes]);
    setvbuf(file, is_stdin ? stdin_buffer : buffer.get(), _IOFBF, kFileBufferBytes);
    char errbuf[PCAP_ERRBUF_SIZE] = "";
    pcap_t *pcap =
        pcap_fopen_offline_with_tstamp_precision(file, PCAP_TSTAMP_PRECISION_MICRO, errbuf);
    if (pcap == nullptr) {
        // libpcap leaves the file to us when it refuses it.
        if (!is_stdin) fclose(file);
        *error = name + " is not a capture file quelm can read (" + errbuf + ")";
        *exit_code = kExitDataError;
        return nullptr;
    }
    std::unique_ptr<PacketSource> source(new PacketSource(pcap, name, false, size));
    source->file_buffer_ = std::move(buffer);
    return source;
}

std::unique_ptr<PacketSource> PacketSource::open_live(const std::string &interface,
                                                      std::string *error, int *exit_code) {
    char errbuf[PCAP_ERRBUF_SIZE] = "";
    *exit_code = kExitNoInput;
    pcap_t *pcap = pcap_create(interface.c_str(), errbuf);
    if (pcap == nullptr) {
        *error = "cannot capture on '" + interface + "': " + errbuf;
        return nullptr;
    }
    pcap_set_snaplen(pcap, kSnapLen);
    pcap_set_promisc(pcap, 1);
    pcap_set_timeout(pcap, kBufferTimeoutMs);
    pcap_set_buffer_size(pcap, kBufferBytes);
    const int status = pcap_activate(pcap);
    if (status < 0) {
        *error = "cannot capture on '" + interface + "': " + pcap_statustostr(status);
        const char *detail = pcap_geterr(pcap);
        if (detail != nullptr && *detail != 0) *error += std::string(" (") + detail + ")";
        if (status == PCAP_ERROR_PERM_DENIED)
            *error += "; run as root or give the program the CAP_NET_RAW capability";
        pcap_close(pcap);
        return nullptr;
    }
    if (status > 0)
        fprintf(stderr, "quelm flows: warning: %s: %s\n", interface.c_str(), pcap_geterr(pcap));
    return std::unique_ptr<PacketSource>(new PacketSource(pcap, "'" + interface + "'", true, -1));
}

bool PacketSource::set_filter(const std::string &expression, std::string *error) {
    bpf_u_int32 net = 0, mask = PCAP_NETMASK_UNKNOWN;
    if (live_) {
        char errbuf[PCAP_ERRBUF_SIZE];
        // Without an IPv4 address on the interface "broadcast" cannot be resolved; fine otherwise.
        if (pcap_lookupnet(name_.substr(1, name_.size() - 2).c_str(), &net, &mask, errbuf) != 0)
            mask = PCAP_NETMASK_UNKNOWN;
    }
    bpf_program program;
    if (pcap_compile(pcap_, &program, expression.c_str(), 1, mask) != 0) {
        *error = "the filter '" + expression + "' does not compile: " + pcap_geterr(pcap_);
        return false;
    }
    const bool ok = pcap_setfilter(pcap_, &program) == 0;
    if (!ok) *error = "cannot install the filter: " + std::string(pcap_geterr(pcap_));
    pcap_freecode(&program);
    return ok;
}

double PacketSource::fraction_read() const {
    if (size_ <= 0) return -1;
    FILE *file = pcap_file(pcap_);
    const long at = file != nullptr ? ftell(file) : -1;
    if (at < 0) return -1;
    return double(at) / double(size_);
}

}  // namespace quelm_tool
