#pragma once

namespace Hox::Capability::StateMonitoring {

/// The state of the machine as seen by its service manager.
enum class SystemState : int { Unknown = 0, Starting = 1, Running = 2, Degraded = 3 };

}  // namespace Hox::Capability::StateMonitoring
