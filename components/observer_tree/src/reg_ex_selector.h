#pragma once

#include <map>
#include <optional>

#include "hox/cpputil/regex/bounded_regex.h"
#include "hox/observer_tree/iobserve_handler.h"
#include "hox/observer_tree/tree_types.h"
#include "obstree.pb.h"

namespace Hox::ObserverTree {

/// Selects changes for observers by regular expressions that a key matches as a whole.
///
/// An expression is compiled once per observer. An observer with a malformed expression is passed
/// over; one whose expression turns out to take too much time or memory is told so, once.
class RegExSelector final : public IObserveHandler<TreeNode, RegExObserveReq> {
public:
    void observerArrived(const Observer& observer) override;
    void observerLeft(const Observer& observer) override;
    void deliver(const ChangeSetType& changes, const Observers& observers) override;
    void deliverTo(const Observer& observer, const ChangeSetType& changes) override;
    ChangeSetType snapshotFor(const Observer& observer, const DataTree& tree) override;

    /// What the observer that came last is to be told of its expression, nothing for a good one.
    /// Runs on the thread that has brought the observer, with the handler lock still held since
    /// then.
    std::optional<Status> takeRefusal();

private:
    /// Without those that were refused.
    std::map<const ObserverCallback*, Hox::CppUtil::BoundedRegex> m_expressions;
    std::optional<Status> m_refusal;  // GUARDED_BY(handler lock of the tree)
};

}  // namespace Hox::ObserverTree
