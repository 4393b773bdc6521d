#pragma once

#include <string>

namespace Hox::Ctl {

/// The name of the class that a logger belongs to, without file, namespaces, template arguments and
/// parameters: the whole name has up to 900 characters. "(default)" for the empty name.
std::string shortLoggerName(const std::string& name);

}  // namespace Hox::Ctl
