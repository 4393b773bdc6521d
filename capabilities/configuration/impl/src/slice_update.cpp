#include "slice_update.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <string_view>
#include <utility>

#include "conf_keys.h"
#include "hox/cpputil/assertion/assertion.h"
#include "hox/observer_tree/path_error.h"

namespace Hox::Capability::Configuration {

using Hox::ObserverTree::DataTree;
using Hox::ObserverTree::DataTreeVal;
using Hox::ObserverTree::ObsTreeDataNodePairList;
using Hox::ObserverTree::PathType;
using Hox::ObserverTree::ProtoStatus;
using Hox::ObserverTree::Status;

namespace {

/// The only pair of an entry that is used. A sender that leaves the list empty breaks the protocol
/// of the configuration store, which ends the process in every kind of build.
Hox::ObserverTree::ObsTreeDataNodePair& firstPair(ObsTreeDataNodePairList& list) {
    if (list.nodepairlist().empty()) {
        Hox::CppUtil::getAssertion().assertTrue(
            false, "CHECK failed: (index) < (current_size_): ", __FILE__, __LINE__);
        std::abort();
    }
    return *list.mutable_nodepairlist(0);
}

}  // namespace

SliceUpdate::SliceUpdate(Api::UpdateCapConfReq& request, std::string root)
    : m_root(std::move(root)), m_isPatch(request.ispatch()) {
    auto& entries = *request.mutable_capconfchangeset()->mutable_node_change_map();
    m_entries.reserve(entries.size());
    for (auto& [key, pairList] : entries) {
        m_entries.push_back({&key, &firstPair(pairList)});
    }
    std::sort(m_entries.begin(), m_entries.end(),
              [](const Entry& left, const Entry& right) { return *left.key < *right.key; });
}

Status SliceUpdate::check() const {
    const bool isRootValid = m_path.isKey(m_root);
    for (const auto& entry : m_entries) {
        Status refusal = checkKey(*entry.key, isRootValid);
        if (!refusal.isOk()) {
            return refusal;
        }
    }
    return checkKey(stateIdKey, isRootValid);
}

Status SliceUpdate::checkKey(const std::string& key, bool isRootValid) const {
    if (m_root.size() + key.size() <= maxKeySize) {
        const std::string malformation = whyMalformed(key, isRootValid);
        if (!malformation.empty()) {
            return {ProtoStatus::FAILED_PRECONDITION, malformation};
        }
    }
    const std::string refusal = whyNotStorable(m_root + key);
    return refusal.empty() ? Status() : Status(ProtoStatus::INVALID_ARGUMENT, refusal);
}

/// The error text that the tree would throw for the key, alone or inside the slice, or an empty
/// text.
std::string SliceUpdate::whyMalformed(const std::string& key, bool isRootValid) const {
    if (isRootValid && key.size() > 1 && m_path.isKey(key)) {
        return {};
    }
    try {
        m_path.parsePath(PathType::Key, key);
        m_path.parsePath(PathType::Key, m_root + key);
    } catch (const Hox::ObserverTree::PathError& error) {
        return error.what();
    }
    return {};
}

void SliceUpdate::apply(DataTree& tree, const WriteHandler& onWrite) const {
    if (!m_isPatch) {
        removeOthers(tree);
    }
    writeEntries(tree, onWrite);
}

void SliceUpdate::removeOthers(DataTree& tree) const {
    std::vector<std::string> others;
    auto entry = m_entries.begin();
    for (const auto& element : tree.withPrefix(m_root)) {
        const auto key = std::string_view(element.first).substr(m_root.size());
        while (entry != m_entries.end() && *entry->key < key) {
            ++entry;
        }
        if (entry == m_entries.end() || *entry->key != key) {
            others.push_back(element.first);
        }
    }
    for (const auto& key : others) {
        tree.erase(key);
    }
}

void SliceUpdate::writeEntries(DataTree& tree, const WriteHandler& onWrite) const {
    auto position = tree.lower_bound(m_root);
    for (const auto& entry : m_entries) {
        std::string key;
        key.reserve(m_root.size() + entry.key->size());
        key.append(m_root).append(*entry.key);
        if (!entry.pair->has_currentmessage()) {
            tree.erase(key);
            position = tree.lower_bound(key);
            continue;
        }
        auto& value = *entry.pair->mutable_currentmessage();
        onWrite(key, value);
        const auto written = tree.insert_or_assign(
            position, std::move(key), std::make_shared<const DataTreeVal>(std::move(value)));
        position = std::next(written.first);
    }
}

}  // namespace Hox::Capability::Configuration
