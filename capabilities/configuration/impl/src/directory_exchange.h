#pragma once

#include <filesystem>

namespace Hox::Capability::Configuration {

/// Lets two directories change names in one step, which a crash leaves done or undone. Both exist,
/// on one file system. Ends the process where that fails: which copy is in force would be unknown.
void exchangeDirectories(const std::filesystem::path& from, const std::filesystem::path& to);

}  // namespace Hox::Capability::Configuration
