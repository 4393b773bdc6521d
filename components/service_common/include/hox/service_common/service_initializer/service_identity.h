#pragma once

#include <string>

namespace Hox::Service {

/// The identity of this service. All three texts are empty until the command line has been parsed.
struct ServiceIdentity {
    /// Names the service in publications and state reports; empty if none was given.
    std::string id;
    /// The node's number, first key of its stored data together with nodeType.
    std::string nodeId;
    /// The node's kind.
    std::string nodeType;
};

}  // namespace Hox::Service
