#include <regex>
#include <utility>

#include "hox/cpputil/error/invalid_argument_error.h"
#include "hox/state_monitoring/state_mon_obs_helper.h"
#include "notification_store.h"
#include "system_state_reports.h"

namespace Hox::Capability::StateMonitoring {

using Hox::ObserverTree::DataTree;
using Hox::ObserverTree::makeArenaMessage;
using Hox::ObserverTree::ProtoStatus;
using Hox::ObserverTree::Status;

auto StateMonObsHelper::getStateNotifications(const Api::GetStateNotificationsReq& req) const
    -> Result<Api::GetStateNotificationsResp> {
    auto resp = makeArenaMessage<Api::GetStateNotificationsResp>();
    std::string failure;
    try {
        TypeFilter filter(req.typeregex());
        if (req.has_timestamp()) {
            m_store->addByTime(req.timestamp(), filter, *resp->mutable_statelist());
        } else {
            m_store->addByIndex(req.index(), filter, *resp->mutable_statelist());
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

auto StateMonObsHelper::getLatestStateNotifications(const Api::GetLatestStateNotificationsReq& req,
                                                    const DataTree& tree) const
    -> Result<Api::GetLatestStateNotificationsResp> {
    auto resp = makeArenaMessage<Api::GetLatestStateNotificationsResp>();
    if (req.changesetonly()) {
        return {std::move(resp), Status(ProtoStatus::UNIMPLEMENTED, "Changeset is not supported")};
    }
    if (m_store->nextIndex() > req.fromindex()) {
        NotificationStore::addLatest(tree, *resp->mutable_statelist());
    }
    resp->set_lateststatenotificationindex(m_store->nextIndex());
    return {std::move(resp), Status()};
}

auto StateMonObsHelper::getCurrentState() const -> Result<Api::GetCurrentStateResp> {
    auto state = Api::StateSeverity::OK;
    if (m_store->hasErrors()) {
        state = Api::StateSeverity::ERROR;
    } else if (m_systemStateReports->state() == SystemState::Starting) {
        state = Api::StateSeverity::BOOTING;
    } else if (m_store->hasWarnings()) {
        state = Api::StateSeverity::WARN;
    }
    auto resp = std::make_unique<Api::GetCurrentStateResp>();
    resp->set_currentstate(state);
    return {std::move(resp), Status()};
}

}  // namespace Hox::Capability::StateMonitoring
