#pragma once

#include "avahi/future/avahi_future.h"
#include "hox/service_discovery/networkservice.h"

namespace Hox::Service::Discovery::Avahi {

/// The outcome of a publication, or of looking up one service: its first event.
class AvahiFutureService : public AvahiFuture<NetworkService> {
public:
    /// Takes the first event for the outcome.
    void deliver(Status status, const NetworkService& service) { fulfil(status, service); }

    /// Means nothing here.
    void complete() {}
};

}  // namespace Hox::Service::Discovery::Avahi
