#pragma once

#include <string>

#include "exit_code.h"
#include "session.h"

namespace Hox::Ctl {

/// Prints to what a key of the configuration belongs, and which services on the network have its
/// capability. Throws CtlError for a text that is no key in a slice.
ExitCode showOwner(Session& session, const std::string& key);

}  // namespace Hox::Ctl
