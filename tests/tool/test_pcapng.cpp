// The pcapng reader on files built block by block: what it delivers, and where it stops.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iomanip>
#include <sstream>

#include "pcapng_builder.h"
#include "pcapng_reader.h"

namespace quelm_test {
namespace {

using quelm_tool::PcapngReader;
using Event = PcapngReader::Event;

// The reader's events in short: "I1/64" an interface, "S" a section, "P0 1000.500000 60/60" a
// packet (interface, time, captured and wire length), "E" the end, "D: why" damage.
std::string trace(const std::string &bytes) {
    FILE *file = fmemopen(const_cast<char *>(bytes.data()), bytes.size(), "rb");
    PcapngReader reader(file);
    std::ostringstream out;
    PcapngReader::Packet p;
    for (Event e = Event::kSection; e != Event::kEnd && e != Event::kDamaged;) {
        e = reader.next(&p);
        if (e == Event::kPacket)
            out << " P" << p.interface << ' ' << p.sec << '.' << std::setw(6) << std::setfill('0')
                << p.usec << ' ' << p.caplen << '/' << p.len;
        if (e == Event::kInterface)
            out << " I" << reader.interfaces().back().link_type << '/'
                << reader.interfaces().back().snaplen;
        out << (e == Event::kSection ? " S" : e == Event::kEnd ? " E" : "");
        if (e == Event::kDamaged) out << " D: " << reader.error();
    }
    fclose(file);
    return out.str();
}

const std::vector<uint8_t> k60(60, 0x45), k100(100, 0x45);

// Ethernet with a snapshot length of 64, raw IP in nanoseconds, Ethernet in 1/1024 s; an unknown
// block; a simple packet cut to the snapshot length, at the time of the packet before it.
Pcapng two_link_types(bool swapped) {
    return Pcapng(swapped)
        .interface(1, 64)
        .interface(101, 128, 9)
        .interface(1, 0, 0x80 | 10)
        .packet(0, 1000500000, k60)
        .block(0x0BAD, {1, 2, 3})
        .packet(1, 2000000123456789, k100)
        .packet(2, 3 * 1024 + 512, k60)
        .simple(200, k100);
}

const char *const kTwoLinkTypes =
    " S I1/64 I101/128 I1/0 P0 1000.500000 60/60 P1 2000000.123456 100/100 P2 3.500000 60/60"
    " P0 3.500000 64/200 E";

TEST(PcapngReader, ReadsWhatIsThereAndStopsAtDamage) {
    const std::string good = two_link_types(false).bytes();
    std::string bad_trailer = good;
    bad_trailer.back() ^= 1;
    const struct {
        std::string bytes, expected;
    } cases[] = {
        {good, kTwoLinkTypes},
        {two_link_types(true).bytes(), kTwoLinkTypes},
        // A new section forgets the interfaces of the one before.
        {Pcapng().interface(1, 0).section().interface(113, 0).packet(1, 0, k60).bytes(),
         " S I1/0 S I113/0 D: a packet of interface 1, never described (block at byte 96)"},
        {bad_trailer, "P2 3.500000 60/60 D: a block whose two lengths differ (block at byte 452)"},
        {Pcapng().bytes() + std::string("\6\0\0\0\0\0\0\x7f", 8),
         " S D: a block of 2130706432 bytes (block at byte 28)"},
        {good.substr(0, good.size() - 4),
         "P2 3.500000 60/60 D: a block cut short (block at byte 452)"},
        {Pcapng().interface(1, 0).packet(0, 0, k60, 200).bytes(),
         " I1/0 D: packet data past its block"},
    };
    for (const auto &c : cases)
        EXPECT_THAT(trace(c.bytes), ::testing::HasSubstr(c.expected));
}

}  // namespace
}  // namespace quelm_test
