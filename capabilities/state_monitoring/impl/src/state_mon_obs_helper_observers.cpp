#include <utility>

#include "hox/cpputil/assertion/assertion.h"
#include "hox/cpputil/error/error.h"
#include "hox/observer_tree/utils.h"
#include "hox/state_monitoring/state_mon_obs_helper.h"
#include "monitor_connections.h"
#include "obstree.pb.h"
#include "system_state_reports.h"
#include "systemd_watcher.h"
#include "time_stamp.h"
#include "trap_forwarder.h"

// What the tree does by itself: observers of its keys, and reports of this monitor's own.

namespace Hox::Capability::StateMonitoring {

using Hox::ObserverTree::ChangeSetType;
using Hox::ObserverTree::DataTreeVal;
using Hox::ObserverTree::ObserverCallback;
using Hox::ObserverTree::ObserverTree;
using Hox::ObserverTree::ProtoStatus;
using Hox::ObserverTree::Status;
using Hox::ObserverTree::UnaryOps;

namespace {

constexpr const char* snmpKey = "/snmp";

/// A configuration without any text if a file or a central store has left a value of another type.
Api::SnmpConfiguration snmpConfigurationIn(const DataTreeVal& value) {
    try {
        return value.get<Api::SnmpConfiguration>();
    } catch (const Hox::Error&) {
        return {};
    }
}

void create(Api::StateNotification notification, ObserverTree& tree) {
    Api::CreateStateNotificationReq req;
    *req.mutable_statenotification() = std::move(notification);
    tree.callApiOp<UnaryOps::CREATE, Api::CreateStateNotificationReq,
                   Api::CreateStateNotificationResp>("/state/notifications", req);
}

}  // namespace

void StateMonObsHelper::addObservers(ObserverTree& tree) {
    observe(tree, "/conf", [this, &tree](const ChangeSetType& changes, const Status& /*status*/) {
        m_connections->onConfChanged(changes, tree);
    });
    if (m_isSystemMonitor) {
        observe(tree, snmpKey,
                [this, &tree](const ChangeSetType& changes, const Status& /*status*/) {
                    onSnmpChanged(changes, tree);
                });
    }
    observe(tree, "/status", [this, &tree](const ChangeSetType& changes, const Status& /*status*/) {
        m_connections->onStatusChanged(changes, tree);
    });
}

void StateMonObsHelper::observe(ObserverTree& tree, const std::string& keyPattern,
                                ObserverCallback callback) {
    Hox::ObserverTree::ObserveReq req;
    req.set_key_pattern(keyPattern);
    m_observeHandles.emplace_back(
        tree.observe<Hox::ObserverTree::ObserveReq>("/", req, std::move(callback), 0));
}

void StateMonObsHelper::releaseConnectionThreads() {
    m_connections->release();
}

void StateMonObsHelper::startNodeMonitoring(ObserverTree& tree) {
    HOX_ASSERT(!m_systemdWatcher);
    m_systemdWatcher = std::make_unique<SystemdWatcher>(
        [this, &tree](const std::string& managerState) { checkSystemState(managerState, tree); });
}

void StateMonObsHelper::checkSystemState(const std::string& managerState, ObserverTree& tree) {
    const std::lock_guard<std::mutex> capability(*m_capabilityMutex);
    if (auto notification = m_systemStateReports->update(managerState)) {
        create(std::move(*notification), tree);
    }
}

void StateMonObsHelper::reportConnectState(const Api::StateSeverity& severity, ObserverTree& tree) {
    if (severity == m_connectState) {
        return;
    }
    m_connectState = severity;
    Api::StateNotification notification;
    notification.set_severity(severity);
    notification.set_service_id(m_serviceId);
    notification.set_type(
        Api::StateNotificationTypes_Name(Api::Cap_StateMonitoring_StateMonConnects));
    notification.set_source("status");
    notification.set_msg(severity == Api::StateSeverity::OK
                             ? "All external connections are successfully established"
                             : "Error connection to one or more external state monitors");
    *notification.mutable_timestamp() = currentTimeStamp();
    create(std::move(notification), tree);
}

void StateMonObsHelper::registerSnmpHandlers(ObserverTree& tree) {
    tree.registerUnaryOpHandler<UnaryOps::UPDATE, Api::SetSnmpConfReq, Api::SetSnmpConfResp>(
        snmpKey, [this](const auto& req, DataTree& data) { return setSnmpConf(req, data); });
    tree.registerUnaryOpHandler<UnaryOps::READ, Api::GetSnmpConfReq, Api::GetSnmpConfResp>(
        snmpKey, [](const auto&, DataTree& data) {
            auto resp = std::make_unique<Api::GetSnmpConfResp>();
            const auto found = data.find(snmpKey);
            if (found != data.end()) {
                *resp->mutable_conf() = snmpConfigurationIn(*found->second);
            }
            return Result<Api::GetSnmpConfResp>{std::move(resp), Status()};
        });
    tree.registerUnaryOpHandler<UnaryOps::REMOVE, Api::RemoveSnmpConfReq, Api::RemoveSnmpConfResp>(
        snmpKey, [](const auto&, DataTree& data) {
            data.erase(snmpKey);
            return Result<Api::RemoveSnmpConfResp>{std::make_unique<Api::RemoveSnmpConfResp>(),
                                                   Status()};
        });
}

auto StateMonObsHelper::setSnmpConf(const Api::SetSnmpConfReq& req, DataTree& tree) const
    -> Result<Api::SetSnmpConfResp> {
    auto resp = std::make_unique<Api::SetSnmpConfResp>();
    if (!m_isSystemMonitor) {
        return {std::move(resp), Status(ProtoStatus::UNAVAILABLE,
                                        "Cannot configure SNMP on non-system state monitor")};
    }
    tree.insert_or_assign(snmpKey, std::make_shared<const DataTreeVal>(req.conf()));
    return {std::move(resp), Status()};
}

void StateMonObsHelper::onSnmpChanged(const ChangeSetType& changes, ObserverTree& tree) {
    if (changes.empty()) {
        return;
    }
    const auto& change = changes.begin()->second.at(0);
    if (change.current) {
        m_trapForwarder->configure(snmpConfigurationIn(*change.current));
        return;
    }
    m_trapForwarder->disable();
    Api::StateNotification notification;
    notification.set_severity(Api::StateSeverity::OK);
    notification.set_service_id(m_serviceId);
    notification.set_type(Api::StateNotificationTypes_Name(Api::Cap_StateMonitoring_SnmpConfState));
    notification.set_source("snmp");
    notification.set_msg("SNMP configuration disabled.");
    *notification.mutable_timestamp() = currentTimeStamp();
    create(std::move(notification), tree);
}

}  // namespace Hox::Capability::StateMonitoring
