#include "key_pattern_selector.h"

#include <algorithm>

#include "hox/observer_tree/path_error.h"

namespace Hox::ObserverTree {

void KeyPatternSelector::deliver(const ChangeSetType& changes,
                                 const ObserverCallbackMap<ObserveReq>& observers) {
    struct PassGuard {
        KeyPatternSelector& selector;
        ~PassGuard() { selector.forgetPass(); }
    };
    ++m_pass;
    const PassGuard guard{*this};
    const Status ok;
    for (const auto& [address, observer] : observers) {
        std::any& derived = *observer.derived;
        if (!derived.has_value()) {
            derived = selectionFor(observer.request->key_pattern());
        }
        const auto& selection = std::any_cast<const SelectionPtr&>(derived);
        if (!selection->pattern) {
            continue;
        }
        if (selection->pass != m_pass) {
            select(changes, *selection);
            m_usedThisPass.push_back(selection);
        }
        if (selection->isWhole) {
            (*observer.observeCallback)(changes, ok);
        } else if (!selection->part.empty()) {
            (*observer.observeCallback)(selection->part, ok);
        }
    }
}

KeyPatternSelector::SelectionPtr KeyPatternSelector::selectionFor(const std::string& keyPattern) {
    dropUnusedSelections();
    auto& shared = m_selections[keyPattern];
    if (auto existing = shared.lock()) {
        return existing;
    }
    auto selection = std::make_shared<Selection>();
    shared = selection;
    try {
        selection->pattern = m_path.parsePath(PathType::KeyPattern, keyPattern);
    } catch (const PathError&) {
        // The observer was told when it arrived.
    }
    return selection;
}

void KeyPatternSelector::dropUnusedSelections() {
    if (m_selections.size() < m_sweepSize) {
        return;
    }
    for (auto it = m_selections.begin(); it != m_selections.end();) {
        it = it->second.expired() ? m_selections.erase(it) : std::next(it);
    }
    m_sweepSize = std::max<std::size_t>(16, 2 * m_selections.size());
}

void KeyPatternSelector::select(const ChangeSetType& changes, Selection& selection) {
    if (m_keys.empty()) {
        m_keys.reserve(changes.size());
        for (const auto& change : changes) {
            m_keys.push_back(m_path.parsePath(PathType::Key, change.first));
        }
    }
    std::vector<ChangeSetType::const_iterator> selected;
    auto change = changes.begin();
    for (const auto& key : m_keys) {
        if (m_path.matches(key, *selection.pattern)) {
            selected.push_back(change);
        }
        ++change;
    }
    selection.isWhole = selected.size() == changes.size();
    selection.part.clear();
    if (!selection.isWhole) {
        for (const auto& it : selected) {
            selection.part.emplace_hint(selection.part.end(), *it);
        }
    }
    selection.pass = m_pass;
}

void KeyPatternSelector::forgetPass() {
    for (const auto& selection : m_usedThisPass) {
        selection->part.clear();
    }
    m_usedThisPass.clear();
    m_keys.clear();
}

}  // namespace Hox::ObserverTree
