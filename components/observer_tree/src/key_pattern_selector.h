#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "hox/observer_tree/path_manipulation.h"
#include "hox/observer_tree/tree_types.h"
#include "obstree.pb.h"

namespace Hox::ObserverTree {

/// Selects changes for observers by their key patterns.
///
/// A pattern is parsed once and shared by all observers that use it, and its selection is made once
/// per delivery. Runs under the observer mutex of its node, which serialises all calls.
class KeyPatternSelector {
public:
    /// Calls each observer, in map order, with the changes that its pattern selects, if any. An
    /// observer with a malformed pattern is passed over. Throws std::bad_variant_access for a
    /// pattern that cannot be matched; the observers behind it then miss the changes.
    void deliver(const ChangeSetType& changes, const ObserverCallbackMap<ObserveReq>& observers);

private:
    /// What all observers with one pattern share.
    struct Selection {
        /// What decides whether a key is selected.
        enum class Kind {
            Nothing,  ///< The pattern is malformed.
            Key,      ///< `prefix` is the one key.
            Subtree,  ///< Every key at or below `prefix`.
            Pattern,  ///< Every key at or below `prefix` that `pattern` matches.
        };

        Kind kind = Kind::Nothing;
        uint64_t pass = 0;     // the delivery that the rest belongs to
        bool isWhole = false;  // selects every change
        std::string prefix;    // the literal components ahead of the first wildcard
        ChangeSetType part;    // the selected changes, unless isWhole
        PathComponents pattern;
    };
    using SelectionPtr = std::shared_ptr<Selection>;

    SelectionPtr selectionFor(const std::string& keyPattern);
    void parse(const std::string& keyPattern, Selection& selection) const;
    void dropUnusedSelections();
    void select(const ChangeSetType& changes, const SelectionPtr& selection);
    bool selects(const Selection& selection, const std::string& key) const;
    void forgetPass();

    PathManipulation m_path;
    std::map<std::string, std::weak_ptr<Selection>> m_selections;
    std::size_t m_sweepSize = 16;  // size of m_selections that makes a sweep worth its while
    uint64_t m_pass = 0;
    std::vector<ChangeSetType::const_iterator> m_selected;  // of one selection
    std::vector<SelectionPtr> m_withPart;  // hold changes that must not outlive the pass
};

}  // namespace Hox::ObserverTree
