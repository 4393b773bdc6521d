#pragma once

#include <optional>
#include <string>

namespace Hox::Ctl {

/// Reads a regular file of a service, whose user may have put anything in its place: below the
/// folder no link is followed, and nothing but a regular file is read. The folder is a path as a
/// process sees it whose "/" is the root; "" is the root of this process. Nothing if there is no
/// such file. Throws CtlError if it cannot be read.
std::optional<std::string> readServiceFile(const std::string& root, const std::string& folder,
                                           const std::string& name);

}  // namespace Hox::Ctl
