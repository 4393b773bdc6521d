#include "state_mon_fixture.h"

#include <gtest/gtest.h>

#include <ostream>
#include <tuple>
#include <utility>

#include "obstree.pb.h"

namespace Hox::Capability::StateMonitoring::Fixture {

using Hox::ObserverTree::ChangeSetType;
using Hox::ObserverTree::ObserveReq;
using Hox::ObserverTree::Status;

Api::StateNotification notification(const std::string& serviceId, const std::string& type,
                                    const std::string& source, Api::StateSeverity severity) {
    Api::StateNotification result;
    result.set_service_id(serviceId);
    result.set_type(type);
    result.set_source(source);
    result.set_severity(severity);
    return result;
}

google::protobuf::Timestamp timeStamp(int64_t seconds, int32_t nanos) {
    google::protobuf::Timestamp result;
    result.set_seconds(seconds);
    result.set_nanos(nanos);
    return result;
}

bool operator==(const ObservedChange& left, const ObservedChange& right) {
    const auto parts = [](const ObservedChange& change) {
        return std::tie(change.key, change.hasCurrent, change.hasPrevious, change.currentMsg,
                        change.currentIndex);
    };
    return parts(left) == parts(right);
}

std::ostream& operator<<(std::ostream& out, const ObservedChange& change) {
    return out << change.key << (change.hasCurrent ? " current" : "")
               << (change.hasPrevious ? " previous" : "") << " '" << change.currentMsg << "' "
               << change.currentIndex;
}

StateMon::StateMon(int32_t archiveSize, bool isSystemMonitor)
    : m_helper(m_proxyHelper, std::make_shared<std::mutex>(), "head-1", isSystemMonitor,
               archiveSize) {
    m_helper.registerObsTreeHandlers(m_tree);
}

namespace {

/// The result; a missing message is replaced by an empty one and fails the test.
template <typename Resp>
UnaryHandlerReturnType<Resp> withMessage(UnaryHandlerReturnType<Resp> result) {
    EXPECT_NE(result.message, nullptr);
    if (!result.message) {
        result.message = std::make_unique<Resp>();
    }
    return result;
}

}  // namespace

UnaryHandlerReturnType<Api::CreateStateNotificationResp> StateMon::create(
    const Api::StateNotification& notification) {
    Api::CreateStateNotificationReq req;
    *req.mutable_statenotification() = notification;
    return m_tree.callApiOp<UnaryOps::CREATE, Api::CreateStateNotificationReq,
                            Api::CreateStateNotificationResp>("/state/notifications", req);
}

UnaryHandlerReturnType<Api::GetStateNotificationsResp> StateMon::get(
    const Api::GetStateNotificationsReq& req) {
    return withMessage(
        m_tree.callApiOp<UnaryOps::READ, Api::GetStateNotificationsReq,
                         Api::GetStateNotificationsResp>("/state/notifications", req));
}

UnaryHandlerReturnType<Api::GetLatestStateNotificationsResp> StateMon::latest(
    const Api::GetLatestStateNotificationsReq& req) {
    return withMessage(
        m_tree.callApiOp<UnaryOps::READ, Api::GetLatestStateNotificationsReq,
                         Api::GetLatestStateNotificationsResp>("/state/latest", req));
}

Api::StateSeverity StateMon::currentState() {
    return withMessage(
               m_tree.callApiOp<UnaryOps::READ, Api::GetCurrentStateReq, Api::GetCurrentStateResp>(
                   "/state/current", {}))
        .message->currentstate();
}

std::vector<int32_t> StateMon::indices(const Api::GetStateNotificationsReq& req) {
    const auto result = get(req);
    std::vector<int32_t> found;
    for (const auto& stored : result.message->statelist()) {
        found.push_back(stored.index());
    }
    return found;
}

std::vector<int32_t> StateMon::indicesFrom(int32_t index, const std::string& typeRegEx) {
    Api::GetStateNotificationsReq req;
    req.set_index(index);
    req.set_typeregex(typeRegEx);
    return indices(req);
}

std::vector<int32_t> StateMon::indicesSince(const google::protobuf::Timestamp& time,
                                            const std::string& typeRegEx) {
    Api::GetStateNotificationsReq req;
    *req.mutable_timestamp() = time;
    req.set_typeregex(typeRegEx);
    return indices(req);
}

std::shared_ptr<std::vector<std::vector<ObservedChange>>> StateMon::observe(
    const std::string& address, const std::string& pattern) {
    auto observed = std::make_shared<std::vector<std::vector<ObservedChange>>>();
    ObserveReq req;
    req.set_key_pattern(pattern);
    m_observers.emplace_back(m_tree.observe<ObserveReq>(
        address, req,
        [observed](const ChangeSetType& changes, const Status&) {
            auto& changeSet = observed->emplace_back();
            for (const auto& [key, change] : changes) {
                const auto& value = change.at(0);
                ObservedChange entry{key, value.current != nullptr, value.previous != nullptr, "",
                                     -1};
                if (value.current && key.find("/state/notifications/") == 0) {
                    const auto& stored = value.current->get<Api::StoredNotification>();
                    entry.currentMsg = stored.statenotification().msg();
                    entry.currentIndex = stored.index();
                }
                changeSet.push_back(entry);
            }
        },
        0));
    return observed;
}

std::vector<std::string> StateMon::keys() {
    std::vector<std::string> found;
    const auto observed = observe("/", "/**");
    if (!observed->empty()) {
        for (const auto& change : observed->front()) {
            found.push_back(change.key);
        }
    }
    m_observers.pop_back();
    return found;
}

}  // namespace Hox::Capability::StateMonitoring::Fixture
