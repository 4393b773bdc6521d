#pragma once

#include "exit_code.h"
#include "session.h"

namespace Hox::Ctl {

/// Prints what can be measured at each endpoint, once, as a text for Prometheus. An endpoint that
/// cannot be reached also has a sample; the result is Unreachable then.
ExitCode printMetrics(Session& session);

}  // namespace Hox::Ctl
