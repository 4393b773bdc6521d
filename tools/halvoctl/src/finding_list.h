#pragma once

#include <cstddef>

#include "package.h"
#include "package.pb.h"

namespace Hox::Ctl {

/// The largest estimate with which a service exports its configuration.
constexpr std::size_t exportLimit = 524288;

/// How large a service estimates an export of this content, which it compares with the limit.
///@{
std::size_t exportEstimate(const Package& package);
std::size_t exportEstimate(std::size_t bytesOfFiles, std::size_t folders);
///@}

/// Everything that is wrong in the package, or will be after its import: what a service refuses,
/// what it loads as something else, and what surprises later.
FindingList findingsIn(const Package& package);

}  // namespace Hox::Ctl
