#pragma once

#include <string>

namespace Hox::SystemAPI {

/// What there is to know about one product model.
struct ModelInfo {
    std::string name;  ///< as customers see it
    int partNumber = 0;
    int moduleSlots = 0;
    int rackUnits = 0;  ///< height of the case
};

}  // namespace Hox::SystemAPI
