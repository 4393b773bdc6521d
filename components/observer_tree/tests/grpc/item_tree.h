#pragma once

#include <atomic>
#include <string>

#include "hox/observer_tree/observer_tree.h"
#include "test_service.pb.h"

namespace Hox::ObserverTree::Test {

/// The state of the handlers for "/items" that a test can check.
struct ItemHandlers {
    std::atomic<int> observers{0};     ///< The number of current observers.
    std::atomic<int> allObservers{0};  ///< The number of observers that have ever arrived.
};

/// Registers handlers of all operations on "/items": items are kept at "/items/<name>", and each
/// unary operation answers with its name and the item's. READ of the name "fail" answers with
/// NOT_FOUND, "no such item" and a message; READ of "nothing" answers with OK and no message.
void registerItemHandlers(ObserverTree& tree, ItemHandlers& handlers);

/// Creates an item by the tree's own operation.
void createItem(ObserverTree& tree, const std::string& name, int count = 0);

/// The count of the current value at a key of an element; -1 if there is none.
int currentCount(const ObsTreeObserveChangeSet& element, const std::string& key);

}  // namespace Hox::ObserverTree::Test
