#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace Hox::Ctl {

/// Runs a program, which is looked for in PATH, and returns its output. Throws CtlError if it
/// cannot be started or fails; one that takes longer than the limit is killed and has failed.
std::string outputOf(std::vector<std::string> words, std::chrono::milliseconds limit);

}  // namespace Hox::Ctl
