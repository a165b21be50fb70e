// quelm-gen-traffic: writes generated link traffic (see traffic.h) as a pcap file, streaming, so
// that captures of tens of millions of packets need only the per-flow state in memory.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>

#include "traffic.h"

namespace {

constexpr const char *kUsage =
    "usage: quelm-gen-traffic --flows N --packets M [--seed S] [--duration SECONDS]\n"
    "                         [--ipv6 SHARE] [--vlan SHARE] [--snaplen BYTES] -o FILE\n"
    "\n"
    "Writes a pcap file (Ethernet, microsecond timestamps) of M packets in N interleaved,\n"
    "bidirectional flows: TCP conversations, DNS-like UDP exchanges and UDP streams, with\n"
    "realistic sizes, ~15% IPv6 and ~10% VLAN-tagged flows. The same seed gives the same file.\n"
    "  --flows N          flows in the capture (default 100000)\n"
    "  --packets M        packets in the capture (default 2000000; at least ~6 per flow)\n"
    "  --seed S           random seed (default 1)\n"
    "  --duration SECONDS time from first to last packet (default: M / 33333, at least 10)\n"
    "  --ipv6 SHARE       share of IPv6 flows, 0 to 1 (default 0.15)\n"
    "  --vlan SHARE       share of 802.1Q-tagged flows, 0 to 1 (default 0.10)\n"
    "  --snaplen BYTES    keep only the first BYTES of each frame (default: whole frames)\n"
    "  -o FILE            output file, - for standard output\n";

int usage_error(const std::string &message) {
    std::fprintf(stderr, "quelm-gen-traffic: %s\n\n%s", message.c_str(), kUsage);
    return 64;
}

bool parse_number(const char *text, double &out) {
    char *end = nullptr;
    errno = 0;
    out = std::strtod(text, &end);
    return errno == 0 && end != text && *end == '\0' && out >= 0;
}

struct PcapFileHeader {
    uint32_t magic = 0xa1b2c3d4;
    uint16_t version_major = 2, version_minor = 4;
    int32_t thiszone = 0;
    uint32_t sigfigs = 0;
    uint32_t snaplen = 262144;
    uint32_t linktype = 1;  // Ethernet
};

struct PcapRecordHeader {
    uint32_t ts_sec, ts_usec, caplen, len;
};

}  // namespace

int main(int argc, char **argv) {
    quelm_traffic::Config config;
    const char *output = nullptr;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "-h" || arg == "--help") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if (i + 1 >= argc) return usage_error("option " + arg + " needs a value");
        const char *value = argv[++i];
        double v = 0;
        if (arg == "-o") {
            output = value;
            continue;
        }
        if (!parse_number(value, v))
            return usage_error("option " + arg + " needs a non-negative number, not '" + value +
                               "'");
        if (arg == "--flows")
            config.flows = uint64_t(v);
        else if (arg == "--packets")
            config.packets = uint64_t(v);
        else if (arg == "--seed")
            config.seed = uint64_t(v);
        else if (arg == "--duration")
            config.duration = v;
        else if (arg == "--ipv6" && v <= 1)
            config.ipv6_share = v;
        else if (arg == "--vlan" && v <= 1)
            config.vlan_share = v;
        else if (arg == "--snaplen")
            config.snaplen = uint32_t(v);
        else
            return usage_error("unknown option or value out of range: " + arg + " " + value);
    }
    if (!output) return usage_error("name the output file with -o FILE");

    try {
        quelm_traffic::Generator gen(config);
        FILE *out = std::strcmp(output, "-") == 0 ? stdout : std::fopen(output, "wb");
        if (!out) {
            std::fprintf(stderr, "quelm-gen-traffic: cannot create %s: %s\n", output,
                         std::strerror(errno));
            return 73;
        }
        static char buffer[1 << 20];
        std::setvbuf(out, buffer, _IOFBF, sizeof buffer);
        PcapFileHeader file_header;
        if (config.snaplen) file_header.snaplen = config.snaplen;
        std::fwrite(&file_header, sizeof file_header, 1, out);
        static uint8_t frame[quelm_traffic::kMaxFrame + sizeof(PcapRecordHeader)];
        quelm_traffic::PacketHeader h;
        uint64_t bytes = 0;
        while (gen.next(h, frame + sizeof(PcapRecordHeader))) {
            PcapRecordHeader r{uint32_t(h.tv_sec), uint32_t(h.tv_usec), h.caplen, h.len};
            std::memcpy(frame, &r, sizeof r);
            std::fwrite(frame, sizeof r + h.caplen, 1, out);
            bytes += h.len;
        }
        if (std::fflush(out) != 0 || std::ferror(out) || (out != stdout && std::fclose(out) != 0)) {
            std::fprintf(stderr, "quelm-gen-traffic: writing %s failed: %s\n", output,
                         std::strerror(errno));
            return 74;
        }
        std::fprintf(stderr, "%s: %llu flows, %llu packets, %llu bytes on the wire, %.1f s\n",
                     output, (unsigned long long)config.flows, (unsigned long long)config.packets,
                     (unsigned long long)bytes, gen.duration());
    } catch (const std::invalid_argument &e) {
        return usage_error(e.what());
    } catch (const std::exception &e) {
        std::fprintf(stderr, "quelm-gen-traffic: %s\n", e.what());
        return 71;
    }
    return 0;
}
