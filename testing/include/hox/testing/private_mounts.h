#pragma once

#include <filesystem>
#include <vector>

namespace Hox::Testing {

/// Puts an empty folder of this process's own over each of the folders, which must exist: what the
/// process writes there never reaches the machine, and goes away with the process.
///
/// Counts for the calling thread and for threads and children that it starts afterwards. Returns
/// false where the machine does not let the process have mounts of its own;
/// tests that need them call skipOutsideCi() then.
bool mountPrivateFolders(const std::vector<std::filesystem::path>& folders);

}  // namespace Hox::Testing
