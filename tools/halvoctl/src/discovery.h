#pragma once

#include <chrono>
#include <functional>
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

/// Tells the user something about a result.
using Note = std::function<void(const std::string&)>;

/// All capabilities on the network, by name and id, as the mDNS daemon of this machine finds them.
/// Takes about a second; one whose host has not answered at the end of the time is left out, with a
/// note. Throws CtlError without a daemon, and if the user ends the wait.
std::vector<FoundCapability> findCapabilities(Interrupt& interrupt, std::chrono::milliseconds time,
                                              const Note& note);

/// What a record of the network says; nothing in it is trusted.
FoundCapability readCapability(const Service::Discovery::NetworkService& service);

/// The endpoint of the only capability that "CAPABILITY" or "CAPABILITY/ID" names. Throws CtlError
/// if there is none, or more than one.
std::string chooseEndpoint(const std::vector<FoundCapability>& found, const std::string& wanted);

/// Whether the endpoint begins with "mdns:", so that it must be looked for.
bool isOnNetwork(const std::string& endpoint);

/// The endpoint as host:port, also of one that must be looked for.
std::string resolveEndpoint(const std::string& endpoint, Interrupt& interrupt,
                            std::chrono::milliseconds time, const Note& note);

}  // namespace Hox::Ctl
