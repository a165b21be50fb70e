// Fuzzes the tool's pcapng reader: whatever the bytes, it comes to an end or to damage, and every
// packet it hands over is of an interface it has described and lies in memory it owns.
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "pcapng_reader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    using quelm_tool::PcapngReader;
    FILE *file = size == 0 ? nullptr : fmemopen(const_cast<uint8_t *>(data), size, "rb");
    if (file == nullptr) return 0;
    PcapngReader reader(file);
    PcapngReader::Packet p;
    volatile uint8_t sink = 0;
    for (PcapngReader::Event e = PcapngReader::Event::kSection;
         e != PcapngReader::Event::kEnd && e != PcapngReader::Event::kDamaged;) {
        e = reader.next(&p);
        if (e != PcapngReader::Event::kPacket) continue;
        if (p.interface >= reader.interfaces().size() || p.usec >= 1000000 ||
            p.caplen > PcapngReader::kMaxBlock)
            std::abort();
        for (uint32_t i = 0; i < p.caplen; i++)  // the sanitizer checks every byte
            sink = sink ^ p.data[i];
    }
    fclose(file);
    return 0;
}
