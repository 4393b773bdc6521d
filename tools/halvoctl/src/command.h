#pragma once

#include <functional>

#include "exit_code.h"
#include "session.h"

namespace Hox::Ctl {

/// What the user has asked for. Throws CtlError if it fails.
using Command = std::function<ExitCode(Session&)>;

}  // namespace Hox::Ctl
