#pragma once

#include <filesystem>

namespace Hox::LinuxCppUtil {

/// Removes what lies at the path: a file, a link but not what it leads to, or a directory with all
/// that is in it. It is no error if nothing is there.
///
/// Unlike the standard library's function it takes trees of any depth: it has two descriptors open
/// at a time, and names below the path may add up to more than a path may have. A directory whose
/// owner has no right to change it is given that right first, as far as this process may do so.
///
/// Throws std::filesystem::filesystem_error with the path of what cannot be removed, and with
/// ESTALE if somebody else moves a directory of the tree meanwhile; the rest stays then.
void removeTree(const std::filesystem::path& path);

}  // namespace Hox::LinuxCppUtil
