#pragma once

#include <string>
#include <vector>

#include "hox/service_discovery/future_outcome.h"
#include "hox/service_discovery/handle.h"
#include "hox/service_discovery/networkservice.h"
#include "hox/service_discovery/networkservicetype.h"
#include "hox/service_discovery/service_discovery_callback.h"

namespace Hox::Service::Discovery {

/// Finds services on the network. Each search ends with its handle.
///
/// Callable from any thread, but not from a callback of the client. An interface index of -1 means
/// any interface. All operations throw ServiceDiscoveryError, without a search, if the client is
/// not started or the daemon refuses the search.
class IServiceResolver {
public:
    virtual ~IServiceResolver() = default;

    /// Looks up host, address, port and TXT records of one instance. The outcome is ServiceResolved
    /// with the service, or ResolveFailure with an empty one, which can take five seconds. Throws
    /// ServiceDiscoveryError for an empty name.
    virtual FutureOutcome<NetworkService> resolve(const std::string& name,
                                                  const NetworkServiceType& type,
                                                  int interfaceIndex) = 0;

    /// The same, reported to the callback, also each time that the records change. Throws
    /// ServiceDiscoveryError also for an empty protocol or callback.
    virtual Handle resolve(const std::string& name, const NetworkServiceType& type,
                           const ServiceDiscoveryCallback& callback, int interfaceIndex) = 0;

    /// Throws CppUtil::NotImplementedError: the host of an address.
    virtual FutureOutcome<NetworkService> resolveAddress(const std::string& address,
                                                         int interfaceIndex) = 0;

    /// Throws CppUtil::NotImplementedError: the addresses of a host.
    virtual FutureOutcome<NetworkService> resolveHostName(const std::string& hostName,
                                                          int interfaceIndex) = 0;

    /// The instances of a type that are known now, not resolved: with ServiceFound all that were
    /// found, possibly none, or BrowseFailure.
    virtual FutureOutcome<std::vector<NetworkService>> browse(const NetworkServiceType& type,
                                                              int interfaceIndex) = 0;

    /// Follows all instances of a type: ServiceFound and ServiceRemoved with name, type, domain and
    /// interface, once per interface and protocol, or BrowseFailure with an empty service. Throws
    /// ServiceDiscoveryError also for an empty callback.
    virtual Handle browse(const NetworkServiceType& type, const ServiceDiscoveryCallback& callback,
                          int interfaceIndex) = 0;

    /// Throws CppUtil::NotImplementedError: the domains that can be browsed.
    virtual FutureOutcome<std::vector<NetworkService>> browseDomains(int interfaceIndex) = 0;
};

}  // namespace Hox::Service::Discovery
