#include "change_tracker.h"

#include <utility>

namespace Hox::Ctl {

using ObserverTree::ObsTreeDataNodePair;

namespace {

Change changeOf(ChangeKind kind, const std::string& key) {
    Change change;
    change.set_kind(kind);
    change.set_key(key);
    return change;
}

Change changeOf(const std::string& key, const ObsTreeDataNodePair& pair) {
    if (!pair.has_currentmessage()) {
        auto change = changeOf(REMOVED, key);
        *change.mutable_previous() = pair.prevmessage();
        return change;
    }
    auto change = changeOf(pair.has_prevmessage() ? CHANGED : ADDED, key);
    *change.mutable_current() = pair.currentmessage();
    if (pair.has_prevmessage()) {
        *change.mutable_previous() = pair.prevmessage();
    }
    return change;
}

/// The changes of an element by key: their order in a message is random.
std::map<std::string, const ObserverTree::ObsTreeDataNodePairList*> byKey(
    const ObserverTree::ObsTreeObserveChangeSet& element) {
    std::map<std::string, const ObserverTree::ObsTreeDataNodePairList*> sorted;
    for (const auto& [key, pairs] : element.node_change_map()) {
        sorted.emplace(key, &pairs);
    }
    return sorted;
}

}  // namespace

std::vector<Change> ChangeTracker::apply(const ObserverTree::ObsTreeObserveChangeSet& element) {
    std::vector<Change> changes;
    for (const auto& [key, pairs] : byKey(element)) {
        for (const auto& pair : pairs->nodepairlist()) {
            if (!pair.has_currentmessage() && !pair.has_prevmessage()) {
                continue;
            }
            changes.push_back(changeOf(key, pair));
            if (pair.has_currentmessage()) {
                m_values[key] = pair.currentmessage();
            } else {
                m_values.erase(key);
            }
        }
    }
    return changes;
}

std::vector<Change> ChangeTracker::applySnapshot(
    const ObserverTree::ObsTreeObserveChangeSet& element) {
    std::vector<Change> changes;
    auto former = std::exchange(m_values, {});
    for (const auto& [key, pairs] : byKey(element)) {
        if (pairs->nodepairlist().empty() ||
            !pairs->nodepairlist().rbegin()->has_currentmessage()) {
            continue;
        }
        const auto& value = pairs->nodepairlist().rbegin()->currentmessage();
        const auto known = former.find(key);
        if (known == former.end()) {
            *changes.emplace_back(changeOf(ADDED, key)).mutable_current() = value;
        } else if (!m_areSame(known->second, value)) {
            auto& change = changes.emplace_back(changeOf(CHANGED, key));
            *change.mutable_current() = value;
            *change.mutable_previous() = std::move(known->second);
        }
        if (known != former.end()) {
            former.erase(known);
        }
        m_values[key] = value;
    }
    for (auto& [key, value] : former) {
        *changes.emplace_back(changeOf(GONE, key)).mutable_previous() = std::move(value);
    }
    return changes;
}

}  // namespace Hox::Ctl
