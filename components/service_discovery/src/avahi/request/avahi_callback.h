#pragma once

#include <functional>
#include <utility>

#include "hox/service_discovery/error/service_discovery_error.h"
#include "hox/service_discovery/status.h"

namespace Hox::Service::Discovery::Avahi {

/// Delivers each event of a request to a function.
template <typename T>
class AvahiCallback {
public:
    using Function = std::function<void(const Status&, const T&)>;

    /// Throws ServiceDiscoveryError for an empty function.
    explicit AvahiCallback(Function function) : m_function(std::move(function)) {
        if (!m_function) {
            throw ServiceDiscoveryError("callback has to contain a valid target.", __FILE__,
                                        __LINE__);
        }
    }

    /// Calls the function.
    void deliver(Status status, const T& event) { m_function(status, event); }

    /// Has no effect: a callback takes any number of events.
    void complete() {}

private:
    Function m_function;
};

}  // namespace Hox::Service::Discovery::Avahi
