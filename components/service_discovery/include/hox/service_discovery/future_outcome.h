#pragma once

#include <future>
#include <utility>

#include "hox/service_discovery/handle_value.h"
#include "hox/service_discovery/status.h"

namespace Hox::Service::Discovery {

/// The handle of a request with its one outcome. There is no limit of time: who must not wait uses
/// wait_for. The future throws std::future_error (broken promise) if the request ends without an
/// outcome, because its handle is dropped or the client loses the daemon or is stopped.
template <typename T>
using FutureOutcome = HandleValue<std::future<std::pair<Status, T>>>;

}  // namespace Hox::Service::Discovery
