#include "hox/service_discovery/networkservicetype.h"

#include <utility>

#include "hox/cpputil/string/string_utils.h"
#include "hox/service_discovery/error/service_discovery_error.h"

namespace Hox::Service::Discovery {

namespace {

const char* transportText(Transport transport) {
    switch (transport) {
        case TCP:
            return "tcp";
        case UDP:
            return "udp";
    }
    return "unknown";
}

}  // namespace

NetworkServiceType::NetworkServiceType(std::string protocol, Transport transportProtocol)
    : applicationProtocol(std::move(protocol)), transport(transportProtocol) {
    if (applicationProtocol.size() > maxProtocolLength) {
        throw ServiceDiscoveryError("application protocol above maxiumum limit.", __FILE__,
                                    __LINE__);
    }
}

std::string NetworkServiceType::text() const {
    return "_" + applicationProtocol + "._" + transportText(transport);
}

NetworkServiceType NetworkServiceType::parse(const std::string& text) {
    const auto dot = text.find('.');
    const auto protocol = text.substr(0, dot);
    const auto rest = dot == std::string::npos ? std::string() : text.substr(dot + 1);
    // Without the constructor: a type on the network may be longer than one that is published here.
    NetworkServiceType type;
    type.applicationProtocol = protocol.empty() ? protocol : protocol.substr(1);
    type.transport = CppUtil::str_to_lower(rest) == "udp" ? UDP : TCP;
    return type;
}

}  // namespace Hox::Service::Discovery
