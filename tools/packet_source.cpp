#include "packet_source.h"

#include "link_adapter.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "exit_codes.h"
#include "stop_signals.h"

namespace quelm_tool {
namespace {

constexpr int kSnapLen = int(kLargestSnapshot);
constexpr int kBufferTimeoutMs = 100;   // how long the kernel may hold packets back
constexpr int kBufferBytes = 32 << 20;  // room for bursts while the tool is busy
constexpr size_t kFileBufferBytes = 1 << 20;
constexpr size_t kHeadBytes = 24;  // a pcap file header
constexpr uint32_t kPcapngMagic = 0x0A0D0D0A;

uint32_t raw32(const uint8_t *p) {
    uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
}

// Up to `size` bytes from `fd`: fewer only at its end or when reading fails.
size_t read_head(int fd, uint8_t *to, size_t size) {
    size_t got = 0;
    while (got < size) {
        const ssize_t n = read(fd, to + got, size - got);
        if (n < 0 && errno == EINTR && !stop_requested()) continue;
        if (n <= 0) break;
        got += size_t(n);
    }
    return got;
}

// A stream that gives the bytes read to tell the format, then the rest of an input that cannot
// seek back to them (a pipe, a FIFO).
struct Replay {
    FILE *from;  // closed with the replay, unless it is standard input
    uint8_t head[kHeadBytes];
    size_t size, at;
};

ssize_t replay_read(void *cookie, char *to, size_t size) {
    Replay &r = *static_cast<Replay *>(cookie);
    if (r.at == r.size) return read(fileno(r.from), to, size);
    const size_t n = std::min(size, r.size - r.at);
    std::memcpy(to, r.head + r.at, n);
    r.at += n;
    return ssize_t(n);
}

int replay_close(void *cookie) {
    Replay *r = static_cast<Replay *>(cookie);
    const int status = r->from == stdin ? 0 : fclose(r->from);
    delete r;
    return status;
}

// The bytes of frame check sequence a pcap file header announces: bits 28..31 of its link-type
// word count them in 16-bit units when bit 26 is set. libpcap keeps them from pcap_datalink.
uint32_t pcap_fcs_len(const uint8_t *head, size_t size) {
    if (size < kHeadBytes) return 0;
    const uint32_t magic = raw32(head);
    uint32_t word = raw32(head + 20);
    if (magic == 0xD4C3B2A1 || magic == 0x4D3CB2A1) word = __builtin_bswap32(word);
    return word & (1u << 26) ? (word >> 28) * 2 : 0;
}

// The registry's link-type numbers in pcapng files, as libpcap numbers them in pcap_datalink.
int dlt_of(uint16_t link_type) {
    switch (link_type) {
        case 100:
            return DLT_ATM_RFC1483;
        case 101:
            return DLT_RAW;
        case 102:
            return DLT_SLIP_BSDOS;
        case 103:
            return DLT_PPP_BSDOS;
        case 106:
            return DLT_ATM_CLIP;
        default:
            return link_type;
    }
}

bool compile(pcap_t *pcap, const std::string &expression, bpf_u_int32 mask, bpf_program *program,
             std::string *error) {
    if (pcap_compile(pcap, program, expression.c_str(), 1, mask) == 0) return true;
    *error = "the filter '" + expression + "' does not compile: " + pcap_geterr(pcap);
    return false;
}

// pcap_dispatch's callback: every packet of a pcap file or live capture is of interface 0.
struct Forward {
    PacketSource::Take take;
    void *user;
};

void forward(u_char *user, const pcap_pkthdr *header, const u_char *data) {
    const Forward &f = *reinterpret_cast<const Forward *>(user);
    f.take(f.user, 0, *header, data);
}

}  // namespace

PacketSource::~PacketSource() {
    if (pcap_ != nullptr)
        pcap_close(pcap_);  // closes the file, unless it is standard input
    else if (file_ != nullptr && file_ != stdin)
        fclose(file_);
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
    std::unique_ptr<PacketSource> source(new PacketSource(name, false));
    // The first bytes tell pcapng from pcap (and hold the pcap header's FCS length). They are read
    // before stdio buffers anything; an input that cannot seek back to them is read through a
    // stream that replays them.
    const int fd = fileno(file);
    const off_t start = lseek(fd, 0, SEEK_CUR);
    uint8_t head[kHeadBytes];
    const size_t head_size = read_head(fd, head, sizeof head);
    if (start < 0 || lseek(fd, start, SEEK_SET) != start) {
        Replay *replay = new Replay{file, {}, head_size, 0};
        std::memcpy(replay->head, head, head_size);
        file = fopencookie(replay, "rb", {replay_read, nullptr, nullptr, replay_close});
        if (file == nullptr) {
            replay_close(replay);
            *error = "cannot read " + name + ": " + std::strerror(errno);
            *exit_code = kExitNoInput;
            return nullptr;
        }
        size = -1;
    }
    // Both readers go through stdio; a large buffer turns many small reads into few large ones.
    // (glibc ignores the size unless it is given the buffer.) It must outlive the FILE: standard
    // input, which is never closed, gets one that lives as long as the process.
    static char stdin_buffer[kFileBufferBytes];
    char *buffer = stdin_buffer;
    if (file != stdin) {
        source->file_buffer_.reset(new char[kFileBufferBytes]);
        buffer = source->file_buffer_.get();
    }
    setvbuf(file, buffer, _IOFBF, kFileBufferBytes);
    source->file_ = file;
    source->size_ = size;
    if (head_size >= 4 && raw32(head) == kPcapngMagic) {
        source->pcapng_ = std::make_unique<PcapngReader>(file);
        return source;
    }
    char errbuf[PCAP_ERRBUF_SIZE] = "";
    source->pcap_ =
        pcap_fopen_offline_with_tstamp_precision(file, PCAP_TSTAMP_PRECISION_MICRO, errbuf);
    if (source->pcap_ == nullptr) {
        *error = name + " is not a capture file quelm can read (" + errbuf + ")";
        *exit_code = kExitDataError;
        return nullptr;  // libpcap leaves the file to us when it refuses it: the source closes it
    }
    source->interfaces_ = {{pcap_datalink(source->pcap_), uint32_t(pcap_snapshot(source->pcap_)),
                            pcap_fcs_len(head, head_size)}};
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
    std::unique_ptr<PacketSource> source(new PacketSource("'" + interface + "'", true));
    source->pcap_ = pcap;
    source->interfaces_ = {{pcap_datalink(pcap), uint32_t(kSnapLen), 0}};
    return source;
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
    if (!compile(pcap_, expression, mask, &program, error)) return false;
    const bool ok = pcap_setfilter(pcap_, &program) == 0;
    if (!ok) *error = "cannot install the filter: " + std::string(pcap_geterr(pcap_));
    pcap_freecode(&program);
    return ok;
}

bool PacketSource::compile_filter(const std::string &expression, int link_type,
                                  bpf_program *program, std::string *error) {
    pcap_t *dead = pcap_open_dead(link_type, kSnapLen);
    if (dead == nullptr) {
        *error = "no memory to compile the filter";
        return false;
    }
    const bool ok = compile(dead, expression, PCAP_NETMASK_UNKNOWN, program, error);
    pcap_close(dead);
    return ok;
}

PacketSource::Read PacketSource::read(int max, Take take, void *user) {
    if (pcapng_ != nullptr) return read_pcapng(max, take, user);
    Forward f = {take, user};
    const int n = pcap_dispatch(pcap_, max, forward, reinterpret_cast<u_char *>(&f));
    if (n > 0) return Read::kPackets;
    if (n == 0) return Read::kEnd;
    if (n == PCAP_ERROR_BREAK) return Read::kStopped;
    error_ = pcap_geterr(pcap_);
    return Read::kDamaged;
}

PacketSource::Read PacketSource::read_pcapng(int max, Take take, void *user) {
    PcapngReader::Packet p;
    for (int n = 0; n < max; n++) {
        if (stop_requested()) return Read::kStopped;
        switch (pcapng_->next(&p)) {
            case PcapngReader::Event::kPacket: {
                const pcap_pkthdr header = {{time_t(p.sec), suseconds_t(p.usec)}, p.caplen, p.len};
                take(user, p.interface, header, p.data);
                break;
            }
            case PcapngReader::Event::kInterface: {
                const PcapngReader::Interface &i = pcapng_->interfaces().back();
                interfaces_.push_back({dlt_of(i.link_type), i.snaplen, i.fcs_len});
                return Read::kInterfaces;
            }
            case PcapngReader::Event::kSection:
                interfaces_.clear();
                section_++;
                return Read::kInterfaces;
            case PcapngReader::Event::kEnd:
                return n > 0 ? Read::kPackets : Read::kEnd;
            case PcapngReader::Event::kDamaged:
                error_ = pcapng_->error();
                return Read::kDamaged;
        }
    }
    return Read::kPackets;
}

double PacketSource::fraction_read() const {
    if (size_ <= 0 || file_ == nullptr) return -1;
    const long at = ftell(file_);
    if (at < 0) return -1;
    return double(at) / double(size_);
}

}  // namespace quelm_tool
