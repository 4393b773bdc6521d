#pragma once

#include <string>

namespace Hox::Log {

/// The name of a class's logger: the base name of `file`, "::", and `function` up to its lambda
/// part.
///
/// A class that logs declares
/// `std::function<std::string()> _HALVOMACRO_loggerName =
///      [] { return Hox::Log::loggerName(__PRETTY_FUNCTION__, __FILE__); };`
/// so that the file is the one that holds the lambda. The name is kept although its form is
/// reserved for compilers: the classes of all services have it, and it meets no name of ours.
std::string loggerName(const std::string& function, const std::string& file);

}  // namespace Hox::Log
