#pragma once

#include <any>
#include <functional>
#include <string>

#include "hox/observer_tree/data_tree.h"
#include "hox/observer_tree/persistence/store_node_data_return.h"
#include "hox/observer_tree/status.h"

namespace Hox::ObserverTree {

/// A central store for the persistent part of a tree.
class INodeDataHndlr {
public:
    virtual ~INodeDataHndlr() = default;

    /// Sends changes to the store, or the whole content if isPatch is false. Blocks; runs with the
    /// locks of the tree held. ALREADY_EXISTS means "nothing to send".
    virtual StoreNodeDataReturn storeNodeData(const std::string& lastStateId,
                                              const std::string& nodeType,
                                              const std::string& nodeId,
                                              const std::string& capabilityId,
                                              const ChangeSetType& changes, bool isPatch) = 0;

    /// Delivers the store's content whenever it differs from lastStateId, on a thread of the
    /// store's client that holds the capability's mutex, until the returned handle is destroyed.
    virtual std::any observeNodeData(
        const std::string& lastStateId, const std::string& nodeType, const std::string& nodeId,
        const std::string& capabilityId,
        std::function<void(ChangeSetType, const Status&)> callback) = 0;
};

}  // namespace Hox::ObserverTree
