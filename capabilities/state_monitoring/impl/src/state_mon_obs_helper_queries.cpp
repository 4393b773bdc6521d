#include <algorithm>
#include <limits>
#include <regex>
#include <utility>
#include <vector>

#include "hox/cpputil/error/invalid_argument_error.h"
#include "hox/state_monitoring/state_mon_obs_helper.h"
#include "notification_keys.h"
#include "type_filter.h"

namespace Hox::Capability::StateMonitoring {

using Hox::ObserverTree::DataTree;
using Hox::ObserverTree::makeArenaMessage;
using Hox::ObserverTree::ProtoStatus;
using Hox::ObserverTree::Status;

namespace {

bool isEarlier(const google::protobuf::Timestamp& left, const google::protobuf::Timestamp& right) {
    return left.seconds() != right.seconds() ? left.seconds() < right.seconds()
                                             : left.nanos() < right.nanos();
}

}  // namespace

auto StateMonObsHelper::getStateNotifications(const Api::GetStateNotificationsReq& req) const
    -> Result<Api::GetStateNotificationsResp> {
    auto resp = makeArenaMessage<Api::GetStateNotificationsResp>();
    std::string failure;
    try {
        TypeFilter filter(req.typeregex());
        if (req.has_timestamp()) {
            selectByTime(req.timestamp(), filter, *resp);
        } else {
            selectByIndex(req.index(), filter, *resp);
        }
        return {std::move(resp), Status()};
    } catch (const std::regex_error& error) {
        failure = error.what();
    } catch (const Hox::CppUtil::InvalidArgumentError& error) {
        failure = error.what();
    }
    resp->Clear();
    return {std::move(resp), Status(ProtoStatus::FAILED_PRECONDITION, failure)};
}

void StateMonObsHelper::selectByIndex(int32_t index, TypeFilter& filter,
                                      Api::GetStateNotificationsResp& resp) const {
    const auto limit = index < 0 ? static_cast<std::size_t>(-static_cast<int64_t>(index))
                                 : std::numeric_limits<std::size_t>::max();
    std::vector<const Api::StoredNotification*> selected;
    for (auto entry = m_archive.rbegin(); entry != m_archive.rend(); ++entry) {
        const auto& stored = *entry->notification;
        if (stored.index() < index || selected.size() == limit) {
            break;
        }
        if (filter.accepts(stored.statenotification().type())) {
            selected.push_back(&stored);
        }
    }
    // Behind the walk: the entries lie scattered in memory, and a walk without copying waits less.
    auto& stateList = *resp.mutable_statelist();
    stateList.Reserve(static_cast<int>(selected.size()));
    for (const auto* stored : selected) {
        *stateList.Add() = *stored;
    }
}

void StateMonObsHelper::selectByTime(const google::protobuf::Timestamp& from, TypeFilter& filter,
                                     Api::GetStateNotificationsResp& resp) const {
    for (const auto& entry : m_archive) {
        const auto& notification = entry.notification->statenotification();
        if (!isEarlier(notification.timestamp(), from) && filter.accepts(notification.type())) {
            *resp.add_statelist() = *entry.notification;
        }
    }
}

auto StateMonObsHelper::getLatestStateNotifications(const Api::GetLatestStateNotificationsReq& req,
                                                    const DataTree& tree) const
    -> Result<Api::GetLatestStateNotificationsResp> {
    auto resp = makeArenaMessage<Api::GetLatestStateNotificationsResp>();
    if (req.changesetonly()) {
        return {std::move(resp), Status(ProtoStatus::UNIMPLEMENTED, "Changeset is not supported")};
    }
    if (m_nextIndex > req.fromindex()) {
        for (auto entry = tree.lower_bound(latestPrefix); liesUnder(entry, latestPrefix, tree);
             ++entry) {
            *resp->add_statelist() = entry->second->get<Api::StoredNotification>();
        }
    }
    resp->set_lateststatenotificationindex(m_nextIndex);
    return {std::move(resp), Status()};
}

auto StateMonObsHelper::getCurrentState() const -> Result<Api::GetCurrentStateResp> {
    auto state = Api::StateSeverity::OK;
    if (m_latestErrors > 0) {
        state = Api::StateSeverity::ERROR;
    } else if (m_systemState == static_cast<int>(SystemState::Starting)) {
        state = Api::StateSeverity::BOOTING;
    } else if (m_latestWarnings > 0) {
        state = Api::StateSeverity::WARN;
    }
    auto resp = std::make_unique<Api::GetCurrentStateResp>();
    resp->set_currentstate(state);
    return {std::move(resp), Status()};
}

}  // namespace Hox::Capability::StateMonitoring
