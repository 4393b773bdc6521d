#pragma once

#include <map>
#include <string>

namespace Hox::Ctl {

/// A tar archive of these files, name to content, compressed with gzip. Throws CtlError if it
/// cannot be made.
std::string packFiles(const std::map<std::string, std::string>& files);

}  // namespace Hox::Ctl
