#pragma once

#include "exit_code.h"
#include "session.h"

namespace Hox::Ctl {

/// Prints the capabilities on the network.
ExitCode discover(Session& session);

}  // namespace Hox::Ctl
