#include "key_pattern_selector.h"

#include <algorithm>
#include <cstring>
#include <variant>

#include "hox/observer_tree/path_error.h"

namespace Hox::ObserverTree {

namespace {

/// The last eight bytes of the text's first `size`, 0 where that is less.
uint64_t endOf(std::string_view text, std::size_t size) {
    uint64_t end = 0;
    if (size >= sizeof(end)) {
        std::memcpy(&end, text.data() + (size - sizeof(end)), sizeof(end));
    }
    return end;
}

}  // namespace

void KeyPatternSelector::deliver(const ChangeSetType& changes,
                                 const ObserverCallbackMap<ObserveReq>& observers) {
    if (observers.empty()) {
        return;
    }
    if (!isListOf(observers)) {
        listWatchers(observers);
    }
    ++m_pass;
    const auto forget = [](KeyPatternSelector* selector) { selector->forgetPass(); };
    const std::unique_ptr<KeyPatternSelector, decltype(forget)> atEnd(this, forget);
    for (const auto& change : changes) {
        m_changedKeys.emplace_back(change.first);
    }
    const Status ok;
    for (const auto& watcher : m_watchers) {
        if (!watcher.mayWatch(m_changedKeys)) {
            continue;
        }
        const auto& selection = watcher.watch->selection;
        if (selection->kind == Selection::Kind::Nothing) {
            continue;
        }
        if (selection->pass != m_pass) {
            select(changes, selection);
        }
        if (selection->isWhole) {
            (*watcher.callback)(changes, ok);
        } else if (!selection->part.empty()) {
            (*watcher.callback)(selection->part, ok);
        }
    }
}

bool KeyPatternSelector::Watcher::mayWatch(const std::vector<std::string_view>& keys) const {
    // Keys of one tree mostly begin alike, so that the end of the prefix tells most.
    return std::any_of(keys.begin(), keys.end(), [this](std::string_view key) {
        return key.size() >= prefixSize && endOf(key, prefixSize) == prefixEnd;
    });
}

bool KeyPatternSelector::isListOf(const ObserverCallbackMap<ObserveReq>& observers) const {
    // The first one tells the only observer of a snapshot from an only observer that is listed.
    return *m_isListCurrent && m_watchers.size() == observers.size() &&
           m_watchers.front().callback == observers.begin()->first;
}

void KeyPatternSelector::listWatchers(const ObserverCallbackMap<ObserveReq>& observers) {
    *m_isListCurrent = false;
    m_watchers.clear();
    for (const auto& [address, observer] : observers) {
        if (!observer.derived) {
            observer.derived = std::make_shared<Watch>(
                selectionFor(observer.request->key_pattern()), m_isListCurrent);
        }
        const auto* watch = static_cast<const Watch*>(observer.derived.get());
        const auto& prefix = watch->selection->prefix;
        m_watchers.push_back(
            {observer.observeCallback.get(), watch, prefix.size(), endOf(prefix, prefix.size())});
    }
    *m_isListCurrent = true;
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
        parse(keyPattern, *selection);
    } catch (const PathError&) {
        // The observer was told when it arrived.
    }
    return selection;
}

void KeyPatternSelector::parse(const std::string& keyPattern, Selection& selection) const {
    auto pattern = m_path.parsePath(PathType::KeyPattern, keyPattern);
    std::size_t literals = 0;
    while (literals < pattern.size() && std::holds_alternative<std::string>(pattern[literals])) {
        selection.prefix.append("/").append(std::get<std::string>(pattern[literals]));
        ++literals;
    }
    if (literals == pattern.size()) {
        selection.kind = Selection::Kind::Key;
        selection.prefix = keyPattern;
    } else if (literals + 1 == pattern.size() &&
               std::get<WildCard>(pattern.back()) == WildCard::DoubleStar) {
        selection.kind = Selection::Kind::Subtree;
    } else {
        selection.kind = Selection::Kind::Pattern;
        selection.pattern = std::move(pattern);
    }
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

void KeyPatternSelector::select(const ChangeSetType& changes, const SelectionPtr& selection) {
    m_selected.clear();
    for (auto change = changes.begin(); change != changes.end(); ++change) {
        if (selects(*selection, change->first)) {
            m_selected.push_back(change);
        }
    }
    selection->isWhole = m_selected.size() == changes.size();
    if (!selection->isWhole && !m_selected.empty()) {
        m_withPart.push_back(selection);
        for (const auto& change : m_selected) {
            selection->part.emplace_hint(selection->part.end(), *change);
        }
    }
    selection->pass = m_pass;
}

bool KeyPatternSelector::selects(const Selection& selection, const std::string& key) const {
    // Most keys differ from most patterns here, so that no key has to be parsed for them.
    const auto& prefix = selection.prefix;
    if (key.size() < prefix.size() || std::memcmp(key.data(), prefix.data(), prefix.size()) != 0) {
        return false;
    }
    if (selection.kind == Selection::Kind::Key) {
        return key.size() == prefix.size();
    }
    const bool isAtOrBelow = key.size() == prefix.size() || key[prefix.size()] == '/';
    return isAtOrBelow && (selection.kind == Selection::Kind::Subtree ||
                           m_path.keyMatches(key, selection.pattern));
}

void KeyPatternSelector::forgetPass() {
    for (const auto& selection : m_withPart) {
        selection->part.clear();
    }
    m_withPart.clear();
    m_selected.clear();
    m_changedKeys.clear();
}

}  // namespace Hox::ObserverTree
