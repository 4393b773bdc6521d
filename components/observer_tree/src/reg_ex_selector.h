#pragma once

#include <map>
#include <optional>

#include "hox/cpputil/regex/bounded_regex.h"
#include "hox/observer_tree/iobserve_handler.h"
#include "hox/observer_tree/tree_types.h"
#include "obstree.pb.h"

namespace Hox::ObserverTree {

/// Selects changes for observers by regular expressions that must match the whole key.
///
/// An expression is compiled once per observer. An observer with a malformed expression is skipped;
/// an observer whose expression takes too much time or memory gets one call that says so.
class RegExSelector final : public IObserveHandler<TreeNode, RegExObserveReq> {
public:
    void observerArrived(const Observer& observer) override;
    void observerLeft(const Observer& observer) override;
    void deliver(const ChangeSetType& changes, const Observers& observers) override;
    void deliverTo(const Observer& observer, const ChangeSetType& changes) override;
    ChangeSetType snapshotFor(const Observer& observer, const DataTree& tree) override;

    /// The refusal for the expression of the last observer that arrived, nothing for a valid
    /// expression. Runs on the thread that registered the observer; the handler lock has been held
    /// since then.
    std::optional<Status> takeRefusal();

private:
    /// Without the refused expressions.
    std::map<const ObserverCallback*, Hox::CppUtil::BoundedRegex> m_expressions;
    std::optional<Status> m_refusal;  // GUARDED_BY(handler lock of the tree)
};

}  // namespace Hox::ObserverTree
