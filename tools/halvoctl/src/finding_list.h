#pragma once

#include <cstddef>
#include <string>

#include "hox/configuration/package_rules.h"
#include "package.h"
#include "package.pb.h"

namespace Hox::Ctl {

/// The largest estimate with which a service exports its configuration.
constexpr std::size_t exportLimit = Hox::Capability::Configuration::maxPackageSize;

/// How large a service estimates an export of this content, which it compares with the limit.
///@{
std::size_t exportEstimate(const Package& package);
std::size_t exportEstimate(std::size_t bytesOfFiles, std::size_t folders);
///@}

/// Everything that is wrong in the archive as a package, or will be after its import: what a
/// service refuses, what it loads as something else, and what surprises later.
FindingList findingsIn(const std::string& archive);

}  // namespace Hox::Ctl
