#pragma once

#include "exit_code.h"
#include "session.h"

namespace Hox::Ctl {

/// Prints what can be measured at each endpoint, once, as a text for Prometheus. An endpoint that
/// is not reached is a sample, too; then it returns Unreachable.
ExitCode printMetrics(Session& session);

}  // namespace Hox::Ctl
