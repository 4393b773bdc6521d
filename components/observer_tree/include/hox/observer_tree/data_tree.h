#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "hox/observer_tree/data_tree_map.h"
#include "hox/observer_tree/data_tree_val.h"
#include "hox/observer_tree/restricted_data_tree.h"

namespace Hox::ObserverTree {

/// How a value is held everywhere.
using DataTreeValPtr = std::shared_ptr<const DataTreeVal>;

/// The map that all trees use.
using DataTreeValMap = DataTreeMap<std::string, DataTreeValPtr>;

/// The store of an observer tree, as visible to handlers.
using DataTree = RestrictedDataTree<DataTreeValMap>;

/// One change of one key.
using ChangeSetMapVal = DataTreeValMap::ChangeSetMapVal;

/// Key to its changes, in key order.
using ChangeSetType = DataTreeValMap::ChangeSet;

}  // namespace Hox::ObserverTree
