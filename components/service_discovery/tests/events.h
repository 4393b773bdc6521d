#pragma once

#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "hox/service_discovery/service_discovery_callback.h"

namespace Hox::Service::Discovery::Avahi {

/// The events that callbacks received, in order. Lives longer than the requests and clients that
/// they belong to.
class Events {
public:
    /// A callback for a request.
    ServiceDiscoveryCallback callback();

    /// A callback for a client.
    std::function<void(const Status&)> clientCallback();

    /// All so far.
    std::vector<std::pair<Status, NetworkService>> all() const;
    std::vector<Status> statuses() const;

    /// How often it was this status, for a service of this name if one is given.
    std::size_t count(Status status, const std::string& name = "") const;

    /// Forgets all so far.
    void clear();

    /// Waits until it is at least so often.
    bool waitFor(Status status, const std::string& name = "", std::size_t times = 1) const;

private:
    void add(Status status, const NetworkService& service);

    mutable std::mutex m_mutex;
    std::vector<std::pair<Status, NetworkService>> m_events;  // GUARDED_BY(m_mutex)
};

}  // namespace Hox::Service::Discovery::Avahi
