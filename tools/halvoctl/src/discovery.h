#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "hox/service_discovery/networkservice.h"
#include "interrupt.h"

namespace Hox::Ctl {

/// A capability of a service on the network.
struct FoundCapability {
    std::string capability;  ///< Its name.
    std::string serviceId;   ///< The id of the service.
    std::string endpoint;    ///< Where the service listens, as host:port.
    std::string interface;   ///< The full name of the gRPC service.
};

/// All capabilities on the network, by name and id, as the mDNS daemon of this machine finds them.
/// Takes about a second. Throws CtlError without a daemon, if none appears in time, and if the user
/// ends the wait.
std::vector<FoundCapability> findCapabilities(Interrupt& interrupt, std::chrono::milliseconds time);

/// What a record of the network says; nothing in it is trusted.
FoundCapability readCapability(const Service::Discovery::NetworkService& service);

/// The endpoint of the only capability that "CAPABILITY" or "CAPABILITY/ID" names. Throws CtlError
/// if there is none, or more than one.
std::string chooseEndpoint(const std::vector<FoundCapability>& found, const std::string& wanted);

/// The endpoint as host:port: of one that begins with "mdns:" by looking for it.
std::string resolveEndpoint(const std::string& endpoint, Interrupt& interrupt,
                            std::chrono::milliseconds time);

}  // namespace Hox::Ctl
