#pragma once

#include <functional>
#include <string>

#include "hox/observer_tree/data_tree.h"

namespace Hox::ObserverTree {

/// Stores one change under the key; replaces its previous changes. Code outside of a tree writes
/// change sets with it. Asserts that the index is 0.
void addToChangeSet(ChangeSetType& changeSet, const std::string& key, DataTreeValPtr current,
                    DataTreeValPtr previous, int index);

namespace Detail {

/// Throws DataTreeValError, which names the side, if the pointer is null.
const DataTreeVal& dereference(const DataTreeValPtr& value, const char* side);

}  // namespace Detail

/// For an observer of exactly one key: calls back with the typed current and previous message of
/// the first change, with a default message for an absent one. Throws std::out_of_range if the key
/// has no change, BadCast if a message is not a T.
template <typename T>
void callTypedObserver(const ChangeSetType& changes,
                       const std::function<void(const T&, const T&)>& callback) {
    const ChangeSetMapVal change = changes.begin()->second.at(0);
    T current;
    T previous;
    if (change.current) {
        current = Detail::dereference(change.current, "current").template get<T>();
    }
    if (change.previous) {
        previous = Detail::dereference(change.previous, "previous").template get<T>();
    }
    callback(current, previous);
}

}  // namespace Hox::ObserverTree
