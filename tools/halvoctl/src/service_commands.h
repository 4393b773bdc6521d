#pragma once

#include <string>

#include "exit_code.h"
#include "session.h"

namespace Hox::Ctl {

/// Asks each endpoint for its services, and prints the time that the answer took.
ExitCode ping(Session& session);

/// Prints all methods with operation and address.
ExitCode listMethods(Session& session);

/// Prints the proto text of what has this name.
ExitCode describe(Session& session, const std::string& symbol);

}  // namespace Hox::Ctl
