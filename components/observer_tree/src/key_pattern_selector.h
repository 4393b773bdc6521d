#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
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
        uint64_t pass = 0;       // the delivery that the rest belongs to
        bool isWhole = false;    // selects every change
        std::string prefix;      // the literal components ahead of the first wildcard
        ChangeSetType part;      // the selected changes, unless isWhole
        PathComponents pattern;  // only for Kind::Pattern, as it takes twenty times its text
    };
    using SelectionPtr = std::shared_ptr<Selection>;

    /// What is derived from one observer's request; tells when that observer goes.
    struct Watch {
        Watch(SelectionPtr shared, std::shared_ptr<bool> isCurrent)
            : selection(std::move(shared)), isListCurrent(std::move(isCurrent)) {}
        ~Watch() { *isListCurrent = false; }
        Watch(const Watch&) = delete;
        Watch(Watch&&) = delete;
        Watch& operator=(const Watch&) = delete;
        Watch& operator=(Watch&&) = delete;

        const SelectionPtr selection;
        const std::shared_ptr<bool> isListCurrent;
    };

    /// An observer in short, so that one that watches something else is passed over at a glance.
    struct Watcher {
        const ObserverCallback* callback;
        const Watch* watch;
        std::size_t prefixSize;
        uint64_t prefixEnd;  // the last bytes of the prefix, 0 where it has fewer

        bool mayWatch(const std::vector<std::string_view>& keys) const;
    };

    void listWatchers(const ObserverCallbackMap<ObserveReq>& observers);
    bool isListOf(const ObserverCallbackMap<ObserveReq>& observers) const;
    SelectionPtr selectionFor(const std::string& keyPattern);
    void parse(const std::string& keyPattern, Selection& selection) const;
    void dropUnusedSelections();
    void select(const ChangeSetType& changes, const SelectionPtr& selection);
    bool selects(const Selection& selection, const std::string& key) const;
    void forgetPass();

    PathManipulation m_path;
    /// The observers in map order; counts as long as all of them are there.
    std::vector<Watcher> m_watchers;
    std::shared_ptr<bool> m_isListCurrent = std::make_shared<bool>(false);
    std::map<std::string, std::weak_ptr<Selection>> m_selections;
    std::size_t m_sweepSize = 16;  // size of m_selections that makes a sweep worth its while
    uint64_t m_pass = 0;
    std::vector<std::string_view> m_changedKeys;            // of one pass
    std::vector<ChangeSetType::const_iterator> m_selected;  // of one selection
    std::vector<SelectionPtr> m_withPart;  // hold changes that must not outlive the pass
};

}  // namespace Hox::ObserverTree
