#pragma once

#include "hox/observer_tree/data_tree.h"
#include "obstree.pb.h"

namespace Hox::ObserverTree {

/// Sets the values of the change in the pair. Runs under the data lock of the values' tree.
void toWire(const ChangeSetMapVal& change, ObsTreeDataNodePair& pair);

/// Adds the changes to node_change_map, key by key; each value is packed only once, however often
/// it is sent. Runs under the data lock of the values' tree.
void toWire(const ChangeSetType& changes, ObsTreeObserveChangeSet& message);

/// The native form of a received change set; its values stay packed until a type is requested.
ChangeSetType fromWire(const ObsTreeObserveChangeSet& message);

/// The same for a message that is not read afterwards: moves the values out of it. Values of a
/// message in an arena are copied instead.
ChangeSetType fromWire(ObsTreeObserveChangeSet&& message);

}  // namespace Hox::ObserverTree
