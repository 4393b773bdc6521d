#include "reg_ex_selector.h"

#include <utility>

#include "hox/cpputil/error/invalid_argument_error.h"
#include "hox/observer_tree/snapshot.h"

namespace Hox::ObserverTree {

namespace {

using Hox::CppUtil::BoundedRegex;

/// A key that is too long for an expression matches none.
bool matchesKey(BoundedRegex& expression, const std::string& key) {
    return key.size() <= BoundedRegex::maxSubjectSize && expression.matches(key);
}

ChangeSetType select(const ChangeSetType& changes, BoundedRegex& expression) {
    ChangeSetType selected;
    for (const auto& change : changes) {
        if (matchesKey(expression, change.first)) {
            selected.emplace_hint(selected.end(), change);
        }
    }
    return selected;
}

Status refusal(const std::string& expression, const std::exception& error) {
    return {ProtoStatus::INVALID_ARGUMENT,
            "Regular expression error, regex \"" + expression + "\" not valid - " + error.what()};
}

}  // namespace

void RegExSelector::observerArrived(const Observer& observer) {
    m_refusal.reset();
    const auto& text = observer.request->reg_ex();
    try {
        m_expressions.emplace(observer.observeCallback.get(), BoundedRegex(text));
    } catch (const std::exception& error) {
        m_refusal = refusal(text, error);
    }
}

void RegExSelector::observerLeft(const Observer& observer) {
    m_expressions.erase(observer.observeCallback.get());
}

std::optional<Status> RegExSelector::takeRefusal() {
    return std::exchange(m_refusal, std::nullopt);
}

void RegExSelector::deliver(const ChangeSetType& changes, const Observers& observers) {
    for (const auto& [callback, observer] : observers) {
        deliverTo(observer, changes);
    }
}

void RegExSelector::deliverTo(const Observer& observer, const ChangeSetType& changes) {
    const auto found = m_expressions.find(observer.observeCallback.get());
    if (found == m_expressions.end()) {
        return;
    }
    ChangeSetType selected;
    try {
        selected = select(changes, found->second);
    } catch (const Hox::CppUtil::InvalidArgumentError& error) {
        m_expressions.erase(found);
        (*observer.observeCallback)(selected, refusal(observer.request->reg_ex(), error));
    }
    if (!selected.empty()) {
        (*observer.observeCallback)(selected, Status());
    }
}

ChangeSetType RegExSelector::snapshotFor(const Observer& observer, const DataTree& tree) {
    ChangeSetType snapshot;
    const auto found = m_expressions.find(observer.observeCallback.get());
    if (found != m_expressions.end()) {
        addToSnapshot(snapshot, tree, [&expression = found->second](const std::string& key) {
            return matchesKey(expression, key);
        });
    }
    return snapshot;
}

}  // namespace Hox::ObserverTree
