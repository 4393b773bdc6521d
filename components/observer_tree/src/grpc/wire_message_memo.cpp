#include "grpc/wire_message_memo.h"

#include <algorithm>

#include "hox/observer_tree/change_set_conversion.h"

namespace Hox::ObserverTree {

namespace {

bool isSame(const ChangeSetMapVal& left, const ChangeSetMapVal& right) {
    return left.current == right.current && left.previous == right.previous;
}

bool isSame(const ChangeSetType& left, const ChangeSetType& right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](const auto& leftEntry, const auto& rightEntry) {
                          return leftEntry.first == rightEntry.first &&
                                 std::equal(leftEntry.second.begin(), leftEntry.second.end(),
                                            rightEntry.second.begin(), rightEntry.second.end(),
                                            [](const auto& leftChange, const auto& rightChange) {
                                                return isSame(leftChange, rightChange);
                                            });
                      });
}

}  // namespace

std::shared_ptr<const ObsTreeObserveChangeSet> WireMessageMemo::message(
    const ChangeSetType& changes, const Status& status) {
    if (isLast(changes, status)) {
        return m_message;
    }
    auto built = std::make_shared<ObsTreeObserveChangeSet>();
    toWire(changes, *built);
    *built->mutable_observestatus() = status.proto();
    if (changes.size() <= maxKeys) {
        m_changes = changes;
        m_status = status;
        m_message = built;
    }
    return built;
}

void WireMessageMemo::clear() {
    m_changes.clear();
    m_message.reset();
}

bool WireMessageMemo::isLast(const ChangeSetType& changes, const Status& status) const {
    return m_message && changes.size() == m_changes.size() &&
           status.statusCode() == m_status.statusCode() &&
           status.errorMessage() == m_status.errorMessage() && isSame(changes, m_changes);
}

}  // namespace Hox::ObserverTree
