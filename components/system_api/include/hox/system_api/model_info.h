#pragma once

#include <string>

namespace Hox::SystemAPI {

/// The properties of one product model.
struct ModelInfo {
    std::string name;  ///< as shown to customers
    int partNumber = 0;
    int moduleSlots = 0;
    int rackUnits = 0;  ///< height of the case
};

}  // namespace Hox::SystemAPI
