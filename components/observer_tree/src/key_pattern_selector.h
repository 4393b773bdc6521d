#pragma once

#include <cstddef>
#include <exception>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "hox/observer_tree/iobserve_handler.h"
#include "hox/observer_tree/path_manipulation.h"
#include "hox/observer_tree/tree_types.h"
#include "key_pattern.h"
#include "obstree.pb.h"

namespace Hox::ObserverTree {

/// Selects changes for observers by their key patterns.
///
/// A pattern is parsed once and shared by all observers that use it, and its selection is made once
/// per delivery. Patterns that may select a changed key are found by their literals, so the other
/// patterns cost nothing. An observer with a malformed pattern is skipped.
class KeyPatternSelector final : public IObserveHandler<TreeNode, ObserveReq> {
public:
    void observerArrived(const Observer& observer) override;
    void observerLeft(const Observer& observer) override;
    void deliver(const ChangeSetType& changes, const Observers& observers) override;
    void deliverTo(const Observer& observer, const ChangeSetType& changes) override;
    ChangeSetType snapshotFor(const Observer& observer, const DataTree& tree) override;

    /// The refusal for the pattern of the last observer that arrived, nothing for a valid pattern.
    /// Runs on the thread that registered the observer; the handler lock has been held since then.
    std::optional<Status> takeRefusal();

private:
    /// The observers with one pattern, and its selection from the changes of one pass.
    struct Selection {
        explicit Selection(KeyPattern parsed) : pattern(std::move(parsed)) {}

        KeyPattern pattern;
        std::set<const ObserverCallback*> observers;
        std::vector<ChangeSetType::const_iterator> selected;
        ChangeSetType part;          // the selection, unless it is everything
        std::exception_ptr failure;  // of the matcher
    };

    using Selections = std::map<std::string, Selection>;
    /// Selections whose patterns have one shape, by the hash of their literals.
    using SelectionsByHash = std::unordered_map<std::size_t, std::set<Selection*>>;

    /// Clears the state of the pass at its end, also on error.
    struct Pass;

    Selection* selectionOf(const Observer& observer);
    Selection& addSelection(const std::string& keyPattern);
    void removeSelection(Selections::iterator position);
    template <typename Visitor>
    void visitCandidates(const std::string& key, Visitor visit);
    void match(Selection& selection, ChangeSetType::const_iterator change);
    void makePart(Selection& selection, const ChangeSetType& changes);
    void tellAll(const ChangeSetType& changes);
    void tell(const ObserverCallback& callback, const Selection& selection,
              const ChangeSetType& changes) const;

    const PathManipulation m_path;
    const Status m_ok;
    Selections m_selections;  // by pattern
    std::map<KeyPatternShape, SelectionsByHash> m_byShape;
    std::vector<Selection*> m_concerned;                                        // of one pass
    std::vector<std::pair<const ObserverCallback*, const Selection*>> m_calls;  // of one pass
    std::optional<Status> m_refusal;  // GUARDED_BY(handler lock of the tree)
};

}  // namespace Hox::ObserverTree
