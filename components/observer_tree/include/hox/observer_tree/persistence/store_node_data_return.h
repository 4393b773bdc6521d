#pragma once

#include <string>

#include "hox/observer_tree/status.h"

namespace Hox::ObserverTree {

/// The outcome of storing in a central store.
struct StoreNodeDataReturn {
    Status status;        ///< What came of it.
    std::string stateId;  ///< Identifies the stored state; counts only with an OK status.
};

}  // namespace Hox::ObserverTree
