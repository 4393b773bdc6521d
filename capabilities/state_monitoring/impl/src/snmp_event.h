#pragma once

#include <string>

namespace Hox::Capability::StateMonitoring {

/// The content of a trap.
struct SnmpEvent {
    std::string trapName;  ///< with its MIB, "MIB::name"
    int severity = 0;
    std::string source;
    std::string msg;
};

}  // namespace Hox::Capability::StateMonitoring
