#pragma once

#include <filesystem>
#include <optional>

#include "hox/system_api/model_info.h"

namespace Hox::SystemAPI {

/// The model of this machine: the row of the model table that has the part number of the first
/// record of type 0 in the serial file.
///
/// Empty if there is no such record or row, or if the file cannot be read; never throws. A member
/// of the file that must be a number and contains other characters fails an assertion. Callable
/// from any thread.
std::optional<ModelInfo> findModel(const std::filesystem::path& serialFile = "/etc/serial");

}  // namespace Hox::SystemAPI
