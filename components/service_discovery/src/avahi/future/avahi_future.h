#pragma once

#include <future>
#include <utility>

#include "hox/service_discovery/status.h"

namespace Hox::Service::Discovery::Avahi {

/// Keeps the one outcome of a request. The promise is broken if the object
/// is destroyed before the outcome.
template <typename T>
class AvahiFuture {
public:
    using Outcome = std::pair<Status, T>;

    /// The reading end; once only.
    std::future<Outcome> future() { return m_promise.get_future(); }

    /// Whether there is an outcome.
    bool isFulfilled() const { return m_fulfilled; }

    /// Fulfils the promise. A second outcome is dropped.
    void fulfil(Status status, T value) {
        if (!std::exchange(m_fulfilled, true)) {
            m_promise.set_value({status, std::move(value)});
        }
    }

private:
    std::promise<Outcome> m_promise;
    bool m_fulfilled = false;
};

}  // namespace Hox::Service::Discovery::Avahi
