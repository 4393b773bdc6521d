#pragma once

#include <string>

#include "hox/observer_tree/status.h"

namespace Hox::ObserverTree {

/// The outcome of storing in a central store.
struct StoreNodeDataReturn {
    Status status;        ///< The outcome.
    std::string stateId;  ///< Identifies the stored state; valid only with an OK status.
};

}  // namespace Hox::ObserverTree
