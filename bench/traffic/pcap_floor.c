/* quelm-pcap-floor: reads captures through libpcap and touches one byte of each packet, nothing
 * more. Its packets per second are the floor that any tool reading the same file through libpcap
 * cannot beat: the cost of reading the bytes. */
#include <pcap/pcap.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

static double now_seconds(void) {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (double)ts.tv_sec + (double)ts.tv_nsec / 1e9;
}

int main(int argc, char **argv) {
    if (argc < 2 || strcmp(argv[1], "-h") == 0 || strcmp(argv[1], "--help") == 0) {
        fputs(
            "usage: quelm-pcap-floor FILE...\n"
            "Reads each capture through libpcap, touching one byte per packet, and prints\n"
            "packets, captured bytes, seconds and packets per second.\n",
            argc < 2 ? stderr : stdout);
        return argc < 2 ? 64 : 0;
    }
    uint64_t packets = 0, bytes = 0;
    unsigned checksum = 0; /* printed, so the byte reads cannot be optimised away */
    double start = now_seconds();
    for (int i = 1; i < argc; ++i) {
        char errbuf[PCAP_ERRBUF_SIZE];
        pcap_t *p = pcap_open_offline(argv[i], errbuf);
        if (!p) {
            fprintf(stderr, "quelm-pcap-floor: cannot open %s: %s\n", argv[i], errbuf);
            return 66;
        }
        struct pcap_pkthdr *h;
        const u_char *data;
        int rc;
        while ((rc = pcap_next_ex(p, &h, &data)) == 1) {
            ++packets;
            bytes += h->caplen;
            if (h->caplen) checksum += data[h->caplen / 2];
        }
        if (rc == PCAP_ERROR) {
            fprintf(stderr, "quelm-pcap-floor: %s: %s\n", argv[i], pcap_geterr(p));
            pcap_close(p);
            return 65;
        }
        pcap_close(p);
    }
    double seconds = now_seconds() - start;
    printf("packets %llu bytes %llu seconds %.6f pps %.0f checksum %u\n",
           (unsigned long long)packets, (unsigned long long)bytes, seconds,
           seconds > 0 ? (double)packets / seconds : 0.0, checksum & 0xff);
    return 0;
}
