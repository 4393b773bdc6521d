#pragma once

#include <string>

#include "session.h"

namespace Hox::Ctl {

/// Asks on the error output whether to do what cannot be undone, unless isSure. Throws CtlError
/// without a terminal, and for another answer than yes.
void askFirst(const Session& session, bool isSure, const std::string& what);

}  // namespace Hox::Ctl
