#pragma once

#include <cstddef>

#include "doctor.pb.h"

namespace Hox::Ctl {

/// Whether a configuration of this size, as estimated for an export, can be exported, also when it
/// has grown a little.
Check sizeCheck(std::size_t estimate);

}  // namespace Hox::Ctl
