#include "key_pattern_selector.h"

#include <algorithm>
#include <functional>

#include "hox/observer_tree/path_error.h"

namespace Hox::ObserverTree {

struct KeyPatternSelector::Pass {
    /// The number of changes of a short handler; memory for more is kept for one pass only.
    static constexpr std::size_t maxKeptCapacity = 16;

    explicit Pass(KeyPatternSelector& owner) : selector(owner) {}
    ~Pass() {
        for (auto* selection : selector.m_concerned) {
            selection->selected.clear();
            if (selection->selected.capacity() > maxKeptCapacity) {
                selection->selected.shrink_to_fit();
            }
            selection->part.clear();
            selection->failure = nullptr;
        }
        selector.m_concerned.clear();
        selector.m_calls.clear();
    }
    Pass(const Pass&) = delete;
    Pass(Pass&&) = delete;
    Pass& operator=(const Pass&) = delete;
    Pass& operator=(Pass&&) = delete;

    KeyPatternSelector& selector;
};

void KeyPatternSelector::observerArrived(const Observer& observer) {
    m_refusal.reset();
    auto* selection = selectionOf(observer);
    if (selection == nullptr) {
        try {
            selection = &addSelection(observer.request->key_pattern());
        } catch (const PathError& error) {
            m_refusal = Status(ProtoStatus::INVALID_ARGUMENT, error.what());
            return;
        }
    }
    selection->observers.insert(observer.observeCallback.get());
}

void KeyPatternSelector::observerLeft(const Observer& observer) {
    const auto position = m_selections.find(observer.request->key_pattern());
    if (position == m_selections.end()) {
        return;
    }
    auto& observers = position->second.observers;
    observers.erase(observer.observeCallback.get());
    if (observers.empty()) {
        removeSelection(position);
    }
}

std::optional<Status> KeyPatternSelector::takeRefusal() {
    return std::exchange(m_refusal, std::nullopt);
}

void KeyPatternSelector::deliver(const ChangeSetType& changes, const Observers& /*observers*/) {
    const Pass pass(*this);
    for (auto change = changes.begin(); change != changes.end(); ++change) {
        visitCandidates(change->first,
                        [this, change](Selection& selection) { match(selection, change); });
    }
    for (auto* selection : m_concerned) {
        makePart(*selection, changes);
    }
    tellAll(changes);
}

void KeyPatternSelector::deliverTo(const Observer& observer, const ChangeSetType& changes) {
    auto* selection = selectionOf(observer);
    if (selection == nullptr) {
        return;
    }
    const Pass pass(*this);
    for (auto change = changes.begin(); change != changes.end(); ++change) {
        match(*selection, change);
    }
    if (!m_concerned.empty()) {
        makePart(*selection, changes);
        tell(*observer.observeCallback, *selection, changes);
    }
}

ChangeSetType KeyPatternSelector::snapshotFor(const Observer& observer, const DataTree& tree) {
    const auto* selection = selectionOf(observer);
    return selection == nullptr ? ChangeSetType() : selection->pattern.snapshotOf(m_path, tree);
}

KeyPatternSelector::Selection* KeyPatternSelector::selectionOf(const Observer& observer) {
    const auto found = m_selections.find(observer.request->key_pattern());
    return found == m_selections.end() ? nullptr : &found->second;
}

KeyPatternSelector::Selection& KeyPatternSelector::addSelection(const std::string& keyPattern) {
    auto& selection =
        m_selections.try_emplace(keyPattern, KeyPattern(m_path, keyPattern)).first->second;
    const auto& shape = selection.pattern.shape();
    m_byShape[shape][shape.hashOf(keyPattern).value()].insert(&selection);
    return selection;
}

void KeyPatternSelector::removeSelection(Selections::iterator position) {
    const auto& shape = position->second.pattern.shape();
    const auto ofShape = m_byShape.find(shape);
    const auto ofHash = ofShape->second.find(shape.hashOf(position->first).value());
    ofHash->second.erase(&position->second);
    if (ofHash->second.empty()) {
        ofShape->second.erase(ofHash);
    }
    if (ofShape->second.empty()) {
        m_byShape.erase(ofShape);
    }
    m_selections.erase(position);
}

/// Calls `visit` for each selection whose pattern may select the key: its literals have the same
/// hash as those of the key at the same positions.
template <typename Visitor>
void KeyPatternSelector::visitCandidates(const std::string& key, Visitor visit) {
    for (const auto& [shape, selections] : m_byShape) {
        const auto hash = shape.hashOf(key);
        const auto found = hash ? selections.find(*hash) : selections.end();
        if (found != selections.end()) {
            std::for_each(found->second.begin(), found->second.end(),
                          [&visit](Selection* selection) { visit(*selection); });
        }
    }
}

void KeyPatternSelector::match(Selection& selection, ChangeSetType::const_iterator change) {
    if (selection.failure) {
        return;
    }
    try {
        if (!selection.pattern.selects(m_path, change->first)) {
            return;
        }
    } catch (...) {
        // Thrown where its first observer would be called: the observers before it get their
        // changes.
        selection.failure = std::current_exception();
    }
    if (selection.selected.empty()) {
        m_concerned.push_back(&selection);
    }
    selection.selected.push_back(change);
}

void KeyPatternSelector::makePart(Selection& selection, const ChangeSetType& changes) {
    if (selection.selected.size() < changes.size()) {
        for (const auto& change : selection.selected) {
            selection.part.emplace_hint(selection.part.end(), *change);
        }
    }
}

/// Calls the observers of all concerned selections, in the order of their callbacks' addresses.
void KeyPatternSelector::tellAll(const ChangeSetType& changes) {
    if (m_concerned.size() == 1) {
        for (const auto* callback : m_concerned.front()->observers) {
            tell(*callback, *m_concerned.front(), changes);
        }
        return;
    }
    for (const auto* selection : m_concerned) {
        for (const auto* callback : selection->observers) {
            m_calls.emplace_back(callback, selection);
        }
    }
    std::sort(m_calls.begin(), m_calls.end(), [](const auto& left, const auto& right) {
        return std::less<>()(left.first, right.first);
    });
    for (const auto& [callback, selection] : m_calls) {
        tell(*callback, *selection, changes);
    }
}

void KeyPatternSelector::tell(const ObserverCallback& callback, const Selection& selection,
                              const ChangeSetType& changes) const {
    if (selection.failure) {
        std::rethrow_exception(selection.failure);
    }
    callback(selection.part.empty() ? changes : selection.part, m_ok);
}

}  // namespace Hox::ObserverTree
