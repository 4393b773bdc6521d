#include "reg_ex_selector.h"

#include <utility>

#include "hox/observer_tree/snapshot.h"

namespace Hox::ObserverTree {

namespace {

using Hox::CppUtil::BoundedRegex;

/// A key that no expression may be tried on is matched by none.
bool matchesKey(BoundedRegex& expression, const std::string& key) {
    return key.size() <= BoundedRegex::maxSubjectSize && expression.matches(key);
}

void tell(const ObserverCallback& callback, BoundedRegex& expression,
          const ChangeSetType& changes) {
    ChangeSetType selected;
    for (const auto& change : changes) {
        if (matchesKey(expression, change.first)) {
            selected.emplace_hint(selected.end(), change);
        }
    }
    if (!selected.empty()) {
        callback(selected, Status());
    }
}

}  // namespace

void RegExSelector::observerArrived(const Observer& observer) {
    m_refusal.reset();
    const auto& text = observer.request->reg_ex();
    try {
        m_expressions.emplace(observer.observeCallback.get(), BoundedRegex(text));
    } catch (const std::exception& error) {
        m_refusal =
            Status(ProtoStatus::INVALID_ARGUMENT,
                   "Regular expression error, regex \"" + text + "\" not valid - " + error.what());
    }
}

void RegExSelector::observerLeft(const Observer& observer) {
    m_expressions.erase(observer.observeCallback.get());
}

std::optional<Status> RegExSelector::takeRefusal() {
    return std::exchange(m_refusal, std::nullopt);
}

void RegExSelector::deliver(const ChangeSetType& changes, const Observers& /*observers*/) {
    for (auto& [callback, expression] : m_expressions) {
        tell(*callback, expression, changes);
    }
}

void RegExSelector::deliverTo(const Observer& observer, const ChangeSetType& changes) {
    const auto found = m_expressions.find(observer.observeCallback.get());
    if (found != m_expressions.end()) {
        tell(*observer.observeCallback, found->second, changes);
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
