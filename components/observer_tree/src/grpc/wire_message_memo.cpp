#include "grpc/wire_message_memo.h"

#include <algorithm>

#include "grpc/client_text.h"
#include "hox/observer_tree/change_set_conversion.h"
#include "hox/observer_tree/message_ptr.h"

namespace Hox::ObserverTree {

namespace {

bool isSame(const std::vector<ChangeSetMapVal>& left, const std::vector<ChangeSetMapVal>& right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](const auto& leftChange, const auto& rightChange) {
                          return leftChange.current == rightChange.current &&
                                 leftChange.previous == rightChange.previous;
                      });
}

}  // namespace

StreamElement WireMessageMemo::element(const ChangeSetType& changes, const Status& status) {
    if (isLast(changes, status)) {
        return m_element;
    }
    const std::shared_ptr<ObsTreeObserveChangeSet> built =
        makeArenaMessage<ObsTreeObserveChangeSet>();
    toWire(changes, *built);
    built->mutable_observestatus()->set_statuscode(status.statusCode());
    if (!status.errorMessage().empty()) {
        built->mutable_observestatus()->set_errormessage(clientText(status.errorMessage()));
    }
    StreamElement element{built, built->ByteSizeLong()};
    if (changes.size() <= maxKeys) {
        remember(changes);
        m_status = status;
        m_element = element;
    }
    return element;
}

void WireMessageMemo::clear() {
    m_changes.clear();
    m_element.message.reset();
}

bool WireMessageMemo::isLast(const ChangeSetType& changes, const Status& status) const {
    return m_element.message && changes.size() == m_changes.size() &&
           status.statusCode() == m_status.statusCode() &&
           status.errorMessage() == m_status.errorMessage() &&
           std::equal(changes.begin(), changes.end(), m_changes.begin(),
                      [](const auto& change, const auto& remembered) {
                          return isSame(change.second, remembered.second) &&
                                 change.first == remembered.first;
                      });
}

void WireMessageMemo::remember(const ChangeSetType& changes) {
    m_changes.resize(changes.size());
    auto remembered = m_changes.begin();
    for (const auto& [key, keyChanges] : changes) {
        remembered->first = key;
        remembered->second = keyChanges;
        ++remembered;
    }
}

}  // namespace Hox::ObserverTree
