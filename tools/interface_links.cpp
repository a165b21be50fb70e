#include "interface_links.h"

namespace quelm_tool {

InterfaceLink::InterfaceLink(int link_type, uint32_t fcs_len) : link_type(link_type) {
    if (LinkAdapter::supports(link_type)) adapter.emplace(link_type, fcs_len);
}

InterfaceLink::~InterfaceLink() {
    if (filtered) pcap_freecode(&filter);
}

bool InterfaceLinks::update(const PacketSource &source, const std::string &filter,
                            std::string *error) {
    if (source.section() != section_) {
        by_interface_.clear();
        section_ = source.section();
    }
    for (size_t i = by_interface_.size(); i < source.interfaces().size(); i++) {
        const CaptureInterface &interface = source.interfaces()[i];
        std::unique_ptr<InterfaceLink> &link = links_[{interface.link_type, interface.fcs_len}];
        if (link == nullptr) {
            auto made = std::make_unique<InterfaceLink>(interface.link_type, interface.fcs_len);
            // libpcap filters pcap files and live captures itself. Packets of a link type the tool
            // does not read are counted: those the filter passes, if it compiles for them.
            if (source.pcapng() && !filter.empty()) {
                std::string why;
                made->filtered =
                    PacketSource::compile_filter(filter, interface.link_type, &made->filter, &why);
                if (!made->filtered && made->adapter.has_value()) {
                    *error = why;
                    links_.erase({interface.link_type, interface.fcs_len});
                    return false;
                }
            }
            link = std::move(made);
        }
        if (first_link_type_ < 0) first_link_type_ = link->link_type;
        any_read_ |= link->adapter.has_value();
        by_interface_.push_back(link.get());
    }
    return true;
}

bool InterfaceLinks::none_read(int *link_type) const {
    *link_type = first_link_type_;
    return first_link_type_ >= 0 && !any_read_;
}

}  // namespace quelm_tool
