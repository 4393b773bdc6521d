#pragma once

#include <string>
#include <utility>
#include <vector>

namespace Hox::Ctl {

/// Names and contents.
using PackageFiles = std::vector<std::pair<std::string, std::string>>;

/// A compressed tar archive of these files and symbolic links, whose contents are their targets. A
/// name that ends with a slash is a folder.
std::string makePackage(const PackageFiles& files, const PackageFiles& links = {});

/// The saved form of a text.
std::string savedText(const std::string& text);

}  // namespace Hox::Ctl
