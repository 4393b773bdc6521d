#pragma once

#include <filesystem>
#include <vector>

namespace Hox::Testing {

/// Mounts an empty folder, private to this process, over each of the folders, which must exist.
/// Files that the process writes there never reach the machine and disappear with the process.
///
/// Applies to the calling thread and to threads and children that it starts afterwards. Returns
/// false if the machine does not allow private mounts; tests that need them call skipOutsideCi()
/// then.
bool mountPrivateFolders(const std::vector<std::filesystem::path>& folders);

}  // namespace Hox::Testing
