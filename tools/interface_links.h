// How the packets of each interface of a capture reach the flow table: through the link adapter
// for the interface's link type and FCS length and, for pcapng files, the filter compiled for its
// link type. Interfaces alike share one link, so that a file that describes thousands of
// interfaces costs a few adapters.
#pragma once

#include <pcap/pcap.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "link_adapter.h"
#include "packet_source.h"

namespace quelm_tool {

struct InterfaceLink {
    InterfaceLink(int link_type, uint32_t fcs_len);
    ~InterfaceLink();
    InterfaceLink(const InterfaceLink &) = delete;
    InterfaceLink &operator=(const InterfaceLink &) = delete;

    int link_type;
    std::optional<LinkAdapter> adapter;  // empty: the tool cannot read the link type
    bool filtered = false;               // pcapng with a filter: apply `filter`
    bpf_program filter = {};
};

class InterfaceLinks {
  public:
    // Catches up with the interfaces `source` has described (all of them after a new section);
    // false with a message when `filter` does not compile for the link type of a new interface of
    // a pcapng file.
    bool update(const PacketSource &source, const std::string &filter, std::string *error);
    // The link of an interface update() has seen.
    InterfaceLink &of(uint32_t interface) { return *by_interface_[interface]; }
    // True when interfaces were described and the tool reads none of their link types; sets the
    // first one's.
    bool none_read(int *link_type) const;

  private:
    std::map<std::pair<int, uint32_t>, std::unique_ptr<InterfaceLink>> links_;  // by type, FCS
    std::vector<InterfaceLink *> by_interface_;
    uint64_t section_ = 0;
    int first_link_type_ = -1;
    bool any_read_ = false;
};

}  // namespace quelm_tool
