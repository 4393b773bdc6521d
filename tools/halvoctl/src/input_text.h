#pragma once

#include <istream>
#include <string>

namespace Hox::Ctl {

/// Everything in the file, or in `in` if the path is "-". Throws CtlError if the file cannot be
/// read.
std::string readInput(std::istream& in, const std::string& path);

}  // namespace Hox::Ctl
