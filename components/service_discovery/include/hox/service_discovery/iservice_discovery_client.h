#pragma once

#include <functional>
#include <string>

#include "hox/service_discovery/iservice_publisher.h"
#include "hox/service_discovery/iservice_resolver.h"
#include "hox/service_discovery/status.h"

namespace Hox::Service::Discovery {

/// The connection of this process to the local discovery daemon.
///
/// All operations may be called from any thread, but only isStarted, setCallback and cancel also
/// from a callback of the client. The client owns publisher and resolver; what they return may
/// outlive it.
class IServiceDiscoveryClient {
public:
    virtual ~IServiceDiscoveryClient() = default;

    /// Connects, and waits for as long as there is no daemon. Returns true once it is connected, at
    /// once if it is already; false if stop or cancel has ended the wait. After a loss or a stop
    /// it makes a new connection; requests made before are not taken up again.
    ///
    /// Throws ServiceDiscoveryError if there is no system bus, or if the bus or the daemon is
    /// lost meanwhile: the next call tries again.
    virtual bool start() = 0;

    /// Ends a wait of start; withdraws all requests, reports ClientLost to the callback and
    /// disconnects. Returns false if the client was not started. Takes about a second at most,
    /// whatever the daemon does; callbacks that are running are waited for.
    virtual bool stop() = 0;

    /// Whether the client is connected. Takes no lock.
    virtual bool isStarted() const = 0;

    /// The machine's host name in mDNS. This and the next two throw ServiceDiscoveryError unless
    /// the client is started.
    virtual std::string hostName() = 0;

    /// The domain of the machine, as a rule "local".
    virtual std::string domainName() = 0;

    /// Host name and domain of the machine.
    virtual std::string fullyQualifiedHostName() = 0;

    /// Sets the function that is called with ClientLost after all requests were lost: the daemon or
    /// the connection to it is lost (then isStarted is false, and the owner starts the client anew
    /// and publishes again, on another thread), the machine's host name collides or changes (then
    /// it is still true, and the owner publishes again), or stop was called. It runs on the
    /// event-loop thread, for stop on the thread of stop, and must neither throw nor wait. Throws
    /// ServiceDiscoveryError for an empty function.
    virtual void setCallback(const std::function<void(const Status&)>& callback) = 0;

    /// Finds services. This and publisher throw ServiceDiscoveryError unless the client is started;
    /// the reference stays valid as long as the client.
    virtual IServiceResolver& resolver() = 0;

    /// Publishes services.
    virtual IServicePublisher& publisher() = 0;

    /// Ends for good all waits of start, one that is under way and any later one: they return
    /// false. For the end of the process; does not wait itself. An existing connection stays.
    virtual void cancel() = 0;
};

}  // namespace Hox::Service::Discovery
