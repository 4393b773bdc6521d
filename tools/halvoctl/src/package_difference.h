#pragma once

#include "package.h"
#include "package.pb.h"

namespace Hox::Ctl {

/// The keys whose saved values differ, without state ids.
PackageDifference differenceOf(const Package& before, const Package& after);

}  // namespace Hox::Ctl
