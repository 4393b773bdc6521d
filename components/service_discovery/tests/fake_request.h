#pragma once

#include <utility>
#include <vector>

#include "avahi/request/avahi_request.h"

namespace Hox::Service::Discovery::Avahi {

/// What a request has delivered.
struct KeptEvents {
    std::vector<std::pair<Status, NetworkService>> delivered;
    int completed = 0;
};

/// Delivers into events that are kept elsewhere.
struct KeepingDelivery {
    void deliver(Status status, const NetworkService& service) {
        events->delivered.emplace_back(status, service);
    }
    void complete() { ++events->completed; }

    KeptEvents* events;
};

/// A request that keeps what is delivered, without Avahi.
class FakeRequest : public KeptEvents, public AvahiRequest<KeepingDelivery> {
public:
    FakeRequest() : AvahiRequest(KeepingDelivery{this}) {}
};

}  // namespace Hox::Service::Discovery::Avahi
