#pragma once

#include <cstddef>
#include <cstdint>

namespace Hox::Capability::Configuration {

/// The largest estimate of a package with which the configuration is exported, in bytes.
constexpr std::size_t maxPackageSize = 524288;

/// How many files and folders a package may have.
constexpr std::size_t maxPackageEntries = 40000;

/// How many bytes all files of a package together may have.
constexpr std::uint64_t maxPackageContent = std::uint64_t{8} << 20;

/// If this file exists, a package is accepted whatever machine it was made for.
constexpr const char* overrideMarker = "/tmp/headend_override_compat_check";

}  // namespace Hox::Capability::Configuration
