#pragma once

#include <string>

#include "hox/observer_tree/data_tree.h"
#include "obstree.pb.h"

namespace Hox::Capability::Configuration {

/// The wire form of the changes, each value as JSON text in a google.protobuf.StringValue: the
/// store needs no descriptors of the messages that it keeps. A value that JSON cannot represent has
/// the form that it also has in files. The key of the state id is left out. Runs under the data
/// lock of the values' tree.
///
/// Throws std::out_of_range for a key without changes, InvalidArgumentError for a value whose type
/// URL is not UTF-8.
Hox::ObserverTree::ObsTreeObserveChangeSet changeSetToJson(
    const Hox::ObserverTree::ChangeSetType& changes);

/// The reverse for what the store has sent. Asserts that each key has a change. Throws
/// InvalidArgumentError, which says why, for a key that no tree or file takes and for a current
/// value that is not such a text; a previous value like that is left out, because the store may
/// have got a good one in its place.
Hox::ObserverTree::ChangeSetType changeSetFromJson(const Hox::ObserverTree::ChangeSetType& changes);

}  // namespace Hox::Capability::Configuration
