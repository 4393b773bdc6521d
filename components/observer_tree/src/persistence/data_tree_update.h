#pragma once

#include <string>
#include <utility>
#include <vector>

#include "hox/observer_tree/tree_types.h"
#include "obstree_internals.pb.h"
#include "persistence/key_expression.h"

namespace Hox::ObserverTree {

/// Applies a request to the persistent part of a data tree: writes or removes the keys it names,
/// and removes those that it selects but does not name. Used under the tree's data lock.
class DataTreeUpdate {
public:
    /// The request must outlive the object. Throws std::regex_error or InvalidArgumentError for an
    /// expression that cannot be used.
    DataTreeUpdate(const UpdateDataTreeReq& request, const std::string& persistKeyRegex);

    /// Throws what the tree throws for a key that it does not take; some keys may be written then.
    void applyTo(DataTree& tree);

private:
    using Entry = std::pair<const std::string*, const ObsTreeDataNodePair*>;

    std::vector<std::string> removalCandidates(const DataTree& tree);
    bool isUnchanged(DataTree::iterator position, const Entry& entry, const DataTree& tree);
    void apply(const Entry& entry, DataTree& tree);

    const UpdateDataTreeReq& m_request;
    std::vector<Entry> m_entries;  // in the order of the keys
    bool m_isRemoving;
    KeyExpression m_removable;
};

}  // namespace Hox::ObserverTree
