#pragma once

#include <string>

#include "hox/cpputil/error/error.h"

namespace Hox::Service::Discovery {

/// Services cannot be published or found.
class ServiceDiscoveryError : public Hox::Error {
public:
    /// Prepends "Service Discovery Error: " to the message; throws std::bad_alloc only.
    ServiceDiscoveryError(const std::string& message, const char* file, int line)
        : Error("Service Discovery Error: " + message, file, line) {}
};

}  // namespace Hox::Service::Discovery
