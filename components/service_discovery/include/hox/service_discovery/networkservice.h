#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "hox/service_discovery/networkservicetype.h"

namespace Hox::Service::Discovery {

/// One instance of a service, as it is to be published or as it was found. What was found is
/// what the network says: nothing in it can be trusted.
struct NetworkService {
    std::string name;      ///< of the instance
    std::string hostName;  ///< filled by resolving
    std::string domain;    ///< empty: the default domain
    NetworkServiceType type;
    int protocol = -1;        ///< 0 for IPv4, 1 for IPv6, -1 for any
    int interfaceIndex = -1;  ///< of the network interface, -1 for any
    std::uint16_t port = 0;
    std::string address;  ///< as text; filled by resolving
    std::map<std::string, std::string> txtRecords;
    std::vector<std::string> subtypes;  ///< without underscores, for example "configuration"
};

}  // namespace Hox::Service::Discovery
