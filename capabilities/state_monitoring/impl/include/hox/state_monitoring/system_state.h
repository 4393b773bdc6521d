#pragma once

namespace Hox::Capability::StateMonitoring {

/// How far the machine is, as its service manager sees it.
enum class SystemState : int { Unknown = 0, Starting = 1, Running = 2, Degraded = 3 };

}  // namespace Hox::Capability::StateMonitoring
