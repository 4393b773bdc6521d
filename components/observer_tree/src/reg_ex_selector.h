#pragma once

#include "hox/observer_tree/tree_types.h"
#include "obstree.pb.h"

namespace Hox::ObserverTree {

/// Selects changes for observers by regular expressions that a key matches as a whole.
///
/// An expression is compiled once per observer. Runs under the observer mutex of its node.
class RegExSelector {
public:
    /// Calls each observer, in map order, with the changes that its expression selects, if any. An
    /// observer with a malformed expression is passed over.
    static void deliver(const ChangeSetType& changes,
                        const ObserverCallbackMap<RegExObserveReq>& observers);
};

}  // namespace Hox::ObserverTree
