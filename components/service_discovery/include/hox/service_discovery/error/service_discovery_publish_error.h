#pragma once

#include <string>

#include "hox/cpputil/error/error.h"

namespace Hox::Service::Discovery {

/// A publication has ended with a status other than published.
class ServiceDiscoveryPublishError : public Hox::Error {
public:
    /// Prepends "Service Discovery Publish Error(<code>): " to the message; throws std::bad_alloc
    /// only.
    ServiceDiscoveryPublishError(const std::string& message, int code, const char* file, int line)
        : Error("Service Discovery Publish Error(" + std::to_string(code) + "): " + message, file,
                line),
          m_code(code) {}

    /// The status of the publication.
    int code() const { return m_code; }

private:
    int m_code;
};

}  // namespace Hox::Service::Discovery
