#pragma once

#include <string>

#include "exit_code.h"
#include "session.h"

namespace Hox::Ctl {

/// Prints the changes in a recording as `watch` has printed them. Throws CtlError if the file
/// cannot be read or is no recording. A recording that ends within an entry, because its writer was
/// killed, is printed up to there, with a note.
ExitCode replay(Session& session, const std::string& path, bool isFull);

}  // namespace Hox::Ctl
