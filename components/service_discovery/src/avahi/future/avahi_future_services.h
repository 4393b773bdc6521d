#pragma once

#include <vector>

#include "avahi/future/avahi_future.h"
#include "hox/service_discovery/networkservice.h"

namespace Hox::Service::Discovery::Avahi {

/// A list of all services that are known now.
class AvahiFutureServices : public AvahiFuture<std::vector<NetworkService>> {
public:
    /// Puts a service that was found on the list and takes one that was removed off it. A failure
    /// is the outcome at once.
    void deliver(Status status, const NetworkService& service);

    /// Takes the list for the outcome; later events are dropped.
    void complete();

private:
    std::vector<NetworkService> m_services;
};

}  // namespace Hox::Service::Discovery::Avahi
