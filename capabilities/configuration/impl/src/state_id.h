#pragma once

#include <string>

#include "hox/observer_tree/data_tree.h"

namespace Hox::Capability::Configuration {

/// A new state id: the system clock's count since the epoch, in decimal.
std::string newStateId();

/// The tree value that holds the id. Saved configurations depend on its unusual form: a StringValue
/// whose text is the JSON form of a packed StringValue that holds the id.
Hox::ObserverTree::DataTreeValPtr stateIdToValue(const std::string& stateId);

/// Whether the tree value holds an id that can be read.
bool isStateId(const Hox::ObserverTree::DataTreeVal& value);

/// Whether the tree value holds this id. A value that cannot be read holds no id.
bool holdsStateId(const Hox::ObserverTree::DataTreeVal& value, const std::string& stateId);

}  // namespace Hox::Capability::Configuration
