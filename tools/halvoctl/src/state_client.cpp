#include "state_client.h"

#include <algorithm>

#include "configuration.pb.h"
#include "request_guard.h"

namespace Hox::Ctl {

namespace Api = Hox::Capability::StateMonitoring::Api;

namespace {

std::string statePath(const std::string& method) {
    return "/Hox.Capability.StateMonitoring.Api.StateMonitoringService/" + method;
}

}  // namespace

Severity StateClient::current() const {
    Api::GetCurrentStateResp response;
    m_connection.call(statePath("getCurrentState"), Api::GetCurrentStateReq(), response);
    return response.currentstate();
}

std::vector<StateClient::Stored> StateClient::latest() const {
    Api::GetLatestStateNotificationsResp response;
    m_connection.call(statePath("getLatestStateNotifications"),
                      Api::GetLatestStateNotificationsReq(), response);
    return {response.statelist().begin(), response.statelist().end()};
}

std::vector<StateClient::Stored> StateClient::archived(const Query& query) const {
    RequestGuard().check(query, false);
    Api::GetStateNotificationsResp response;
    m_connection.call(statePath("getStateNotifications"), query, response);
    std::vector<Stored> reports(response.statelist().begin(), response.statelist().end());
    std::sort(reports.begin(), reports.end(),
              [](const Stored& one, const Stored& other) { return one.index() < other.index(); });
    return reports;
}

void StateClient::report(const Report& report) const {
    Api::CreateStateNotificationReq request;
    *request.mutable_statenotification() = report;
    RequestGuard().check(request, false);
    Api::CreateStateNotificationResp response;
    m_connection.call(statePath("createStateNotification"), request, response);
}

std::optional<StateClient::Manager> StateClient::manager() const {
    Api::GetSnmpConfResp response;
    m_connection.call(statePath("getSnmpConf"), Api::GetSnmpConfReq(), response);
    return response.has_conf() ? std::optional(response.conf()) : std::nullopt;
}

void StateClient::setManager(const Manager& manager) const {
    Api::SetSnmpConfReq request;
    *request.mutable_conf() = manager;
    Api::SetSnmpConfResp response;
    m_connection.call(statePath("setSnmpConf"), request, response);
}

void StateClient::clearManager() const {
    Api::RemoveSnmpConfResp response;
    m_connection.call(statePath("removeSnmpConf"), Api::RemoveSnmpConfReq(), response);
}

std::vector<StateClient::Stored> savingReports(const std::vector<StateClient::Stored>& latest) {
    namespace Configuration = Hox::Capability::Configuration::Api;
    const auto& type = Configuration::StateNotificationTypes_Name(
        Configuration::Cap_Configuration_SysConfPersisted);
    std::vector<StateClient::Stored> found;
    std::copy_if(latest.begin(), latest.end(), std::back_inserter(found),
                 [&type](const auto& stored) {
                     const auto& report = stored.statenotification();
                     return report.type() == type && report.source() == "sys/conf/update";
                 });
    return found;
}

std::set<std::string> unsavedInBoth(const std::vector<StateClient::Stored>& before,
                                    const std::vector<StateClient::Stored>& after) {
    auto same = after;
    same.erase(std::remove_if(same.begin(), same.end(),
                              [&before](const auto& stored) {
                                  return std::none_of(before.begin(), before.end(),
                                                      [&stored](const auto& earlier) {
                                                          return earlier.index() == stored.index();
                                                      });
                              }),
               same.end());
    return unsavedServices(same);
}

std::set<std::string> unsavedServices(const std::vector<StateClient::Stored>& latest) {
    std::set<std::string> found;
    for (const auto& stored : savingReports(latest)) {
        const auto& report = stored.statenotification();
        if (severityRank(report.severity()) > 0) {
            found.insert(report.service_id());
        }
    }
    return found;
}

}  // namespace Hox::Ctl
