#pragma once

#include "hox/observer_tree/data_tree.h"
#include "obstree.pb.h"

namespace Hox::ObserverTree {

/// Sets the values that the change has. Runs under the data lock of the values' tree.
void toWire(const ChangeSetMapVal& change, ObsTreeDataNodePair& pair);

/// Adds the changes to node_change_map, key by key; each value is packed once, however often it is
/// sent. Runs under the data lock of the values' tree.
void toWire(const ChangeSetType& changes, ObsTreeObserveChangeSet& message);

/// The native form of a received change set; its values stay packed until somebody asks for a type.
ChangeSetType fromWire(const ObsTreeObserveChangeSet& message);

/// The same for a message that nobody reads afterwards: moves the values out of it, unless it is in
/// an arena, which they have to leave as copies.
ChangeSetType fromWire(ObsTreeObserveChangeSet&& message);

}  // namespace Hox::ObserverTree
