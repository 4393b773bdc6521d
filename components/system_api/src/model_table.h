#pragma once

#include <vector>

#include "hox/system_api/model_info.h"

namespace Hox::SystemAPI {

/// The known product models, in the order of the file that the build read them from. Each part
/// number occurs once. Callable from any thread.
const std::vector<ModelInfo>& modelTable();

}  // namespace Hox::SystemAPI
