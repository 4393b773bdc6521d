#include "persistence/data_tree_update.h"

#include <google/protobuf/util/message_differencer.h>

#include <algorithm>
#include <memory>

namespace Hox::ObserverTree {

DataTreeUpdate::DataTreeUpdate(const UpdateDataTreeReq& request, const std::string& persistKeyRegex)
    : m_request(request),
      m_isRemoving(!request.node_remove_regex().empty()),
      m_removable(request.node_remove_regex()) {
    KeyExpression persistent(persistKeyRegex);
    m_entries.reserve(request.node_change_map().size());
    for (const auto& [key, pair] : request.node_change_map()) {
        if (persistent.matches(key)) {
            m_entries.emplace_back(&key, &pair);
        }
    }
    std::sort(m_entries.begin(), m_entries.end(),
              [](const Entry& left, const Entry& right) { return *left.first < *right.first; });
}

void DataTreeUpdate::applyTo(DataTree& tree) {
    const auto candidates = removalCandidates(tree);
    for (const auto& entry : m_entries) {
        apply(entry, tree);
    }
    for (const auto& key : candidates) {
        tree.erase(key);
    }
}

/// The keys that are selected for removal and that no entry names.
std::vector<std::string> DataTreeUpdate::removalCandidates(const DataTree& tree) {
    std::vector<std::string> candidates;
    if (!m_isRemoving) {
        return candidates;
    }
    auto entry = m_entries.begin();
    for (const auto& [key, value] : tree) {
        while (entry != m_entries.end() && *entry->first < key) {
            ++entry;
        }
        const bool isNamed = entry != m_entries.end() && *entry->first == key;
        if (!isNamed && !value->notPersisted() && m_removable.matches(key)) {
            candidates.push_back(key);
        }
    }
    return candidates;
}

/// Only what the request could have removed is compared.
bool DataTreeUpdate::isUnchanged(DataTree::iterator position, const Entry& entry,
                                 const DataTree& tree) {
    return m_request.do_compare() && m_isRemoving && position != tree.end() &&
           position->first == *entry.first && m_removable.matches(*entry.first) &&
           google::protobuf::util::MessageDifferencer::Equals(*position->second->toAny(),
                                                              entry.second->currentmessage());
}

void DataTreeUpdate::apply(const Entry& entry, DataTree& tree) {
    if (!entry.second->has_currentmessage()) {
        tree.erase(*entry.first);
        return;
    }
    const auto position = tree.lower_bound(*entry.first);
    if (!isUnchanged(position, entry, tree)) {
        tree.insert_or_assign(position, std::string(*entry.first),
                              std::make_shared<const DataTreeVal>(entry.second->currentmessage()));
    }
}

}  // namespace Hox::ObserverTree
