#include "hox/observer_tree/change_set_conversion.h"

namespace Hox::ObserverTree {

namespace {

DataTreeValPtr packedValue(bool isPresent, const google::protobuf::Any& packed) {
    return isPresent ? std::make_shared<const DataTreeVal>(packed) : nullptr;
}

}  // namespace

void toWire(const ChangeSetMapVal& change, ObsTreeDataNodePair& pair) {
    if (change.current) {
        *pair.mutable_currentmessage() = *change.current->toAny();
    }
    if (change.previous) {
        *pair.mutable_prevmessage() = *change.previous->toAny();
    }
}

void toWire(const ChangeSetType& changes, ObsTreeObserveChangeSet& message) {
    auto& wireMap = *message.mutable_node_change_map();
    for (const auto& [key, keyChanges] : changes) {
        auto& pairList = *wireMap[key].mutable_nodepairlist();
        for (const auto& change : keyChanges) {
            toWire(change, *pairList.Add());
        }
    }
}

ChangeSetType fromWire(const ObsTreeObserveChangeSet& message) {
    ChangeSetType changes;
    for (const auto& [key, pairList] : message.node_change_map()) {
        auto& keyChanges = changes[key];
        keyChanges.reserve(static_cast<std::size_t>(pairList.nodepairlist_size()));
        for (const auto& pair : pairList.nodepairlist()) {
            keyChanges.push_back({packedValue(pair.has_currentmessage(), pair.currentmessage()),
                                  packedValue(pair.has_prevmessage(), pair.prevmessage())});
        }
    }
    return changes;
}

}  // namespace Hox::ObserverTree
