#pragma once

#include <functional>

#include "hox/service_discovery/networkservice.h"
#include "hox/service_discovery/status.h"

namespace Hox::Service::Discovery {

/// Receives the events of one request, on the client's event-loop thread. It must not throw (this
/// ends the process), must not wait, and hands further requests to another thread. It may drop
/// handles, its own one too.
using ServiceDiscoveryCallback = std::function<void(const Status&, const NetworkService&)>;

}  // namespace Hox::Service::Discovery
