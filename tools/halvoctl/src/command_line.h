#pragma once

#include <string>
#include <vector>

#include "exit_code.h"
#include "surroundings.h"

namespace Hox::Ctl {

/// Runs the tool once with the words of a command line, without the name of the program. Every
/// error is printed and has become an exit status when it returns.
ExitCode runCommandLine(const std::vector<std::string>& words, Surroundings& surroundings);

}  // namespace Hox::Ctl
