#pragma once

#include <exception>

#include "hox/observer_tree/tree_types.h"
#include "obstree.pb.h"

namespace Hox::ObserverTree {

/// Selects changes for observers by regular expressions that a key matches as a whole.
///
/// An expression is compiled once per observer. Runs under the observer mutex of its node.
class RegExSelector {
public:
    /// Calls each observer, in map order, with the changes that its expression selects, if any. An
    /// observer with a malformed expression is passed over; one whose expression turns out to be
    /// too expensive is told, once.
    static void deliver(const ChangeSetType& changes,
                        const ObserverCallbackMap<RegExObserveReq>& observers);

    /// What an observer with a refused expression is told.
    static Status refusal(const RegExObserveReq& request, const std::exception& error);
};

}  // namespace Hox::ObserverTree
