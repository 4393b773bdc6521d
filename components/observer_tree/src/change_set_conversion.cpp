#include "hox/observer_tree/change_set_conversion.h"

#include <algorithm>
#include <iterator>
#include <utility>
#include <vector>

namespace Hox::ObserverTree {

namespace {

DataTreeValPtr valueOf(google::protobuf::Any packed) {
    return std::make_shared<const DataTreeVal>(std::move(packed));
}

ChangeSetMapVal changeOf(const ObsTreeDataNodePair& pair) {
    return {pair.has_currentmessage() ? valueOf(pair.currentmessage()) : nullptr,
            pair.has_prevmessage() ? valueOf(pair.prevmessage()) : nullptr};
}

ChangeSetMapVal takeChange(ObsTreeDataNodePair& pair) {
    return {
        pair.has_currentmessage() ? valueOf(std::move(*pair.mutable_currentmessage())) : nullptr,
        pair.has_prevmessage() ? valueOf(std::move(*pair.mutable_prevmessage())) : nullptr};
}

/// The keys of a wire map, each with the result of `changesOf` for its entry.
template <typename WireMap, typename ChangesOf>
ChangeSetType convert(WireMap& wireMap, const ChangesOf& changesOf) {
    // A wire map has no order; sorted first, each key is inserted at a known position.
    std::vector<decltype(&*wireMap.begin())> entries;
    entries.reserve(wireMap.size());
    for (auto& entry : wireMap) {
        entries.push_back(&entry);
    }
    std::sort(entries.begin(), entries.end(),
              [](const auto* left, const auto* right) { return left->first < right->first; });
    ChangeSetType changes;
    for (auto* entry : entries) {
        changes.emplace_hint(changes.end(), entry->first, changesOf(entry->second));
    }
    return changes;
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
    return convert(message.node_change_map(), [](const ObsTreeDataNodePairList& pairs) {
        ChangeSetType::mapped_type changes;
        std::transform(pairs.nodepairlist().begin(), pairs.nodepairlist().end(),
                       std::back_inserter(changes), changeOf);
        return changes;
    });
}

ChangeSetType fromWire(ObsTreeObserveChangeSet&& message) {
    return convert(*message.mutable_node_change_map(), [](ObsTreeDataNodePairList& pairs) {
        ChangeSetType::mapped_type changes;
        std::transform(pairs.mutable_nodepairlist()->begin(), pairs.mutable_nodepairlist()->end(),
                       std::back_inserter(changes), takeChange);
        return changes;
    });
}

}  // namespace Hox::ObserverTree
