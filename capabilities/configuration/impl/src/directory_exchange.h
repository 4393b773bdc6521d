#pragma once

#include <filesystem>

namespace Hox::Capability::Configuration {

/// Exchanges the names of two directories atomically; after a crash the exchange is either done or
/// not done. Both must exist on one file system. Ends the process on failure: it would be unknown
/// which copy is in force.
void exchangeDirectories(const std::filesystem::path& from, const std::filesystem::path& to);

}  // namespace Hox::Capability::Configuration
