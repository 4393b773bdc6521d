#pragma once

#include "hox/service_discovery/future_outcome.h"
#include "hox/service_discovery/handle.h"
#include "hox/service_discovery/networkservice.h"
#include "hox/service_discovery/service_discovery_callback.h"
#include "hox/service_discovery/status.h"

namespace Hox::Service::Discovery {

/// Puts services on the network, each for as long as its handle lives and the client is started.
///
/// Callable from any thread, but not from a callback of the client. Neither the name nor anything
/// else is changed to get a service published: the caller decides what follows a collision.
class IServicePublisher {
public:
    virtual ~IServicePublisher() = default;

    /// Publishes the service for IPv4 under the machine's own host name. TXT records are published
    /// in the order of their keys after "vendor=halvo"; without records there is not even that.
    /// The outcome is Published, Collision or PublishFailure; later events are not reported.
    ///
    /// Throws ServiceDiscoveryError, with nothing published, if the client is not started or the
    /// daemon gives no place for the service.
    virtual FutureOutcome<NetworkService> publish(const NetworkService& service) = 0;

    /// The same, with each of these events reported to the callback, none of them from inside this
    /// call. Throws ServiceDiscoveryError also for an empty callback.
    virtual Handle publish(const NetworkService& service,
                           const ServiceDiscoveryCallback& callback) = 0;

    /// How a publication is doing. One that the daemon keeps no records of counts as Published,
    /// also after a collision with another host: rely on the outcome for that. Throws
    /// ServiceDiscoveryError if the handle is not one of a publication of this client, or if the
    /// client has lost it.
    virtual Status status(const Handle& handle) = 0;
};

}  // namespace Hox::Service::Discovery
